// SPDX-License-Identifier: Apache-2.0
#include "tools/vorlix/Completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vorlix::tool::CommandShape;
using vorlix::tool::OptionShape;
using vorlix::tool::ValueKind;
using vorlix::tool::Wanted;
using vorlix::tool::wantedBy;
using vorlix::tool::withoutTilde;

OptionShape flagShape(const std::string& name) {
  OptionShape shape;
  shape.name = name;
  shape.description = "about " + name;
  return shape;
}

OptionShape valueShape(const std::string& name, ValueKind kind) {
  OptionShape shape = flagShape(name);
  shape.isPositional = name.front() != '-';
  shape.takesValue = true;
  shape.kind = kind;
  return shape;
}

// A command line with one command of each form.
CommandShape exampleShape() {
  OptionShape start = valueShape("--start", ValueKind::choice);
  start.choices = {"legacy", "efi"};
  OptionShape all = flagShape("--all");
  OptionShape name = valueShape("NAME", ValueKind::backup);
  all.excluded = {"NAME"};
  name.excluded = {"--all"};
  CommandShape write{"write",
                     "Writes",
                     {flagShape("--help"), valueShape("DISK", ValueKind::disk), valueShape("FILE", ValueKind::file),
                      valueShape("--partition", ValueKind::partition), start},
                     {},
                     false,
                     ""};
  CommandShape undo{"undo", "Undoes", {name, all}, {}, false, ""};
  CommandShape save{"save", "Saves", {valueShape("DEVICE", ValueKind::device)}, {}, false, ""};
  CommandShape record{"record", "Records", {flagShape("--help")}, {save}, false, ""};
  OptionShape disks = valueShape("DISK", ValueKind::disk);
  disks.mayRepeat = true;
  CommandShape list{"list", "Lists", {disks}, {}, false, ""};
  CommandShape run{"run", "Runs", {valueShape("PROGRAM", ValueKind::file), flagShape("--fast")}, {}, true, ""};
  return {"vorlix", "", {flagShape("--verbose")}, {write, undo, record, run, list}, false, ""};
}

Wanted wantedOf(const std::vector<std::string>& words) {
  return wantedBy(exampleShape(), words);
}

std::vector<std::string> textsOf(const Wanted& wanted) {
  std::vector<std::string> texts;
  for (const auto& candidate : wanted.words) texts.push_back(candidate.text);
  return texts;
}

TEST(CompletionTest, firstWordIsACommandWhateverHasBeenWritten) {
  for (const std::string word : {"", "wr", "unknown"}) {
    const Wanted wanted = wantedOf({word});
    EXPECT_EQ(wanted.place, Wanted::Place::command);
    EXPECT_EQ(wanted.word, word);
    EXPECT_THAT(textsOf(wanted), ElementsAre("write", "undo", "record", "run", "list"));
    EXPECT_EQ(wanted.words[0].description, "Writes");
  }
}

TEST(CompletionTest, anArgumentThatMayRepeatIsWantedAgain) {
  for (const auto& words : {std::vector<std::string>{"list", ""}, {"list", "one", ""}, {"list", "one", "two", ""}}) {
    EXPECT_EQ(wantedOf(words).kind, ValueKind::disk);
  }
}

TEST(CompletionTest, nothingIsWantedWithoutAWord) {
  EXPECT_EQ(wantedOf({}).place, Wanted::Place::nothing);
}

TEST(CompletionTest, nothingIsWantedAfterAWordThatIsNoCommand) {
  const Wanted wanted = wantedOf({"nonsense", ""});
  EXPECT_EQ(wanted.place, Wanted::Place::nothing);
  EXPECT_THAT(wanted.words, IsEmpty());
}

TEST(CompletionTest, optionsBeforeTheCommandAreThoseOfTheProgram) {
  EXPECT_THAT(textsOf(wantedOf({"-"})), ElementsAre("--verbose"));
  EXPECT_EQ(wantedOf({"--verbose", ""}).place, Wanted::Place::command);
  EXPECT_THAT(textsOf(wantedOf({"--verbose", "-"})), IsEmpty());
}

TEST(CompletionTest, aCommandOfACommand) {
  EXPECT_THAT(textsOf(wantedOf({"record", ""})), ElementsAre("save"));
  EXPECT_THAT(textsOf(wantedOf({"record", "-"})), ElementsAre("--help"));
  EXPECT_EQ(wantedOf({"record", "save", ""}).kind, ValueKind::device);
}

TEST(CompletionTest, argumentsInTheirOrderThenOptions) {
  EXPECT_EQ(wantedOf({"write", ""}).kind, ValueKind::disk);
  EXPECT_EQ(wantedOf({"write", "mac.img", "fi"}).kind, ValueKind::file);
  EXPECT_EQ(wantedOf({"write", "--partition", "3", "mac.img", ""}).kind, ValueKind::file);
  const Wanted wanted = wantedOf({"write", "mac.img", "file", ""});
  EXPECT_EQ(wanted.place, Wanted::Place::option);
  EXPECT_THAT(textsOf(wanted), ElementsAre("--help", "--partition", "--start"));
}

TEST(CompletionTest, anOptionIsOfferedOnce) {
  EXPECT_THAT(textsOf(wantedOf({"write", "--partition", "3", "--"})), ElementsAre("--help", "--start"));
  EXPECT_THAT(textsOf(wantedOf({"write", "--partition=3", "--s"})), ElementsAre("--help", "--start"));
}

TEST(CompletionTest, theValueAfterAnOption) {
  const Wanted apart = wantedOf({"write", "--start", "ef"});
  EXPECT_EQ(apart.place, Wanted::Place::value);
  EXPECT_EQ(apart.kind, ValueKind::choice);
  EXPECT_EQ(apart.before, "");
  EXPECT_EQ(apart.word, "ef");
  EXPECT_THAT(textsOf(apart), ElementsAre("legacy", "efi"));
  const Wanted joined = wantedOf({"write", "--start=ef"});
  EXPECT_EQ(joined.before, "--start=");
  EXPECT_EQ(joined.word, "ef");
  EXPECT_THAT(textsOf(joined), ElementsAre("legacy", "efi"));
}

TEST(CompletionTest, aValueMayLookLikeAnOption) {
  EXPECT_EQ(wantedOf({"write", "--start", "-"}).place, Wanted::Place::value);
  EXPECT_EQ(wantedOf({"write", "--start", "--partition", ""}).kind, ValueKind::disk);
}

TEST(CompletionTest, noValueForAFlagOrAnUnknownOption) {
  EXPECT_EQ(wantedOf({"write", "--help=x"}).place, Wanted::Place::nothing);
  EXPECT_EQ(wantedOf({"write", "--none=x"}).place, Wanted::Place::nothing);
  EXPECT_EQ(wantedOf({"write", "--none", ""}).kind, ValueKind::disk);
}

TEST(CompletionTest, thePartitionIsOfTheDiskNamedBefore) {
  EXPECT_EQ(wantedOf({"write", "mac.img", "--partition", ""}).disk, "mac.img");
  EXPECT_EQ(wantedOf({
                         "write",
                         "/dev/sda",
                         "boot.bin",
                         "--partition=",
                     })
                .disk,
            "/dev/sda");
  EXPECT_EQ(wantedOf({"write", "--partition", ""}).disk, "");
  EXPECT_EQ(wantedOf({"record", "save", "mac.imgs1", ""}).disk, "") << "a slice is no disk";
}

TEST(CompletionTest, whatIsExcludedIsNotOffered) {
  EXPECT_EQ(wantedOf({"undo", ""}).kind, ValueKind::backup);
  const Wanted list = wantedOf({"undo", "--all", ""});
  EXPECT_EQ(list.place, Wanted::Place::option);
  EXPECT_THAT(list.words, IsEmpty());
  EXPECT_THAT(textsOf(wantedOf({"undo", "name", "-"})), IsEmpty());
}

TEST(CompletionTest, onlyArgumentsAfterTwoHyphens) {
  const Wanted wanted = wantedOf({"write", "--", "--start"});
  EXPECT_EQ(wanted.place, Wanted::Place::value);
  EXPECT_EQ(wanted.kind, ValueKind::disk);
  EXPECT_EQ(wantedOf({"write", "--", "disk", "file", ""}).place, Wanted::Place::nothing);
}

TEST(CompletionTest, theRestIsForAnotherProgram) {
  EXPECT_THAT(textsOf(wantedOf({"run", "-"})), ElementsAre("--fast"));
  for (const std::string word : {"", "-", "--fast", "--x=y"}) {
    const Wanted wanted = wantedOf({"run", "--", "/bin/ls", word});
    EXPECT_EQ(wanted.kind, ValueKind::file) << word;
    EXPECT_EQ(wanted.before, "") << word;
    EXPECT_EQ(wantedOf({"run", "/bin/ls", "-l", word}).kind, ValueKind::file) << word;
  }
}

TEST(CompletionTest, theHomeFolderStandsForATilde) {
  EXPECT_EQ(withoutTilde("~/mac.img", "/home/me"), "/home/me/mac.img");
  EXPECT_EQ(withoutTilde("~/mac.img", ""), "~/mac.img");
  EXPECT_EQ(withoutTilde("~other/mac.img", "/home/me"), "~other/mac.img");
  EXPECT_EQ(withoutTilde("a~/b", "/home/me"), "a~/b");
}

}  // namespace
