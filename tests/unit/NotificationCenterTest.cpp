// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/NotificationCenter.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using vorlix::Notification;
using vorlix::NotificationCenter;

struct Thing : vorlix::Object {};

class NotificationCenterTest : public testing::Test {
 protected:
  NotificationCenter::Observer note(const std::string& who) {
    return [this, who](const Notification& notification) { seen.push_back(who + ":" + notification.name); };
  }

  NotificationCenter centre;
  std::vector<std::string> seen;
  std::shared_ptr<Thing> one = std::make_shared<Thing>();
  std::shared_ptr<Thing> other = std::make_shared<Thing>();
};

TEST_F(NotificationCenterTest, ObserversAreCalledInTheOrderInWhichTheyWereAdded) {
  centre.addObserver("Changed", nullptr, note("a"));
  centre.addObserver("Changed", nullptr, note("b"));
  centre.addObserver("Changed", nullptr, note("c"));
  centre.post({"Changed", one});
  EXPECT_EQ(seen, (std::vector<std::string>{"a:Changed", "b:Changed", "c:Changed"}));
}

TEST_F(NotificationCenterTest, AnObserverGetsTheNameAndTheObject) {
  Notification got;
  centre.addObserver("Changed", nullptr, [&](const Notification& notification) { got = notification; });
  centre.post({"Changed", one});
  EXPECT_EQ(got.name, "Changed");
  EXPECT_EQ(got.object, one);
}

TEST_F(NotificationCenterTest, PostingReturnsAfterTheObserversOnTheSameThread) {
  std::thread::id thread;
  centre.addObserver("Changed", nullptr, [&](const Notification&) { thread = std::this_thread::get_id(); });
  centre.post({"Changed", one});
  EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(NotificationCenterTest, NotificationsOfAnotherNameAreNotDelivered) {
  centre.addObserver("Changed", nullptr, note("a"));
  centre.post({"Gone", one});
  EXPECT_TRUE(seen.empty());
}

TEST_F(NotificationCenterTest, AnAbsentNameObservesAllNotifications) {
  centre.addObserver(std::nullopt, nullptr, note("a"));
  centre.post({"Changed", one});
  centre.post({"Gone", nullptr});
  EXPECT_EQ(seen, (std::vector<std::string>{"a:Changed", "a:Gone"}));
}

TEST_F(NotificationCenterTest, AnObserverOfOneObjectIgnoresAnother) {
  centre.addObserver("Changed", one.get(), note("a"));
  centre.post({"Changed", other});
  centre.post({"Changed", nullptr});
  EXPECT_TRUE(seen.empty());
  centre.post({"Changed", one});
  EXPECT_EQ(seen.size(), 1U);
}

TEST_F(NotificationCenterTest, ARemovedObserverIsNotCalled) {
  const auto token = centre.addObserver("Changed", nullptr, note("a"));
  centre.addObserver("Changed", nullptr, note("b"));
  centre.removeObserver(token);
  centre.removeObserver(token);
  centre.post({"Changed", one});
  EXPECT_EQ(seen, (std::vector<std::string>{"b:Changed"}));
}

TEST_F(NotificationCenterTest, AnObserverRemovedDuringPostingIsNotCalled) {
  NotificationCenter::Token second = 0;
  centre.addObserver("Changed", nullptr, [&](const Notification&) { centre.removeObserver(second); });
  second = centre.addObserver("Changed", nullptr, note("b"));
  centre.post({"Changed", one});
  EXPECT_TRUE(seen.empty());
}

TEST_F(NotificationCenterTest, AnObserverMayRemoveItself) {
  NotificationCenter::Token own = 0;
  const auto kept = std::make_shared<int>(7);
  own = centre.addObserver("Changed", nullptr, [this, &own, kept](const Notification&) {
    centre.removeObserver(own);
    seen.push_back(std::to_string(*kept));  // still valid after the removal
  });
  centre.post({"Changed", one});
  centre.post({"Changed", one});
  EXPECT_EQ(seen, (std::vector<std::string>{"7"}));
  EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(NotificationCenterTest, AnObserverAddedDuringPostingIsCalledFromTheNextPostOn) {
  centre.addObserver("Changed", nullptr,
                     [&](const Notification&) { centre.addObserver("Changed", nullptr, note("b")); });
  centre.post({"Changed", one});
  EXPECT_TRUE(seen.empty());
  centre.post({"Changed", one});
  EXPECT_EQ(seen.size(), 1U);
}

TEST_F(NotificationCenterTest, AnObserverMayPost) {
  centre.addObserver("Changed", nullptr, [&](const Notification&) { centre.post({"Gone", one}); });
  centre.addObserver("Gone", nullptr, note("b"));
  centre.post({"Changed", one});
  EXPECT_EQ(seen, (std::vector<std::string>{"b:Gone"}));
}

TEST_F(NotificationCenterTest, AnObserversExceptionPropagates) {
  centre.addObserver("Changed", nullptr, [](const Notification&) { throw std::runtime_error("no"); });
  centre.addObserver("Changed", nullptr, note("b"));
  EXPECT_THROW(centre.post({"Changed", one}), std::runtime_error);
  EXPECT_TRUE(seen.empty());
}

TEST_F(NotificationCenterTest, TheObjectIsNotKeptAlive) {
  centre.addObserver("Changed", one.get(), note("a"));
  EXPECT_EQ(one.use_count(), 1);
}

TEST_F(NotificationCenterTest, ThereIsOneDefaultCentre) {
  EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}

TEST_F(NotificationCenterTest, ThreadsMayPostAddAndRemoveAtOnce) {
  std::atomic<int> calls = 0;
  centre.addObserver("Changed", nullptr, [&](const Notification&) { ++calls; });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 200; ++j) {
        const auto token = centre.addObserver("Gone", nullptr, [](const Notification&) {});
        centre.post({"Changed", nullptr});
        centre.removeObserver(token);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(calls, 800);
}

}  // namespace
