// SPDX-License-Identifier: Apache-2.0
//
// manifest.json of a journal.
#pragma once

#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/KeptChange.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A run of bytes in a journal.
struct JournalRun {
  size_t device = 0;    ///< index into the journal's devices
  uint64_t offset = 0;  ///< bytes from the start of that device
  uint64_t length = 0;  ///< bytes, at most kLongestRun
  uint64_t place = 0;   ///< where its bytes are in both of the journal's files
  std::string reason;
  std::string before;  ///< SHA-256, hexadecimal
  std::string after;   ///< likewise
};

struct JournalDevice {
  std::string name;
  DeviceIdentity identity;
};

/// A file or folder of a mounted volume in a journal. Of the new content there is only the hash.
struct JournalFile {
  FileChange change;    ///< without the content
  uint64_t length = 0;  ///< of the old content, bytes
  uint64_t place = 0;   ///< where it is in the file of old bytes
  std::string before;   ///< its SHA-256; empty if there was no file
};

/// Content that is written from a source and is not in the journal itself.
struct JournalContent {
  std::string source;
  std::string start;    ///< SHA-256 of the first bytes of the volume, hexadecimal
  size_t device = 0;    ///< index into the journal's devices
  uint32_t image = 0;   ///< of a WIM; 0 for other sources
  std::string between;  ///< a word of the program's; usually empty
  std::string backup;   ///< absolute path of the folder with a copy of the journal; empty for none
};

struct JournalManifest {
  std::string title;
  std::string begun;    ///< "2026-11-22T01:02:03Z"
  bool isKept = false;  ///< the journal becomes a backup in the state folder
  std::string partOf;   ///< name of another journal; empty for a change by itself
  std::vector<JournalDevice> devices;
  std::vector<JournalRun> runs;
  std::vector<JournalFile> files;
  std::optional<JournalContent> content;
};

std::string textOfManifest(const JournalManifest& manifest);

/// Reads a manifest. Absent if it is damaged or of another format. `longestRun` limits runs.
std::optional<JournalManifest> parseManifest(const std::string& text, uint64_t longestRun);

}  // namespace vorlix
