// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSUtilities.h>
#include <strings.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "Arbitration.h"
#include "Commands.h"
#include "Failure.h"
#include "Files.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

struct LegacyBootOptions {
  std::string volume;
  std::string store;
};

// Windows takes all spellings of a name for one. A driver that tells them apart would put "boot" beside "Boot", and
// Windows would see only one of the two.
void requireOneSpelling(const std::string& folder) {
  std::error_code error;
  for (const std::string copied : {"boot", "bootmgr"}) {
    if (std::filesystem::exists(folder + "/" + copied, error)) continue;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
      const std::string name = entry.path().filename();
      if (strcasecmp(name.c_str(), copied.c_str()) != 0) continue;
      throw Failure(folder, "holds " + printable(name) + ", which Windows takes for " + copied, "nothing was copied");
    }
  }
}

void setUp(const LegacyBootOptions& options) {
  const std::string folder = std::filesystem::absolute(folderOfVolume(options.volume)).string();
  std::error_code error;
  if (!std::filesystem::is_regular_file(options.store, error)) {
    throw Failure(options.store, "not a file; --bcd names the boot configuration store for legacy start");
  }
  if (std::filesystem::exists(folder + "/BOOT", error)) {
    std::printf("%s is set up already (BOOT exists); nothing was copied\n", printable(folder).c_str());
    return;
  }
  requireOneSpelling(folder);
  const LibraryLog log;
  const int result = QDSUtilities::setupMBRBootFilesForDevice(URL::fileURLWithPath(folder),
                                                              std::filesystem::absolute(options.store).string());
  std::printf("%s", printableLines(log.text()).c_str());
  if (result != 0) {
    std::fflush(stdout);
    throw Failure(folder, "a copy failed",
                  "what was copied stays; remove what is incomplete, since a second run passes over all that is there");
  }
}

}  // namespace

void addLegacyBootCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<LegacyBootOptions>();
  CLI::App* const command =
      app.add_subcommand("legacy-boot", "Lay out the files that Windows needs on a volume for legacy start");
  command->add_option("VOLUME", options->volume, "Folder where the volume is mounted, or its device")->required();
  command->add_option("--bcd", options->store, "Boot configuration store to copy to boot/BCD")->required();
  command->callback([options, &status] {
    setUp(*options);
    status = kDone;
  });
}

}  // namespace vorlix::tool
