// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Restore.h>
#include <Vorlix/platform/KeptChange.h>
#include <Vorlix/platform/LongChange.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Backup.h"
#include "Commands.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Files.h"
#include "Json.h"
#include "LibraryLog.h"
#include "Text.h"
#include "UndoPlan.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

struct UndoOptions {
  std::string journal;
  std::string on;
  bool list = false;
  bool json = false;
  bool dryRun = false;
};

bool isJournalOfRestore(const std::string& folder) {
  const std::vector<std::string> all = interruptedLongChanges();
  return std::find(all.begin(), all.end(), folder) != all.end();
}

// Finds a backup by the path of its folder, or in the state folder by the beginning of its name. An interrupted restore
// counts as well.
std::string folderOfBackup(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    const fs::path path(name);
    const fs::path folder = path.has_filename() ? path : path.parent_path();
    std::error_code error;
    if (fs::exists(folder / "manifest.json", error)) return folder.string();
    throw Failure(name, error ? error.message() : "no backup: there is no manifest.json in it");
  }
  std::vector<std::string> found;
  for (const std::string& folder : keptChanges()) {
    if (fs::path(folder).filename().string().starts_with(name)) found.push_back(folder);
  }
  for (const std::string& folder : interruptedLongChanges()) {
    if (fs::path(folder).filename().string().starts_with(name)) found.push_back(folder);
  }
  if (found.empty()) throw Failure(name, "no backup of that name; `vorlix undo --list` shows all");
  if (found.size() > 1) throw Failure(name, "several backups begin with that name; `vorlix undo --list` shows all");
  return found.front();
}

KeptChange readBackup(const std::string& folder) {
  KeptChange kept;
  if (const auto failure = readKeptChange(folder, kept)) fail(*failure);
  return kept;
}

// The parts of a change, the last one first.
std::vector<KeptChange> readParts(const std::string& folder) {
  std::vector<KeptChange> parts;
  std::vector<std::string> folders;
  if (const auto failure = partsOfChange(folder, folders)) fail(*failure);
  for (const std::string& part : folders) parts.push_back(readBackup(part));
  std::reverse(parts.begin(), parts.end());
  return parts;
}

std::vector<KeptChange> readWithParts(const std::string& folder) {
  std::vector<KeptChange> changes = readParts(folder);
  changes.insert(changes.begin(), readBackup(folder));
  return changes;
}

struct StateNames {
  const char* code;
  const char* text;
};

constexpr StateNames kInterrupted = {"interrupted", "interrupted; restore --resume goes on"};

StateNames namesOfState(UndoState state) {
  switch (state) {
    case UndoState::undoable:
      return {"undoable", "can be undone"};
    case UndoState::undone:
      return {"undone", "undone"};
    case UndoState::changed:
      return {"changed", "changed since"};
    case UndoState::unreachable:
      return {"unreachable", "not attached or not mounted"};
  }
  return {"unknown", "unknown"};
}

// An interrupted restore that no process works with.
bool isIdleRestore(const std::string& folder) {
  std::optional<ChangeFailure> failure;
  return openLongChange(folder, failure) != nullptr;
}

void printList(bool json) {
  Json changes = Json::array();
  std::vector<std::vector<std::string>> rows = {{"BACKUP", "CHANGE", "STATE"}};
  const auto add = [&](const std::string& folder, bool isInterrupted) {
    const std::string name = fs::path(folder).filename().string();
    KeptChange kept;
    if (const auto failure = readKeptChange(folder, kept)) {
      complain(failure->subject + ": " + failure->reason);
      return;
    }
    const StateNames state = isInterrupted ? kInterrupted : namesOfState(stateOf(kept));
    rows.push_back(
        {name, printable(kept.title) + (kept.partOf.empty() ? "" : ", part of " + printable(kept.partOf)), state.text});
    changes.append(Json::object({{"name", name},
                                 {"folder", folder},
                                 {"title", kept.title},
                                 {"begun", kept.begun},
                                 {"partOf", knownText(kept.partOf)},
                                 {"state", state.code}}));
  };
  for (const std::string& folder : keptChanges()) add(folder, false);
  for (const std::string& folder : interruptedLongChanges()) {
    if (isIdleRestore(folder)) add(folder, true);
  }
  if (json) {
    Json::object({{"version", kJsonVersion}, {"changes", std::move(changes)}}).print();
  } else if (rows.size() == 1) {
    std::printf("There are no backups.\n");
  } else {
    std::printf("%s", tableText(rows, "lll").c_str());
  }
}

void printDryRunJson(const std::string& title, const std::string& lost, const DiskChange& change,
                     const std::vector<FileUndo::Step>& steps) {
  Json bytes = Json::array();
  for (const DeviceChange& device : change.devices) {
    for (const ByteChange& run : device.bytes) {
      bytes.append(Json::object({{"device", device.device},
                                 {"reason", run.reason},
                                 {"offset", run.offset},
                                 {"rows", differenceJson(run.before, run.after, run.offset)}}));
    }
  }
  Json files = Json::array();
  for (const FileUndo::Step& step : steps) {
    files.append(Json::object({{"path", step.path}, {"action", step.file->before ? "restore" : "remove"}}));
  }
  Json::object({{"version", kJsonVersion},
                {"title", title},
                {"changeNeeded", !change.empty() || !steps.empty()},
                {"lost", knownText(lost)},
                {"changes", std::move(bytes)},
                {"files", std::move(files)}})
      .print();
}

void printFilesOfDryRun(const WholeUndo& undo) {
  for (const FileUndo::Step& step : undo.steps()) {
    std::printf("%s would be %s\n", printable(step.path).c_str(), step.file->before ? "restored" : "removed");
  }
}

void printDryRun(const WholeUndo& undo) {
  std::printf("Dry run: no disk is opened for writing.\n");
  for (const DeviceChange& device : undo.bytes().devices) {
    for (const ByteChange& run : device.bytes) {
      std::printf("\n%s, %s, at byte %llu:\n%s", printable(device.device).c_str(), printable(run.reason).c_str(),
                  static_cast<unsigned long long>(run.offset),
                  differenceText(run.before, run.after, run.offset).c_str());
    }
  }
  printFilesOfDryRun(undo);
}

void printFiles(const WholeUndo& undo, const WholeUndo::Done& done) {
  const std::vector<FileUndo::Step> steps = undo.steps();
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
    std::printf("%s   %s\n", step->file->before ? "Restored" : "Removed ", printable(step->path).c_str());
  }
  for (const std::string& path : done.left) {
    std::printf("Left       %s, which has other files\n", printable(path).c_str());
  }
}

// Says once what was restored on each device.
void printBytes(const DiskChange& change) {
  std::string previous;
  for (const DeviceChange& device : change.devices) {
    for (const ByteChange& run : device.bytes) {
      const std::string line = printable(device.device + ": " + run.reason);
      if (line != previous) std::printf("Restored   %s\n", line.c_str());
      previous = line;
    }
  }
}

void printLost(const std::string& device) {
  if (!device.empty()) std::printf("Lost       what the restore overwrote on %s\n", printable(device).c_str());
}

// Gives an interrupted restore up.
void abandon(const UndoOptions& options, const std::string& folder) {
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(folder, failure);
  if (failure) fail(*failure);
  const DiskChange structures = journal->structures();
  const std::string volume = structures.devices[journal->origin().device].device;
  const bool isContentLost = !journal->pieces().empty();
  WholeUndo parts(readParts(folder), "", !options.dryRun);
  if (options.dryRun && options.json) {
    printDryRunJson(structures.title, isContentLost ? volume : "", structures, parts.steps());
    return;
  }
  if (options.dryRun) {
    std::printf("Dry run: %s would be given up, and its boot sectors and sector 0 restored.\n",
                printable(structures.title).c_str());
    printFilesOfDryRun(parts);
    printLost(volume);
    return;
  }
  const WholeUndo::Done done = parts.run({});
  printFiles(parts, done);
  std::fflush(stdout);
  std::vector<std::shared_ptr<DeviceHandle>> handles;
  for (const DeviceChange& device : structures.devices) handles.push_back(openToChange(device.device));
  if ((failure = abandonRestore(std::move(journal), handles))) {
    // If something else was put on the disk on purpose, nothing but the journal is in the way.
    if (failure->state == kNothingWritten || failure->state == kPutBack) {
      if (!parts.steps().empty()) failure->state = "only the files are restored";
      failure->state += "; removing " + folder + " forgets the restore";
    }
    fail(*failure);
  }
  parts.forget();
  for (const DeviceChange& device : structures.devices) {
    for (const ByteChange& run : device.bytes) {
      std::printf("Restored   %s: %s\n", printable(device.device).c_str(), printable(run.reason).c_str());
    }
  }
  if (isContentLost) printLost(volume);
}

// @return whether there was, or in a dry run would be, anything to undo.
bool undo(const UndoOptions& options, const BackupChoice& choice) {
  const LibraryLog log;  // look-ups write to it
  const std::string folder = folderOfBackup(options.journal);
  if (isJournalOfRestore(folder)) {
    abandon(options, folder);
    return true;
  }
  std::vector<KeptChange> changes = readWithParts(folder);
  const std::string title = changes.front().title;
  const std::string lost = changes.front().lost;
  WholeUndo undo(std::move(changes), options.on, !options.dryRun);
  const bool isNeeded = undo.isNeeded();
  if (options.dryRun && options.json) {
    printDryRunJson(title, lost, undo.bytes(), undo.steps());
  } else if (!isNeeded) {
    // An undo that was killed may have left a mirror that is to be written back.
    if (!options.dryRun) undo.run(changeBackup(choice));
    std::printf("Nothing to undo: the old content of %s is there\n", printable(title).c_str());
  } else if (options.dryRun) {
    printDryRun(undo);
  } else {
    const WholeUndo::Done done = undo.run(changeBackup(choice));
    printFiles(undo, done);
    printBytes(undo.bytes());
    printLost(lost);
    printUndo(done.redo);
  }
  if (!options.dryRun) undo.forget();
  return isNeeded;
}

}  // namespace

void addUndoCommand(Command& top, int& status) {
  const auto options = std::make_shared<UndoOptions>();
  Command command = top.addCommand(
      "undo", "Put back what restore, hybrid, bcd, vbr restore or legacy-boot replaced, from the backup");
  Option journal =
      command
          .addOption("BACKUP", options->journal, "Name of a backup, or the beginning of it, or the path of its folder")
          .completes(ValueKind::backup);
  command
      .addOption("--on", options->on,
                 "The whole disk, or for files the volume, that was changed (default: the name that it had then)")
      .completes(ValueKind::volume);
  command.addFlag("--dry-run", options->dryRun, "Show what would be restored; open no disk for writing");
  const Option list =
      command.addFlag("--list", options->list, "List the backups in the user's state folder, and interrupted restores");
  command.addFlag("--json", options->json, "With --list or --dry-run: print JSON");
  journal.excludes(list);
  const auto backup = addBackupOptions(command);
  command.setExamples({"vorlix undo --list", "vorlix undo 2026 --dry-run"});
  command.setAction([options, backup, &status] {
    if (options->json && !options->list && !options->dryRun) refuseWithout("--list or --dry-run");
    if (options->list) {
      const LibraryLog log;
      printList(options->json);
      status = kDone;
      return;
    }
    if (options->journal.empty()) refuseWithout("BACKUP");
    const bool isNeeded = undo(*options, *backup);
    status = options->dryRun && isNeeded ? kChangeNeeded : kDone;
  });
}

}  // namespace vorlix::tool
