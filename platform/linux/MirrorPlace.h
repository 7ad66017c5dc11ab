// SPDX-License-Identifier: Apache-2.0
//
// The folder of one mirror, locked (MirrorFolders.h).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include "Dissenters.h"
#include "MirrorState.h"

namespace vorlix {

/// The folder of one volume, locked against other processes and threads for as long as this object lives. Nobody who
/// works on another volume waits for it.
class MirrorPlace {
 public:
  /// Waits for the lock. What an earlier process left half-way is put right first: afterwards a state is there only for
  /// a mirror that is there as well, under its own name.
  static Refusal lock(const std::string& key, uint64_t identity, std::optional<MirrorPlace>& place);

  ~MirrorPlace();
  MirrorPlace(MirrorPlace&&) = default;
  MirrorPlace& operator=(MirrorPlace&&) = default;

  const std::optional<MirrorState>& state() const { return state_; }

  /// Brings a state to the medium.
  Refusal save(const MirrorState& state);

  /// An empty folder that a mirror may be made in. What is in it goes with this object unless keep() succeeds.
  Refusal make(std::string& folder);

  /// Puts what was made at `state`'s place, in a folder called `name`, or "name-1", "name-2" ... where that is taken,
  /// and saves the state with it.
  Refusal keep(const std::string& name, MirrorState state);

  /// Gives the mirror a place where nobody looks for it, or puts it back.
  Refusal setAside(std::string& folder);
  Refusal putBack();

  /// Removes mirror and state. From the first step on the volume counts as not mounted.
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
