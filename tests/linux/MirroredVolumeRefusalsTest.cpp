// SPDX-License-Identifier: Apache-2.0
//
// Volumes that are not mirrored and changes that are not written back: the reason is reported and nothing is lost.
#include <sys/file.h>
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "MirroredVolumeFixture.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

TEST_F(MirroredVolume, AnOpenFileAMappedFileOrACurrentFolderKeepsItBusy) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/new.txt", "new");
    const fs::path here = fs::current_path();
    fs::current_path(path + "/EFI");
    EXPECT_TRUE(refused(unmountIt(), kDissentBusy, "in use"));
    fs::current_path(here);
    const int descriptor = open((path + "/EFI").c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_TRUE(refused(unmountIt(), kDissentBusy, "in use"));
    close(descriptor);
    const int file = open((path + "/readme.txt").c_str(), O_RDONLY);
    void* const mapped = mmap(nullptr, 7, PROT_READ, MAP_SHARED, file, 0);
    close(file);
    ASSERT_NE(mapped, MAP_FAILED);
    EXPECT_TRUE(refused(unmountIt(), kDissentBusy, "in use"));
    munmap(mapped, 7);
    EXPECT_EQ(mounted(), path);
    EXPECT_EQ(readText(path + "/new.txt"), "new");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/new.txt"), "new");
}

TEST_F(MirroredVolume, AVolumeChangedBySomeoneElseIsNotWritten) {
  std::string changed;
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/mine.txt", "mine");
    writeText(folder_ / "theirs", "theirs");
    mtools(image_, "mcopy", "'" + (folder_ / "theirs") + "' ::/theirs.txt");
    changed = readText(image_);
    EXPECT_TRUE(refused(unmountIt(), kDissentError, "someone else changed"));
    EXPECT_EQ(mounted(), path);
    EXPECT_EQ(readText(path + "/mine.txt"), "mine");
    EXPECT_TRUE(readText(image_) == changed);
    // Without changes in the mirror there is nothing to write and nothing to lose.
    fs::remove(path + "/mine.txt");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_TRUE(readText(image_) == changed);
  });
  EXPECT_EQ(fileOn(image_, "/theirs.txt"), "theirs");
}

TEST_F(MirroredVolume, AChangeDuringTheWriteBackIsNotLost) {
  asUser([&] {
    const std::string path = mountIt();
    replaceTool("mcopy", "echo late >'" + path + "/late.txt'\nexec " + shell("command -v mcopy") + " \"$@\"");
    writeText(path + "/readme.txt", "changed");
    EXPECT_TRUE(refused(unmountIt(), kDissentBusy, "was changed while"));
    EXPECT_TRUE(readText(image_) == before_);
    restoreTools();
    EXPECT_EQ(mounted(), path) << "the mirror must have its name again";
    EXPECT_TRUE(granted(unmountIt()));
    expectNothingLeft();
  });
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
  EXPECT_EQ(fileOn(image_, "/late.txt"), "late");
}

TEST_F(MirroredVolume, AFullVolumeKeepsItsMirrorAndIsWrittenLater) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/a small.txt", "small");
    writeText(path + "/b big", std::string(20 << 20, 'b'));
    EXPECT_TRUE(refused(unmountIt(), kDissentNoResources, "/b big could not be written: Disk full"));
    EXPECT_EQ(mounted(), path);
    EXPECT_EQ(fs::file_size(path + "/b big"), size_t{20} << 20);
    EXPECT_TRUE(readText(image_) == before_);
    fs::remove(path + "/b big");
    writeText(path + "/c later.txt", "later");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/a small.txt"), "small");
  EXPECT_EQ(fileOn(image_, "/c later.txt"), "later");
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "read me");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, ADiskLockedByAnotherProcessIsNotWritten) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/new.txt", "new");
    {
      const OtherProcessLock lock(image_, DeviceLock::exclusive);
      ASSERT_TRUE(lock.held());
      EXPECT_TRUE(refused(unmountIt(), kDissentBusy));
      EXPECT_TRUE(readText(image_) == before_);
      EXPECT_EQ(readText(path + "/new.txt"), "new");
    }
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/new.txt"), "new");
}

TEST_F(MirroredVolume, ContentThatFATCannotStoreIsRefusedBeforeAnythingIsWritten) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/a first.txt", "first");
    const std::map<std::string, std::string> bad = {
        {"colon: name", "not allowed"},          {"question?", "not allowed"}, {"back\\slash", "not allowed"},
        {"ends in a dot.", "ends in"},           {"aux.txt", "device"},        {"LPT1", "device"},
        {"\xF0\x9F\x98\x80.txt", "basic plane"}, {"\xFF.txt", "UTF-8"},        {"README.TXT", "same name"},
    };
    for (const auto& [name, words] : bad) {
      writeText(path + "/" + name, "x");
      EXPECT_TRUE(refused(unmountIt(), kDissentUnsupported, words)) << name;
      EXPECT_EQ(mounted(), path) << name;
      fs::remove(path + "/" + name);
    }
    fs::create_symlink("readme.txt", path + "/link");
    EXPECT_TRUE(refused(unmountIt(), kDissentUnsupported, "neither a file nor a folder"));
    fs::remove(path + "/link");
    fs::create_directory(path + "/huge");
    writeText(path + "/huge/file", "");
    fs::resize_file(path + "/huge/file", uint64_t{1} << 32);
    EXPECT_TRUE(refused(unmountIt(), kDissentUnsupported, "too large"));
    fs::remove_all(path + "/huge");
    EXPECT_TRUE(readText(image_) == before_);
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/a first.txt"), "first");
}

TEST_F(MirroredVolume, AReadOnlyImageIsMountedForReadingOnly) {
  fs::permissions(image_, fs::perms::owner_read);
  asUser([&] {
    EXPECT_TRUE(refused(mountNow(ports_, volume_, {"nobrowse", "rw"}), kDissentNotWritable));
    EXPECT_EQ(mounted(), "");
    const std::string path = mountIt();
    EXPECT_EQ(readText(path + "/readme.txt"), "read me");
    EXPECT_FALSE(std::ofstream(path + "/new.txt").is_open());
    EXPECT_FALSE(std::ofstream(path + "/readme.txt").is_open());
    EXPECT_TRUE(refused(mountNow(ports_, volume_, {"rw"}), kDissentNotWritable));
    EXPECT_EQ(describe(ports_, volume_)->boolean(kDescriptionMediaWritable), false);
    fs::permissions(path, fs::perms::owner_all);
    writeText(path + "/new.txt", "new");
    EXPECT_TRUE(refused(unmountIt(), kDissentNotWritable));
    EXPECT_EQ(readText(path + "/new.txt"), "new");
    fs::remove(path + "/new.txt");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_FALSE(fs::exists(path));
  });
  EXPECT_TRUE(readText(image_) == before_);
}

TEST_F(MirroredVolume, AMirrorWhoseFolderWasRemovedIsNotMountedAndItsVolumeIsNotEmptied) {
  asUser([&] {
    const std::string path = mountIt();
    fs::remove_all(path);
    EXPECT_EQ(mounted(), "");
    EXPECT_TRUE(refused(unmountIt(), kDissentNotMounted));
    EXPECT_EQ(readText(mountIt() + "/readme.txt"), "read me");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_TRUE(readText(image_) == before_);
}

TEST_F(MirroredVolume, AnotherFolderInPlaceOfTheMirrorIsNotWrittenBack) {
  asUser([&] {
    const std::string path = mountIt();
    fs::rename(path, folder_ / "moved");
    for (const char* const file : {"", "other.txt"}) {
      fs::create_directory(path);
      if (*file != '\0') writeText(path + "/" + file, "other");
      EXPECT_TRUE(refused(unmountIt(), kDissentError, path + " is another folder")) << file;
      EXPECT_TRUE(readText(image_) == before_) << file;
      EXPECT_EQ(mounted(), path) << file;
      fs::remove_all(path);
    }
    fs::rename(folder_ / "moved", path);
    writeText(path + "/new.txt", "new");
    EXPECT_TRUE(granted(unmountIt()));
    expectNothingLeft();
  });
  EXPECT_EQ(fileOn(image_, "/new.txt"), "new");
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "read me");
}

TEST_F(MirroredVolume, AMirrorThatLostAllItsFilesIsNotWrittenBack) {
  asUser([&] {
    const std::string path = mountIt();
    fs::rename(path + "/readme.txt", folder_ / "away.txt");
    fs::remove_all(path + "/EFI");
    fs::create_directory(path + "/folder");
    EXPECT_TRUE(refused(unmountIt(), kDissentError, "all files are gone from " + path + "; put one back, or"));
    EXPECT_TRUE(readText(image_) == before_);
    EXPECT_EQ(mounted(), path);
    EXPECT_TRUE(fs::exists(path + "/folder"));
    fs::rename(folder_ / "away.txt", path + "/readme.txt");
    EXPECT_TRUE(granted(unmountIt()));
    expectNothingLeft();
  });
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "read me");
  EXPECT_EQ(mtools(image_, "mdir", "-b ::/").find("EFI"), std::string::npos);
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AMirrorThatAnUnmountHasRenamedIsNotAMountPoint) {
  asUser([&] {
    const std::string path = mountIt();
    const std::string place = shell("echo '" + mirrors() + "'/.mirrors/*");
    // Simulates a running unmount: it holds the lock, and in the end moves the mirror to its place again or deletes it.
    for (const bool isRestored : {true, false}) {
      const int lock = open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      ASSERT_EQ(flock(lock, LOCK_EX), 0);
      fs::rename(path, place + "/leaving");
      std::atomic<bool> answered = false;
      std::string answer = "none";
      std::thread look([&] {
        answer = mounted();
        answered = true;
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      EXPECT_FALSE(answered) << answer;
      if (isRestored) {
        fs::rename(place + "/leaving", path);
      } else {
        fs::remove_all(place + "/leaving");
      }
      close(lock);
      look.join();
      EXPECT_EQ(answer, isRestored ? path : "");
    }
    EXPECT_TRUE(fs::is_empty(mirrors() + "/.mirrors"));
    // An unmount that was killed at this point holds no lock.
    EXPECT_EQ(mountIt(), path);
    fs::rename(path, shell("echo '" + mirrors() + "'/.mirrors/*") + "/leaving");
    EXPECT_EQ(mountIt(), path);
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_TRUE(readText(image_) == before_);
}

TEST_F(MirroredVolume, AFolderMadeAfterAnInterruptedUnmountDoesNotReplaceTheMirror) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/new.txt", "new");
    const std::string place = shell("echo '" + mirrors() + "'/.mirrors/*");
    fs::rename(path, place + "/leaving");  // the state after an unmount that ended before it deleted the mirror
    fs::create_directory(path);
    writeText(path + "/other.txt", "other");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_EQ(readText(path + "/other.txt"), "other");
    EXPECT_EQ(mounted(), "");
  });
  EXPECT_EQ(fileOn(image_, "/new.txt"), "new");
  EXPECT_EQ(mtools(image_, "mdir", "-b ::/").find("other"), std::string::npos);
}

TEST_F(MirroredVolume, AnInterruptedWriteBackIsContinued) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/a.txt", "one");
    writeText(path + "/readme.txt", "changed");
    fs::remove_all(path + "/EFI");
    unmountAndCutOff();
    EXPECT_TRUE(readText(image_) == before_) << "mtools must not change the disk";
    EXPECT_EQ(mounted(), path);
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_EQ(mounted(), "");
  });
  EXPECT_EQ(fileOn(image_, "/a.txt"), "one");
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
  EXPECT_EQ(mtools(image_, "mdir", "-b ::/").find("EFI"), std::string::npos);
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AnotherVolumeInTheImageAfterAnInterruptedWriteBackIsNotTouched) {
  const std::string other = folder_ / "other.img";
  makeFATImage(other, 16, 16, "OTHER");
  shell("mkfs.vfat -F 16 -n OTHER -i 56789ABC --offset 2048 '" + other + "' 16384");
  const std::string content = readText(other);
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/a.txt", "one");
    unmountAndCutOff();
    shell("cat '" + other + "' >'" + image_ + "'");  // the same file with another volume
    EXPECT_EQ(mounted(), "");
    EXPECT_TRUE(refused(unmountIt(), kDissentNotMounted, "another image, whose files are kept in " + path));
    EXPECT_EQ(readText(path + "/a.txt"), "one");
  });
  EXPECT_TRUE(readText(image_) == content);
}

TEST_F(MirroredVolume, AProgramThatFailsOrMisbehavesCausesARefusalAndNothingIsLost) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/readme.txt", "changed");
    fs::create_directory(path + "/folder");
    const std::string mcopy = shell("command -v mcopy");
    const auto expectRefused = [&](int32_t status, const std::string& words) {
      EXPECT_TRUE(refused(unmountIt(), status, words));
      EXPECT_TRUE(readText(image_) == before_) << words;
      EXPECT_EQ(readText(path + "/readme.txt"), "changed") << words;
      EXPECT_EQ(mounted(), path) << words;
      restoreTools();
    };
    fs::create_directory(folder_ / "nothing");
    setenv("PATH", (folder_ / "nothing").c_str(), 1);
    expectRefused(kDissentUnsupported, "not installed");
    replaceTool("mcopy", "echo 'no such luck' >&2; exit 1");
    expectRefused(kDissentError, "no such luck");
    replaceTool("mcopy", mcopy + " \"$@\"; echo 'not quite' >&2");
    expectRefused(kDissentError, "not quite");
    replaceTool("mcopy", mcopy + " \"$@\"; exit 1");
    expectRefused(kDissentError, "did not end normally");
    replaceTool("mcopy", "kill -9 $$");
    expectRefused(kDissentError, "did not end normally");
    replaceTool("mmd", "exit 0");  // reports success without doing anything
    expectRefused(kDissentError, "/folder did not become");
    // Called as "mcopy -i COPY -o -m FILE ::PATH", it truncates the file to copy.
    const std::string cut = folder_ / "cut";
    replaceTool("mcopy", "head -c 3 \"$5\" >'" + cut + "'; exec " + mcopy + " -i \"$2\" -o '" + cut + "' \"$6\"");
    expectRefused(kDissentError, "/readme.txt did not become");
    // Writes a value for a cluster that no file has: first only into the first table, then, through the later steps,
    // into both.
    const std::string spoil = "printf xy | dd of=\"$2\" bs=1 seek=2148 conv=notrunc 2>/dev/null; ";
    replaceTool("mdel", shell("command -v mdel") + " \"$@\"; " + spoil);
    expectRefused(kDissentUnsupported, "allocation tables differ");
    replaceTool("mmd", spoil + "exec " + shell("command -v mmd") + " \"$@\"");
    expectRefused(kDissentError, "damaged the copy");
    EXPECT_TRUE(granted(unmountIt()));
    expectNothingLeft();
  });
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, OtherFileSystemsNeedTheSuperUser) {
  const std::string missing = missingTool({"mkntfs", "mkfs.ext4"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string ntfs = folder_ / "ntfs.img";
  const std::string ext4 = folder_ / "ext4.img";
  writeImage(ntfs, {}, 16 << 20);
  writeImage(ext4, {}, 16 << 20);
  shell("mkntfs -F -q -L Windows '" + ntfs + "'");
  shell("mkfs.ext4 -q '" + ext4 + "'");
  asUser([&] {
    EXPECT_TRUE(refused(mountNow(ports_, ntfs), kDissentNotPrivileged, "ntfs"));
    EXPECT_TRUE(refused(mountNow(ports_, ext4), kDissentNotPrivileged, "ext4"));
  });
}

TEST_F(MirroredVolume, AnUnknownArgumentIsRefused) {
  asUser([&] {
    EXPECT_TRUE(refused(mountNow(ports_, volume_, {"exec"}), kDissentBadArgument, "exec"));
    EXPECT_EQ(mounted(), "");
  });
}

TEST_F(MirroredVolume, AnImageThatCannotBeReadIsRefused) {
  fs::permissions(image_, fs::perms::none);
  asUser([&] {
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentNotPrivileged));
    EXPECT_TRUE(refused(unmountIt(), kDissentNotMounted));
  });
}

TEST_F(MirroredVolume, AStateFolderThatOthersCanReadIsNotUsed) {
  const std::string state = folder_ / "state/vorlix";
  asUser([&] {
    fs::create_directory(state);
    fs::permissions(state, fs::perms::owner_all | fs::perms::others_read);
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentNotPermitted, state));
    fs::remove_all(state);
    fs::create_directory(folder_ / "elsewhere");
    fs::create_directory_symlink(folder_ / "elsewhere", state);
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentNotPermitted, state));
    EXPECT_TRUE(fs::is_empty(folder_ / "elsewhere"));
  });
}

// ------------------------------------------------------------------------------------------------------ hostile disks

TEST_F(MirroredVolume, AFileSystemLargerThanItsPartitionIsRefused) {
  std::fstream image(image_, std::ios::in | std::ios::out | std::ios::binary);
  image.seekp(kVolumeOffset + 19);  // the 16-bit number of sectors; the 32-bit one follows
  image.write("\x00\x00", 2);
  image.seekp(kVolumeOffset + 32);
  image.write("\x01\x80\x00\x00", 4);  // 32769 sectors in a partition of 32768
  image.close();
  asUser([&] {
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentUnsupported, "larger than its partition"));
    EXPECT_EQ(mounted(), "");
  });
}

TEST_F(MirroredVolume, AFolderThatContainsItselfIsRefusedAtOnce) {
  // Change the entry of EFI/Boot to lead to EFI: use the first cluster of the "." entry in EFI.
  std::string bytes = before_;
  const size_t boot = bytes.find("BOOT       \x10", kVolumeOffset);
  ASSERT_NE(boot, std::string::npos);
  const size_t dot = bytes.rfind(".          \x10", boot);
  ASSERT_NE(dot, std::string::npos);
  bytes.replace(boot + 26, 2, bytes.substr(dot + 26, 2));
  writeText(image_, bytes);
  asUser([&] {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentUnsupported, "reached twice"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(mounted(), "");
  });
}

TEST_F(MirroredVolume, FilesThatClaimMoreThanTheVolumeHoldsAreRefused) {
  std::string bytes = before_;
  const size_t entry = bytes.find("README  TXT ", kVolumeOffset);
  ASSERT_NE(entry, std::string::npos);
  bytes.replace(entry + 28, 4, "\xFF\xFF\xFF\x7F");
  writeText(image_, bytes);
  asUser([&] { EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentUnsupported, "more than it holds")); });
}

}  // namespace
}  // namespace vorlix::contract
