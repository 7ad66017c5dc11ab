// SPDX-License-Identifier: Apache-2.0
#include <array>

#include "Module.h"
#include "platform/linux/SignersUnit.h"
#include "platform/linux/modules/Modules.h"

namespace vorlix {
namespace {

constexpr size_t kLongestUnit = 4096;  // X.520 allows 64 characters

}  // namespace

std::optional<std::string> signersUnit(const std::string& signature, int file, const std::filesystem::path& anchors) {
  // OpenSSL does not like to be unloaded.
  static auto* const entry = reinterpret_cast<SignersUnitEntry*>(
      entryOfModule("signing.so", kSignersUnitEntry, "no signature can be checked"));
  if (entry == nullptr) return std::nullopt;
  std::array<char, kLongestUnit> unit;
  const long length = entry(signature.c_str(), file, anchors.c_str(), unit.data(), unit.size());
  if (length < 0) return std::nullopt;
  return std::string(unit.data(), static_cast<size_t>(length));
}

}  // namespace vorlix
