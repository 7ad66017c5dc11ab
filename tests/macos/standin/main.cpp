// SPDX-License-Identifier: Apache-2.0
//
// Runs the tests on a thread of their own: the default mode of the main thread's loop is never without sources, since
// the main queue counts as one (CFRunLoop.c), and would make each test wait that wants to see an empty mode.
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "platform/posix/DescriptorSource.h"

namespace {

vorlix::RunLoopResult mainResult = vorlix::RunLoopResult::noSources;
vorlix::RunLoopResult otherResult = vorlix::RunLoopResult::timedOut;

TEST(MainThread, TheDefaultModeWaitsAndOthersReturnAtOnce) {
  EXPECT_EQ(mainResult, vorlix::RunLoopResult::timedOut);
  EXPECT_EQ(otherResult, vorlix::RunLoopResult::noSources);
}

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleMock(&count, arguments);
  const auto loop = vorlix::nativePlatform().runLoops->current();
  mainResult = loop->run(vorlix::kDefaultRunLoopMode, std::chrono::milliseconds(20));
  otherResult = loop->run("another mode", std::chrono::seconds(20));
  int result = 1;
  std::thread([&] {
    // The first timer opens descriptors that the process keeps, which is no leak of the test that has it.
    const auto timer = vorlix::callAfter(std::chrono::milliseconds(1), [] {});
    vorlix::nativePlatform().runLoops->current()->run(vorlix::kDefaultRunLoopMode, std::chrono::milliseconds(50));
    result = RUN_ALL_TESTS();
  }).join();
  return result;
}
