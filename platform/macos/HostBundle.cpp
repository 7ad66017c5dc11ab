// SPDX-License-Identifier: Apache-2.0
#include "HostBundle.h"

#include <climits>

#include "CFOwned.h"

namespace vorlix {
namespace {

// Empty where the bytes are not UTF-8.
CFOwned<CFStringRef> stringOf(const std::string& text) {
  return CFOwned<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                                      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

}  // namespace

std::optional<std::string> MacHostBundle::pathForResource(const std::string& name, const std::string& type,
                                                          const std::string& directory) {
  const CFBundleRef bundle = CFBundleGetMainBundle();  // not owned
  const auto nameText = stringOf(name);
  const auto typeText = stringOf(type);
  const auto directoryText = stringOf(directory);
  if (bundle == nullptr || !nameText || !typeText || !directoryText) return std::nullopt;
  // An empty type counts as none.
  const CFOwned<CFURLRef> url(CFBundleCopyResourceURL(bundle, nameText.get(), typeText.get(),
                                                      directory.empty() ? nullptr : directoryText.get()));
  UInt8 path[PATH_MAX] = {};
  if (!url || !CFURLGetFileSystemRepresentation(url.get(), true, path, sizeof path)) return std::nullopt;
  return reinterpret_cast<const char*>(path);
}

}  // namespace vorlix
