// SPDX-License-Identifier: Apache-2.0
//
// The size of images compressed by gzip and zip, measured with the system's gunzip, unzip and wc, and the notifications
// for hosts.
#include <Vorlix/LogCapture.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/NotificationCenter.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <Vorlix/platform/simulated/SimulatedHostBundle.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include "Commands.h"

namespace vorlix::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::chrono::seconds kPatience{120};

bool isMissing(const char* tool) {
  return std::system(("command -v " + std::string(tool) + " >/dev/null").c_str()) != 0;
}

class ImageSizeTest : public testing::Test {
 protected:
  Platform nativeWith(const std::shared_ptr<SimulatedHostBundle>& bundle) const {
    Platform ports = nativePlatform();
    ports.hostBundle = bundle;
    ports.systemPaths = paths_;
    return ports;
  }

  ImageSizeTest() : scope_(nativeWith(bundle_)) {
    paths_->setLogFile(at("log"));
    token_ = NotificationCenter::defaultCenter().addObserver(
        kDisksChangedNotification, nullptr, [this](const Notification& notification) {
          const auto& volume = static_cast<const QDVolume&>(*notification.object);
          const std::string runners = std::to_string(volume.wrapperArray()->size());
          posted_.push_back(volume.totalSize().value_or("absent") + ", runners: " + runners);
        });
  }
  ~ImageSizeTest() override { NotificationCenter::defaultCenter().removeObserver(token_); }

  void SetUp() override {
    for (const char* tool : {"gzip", "zip", "unzip"}) {
      if (isMissing(tool)) GTEST_SKIP() << tool << " is not installed";
    }
    bundle_->addResource("unzip", "", run("command -v unzip"));
  }

  std::string at(const std::string& name) const { return (folder_.path() / name).string(); }

  // Compresses this many zeros in the format of the extension. The zeros themselves are never in a file.
  std::string packed(const std::string& name, size_t count) const {
    const std::string zeros = "head -c " + std::to_string(count) + " /dev/zero | ";
    const bool isZip = fs::path(name).extension() == ".zip";
    run(zeros + (isZip ? "zip -q - - >'" : "gzip -c >'") + at(name) + "'");
    return at(name);
  }

  // Returns the notifications during a measurement of a new record.
  std::vector<std::string> measure(const std::string& path) {
    volume_ = QDVolume::init();
    volume_->setFilePath(path);
    return measureAgain();
  }
  std::vector<std::string> measureAgain() {
    posted_.clear();
    volume_->updateSize();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (volume_->wrapperArray() && !volume_->wrapperArray()->empty()) {
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the measurement did not end");
      platform().runLoops->current()->run(kDefaultRunLoopMode, std::chrono::milliseconds(100));
    }
    return posted_;
  }

  std::string log() const {
    std::ifstream file(at("log"));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  const std::shared_ptr<SimulatedHostBundle> bundle_ = std::make_shared<SimulatedHostBundle>();
  std::shared_ptr<SimulatedSystemPaths> paths_ = std::make_shared<SimulatedSystemPaths>();
  TemporaryFolder folder_;
  std::shared_ptr<QDVolume> volume_;

 private:
  ScopedPlatform scope_;
  NotificationCenter::Token token_ = 0;
  std::vector<std::string> posted_;  // the size and the number of runners at each notification
};

TEST_F(ImageSizeTest, AGzIsPostedOnceBeforeAndOnceAfterTheMeasurement) {
  EXPECT_THAT(measure(packed("win.gz", 123456)), ElementsAre("-1, runners: 1", "123456\n, runners: 1"));
  EXPECT_EQ(volume_->totalSize(), "123456\n");
  EXPECT_TRUE(volume_->wrapperArray()->empty());
  EXPECT_EQ(log(), "123456\n\n");
}

TEST_F(ImageSizeTest, AZipIsPostedInTheSameWay) {
  EXPECT_THAT(measure(packed("win.zip", 123456)), ElementsAre("-1, runners: 1", "123456\n, runners: 1"));
  EXPECT_EQ(log(), "123456\n\n");
}

TEST_F(ImageSizeTest, AKnownSizeIsNotPostedAgain) {
  measure(packed("win.gz", 7));
  EXPECT_THAT(measureAgain(), ElementsAre());
  EXPECT_EQ(volume_->totalSize(), "7\n");
}

TEST_F(ImageSizeTest, ALargeImageIsAlsoPostedTwice) {
  constexpr size_t kSize = size_t{64} << 20;  // much more than a pipe and the programs' buffers hold
  EXPECT_THAT(measure(packed("large.gz", kSize)), ElementsAre("-1, runners: 1", "67108864\n, runners: 1"));
}

TEST_F(ImageSizeTest, AnEmptyImageStaysUnknownAndIsMeasuredAgain) {
  const std::vector<std::string> expected = {"-1, runners: 1", "0\n, runners: 1"};
  EXPECT_EQ(measure(packed("empty.gz", 0)), expected);
  EXPECT_EQ(measureAgain(), expected);
}

TEST_F(ImageSizeTest, NamesWithSpacesApostrophesAndNonASCIILettersWork) {
  const std::string awkward = at("it's a B\xC3\xA4r \xE2\x98\x83.gz");
  fs::rename(packed("win.gz", 5), awkward);
  EXPECT_THAT(measure(awkward), ElementsAre("-1, runners: 1", "5\n, runners: 1"));
  const std::string zipped = at("it's a B\xC3\xA4r \xE2\x98\x83.zip");
  fs::rename(packed("win.zip", 6), zipped);
  EXPECT_THAT(measure(zipped), ElementsAre("-1, runners: 1", "6\n, runners: 1"));
}

TEST_F(ImageSizeTest, ATruncatedGzHasThePartialSizeAndTheErrorIsLogged) {
  const std::string path = packed("win.gz", 1000000);
  fs::resize_file(path, fs::file_size(path) / 2);
  const auto posted = measure(path);
  ASSERT_EQ(posted.size(), 2U);
  EXPECT_EQ(posted[0], "-1, runners: 1");
  EXPECT_EQ(posted[1], volume_->totalSize().value_or("absent") + ", runners: 1");
  EXPECT_LT(std::stoll(volume_->totalSize().value_or("absent")), 1000000);
  EXPECT_THAT(log(), HasSubstr("unexpected end of file"));
}

TEST_F(ImageSizeTest, ATruncatedZipHasSizeZeroAndTheErrorIsLogged) {
  const std::string path = packed("win.zip", 1000000);
  fs::resize_file(path, fs::file_size(path) / 2);
  EXPECT_THAT(measure(path), ElementsAre("-1, runners: 1", "0\n, runners: 1"));
  EXPECT_THAT(log(), HasSubstr("End-of-central-directory signature not found"));
}

TEST_F(ImageSizeTest, AMissingUnzipGivesSizeZero) {
  const std::string path = packed("win.zip", 1000);
  const ScopedPlatform scope(nativeWith(std::make_shared<SimulatedHostBundle>()));
  EXPECT_THAT(measure(path), ElementsAre("-1, runners: 1", "0\n, runners: 1"));
  EXPECT_THAT(log(), HasSubstr("(null): not found"));
}

}  // namespace
}  // namespace vorlix::test
