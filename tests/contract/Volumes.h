// SPDX-License-Identifier: Apache-2.0
//
// Volumes to mount: images made with general tools, and calls of disk arbitration that wait for the outcome.
#pragma once

#include <Vorlix/platform/RunLoop.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <map>
#include <optional>

#include "DeviceWorlds.h"
#include "tests/support/FileContent.h"

namespace vorlix::contract {

using Arguments = std::vector<std::string>;

// ----------------------------------------------------------------------------------------- disk arbitration that waits

/// Lets `ask` make a request to the disk of that name and waits for the outcome. @throws std::runtime_error if there is
/// none within a minute.
template <typename Ask>
std::optional<Dissenter> askAndWait(const Platform& ports, const std::string& name, Ask ask) {
  const auto session = ports.diskArbitration->createSession();
  const auto disk = session->diskFromBSDName(name);
  if (!disk) throw std::runtime_error("no disk is called " + name);
  const auto loop = ports.runLoops->current();
  session->schedule(*loop, kDefaultRunLoopMode);
  std::optional<Dissenter> answer;
  bool done = false;
  ask(*disk, [&](const std::optional<Dissenter>& dissenter) {
    answer = dissenter;
    done = true;
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!done) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("no answer about " + name);
    loop->run(kDefaultRunLoopMode, std::chrono::milliseconds(100));
  }
  session->unschedule(*loop, kDefaultRunLoopMode);
  return answer;
}

inline std::optional<Dissenter> mountNow(const Platform& ports, const std::string& name,
                                         const Arguments& arguments = {}) {
  return askAndWait(ports, name,
                    [&](Disk& disk, DiskCompletion completion) { disk.mount(arguments, std::move(completion)); });
}

inline std::optional<Dissenter> unmountNow(const Platform& ports, const std::string& name) {
  return askAndWait(ports, name, [](Disk& disk, DiskCompletion completion) { disk.unmount(std::move(completion)); });
}

inline std::optional<Dictionary> describe(const Platform& ports, const std::string& name) {
  const auto disk = ports.diskArbitration->createSession()->diskFromBSDName(name);
  return disk ? disk->copyDescription() : std::nullopt;
}

/// Returns the volume's mount path, or an empty string if it is not mounted.
inline std::string mountPath(const Platform& ports, const std::string& name) {
  const auto description = describe(ports, name);
  const auto url = description ? description->url(kDescriptionVolumePath) : std::nullopt;
  return url ? url->path() : std::string();
}

inline std::string textOf(const std::optional<Dissenter>& dissenter) {
  return dissenter ? dissenter->text : "(no dissenter)";
}

inline int32_t statusOf(const std::optional<Dissenter>& dissenter) {
  return dissenter ? dissenter->status : 0;
}

/// Succeeds if there is no dissenter.
inline testing::AssertionResult granted(const std::optional<Dissenter>& dissenter) {
  if (!dissenter) return testing::AssertionSuccess();
  return testing::AssertionFailure() << std::hex << dissenter->status << ": " << dissenter->text;
}

/// Succeeds if there is a dissenter with that status, and with a text that contains `words`.
inline testing::AssertionResult refused(const std::optional<Dissenter>& dissenter, int32_t status,
                                        const std::string& words = "") {
  if (!dissenter) return testing::AssertionFailure() << "the request was granted";
  const bool isRight = dissenter->status == status && dissenter->text.find(words) != std::string::npos;
  if (isRight && !dissenter->text.empty()) return testing::AssertionSuccess() << dissenter->text;
  return testing::AssertionFailure() << std::hex << dissenter->status << ": " << dissenter->text;
}

// -------------------------------------------------------------------------------------------------- files and tools

inline std::string shell(const std::string& command) {
  bool ok = false;
  const std::string output = runCommand("( " + command + " ) 2>&1", ok);
  if (!ok) throw std::runtime_error(command + ": " + output);
  return output;
}

/// Returns which of the tools is missing, or an empty string if all are installed.
inline std::string missingTool(const std::vector<std::string>& tools) {
  for (const std::string& tool : tools) {
    bool ok = false;
    runCommand("command -v " + tool, ok);
    if (!ok) return tool + " is not installed";
  }
  return "";
}

inline std::string readText(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) throw std::runtime_error("cannot read " + path);
  return test::contentOf(path);
}

inline void writeText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

constexpr uint64_t kVolumeOffset = 1024 * 1024;

/// Creates a disk image with a GPT of one slice: an EFI System Partition of `megabytes` with a FAT file system of 12,
/// 16 or 32 bits. Its label is `label`, and it contains the files EFI/Boot/bootx64.efi ("boot code") and readme.txt
/// ("read me"). The 64 KiB after the slice are bytes of 0xA5.
inline void makeFATImage(const std::string& path, int bits, int megabytes, const std::string& label = "MAC EFI") {
  const uint64_t end = kVolumeOffset + static_cast<uint64_t>(megabytes) * 1024 * 1024;
  writeImage(path, {}, end + 1024 * 1024);
  // Not with sgdisk, which syncs every disk of the machine and then sleeps for a second.
  shell("echo 'start=2048, size=" + std::to_string(megabytes * 2048) +
        ", type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, name=\"EFI system\"' | sfdisk --quiet --label gpt '" + path +
        "'");
  const std::string clusters = bits == 32 ? " -s 1" : "";
  shell("mkfs.vfat -F " + std::to_string(bits) + clusters + " -n '" + label + "' -i 1234ABCD --offset 2048 '" + path +
        "' " + std::to_string(megabytes * 1024));
  TemporaryFolder files;
  std::filesystem::create_directories(files / "EFI/Boot");
  writeText(files / "EFI/Boot/bootx64.efi", "boot code");
  writeText(files / "readme.txt", "read me");
  shell("MTOOLS_SKIP_CHECK=1 mcopy -s -i '" + path + "@@" + std::to_string(kVolumeOffset) + "' " + (files / "EFI") +
        " " + (files / "readme.txt") + " ::/");
  std::fstream image(path, std::ios::in | std::ios::out | std::ios::binary);
  image.seekp(static_cast<std::streamoff>(end));
  image << std::string(64 * 1024, '\xA5');
}

/// Runs a program of mtools on slice 1 of such an image.
inline std::string mtools(const std::string& image, const std::string& program, const std::string& arguments) {
  return shell("LC_ALL=C.UTF-8 MTOOLS_SKIP_CHECK=1 " + program + " -i '" + image + "@@" +
               std::to_string(kVolumeOffset) + "' " + arguments);
}

/// Returns the content of a file on slice 1.
inline std::string fileOn(const std::string& image, const std::string& path) {
  return mtools(image, "mcopy", "'::" + path + "' -");
}

/// Checks slice 1 with fsck.vfat. @throws std::runtime_error if the file system is damaged.
inline void checkFAT(const std::string& image, const TemporaryFolder& folder) {
  const std::string copy = folder / "volume to check";
  std::ifstream from(image, std::ios::binary);
  from.seekg(kVolumeOffset);
  std::ofstream(copy, std::ios::binary) << from.rdbuf();
  shell("fsck.vfat -n '" + copy + "'");
  std::filesystem::remove(copy);
}

// ------------------------------------------------------------------------------------------------------------ users

inline constexpr uid_t kOrdinaryUser = 65534;

/// Runs `body` in another process of the same user. Its failures are failures of this test.
template <typename Body>
void inAnotherProcess(Body body) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    try {
      body();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the other process failed, see above";
}

/// Runs `body` in another process as an ordinary user (the super-user becomes "nobody"). The user gets `folder` with
/// its content, and a private state folder inside it.
template <typename Body>
void asOrdinaryUser(const TemporaryFolder& folder, Body body) {
  const std::string state = folder / "state";
  std::filesystem::create_directory(state);
  const bool isSuperUser = geteuid() == 0;
  if (isSuperUser)
    shell("chown -R " + std::to_string(kOrdinaryUser) + ":" + std::to_string(kOrdinaryUser) + " '" +
          folder.path().string() + "'");
  std::filesystem::permissions(state, std::filesystem::perms::owner_all);
  inAnotherProcess([&] {
    if (isSuperUser) {
      ASSERT_EQ(setgid(kOrdinaryUser), 0);
      ASSERT_EQ(setuid(kOrdinaryUser), 0);
    }
    setenv("XDG_STATE_HOME", state.c_str(), 1);
    body();
  });
}

}  // namespace vorlix::contract
