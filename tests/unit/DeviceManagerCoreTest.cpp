// SPDX-License-Identifier: Apache-2.0
//
// The device manager itself: the shared instance, its properties, and the delivery of its messages.
#include <array>
#include <atomic>
#include <thread>

#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---------------------------------------------------------------------------------------------------- shared instance

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::_Exit(1);
}

[[noreturn]] void makeSharedInstanceOnManyThreads() {
  require(myObj == nullptr, "no instance before the first call");
  std::atomic<bool> go = false;
  std::array<std::shared_ptr<QDDeviceManager>, 16> found;
  std::vector<std::thread> threads;
  for (auto& place : found) {
    threads.emplace_back([&go, &place] {
      while (!go) std::this_thread::yield();
      place = QDDeviceManager::sharedDeviceManager();
    });
  }
  go = true;
  for (auto& thread : threads) thread.join();
  require(found[0] != nullptr, "an instance exists");
  for (const auto& one : found) require(one == found[0], "all threads get the same instance");
  require(myObj == found[0], "myObj is the instance");
  require(found[0]->fileManager() == FileManager::defaultManager(), "it has the default file manager");
  require(found[0]->delegate() == nullptr && found[0]->log() == nullptr, "it has neither delegate nor log");
  require(found[0]->mountStatus() == 0 && found[0]->unmountStatus() == 0, "its statuses are 0");
  require(!found[0]->didMount() && !found[0]->didUnmount(), "its flags are false");
  std::_Exit(0);
}

TEST(DeviceManagerDeathTest, ConcurrentFirstCallsGetOneFreshInstance) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process that has not created the instance yet
  EXPECT_EXIT(makeSharedInstanceOnManyThreads(), testing::ExitedWithCode(0), "");
}

using DeviceManagerCoreTest = DeviceManagerTest;

TEST_F(DeviceManagerCoreTest, EveryCallAndTheGlobalGiveTheSameInstance) {
  EXPECT_EQ(QDDeviceManager::sharedDeviceManager(), manager);
  EXPECT_EQ(myObj, manager);
}

TEST_F(DeviceManagerCoreTest, AnotherInstanceHasDefaultValues) {
  manager->setDidMount(true);
  manager->setMountStatus(1);
  const auto other = QDDeviceManager::init();
  EXPECT_NE(other, manager);
  EXPECT_FALSE(other->didMount());
  EXPECT_FALSE(other->didUnmount());
  EXPECT_EQ(other->mountStatus(), 0);
  EXPECT_EQ(other->unmountStatus(), 0);
  EXPECT_EQ(other->fileManager(), nullptr);
  EXPECT_EQ(other->log(), nullptr);
  EXPECT_EQ(other->delegate(), nullptr);
  EXPECT_EQ(myObj, manager);
}

TEST_F(DeviceManagerCoreTest, EveryPropertyCanBeSet) {
  const auto other = QDDeviceManager::init();
  const auto log = std::make_shared<LineCollector>();
  const auto files = std::make_shared<FileManager>();
  other->setDidMount(true);
  other->setDidUnmount(true);
  other->setMountStatus(-1);
  other->setUnmountStatus(77);
  other->setFileManager(files);
  other->setLog(log);
  other->setDelegate(delegate);
  EXPECT_TRUE(other->didMount());
  EXPECT_TRUE(other->didUnmount());
  EXPECT_EQ(other->mountStatus(), -1);
  EXPECT_EQ(other->unmountStatus(), 77);
  EXPECT_EQ(other->fileManager(), files);
  EXPECT_EQ(other->log(), log);
  EXPECT_EQ(other->delegate(), delegate);
  EXPECT_FALSE(manager->didMount());  // each instance has its own state
  EXPECT_EQ(manager->log(), nullptr);
}

TEST_F(DeviceManagerCoreTest, FileManagerAndLogAreRetainedAndTheDelegateIsNot) {
  const auto other = QDDeviceManager::init();
  auto log = std::make_shared<LineCollector>();
  auto files = std::make_shared<FileManager>();
  const std::weak_ptr<Object> logSeen = log;
  const std::weak_ptr<Object> filesSeen = files;
  other->setLog(log);
  other->setFileManager(files);
  other->setDelegate(delegate);
  log.reset();
  files.reset();
  EXPECT_FALSE(logSeen.expired());
  EXPECT_FALSE(filesSeen.expired());
  EXPECT_EQ(delegate.use_count(), 1);
}

TEST_F(DeviceManagerCoreTest, TheLogObjectGetsNoLines) {
  const auto log = std::make_shared<LineCollector>();
  manager->setLog(log);
  manager->logString("line");
  manager->mountDiskAtDevicePath("disk9s1", true);
  manager->setLog(nullptr);
  EXPECT_THAT(log->lines, IsEmpty());
  EXPECT_EQ(log.use_count(), 1);
}

// ----------------------------------------------------------------------------------------------------------- messages

TEST_F(DeviceManagerCoreTest, ALineReachesTheDelegateUnchanged) {
  for (const std::string& line : {std::string("line"), std::string(), std::string("100 %s %@ %n\nnext\n"),
                                  std::string("Gr\xC3\xB6\xC3\x9F"
                                              "e"),
                                  std::string(5000, 'x')}) {
    manager->logString(line);
    EXPECT_EQ(lastLine(), line);
  }
  EXPECT_EQ(lines().size(), 5U);
}

TEST_F(DeviceManagerCoreTest, ALineGoesNowhereElse) {
  OutputCapture output(STDOUT_FILENO);
  manager->logString("line");
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(log(), "");
  EXPECT_EQ(machine.journal(), Lines());
}

TEST_F(DeviceManagerCoreTest, WithoutADelegateALineIsDropped) {
  manager->setDelegate(nullptr);
  OutputCapture output(STDOUT_FILENO);
  manager->logString("line");
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(log(), "");
  EXPECT_EQ(machine.journal(), Lines());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerCoreTest, ADelegateThatTakesNoLinesIsKeptAndGetsNone) {
  const auto deaf = std::make_shared<DeafDelegate>();
  manager->setDelegate(deaf);
  manager->logString("line");
  EXPECT_EQ(manager->delegate(), deaf);
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk9s1", true));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerCoreTest, ADestroyedDelegateCountsAsAbsent) {
  auto shortLived = std::make_shared<LineCollector>();
  manager->setDelegate(shortLived);
  manager->logString("line");
  EXPECT_THAT(shortLived->lines, ElementsAre("line"));
  shortLived.reset();
  EXPECT_EQ(manager->delegate(), nullptr);
  manager->logString("line");
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk9s1", true));
}

TEST_F(DeviceManagerCoreTest, EveryLineGoesToTheCurrentDelegate) {
  const auto second = std::make_shared<LineCollector>();
  manager->logString("one");
  manager->setDelegate(second);
  manager->logString("two");
  manager->setDelegate(nullptr);
  manager->logString("three");
  manager->setDelegate(delegate);
  manager->logString("four");
  EXPECT_THAT(lines(), ElementsAre("one", "four"));
  EXPECT_THAT(second->lines, ElementsAre("two"));
}

TEST_F(DeviceManagerCoreTest, ADelegateMayRemoveItselfDuringAnOperation) {
  delegate->onLine = [this](const std::string&) { manager->setDelegate(nullptr); };
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk9s1", false));
  EXPECT_THAT(lines(), ElementsAre("Mounting disk9s1"));
}

TEST_F(DeviceManagerCoreTest, ADelegateMayLogAgain) {
  delegate->onLine = [this](const std::string& line) {
    if (line == "one") manager->logString("two");
  };
  manager->logString("one");
  EXPECT_THAT(lines(), ElementsAre("one", "two"));
}

TEST_F(DeviceManagerCoreTest, ADelegateMayBeReplacedByAnotherThreadAtAnyTime) {
  constexpr int kEnough = 100;  // delivered lines; by then the threads have run concurrently
  std::atomic<bool> done = false;
  std::atomic<int> told = 0;
  std::thread replacer([&] {
    while (told >= 0 && told < kEnough) {
      const auto shortLived = std::make_shared<LineCollector>();
      shortLived->onLine = [&told](const std::string& line) { told += line == "line" ? 1 : -1000000; };
      manager->setDelegate(shortLived);
    }
    done = true;
  });
  int logged = 0;
  for (; !done; ++logged) manager->logString("line");
  replacer.join();
  EXPECT_EQ(manager->delegate(), nullptr);  // the last one is destroyed too
  EXPECT_GE(told, kEnough);
  EXPECT_LE(told, logged);
}

TEST_F(DeviceManagerCoreTest, ALineLoggedThroughAnotherInstanceGoesToItsOwnDelegate) {
  const auto other = QDDeviceManager::init();
  const auto own = std::make_shared<LineCollector>();
  other->setDelegate(own);
  other->logString("line");
  EXPECT_THAT(own->lines, ElementsAre("line"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerCoreTest, MessagesOfAnotherInstanceGoToTheSharedOnesDelegate) {
  const auto other = QDDeviceManager::init();
  const auto own = std::make_shared<LineCollector>();
  other->setDelegate(own);
  other->hasWindows8OrLaterFromVolume(makeVolume("/dev/disk9s1", mounts / "nowhere"));
  EXPECT_EQ(other->pathForDevice("/dev/disk9s1"), std::nullopt);
  EXPECT_THAT(lines(), ElementsAre("Detecting Version of Windows", "COULD NOT FIND MOUNT!"));
  EXPECT_THAT(own->lines, IsEmpty());
}

TEST_F(DeviceManagerCoreTest, StartupDiskMessagesOfAnotherInstanceGoToTheSharedOnesDelegate) {
  const auto other = QDDeviceManager::init();
  const auto own = std::make_shared<LineCollector>();
  other->setDelegate(own);
  OutputCapture output(STDOUT_FILENO);  // for the missing disk's message
  static_cast<void>(other->bootTypeForDisk(makeVolume("/dev/disk9s1", "/Volumes/Mac", "hfs")));
  static_cast<void>(other->selectStartupDisk(makeVolume("/dev/disk9s1"), 6, true));
  EXPECT_THAT(lines(), ElementsAre("Found HFS or APFS disk", "Setting startup disk to device /dev/disk9s1",
                                   "Unknown disktype. Aborting set boot disk."));
  EXPECT_THAT(own->lines, IsEmpty());
}

TEST_F(DeviceManagerCoreTest, OnlyTheMountsSecondMessageGoesToTheReceiversOwnDelegate) {
  const auto other = QDDeviceManager::init();
  const auto own = std::make_shared<LineCollector>();
  other->setDelegate(own);
  mountVolume("disk2s1", "Data", "msdos");
  other->mountDiskAtDevicePath("disk2s1", true);
  EXPECT_THAT(lines(), ElementsAre("Mounting disk2s1", "Attempting to mount read/write", "Mounting disk2s1 Finished"));
  EXPECT_THAT(own->lines, ElementsAre("More than 1 partition found!"));
}

TEST_F(DeviceManagerCoreTest, MessagesOfAnotherInstanceAreDroppedIfTheSharedOneHasNoDelegate) {
  const auto other = QDDeviceManager::init();
  other->setDelegate(delegate);
  manager->setDelegate(nullptr);
  other->mountDiskAtDevicePath("disk9s1", true);
  EXPECT_THAT(lines(), ElementsAre("More than 1 partition found!"));
}

}  // namespace
}  // namespace vorlix::test
