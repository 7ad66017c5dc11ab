// SPDX-License-Identifier: Apache-2.0
//
// Lists and edits boot configuration stores for the library.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Editing.h"
#include "Listing.h"
#include "tools/StandardDescriptors.h"
#include "tools/registry_lookup/Confinement.h"
#include "tools/registry_lookup/Failure.h"
#include "tools/registry_lookup/HiveFile.h"

namespace {

using namespace vorlix::registry;

enum ExitStatus : int { kDone = 0, kError = 2 };

// Address space beyond the store itself, which hivex maps or reads whole.
constexpr uint64_t kWorkingMemory = uint64_t{512} << 20;

constexpr const char* kUsage =
    "Usage: boot_store list STORE\n"
    "       boot_store edit STORE EDITS RESULT\n";
constexpr const char* kHelp =
    "Lists a Windows boot configuration store, or writes a copy of it with changes.\n"
    "\n"
    "  STORE   the store's file, such as EFI/Microsoft/Boot/BCD; opened for reading only\n"
    "  EDITS   a file with one change a line\n"
    "  RESULT  the copy\n"
    "\n"
    "Exit status: 0 success; 2 error.\n";

int fail(const std::string& message) {
  std::fprintf(stderr, "boot_store: %s\n", message.c_str());
  return kError;
}

int print(const std::string& text) {
  const bool printed = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (std::fflush(stdout) == 0 && printed) return kDone;
  return fail("standard output cannot be written");
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Failure("cannot be opened");
  return {std::istreambuf_iterator<char>(file), {}};
}

int list(const std::string& store) {
  try {
    return print(runConfined(checkedHiveSize(store) + kWorkingMemory, [&] { return listStore(store); }));
  } catch (const std::exception& error) {
    return fail(store + ": " + error.what());
  }
}

int edit(const std::string& store, const std::string& edits, const std::string& result) {
  try {
    const std::string lines = contentOf(edits);
    return print(runConfined(checkedHiveSize(store) + kWorkingMemory, [&] {
      editStore(store, lines, result);
      return std::string("end\n");
    }));
  } catch (const std::exception& error) {
    return fail(store + ": " + error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  vorlix::fillStandardDescriptors();
  const std::string_view verb = argc > 1 ? argv[1] : "";
  if (argc == 2 && verb == "--help") return print(std::string(kUsage) + kHelp);
  if (argc == 2 && verb == "--version") return print("boot_store " VORLIX_VERSION "\n");
  if (argc == 3 && verb == "list") return list(argv[2]);
  if (argc == 5 && verb == "edit") return edit(argv[2], argv[3], argv[4]);
  std::fputs(kUsage, stderr);
  return kError;
}
