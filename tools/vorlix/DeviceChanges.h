// SPDX-License-Identifier: Apache-2.0
//
// Devices as commands open them: once, to look at and, where they change something, to write through.
#pragma once

#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskChange.h>

#include <memory>
#include <string>

namespace vorlix::tool {

struct DiskTables;

/// Opens a device for reading. A change that was cut off on its disk is mentioned on standard error, since what is read
/// may be a part of it. Throws Failure. @param around  the tables of the disk that `device` is a slice of, where they
/// were read already.
std::shared_ptr<DeviceHandle> openToLook(const std::string& device, DeviceLock lock = DeviceLock::none,
                                         const DiskTables* around = nullptr);

/// Opens a device for reading and writing, locked against other processes: exclusively, or with a shared lock where the
/// running system uses the disk. First finishes what an earlier command began on the disk and did not finish, and
/// says so on standard output. Throws Failure.
std::shared_ptr<DeviceHandle> openToChange(const std::string& device, const DiskTables* around = nullptr);

/// Finishes what an earlier command began on the disk of a slice that is about to be mounted. Throws Failure.
void finishInterruptedChanges(const std::string& slice);

/// Whether openToChange() has finished an earlier change in this process: then nothing of this command's own may be on
/// the disk, and yet something was written.
bool finishedEarlierChange();

/// Makes the change. @return the folder of its backup; empty if there is none. Throws Failure, which says what was and
/// what was not written.
std::string applyOrFail(const DiskChange& change, const ChangeBackup& backup);

/// Throws the failure as the commands report it.
[[noreturn]] void fail(const ChangeFailure& failure);

}  // namespace vorlix::tool
