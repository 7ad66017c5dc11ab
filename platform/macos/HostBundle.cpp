// SPDX-License-Identifier: Apache-2.0
#include "HostBundle.h"

#include <climits>

#include "CFOwned.h"
#include "CFValue.h"

namespace vorlix {

std::optional<std::string> MacHostBundle::pathForResource(const std::string& name, const std::string& type,
                                                          const std::string& directory) {
  const CFBundleRef bundle = CFBundleGetMainBundle();  // not owned
  const auto nameText = stringToCF(name);
  const auto typeText = stringToCF(type);
  const auto directoryText = stringToCF(directory);
  if (bundle == nullptr || !nameText || !typeText || !directoryText) return std::nullopt;
  // An empty type counts as none.
  const CFOwned<CFURLRef> url(CFBundleCopyResourceURL(bundle, nameText.get(), typeText.get(),
                                                      directory.empty() ? nullptr : directoryText.get()));
  UInt8 path[PATH_MAX] = {};
  if (!url || !CFURLGetFileSystemRepresentation(url.get(), true, path, sizeof path)) return std::nullopt;
  return reinterpret_cast<const char*>(path);
}

}  // namespace vorlix
