// SPDX-License-Identifier: Apache-2.0
//
// Mounts that belong to one test alone.
#pragma once

#include <sched.h>

#include <stdexcept>
#include <string>

#include "tests/contract/Volumes.h"

namespace vorlix::contract {

/// Why there can be none here; empty when there can.
inline std::string noMountNamespace() {
  bool ok = false;
  const std::string text = runCommand("unshare --mount true 2>&1", ok);
  return ok ? "" : "no mount namespaces: " + text;
}

/// Runs `body` where mounts are seen by nobody else and go with its end, and the volumes that other tests mount at the
/// same time are not seen either.
template <typename Body>
void inOwnNamespace(Body body) {
  inAnotherProcess([&] {
    if (unshare(CLONE_NEWNS) != 0) throw std::runtime_error("unshare");
    shell("mount --make-rprivate /");
    shell("mkdir --parents /run/vorlix && mount -t tmpfs -o mode=755 none /run/vorlix");
    body();
  });
}

}  // namespace vorlix::contract
