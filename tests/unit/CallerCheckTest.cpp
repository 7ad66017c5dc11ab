// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/platform/CodeSigning.h>

#include <limits>

#include "tests/unit/support/DiskFixture.h"

namespace vorlix::test {
namespace {

class CallerCheckTest : public FlatTest {
 protected:
  bool checkWith(CodeCheck outcome) {
    machine.setCodeCheck(4711, outcome);
    return QDSUtilities::isCorrectlySignedClientWithPID(4711);
  }
};

TEST_F(CallerCheckTest, AProcessOfTheTeamIsAcceptedAndNothingIsLogged) {
  EXPECT_TRUE(checkWith(CodeCheck::valid));
  EXPECT_EQ(log(), "");
}

TEST_F(CallerCheckTest, TheRequirementNamesTheAnchorAndTheTeam) {
  checkWith(CodeCheck::valid);
  EXPECT_EQ(machine.journal(),
            Lines{"check code 4711 anchor apple generic and certificate leaf[subject.OU] = K7M2QZ4RNA"});
}

TEST_F(CallerCheckTest, ARefusalIfTheNumberCannotBeCreated) {
  EXPECT_FALSE(checkWith(CodeCheck::numberFailed));
  EXPECT_EQ(log(), "Error creating number");
}

TEST_F(CallerCheckTest, ARefusalIfTheAttributesCannotBeCreated) {
  EXPECT_FALSE(checkWith(CodeCheck::attributesFailed));
  EXPECT_EQ(log(), "Error creating attributes");
}

TEST_F(CallerCheckTest, AMissingProcessIsRefused) {
  EXPECT_FALSE(checkWith(CodeCheck::guestFailed));
  EXPECT_EQ(log(), "Error creating SecCodeCopyGuestWithAttributes");
}

TEST_F(CallerCheckTest, ARefusalIfTheRequirementCannotBeRead) {
  EXPECT_FALSE(checkWith(CodeCheck::requirementFailed));
  EXPECT_EQ(log(), "Error creating SecRequirementCreateWithStringAndErrors");
}

TEST_F(CallerCheckTest, AProcessThatDoesNotSatisfyTheRequirementIsRefused) {
  EXPECT_FALSE(checkWith(CodeCheck::invalid));
  EXPECT_EQ(log(), "Request from invalid client. Refusing");
}

TEST_F(CallerCheckTest, TheIdentifierOfAnEndedProcessIsRefused) {
  EXPECT_FALSE(QDSUtilities::isCorrectlySignedClientWithPID(4712));
  EXPECT_EQ(log(), "Error creating SecCodeCopyGuestWithAttributes");
}

TEST_F(CallerCheckTest, TheIdentifierIsASigned32BitNumber) {
  for (const int32_t process : {std::numeric_limits<int32_t>::min(), -1, 0, std::numeric_limits<int32_t>::max()}) {
    machine.clearJournal();
    EXPECT_FALSE(QDSUtilities::isCorrectlySignedClientWithPID(process));
    EXPECT_EQ(machine.journal(), Lines{"check code " + std::to_string(process) +
                                       " anchor apple generic and certificate leaf[subject.OU] = K7M2QZ4RNA"});
  }
}

TEST_F(CallerCheckTest, NothingIsCachedBetweenCalls) {
  EXPECT_TRUE(checkWith(CodeCheck::valid));
  EXPECT_FALSE(checkWith(CodeCheck::invalid));
  EXPECT_TRUE(checkWith(CodeCheck::valid));
}

}  // namespace
}  // namespace vorlix::test
