// SPDX-License-Identifier: Apache-2.0
//
// Where what must outlive a process, a logout and a restart of the machine is kept: journals and mirrors.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// Makes the folder if it is missing: /var/lib/vorlix for the super-user, else $XDG_STATE_HOME/vorlix, else
/// ~/.local/state/vorlix, else, for a user without a home, /var/tmp/vorlix-<uid>. It belongs to the user, nobody else
/// can write to it or, for an ordinary user, read it, and its path holds no links.
/// @return absent with `reason` set where there is no such folder.
std::optional<std::string> makeStateFolder(std::string& reason);

/// The same folder where it is there already.
std::optional<std::string> existingStateFolder();

}  // namespace vorlix
