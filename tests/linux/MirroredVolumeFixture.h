// SPDX-License-Identifier: Apache-2.0
//
// A FAT volume of an image file, mounted by an ordinary user as a mirror.
#pragma once

#include "tests/contract/Volumes.h"

namespace vorlix::contract {

class MirroredVolume : public testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingTool({"sfdisk", "mkfs.vfat", "fsck.vfat", "mcopy"});
    if (!missing.empty()) GTEST_SKIP() << missing;
    makeFATImage(image_, 16, 16);
    before_ = readText(image_);
  }

  /// As the user who mounts.
  template <typename Body>
  void asUser(Body body) const {
    asOrdinaryUser(folder_, body);
  }
  std::string mounted() const { return mountPath(ports_, volume_); }
  std::string mountIt(const Arguments& arguments = {}) const {
    EXPECT_TRUE(granted(mountNow(ports_, volume_, arguments)));
    return mounted();
  }
  std::optional<Dissenter> unmountIt() const { return unmountNow(ports_, volume_); }
  std::string mirrors() const { return folder_ / "state/vorlix/volumes"; }

  /// Nothing is left in the state folder but the folders themselves.
  void expectNothingLeft() const {
    EXPECT_EQ(shell("find '" + (folder_ / "state/vorlix") + "' -mindepth 1 -printf '%P\\n' | sort"),
              "journals\nvolumes\nvolumes/.mirrors");
  }

  /// Puts a program in place of one of mtools, for this process alone.
  void replaceTool(const std::string& program, const std::string& script) const {
    const std::string tools = folder_ / "tools";
    std::filesystem::create_directory(tools);
    writeText(tools + "/" + program, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(tools + "/" + program, std::filesystem::perms::owner_all);
    setenv("PATH", (tools + ":" + search_).c_str(), 1);
  }
  void restoreTools() const {
    setenv("PATH", search_.c_str(), 1);
    std::filesystem::remove_all(folder_ / "tools");
  }

  /// Unmounts in a process that ends where a new folder would be made on the copy, in the midst of writing back.
  void unmountAndCutOff() const {
    replaceTool("mmd", "kill -9 $PPID");
    std::filesystem::create_directory(mounted() + "/new folder");
    const pid_t child = fork();
    if (child == 0) {
      unmountIt();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    restoreTools();
    ASSERT_TRUE(WIFSIGNALED(status));
  }

  /// A file with that content, to be copied onto the volume.
  std::string volumeFile(const std::string& content) const {
    writeText(folder_ / content, content);
    return folder_ / content;
  }

  /// Everything outside the volume is as it was.
  void expectRestOfDiskUntouched() const {
    const std::string now = readText(image_);
    ASSERT_EQ(now.size(), before_.size());
    EXPECT_TRUE(now.compare(0, kVolumeOffset, before_, 0, kVolumeOffset) == 0);
    const size_t end = kVolumeOffset + (size_t{16} << 20);
    EXPECT_TRUE(now.compare(end, std::string::npos, before_, end, std::string::npos) == 0);
  }

  TemporaryFolder folder_;
  const std::string image_ = folder_ / "mac.img";
  const std::string volume_ = image_ + "s1";
  const std::string search_ = std::getenv("PATH");
  const Platform ports_ = nativePlatform();
  std::string before_;
};

}  // namespace vorlix::contract
