// SPDX-License-Identifier: Apache-2.0
/// @file
/// Resources of a host, chosen by a test.
#pragma once

#include <Vorlix/platform/HostBundle.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace vorlix {

/// Has the resources that addResource() added and no others.
class SimulatedHostBundle : public HostBundle {
 public:
  /// Adds a resource at `path`; the host has no others.
  void addResource(const std::string& name, const std::string& type, std::string path,
                   const std::string& directory = "") {
    paths_.insert_or_assign({name, type, directory}, std::move(path));
  }

  std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                             const std::string& directory) override {
    const auto found = paths_.find({name, type, directory});
    return found == paths_.end() ? std::nullopt : std::optional<std::string>(found->second);
  }

 private:
  std::map<std::tuple<std::string, std::string, std::string>, std::string> paths_;
};

}  // namespace vorlix
