// SPDX-License-Identifier: Apache-2.0
//
// Mounted volumes: all, those that fit, the built-in Windows.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/foundation/LogReceiver.h>
#include <Vorlix/foundation/Object.h>
#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "Mirrors.h"
#include "Text.h"
#include "Volumes.h"

namespace vorlix::tool {
namespace {

struct ListOptions {
  bool windowsOnly = false;
  bool all = false;
  bool json = false;
};

struct FindOptions {
  std::string label;
  std::string mediaUUID;
  std::string node;
  bool json = false;
};

const char* nothingText(const ListOptions& options) {
  if (options.windowsOnly && options.all) return "no volume with Windows or its installer is mounted";
  if (options.windowsOnly) return "no FAT, exFAT or NTFS volume with Windows or its installer is mounted";
  if (options.all) return "no volume of a disk is mounted";
  return "no FAT, exFAT or NTFS volume is mounted; --all shows every kind";
}

// Those of the listing that are asked for. A volume of unknown kind may be one of Windows' own.
Volumes chosen(const Volumes& all, const ListOptions& options) {
  Volumes shown;
  std::copy_if(all.begin(), all.end(), std::back_inserter(shown), [&](const auto& volume) {
    const std::optional<std::string> kind = volume->fileSystemType();
    return (options.all || !kind || isCaseBlind(*kind)) && (!options.windowsOnly || volume->hasWindows());
  });
  return shown;
}

void listVolumes(const ListOptions& options) {
  Volumes all;
  {
    const QuietLibrary quiet;
    all = QDDeviceManager::sharedDeviceManager()->attachedDisks();
  }
  const Volumes shown = chosen(all, options);
  if (options.json) {
    Json array = Json::array();
    for (const auto& volume : shown) array.append(volumeJson(*volume, all));
    Json::object({{"version", kJsonVersion}, {"volumes", std::move(array)}}).print();
  } else if (shown.empty()) {
    std::printf("%s\n", nothingText(options));
  } else {
    std::fputs(volumeTable(shown, all).c_str(), stdout);
  }
}

// The volumes beside the first answer that have the same label. Labels need not be unique.
Volumes namesakes(const QDVolume& found, const Volumes& all) {
  Volumes others;
  for (const auto& volume : chosen(all, {})) {
    if (volume->diskName() == found.diskName() && volume->device() != found.device()) others.push_back(volume);
  }
  return others;
}

int showFound(const std::shared_ptr<QDVolume>& volume, bool json, bool byLabel = false) {
  if (!volume) {
    if (json) Json().print();
    return kChangeNeeded;
  }
  Volumes all;
  {
    const QuietLibrary quiet;
    all = QDDeviceManager::sharedDeviceManager()->attachedDisks();
  }
  Volumes others;
  if (byLabel) others = namesakes(*volume, all);
  if (json) {
    Json object = volumeJson(*volume, all);
    Json list = Json::array();
    for (const auto& other : others) list.append(volumeJson(*other, all));
    object.addMembers(Json::object({{"others", std::move(list)}, {"version", kJsonVersion}}));
    object.print();
    return kDone;
  }
  if (!others.empty()) complain(std::to_string(others.size() + 1) + " volumes have this label; --node names one");
  others.insert(others.begin(), volume);
  std::fputs(volumeTable(others, all).c_str(), stdout);
  return kDone;
}

// The library compares devices with the texts of its list, which other names of the same device are not.
std::string listedNode(const std::string& node) {
  try {
    const auto volume = mountedVolume(node, QDDeviceManager::sharedDeviceManager()->attachedDisks());
    return volume ? volume->device().value_or(node) : node;
  } catch (const Failure&) {
    return node;
  }
}

int findVolume(const FindOptions& options) {
  const auto manager = QDDeviceManager::sharedDeviceManager();
  std::shared_ptr<QDVolume> volume;
  std::string what;
  {
    const QuietLibrary quiet;
    if (!options.mediaUUID.empty()) {
      const auto uuid = UUID::fromText(options.mediaUUID);
      if (!uuid) throw Failure(options.mediaUUID, "not an identifier of the form 8-4-4-4-12", "nothing was looked up");
      what = "partition " + uuid->text() + (options.node.empty() ? "" : " on device " + options.node);
      volume = options.node.empty()
                   ? manager->volumeWithMediaUUID(*uuid)
                   : manager->volumeWithMediaUUID(*uuid, URL::fileURLWithPath(listedNode(options.node)));
    } else if (!options.node.empty()) {
      what = "device " + options.node;
      volume = manager->volumeForNode(listedNode(options.node));
    } else {
      what = "label " + options.label;
      volume = manager->volumeForLabel(options.label);
    }
  }
  if (!volume) complain("no FAT, exFAT or NTFS volume with " + what + " is mounted");
  return showFound(volume, options.json, !options.label.empty());
}

// Hears why there is no answer: none, and more than one, are both no volume.
class CandidateLog final : public Object, public LogReceiver {
 public:
  void log(const std::string& line) override {
    if (line == "More than 1 partition found!") foundSeveral_ = true;
  }

  bool foundSeveral() const { return foundSeveral_; }

 private:
  bool foundSeveral_ = false;
};

int showBootCamp(bool json) {
  std::shared_ptr<QDVolume> volume;
  const auto log = std::make_shared<CandidateLog>();
  {
    const QuietLibrary quiet;
    const auto manager = QDDeviceManager::sharedDeviceManager();
    manager->setDelegate(log);
    volume = manager->builtInBootcampPartition();
  }
  if (!volume) {
    complain(log->foundSeveral() ? "more than one volume on internal disks could be it"
                                 : "no NTFS or FAT volume of an internal disk is mounted");
  }
  return showFound(volume, json);
}

}  // namespace

void addListCommands(Command& top, int& status) {
  const auto listing = std::make_shared<ListOptions>();
  Command list = top.addCommand("list", "List the mounted FAT, exFAT and NTFS volumes");
  list.addFlag("--windows", listing->windowsOnly, "Only those with Windows or its installer");
  list.addFlag("--all", listing->all, "Volumes of every kind");
  list.addFlag("--json", listing->json, "As JSON");
  list.setExamples({"vorlix list --windows", "vorlix list --all --json"});
  list.setAction([listing, &status] {
    complainOfLeftMirrors();
    listVolumes(*listing);
    status = kDone;
  });

  const auto finding = std::make_shared<FindOptions>();
  Command find = top.addCommand("find", "Find a mounted FAT, exFAT or NTFS volume");
  Option label = find.addOption("--label", finding->label, "By its name").completes(ValueKind::label);
  const Option uuid = find.addOption("--media-uuid", finding->mediaUUID, "By its partition's identifier")
                          .completes(ValueKind::identifier);
  const Option node =
      find.addOption("--node", finding->node, "By its device; also beside --media-uuid").completes(ValueKind::mounted);
  label.excludes(uuid).excludes(node);
  find.addFlag("--json", finding->json, "As JSON");
  find.setExamples({"vorlix find --label BOOTCAMP", "vorlix find --node /dev/sda3"});
  find.setAction([finding, &status] {
    if (finding->label.empty() && finding->mediaUUID.empty() && finding->node.empty()) {
      refuseWithout("--label, --media-uuid or --node");
    }
    status = findVolume(*finding);
  });

  const auto json = std::make_shared<bool>(false);
  Command bootCamp = top.addCommand("boot-camp", "Show the one Windows volume of this machine's own disks");
  bootCamp.addFlag("--json", *json, "As JSON");
  bootCamp.setExamples({"vorlix boot-camp"});
  bootCamp.setAction([json, &status] { status = showBootCamp(*json); });
}

}  // namespace vorlix::tool
