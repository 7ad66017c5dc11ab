// SPDX-License-Identifier: Apache-2.0
//
// What a backup makes of a disk whose small structures cannot be read.
#include <Vorlix/Backup.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <set>

namespace vorlix::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class BackupPlanTest : public testing::Test {
 protected:
  BackupPlanTest() {
    machine_.addDisk("disk7", 1 << 20, 512);
    machine_.addSlice("disk7", 1, 64, 512);
    request_.volume = "disk7s1";
    request_.folder = testing::TempDir() + "/backup-that-is-not-made";
  }

  std::set<std::string> missing() const {
    std::set<std::string> keys;
    for (const BackupPart& part : plan_.parts) {
      if (!part.missing.empty()) keys.insert(part.key);
    }
    return keys;
  }

  SimulatedMachine machine_;
  ScopedPlatform scope_{machine_.platform()};
  BackupRequest request_;
  BackupPlan plan_;
};

const std::set<std::string> kOfTheDisk = {"bootCode", "bootStore", "partitionTable", "partitionTableCopy"};
const std::set<std::string> kNeverThere = {"bootRecordCopy", "bootStore",
                                           "partitionTableCopy"};  // no file system, no GPT

TEST_F(BackupPlanTest, WhatADiskDoesNotHaveIsNoReasonToRefuse) {
  EXPECT_FALSE(planBackup(request_, plan_));
  EXPECT_EQ(missing(), kNeverThere);
}

TEST_F(BackupPlanTest, ADiskThatCannotBeReadRefusesTheBackup) {
  for (const Operation operation : {Operation::open, Operation::read}) {
    machine_.fail("disk7", operation, EIO);
    const auto failure = planBackup(request_, plan_);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->subject, "disk7s1");
    EXPECT_THAT(failure->reason, HasSubstr("boot-code.bin cannot be saved: disk7: "));
    EXPECT_THAT(failure->reason, HasSubstr("--force"));
  }
}

TEST_F(BackupPlanTest, ForceSavesWhatCanBeReadAndWarns) {
  machine_.fail("disk7", Operation::open, EIO);
  request_.force = true;
  EXPECT_FALSE(planBackup(request_, plan_));
  ASSERT_EQ(plan_.warnings.size(), kOfTheDisk.size());
  EXPECT_THAT(plan_.warnings.front(), HasSubstr("boot-code.bin cannot be saved: disk7: "));
  for (const std::string& key : kOfTheDisk) EXPECT_TRUE(missing().contains(key)) << key;
  EXPECT_FALSE(missing().contains("bootRecord"));
}

TEST_F(BackupPlanTest, ADiskThatTheUserMayNotOpenIsNoReasonToRefuse) {
  machine_.fail("disk7", Operation::open, EACCES);
  EXPECT_FALSE(planBackup(request_, plan_));
  EXPECT_THAT(plan_.warnings, IsEmpty());
  for (const std::string& key : kOfTheDisk) EXPECT_TRUE(missing().contains(key)) << key;
}

TEST_F(BackupPlanTest, ABootRecordThatCannotBeReadRefusesTheBackup) {
  machine_.fail("disk7s1", Operation::read, EIO);
  const auto failure = planBackup(request_, plan_);
  ASSERT_TRUE(failure);
  EXPECT_THAT(failure->reason, HasSubstr("boot-record.bin cannot be saved: "));
}

}  // namespace
}  // namespace vorlix::test
