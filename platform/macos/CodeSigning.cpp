// SPDX-License-Identifier: Apache-2.0
#include "CodeSigning.h"

#include <Security/Security.h>

#include "CFValue.h"

namespace vorlix {
namespace {

// Takes over a reference that a function with "Create" or "Copy" in its name returned or stored.
template <typename Reference>
CFOwned<Reference> owned(Reference reference) {
  return CFOwned<Reference>(reference);
}

}  // namespace

CodeCheck MacCodeSigning::check(int32_t process, const std::string& requirement) {
  const auto number = owned(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &process));
  if (!number) return CodeCheck::numberFailed;

  const void* key = kSecGuestAttributePid;
  const void* value = number.get();
  // Without callbacks the dictionary keeps neither key nor value; both live longer than it does.
  const auto attributes = owned(CFDictionaryCreate(kCFAllocatorDefault, &key, &value, 1, nullptr, nullptr));
  if (!attributes) return CodeCheck::attributesFailed;

  SecCodeRef foundCode = nullptr;
  const OSStatus guest = SecCodeCopyGuestWithAttributes(nullptr, attributes.get(), kSecCSDefaultFlags, &foundCode);
  const auto code = owned(foundCode);
  if (guest != errSecSuccess) return CodeCheck::guestFailed;

  const auto text = stringToCF(requirement);
  if (!text) return CodeCheck::requirementFailed;
  CFErrorRef foundErrors = nullptr;
  SecRequirementRef foundRequirement = nullptr;
  const OSStatus compiled =
      SecRequirementCreateWithStringAndErrors(text.get(), kSecCSDefaultFlags, &foundErrors, &foundRequirement);
  const auto errors = owned(foundErrors);
  const auto rule = owned(foundRequirement);
  if (compiled != errSecSuccess) return CodeCheck::requirementFailed;

  const OSStatus validity = SecCodeCheckValidity(code.get(), kSecCSDefaultFlags, rule.get());
  return validity == errSecSuccess ? CodeCheck::valid : CodeCheck::invalid;
}

}  // namespace vorlix
