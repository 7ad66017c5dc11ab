// SPDX-License-Identifier: Apache-2.0
#include "FramePipeline.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "BackupFiles.h"
#include "Layout.h"

namespace vorlix {
namespace {

constexpr size_t kSlots = 8;  // 8 MiB each
constexpr unsigned kFewestWorkers = 2;
constexpr unsigned kMostWorkers = 6;

class Frames {
 public:
  Frames(uint64_t count, const FramePipeline::Step& read, const FramePipeline::Work& work,
         const FramePipeline::Step& finish)
      : count_(count), read_(read), work_(work), finish_(finish) {}

  void run() {
    prepare();
    std::vector<std::thread> threads;
    try {
      threads.emplace_back([this] { guarded([this] { finishAll(); }); });
      for (size_t i = 0; i < coders_.size(); ++i) {
        threads.emplace_back([this, i] { guarded([this, i] { workOnAll(*coders_[i], *hashes_[i]); }); });
      }
      guarded([this] { readAll(); });
    } catch (const std::system_error&) {
      stop(std::current_exception());  // a thread could not be started
    }
    for (std::thread& thread : threads) thread.join();
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  enum class State { free, read, atWork, worked };

  void prepare() {
    const unsigned workers = std::clamp(std::thread::hardware_concurrency(), kFewestWorkers, kMostWorkers);
    for (unsigned i = 0; i < workers; ++i) {
      coders_.push_back(newBackupCoder());
      hashes_.push_back(newBackupHash());
    }
    for (size_t i = 0; i < std::min<uint64_t>(kSlots, count_); ++i) {
      slots_[i].block.resize(kFrameSize);
      slots_[i].frame.resize(coders_.front()->largestFrame(kFrameSize));
    }
  }

  void stop(std::exception_ptr failure) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!failure_) failure_ = std::move(failure);
    changed_.notify_all();
  }

  template <typename Function>
  void guarded(Function function) {
    try {
      function();
    } catch (...) {
      stop(std::current_exception());
    }
  }

  // Waits until a slot has a state. False where another step has failed.
  bool wait(std::unique_lock<std::mutex>& lock, size_t slot, State state) {
    changed_.wait(lock, [&] { return failure_ || states_[slot] == state; });
    return !failure_;
  }

  void set(size_t slot, State state) {
    const std::lock_guard<std::mutex> lock(mutex_);
    states_[slot] = state;
    changed_.notify_all();
  }

  void readAll() {
    for (uint64_t index = 0; index < count_; ++index) {
      const size_t slot = index % kSlots;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!wait(lock, slot, State::free)) return;
      }
      slots_[slot].index = index;
      slots_[slot].isDone = false;
      slots_[slot].finding.clear();
      read_(slots_[slot]);
      set(slot, State::read);
    }
  }

  void workOnAll(BlockCoder& coder, BlockHash& hash) {
    for (;;) {
      size_t slot = 0;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        if (nextToWorkOn_ == count_) return;
        slot = nextToWorkOn_++ % kSlots;
        if (!wait(lock, slot, State::read)) return;
        states_[slot] = State::atWork;
      }
      if (!slots_[slot].isDone) work_(slots_[slot], coder, hash);
      set(slot, State::worked);
    }
  }

  void finishAll() {
    for (uint64_t index = 0; index < count_; ++index) {
      const size_t slot = index % kSlots;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!wait(lock, slot, State::worked)) return;
      }
      finish_(slots_[slot]);
      set(slot, State::free);
    }
  }

  const uint64_t count_;
  const FramePipeline::Step& read_;
  const FramePipeline::Work& work_;
  const FramePipeline::Step& finish_;
  std::vector<std::unique_ptr<BlockCoder>> coders_;
  std::vector<std::unique_ptr<BlockHash>> hashes_;
  std::array<FrameSlot, kSlots> slots_;
  std::array<State, kSlots> states_ = {};
  uint64_t nextToWorkOn_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::exception_ptr failure_;
};

}  // namespace

void FramePipeline::run(uint64_t count, const Step& read, const Work& work, const Step& finish) {
  Frames(count, read, work, finish).run();
}

}  // namespace vorlix
