// SPDX-License-Identifier: Apache-2.0
#include <syslog.h>

#include <array>

#include "Module.h"
#include "platform/linux/SignersUnit.h"
#include "platform/linux/modules/ModuleLoader.h"

namespace vorlix {
namespace {

constexpr size_t kLongestUnit = 4096;  // X.520 allows 64 characters

SignersUnitEntry* load() {
  const LoadedEntry module = loadModule("signing.so", kSignersUnitEntry);
  if (module.entry != nullptr) return reinterpret_cast<SignersUnitEntry*>(module.entry);
  syslog(LOG_ERR, "Vorlix: no signature can be checked without %s: %s", module.name.c_str(), module.reason.c_str());
  return nullptr;
}

}  // namespace

std::optional<std::string> signersUnit(const std::string& signature, int file, const std::filesystem::path& anchors) {
  static SignersUnitEntry* const entry = load();  // stays loaded, because OpenSSL cannot be unloaded safely
  if (entry == nullptr) return std::nullopt;
  std::array<char, kLongestUnit> unit;
  const long length = entry(signature.c_str(), file, anchors.c_str(), unit.data(), unit.size());
  if (length < 0) return std::nullopt;
  return std::string(unit.data(), static_cast<size_t>(length));
}

}  // namespace vorlix
