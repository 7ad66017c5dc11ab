// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/NotificationCenter.h>

#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace vorlix {
namespace {

struct Observation {
  std::optional<std::string> name;
  const Object* object = nullptr;
  std::shared_ptr<const NotificationCenter::Observer> observer;

  bool fits(const Notification& notification) const {
    return (!name || *name == notification.name) && (object == nullptr || object == notification.object.get());
  }
};

}  // namespace

struct NotificationCenter::State {
  std::mutex lock;
  Token last = 0;
  std::map<Token, Observation> observations;  // tokens increase, so the map is in the order of addition
};

NotificationCenter::NotificationCenter() : state_(std::make_unique<State>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: other static objects may still post while the process ends.
  static auto* const centre = new NotificationCenter;
  return *centre;
}

NotificationCenter::Token NotificationCenter::addObserver(std::optional<std::string> name, const Object* object,
                                                          Observer observer) {
  auto kept = std::make_shared<const Observer>(std::move(observer));
  const std::lock_guard guard(state_->lock);
  const Token token = ++state_->last;
  state_->observations.emplace(token, Observation{std::move(name), object, std::move(kept)});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  Observation ended;  // declared before the lock, so the observer is destroyed after the lock is released
  const std::lock_guard guard(state_->lock);
  const auto found = state_->observations.find(token);
  if (found == state_->observations.end()) return;
  ended = std::move(found->second);
  state_->observations.erase(found);
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<Token> tokens;
  {
    const std::lock_guard guard(state_->lock);
    for (const auto& [token, observation] : state_->observations) {
      if (observation.fits(notification)) tokens.push_back(token);
    }
  }
  // An observer may remove another one, so look up each token again. The lock is not held while an observer runs.
  for (const Token token : tokens) {
    std::shared_ptr<const Observer> observer;
    {
      const std::lock_guard guard(state_->lock);
      const auto found = state_->observations.find(token);
      if (found != state_->observations.end()) observer = found->second.observer;
    }
    if (observer) (*observer)(notification);
  }
}

}  // namespace vorlix
