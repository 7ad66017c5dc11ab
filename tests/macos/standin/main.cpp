// SPDX-License-Identifier: Apache-2.0
//
// Runs the tests on a thread of their own. The default mode of the main thread's loop always has a source, because the
// main queue counts as one (CFRunLoop.c), so each test of an empty mode would wait there.
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
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
