// SPDX-License-Identifier: Apache-2.0
//
// File descriptors as sources of the run loop.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <thread>

#include "platform/linux/RunLoop.h"

namespace vorlix {
namespace {

using std::chrono::milliseconds;

constexpr const char* kMode = "mode";
constexpr milliseconds kLong{20000};

class Pipe {
 public:
  Pipe() {
    if (pipe(ends_.data()) != 0) throw std::runtime_error("no pipe");
  }
  ~Pipe() {
    close(ends_[0]);
    closeWriteEnd();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int readEnd() const { return ends_[0]; }
  void put(char byte) const { ASSERT_EQ(write(ends_[1], &byte, 1), 1); }
  void closeWriteEnd() {
    if (ends_[1] >= 0) close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  std::array<int, 2> ends_ = {-1, -1};
};

// Appends each byte that is read to the log, and '.' at the end of the stream.
std::shared_ptr<RunLoopSource> readerOf(const Pipe& pipe, std::string& log) {
  return std::make_shared<ReadableDescriptor>(pipe.readEnd(), [&pipe, &log] {
    char byte = '.';
    static_cast<void>(!read(pipe.readEnd(), &byte, 1));
    log += byte;
  });
}

class RunLoopSources : public testing::Test {
 protected:
  Pipe one_;
  Pipe other_;
  std::string log_;
  std::shared_ptr<LinuxRunLoop> loop_ = std::make_shared<LinuxRunLoop>();
};

TEST_F(RunLoopSources, AReadableDescriptorIsHandled) {
  loop_->add(kMode, readerOf(one_, log_));
  EXPECT_EQ(loop_->run(kMode, milliseconds(20)), RunLoopResult::timedOut);
  one_.put('a');
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log_, "a");
  EXPECT_EQ(loop_->run(kMode, milliseconds(20)), RunLoopResult::timedOut);
}

TEST_F(RunLoopSources, ADescriptorAtEndOfFileIsHandled) {
  loop_->add(kMode, readerOf(one_, log_));
  one_.closeWriteEnd();
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log_, ".");
}

TEST_F(RunLoopSources, AWriteEndsTheWait) {
  loop_->add(kMode, readerOf(one_, log_));
  std::thread writer([&] {
    std::this_thread::sleep_for(milliseconds(100));
    one_.put('a');
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::handledSource);
  EXPECT_LT(std::chrono::steady_clock::now() - start, kLong / 2);
  writer.join();
  EXPECT_EQ(log_, "a");
}

TEST_F(RunLoopSources, ASourceThatIsAlwaysReadyDoesNotStarveTheOthers) {
  loop_->add(kMode, readerOf(one_, log_));
  loop_->add(kMode, readerOf(other_, log_));
  one_.closeWriteEnd();
  other_.put('b');
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::handledSource);
  EXPECT_NE(log_.find('b'), std::string::npos) << log_;
}

TEST_F(RunLoopSources, ASourceAddedTwiceExistsOnce) {
  const auto source = readerOf(one_, log_);
  loop_->add(kMode, source);
  loop_->add(kMode, source);
  loop_->remove(kMode, source);
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::noSources);
}

TEST_F(RunLoopSources, AHandlerMayRemoveAndReleaseItsSource) {
  std::shared_ptr<RunLoopSource> source;
  source = std::make_shared<ReadableDescriptor>(one_.readEnd(), [&] {
    loop_->remove(kMode, source);
    source.reset();
    log_ += "removed";
  });
  loop_->add(kMode, source);
  one_.closeWriteEnd();
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::handledSource);
  EXPECT_EQ(log_, "removed");
  EXPECT_EQ(loop_->run(kMode, kLong), RunLoopResult::noSources);
}

}  // namespace
}  // namespace vorlix
