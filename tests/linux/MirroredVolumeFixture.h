// SPDX-License-Identifier: Apache-2.0
//
// A FAT volume in an image file, mounted as a mirror by an ordinary user.
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

  /// Runs `body` as the user who mounts.
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

  /// Expects that the state folder contains nothing except its folders.
  void expectNothingLeft() const {
    EXPECT_EQ(shell("find '" + (folder_ / "state/vorlix") + "' -mindepth 1 -printf '%P\\n' | sort"),
              "journals\nvolumes\nvolumes/.mirrors");
  }

  /// Replaces one of the mtools programs by a script, for this process only.
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

  /// Unmounts in a process that is killed during the write-back, when it creates a new folder on the copy.
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

  /// Creates a file with that content and name, which tests copy onto the volume. @return its path.
  std::string volumeFile(const std::string& content) const {
    writeText(folder_ / content, content);
    return folder_ / content;
  }

  /// Expects that everything outside the volume is unchanged.
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
