// SPDX-License-Identifier: Apache-2.0
//
// The contract of <Vorlix/platform/Files.h> and of the names on volumes, with this system's files and with simulated
// ones.
#include <Vorlix/platform/FileCopy.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/VolumeNames.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::UnorderedElementsAre;

/// Creates files in a private folder for the tests.
class FilesWorld {
 public:
  virtual ~FilesWorld() = default;
  virtual Platform ports() = 0;
  virtual std::string root() = 0;
  virtual void addFolder(const std::string& name) = 0;
  virtual void addFile(const std::string& name, const std::string& contents) = 0;
  virtual void addLink(const std::string& name, const std::string& target) = 0;
  virtual void addPipe(const std::string& name) = 0;

  std::string at(const std::string& name) { return root() + "/" + name; }
};

class NativeFilesWorld final : public FilesWorld {
 public:
  NativeFilesWorld() : root_(testing::TempDir() + "vorlixXXXXXX") {
    if (mkdtemp(root_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + root_);
  }
  ~NativeFilesWorld() override {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Platform ports() override { return nativePlatform(); }
  std::string root() override { return root_; }
  void addFolder(const std::string& name) override { fs::create_directories(at(name)); }
  void addFile(const std::string& name, const std::string& contents) override {
    std::ofstream(at(name), std::ios::binary) << contents;
  }
  void addLink(const std::string& name, const std::string& target) override { fs::create_symlink(target, at(name)); }
  void addPipe(const std::string& name) override {
    if (mkfifo(at(name).c_str(), 0600) != 0) throw std::runtime_error("no pipe: " + name);
  }

 private:
  std::string root_;
};

class SimulatedFilesWorld final : public FilesWorld {
 public:
  SimulatedFilesWorld() { machine_.addFolder(root()); }
  Platform ports() override { return machine_.platform(); }
  std::string root() override { return "/Volumes/test"; }
  void addFolder(const std::string& name) override { machine_.addFolder(at(name)); }
  void addFile(const std::string& name, const std::string& contents) override { machine_.addFile(at(name), contents); }
  void addLink(const std::string& name, const std::string& target) override { machine_.addLink(at(name), target); }
  void addPipe(const std::string& name) override { machine_.addPipe(at(name)); }

 private:
  SimulatedMachine machine_;
};

class FilesContract : public testing::TestWithParam<const char*> {
 protected:
  FilesContract() {
    if (std::string(GetParam()) == "Native") {
      world_ = std::make_unique<NativeFilesWorld>();
    } else {
      world_ = std::make_unique<SimulatedFilesWorld>();
    }
    files_ = world_->ports().files;
  }

  std::string at(const std::string& name) const { return world_->at(name); }

  std::unique_ptr<FilesWorld> world_;
  std::shared_ptr<Files> files_;
};

TEST_P(FilesContract, KindsAreDistinguished) {
  world_->addFolder("folder");
  world_->addFile("file", "");
  world_->addPipe("pipe");
  EXPECT_THAT(files_->kindOf(at("folder")), Optional(FileKind::folder));
  EXPECT_THAT(files_->kindOf(at("folder/")), Optional(FileKind::folder));
  EXPECT_THAT(files_->kindOf(at("file")), Optional(FileKind::file));
  EXPECT_THAT(files_->kindOf(at("pipe")), Optional(FileKind::other));
  EXPECT_EQ(files_->kindOf(at("nothing")), std::nullopt);
  EXPECT_EQ(files_->kindOf(at("file/below")), std::nullopt);
  EXPECT_EQ(files_->kindOf(at("~")), std::nullopt);
  EXPECT_EQ(files_->kindOf(""), std::nullopt);
}

TEST_P(FilesContract, CaseMatters) {
  world_->addFile("file", "");
  if (fs::exists(at("FILE"))) GTEST_SKIP() << "this file system ignores case";
  EXPECT_EQ(files_->kindOf(at("FILE")), std::nullopt);
}

TEST_P(FilesContract, DotsAreResolved) {
  world_->addFolder("folder/inner");
  world_->addFile("file", "");
  EXPECT_THAT(files_->kindOf(at("folder/inner/../../file")), Optional(FileKind::file));
  EXPECT_THAT(files_->kindOf(at("./folder/.")), Optional(FileKind::folder));
  EXPECT_THAT(files_->kindOf("/.."), Optional(FileKind::folder));
}

TEST_P(FilesContract, LinksAreFollowed) {
  world_->addFolder("folder");
  world_->addFile("folder/file", "text");
  world_->addLink("relative", "folder/file");
  world_->addLink("absolute", at("folder"));
  world_->addLink("folder/up", "..");
  world_->addLink("chain", "relative");
  EXPECT_THAT(files_->kindOf(at("relative")), Optional(FileKind::file));
  EXPECT_THAT(files_->kindOf(at("absolute")), Optional(FileKind::folder));
  EXPECT_THAT(files_->kindOf(at("absolute/file")), Optional(FileKind::file));
  EXPECT_THAT(files_->kindOf(at("folder/up/chain")), Optional(FileKind::file));
  EXPECT_EQ(files_->contentsOf(at("chain"), 10), "text");
  EXPECT_THAT(files_->namesIn(at("absolute")), Optional(UnorderedElementsAre("file", "up")));
}

TEST_P(FilesContract, ADanglingLinkIsOnlyALink) {
  world_->addLink("dangling", "nowhere");
  world_->addLink("circle", "circle");
  for (const char* name : {"dangling", "circle"}) {
    EXPECT_EQ(files_->kindOf(at(name)), std::nullopt) << name;
    EXPECT_TRUE(files_->isLink(at(name))) << name;
    EXPECT_EQ(files_->contentsOf(at(name), 10), std::nullopt) << name;
    EXPECT_EQ(files_->namesIn(at(name)), std::nullopt) << name;
  }
}

TEST_P(FilesContract, OnlyTheLastComponentDecidesAboutALink) {
  world_->addFolder("folder/inner");
  world_->addLink("link", "folder");
  EXPECT_TRUE(files_->isLink(at("link")));
  EXPECT_FALSE(files_->isLink(at("link/inner")));
  EXPECT_FALSE(files_->isLink(at("folder")));
  EXPECT_FALSE(files_->isLink(at("nothing")));
}

TEST_P(FilesContract, AFolderIsListedWithoutItsDots) {
  world_->addFolder("folder/inner/deep");
  world_->addFile("folder/file", "");
  world_->addFile("folder/.hidden", "");
  world_->addLink("folder/dangling", "nowhere");
  EXPECT_THAT(files_->namesIn(at("folder")), Optional(UnorderedElementsAre("inner", "file", ".hidden", "dangling")));
  EXPECT_THAT(files_->namesIn(at("folder/inner/deep")), Optional(IsEmpty()));
}

TEST_P(FilesContract, OnlyFoldersAreListed) {
  world_->addFile("file", "");
  EXPECT_EQ(files_->namesIn(at("file")), std::nullopt);
  EXPECT_EQ(files_->namesIn(at("nothing")), std::nullopt);
  EXPECT_EQ(files_->namesIn(""), std::nullopt);
}

TEST_P(FilesContract, AFileIsReadCompletelyUpToItsLimit) {
  const std::string bytes("a\0\r\n\xFF", 5);
  world_->addFile("file", bytes);
  world_->addFile("empty", "");
  world_->addFolder("folder");
  EXPECT_EQ(files_->contentsOf(at("file"), 5), bytes);
  EXPECT_EQ(files_->contentsOf(at("file"), 4), std::nullopt);
  EXPECT_EQ(files_->contentsOf(at("empty"), 0), "");
  EXPECT_EQ(files_->contentsOf(at("nothing"), 5), std::nullopt);
  EXPECT_EQ(files_->contentsOf(at("folder"), 5), std::nullopt);
}

TEST_P(FilesContract, ANameIsFoundInAnySpelling) {
  world_->addFolder("WINDOWS/system32");
  if (fs::exists(at("windows"))) GTEST_SKIP() << "this file system ignores case";
  world_->addFolder("windows.old");
  const ScopedPlatform scope(world_->ports());
  EXPECT_EQ(pathInAnySpelling(world_->root(), {"Windows", "System32"}), at("WINDOWS/system32"));
  EXPECT_EQ(pathInAnySpelling(world_->root(), {"Windows", "Boot", "Fonts"}), at("WINDOWS/Boot/Fonts"));
  EXPECT_EQ(pathInAnySpelling(world_->root(), {"nothing"}), at("nothing"));
  world_->addFolder("Windows");
  EXPECT_EQ(pathInAnySpelling(world_->root(), {"Windows"}), at("Windows")) << "the exact name takes precedence";
  world_->addFolder("wIndows");
  EXPECT_EQ(pathInAnySpelling(world_->root(), {"windows"}), at("WINDOWS"))
      << "otherwise the name that sorts first is used";
}

INSTANTIATE_TEST_SUITE_P(Worlds, FilesContract, testing::Values("Native", "Simulated"),
                         [](const auto& world) { return std::string(world.param); });

TEST(NativeFilesTest, ARelativePathStartsAtTheWorkingFolder) {
  NativeFilesWorld world;
  world.addFile("ntldr", "x");
  const fs::path before = fs::current_path();
  fs::current_path(world.root());
  const auto kind = nativePlatform().files->kindOf("ntldr");
  fs::current_path(before);
  EXPECT_THAT(kind, Optional(FileKind::file));
}

TEST(NativeFilesTest, FilesThatTheUserMayNotSeeDoNotExist) {
  if (geteuid() == 0) GTEST_SKIP() << "nothing is hidden from root";
  NativeFilesWorld world;
  world.addFolder("closed");
  world.addFile("closed/file", "x");
  chmod(world.at("closed").c_str(), 0);
  EXPECT_EQ(nativePlatform().files->kindOf(world.at("closed/file")), std::nullopt);
  EXPECT_EQ(nativePlatform().files->namesIn(world.at("closed")), std::nullopt);
  chmod(world.at("closed").c_str(), 0700);
}

// --------------------------------------------------------------------------------------------- the simulated machine

TEST(SimulatedFilesTest, EntriesAreListedInTheOrderInWhichTheyWereAdded) {
  SimulatedMachine machine;
  for (const char* name : {"/v/z", "/v/a", "/v/m/x"}) machine.addFile(name);
  machine.addFile("/v/a", "again");
  EXPECT_THAT(machine.platform().files->namesIn("/v"), Optional(ElementsAre("z", "a", "m")));
  EXPECT_THAT(machine.platform().files->namesIn("v"), Optional(ElementsAre("z", "a", "m")));
}

TEST(SimulatedFilesTest, AVolumeMayIgnoreCase) {
  SimulatedMachine machine;
  machine.addFile("/other/File");
  machine.ignoreCase("/v");
  machine.addFile("/v/Folder/File", "text");
  const auto files = machine.platform().files;
  EXPECT_EQ(files->contentsOf("/v/FOLDER/file", 10), "text");
  EXPECT_EQ(files->kindOf("/V/Folder"), std::nullopt) << "names above the volume are case-sensitive";
  EXPECT_EQ(files->kindOf("/other/file"), std::nullopt);
  machine.addFile("/v/folder/FILE", "new");
  EXPECT_THAT(files->namesIn("/v/folder"), Optional(ElementsAre("File")));
  EXPECT_EQ(machine.contentsOf("/v/Folder/File"), "new");
}

TEST(SimulatedFilesTest, ThisSystemsFilesAreInvisibleBesideTheMachinesFiles) {
  SimulatedMachine machine;
  NativeFilesWorld real;
  real.addFile("file", "x");
  const auto files = machine.platform().files;
  EXPECT_TRUE(files->kindOf(real.at("file"))) << "a machine without files shows this system's files";
  machine.addFolder("/Volumes");
  EXPECT_EQ(files->kindOf(real.at("file")), std::nullopt);
  machine.removeItem("/Volumes");
  EXPECT_EQ(files->kindOf("/Volumes"), std::nullopt);
  EXPECT_EQ(files->kindOf(real.at("file")), std::nullopt) << "this must hold even after they were removed";
}

TEST(SimulatedFilesTest, CopiesStayInTheMachine) {
  SimulatedMachine machine;
  machine.addFile("/v/from/inner/file", "text");
  machine.addLink("/v/from/link", "inner");
  machine.addFolder("/v/taken");
  const auto copies = machine.platform().fileCopy;
  EXPECT_EQ(copies->copyItem("/v/from", "/v/to"), std::nullopt);
  EXPECT_EQ(machine.contentsOf("/v/to/link/file"), "text");
  machine.addFile("/v/to/inner/file", "other");
  EXPECT_EQ(machine.contentsOf("/v/from/inner/file"), "text");
  EXPECT_EQ(copies->copyItem("/v/from", "/v/taken"), "File exists");
  EXPECT_EQ(copies->copyItem("/v/from", "/nowhere/to"), "No such file or directory");
  EXPECT_EQ(copies->copyItem("/v/nothing", "/v/new"), "No such file or directory");
  EXPECT_FALSE(machine.holdsItem("/v/new"));
  EXPECT_FALSE(machine.holdsItem("/nowhere"));
}

}  // namespace
}  // namespace vorlix::contract
