// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/Shell.h>
#include <Vorlix/platform/UserIdentity.h>
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Arbitration.h"
#include "Commands.h"
#include "Complaint.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Json.h"
#include "Volumes.h"

namespace vorlix::tool {
namespace {

constexpr const char* kUnchanged = "the startup disk was not set";
constexpr int kCommandNotFound = 127;

struct StartupOptions {
  std::string device;
  std::string type;
  bool permanent = false;
  bool dryRun = false;
  bool json = false;
};

const std::map<std::string, uint32_t> kTypes = {
    {"legacy", QDDeviceManager::kBootLegacy},
    {"efi", QDDeviceManager::kBootEFI},
    {"mac", QDDeviceManager::kBootMac},
    {"volume-efi", QDDeviceManager::kBootVolumeEFI},
};

// Records the command that the library builds, and its exit status, which the library ignores.
class NotingShell final : public Shell {
 public:
  explicit NotingShell(std::shared_ptr<Shell> next) : next_(std::move(next)) {}

  int run(const std::string& command) override {
    command_ = command;
    if (next_) status_ = next_->run(command);
    return status_;
  }

  const std::optional<std::string>& command() const { return command_; }
  int status() const { return status_; }

 private:
  std::shared_ptr<Shell> next_;  // null: commands are recorded and not run
  std::optional<std::string> command_;
  int status_ = 0;
};

// The library builds the command only if the real user is the administrator. In a dry run, which only shows it, this
// identity stands in.
class Administrator final : public UserIdentity {
 public:
  uint32_t realUserID() override { return 0; }
};

std::shared_ptr<QDVolume> volumeOf(const std::string& device) {
  const Volumes all = QDDeviceManager::sharedDeviceManager()->attachedDisks();
  if (const auto volume = mountedVolume(device, all)) return volume;
  const auto volume = QDVolume::init();
  const std::string name = bsdNameOf(device);
  volume->setDevice(name.starts_with('/') ? name : "/dev/" + name);
  return volume;
}

// Refuses a disk without an MBR. The library does not check that sector 0 holds one.
void requireMBR(const StartupOptions& options, const std::string& device) {
  const std::string disk = wholeDiskNameOf(device);
  if (const auto reason = whyNoMBR(readTables(disk))) {
    throw Failure(options.device, disk + " " + *reason + "; use --type to choose how the volume starts", kUnchanged);
  }
}

uint32_t typeOf(const StartupOptions& options, const std::shared_ptr<QDVolume>& volume) {
  if (!options.type.empty()) return kTypes.at(options.type);
  const uint32_t type = QDDeviceManager::sharedDeviceManager()->bootTypeForDisk(volume);
  const bool isFromMBR = type == QDDeviceManager::kBootLegacy || type == QDDeviceManager::kBootEFI;
  if (isFromMBR) requireMBR(options, volume->device().value_or(""));
  return type;
}

void warnOfProtection(const std::string& device) {
  const auto manager = QDDeviceManager::sharedDeviceManager();
  if (!manager->isSIPEnabled() || manager->isOnStartupDisk(device)) return;
  complain("System Integrity Protection is on and may refuse a startup disk other than this system's");
}

void explainStatus(const StartupOptions& options, int status) {
  if (status == 0) return;
  if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == kCommandNotFound) {
    throw Failure(options.device, "this system has no /usr/sbin/bless", kUnchanged);
  }
  throw Failure(options.device, "/usr/sbin/bless failed", kUnchanged);
}

void selectStartupDisk(const StartupOptions& options) {
  Platform ports = platform();
  const auto shell = std::make_shared<NotingShell>(options.dryRun ? nullptr : ports.shell);
  ports.shell = shell;
  if (options.dryRun) ports.userIdentity = std::make_shared<Administrator>();
  setPlatform(std::move(ports));

  const auto manager = QDDeviceManager::sharedDeviceManager();
  bool accepted = false;
  uint32_t type = 0;
  {
    const QuietLibrary quiet;
    const auto volume = volumeOf(options.device);
    type = typeOf(options, volume);
    if (!options.dryRun) warnOfProtection(volume->device().value_or(""));
    accepted = manager->selectStartupDisk(volume, type, !options.permanent);
  }
  if (type == QDDeviceManager::kBootRoot) {
    throw Failure(options.device, "it is the running system's own volume", kUnchanged);
  }
  if (!accepted) throw Failure(options.device, "its name contains characters that a shell would interpret", kUnchanged);
  if (!shell->command()) throw Failure(options.device, "only root as the real user can do this", kUnchanged);
  if (options.dryRun && options.json) {
    Json::object({{"version", kJsonVersion}, {"device", options.device}, {"command", *shell->command()}}).print();
    return;
  }
  if (options.dryRun) {
    std::printf("%s\n", shell->command()->c_str());
    return;
  }
  explainStatus(options, shell->status());
  std::printf("startup disk set: %s\n", shell->command()->c_str());
}

std::vector<std::string> typeNames() {
  std::vector<std::string> names;
  for (const auto& [name, type] : kTypes) names.push_back(name);
  return names;
}

}  // namespace

void addStartupDiskCommand(Command& top, int& status) {
  const auto options = std::make_shared<StartupOptions>();
  Command startup = top.addCommand("startup-disk", "Select the volume that the computer starts from next time");
  startup.addOption("DEVICE", options->device, "Device of the volume, or the folder where it is mounted")
      .completes(ValueKind::volume)
      .required();
  startup.addOption("--type", options->type, "How it starts (default: detected from the disk)").oneOf(typeNames());
  startup.addFlag("--permanent", options->permanent, "For every start, not only the next one");
  const Option dryRun =
      startup.addFlag("--dry-run", options->dryRun, "Show the command that would be run; run nothing");
  startup.addFlag("--json", options->json, "Show it as JSON").needs(dryRun);
  startup.setExamples({"vorlix startup-disk mac.imgs3 --type legacy --dry-run"});
  startup.setAction([options, &status] {
    selectStartupDisk(*options);
    status = kDone;
  });
}

}  // namespace vorlix::tool
