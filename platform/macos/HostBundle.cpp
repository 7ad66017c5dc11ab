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

std::optional<std::string> MacHostBundle::pathForResource(const std::string& name, const std::string& type) {
  const CFBundleRef bundle = CFBundleGetMainBundle();  // not owned
  const auto nameText = stringOf(name);
  const auto typeText = stringOf(type);
  if (bundle == nullptr || !nameText || !typeText) return std::nullopt;
  // An empty type counts as none.
  const CFOwned<CFURLRef> url(CFBundleCopyResourceURL(bundle, nameText.get(), typeText.get(), nullptr));
  UInt8 path[PATH_MAX] = {};
  if (!url || !CFURLGetFileSystemRepresentation(url.get(), true, path, sizeof path)) return std::nullopt;
  return reinterpret_cast<const char*>(path);
}

}  // namespace vorlix
