// SPDX-License-Identifier: Apache-2.0
//
// Checking the processes that send requests.
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/platform/CodeSigning.h>
#include <Vorlix/platform/Platform.h>

namespace {

constexpr const char* kRequirement = "anchor apple generic and certificate leaf[subject.OU] = K7M2QZ4RNA";

// Returns why a process is refused; null if it is not.
const char* refusalOf(vorlix::CodeCheck outcome) {
  switch (outcome) {
    case vorlix::CodeCheck::valid:
      return nullptr;
    case vorlix::CodeCheck::numberFailed:
      return "Error creating number";
    case vorlix::CodeCheck::attributesFailed:
      return "Error creating attributes";
    case vorlix::CodeCheck::guestFailed:
      return "Error creating SecCodeCopyGuestWithAttributes";
    case vorlix::CodeCheck::requirementFailed:
      return "Error creating SecRequirementCreateWithStringAndErrors";
    case vorlix::CodeCheck::invalid:
      break;
  }
  return "Request from invalid client. Refusing";
}

}  // namespace

bool QDSUtilities::isCorrectlySignedClientWithPID(int32_t process) {
  const char* const refusal = refusalOf(vorlix::platform().codeSigning->check(process, kRequirement));
  if (refusal == nullptr) return true;
  logLine(refusal);
  return false;
}
