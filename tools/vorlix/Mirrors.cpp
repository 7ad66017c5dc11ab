// SPDX-License-Identifier: Apache-2.0
#include "Mirrors.h"

#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeMirrors.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "Arbitration.h"
#include "Complaint.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr const char* kNothingDiscarded = "nothing was thrown away";

std::string nameOf(const VolumeMirror& mirror) {
  return mirror.folder.substr(mirror.folder.rfind('/') + 1);
}

std::string withoutSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::vector<VolumeMirror> mirrorsCalled(const std::string& text) {
  const std::string wanted = withoutSlash(text);
  const std::vector<VolumeMirror> all = platform().volumeMirrors->mirrors();
  const auto those = [&](auto fits) {
    std::vector<VolumeMirror> found;
    std::copy_if(all.begin(), all.end(), std::back_inserter(found), fits);
    return found;
  };
  auto found = those([&](const VolumeMirror& mirror) { return mirror.folder == wanted; });
  if (found.empty()) found = those([&](const VolumeMirror& mirror) { return nameOf(mirror) == wanted; });
  if (!found.empty()) return found;
  const std::string device = ownNameOf(wanted);
  return those([&](const VolumeMirror& mirror) { return mirror.device == device; });
}

VolumeMirror mirrorCalled(const std::string& name) {
  const std::vector<VolumeMirror> found = mirrorsCalled(name);
  if (found.empty()) throw Failure(name, "no folder stands for such a volume", kNothingDiscarded);
  if (found.size() > 1) {
    throw Failure(name, "both " + found[0].folder + " and " + found[1].folder + " are meant; name one of them",
                  kNothingDiscarded);
  }
  return found.front();
}

}  // namespace

void complainOfLeftMirrors() {
  for (const VolumeMirror& mirror : platform().volumeMirrors->mirrors()) {
    if (mirror.volume == VolumeMirror::Volume::there) continue;
    const bool isGone = mirror.volume == VolumeMirror::Volume::gone;
    const std::string count = std::to_string(mirror.changes.size());
    const std::string changes = mirror.changes.empty() ? "nothing that is not on the volume" : count + " changes";
    const std::string device = printable(mirror.device);
    complain(printable(mirror.folder) + ": left over, with " + changes + ", from " + device + ", " +
             (isGone ? "which is not there" : "where another volume is now") + "; once that volume is there again " +
             "\"vorlix unmount " + device + "\" writes it back, and \"vorlix unmount --discard '" +
             printable(mirror.folder) + "'\" throws it away");
  }
}

void discardMirror(const std::string& name) {
  // What an unmount that was cut off has begun to write comes to the volume in any case, and is not lost.
  if (const auto refusal = platform().volumeMirrors->settle(mirrorCalled(name))) {
    throw Failure(name, reasonText(*refusal), kNothingDiscarded);
  }
  const VolumeMirror mirror = mirrorCalled(name);
  for (const std::string& change : mirror.changes) std::printf("Lost       %s\n", printable(change).c_str());
  if (mirror.changes.empty()) std::printf("Lost       nothing, all of it is on the volume\n");
  std::fflush(stdout);
  if (const auto refusal = platform().volumeMirrors->discard(mirror)) {
    throw Failure(mirror.folder, reasonText(*refusal), kNothingDiscarded);
  }
  std::printf("Discarded  %s\n", printable(mirror.folder).c_str());
}

}  // namespace vorlix::tool
