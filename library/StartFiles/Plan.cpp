// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StartFiles.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

namespace vorlix {
namespace {

using Item = FilesOfVolume::Item;
using Names = std::vector<std::string>;

// The boot files of a Windows are some hundred, with 60 MB in all.
constexpr uint64_t kLargestFile = uint64_t{64} << 20;
constexpr uint64_t kLargestSum = uint64_t{512} << 20;
constexpr size_t kMostFiles = 4096;
constexpr size_t kDeepestFolder = 8;

// Ends the planning; what() is the reason.
class NoPlan : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string joined(const Names& names) {
  std::string path;
  for (const std::string& name : names) path += (path.empty() ? "" : "/") + name;
  return path;
}

// A place on a volume, in the volume's spelling as far as it exists.
struct Place {
  std::string path;
  std::optional<Item> item;
};

// Looks names up in any letter case, and reads each folder once.
class VolumeIndex {
 public:
  VolumeIndex(const FilesOfVolume& files, std::string name) : files_(files), name_(std::move(name)) {}

  const std::vector<Item>& itemsIn(const std::string& folder) {
    const auto known = folders_.find(folder);
    if (known != folders_.end()) return known->second;
    std::optional<std::string> reason;
    std::vector<Item> items = files_.itemsIn(folder, reason);
    if (reason) throw NoPlan(*reason);
    return folders_[folder] = std::move(items);
  }

  Place find(const Names& names) {
    Place place;
    place.item = Item{"", Item::Kind::folder, 0};
    for (const std::string& name : names) {
      if (place.item && place.item->kind != Item::Kind::folder) throw NoPlan(name_ + place.path + " is no folder");
      if (place.item) place.item = findIn(place.path, name);
      place.path += "/" + (place.item ? place.item->name : name);
    }
    return place;
  }

  std::vector<uint8_t> read(const std::string& file) const {
    std::vector<uint8_t> bytes;
    if (const auto reason = files_.read(file, bytes)) throw NoPlan(*reason);
    return bytes;
  }

  const std::string& name() const { return name_; }

 private:
  std::optional<Item> findIn(const std::string& folder, const std::string& name) {
    const std::vector<Item>& items = itemsIn(folder);
    Names names;
    for (const Item& item : items) names.push_back(item.name);
    const Names found = spellingsOf(names, name);
    if (found.empty()) return std::nullopt;
    if (found.size() > 1) {
      throw NoPlan(name_ + folder + " holds " + found[0] + " and " + found[1] +
                   ", of which Windows sees one only; remove the other");
    }
    return *std::find_if(items.begin(), items.end(), [&](const Item& item) { return item.name == found.front(); });
  }

  const FilesOfVolume& files_;
  std::string name_;  // for messages
  std::map<std::string, std::vector<Item>> folders_;
};

// The name under which firmware starts a program for the processor of an EFI program. It is read from the program: MZ,
// at 0x3C the offset of PE\0\0, behind it the processor (Microsoft's PE format).
std::string removableName(const std::vector<uint8_t>& program) {
  constexpr size_t kHeaderPlace = 0x3C;
  constexpr uint32_t kPE = 0x00004550;
  const size_t header = program.size() < kHeaderPlace + 4 ? 0 : littleEndian32(&program[kHeaderPlace]);
  if (header == 0 || header > program.size() || program.size() - header < 6) return "bootx64.efi";
  if (littleEndian32(&program[header]) != kPE) return "bootx64.efi";
  switch (littleEndian16(&program[header + 4])) {
    case 0x014C:
      return "bootia32.efi";
    case 0xAA64:
      return "bootaa64.efi";
    case 0x01C0:
    case 0x01C4:
      return "bootarm.efi";
    default:
      return "bootx64.efi";
  }
}

class Planner {
 public:
  Planner(const StartFilesRequest& request, StartFilesPlan& plan)
      : request_(request),
        plan_(plan),
        windows_(*request.windows, "the Windows volume: "),
        system_(*request.system, "the system partition: ") {}

  void run() {
    const bool isEFI = request_.firmware == StartFirmware::efi;
    const Place folder = windows_.find({"Windows"});
    if (!isFolder(folder)) throw NoPlan("the volume has no folder Windows");
    const char* const loader = isEFI ? "winload.efi" : "winload.exe";
    if (!isFile(windows_.find({"Windows", "System32", loader}))) {
      throw NoPlan("the volume has no Windows/System32/" + std::string(loader) + ": its Windows does not start by " +
                   (isEFI ? "EFI" : "a BIOS"));
    }
    const Place store = requireFile({"Windows", "System32", "config", "BCD-Template"});
    isEFI ? addEFIFiles() : addBIOSFiles();
    addStore(windows_.read(store.path), folder.item->name, isEFI);
  }

 private:
  static bool isFolder(const Place& place) { return place.item && place.item->kind == Item::Kind::folder; }
  static bool isFile(const Place& place) { return place.item && place.item->kind == Item::Kind::file; }

  Place requireFile(const Names& names) {
    const Place place = windows_.find(names);
    if (!isFile(place)) throw NoPlan("the volume has no " + joined(names));
    return place;
  }

  void addEFIFiles() {
    const Names target = {"EFI", "Microsoft", "Boot"};
    const Place manager = requireFile({"Windows", "Boot", "EFI", "bootmgfw.efi"});
    hasTester_ = isFile(windows_.find({"Windows", "Boot", "EFI", "memtest.efi"}));
    addTree({"Windows", "Boot", "EFI"}, target, {});
    addFonts(target);
    addRemovable(manager);
  }

  void addBIOSFiles() {
    const Names target = {"Boot"};
    const Place manager = requireFile({"Windows", "Boot", "PCAT", "bootmgr"});
    hasTester_ = isFile(windows_.find({"Windows", "Boot", "PCAT", "memtest.exe"}));
    addTree({"Windows", "Boot", "PCAT"}, target, {"bootmgr", "bootnxt"});
    addFonts(target);
    const Place next = windows_.find({"Windows", "Boot", "PCAT", "bootnxt"});
    if (isFile(next)) addFile(next, {"BOOTNXT"});
    addFile(manager, {"bootmgr"});
  }

  void addFonts(const Names& target) {
    for (const char* name : {"Fonts", "Resources"}) {
      Names below = target;
      below.emplace_back(name);
      if (isFolder(windows_.find({"Windows", "Boot", name}))) addTree({"Windows", "Boot", name}, below, {});
    }
  }

  // The firmware starts this file if it has no entry of its own for Windows. What somebody else has put there stays.
  void addRemovable(const Place& manager) {
    const std::vector<uint8_t> bytes = windows_.read(manager.path);
    const Names target = {"EFI", "Boot", removableName(bytes)};
    const Place there = system_.find(target);
    if (there.item && !(isFile(there) && there.item->size == bytes.size() && system_.read(there.path) == bytes)) {
      plan_.kept.push_back(there.path);
      return;
    }
    addFile(manager, target);
  }

  // Adds what is in a folder but for the files `left`, which are in lower case.
  void addTree(const Names& source, const Names& target, const std::set<std::string>& left) {
    if (target.size() > kDeepestFolder) throw NoPlan(joined(source) + " has too many folders in each other");
    const Place folder = windows_.find(source);
    std::vector<Item> items = windows_.itemsIn(folder.path);
    std::sort(items.begin(), items.end(), [](const Item& one, const Item& other) { return one.name < other.name; });
    for (const Item& item : items) {
      if (left.count(lowerCase(item.name)) != 0) continue;
      Names from = source;
      Names to = target;
      from.push_back(item.name);
      to.push_back(item.name);
      switch (item.kind) {
        case Item::Kind::folder:
          addTree(from, to, {});
          break;
        case Item::Kind::file:
          addFile({folder.path + "/" + item.name, item}, to);
          break;
        case Item::Kind::other:
          throw NoPlan(windows_.name() + folder.path + "/" + item.name + " is neither a file nor a folder");
      }
    }
  }

  void addFile(const Place& source, const Names& target) {
    if (source.item->size > kLargestFile) throw NoPlan(windows_.name() + source.path + " is too large for a boot file");
    addBytes(target, source.path, windows_.read(source.path));
  }

  void addBytes(const Names& target, const std::string& source, std::vector<uint8_t> bytes) {
    sum_ += bytes.size();
    if (sum_ > kLargestSum || ++count_ > kMostFiles) throw NoPlan("the boot files are more than those of any Windows");
    addFolders({target.begin(), target.end() - 1});
    const Place there = system_.find(target);
    if (there.item && !isFile(there)) throw NoPlan(system_.name() + there.path + " is no file");
    StartFile file = {there.path, source, std::move(bytes), std::nullopt};
    if (there.item) {
      if (there.item->size > kLargestFile) throw NoPlan(system_.name() + there.path + " is too large for a boot file");
      file.before = system_.read(there.path);
    }
    if (file.before == file.bytes) {
      ++plan_.present;
    } else {
      plan_.files.push_back(std::move(file));
    }
  }

  void addFolders(const Names& names) {
    for (size_t count = 1; count <= names.size(); ++count) {
      const Place folder = system_.find({names.begin(), names.begin() + static_cast<std::ptrdiff_t>(count)});
      if (folder.item && !isFolder(folder)) throw NoPlan(system_.name() + folder.path + " is no folder");
      if (!folder.item && made_.insert(lowerCase(folder.path)).second) plan_.folders.push_back(folder.path);
    }
  }

  void addStore(const std::vector<uint8_t>& storeTemplate, const std::string& windowsFolder, bool isEFI) {
    std::vector<StoreObject> objects;
    const std::string of = "Windows/System32/config/BCD-Template: ";
    if (const auto reason = readStoreObjects(storeTemplate, objects)) throw NoPlan(of + *reason);
    WindowsStart start;
    start.firmware = request_.firmware;
    start.partitions = request_.partitions;
    start.description = request_.description;
    start.windowsFolder = windowsFolder;
    start.hasMemoryTester = hasTester_;
    std::vector<uint8_t> store;
    if (const auto reason = editStore(storeTemplate, windowsStoreEdits(objects, start), store)) {
      throw NoPlan(of + *reason);
    }
    if (const auto reason = readStoreObjects(store, plan_.objects)) throw NoPlan(of + *reason);
    const Names target = isEFI ? Names{"EFI", "Microsoft", "Boot", "BCD"} : Names{"Boot", "BCD"};
    plan_.store = system_.find(target).path;
    addBytes(target, "", std::move(store));
  }

  const StartFilesRequest& request_;
  StartFilesPlan& plan_;
  VolumeIndex windows_;
  VolumeIndex system_;
  std::set<std::string> made_;
  bool hasTester_ = false;
  uint64_t sum_ = 0;
  size_t count_ = 0;
};

}  // namespace

std::optional<std::string> planStartFiles(const StartFilesRequest& request, StartFilesPlan& plan) {
  plan = {};
  try {
    Planner(request, plan).run();
    return std::nullopt;
  } catch (const NoPlan& reason) {
    return reason.what();
  }
}

}  // namespace vorlix
