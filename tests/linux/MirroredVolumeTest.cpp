// SPDX-License-Identifier: Apache-2.0
//
// FAT volumes of image files, mounted by an ordinary user as mirrors. What is on the volumes afterwards is read by
// mtools and checked by fsck.vfat.
#include <sys/mman.h>

#include "contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

class MirroredVolume : public testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingTool({"sgdisk", "mkfs.vfat", "fsck.vfat", "mcopy"});
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
  std::string runtime() const { return folder_ / "runtime/vorlix"; }

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
  const Platform ports_ = nativePlatform();
  std::string before_;
};

TEST_F(MirroredVolume, StandsInAPrivateFolderNamedAfterTheLabel) {
  asUser([&] {
    EXPECT_EQ(mountIt(), runtime() + "/MAC EFI");
    EXPECT_EQ(fs::status(runtime()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(mounted()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(readText(mounted() + "/readme.txt"), "read me");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_FALSE(fs::exists(runtime() + "/MAC EFI"));
  });
}

TEST_F(MirroredVolume, WithoutChangesEveryByteAndTheTimeOfTheImageStay) {
  const auto time = fs::last_write_time(image_);
  asUser([&] {
    const std::string path = mountIt({"rw"});
    EXPECT_EQ(readText(path + "/EFI/Boot/bootx64.efi"), "boot code");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_TRUE(readText(image_) == before_);
  EXPECT_EQ(fs::last_write_time(image_), time);
}

TEST_F(MirroredVolume, AFileThatWasTouchedButNotChangedIsNotWritten) {
  asUser([&] {
    const std::string path = mountIt();
    fs::permissions(path + "/readme.txt", fs::perms::owner_read);
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_TRUE(readText(image_) == before_);
}

TEST_F(MirroredVolume, AllKindsOfChangesAreWrittenBack) {
  for (const int bits : {12, 16, 32}) {
    SCOPED_TRACE(bits);
    fs::remove(image_);
    makeFATImage(image_, bits, bits == 12 ? 4 : bits == 16 ? 16 : 40);
    mtools(image_, "mmd", "::/old");
    mtools(image_, "mcopy", "'" + volumeFile("gone") + "' ::/old/gone.txt");
    mtools(image_, "mcopy", "'" + volumeFile("kept") + "' ::/old/kept.txt");
    mtools(image_, "mmd", "'::/old/folder'");
    mtools(image_, "mcopy", "'" + volumeFile("deep") + "' ::/old/folder/deep.txt");
    std::string large(1 << 20, '\0');
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>('A' + (i * 17 + i / 300) % 26);
    asUser([&] {
      const std::string path = mountIt({"nobrowse", "rw"});
      writeText(path + "/readme.txt", "changed");
      fs::remove(path + "/old/gone.txt");
      fs::remove_all(path + "/old/folder");
      fs::create_directories(path + "/EFI/Microsoft/Boot");
      writeText(path + "/EFI/Microsoft/Boot/BCD", large);
      writeText(path + "/a long name with [brackets] & 'quotes'.txt", "odd");
      writeText(path + "/\xC3\x9C\xC3\xB1\xC3\xAF \xE2\x82\xAC.txt", "accents");
      fs::create_directory(path + "/empty [1]");
      writeText(path + "/empty [1]/x", "inside");
      writeText(path + "/nothing", "");
      fs::rename(path + "/EFI/Boot/bootx64.efi", path + "/EFI/Boot/bootx64.old");
      EXPECT_TRUE(granted(unmountIt()));
      EXPECT_EQ(mounted(), "");
    });
    EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
    EXPECT_EQ(fileOn(image_, "/old/kept.txt"), "kept");
    EXPECT_TRUE(fileOn(image_, "/EFI/Microsoft/Boot/BCD") == large);
    EXPECT_EQ(fileOn(image_, "/EFI/Boot/bootx64.old"), "boot code");
    EXPECT_EQ(fileOn(image_, "/\xC3\x9C\xC3\xB1\xC3\xAF \xE2\x82\xAC.txt"), "accents");
    EXPECT_EQ(fileOn(image_, "/empty [[]1]/x"), "inside");
    EXPECT_EQ(fileOn(image_, "/nothing"), "");
    EXPECT_EQ(mtools(image_, "mdir", "-b ::/EFI/Boot"), "::/EFI/Boot/bootx64.old");
    EXPECT_EQ(mtools(image_, "mdir", "-b ::/old"), "::/old/kept.txt");
    EXPECT_NE(mtools(image_, "mdir", "-b ::/").find("a long name with [brackets] & 'quotes'.txt"), std::string::npos);
    checkFAT(image_, folder_);
    const std::string now = readText(image_);
    EXPECT_EQ(now.substr(now.size() - (1 << 20), 64 * 1024), std::string(64 * 1024, '\xA5'))
        << "bytes behind the slice";
  }
}

TEST_F(MirroredVolume, NothingOutsideTheVolumeIsTouched) {
  asUser([&] {
    writeText(mountIt() + "/new.txt", "new");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/new.txt"), "new");
  expectRestOfDiskUntouched();
}

TEST_F(MirroredVolume, TimesGoBothWays) {
  shell("touch -d '2020-02-02 02:02:02' '" + (folder_ / "dated") + "'");
  mtools(image_, "mcopy", "-m '" + (folder_ / "dated") + "' ::/");
  asUser([&] {
    const std::string path = mountIt();
    struct stat status = {};
    ASSERT_EQ(stat((path + "/dated").c_str(), &status), 0);
    EXPECT_EQ(shell("date -d @" + std::to_string(status.st_mtime) + " +%F.%T"), "2020-02-02.02:02:02");
    shell("touch -d '2011-11-11 11:11:10' '" + path + "/readme.txt'");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_NE(mtools(image_, "mdir", "::/readme.txt").find("2011-11-11  11:11"), std::string::npos);
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "read me");
}

TEST_F(MirroredVolume, AttributesOfChangedFilesAreKept) {
  mtools(image_, "mattrib", "+r +h +s ::/readme.txt");
  asUser([&] {
    writeText(mountIt() + "/readme.txt", "changed");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
  const std::string attributes = mtools(image_, "mattrib", "-X ::/readme.txt");
  for (const char letter : {'R', 'H', 'S'}) EXPECT_NE(attributes.find(letter), std::string::npos) << attributes;
}

TEST_F(MirroredVolume, ASecondMountStaysWhereTheFirstOneIs) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/new.txt", "new");
    EXPECT_TRUE(granted(mountNow(ports_, volume_, {"nobrowse", "rw"})));
    EXPECT_EQ(mounted(), path);
    EXPECT_EQ(readText(path + "/new.txt"), "new");
    EXPECT_TRUE(granted(unmountIt()));
  });
}

TEST_F(MirroredVolume, AnotherNameOfTheImageIsTheSameVolume) {
  fs::create_symlink(image_, folder_ / "link.img");
  asUser([&] {
    const std::string path = mountIt();
    EXPECT_EQ(mountPath(ports_, folder_ / "link.imgs1"), path);
    fs::current_path(folder_.path());
    EXPECT_EQ(mountPath(ports_, "mac.imgs1"), path);
    EXPECT_TRUE(granted(unmountNow(ports_, folder_ / "link.imgs1")));
    EXPECT_EQ(mounted(), "");
  });
}

TEST_F(MirroredVolume, ANewImageOfTheSameNameIsNotMounted) {
  asUser([&] {
    mountIt();
    fs::rename(image_, folder_ / "first.img");
    fs::copy_file(folder_ / "first.img", image_);
    EXPECT_EQ(mounted(), "");
    EXPECT_TRUE(granted(unmountNow(ports_, folder_ / "first.imgs1")));
  });
}

TEST_F(MirroredVolume, AnotherProcessFindsAndUnmountsIt) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/new.txt", "new");
    inAnotherProcess([&] {
      EXPECT_EQ(mounted(), path);
      EXPECT_TRUE(granted(unmountIt()));
    });
    EXPECT_EQ(mounted(), "");
  });
  EXPECT_EQ(fileOn(image_, "/new.txt"), "new");
}

TEST_F(MirroredVolume, TwoVolumesOfOneNameHaveFoldersOfTheirOwn) {
  const std::string other = folder_ / "other.img";
  makeFATImage(other, 16, 16);
  asUser([&] {
    const std::string first = mountIt();
    EXPECT_TRUE(granted(mountNow(ports_, other + "s1")));
    const std::string second = mountPath(ports_, other + "s1");
    EXPECT_EQ(second, first + "-1");
    writeText(second + "/new.txt", "of the other");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_TRUE(granted(unmountNow(ports_, other + "s1")));
  });
  EXPECT_EQ(fileOn(other, "/new.txt"), "of the other");
  EXPECT_TRUE(readText(image_) == before_);
}

TEST_F(MirroredVolume, ALabelCannotLeadOutOfTheFolder) {
  mtools(image_, "mlabel", "::../../X");
  asUser([&] {
    const std::string path = mountIt();
    EXPECT_EQ(fs::path(path).parent_path(), runtime());
    EXPECT_TRUE(granted(unmountIt()));
  });
}

TEST_F(MirroredVolume, AnEmptyVolumeWithoutALabelIsMountedUnderTheNameOfItsDevice) {
  shell("mkfs.vfat -F 16 --offset 2048 '" + image_ + "' 16384");
  asUser([&] {
    const std::string path = mountIt();
    EXPECT_EQ(path, runtime() + "/mac.imgs1");
    EXPECT_TRUE(fs::is_empty(path));
    writeText(path + "/first", "one");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/first"), "one");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AVolumeCanBeEmptied) {
  asUser([&] {
    const std::string path = mountIt();
    fs::remove_all(path + "/EFI");
    fs::remove(path + "/readme.txt");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_TRUE(fs::is_empty(mountIt()));
    EXPECT_TRUE(granted(unmountIt()));
  });
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AVolumeThatHoldsFoldersAloneIsListedAndWrittenTo) {
  fs::remove(image_);
  makeFATImage(image_, 16, 16);
  asUser([&] {
    const std::string path = mountIt({"rw"});
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) fs::remove_all(entry.path());
    fs::create_directories(path + "/EFI/Microsoft/Boot");
    EXPECT_TRUE(granted(unmountIt()));
    writeText(mountIt({"rw"}) + "/EFI/Microsoft/Boot/BCD", "store");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/EFI/Microsoft/Boot/BCD"), "store");
}

TEST_F(MirroredVolume, AFileInThePlaceOfAFolderAndTheOtherWayRound) {
  asUser([&] {
    const std::string path = mountIt();
    fs::remove_all(path + "/EFI");
    writeText(path + "/EFI", "a file now");
    fs::remove(path + "/readme.txt");
    fs::create_directory(path + "/readme.txt");
    writeText(path + "/readme.txt/inside", "x");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/EFI"), "a file now");
  EXPECT_EQ(fileOn(image_, "/readme.txt/inside"), "x");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, ANameThatChangesInCaseOnlyIsRenamed) {
  asUser([&] {
    const std::string path = mountIt();
    fs::rename(path + "/readme.txt", path + "/ReadMe.txt");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_NE(mtools(image_, "mdir", "-b ::/").find("::/ReadMe.txt"), std::string::npos);
  EXPECT_EQ(fileOn(image_, "/ReadMe.txt"), "read me");
}

// ------------------------------------------------------------------------------------------------- refusals, all kept

TEST_F(MirroredVolume, AnOpenFileAMappedOneAndACurrentFolderKeepItBusy) {
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

TEST_F(MirroredVolume, AVolumeThatSomeoneElseChangedIsNotWrittenTo) {
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
    // Without changes of one's own there is nothing to write, and nothing to lose.
    fs::remove(path + "/mine.txt");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_TRUE(readText(image_) == changed);
  });
  EXPECT_EQ(fileOn(image_, "/theirs.txt"), "theirs");
}

TEST_F(MirroredVolume, AVolumeThatIsFullKeepsItsMirrorAndTakesTheRestLater) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/a small.txt", "small");
    writeText(path + "/b big", std::string(20 << 20, 'b'));
    EXPECT_TRUE(refused(unmountIt(), kDissentNoResources, "/b big could not be written: Disk full"));
    EXPECT_EQ(mounted(), path);
    EXPECT_EQ(fs::file_size(path + "/b big"), size_t{20} << 20);
    expectRestOfDiskUntouched();
    fs::remove(path + "/b big");
    writeText(path + "/c later.txt", "later");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/a small.txt"), "small");
  EXPECT_EQ(fileOn(image_, "/c later.txt"), "later");
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "read me");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, ADiskThatAnotherProcessLocksIsNotWrittenTo) {
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

TEST_F(MirroredVolume, WhatAFATVolumeCannotHoldIsRefusedBeforeAnythingIsWritten) {
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

TEST_F(MirroredVolume, AnImageThatCannotBeWrittenIsMountedForReadingOnly) {
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

TEST_F(MirroredVolume, AMirrorWhoseFolderWasRemovedIsNotMountedAndItsVolumeNotEmptied) {
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

TEST_F(MirroredVolume, AWriteBackThatWasCutOffIsTakenUpAgain) {
  asUser([&] {
    const std::string path = mountIt();
    writeText(path + "/a.txt", "one");
    writeText(path + "/readme.txt", "changed");
    // A program in the place of mmd ends the process in the midst of writing back.
    const std::string tools = folder_ / "tools";
    fs::create_directory(tools);
    writeText(tools + "/mmd", "#!/bin/sh\nkill -9 $PPID\n");
    fs::permissions(tools + "/mmd", fs::perms::owner_all);
    fs::remove_all(path + "/EFI");
    fs::create_directory(path + "/new folder");
    const pid_t child = fork();
    if (child == 0) {
      setenv("PATH", (tools + ":" + std::getenv("PATH")).c_str(), 1);
      unmountIt();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_FALSE(readText(image_) == before_) << "it was not cut off in the midst";
    EXPECT_EQ(mounted(), path);
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_EQ(mounted(), "");
  });
  EXPECT_EQ(fileOn(image_, "/a.txt"), "one");
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
  EXPECT_EQ(mtools(image_, "mdir", "-b ::/").find("EFI"), std::string::npos);
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AProgramThatFailsOrAnswersNonsenseIsARefusalThatLosesNothing) {
  asUser([&] {
    const std::string tools = folder_ / "tools";
    const std::string search = std::getenv("PATH");
    fs::create_directory(tools);
    const auto replace = [&](const std::string& program, const std::string& script) {
      writeText(tools + "/" + program, "#!/bin/sh\n" + script + "\n");
      fs::permissions(tools + "/" + program, fs::perms::owner_all);
      setenv("PATH", (tools + ":" + search).c_str(), 1);
    };
    const auto restore = [&] {
      setenv("PATH", search.c_str(), 1);
      fs::remove_all(tools);
      fs::create_directory(tools);
    };
    setenv("PATH", tools.c_str(), 1);
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentUnsupported, "not installed"));
    replace("mcopy", "echo 'no such luck' >&2; exit 1");
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentError, "no such luck"));
    replace("mcopy", "exit 0");
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentUnsupported));
    restore();
    replace("mattrib", "kill -9 $$");
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentError));
    restore();
    EXPECT_EQ(mounted(), "");
    EXPECT_EQ(shell("ls '" + runtime() + "'"), "");

    const std::string path = mountIt();
    writeText(path + "/readme.txt", "changed");
    // Writes nothing, says that all went well, and hands out the old content.
    replace("mcopy", "case \"$*\" in *-o*) exit 0;; esac; exec " + shell("command -v mcopy") + " \"$@\"");
    EXPECT_TRUE(refused(unmountIt(), kDissentError, "reads back differently"));
    restore();
    EXPECT_EQ(readText(path + "/readme.txt"), "changed");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/readme.txt"), "changed");
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

TEST_F(MirroredVolume, ARuntimeFolderThatOthersCanReadIsNotUsed) {
  asUser([&] {
    fs::create_directory(runtime());
    fs::permissions(runtime(), fs::perms::owner_all | fs::perms::others_read);
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentNotPermitted, runtime()));
    fs::remove_all(runtime());
    fs::create_directory(folder_ / "elsewhere");
    fs::create_directory_symlink(folder_ / "elsewhere", runtime());
    EXPECT_TRUE(refused(mountNow(ports_, volume_), kDissentNotPermitted, runtime()));
    EXPECT_TRUE(fs::is_empty(folder_ / "elsewhere"));
  });
}

// ------------------------------------------------------------------------------------------------------ hostile disks

TEST_F(MirroredVolume, AFileSystemLargerThanItsPartitionIsRefused) {
  std::fstream image(image_, std::ios::in | std::ios::out | std::ios::binary);
  image.seekp(kVolumeOffset + 19);  // the number of sectors, in 16 bits; then the one in 32
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
  // The entry of EFI/Boot is made to lead to EFI: its first cluster is that of the "." entry in EFI.
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
