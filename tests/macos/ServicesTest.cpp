// SPDX-License-Identifier: Apache-2.0
//
// Values, code signatures, the log and other services of macOS.
#include <Vorlix/platform/CodeSigning.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemLog.h>
#include <Vorlix/platform/UserLocale.h>
#include <Vorlix/platform/VolumeMirrors.h>

#include "platform/macos/CFValue.h"
#include "platform/posix/Spawning.h"
#include "tests/contract/DeviceWorlds.h"
#include "tests/macos/standin/System.h"

namespace vorlix::contract {
namespace {

// ----------------------------------------------------------------------------------------------------------- values

std::optional<Value> thereAndBack(const Value& value) {
  return valueFromCF(valueToCF(value).get());
}

TEST(CFValues, GoThereAndComeBack) {
  auto list = std::make_shared<Array>();
  list->values = {Value(true), Value(int64_t{-1})};
  for (const Value& value :
       {Value(true), Value(false), Value(int64_t{-5}), Value(2.5), Value(std::string("Größe\n")), Value(std::string()),
        Value(Data{0, 1, 255}), Value(Data{}), Value(*UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF")),
        Value(URL::fileURLWithPath("/Volumes/a b", true))}) {
    EXPECT_EQ(thereAndBack(value), value);
  }
  const auto back = std::get<std::shared_ptr<const Array>>(*thereAndBack(std::shared_ptr<const Array>(list)));
  EXPECT_EQ(back->values, list->values);
}

TEST(CFValues, OfOtherTypesAreAbsent) {
  const CFOwned<CFDateRef> date(CFDateCreate(nullptr, 0));
  EXPECT_FALSE(valueFromCF(date.get()));
  EXPECT_FALSE(valueFromCF(nullptr));
  EXPECT_FALSE(textFromCF(nullptr));
  const void* const two[] = {date.get(), kCFBooleanTrue};
  const CFOwned<CFArrayRef> array(CFArrayCreate(nullptr, const_cast<const void**>(two), 2, &kCFTypeArrayCallBacks));
  EXPECT_EQ(std::get<std::shared_ptr<const Array>>(*valueFromCF(array.get()))->values, (std::vector<Value>{true}));
  const void* const keys[] = {kCFBooleanFalse, CFSTR("date"), CFSTR("yes")};
  const void* const values[] = {kCFBooleanTrue, date.get(), kCFBooleanTrue};
  const CFOwned<CFDictionaryRef> dictionary(
      CFDictionaryCreate(nullptr, const_cast<const void**>(keys), const_cast<const void**>(values), 3,
                         &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  EXPECT_EQ(dictionaryFromCF(dictionary.get()).values().size(), 1U);
  EXPECT_TRUE(dictionaryFromCF(nullptr).values().empty());
}

TEST(CFValues, TextThatIsNoTextIsAbsent) {
  const UniChar lone = 0xD800;
  const CFOwned<CFStringRef> text(CFStringCreateWithCharacters(nullptr, &lone, 1));
  EXPECT_FALSE(textFromCF(text.get()));
  EXPECT_FALSE(valueFromCF(text.get()));
  EXPECT_FALSE(stringToCF("\xFF"));
  EXPECT_FALSE(valueToCF(std::string("\xFF")));
  EXPECT_FALSE(valueToCF(std::shared_ptr<const Dictionary>()));
  EXPECT_FALSE(valueToCF(std::shared_ptr<const Array>()));
  const CFOwned<CFURLRef> web(CFURLCreateWithString(nullptr, CFSTR("data:,x"), nullptr));
  EXPECT_FALSE(valueFromCF(web.get()));
}

// -------------------------------------------------------------------------------------------------- other processes

class Callers : public testing::Test {
 protected:
  Callers() { standin::show(machine_); }
  ~Callers() override { standin::showUsual(); }
  static CodeCheck check(int32_t process, const std::string& requirement) {
    return nativePlatform().codeSigning->check(process, requirement);
  }
  SimulatedMachine machine_;
};

TEST_F(Callers, AreCheckedStepByStep) {
  machine_.setCodeCheck(100, CodeCheck::valid);
  machine_.setCodeCheck(101, CodeCheck::invalid);
  EXPECT_EQ(check(100, "anchor apple generic"), CodeCheck::valid);
  EXPECT_EQ(check(101, "anchor apple generic"), CodeCheck::invalid);
  EXPECT_EQ(check(102, "anchor apple generic"), CodeCheck::guestFailed);
  EXPECT_EQ(check(100, "anchor ("), CodeCheck::requirementFailed);
  EXPECT_EQ(check(100, "\xFF"), CodeCheck::requirementFailed);
}

// ---------------------------------------------------------------------------------------------------- smaller things

TEST(MacServices, AWarningGoesToTheSystemsLog) {
  standin::showUsual();
  nativePlatform().systemLog->warn("100 % sure");
  ASSERT_EQ(standin::system().logged.size(), 1U);
  EXPECT_EQ(standin::system().logged[0], "4 Vorlix: 100 % sure");
}

TEST(MacServices, TheDecimalSeparatorIsTheUsers) {
  EXPECT_EQ(nativePlatform().userLocale->decimalSeparator().size(), 1U);
}

TEST(MacServices, ANameThatIsTakenIsNotReplaced) {
  const auto files = nativePlatform().filesInPlace;
  const TemporaryFolder folder;
  writeImage(folder / "a", {1}, 1);
  writeImage(folder / "b", {2}, 1);
  EXPECT_EQ(files->renameToFreeName((folder / "a").c_str(), (folder / "b").c_str()), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(files->renameToFreeName((folder / "a").c_str(), (folder / "c").c_str()), 0);
  EXPECT_EQ(readFile(folder / "c", 0, 9), Buffer{1});
  const int file = ::open((folder / "c").c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(files->syncFileSystem(file), 0);
  ::close(file);
}

TEST(MacServices, APipeIsNotInherited) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(makePrivatePipe(ends), 0);
  for (const int end : ends) {
    EXPECT_NE(fcntl(end, F_GETFD) & FD_CLOEXEC, 0);
    ::close(end);
  }
}

}  // namespace
}  // namespace vorlix::contract
