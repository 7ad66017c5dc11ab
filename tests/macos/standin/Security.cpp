// SPDX-License-Identifier: Apache-2.0
//
// Code signatures of other processes, and requirements on them.
#include <Security/Security.h>

#include <algorithm>

#include "Properties.h"
#include "RuntimeObject.h"
#include "platform/simulated/SimulatedState.h"

namespace vorlix::standin {
namespace {

struct CodeState {
  static constexpr const char* kName = "SecCode";
  int32_t process = 0;
  CodeCheck outcome = CodeCheck::invalid;
};
using CodeObject = RuntimeObject<SecCodeRef, CodeState>;

struct RequirementState {
  static constexpr const char* kName = "SecRequirement";
  std::string text;
};
using RequirementObject = RuntimeObject<SecRequirementRef, RequirementState>;

// Rejects texts that no version of the requirement language accepts.
bool isRequirement(const std::string& text) {
  return !text.empty() && std::count(text.begin(), text.end(), '(') == std::count(text.begin(), text.end(), ')');
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix;           // NOLINT: the system's names are global
using namespace vorlix::standin;  // NOLINT

extern "C" {

const CFStringRef kSecGuestAttributePid = CFSTR("pid");

// Stores nothing if it fails.
OSStatus SecCodeCopyGuestWithAttributes(SecCodeRef, CFDictionaryRef attributes, SecCSFlags, SecCodeRef* guest) {
  int32_t process = 0;
  const auto* const number = static_cast<CFNumberRef>(CFDictionaryGetValue(attributes, kSecGuestAttributePid));
  if (number == nullptr || !CFNumberGetValue(number, kCFNumberSInt32Type, &process)) return errSecCSNoSuchCode;
  const auto& known = standin::system().state->codeChecks;
  const auto found = known.find(process);
  if (found == known.end() || found->second <= CodeCheck::guestFailed) return errSecCSNoSuchCode;
  *guest = CodeObject::create(new CodeState{process, found->second});
  return errSecSuccess;
}

// If the text is not a requirement, the caller releases the error.
OSStatus SecRequirementCreateWithStringAndErrors(CFStringRef text, SecCSFlags, CFErrorRef* errors,
                                                 SecRequirementRef* requirement) {
  const std::string rule = textOf(text);
  if (!isRequirement(rule)) {
    if (errors != nullptr) *errors = CFErrorCreate(nullptr, kCFErrorDomainOSStatus, errSecCSReqInvalid, nullptr);
    return errSecCSReqInvalid;
  }
  *requirement = RequirementObject::create(new RequirementState{rule});
  return errSecSuccess;
}

OSStatus SecCodeCheckValidity(SecCodeRef code, SecCSFlags, SecRequirementRef requirement) {
  const CodeState& checked = CodeObject::of(code);
  standin::system().state->journal.push_back("check code " + std::to_string(checked.process) + " " +
                                             RequirementObject::of(requirement).text);
  return checked.outcome == CodeCheck::valid ? errSecSuccess : errSecCSReqFailed;
}

}  // extern "C"
