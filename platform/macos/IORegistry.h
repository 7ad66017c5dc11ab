// SPDX-License-Identifier: Apache-2.0
//
// The I/O registry on macOS, through the C interface of I/O Kit.
//
// A disk-image file has no entry. The disk that an attached image becomes has entries.
#pragma once

#include <Vorlix/platform/IORegistry.h>

namespace vorlix {

class MacIORegistry final : public IORegistry {
 public:
  KernReturn masterPort(MasterPort& port) override;
  KernReturn createIterator(MasterPort port, const std::string& plane,
                            std::shared_ptr<RegistryIterator>& iterator) override;
  KernReturn matchingServices(MasterPort port, const RegistryMatching& matching,
                              std::shared_ptr<RegistryIterator>& iterator) override;
};

}  // namespace vorlix
