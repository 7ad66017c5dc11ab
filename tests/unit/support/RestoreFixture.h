// SPDX-License-Identifier: Apache-2.0
//
// Fixture of the tests of restores: a volume and a disk in memory, a source, and a state folder of the test's own.
#pragma once

#include <Vorlix/Restore.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vorlix::test {

using Content = std::vector<uint8_t>;

inline constexpr size_t kPiece = 4096;
inline constexpr size_t kVolumeSize = 8 * kPiece;
inline constexpr size_t kLastSector = kVolumeSize - 512;

// A device in memory that notes what is done to it.
class MemoryDevice final : public DeviceHandle {
 public:
  MemoryDevice(std::string name, size_t size, uint8_t fill) : bytes(size, fill), name_(std::move(name)) {}

  Content bytes;
  std::vector<std::string> calls;
  std::function<void(Content&, uint64_t, size_t)> afterWrite = [](Content&, uint64_t, size_t) {};
  int failingWrite = 0;  // the number of the write that fails with EIO

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    if (offset >= bytes.size()) return 0;
    count = std::min(count, bytes.size() - static_cast<size_t>(offset));
    std::memcpy(buffer, bytes.data() + offset, count);
    return static_cast<ssize_t>(count);
  }
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    if (--failingWrite == 0) {
      errno = EIO;
      return -1;
    }
    calls.push_back("write " + std::to_string(offset) + "+" + std::to_string(count));
    std::memcpy(bytes.data() + offset, buffer, count);
    afterWrite(bytes, offset, count);
    return static_cast<ssize_t>(count);
  }
  int sync() override {
    calls.push_back("sync");
    return 0;
  }
  std::optional<DeviceIdentity> identity() override { return DeviceIdentity{"memory " + name_, 0}; }
  std::optional<uint64_t> size() override { return bytes.size(); }
  int close() override { return 0; }

 private:
  std::string name_;
};

// A volume of eight pieces: seven of data with the number of the piece in every byte, and one of zeros.
class NumberedSource final : public ImageSource {
 public:
  NumberedSource() {
    facts_.size = kVolumeSize;
    facts_.start = Content(512, 1);
  }

  int failingPiece = -1;

  // As a source that is another volume each time, with this boot sector.
  void isMadeAnew(const Content& bootSector) {
    facts_.start = bootSector;
    facts_.key = Content(208, 7);
    facts_.isMadeAnew = true;
  }

  ImagePiece next(std::span<uint8_t> buffer) override {
    ImagePiece piece;
    piece.offset = position_;
    const auto number = static_cast<int>(position_ / kPiece);
    if (position_ == kVolumeSize) return piece;
    if (number == failingPiece) {
      piece.kind = ImagePiece::Kind::failure;
      piece.failure = {"numbers", "cannot be read on"};
      return piece;
    }
    piece.length = kPiece;
    piece.kind = number == 3 ? ImagePiece::Kind::zeros : ImagePiece::Kind::data;
    if (number != 3) std::fill_n(buffer.begin(), kPiece, static_cast<uint8_t>(number + 1));
    position_ += kPiece;
    return piece;
  }
  std::optional<ImageFailure> moveTo(uint64_t offset) override {
    position_ = offset;
    return std::nullopt;
  }
  uint64_t bytesRead() const override { return position_; }

 private:
  uint64_t position_ = 0;
};

// The volume that the source has, with the structures of the plan.
inline Content restoredVolume() {
  Content bytes;
  for (int number = 0; number < 8; ++number)
    bytes.insert(bytes.end(), kPiece, number == 3 ? 0 : static_cast<uint8_t>(number + 1));
  std::fill_n(bytes.begin(), 512, uint8_t{0xB0});
  std::fill_n(bytes.begin() + kLastSector, 512, uint8_t{0xB0});
  return bytes;
}

// The state folder of an ordinary user of the test's own.
class RestoreTest : public testing::Test {
 protected:
  RestoreTest() : folder_(testing::TempDir() + "vorlixXXXXXX") {
    constexpr uid_t kNobody = 65534;
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + folder_);
    if (geteuid() == 0 && (chown(folder_.c_str(), kNobody, kNobody) != 0 || seteuid(kNobody) != 0)) {
      throw std::runtime_error("cannot become an ordinary user");
    }
    setenv("XDG_STATE_HOME", folder_.c_str(), 1);
  }
  ~RestoreTest() override {
    unsetenv("XDG_STATE_HOME");
    if (getuid() == 0 && seteuid(0) != 0) std::abort();
    std::filesystem::remove_all(folder_);
  }

  RestorePlan plan() const {
    RestorePlan plan;
    plan.source = "numbers";
    const Content old(512, 0xEE);
    const Content boot(512, 0xB0);
    plan.structures = {"restore of numbers",
                       {{"volume", volume, {{0, old, boot, "the boot sector"}, {kLastSector, old, boot, "the copy"}}},
                        {"disk", disk, {{0, Content(512, 0xDD), Content(512, 0xD0), "sector 0"}}}}};
    plan.backup = {ChangeBackup::Place::stateFolder, ""};
    return plan;
  }

  static bool goOn(const RestoreProgress&) { return true; }

  RestoreResult restore(NumberedSource& source, bool compare = true) const {
    return restoreVolume(source, plan(), compare, goOn);
  }

  // Restores while nothing can be added to a folder of the state folder once the content is written.
  RestoreResult restoreWithLocked(const std::string& name) const {
    const std::filesystem::path folder = std::filesystem::path(folder_) / "vorlix" / name;
    NumberedSource source;
    RestoreResult result = restoreVolume(source, plan(), true, [&](const RestoreProgress& progress) {
      if (progress.phase == RestoreProgress::Phase::comparing)
        permit(folder, std::filesystem::perms::owner_write, false);
      return true;
    });
    permit(folder, std::filesystem::perms::owner_write, true);
    return result;
  }

  static void permit(const std::filesystem::path& folder, std::filesystem::perms rights, bool isAllowed) {
    std::filesystem::permissions(
        folder, rights, isAllowed ? std::filesystem::perm_options::add : std::filesystem::perm_options::remove);
  }

  RestoreResult resume() const {
    std::optional<ChangeFailure> failure;
    auto journal = openLongChange(interruptedLongChanges().at(0), failure);
    EXPECT_FALSE(failure);
    NumberedSource source;
    return resumeRestore(std::move(journal), source, {volume, disk}, true, goOn);
  }

  std::shared_ptr<MemoryDevice> volume = std::make_shared<MemoryDevice>("volume", kVolumeSize, 0xEE);
  std::shared_ptr<MemoryDevice> disk = std::make_shared<MemoryDevice>("disk", 4096, 0xDD);

 private:
  std::string folder_;
};

}  // namespace vorlix::test
