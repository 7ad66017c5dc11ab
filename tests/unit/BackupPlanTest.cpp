// SPDX-License-Identifier: Apache-2.0
//
// What a backup makes of a disk whose small structures cannot be read.
#include <Vorlix/Backup.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "tests/unit/support/SoundGPT.h"

namespace vorlix::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

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

TEST_F(BackupPlanTest, AVolumeWhoseWholeDiskIsNotKnownIsSavedByItself) {
  machine_.hideWholeDisk("disk7s1");
  EXPECT_FALSE(planBackup(request_, plan_));
  EXPECT_EQ(plan_.wholeDisk, "disk7s1");
  for (const std::string& key : kOfTheDisk) EXPECT_TRUE(missing().contains(key)) << key;
}

// The reads of the whole disk fail from one of them on. The backup is then refused, or it has the same bytes as without
// the failure.
TEST_F(BackupPlanTest, NoReadOfTheTablesFailsUnnoticed) {
  const SoundGPT gpt;
  machine_.addDisk("disk8", gpt.bytes.size(), 512);
  machine_.setBytes("disk8", 0, gpt.bytes);
  machine_.addSlice("disk8", 1, 100, 50);
  request_.volume = "disk8s1";
  ASSERT_FALSE(planBackup(request_, plan_));
  const std::vector<BackupPart> sound = plan_.parts;

  const auto readsOf = [this] {
    const auto journal = machine_.journal();
    return std::count_if(journal.begin(), journal.end(),
                         [](const auto& line) { return line.starts_with("read disk8 "); });
  };
  const auto before = readsOf();
  ASSERT_FALSE(planBackup(request_, plan_));
  const auto reads = static_cast<unsigned>(readsOf() - before);
  std::set<std::string> refused;
  for (unsigned successes = 0; successes < reads; ++successes) {
    machine_.fail("disk8", Operation::read, EIO, successes);
    plan_ = {};
    if (const auto failure = planBackup(request_, plan_)) {
      refused.insert(failure->reason.substr(0, failure->reason.find(' ')));
      continue;
    }
    for (size_t part = 0; part < sound.size(); ++part) {
      EXPECT_EQ(plan_.parts[part].bytes, sound[part].bytes) << successes;
    }
  }
  EXPECT_THAT(refused, IsSupersetOf({"boot-code.bin", "partition-table.bin", "partition-table-copy.bin"}));
}

}  // namespace
}  // namespace vorlix::test
