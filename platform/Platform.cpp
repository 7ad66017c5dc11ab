// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include <optional>
#include <utility>

namespace vorlix {
namespace {

Platform& current() {
  // Never destroyed: shared objects need it until the process ends.
  static auto* const instance = new Platform(nativePlatform());
  return *instance;
}

// A host may have been written before a port was added.
void fillIn(Platform& set) {
  std::optional<Platform> native;
  const auto fill = [&](auto port) {
    if (set.*port) return;
    if (!native) native = nativePlatform();
    set.*port = (*native).*port;
  };
  fill(&Platform::deviceFile);
  fill(&Platform::diskArbitration);
  fill(&Platform::runLoops);
  fill(&Platform::ioRegistry);
  fill(&Platform::fileCopy);
  fill(&Platform::hostBundle);
  fill(&Platform::childProcess);
  fill(&Platform::codeSigning);
  fill(&Platform::systemLog);
  fill(&Platform::mountedVolumes);
  fill(&Platform::userIdentity);
  fill(&Platform::shell);
  fill(&Platform::volumeMirrors);
  fill(&Platform::deviceStreams);
  fill(&Platform::files);
  fill(&Platform::filesInPlace);
  fill(&Platform::pauses);
  fill(&Platform::systemPaths);
  fill(&Platform::userLocale);
  fill(&Platform::unpacking);
  fill(&Platform::blockCoding);
  fill(&Platform::wimApplying);
}

}  // namespace

const Platform& platform() {
  return current();
}

Platform setPlatform(Platform replacement) {
  fillIn(replacement);
  return std::exchange(current(), std::move(replacement));
}

}  // namespace vorlix
