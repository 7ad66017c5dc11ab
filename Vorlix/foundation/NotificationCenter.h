// SPDX-License-Identifier: Apache-2.0
/// @file
/// Tells those who asked for it that something happened.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vorlix {

/// What happened, and to which object. The object may be null.
struct Notification {
  std::string name;
  std::shared_ptr<Object> object;
};

/// A list of observers. Any thread may use it.
///
///     const auto token = NotificationCenter::defaultCenter().addObserver("QDSDisksChanged", nullptr,
///                                                                        [](const Notification&) { ... });
///     ...
///     NotificationCenter::defaultCenter().removeObserver(token);
class VORLIX_EXPORT NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;

  /// Names one observation. It is never used again in the same centre.
  using Token = uint64_t;

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// The process's own centre, which the library posts to. It lives as long as the process.
  static NotificationCenter& defaultCenter();

  /// Adds an observer of notifications of that name, or of any name if it is absent, about that object, or about any
  /// if it is null. The object is compared by address and not kept alive.
  Token addObserver(std::optional<std::string> name, const Object* object, Observer observer);

  /// Ends an observation. An observer that is running on another thread meanwhile finishes; it is not called again. A
  /// token that ended already is let pass.
  void removeObserver(Token token);

  /// Calls the observers whose name and object fit, in the order in which they were added, on the calling thread, and
  /// returns when all have returned. No lock is held meanwhile, so an observer may add and remove observers and post:
  /// one that was added since is left out, one that was removed before its turn is not called. What an observer throws
  /// passes through; those after it are then not called.
  void post(const Notification& notification);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vorlix
