// SPDX-License-Identifier: Apache-2.0
//
// Disks and what is on them, found out by looking alone: nothing is mounted, locked or written.
#pragma once

#include <Vorlix/GPTCheck.h>
#include <Vorlix/StartCheck.h>
#include <Vorlix/foundation/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "SystemDisks.h"
#include "WindowsOnVolume.h"

namespace vorlix::tool {

/// A partition, or the volume of a disk without a table.
struct SurveyedPartition {
  uint32_t number = 0;                    ///< 0 for the volume of a whole disk
  std::string device;                     ///< as every command takes it: "/dev/sda3", "mac.imgs3"
  uint64_t size = 0;                      ///< bytes
  std::string typeCode;                   ///< type GUID, or MBR type as in "07"; empty if unknown
  std::string type;                       ///< in words; empty if unknown
  std::optional<std::string> kind;        ///< of the file system: "ntfs", "msdos", ...
  std::optional<std::string> label;       ///< of the file system
  std::optional<std::string> mountPoint;  ///< absent if it is not mounted

  /// Absent where it was not looked for, and where it could not be seen: `whyUnseen` says why then.
  std::optional<WindowsIs> windows;
  std::string whyUnseen;
  Dictionary
      version;  ///< as versionOfWindows() returns it; empty if no Windows is installed, or without a readable one

  /// What `check` finds. Absent without an installed Windows, and where it cannot be judged: `whyNotJudged`.
  std::optional<StartReport> start;
  std::string whyNotJudged;
};

struct SurveyedDisk {
  std::string name;    ///< as the user named it; of a disk of the system, as disk arbitration has it: "sda"
  std::string device;  ///< as every command takes it, whatever files there are: "/dev/sda", "mac.img"
  bool isImage = false;
  std::optional<uint64_t> size;  ///< bytes
  std::string table;             ///< "GPT", "hybrid MBR", "MBR" or "none"; empty if unknown
  std::optional<std::string> model;
  std::optional<bool> isExternal;
  std::optional<bool> isReadOnly;
  std::vector<GPTFinding> damage;  ///< of the GPT
  std::string error;               ///< why it could not be read; empty if it was
  bool isClosed = false;           ///< it could not even be opened
  std::vector<SurveyedPartition> partitions;
};

/// Looks at a disk of the system.
SurveyedDisk surveySystemDisk(const SystemDisk& disk);

/// Looks at what the user named: a disk of the system, of which `all` are known, or an image file.
SurveyedDisk surveyNamedDisk(const std::string& name, const std::vector<SystemDisk>& all);

/// Whether a name is that of a file.
bool isImageFile(const std::string& name);

}  // namespace vorlix::tool
