// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/HostBundle.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/simulated/SimulatedHostBundle.h>
#include <gtest/gtest.h>

namespace {

TEST(HostBundleContract, AMissingResourceIsAbsent) {
  EXPECT_FALSE(vorlix::platform().hostBundle->pathForResource("no-such-resource", "", ""));
  EXPECT_FALSE(vorlix::platform().hostBundle->pathForResource("no-such-resource", "plist", ""));
  EXPECT_FALSE(vorlix::SimulatedHostBundle().pathForResource("no-such-resource", "", ""));
}

TEST(SimulatedHostBundleTest, NameAndTypeIdentifyAResource) {
  vorlix::SimulatedHostBundle bundle;
  bundle.addResource("unzip", "", "/host/unzip");
  bundle.addResource("BeforeEFI", "plist", "/host/BeforeEFI.plist");
  EXPECT_EQ(bundle.pathForResource("unzip", "", ""), "/host/unzip");
  EXPECT_EQ(bundle.pathForResource("BeforeEFI", "plist", ""), "/host/BeforeEFI.plist");
  EXPECT_FALSE(bundle.pathForResource("BeforeEFI", "", ""));
  EXPECT_FALSE(bundle.pathForResource("unzip", "plist", ""));
}

}  // namespace
