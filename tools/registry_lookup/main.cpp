// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "Confinement.h"
#include "Hive.h"
#include "HiveFile.h"
#include "Names.h"
#include "ValueText.h"
#include "tools/StandardDescriptors.h"

namespace {

enum ExitStatus : int { kDone = 0, kError = 2 };

// Address space that a lookup may use beyond the hive itself, which hivex maps whole.
constexpr uint64_t kWorkingMemory = uint64_t{512} << 20;

constexpr const char* kUsage = "Usage: registry_lookup HIVE KEY VALUE\n";
constexpr const char* kHelp =
    "Prints one value of a Windows registry hive as text.\n"
    "\n"
    "  HIVE   the hive's file, such as Windows/System32/config/SOFTWARE; opened for reading only\n"
    "  KEY    names of keys below the root, with \"/\" between them; \"\" for the root\n"
    "  VALUE  the value's name; \"\" for the default value\n"
    "\n"
    "Names are compared without regard to case. If the key or value does not exist, nothing is printed.\n"
    "Exit status: 0 success, also if the value does not exist; 2 error.\n";

// Returns whether standard output and standard error are the same pipe or file. A program that reads it could take a
// message for the value; a person at a terminal does not.
bool outputTakesMessages() {
  struct stat output = {};
  struct stat messages = {};
  if (fstat(STDOUT_FILENO, &output) != 0 || fstat(STDERR_FILENO, &messages) != 0) return false;
  return output.st_dev == messages.st_dev && output.st_ino == messages.st_ino && !S_ISCHR(output.st_mode);
}

int fail(const std::string& message) {
  if (!outputTakesMessages()) std::fprintf(stderr, "registry_lookup: %s\n", message.c_str());
  return kError;
}

int print(const std::string& text) {
  const bool printed = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (std::fflush(stdout) == 0 && printed) return kDone;
  return fail("the value cannot be written to standard output");
}

int lookUp(const std::string& hive, const std::string& key, const std::string& value) {
  using namespace vorlix::registry;
  try {
    return print(runConfined(checkedHiveSize(hive) + kWorkingMemory, [&] {
      useUnicodeLetters();
      const std::optional<RegistryValue> found = findValue(hive, key, value);
      return found ? valueText(*found) : std::string();
    }));
  } catch (const std::exception& error) {
    return fail(hive + ": " + error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  vorlix::fillStandardDescriptors();
  const std::string_view option = argc == 2 ? argv[1] : "";
  if (option == "--help") return print(std::string(kUsage) + kHelp);
  if (option == "--version") return print("registry_lookup " VORLIX_VERSION "\n");
  if (argc != 4) {
    if (!outputTakesMessages()) std::fputs(kUsage, stderr);
    return kError;
  }
  return lookUp(argv[1], argv[2], argv[3]);
}
