// SPDX-License-Identifier: Apache-2.0
#include "StandardOutput.h"

#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/Platform.h>

std::optional<std::string> vorlix::standardOutputOf(const Task& task) {
  const auto child = platform().childProcess->create(ChildOutputs::errorUnread, ChildInput::inherited);
  child->launch(task.launchPath, task.arguments);
  const auto output = child->standardOutput();
  std::string text;
  for (Data chunk = output->read(); !chunk.empty(); chunk = output->read()) text.append(chunk.begin(), chunk.end());
  if (!isUtf8(text)) return std::nullopt;
  return text;
}
