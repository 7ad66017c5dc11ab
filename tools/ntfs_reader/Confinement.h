// SPDX-License-Identifier: Apache-2.0
//
// Anybody may have written the volume, and its parser is written in C. This process can do nothing but read the device,
// answer and end.
#pragma once

namespace vorlix::ntfs {

/// Confines this process for the rest of its life: 30 seconds of processor time, 1 GiB of address space, no core file,
/// for the super-user the rights of nobody, and only the system calls that reading and answering take. A build with
/// sanitizers limits neither the address space nor the calls.
void confine();

}  // namespace vorlix::ntfs
