// SPDX-License-Identifier: Apache-2.0
//
// Images of WIMs as sources: what stands in the way, how much room they take, and what becomes of an applied one.
#include <Vorlix/WimVolume.h>
#include <Vorlix/platform/Platform.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <utility>

namespace vorlix::test {
namespace {

using testing::HasSubstr;

constexpr uint64_t kMiB = uint64_t{1} << 20;

// What applying has made: bytes that are no file system.
class AppliedBytes final : public DeviceHandle {
 public:
  explicit AppliedBytes(size_t size) : bytes_(size, 0x5A) {}
  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    if (offset >= bytes_.size()) return 0;
    count = std::min(count, bytes_.size() - static_cast<size_t>(offset));
    std::memcpy(buffer, bytes_.data() + offset, count);
    return static_cast<ssize_t>(count);
  }
  ssize_t writeAt(const void*, size_t, uint64_t) override { return -1; }
  int sync() override { return -1; }
  std::optional<uint64_t> size() override { return bytes_.size(); }
  int close() override { return 0; }

 private:
  std::vector<uint8_t> bytes_;
};

class ScriptedApplying final : public WimApplying {
 public:
  std::function<AppliedWim(const WimApplication&, const WimObserver&)> does;
  AppliedWim apply(const WimApplication& application, const WimObserver& observer) override {
    return does(application, observer);
  }
};

class WimVolumeTest : public testing::Test {
 protected:
  WimVolumeTest() {
    Platform ports;
    ports.wimApplying = applying;
    earlier_ = setPlatform(ports);
    facts.kind = ImageKind::wim;
    facts.fileSize = 1000;
    facts.key = {1, 2, 3};
    facts.wim = WimFacts();
    facts.wim->imageCount = 1;
    facts.wim->images = {{1, "Only", 100, 0, 1}};
  }
  ~WimVolumeTest() override { setPlatform(earlier_); }

  static bool keepGoing(uint64_t, uint64_t) { return true; }

  std::shared_ptr<ScriptedApplying> applying = std::make_shared<ScriptedApplying>();
  ImageFacts facts;
  const WimApplication application = {"a.wim", 1, {64 * 1024, 512, 2048}, "/scratch"};

 private:
  Platform earlier_;
};

TEST_F(WimVolumeTest, WhatStandsInTheWay) {
  EXPECT_EQ(wimObstacle(facts), std::nullopt);
  const auto obstacleWith = [&](const std::function<void(ImageFacts&)>& change) {
    ImageFacts changed = facts;
    change(changed);
    return wimObstacle(changed).value_or("none");
  };
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.packing = PackedFormat::gzip; }), HasSubstr("packed"));
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.fileSize.reset(); }), HasSubstr("pipe"));
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.wim->parts = 2; }), HasSubstr("part 1 of 2"));
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.wim->isEncrypted = true; }), HasSubstr("encrypted"));
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.wim->isIncomplete = true; }), HasSubstr("a part"));
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.wim->imageCount = 0; }), HasSubstr("no image"));
  EXPECT_THAT(obstacleWith([](ImageFacts& changed) { changed.wim->imageCount = 2; }), HasSubstr("damaged"));
}

TEST_F(WimVolumeTest, TheRoomThatAnImageTakes) {
  EXPECT_EQ(bytesOfFiles({1, "", 1000, 300, 2}), 700U);
  EXPECT_EQ(bytesOfFiles({1, "", 1000, 3000, 2}), 0U);
  const WimFacts::Image image = {1, "", 500 * kMiB, 0, 1000};
  EXPECT_GT(bytesOfScratch(image, 10'000 * kMiB), 580 * kMiB);
  EXPECT_LT(bytesOfScratch(image, 10'000 * kMiB), 600 * kMiB);
  EXPECT_EQ(bytesOfScratch(image, 100 * kMiB), 100 * kMiB);
  EXPECT_EQ(bytesOfScratch({1, "", UINT64_MAX, 0, UINT64_MAX}, 100 * kMiB), 100 * kMiB);
}

TEST_F(WimVolumeTest, FoldersForTheScratchFile) {
  EXPECT_EQ(scratchObstacle(testing::TempDir(), 1), std::nullopt);
  EXPECT_THAT(scratchObstacle(testing::TempDir(), UINT64_MAX).value_or(""), HasSubstr("has room for"));
  EXPECT_EQ(scratchObstacle("/nonexistent/folder", 1), "No such file or directory");
  EXPECT_EQ(scratchObstacle("/dev/null", 1), "Not a directory");
}

TEST_F(WimVolumeTest, AnAppliedImageIsASourceThatIsMadeAnew) {
  applying->does = [&](const WimApplication& asked, const WimObserver&) {
    EXPECT_EQ(asked.place, application.place);
    AppliedWim applied;
    applied.volume = std::make_unique<AppliedBytes>(application.place.size);
    return applied;
  };
  const WimVolume volume = applyWim(facts, application, keepGoing);
  ASSERT_NE(volume.source, nullptr) << volume.failure.reason;
  const ImageFacts& found = volume.source->facts();
  EXPECT_EQ(found.kind, ImageKind::wim);
  EXPECT_EQ(found.size, application.place.size);
  EXPECT_EQ(found.key, facts.key);
  EXPECT_TRUE(found.isMadeAnew);
  EXPECT_FALSE(found.ranges);  // a volume without a file system that is known counts as used
  EXPECT_EQ(found.start, std::vector<uint8_t>(4096, 0x5A));
  std::vector<uint8_t> buffer(kLargestPiece);
  const ImagePiece piece = volume.source->next(buffer);
  EXPECT_EQ(piece.kind, ImagePiece::Kind::data);
  EXPECT_EQ(piece.length, application.place.size);
  EXPECT_EQ(volume.source->next(buffer).kind, ImagePiece::Kind::end);
}

TEST_F(WimVolumeTest, AStopAndAFailureAreToldApart) {
  applying->does = [](const WimApplication&, const WimObserver& observer) {
    AppliedWim applied;
    applied.isStopped = !observer(1, 2);
    return applied;
  };
  WimVolume volume = applyWim(facts, application, [](uint64_t done, uint64_t total) { return done == total; });
  EXPECT_EQ(volume.source, nullptr);
  EXPECT_TRUE(volume.isStopped);
  applying->does = [](const WimApplication& asked, const WimObserver&) {
    return AppliedWim{nullptr, false, asked.wim, "a reason"};
  };
  volume = applyWim(facts, application, keepGoing);
  EXPECT_EQ(volume.source, nullptr);
  EXPECT_FALSE(volume.isStopped);
  EXPECT_EQ(volume.failure.subject, "a.wim");
  EXPECT_EQ(volume.failure.reason, "a reason");
}

}  // namespace
}  // namespace vorlix::test
