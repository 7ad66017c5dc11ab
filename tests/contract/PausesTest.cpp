// SPDX-License-Identifier: Apache-2.0
//
// The contract of <Vorlix/platform/Pauses.h>, on this system and on the simulated machine.
#include <Vorlix/platform/Pauses.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gtest/gtest.h>

namespace vorlix::contract {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(PausesContract, TheNativePauseSleeps) {
  const auto start = steady_clock::now();
  nativePlatform().pauses->pause(milliseconds(30));
  EXPECT_GE(steady_clock::now() - start, milliseconds(30));
}

TEST(PausesContract, AReplacedPauseOfASimulatedMachineDoesNotSleep) {
  SimulatedMachine machine;
  milliseconds seen{0};
  machine.duringPauses([&](milliseconds time) { seen = time; });
  const auto start = steady_clock::now();
  machine.platform().pauses->pause(milliseconds(3600000));
  EXPECT_LT(steady_clock::now() - start, std::chrono::minutes(1));
  EXPECT_TRUE(machine.journal().empty());
  EXPECT_EQ(seen, milliseconds(3600000));
}

TEST(PausesContract, ASimulatedMachinesPauseSleeps) {
  const SimulatedMachine machine;
  const auto start = steady_clock::now();
  machine.platform().pauses->pause(milliseconds(30));
  EXPECT_GE(steady_clock::now() - start, milliseconds(30));
}

}  // namespace
}  // namespace vorlix::contract
