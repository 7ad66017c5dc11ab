// SPDX-License-Identifier: Apache-2.0
//
// Runs the tests on a thread of their own. The default mode of the main thread's loop always has a source, because the
// main queue counts as one (CFRunLoop.c), so each test of an empty mode would wait there.
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "platform/posix/DescriptorSource.h"
#include "tests/macos/standin/System.h"

namespace {

const pid_t process = getpid();

vorlix::RunLoopResult mainResult = vorlix::RunLoopResult::noSources;
vorlix::RunLoopResult otherResult = vorlix::RunLoopResult::timedOut;

TEST(MainThread, TheDefaultModeWaitsAndOthersReturnAtOnce) {
  EXPECT_EQ(mainResult, vorlix::RunLoopResult::timedOut);
  EXPECT_EQ(otherResult, vorlix::RunLoopResult::noSources);
}

// Whether every other thread of the process waits in a system call.
bool doOtherThreadsSleep() {
  const std::string own = std::to_string(gettid());
  std::error_code error;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", error)) {
    if (thread.path().filename() == own) continue;
    std::string line;
    std::getline(std::ifstream(thread.path() / "stat") >> std::ws, line);
    if (line.compare(line.rfind(')') + 1, 2, " S") != 0) return false;
  }
  return !error;
}

// A forked child waits for ever for the sanitizer's allocator if another thread was allocating at that moment, as those
// of libdispatch do now and then.
void waitForOtherThreads() {
  for (int i = 0; i < 1000 && !doOtherThreadsSleep(); ++i) usleep(1000);
}

}  // namespace

// The child of a death test has only the thread that forked, so the other threads' objects would look like leaks.
extern "C" int __lsan_is_turned_off() {  // NOLINT: the sanitizer's name
  return getpid() == process ? 0 : 1;
}

std::string& vorlix::standin::usualFilter() {
  static auto* const filter = new std::string("*");
  return *filter;
}

int main(int count, char** arguments) {
  if (GTEST_FLAG_GET(filter) == "*") GTEST_FLAG_SET(filter, vorlix::standin::usualFilter());
  testing::InitGoogleMock(&count, arguments);
  pthread_atfork(waitForOtherThreads, nullptr, nullptr);
  const auto loop = vorlix::nativePlatform().runLoops->current();
  mainResult = loop->run(vorlix::kDefaultRunLoopMode, std::chrono::milliseconds(20));
  otherResult = loop->run("another mode", std::chrono::seconds(20));
  int result = 1;
  std::thread([&] {
    // The first timer opens descriptors that the process keeps. Tests that count descriptors must not see it.
    const auto timer = vorlix::callAfter(std::chrono::milliseconds(1), [] {});
    vorlix::nativePlatform().runLoops->current()->run(vorlix::kDefaultRunLoopMode, std::chrono::milliseconds(50));
    result = RUN_ALL_TESTS();
  }).join();
  return result;
}
