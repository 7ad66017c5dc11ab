// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/RunLoop.h on every machine that is possible here. Sessions of disk arbitration serve as
// sources.
#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "DeviceWorlds.h"

namespace vorlix::contract {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* kOtherMode = "another mode";
constexpr milliseconds kLong{20000};
constexpr milliseconds kShort{50};

milliseconds processorTime() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto of = [](const timeval& time) { return milliseconds(time.tv_sec * 1000 + time.tv_usec / 1000); };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

class RunLoopContract : public OnEveryWorld {
 protected:
  void SetUp() override {
    OnEveryWorld::SetUp();
    if (!world_) return;
    ports_ = world_->ports();
    loop_ = ports_.runLoops->current();
    session_ = ports_.diskArbitration->createSession();
    disk_ = session_->diskFromBSDName(world_->disk());
    ASSERT_TRUE(disk_);
  }

  // Makes a request that needs no privilege: the disk is not mounted, and the completion gets that error.
  void request(std::vector<std::string>& log, const std::string& name) {
    disk_->unmount([&log, name](const std::optional<Dissenter>& dissenter) {
      log.push_back(dissenter && dissenter->status == kDissentNotMounted ? name : name + " unexpected");
    });
  }

  Platform ports_;
  std::shared_ptr<RunLoop> loop_;
  std::shared_ptr<DiskArbitrationSession> session_;
  std::shared_ptr<Disk> disk_;
};

TEST_P(RunLoopContract, EachThreadHasItsOwnLoop) {
  EXPECT_TRUE(loop_);
  EXPECT_EQ(ports_.runLoops->current(), loop_);
  std::shared_ptr<RunLoop> other;
  std::thread([&] { other = ports_.runLoops->current(); }).join();
  EXPECT_TRUE(other);
  EXPECT_NE(other, loop_);
}

TEST_P(RunLoopContract, AModeWithoutSourcesReturnsAtOnce) {
  const auto start = Clock::now();
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::noSources);
  EXPECT_EQ(loop_->run(kOtherMode, kLong), RunLoopResult::noSources);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
}

TEST_P(RunLoopContract, AScheduledSessionIsASourceOfItsModeOnly) {
  session_->schedule(*loop_, kOtherMode);
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::noSources);
  EXPECT_EQ(loop_->run(kOtherMode, kShort), RunLoopResult::timedOut);
  session_->unschedule(*loop_, kOtherMode);
  EXPECT_EQ(loop_->run(kOtherMode, kLong), RunLoopResult::noSources);
}

TEST_P(RunLoopContract, UnschedulingASessionThatIsNotScheduledDoesNothing) {
  session_->unschedule(*loop_, kDefaultRunLoopMode);
  session_->schedule(*loop_, kDefaultRunLoopMode);
  session_->unschedule(*loop_, kOtherMode);
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, milliseconds(0)), RunLoopResult::timedOut);
}

TEST_P(RunLoopContract, AnEndedSessionIsNotASource) {
  session_->schedule(*loop_, kDefaultRunLoopMode);
  disk_.reset();
  session_.reset();
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::noSources);
}

TEST_P(RunLoopContract, ACompletionRunsWhileItsModeRunsAndNotBefore) {
  std::vector<std::string> log;
  session_->schedule(*loop_, kDefaultRunLoopMode);
  request(log, "done");
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(loop_->run(kOtherMode, kLong), RunLoopResult::noSources);
  EXPECT_TRUE(log.empty());
  const auto start = Clock::now();
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
  EXPECT_LT(Clock::now() - start, kLong / 2) << "the call must not wait until the time is over";
  EXPECT_EQ(log, std::vector<std::string>{"done"});
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kShort), RunLoopResult::timedOut);
  EXPECT_EQ(log.size(), 1U);
}

TEST_P(RunLoopContract, ARequestMadeBeforeSchedulingCompletesAfterIt) {
  std::vector<std::string> log;
  request(log, "done");
  session_->schedule(*loop_, kOtherMode);
  EXPECT_EQ(loop_->run(kOtherMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log, std::vector<std::string>{"done"});
}

TEST_P(RunLoopContract, ARunHandlesOneSourceInRequestOrder) {
  std::vector<std::string> log;
  session_->schedule(*loop_, kDefaultRunLoopMode);
  request(log, "first");
  request(log, "second");
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log, std::vector<std::string>{"first"});
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log, (std::vector<std::string>{"first", "second"}));
}

TEST_P(RunLoopContract, ARequestWithoutACompletionIsHandledToo) {
  session_->schedule(*loop_, kDefaultRunLoopMode);
  disk_->unmount(nullptr);
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
}

TEST_P(RunLoopContract, ACompletionMayMakeRequestsAndRunTheLoop) {
  std::vector<std::string> log;
  session_->schedule(*loop_, kDefaultRunLoopMode);
  disk_->unmount([&](const std::optional<Dissenter>&) {
    request(log, "inner");
    EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
    log.push_back("outer");
  });
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log, (std::vector<std::string>{"inner", "outer"}));
}

TEST_P(RunLoopContract, ACompletionMayUnscheduleItsSession) {
  session_->schedule(*loop_, kDefaultRunLoopMode);
  disk_->unmount([&](const std::optional<Dissenter>&) { session_->unschedule(*loop_, kDefaultRunLoopMode); });
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kLong), RunLoopResult::noSources);
}

TEST_P(RunLoopContract, ASessionInTwoModesCompletesARequestOnce) {
  std::vector<std::string> log;
  session_->schedule(*loop_, kDefaultRunLoopMode);
  session_->schedule(*loop_, kOtherMode);
  request(log, "done");
  EXPECT_EQ(loop_->run(kOtherMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kShort), RunLoopResult::timedOut);
  EXPECT_EQ(log, std::vector<std::string>{"done"});
}

TEST_P(RunLoopContract, NothingCompletesOnAnotherThreadsLoop) {
  std::vector<std::string> log;
  session_->schedule(*loop_, kDefaultRunLoopMode);
  request(log, "done");
  std::thread([&] {
    EXPECT_EQ(ports_.runLoops->current()->run(kDefaultRunLoopMode, kLong), RunLoopResult::noSources);
  }).join();
  EXPECT_TRUE(log.empty());
}

INSTANTIATE_TEST_SUITE_P(Worlds, RunLoopContract, testing::ValuesIn([] {
                           std::vector<WorldKind> kinds = allWorlds();
                           std::erase_if(kinds, [](const WorldKind& kind) {
                             const std::string name = kind.name;
                             return name != "Simulated512" && name != "Image512" && name != "Node512";
                           });
                           return kinds;
                         }()),
                         worldName);

// Time does not pass in the simulated machine's loops.
TEST(NativeRunLoop, SleepsForTheGivenTime) {
  const Platform ports = nativePlatform();
  const auto loop = ports.runLoops->current();
  const auto session = ports.diskArbitration->createSession();
  session->schedule(*loop, kDefaultRunLoopMode);
  const milliseconds busyBefore = processorTime();
  const auto start = Clock::now();
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, milliseconds(400)), RunLoopResult::timedOut);
  EXPECT_GE(Clock::now() - start, milliseconds(395));
  EXPECT_LT(processorTime() - busyBefore, milliseconds(100));
}

TEST(NativeRunLoop, ATimeOfZeroOrLessDoesNotWait) {
  const Platform ports = nativePlatform();
  const auto loop = ports.runLoops->current();
  const auto session = ports.diskArbitration->createSession();
  session->schedule(*loop, kDefaultRunLoopMode);
  const auto start = Clock::now();
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, milliseconds(0)), RunLoopResult::timedOut);
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, milliseconds(-5000)), RunLoopResult::timedOut);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
}

TEST(NativeRunLoop, TheLongestTimeDoesNotOverflow) {
  TemporaryFolder folder;
  const std::string image = folder / "blank.img";
  writeImage(image, {}, 1 << 20);
  const Platform ports = nativePlatform();
  const auto loop = ports.runLoops->current();
  const auto session = ports.diskArbitration->createSession();
  session->schedule(*loop, kDefaultRunLoopMode);
  session->diskFromBSDName(image)->unmount(nullptr);
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, milliseconds::max()), RunLoopResult::handledSource);
}

}  // namespace
}  // namespace vorlix::contract
