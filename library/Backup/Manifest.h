// SPDX-License-Identifier: Apache-2.0
//
// manifest.json (docs/backup.md).
#pragma once

#include <Vorlix/Backup.h>

#include <optional>
#include <string>
#include <vector>

namespace vorlix {

struct ManifestFile {
  std::string key;
  std::string file;
  uint64_t size = 0;
  std::string sha256;
};

/// What a manifest says, as far as verifying needs it.
struct Manifest {
  uint64_t volumeSize = 0;
  uint64_t savedBytes = 0;
  uint64_t ranges = 0;
  std::vector<ManifestFile> files;

  const ManifestFile* find(const std::string& file) const;
};

/// The manifest's text. @param files  those that were written; a part of the plan that is not among them is null.
std::string manifestText(const BackupPlan& plan, const std::vector<ManifestFile>& files, uint64_t ranges);

/// Reads a manifest. @return why it is damaged; empty for a sound one.
std::string readManifest(const std::vector<uint8_t>& bytes, Manifest& manifest);

}  // namespace vorlix
