// SPDX-License-Identifier: Apache-2.0
//
// NTFS volumes of image files, read without mounting them. mkntfs, ntfscp and ntfs_mkdir make them; ntfscat and the
// files that were copied are what is compared.
#include <Vorlix/platform/HostBundle.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeMirrors.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "Commands.h"
#include "platform/linux/NtfsReader.h"

namespace {

using vorlix::Dissenter;
using vorlix::UnmountedVolume;
using vorlix::test::run;
using vorlix::test::TemporaryFolder;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kSize = uint64_t{40960} * 512;  // of slice 3 of makeMacImage()

/// The companion program of the build, or another in its place.
class OneCompanion final : public vorlix::HostBundle {
 public:
  explicit OneCompanion(std::optional<std::string> path) : path_(std::move(path)) {}
  std::optional<std::string> pathForResource(const std::string& name, const std::string&, const std::string&) override {
    return name == "ntfs_reader" ? path_ : std::nullopt;
  }

 private:
  std::optional<std::string> path_;
};

std::string bytesOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

void write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

size_t openDescriptors() {
  DIR* const folder = opendir("/proc/self/fd");
  size_t count = 0;
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

class UnmountedNtfs : public testing::Test {
 protected:
  void SetUp() override {
    if (std::system("command -v mkntfs ntfscp ntfscat sgdisk python3 >/dev/null") != 0) {
      GTEST_SKIP() << "not installed: one of mkntfs, ntfscp, ntfscat, sgdisk, python3";
    }
    if (access(VORLIX_TEST_NTFS_READER, X_OK) != 0) GTEST_SKIP() << "not built: ntfs_reader";
    useCompanion(VORLIX_TEST_NTFS_READER);
    vorlix::test::makeMacImage(image_);
    folder_ = std::make_unique<TemporaryFolder>();
    content_["Windows/System32/config/SOFTWARE"] = std::string(300'000, 'h') + "end";
    content_["Windows/Boot/Ünïcode ☃ 日本語.txt"] = "resident";
    content_["bootmgr"] = std::string(50'001, '\x7f');
    content_["empty"] = "";
    content_["HiberFil.SYS"] = "HIBR" + std::string(9'000, '\0');
  }

  void useCompanion(std::optional<std::string> path) {
    vorlix::Platform ports = vorlix::nativePlatform();
    ports.hostBundle = std::make_shared<OneCompanion>(std::move(path));
    scope_.reset();
    scope_.emplace(ports);
  }

  /// Makes the volume with `content_` in slice 3.
  void makeVolume(const std::string& options = "") {
    volume_ = (folder_->path() / "volume").string();
    run("rm -f '" + volume_ + "'; truncate -s " + std::to_string(kSize) + " '" + volume_ +
        "'; mkntfs -q -F -f -p 20520 -H 255 -S 63 " + options + " '" + volume_ + "' 2>&1");
    std::string folders;
    std::string copies;
    for (int i = 0; i < 300; ++i) folders += " 'many/" + std::to_string(i) + " of a folder with a large index'";
    for (const auto& [path, content] : content_) {
      const size_t slash = path.rfind('/');
      if (slash != std::string::npos && folders.find("'" + path.substr(0, slash) + "'") == std::string::npos) {
        folders += " '" + path.substr(0, slash) + "'";
      }
      const std::string file =
          (folder_->path() / ("file" + std::to_string(std::hash<std::string>()(content)))).string();
      write(file, content);
      copies += "ntfscp -q -f '" + volume_ + "' '" + file + "' '" + path + "' >/dev/null\n";
    }
    run("export LC_ALL=C.UTF-8; python3 '" VORLIX_TEST_SOURCE "/tools/dev/ntfs_mkdir' '" + volume_ + "'" + folders);
    run("export LC_ALL=C.UTF-8; " + copies);
    run("dd if='" + volume_ + "' of='" + image_ + "' bs=512 seek=20520 conv=notrunc,sparse status=none");
  }

  std::unique_ptr<UnmountedVolume> open(const std::string& device) {
    std::optional<Dissenter> refusal;
    auto volume = vorlix::platform().volumeMirrors->openToRead(device, refusal);
    text_ = refusal ? refusal->text : "";
    status_ = refusal ? refusal->status : 0;
    return volume;
  }
  std::unique_ptr<UnmountedVolume> openSlice() { return open(image_ + "s3"); }

  std::string contentOf(const UnmountedVolume& volume, const std::string& path) {
    Bytes bytes;
    const auto refusal = volume.read("/" + path, bytes);
    return refusal ? "refused: " + refusal->text : std::string(bytes.begin(), bytes.end());
  }

  void expectContent() {
    const auto volume = openSlice();
    ASSERT_TRUE(volume) << text_;
    for (const auto& [path, content] : content_) {
      EXPECT_TRUE(contentOf(*volume, path) == content) << path;
    }
    std::vector<UnmountedVolume::Item> items;
    ASSERT_FALSE(volume->list("/many", items));
    EXPECT_EQ(items.size(), 300U);
    ASSERT_FALSE(volume->list("", items));
    std::vector<std::string> names;
    for (const auto& item : items) names.push_back(item.name + (item.isFolder ? "/" : " " + std::to_string(item.size)));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"HiberFil.SYS 9004", "Windows/", "bootmgr 50001", "empty 0", "many/"}));
  }

  /// Starts the companion for the volume in slice 3. Null after a failure of the test.
  std::unique_ptr<vorlix::NtfsReader> startReader() {
    const auto device = vorlix::locateDevice(image_ + "s3");
    const auto opened = device ? vorlix::openLocation(*device, O_RDONLY) : std::nullopt;
    EXPECT_TRUE(opened);
    if (!opened) return nullptr;
    std::optional<Dissenter> refusal;
    auto reader = vorlix::NtfsReader::start(*opened, refusal);
    EXPECT_TRUE(reader) << refusal->text;
    return reader;
  }

  const TemporaryFolder disk_;
  const std::string image_ = (disk_.path() / "mac.img").string();
  std::unique_ptr<TemporaryFolder> folder_;
  std::string volume_;
  std::map<std::string, std::string> content_;
  std::string text_;
  int32_t status_ = 0;
  std::optional<vorlix::ScopedPlatform> scope_;
};

TEST_F(UnmountedNtfs, FilesAndFoldersOfASliceAreReadAndNothingIsWritten) {
  makeVolume();
  const std::string before = run("sha256sum '" + image_ + "'");
  const size_t descriptors = openDescriptors();
  expectContent();
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(run("sha256sum '" + image_ + "'"), before);
  for (const char* const path : {"bootmgr", "Windows/System32/config/SOFTWARE"}) {
    EXPECT_EQ(
        run("ntfscat '" + volume_ + "' " + path + " | sha256sum"),
        run("dd if='" + volume_ + "' of='" + image_ + "' bs=512 seek=20520 conv=notrunc status=none; ntfscat -f '" +
            volume_ + "' " + path + " | sha256sum"));
  }
}

TEST_F(UnmountedNtfs, SectorsOf4096Bytes) {
  makeVolume("-s 4096");
  expectContent();
}

TEST_F(UnmountedNtfs, OnlyTheFirstBytesOfALargeFileAreRead) {
  makeVolume();
  const auto volume = openSlice();
  ASSERT_TRUE(volume) << text_;
  Bytes bytes;
  ASSERT_FALSE(volume->readStart("/HiberFil.SYS", 4, bytes));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "HIBR");
  ASSERT_FALSE(volume->readStart("/empty", 4, bytes));
  EXPECT_TRUE(bytes.empty());
}

TEST_F(UnmountedNtfs, WhatIsNotThereIsRefusedAndNothingCanBeWritten) {
  makeVolume();
  const auto volume = openSlice();
  ASSERT_TRUE(volume) << text_;
  EXPECT_EQ(contentOf(*volume, "nothing"), "refused: /nothing: no such file or folder");
  EXPECT_EQ(contentOf(*volume, "BOOTMGR"), "refused: /BOOTMGR: no such file or folder");
  EXPECT_EQ(contentOf(*volume, "Windows"), "refused: /Windows: a folder");
  EXPECT_TRUE(volume->itemsIn("/bootmgr").empty());
  EXPECT_EQ(contentOf(*volume, "bootmgr").size(), 50'001U);  // refusals are no end
  EXPECT_EQ(volume->roomFor("/bootmgr"), 0U);
  std::string kept;
  std::string state;
  EXPECT_TRUE(volume->write("/bootmgr", {1}, {}, kept, state));
}

TEST_F(UnmountedNtfs, OtherSizesOfClustersAreRefusedBecauseNamesWouldBeMissing) {
  makeVolume("-c 512");
  EXPECT_FALSE(openSlice());
  EXPECT_EQ(text_, "its clusters have 512 bytes; without a mount only volumes with clusters of 4096 bytes can be read");
}

TEST_F(UnmountedNtfs, WithoutTheCompanionTheReasonIsGiven) {
  makeVolume();
  useCompanion(std::nullopt);
  EXPECT_FALSE(openSlice());
  EXPECT_EQ(text_, "not mounted, and ntfs_reader, which reads NTFS without that, is not installed");
  EXPECT_EQ(status_, vorlix::kDissentUnsupported);
}

TEST_F(UnmountedNtfs, ACompanionThatFailsIsARefusal) {
  makeVolume();
  const std::string program = (folder_->path() / "program").string();
  const auto withScript = [&](const std::string& script) {
    write(program, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    useCompanion(program);
    EXPECT_FALSE(openSlice());
    return text_;
  };
  const size_t descriptors = openDescriptors();
  EXPECT_EQ(withScript("exit 0"), "the NTFS reader ended without an answer");
  EXPECT_EQ(withScript("kill -SEGV $$"), "damaged NTFS: its reader crashed: Segmentation fault");
  EXPECT_EQ(withScript("kill -XCPU $$"), "damaged NTFS: reading it takes too long");
  EXPECT_EQ(withScript("printf 'Zxxxx' >&0"), "the NTFS reader answers wrongly");
  EXPECT_EQ(withScript("printf 'D\\377\\377\\377\\377' >&0"), "the NTFS reader answers wrongly");
  EXPECT_EQ(withScript("printf 'F\\003\\0\\0\\0a\\033b' >&0"), "a?b");
  EXPECT_EQ(openDescriptors(), descriptors);
  // An answer of items that lead out of their folder: "..", and a length beyond the end.
  const std::string opened = "printf 'E\\0\\0\\0\\0' >&0; ";
  for (const char* const items :
       {"D\\015\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\002\\0..", "D\\013\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\377\\0"}) {
    write(program, "#!/bin/sh\n" + opened + "printf '" + items + "E\\0\\0\\0\\0' >&0; sleep 5\n");
    const auto volume = openSlice();
    ASSERT_TRUE(volume) << text_;
    std::vector<UnmountedVolume::Item> found;
    const auto refusal = volume->list("", found);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->text, "the NTFS reader answers wrongly");
    EXPECT_TRUE(found.empty());
  }
}

TEST_F(UnmountedNtfs, ACompanionThatIsKilledEndsEveryFurtherQuestion) {
  makeVolume();
  const auto reader = startReader();
  ASSERT_TRUE(reader);
  kill(reader->process(), SIGKILL);
  Bytes bytes;
  for (int i = 0; i < 2; ++i) {
    const auto refusal = reader->ask(vorlix::NtfsReader::What::content, "/bootmgr", 10, 10, bytes);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->text, "the NTFS reader ended without an answer");
  }
}

// The runtime of sanitizers makes more calls than a companion may, so with them its calls are not limited.
#if defined(__has_feature)
constexpr bool kSanitizedNtfs = __has_feature(address_sanitizer);
#else
constexpr bool kSanitizedNtfs = false;
#endif

TEST_F(UnmountedNtfs, TheCompanionHasNoRights) {
  makeVolume();
  const auto reader = startReader();
  ASSERT_TRUE(reader);
  const std::string folder = "/proc/" + std::to_string(reader->process());
  const std::string status = bytesOf(folder + "/status");
  if (geteuid() == 0) {
    EXPECT_NE(status.find("\nUid:\t65534\t65534\t65534\t65534\n"), std::string::npos) << status;
    EXPECT_NE(status.find("\nCapEff:\t0000000000000000\n"), std::string::npos) << status;
  }
  if (!kSanitizedNtfs) {
    EXPECT_NE(status.find("\nNoNewPrivs:\t1\n"), std::string::npos) << status;
    EXPECT_NE(status.find("\nSeccomp:\t2\n"), std::string::npos) << status;
  }
  EXPECT_EQ(run("ls " + folder + "/fd | tr '\\n' ' '"), "0 1 2 3 ");
  EXPECT_NE(bytesOf(folder + "/fdinfo/3").find("flags:\t0100000\n"), std::string::npos)
      << bytesOf(folder + "/fdinfo/3");
}

// 400 volumes with wrong bytes in the boot sector, in records and in index blocks, or cut. What counts is that each
// is read or refused, in bounded time, and that the parser's process never crashes. Only the wrong bytes are written
// and put back, because writing a whole volume takes longer than reading from it.
TEST_F(UnmountedNtfs, DamagedVolumesAreReadOrRefused) {
  makeVolume();
  const std::string sound = bytesOf(volume_);
  std::vector<size_t> places;
  for (size_t at = 0; at < sound.size(); at += 1024) {
    if (sound.compare(at, 4, "FILE") == 0 || sound.compare(at, 4, "INDX") == 0) places.push_back(at);
  }
  ASSERT_GT(places.size(), 100U);
  std::mt19937 random(20);  // NOLINT: the same volumes in each run
  std::fstream file(volume_, std::ios::binary | std::ios::in | std::ios::out);
  int refused = 0;
  for (int number = 0; number < 400; ++number) {
    const bool isCut = number % 8 == 0;
    const size_t size = isCut ? random() % sound.size() / 512 * 512 + 512 : sound.size();
    std::map<size_t, char> changed;
    for (size_t i = 0; !isCut && i < size_t{1} + static_cast<size_t>(number) % 40; ++i) {
      const size_t at = number % 8 == 1 ? random() % 90 : places[random() % places.size()] + random() % 1024;
      const char old = changed.count(at) > 0 ? changed[at] : sound[at];
      changed[at] = number % 2 == 0 ? static_cast<char>(random()) : static_cast<char>(old ^ (1 << random() % 8));
    }
    for (const auto& [at, byte] : changed) file.seekp(static_cast<std::streamoff>(at)).put(byte);
    file.flush();
    std::filesystem::resize_file(volume_, size);
    const auto volume = open(volume_);
    std::vector<UnmountedVolume::Item> items;
    if (!volume) {
      ++refused;
    } else {
      for (const char* const folder : {"", "/Windows/System32/config", "/many"}) {
        if (const auto refusal = volume->list(folder, items)) text_ = refusal->text;
      }
      for (const auto& [path, content] : content_) {
        text_ += contentOf(*volume, path).substr(0, 200);
      }
    }
    EXPECT_EQ(text_.find("crashed"), std::string::npos) << number << ": " << text_;
    EXPECT_EQ(text_.find("takes too long"), std::string::npos) << number << ": " << text_;
    for (const auto& change : changed) file.seekp(static_cast<std::streamoff>(change.first)).put(sound[change.first]);
    if (isCut)
      file.seekp(static_cast<std::streamoff>(size))
          .write(&sound[size], static_cast<std::streamsize>(sound.size() - size));
  }
  file.flush();
  EXPECT_EQ(bytesOf(volume_), sound);
  EXPECT_GT(refused, 20);
  EXPECT_LT(refused, 380);
}

}  // namespace
