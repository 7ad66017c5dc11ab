// SPDX-License-Identifier: Apache-2.0
/// @file
/// Notifies observers of events.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vorlix {

/// An event, and the object that it is about, which may be null.
struct Notification {
  std::string name;                ///< what has happened, such as vorlix::kDisksChangedNotification
  std::shared_ptr<Object> object;  ///< what it has happened to
};

/// A list of observers. Any thread may use it.
///
///     const auto token = NotificationCenter::defaultCenter().addObserver("QDSDisksChanged", nullptr,
///                                                                        [](const Notification&) { ... });
///     ...
///     NotificationCenter::defaultCenter().removeObserver(token);
class VORLIX_EXPORT NotificationCenter {
 public:
  /// Called for each notification, on the thread that posts it.
  using Observer = std::function<void(const Notification&)>;

  /// Identifies one observation. It is never reused in the same centre.
  using Token = uint64_t;

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// Returns the centre of the process, which the library posts to. It exists as long as the process.
  static NotificationCenter& defaultCenter();

  /// Adds an observer of notifications with that name, or any name if it is absent, about that object, or any object if
  /// it is null. The object is compared by address and not kept alive.
  Token addObserver(std::optional<std::string> name, const Object* object, Observer observer);

  /// Removes an observer. If it is running on another thread, it finishes and is not called again. Removing an unknown
  /// token does nothing.
  void removeObserver(Token token);

  /// Calls the matching observers on the calling thread in the order in which they were added, and returns when all
  /// have returned. No lock is held meanwhile, so observers may add and remove observers and post notifications:
  /// observers that are added meanwhile are not called, and neither are those that are removed before their turn. An
  /// exception of an observer is passed on, and the observers after it are not called.
  void post(const Notification& notification);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vorlix
