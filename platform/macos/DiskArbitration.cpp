// SPDX-License-Identifier: Apache-2.0
#include "DiskArbitration.h"

#include <DiskArbitration/DiskArbitration.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "CFOwned.h"
#include "CFValue.h"
#include "DeviceNames.h"
#include "ImageDisk.h"
#include "RunLoop.h"

namespace vorlix {
namespace {

std::optional<Dissenter> dissenterFrom(DADissenterRef native) {
  if (native == nullptr) return std::nullopt;
  return Dissenter{DADissenterGetStatus(native), textFromCF(DADissenterGetStatusString(native)).value_or("")};
}

/// The part of a session that its disks share and keep alive.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(CFOwned<DASessionRef> session, const std::shared_ptr<LocalAnswers>& answers)
      : session_(std::move(session)), answers_(answers) {}

  DASessionRef session() const { return session_.get(); }

  /// Makes a request: `ask(callback, context)`. If the request cannot be queued, the framework answers before the call
  /// returns; that answer, too, is passed on by the session's run loop.
  template <typename Ask>
  void request(DiskCompletion completion, Ask ask) {
    if (!completion) {
      ask(nullptr, nullptr);
      return;
    }
    waiting_.push_back(std::make_unique<Waiting>(Waiting{weak_from_this(), std::move(completion)}));
    isAsking_ = true;
    ask(answer, waiting_.back().get());
    isAsking_ = false;
  }

 private:
  struct Waiting {
    std::weak_ptr<Connection> connection;
    DiskCompletion completion;
  };

  /// The callback of every request. The completion may destroy the session.
  static void answer(DADiskRef, DADissenterRef dissenter, void* context) {
    const auto* const waiting = static_cast<const Waiting*>(context);
    const std::shared_ptr<Connection> self = waiting->connection.lock();
    if (!self) return;
    auto& all = self->waiting_;
    const auto found = std::find_if(all.begin(), all.end(), [&](const auto& entry) { return entry.get() == waiting; });
    if (found == all.end()) return;
    const std::unique_ptr<Waiting> own = std::move(*found);
    all.erase(found);
    if (!self->isAsking_) {
      own->completion(dissenterFrom(dissenter));
    } else if (const auto answers = self->answers_.lock()) {
      answers->add(std::move(own->completion), dissenterFrom(dissenter));
    }
  }

  CFOwned<DASessionRef> session_;
  std::weak_ptr<LocalAnswers> answers_;  // gone with the session
  bool isAsking_ = false;
  std::vector<std::unique_ptr<Waiting>> waiting_;
};

class ArbitratedDisk final : public Disk {
 public:
  ArbitratedDisk(CFOwned<DADiskRef> disk, std::shared_ptr<Connection> connection)
      : connection_(std::move(connection)), disk_(std::move(disk)) {}

  std::optional<std::string> bsdName() override {
    const char* const name = DADiskGetBSDName(disk_.get());
    if (name == nullptr) return std::nullopt;
    return std::string(name);
  }

  std::optional<Dictionary> copyDescription() override {
    const CFOwned<CFDictionaryRef> native(DADiskCopyDescription(disk_.get()));
    if (!native) return std::nullopt;
    return dictionaryFromCF(native.get());
  }

  std::shared_ptr<Disk> wholeDisk() override {
    CFOwned<DADiskRef> whole(DADiskCopyWholeDisk(disk_.get()));
    if (!whole) {
      errno = ENOENT;  // the framework does not tell more
      return nullptr;
    }
    return std::make_shared<ArbitratedDisk>(std::move(whole), connection_);
  }

  void mount(const std::vector<std::string>& arguments, DiskCompletion completion) override {
    std::vector<CFOwned<CFStringRef>> owned;
    std::vector<CFStringRef> list;
    for (const std::string& argument : arguments) {
      owned.push_back(stringToCF(argument));
      if (owned.back()) list.push_back(owned.back().get());
    }
    list.push_back(nullptr);
    connection_->request(std::move(completion), [&](DADiskMountCallback callback, void* context) {
      DADiskMountWithArguments(disk_.get(), nullptr, kDADiskMountOptionDefault, callback, context, list.data());
    });
  }

  void unmount(DiskCompletion completion) override {
    connection_->request(std::move(completion), [&](DADiskUnmountCallback callback, void* context) {
      DADiskUnmount(disk_.get(), kDADiskUnmountOptionDefault, callback, context);
    });
  }

 private:
  std::shared_ptr<Connection> connection_;
  CFOwned<DADiskRef> disk_;
};

class MacSession final : public DiskArbitrationSession {
 public:
  explicit MacSession(CFOwned<DASessionRef> session)
      : connection_(std::make_shared<Connection>(std::move(session), answers_)) {}
  ~MacSession() override {
    for (const Place& place : places_) leave(place.loop.get(), place.mode.get());
  }
  MacSession(const MacSession&) = delete;
  MacSession& operator=(const MacSession&) = delete;

  std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override {
    const std::optional<DeviceLocation> location = locateDevice(name);
    if (location && location->isImage) return imageDisk(*location, answers_);
    const std::optional<std::string> bare = arbitrationName(name);
    if (!bare) return nullptr;
    return known(DADiskCreateFromBSDName(kCFAllocatorDefault, connection_->session(), bare->c_str()));
  }

  std::shared_ptr<Disk> diskFromVolumePath(const URL& path) override {
    const CFOwned<CFTypeRef> native = valueToCF(path);
    if (!native) return nullptr;
    return known(
        DADiskCreateFromVolumePath(kCFAllocatorDefault, connection_->session(), static_cast<CFURLRef>(native.get())));
  }

  void schedule(RunLoop& loop, const std::string& mode) override {
    CFOwned<CFStringRef> name = stringToCF(mode);
    if (!name) return;
    CFRunLoopRef const native = static_cast<MacRunLoop&>(loop).native();
    DASessionScheduleWithRunLoop(connection_->session(), native, name.get());
    answers_->schedule(native, name.get());
    CFRetain(native);
    places_.push_back({CFOwned<CFRunLoopRef>(native), std::move(name)});
  }

  void unschedule(RunLoop& loop, const std::string& mode) override {
    const CFOwned<CFStringRef> name = stringToCF(mode);
    CFRunLoopRef const native = static_cast<MacRunLoop&>(loop).native();
    const auto found = std::find_if(places_.begin(), places_.end(), [&](const Place& place) {
      return name && place.loop.get() == native && CFEqual(place.mode.get(), name.get());
    });
    if (found == places_.end()) return;
    leave(native, name.get());
    places_.erase(found);
  }

 private:
  struct Place {
    CFOwned<CFRunLoopRef> loop;
    CFOwned<CFStringRef> mode;
  };

  // The framework makes an object of any name. A disk exists if it has a description.
  std::shared_ptr<Disk> known(DADiskRef created) const {
    CFOwned<DADiskRef> disk(created);
    if (!disk) return nullptr;
    const CFOwned<CFDictionaryRef> description(DADiskCopyDescription(disk.get()));
    if (!description) return nullptr;
    return std::make_shared<ArbitratedDisk>(std::move(disk), connection_);
  }

  void leave(CFRunLoopRef loop, CFStringRef mode) const {
    DASessionUnscheduleFromRunLoop(connection_->session(), loop, mode);
    answers_->unschedule(loop, mode);
  }

  std::shared_ptr<LocalAnswers> answers_ = std::make_shared<LocalAnswers>();
  std::shared_ptr<Connection> connection_;
  std::vector<Place> places_;
};

}  // namespace

std::shared_ptr<DiskArbitrationSession> MacDiskArbitration::createSession() {
  CFOwned<DASessionRef> session(DASessionCreate(kCFAllocatorDefault));
  if (!session) return nullptr;
  return std::make_shared<MacSession>(std::move(session));
}

}  // namespace vorlix
