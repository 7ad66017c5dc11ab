// SPDX-License-Identifier: Apache-2.0
//
// The unpacked size of a compressed image file, measured by unpacking it into "wc -c".
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/foundation/NotificationCenter.h>
#include <Vorlix/platform/HostBundle.h>
#include <Vorlix/platform/Platform.h>
#include "library/QDSDiskFunctions/Log.h"

#include <cstdlib>
#include <string_view>

#include "Fields.h"
#include "SizeMeasurement.h"

namespace {

// How an absent object is shown in text.
constexpr const char* kAbsent = "(null)";

bool isKnown(const std::optional<std::string>& totalSize) {
  constexpr int kDecimal = 10;
  return totalSize && std::strtoll(totalSize->c_str(), nullptr, kDecimal) >= 1;
}

void logText(const std::optional<std::string>& text) {
  vorlix::logMessage("%s\n", text ? text->c_str() : kAbsent);
}

void postChange(const std::shared_ptr<QDVolume>& volume) {
  vorlix::NotificationCenter::defaultCenter().post({vorlix::kDisksChangedNotification, volume});
}

}  // namespace

namespace vorlix {

std::string_view pathExtension(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  path.remove_prefix(path.rfind('/') + 1);  // npos + 1 is 0
  const size_t dot = path.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : path.substr(dot + 1);
}

// The double quotes do not protect a path that contains one or that the shell expands. Hosts rely on the exact command.
std::string measuringCommand(std::string_view extension, const std::string& path) {
  if (extension == "gz") return "/usr/bin/gunzip -d -c  \"" + path + "\" | /usr/bin/wc -c";
  const std::string unzip = platform().hostBundle->pathForResource("unzip", "", "").value_or(kAbsent);
  return "\"" + unzip + "\" -p  \"" + path + "\" | /usr/bin/wc -c";
}

}  // namespace vorlix

void QDVolume::updateSize() {
  const auto path = filePath();
  if (!path) return;
  const std::string_view extension = vorlix::pathExtension(*path);
  if ((extension != "zip" && extension != "gz") || isKnown(totalSize())) return;

  using Runners = std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>;
  if (!wrapperArray()) setWrapperArray(std::make_shared<Runners>());

  const auto self = std::static_pointer_cast<QDVolume>(shared_from_this());
  // The end callback needs its runner, which does not exist yet when the callback is created.
  const auto runner = std::make_shared<std::weak_ptr<QDTaskWrapperWithBlocks>>();
  const auto arguments = std::make_shared<const std::vector<std::string>>(
      std::vector<std::string>{"/bin/sh", "-c", vorlix::measuringCommand(extension, *path)});
  const auto wrapper = QDTaskWrapperWithBlocks::initWithStartBlock(
      [self] {
        self->setTotalSize("-1");
        postChange(self);
      },
      [self, runner] {
        const auto runners = self->wrapperArray();
        if (runners) std::erase(*runners, runner->lock());
      },
      [self](const std::optional<std::string>& text) {
        logText(text);
        self->setTotalSize(text);
        postChange(self);
      },
      logText, arguments);
  *runner = wrapper;
  wrapperArray()->push_back(wrapper);
  wrapper->startProcess();
}
