// SPDX-License-Identifier: Apache-2.0
/// @file
/// A host's resources as a test names them.
#pragma once

#include <Vorlix/platform/HostBundle.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

namespace vorlix {

/// Ships what addResource() says and nothing else.
class SimulatedHostBundle : public HostBundle {
 public:
  void addResource(const std::string& name, const std::string& type, std::string path) {
    paths_.insert_or_assign({name, type}, std::move(path));
  }

  std::optional<std::string> pathForResource(const std::string& name, const std::string& type) override {
    const auto found = paths_.find({name, type});
    return found == paths_.end() ? std::nullopt : std::optional<std::string>(found->second);
  }

 private:
  std::map<std::pair<std::string, std::string>, std::string> paths_;
};

}  // namespace vorlix
