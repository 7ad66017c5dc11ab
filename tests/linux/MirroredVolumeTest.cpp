// SPDX-License-Identifier: Apache-2.0
//
// FAT volumes of image files, mounted as mirrors by an ordinary user. Afterwards, mtools reads the volumes and
// fsck.vfat checks them.
#include "MirroredVolumeFixture.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

TEST_F(MirroredVolume, IsInAPrivateFolderNamedAfterTheLabel) {
  asUser([&] {
    EXPECT_EQ(mountIt(), mirrors() + "/MAC EFI");
    EXPECT_EQ(fs::status(mirrors()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(mounted()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(readText(mounted() + "/readme.txt"), "read me");
    EXPECT_TRUE(granted(unmountIt()));
    EXPECT_FALSE(fs::exists(mirrors() + "/MAC EFI"));
  });
}

TEST_F(MirroredVolume, WithoutChangesTheImageKeepsEveryByteAndItsTime) {
  const auto time = fs::last_write_time(image_);
  asUser([&] {
    const std::string path = mountIt({"rw"});
    EXPECT_EQ(readText(path + "/EFI/Boot/bootx64.efi"), "boot code");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_TRUE(readText(image_) == before_);
  EXPECT_EQ(fs::last_write_time(image_), time);
}

TEST_F(MirroredVolume, AFileWithChangedPermissionsButTheSameContentIsNotWritten) {
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
        << "the bytes after the slice must not change";
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

TEST_F(MirroredVolume, TimesAreCopiedInBothDirections) {
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

TEST_F(MirroredVolume, TheCopyingProgramsInheritNoneOfTheHostsFiles) {
  asUser([&] {
    const std::string secret = folder_ / "secret";
    const std::string seen = folder_ / "seen";
    writeText(secret, "the host's");
    replaceTool("mcopy", "ls -l /proc/self/fd >>'" + seen + "'\nexec " + shell("command -v mcopy") + " \"$@\"");
    const int low = ::open(secret.c_str(), O_RDONLY);  // inheritable, unless the library prevents it
    const int high = fcntl(low, F_DUPFD, 100);
    ASSERT_GE(high, 100);
    writeText(mountIt() + "/readme.txt", "changed");
    EXPECT_TRUE(granted(unmountIt()));
    close(low);
    close(high);
    EXPECT_NE(readText(seen).find("/copy"), std::string::npos) << "it must have the copy of the volume";
    EXPECT_EQ(readText(seen).find("mac.img"), std::string::npos) << "it must not have the disk: " << readText(seen);
    EXPECT_EQ(readText(seen).find("secret"), std::string::npos) << readText(seen);
  });
}

TEST_F(MirroredVolume, ASecondMountReturnsTheFirstPlace) {
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

TEST_F(MirroredVolume, ANewImageWithTheSameNameIsNotMounted) {
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

TEST_F(MirroredVolume, TwoVolumesWithTheSameNameHaveSeparateFolders) {
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

TEST_F(MirroredVolume, ALabelCannotLeaveTheFolder) {
  mtools(image_, "mlabel", "::../../X");
  asUser([&] {
    const std::string path = mountIt();
    EXPECT_EQ(fs::path(path).parent_path(), mirrors());
    EXPECT_TRUE(granted(unmountIt()));
  });
}

TEST_F(MirroredVolume, AnEmptyVolumeWithoutALabelIsNamedAfterItsDevice) {
  shell("mkfs.vfat -F 16 --offset 2048 '" + image_ + "' 16384");
  asUser([&] {
    const std::string path = mountIt();
    EXPECT_EQ(path, mirrors() + "/mac.imgs1");
    EXPECT_TRUE(fs::is_empty(path));
    writeText(path + "/first", "one");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/first"), "one");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AllFilesExceptOneCanBeDeleted) {
  asUser([&] {
    const std::string path = mountIt();
    fs::remove_all(path + "/EFI");
    fs::remove(path + "/readme.txt");
    writeText(path + "/one", "new");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(mtools(image_, "mdir", "-b ::/"), "::/one");
  checkFAT(image_, folder_);
}

TEST_F(MirroredVolume, AVolumeThatContainsOnlyFoldersIsListedAndWritten) {
  shell("mkfs.vfat -F 16 --offset 2048 '" + image_ + "' 16384");
  asUser([&] {
    const std::string path = mountIt({"rw"});
    fs::create_directories(path + "/EFI/Microsoft/Boot");
    EXPECT_TRUE(granted(unmountIt()));
    writeText(mountIt({"rw"}) + "/EFI/Microsoft/Boot/BCD", "store");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_EQ(fileOn(image_, "/EFI/Microsoft/Boot/BCD"), "store");
}

TEST_F(MirroredVolume, AFileMayReplaceAFolderAndAFolderAFile) {
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

TEST_F(MirroredVolume, ANameThatChangesOnlyInCaseIsRenamed) {
  asUser([&] {
    const std::string path = mountIt();
    fs::rename(path + "/readme.txt", path + "/ReadMe.txt");
    EXPECT_TRUE(granted(unmountIt()));
  });
  EXPECT_NE(mtools(image_, "mdir", "-b ::/").find("::/ReadMe.txt"), std::string::npos);
  EXPECT_EQ(fileOn(image_, "/ReadMe.txt"), "read me");
}

}  // namespace
}  // namespace vorlix::contract
