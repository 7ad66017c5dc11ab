// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/StartCheck.h>
#include <Vorlix/StartFiles.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Arbitration.h"
#include "DiskTables.h"
#include "VolumeLook.h"

namespace vorlix::tool {

/// Collects what checkStart() judges, by reading alone. Throws Failure if the disk cannot be read, has no partition
/// table, or does not use the entry that the user named.
/// @param partition  GPT entry of the volume; 0 to take the one that the MBR starts, or the only one that may hold
/// Windows.
StartFacts collectStartFacts(const std::string& disk, uint32_t partition, uint8_t type);

/// Returns what is known of the files from which planStartFiles() makes boot files and a store: that all are there, or
/// the first that is missing or unseen.
FileFact filesForStart(const VolumeLook& look, StartFirmware firmware);

/// A slice that was looked up already.
struct KnownSlice {
  uint32_t number = 0;
  std::string name;  ///< DISKsN
  DevicePlace place;
};

/// The same in steps, for callers that judge several volumes of a disk by one look at it: what the tables say, the EFI
/// System Partition, and one volume, whose entry is in use. Each throws Failure as collectStartFacts() does.
StartFacts startFactsOf(const DiskTables& disk, uint8_t type);
void addEFIVolume(const DiskTables& disk, const std::vector<KnownSlice>& known, StartFacts& facts);
void addStartVolume(const DiskTables& disk, DeviceHandle& whole, const KnownSlice& slice, StartFacts& facts);

}  // namespace vorlix::tool
