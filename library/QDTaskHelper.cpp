// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDTaskHelper.h>
#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/Platform.h>
#include "library/QDSDiskFunctions/Log.h"

#include <atomic>
#include <string_view>

namespace {

// If two threads create the helper at the same time, one discards its own. The stored one stays until the process ends.
std::atomic<const std::shared_ptr<QDTaskHelper>*> shared = nullptr;

std::string everythingFrom(vorlix::ChildOutput& output) {
  std::string bytes;
  for (vorlix::Data chunk = output.read(); !chunk.empty(); chunk = output.read()) {
    bytes.append(chunk.begin(), chunk.end());
  }
  return bytes;
}

}  // namespace

std::shared_ptr<QDTaskHelper> QDTaskHelper::sharedTaskHelper() {
  const std::shared_ptr<QDTaskHelper>* stored = shared.load();
  if (stored != nullptr) return *stored;
  auto made = std::make_unique<const std::shared_ptr<QDTaskHelper>>(std::make_shared<QDTaskHelper>());
  return shared.compare_exchange_strong(stored, made.get()) ? *made.release() : *stored;
}

std::string QDTaskHelper::runCommand(const std::string& launchPath, const std::vector<std::string>& options) {
  const auto child =
      vorlix::platform().childProcess->create(vorlix::ChildOutputs::shared, vorlix::ChildInput::inherited);
  child->launch(launchPath, options);
  const std::string bytes = everythingFrom(*child->standardOutput());
  if (!vorlix::isUtf8(bytes)) return {};

  std::string result;
  result.reserve(bytes.size());
  for (std::string_view rest = bytes;;) {
    const size_t end = rest.find('\n');
    const std::string line(rest.substr(0, end));
    vorlix::logMessage("     %s\n", line.c_str());
    result += line;
    if (end == std::string_view::npos) return result;
    rest.remove_prefix(end + 1);
  }
}
