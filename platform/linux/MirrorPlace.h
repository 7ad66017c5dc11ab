// SPDX-License-Identifier: Apache-2.0
//
// The folder of one mirror, locked (MirrorFolders.h).
#pragma once

#include <optional>
#include <string>

#include <Vorlix/platform/Descriptor.h>
#include "Dissenters.h"
#include "MirrorState.h"

namespace vorlix {

/// The folder of one volume's mirror, locked against other processes and threads as long as this object exists. Work on
/// other volumes does not wait for it.
class MirrorPlace {
 public:
  /// Waits for the lock. First repairs what an interrupted process has left: afterwards there is a state only if the
  /// mirror exists under its own name.
  static Refusal lock(const std::string& key, uint64_t identity, std::optional<MirrorPlace>& place);

  ~MirrorPlace();
  MirrorPlace(MirrorPlace&&) = default;
  MirrorPlace& operator=(MirrorPlace&&) = default;

  const std::optional<MirrorState>& state() const { return state_; }

  /// Saves and syncs a state.
  Refusal save(const MirrorState& state);

  /// Makes an empty folder for a new mirror. It is removed with this object, unless keep() succeeds.
  Refusal make(std::string& folder);

  /// Moves the new mirror to a folder called `name`, or "name-1", "name-2" and so on if that exists, and saves its
  /// state.
  Refusal keep(const std::string& name, MirrorState state);

  /// Move the mirror to a place where nobody looks for it, and back.
  Refusal setAside(std::string& folder);
  Refusal putBack();

  /// Removes the mirror and its state. From the first step on, the volume counts as not mounted.
  Refusal remove();

  std::string copyPath() const { return folder_ + "/copy"; }

 private:
  MirrorPlace(std::string folder, Descriptor lock) : folder_(std::move(folder)), lock_(std::move(lock)) {}

  Refusal recover();
  std::string inside(const char* name) const { return folder_ + "/" + name; }

  std::string folder_;
  Descriptor lock_;
  std::optional<MirrorState> state_;
};

}  // namespace vorlix
