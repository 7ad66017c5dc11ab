// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/LogCapture.h>
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/NotificationCenter.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <Vorlix/platform/simulated/SimulatedHostBundle.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include "library/QDVolume/SizeMeasurement.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using vorlix::Notification;
using vorlix::NotificationCenter;

TEST(PathExtensionTest, FollowsTheLastDotOfTheLastComponent) {
  EXPECT_EQ(vorlix::pathExtension("/images/win.gz"), "gz");
  EXPECT_EQ(vorlix::pathExtension("win.tar.gz"), "gz");
  EXPECT_EQ(vorlix::pathExtension("win..gz"), "gz");
  EXPECT_EQ(vorlix::pathExtension("/images/win.gz/"), "gz");
  EXPECT_EQ(vorlix::pathExtension("/images/win.GZ"), "GZ");
  EXPECT_EQ(vorlix::pathExtension("/images.gz/win"), "");
  EXPECT_EQ(vorlix::pathExtension("/images/.gz"), "");
  EXPECT_EQ(vorlix::pathExtension("win."), "");
  EXPECT_EQ(vorlix::pathExtension("gz"), "");
  EXPECT_EQ(vorlix::pathExtension("/"), "");
  EXPECT_EQ(vorlix::pathExtension(""), "");
}

class QDVolumeSizeTest : public testing::Test {
 protected:
  void SetUp() override {
    folder = fs::path(testing::TempDir()) / ("size." + std::to_string(getpid()));
    fs::create_directories(folder);
    paths->setLogFile((folder / "log").string());
    vorlix::Platform replaced = vorlix::platform();
    replaced.hostBundle = bundle;
    replaced.systemPaths = paths;
    before = vorlix::setPlatform(replaced);
    token = NotificationCenter::defaultCenter().addObserver(
        vorlix::kDisksChangedNotification, nullptr, [this](const Notification& notification) {
          posted.push_back(static_cast<QDVolume&>(*notification.object).totalSize().value_or("absent"));
          objects.push_back(notification.object);
          threads.push_back(std::this_thread::get_id());
        });
  }
  void TearDown() override {
    NotificationCenter::defaultCenter().removeObserver(token);
    vorlix::setPlatform(before);
    fs::remove_all(folder);
  }

  std::string addFile(const std::string& name, const std::string& content) const {
    std::ofstream(folder / name, std::ios::binary) << content;
    return (folder / name).string();
  }

  // Compresses with the system's own program.
  std::string addPacked(const std::string& name, size_t size) const {
    const std::string plain = addFile(name, std::string(size, 'x'));
    EXPECT_EQ(std::system(("gzip -n '" + plain + "'").c_str()), 0);
    return plain + ".gz";
  }

  static std::shared_ptr<QDVolume> volumeAt(const std::string& path) {
    auto volume = QDVolume::init();
    volume->setFilePath(path);
    return volume;
  }

  // Runs the loop until all runners have ended.
  static void waitFor(const std::shared_ptr<QDVolume>& volume) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!volume->wrapperArray()->empty()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "the measurement did not end";
      vorlix::platform().runLoops->current()->run(vorlix::kDefaultRunLoopMode, std::chrono::milliseconds(100));
    }
  }

  void expectNothingDone(const std::shared_ptr<QDVolume>& volume, const std::optional<std::string>& totalSize) {
    volume->setTotalSize(totalSize);
    volume->updateSize();
    EXPECT_EQ(volume->wrapperArray(), nullptr);
    EXPECT_EQ(volume->totalSize(), totalSize);
    EXPECT_TRUE(posted.empty());
  }

  std::string log() const {
    std::ifstream file(folder / "log");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  fs::path folder;
  std::shared_ptr<vorlix::SimulatedHostBundle> bundle = std::make_shared<vorlix::SimulatedHostBundle>();
  std::shared_ptr<vorlix::SimulatedSystemPaths> paths = std::make_shared<vorlix::SimulatedSystemPaths>();
  vorlix::Platform before;
  NotificationCenter::Token token = 0;
  std::vector<std::string> posted;  // the size at each notification
  std::vector<std::shared_ptr<vorlix::Object>> objects;
  std::vector<std::thread::id> threads;
};

// Removes the spaces that some systems' "wc -c" prints before the number.
std::string trimmed(const std::string& text) {
  return text.substr(text.find_first_not_of(' '));
}

TEST_F(QDVolumeSizeTest, TheNotificationHasTheNameThatHostsObserve) {
  EXPECT_STREQ(vorlix::kDisksChangedNotification, "QDSDisksChanged");
}

// The posted sizes if the shell prints these pieces.
class QDVolumeSizePiecesTest : public QDVolumeSizeTest {
 protected:
  std::vector<std::string> postedFor(const std::vector<std::string>& pieces) {
    vorlix::SimulatedMachine machine;
    machine.setLogFile(paths->logFile());
    vorlix::SimulatedRun run;
    for (const std::string& piece : pieces) run.pieces.push_back({vorlix::SimulatedRun::Stream::output, piece});
    machine.addProgram("/bin/sh", run);
    const vorlix::ScopedPlatform scope(machine.platform());
    volume = volumeAt("/images/win.gz");
    volume->updateSize();
    waitFor(volume);
    return posted;
  }

  std::shared_ptr<QDVolume> volume;
};

TEST_F(QDVolumeSizePiecesTest, EachPieceReplacesThePreviousOneAndIsPosted) {
  EXPECT_THAT(postedFor({"12", "34\n"}), ElementsAre("-1", "12", "34\n"));
  EXPECT_EQ(log(), "12\n34\n\n");
}

TEST_F(QDVolumeSizePiecesTest, APieceThatIsNotUTF8GivesNoSizeAndIsPosted) {
  EXPECT_THAT(postedFor({"12", "\xFF"}), ElementsAre("-1", "12", "absent"));
  EXPECT_EQ(volume->totalSize(), std::nullopt);
  EXPECT_EQ(log(), "12\n(null)\n");
}

TEST_F(QDVolumeSizeTest, TheCommandLinesHaveTwoSpacesBeforeTheQuotedPath) {
  bundle->addResource("unzip", "", "/Applications/Host.app/Contents/Resources/unzip");
  EXPECT_EQ(vorlix::measuringCommand("gz", "/a b/win.gz"), "/usr/bin/gunzip -d -c  \"/a b/win.gz\" | /usr/bin/wc -c");
  EXPECT_EQ(vorlix::measuringCommand("zip", "/a b/win.zip"),
            "\"/Applications/Host.app/Contents/Resources/unzip\" -p  \"/a b/win.zip\" | /usr/bin/wc -c");
}

TEST_F(QDVolumeSizeTest, ThePathInTheCommandLineIsNotEscaped) {
  EXPECT_EQ(vorlix::measuringCommand("gz", "a\"$b.gz"), "/usr/bin/gunzip -d -c  \"a\"$b.gz\" | /usr/bin/wc -c");
}

TEST_F(QDVolumeSizeTest, AMissingUnzipIsPrintedAsNull) {
  EXPECT_EQ(vorlix::measuringCommand("zip", "win.zip"), "\"(null)\" -p  \"win.zip\" | /usr/bin/wc -c");
}

TEST_F(QDVolumeSizeTest, AFileOfAnotherKindIsNotMeasured) {
  for (const char* name : {"win.dmg", "win", "win.GZ", "win.ZIP", "win.gz.dmg", "win.tgz", ".gz", ""}) {
    expectNothingDone(volumeAt((folder / name).string()), std::nullopt);
  }
}

TEST_F(QDVolumeSizeTest, ARecordWithoutAPathIsNotMeasured) {
  expectNothingDone(QDVolume::init(), std::nullopt);
}

TEST_F(QDVolumeSizeTest, AKnownSizeIsNotMeasuredAgain) {
  const std::string path = addPacked("win", 1000);
  for (const char* known : {"12345", "1", "  7", "\t7", "9999999999999999999999", "5 bytes"}) {
    expectNothingDone(volumeAt(path), known);
  }
}

TEST_F(QDVolumeSizeTest, AnUnknownSizeIsMeasured) {
  const std::string path = addPacked("win", 1000);
  for (const auto& unknown :
       std::vector<std::optional<std::string>>{std::nullopt, "0", "-1", "", "many", "x1", "-99"}) {
    const auto volume = volumeAt(path);
    volume->setTotalSize(unknown);
    volume->updateSize();
    waitFor(volume);
    EXPECT_EQ(trimmed(volume->totalSize().value_or("absent")), "1000\n") << unknown.value_or("absent");
  }
}

TEST_F(QDVolumeSizeTest, TheSizeIsMinusOneWhileItIsMeasuredAndEachChangeIsPosted) {
  const auto volume = volumeAt(addPacked("win", 123456));
  volume->updateSize();
  ASSERT_FALSE(posted.empty());
  EXPECT_EQ(posted.front(), "-1");
  waitFor(volume);
  ASSERT_EQ(posted.size(), 2U);
  EXPECT_EQ(trimmed(posted.back()), "123456\n");
  for (const auto& object : objects) EXPECT_EQ(object, volume);
  for (const auto& thread : threads) EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(QDVolumeSizeTest, TheOutputIsLoggedWithAnAddedLineFeed) {
  const auto volume = volumeAt(addPacked("win", 10));
  volume->updateSize();
  waitFor(volume);
  EXPECT_EQ(log(), *volume->totalSize() + "\n");
}

TEST_F(QDVolumeSizeTest, AMissingFileMeasuresZeroAndTheErrorIsLogged) {
  const auto volume = volumeAt((folder / "missing.gz").string());
  volume->updateSize();
  waitFor(volume);
  EXPECT_EQ(trimmed(*volume->totalSize()), "0\n");
  EXPECT_NE(log().find("missing.gz"), std::string::npos) << log();
}

TEST_F(QDVolumeSizeTest, AMissingUnzipMeasuresZeroAndIsLogged) {
  const auto volume = volumeAt(addFile("win.zip", "anything"));
  volume->updateSize();
  waitFor(volume);
  EXPECT_EQ(trimmed(*volume->totalSize()), "0\n");
  EXPECT_NE(log().find("(null)"), std::string::npos) << log();
}

TEST_F(QDVolumeSizeTest, TheHostsUnzipIsRunToPrintTheFile) {
  const std::string unzip = addFile("unzip", "#!/bin/sh\nprintf '%s,' \"$@\" >\"$0.arguments\"\nprintf 12345\n");
  fs::permissions(unzip, fs::perms::owner_all);
  bundle->addResource("unzip", "", unzip);
  const std::string path = addFile("my win.zip", "");
  const auto volume = volumeAt(path);
  volume->updateSize();
  waitFor(volume);
  EXPECT_EQ(trimmed(*volume->totalSize()), "5\n");
  std::ifstream arguments(unzip + ".arguments");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(arguments), {}), "-p," + path + ",");
}

TEST_F(QDVolumeSizeTest, TheRunnerIsListedUntilItEnds) {
  const auto volume = volumeAt(addPacked("win", 10));
  const auto runners = std::make_shared<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>>();
  volume->setWrapperArray(runners);
  volume->updateSize();
  EXPECT_EQ(volume->wrapperArray(), runners);
  EXPECT_EQ(runners->size(), 1U);
  waitFor(volume);
  EXPECT_TRUE(runners->empty());
}

TEST_F(QDVolumeSizeTest, ASecondMeasurementMayStartWhileOneRuns) {
  const auto volume = volumeAt(addPacked("win", 10));
  volume->updateSize();
  volume->updateSize();
  EXPECT_EQ(volume->wrapperArray()->size(), 2U);
  EXPECT_EQ(posted, (std::vector<std::string>{"-1", "-1"}));
  waitFor(volume);
  EXPECT_EQ(posted.size(), 4U);
  EXPECT_EQ(trimmed(*volume->totalSize()), "10\n");
}

TEST_F(QDVolumeSizeTest, TheRecordLivesUntilTheMeasurementEndsAndNoLonger) {
  std::weak_ptr<QDVolume> watched;
  {
    const auto volume = volumeAt(addPacked("win", 10));
    watched = volume;
    volume->updateSize();
  }
  objects.clear();
  ASSERT_FALSE(watched.expired());
  waitFor(watched.lock());
  objects.clear();
  EXPECT_TRUE(watched.expired());
}

}  // namespace
