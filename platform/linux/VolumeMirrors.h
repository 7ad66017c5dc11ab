// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/VolumeMirrors.h>

namespace vorlix {

class LinuxVolumeMirrors final : public VolumeMirrors {
 public:
  std::unique_ptr<UnmountedVolume> openUnmounted(const std::string& device, std::optional<Dissenter>& refusal) override;
  std::vector<VolumeMirror> mirrors() override;
  std::optional<Dissenter> settle(const VolumeMirror& mirror) override;
  std::optional<Dissenter> discard(const VolumeMirror& mirror) override;
  std::unique_ptr<UnmountedVolume> openToRead(const std::string& device, std::optional<Dissenter>& refusal) override;
  void allowEmpty(const std::string& folder, const std::vector<std::string>& files) override;
};

}  // namespace vorlix
