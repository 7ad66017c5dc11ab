// SPDX-License-Identifier: Apache-2.0
#include "ImageDisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include "platform/posix/PartitionExtents.h"

namespace vorlix {
namespace {

struct OpenedImage {
  uint32_t blockSize = 0;
  Extent window;
};

// Absent with `errno` set.
std::optional<OpenedImage> openImage(const DeviceLocation& location) {
  const Descriptor descriptor(open(location.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!descriptor || fstat(descriptor.get(), &status) != 0) return std::nullopt;
  const auto size = static_cast<uint64_t>(status.st_size);
  OpenedImage image{imageBlockSize(descriptor.get()), {0, size}};
  if (location.slice == 0) return image;
  const auto window = partitionExtent(descriptor.get(), size, image.blockSize, location.slice);
  if (!window) {
    errno = ENOENT;
    return std::nullopt;
  }
  image.window = *window;
  return image;
}

class ImageDisk final : public Disk {
 public:
  ImageDisk(DeviceLocation location, std::shared_ptr<LocalAnswers> answers)
      : location_(std::move(location)), answers_(std::move(answers)) {}

  std::optional<std::string> bsdName() override {
    return location_.slice == 0 ? location_.path : location_.path + "s" + std::to_string(location_.slice);
  }

  std::optional<Dictionary> copyDescription() override {
    const std::optional<DeviceLocation> location = locateDevice(*bsdName());
    if (!location || !location->isImage) return std::nullopt;
    Dictionary description;
    description.set(kDescriptionMediaBSDName, *bsdName());
    description.set(kDescriptionMediaWhole, location->slice == 0);
    description.set(kDescriptionMediaWritable, access(location->path.c_str(), W_OK) == 0);
    description.set(kDescriptionDeviceInternal, false);
    description.set(kDescriptionVolumeMountable, false);
    if (const std::optional<OpenedImage> image = openImage(*location)) {
      description.set(kDescriptionMediaBlockSize, int64_t{image->blockSize});
      description.set(kDescriptionMediaSize, static_cast<int64_t>(image->window.size));
    }
    return description;
  }

  std::shared_ptr<Disk> wholeDisk() override { return imageDisk({location_.path, 0, true}, answers_); }

  void mount(const std::vector<std::string>&, DiskCompletion completion) override {
    answers_->add(
        std::move(completion),
        Dissenter{kDissentUnsupported, location_.path + " is a file; attach it and mount the device that it then has"});
  }

  void unmount(DiskCompletion completion) override {
    answers_->add(std::move(completion), Dissenter{kDissentNotMounted, location_.path + " is a file and not mounted"});
  }

 private:
  DeviceLocation location_;
  std::shared_ptr<LocalAnswers> answers_;
};

}  // namespace

LocalAnswers::LocalAnswers() {
  CFRunLoopSourceContext context = {};
  context.info = this;
  context.perform = perform;
  source_.reset(CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context));
}

LocalAnswers::~LocalAnswers() {
  if (source_) CFRunLoopSourceInvalidate(source_.get());
}

void LocalAnswers::add(DiskCompletion completion, std::optional<Dissenter> answer) {
  waiting_.emplace_back(std::move(completion), std::move(answer));
  if (source_) CFRunLoopSourceSignal(source_.get());
}

void LocalAnswers::schedule(CFRunLoopRef loop, CFStringRef mode) {
  if (source_) CFRunLoopAddSource(loop, source_.get(), mode);
}

void LocalAnswers::unschedule(CFRunLoopRef loop, CFStringRef mode) {
  if (source_) CFRunLoopRemoveSource(loop, source_.get(), mode);
}

// Gives one answer a call, because a run of the loop handles one source.
void LocalAnswers::perform(void* self) {
  auto& answers = *static_cast<LocalAnswers*>(self);
  if (answers.waiting_.empty()) return;
  const auto [completion, answer] = std::move(answers.waiting_.front());
  answers.waiting_.pop_front();
  if (!answers.waiting_.empty()) CFRunLoopSourceSignal(answers.source_.get());
  if (completion) completion(answer);
}

std::shared_ptr<Disk> imageDisk(const DeviceLocation& location, const std::shared_ptr<LocalAnswers>& answers) {
  // An image that cannot be read counts as having the slice.
  if (location.slice != 0 && !openImage(location) && errno == ENOENT) return nullptr;
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(location.path, error);
  return std::make_shared<ImageDisk>(DeviceLocation{error ? location.path : absolute.string(), location.slice, true},
                                     answers);
}

}  // namespace vorlix
