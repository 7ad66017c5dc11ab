// SPDX-License-Identifier: Apache-2.0
//
// Detecting which Windows is on a volume.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDTaskHelper.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/platform/CompanionProgram.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>

#include <array>
#include <string_view>
#include <system_error>

#include <Vorlix/WindowsFolders.h>
#include "Messages.h"

using vorlix::tellDelegate;

namespace {

constexpr const char* kCurrentVersion = "Microsoft/Windows NT/CurrentVersion";
constexpr std::string_view kBootEnvironment = "Detected boot environment: ";

struct Product {
  const char* part;  // of the ProductName
  const char* message;
  const char* name;
};

// The first match counts. Windows 8.1 counts as 8; "WinBlue" was its name before the release.
constexpr std::array<Product, 4> kProducts = {{
    {"Windows 10", "Found Windows 10", "Windows 10"},
    {"Windows 8", "Found Windows 8+", "Windows 8+"},
    {"WinBlue", "Found Windows 8+", "Windows 8+"},
    {"Windows 7", "Found Windows 7", "Windows 7"},
}};

// Returns what a program prints. Absent if it cannot be started.
std::optional<std::string> outputOf(const std::string& program, const std::vector<std::string>& arguments) {
  try {
    return QDTaskHelper().runCommand(program, arguments);
  } catch (const std::system_error&) {
    return std::nullopt;
  }
}

std::optional<std::string> registryValue(const std::optional<std::string>& tool, const std::string& hive,
                                         const char* name) {
  if (!tool) return std::nullopt;
  return outputOf(*tool, {hive, kCurrentVersion, name});
}

std::string bootEnvironment(const std::string& setupLog) {
  std::string lines = outputOf("/usr/bin/grep", {"boot environment", setupLog}).value_or("");
  tellDelegate(lines);
  std::erase(lines, '\r');
  const size_t found = lines.find(kBootEnvironment);
  return found == std::string::npos ? "" : lines.substr(found + kBootEnvironment.size());
}

std::string productOf(const std::string& productName) {
  for (const Product& product : kProducts) {
    if (!vorlix::containsInAnyCase(productName, product.part)) continue;
    tellDelegate(product.message);
    return product.name;
  }
  return productName;
}

}  // namespace

vorlix::Dictionary QDDeviceManager::versionOfWindowsFromVolume(const std::shared_ptr<QDVolume>& volume) {
  vorlix::Dictionary version;
  const auto root = volume ? volume->filePath() : std::nullopt;
  const auto system32 = system32FolderFromVolume(root);
  if (!system32) {
    for (const char* key : {"product", "currentBuildNumber", "buildLabEx", "bootenv"}) version.set(key, std::string());
    return version;
  }
  const auto tool = vorlix::companionProgram("registry_lookup");
  const std::string hive = vorlix::pathOnVolume(*volume, *system32, {"config", "SOFTWARE"});
  const auto productName = registryValue(tool, hive, "ProductName");
  const std::string edition = registryValue(tool, hive, "EditionID").value_or("");
  version.set("edition", edition);
  version.set("buildLabEx", registryValue(tool, hive, "BuildLabEx").value_or(""));
  version.set("currentBuildNumber", registryValue(tool, hive, "CurrentBuildNumber").value_or(""));

  const std::string setupLog = vorlix::pathOnVolume(*volume, *root, {"Windows", "Panther", "setupact.log"});
  // The search in a pipe would wait for its other end.
  if (vorlix::platform().files->kindOf(setupLog) == vorlix::FileKind::file) {
    version.set("bootenv", bootEnvironment(setupLog));
  }
  if (!productName) tellDelegate("Could not determine product name");
  tellDelegate("Product: " + productName.value_or("") + ", Edition: " + edition);
  version.set("product", productOf(productName.value_or("")));
  return version;
}

bool QDDeviceManager::hasWindows8OrLaterFromVolume(const std::shared_ptr<QDVolume>& volume) {
  if (!volume) return false;
  tellDelegate("Detecting Version of Windows");
  const std::string product = versionOfWindowsFromVolume(volume).text("product").value_or("");
  return vorlix::containsInAnyCase(product, "Windows 8") || vorlix::containsInAnyCase(product, "Windows 10");
}
