// SPDX-License-Identifier: Apache-2.0
//
// Mounts that only one test sees.
#pragma once

#include <sched.h>

#include <stdexcept>
#include <string>

#include "tests/contract/Volumes.h"

namespace vorlix::contract {

/// Returns why mount namespaces are unavailable here, or an empty string if they are available.
inline std::string noMountNamespace() {
  bool ok = false;
  const std::string text = runCommand("unshare --mount true 2>&1", ok);
  return ok ? "" : "no mount namespaces: " + text;
}

/// Runs `body` in a private mount namespace. Its mounts are invisible elsewhere and end with it. It does not see the
/// volumes that other tests mount at the same time.
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
