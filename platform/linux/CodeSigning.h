// SPDX-License-Identifier: Apache-2.0
//
// Detached signatures of executables: CMS (RFC 5652) beside the executable, chained to anchors that the host installs.
#pragma once

#include <Vorlix/platform/CodeSigning.h>

#include <filesystem>

namespace vorlix {

/// What an executable's signature is called: its own name and this.
inline constexpr const char* kSignatureSuffix = ".p7s";

/// The process is pinned before anything is read, its executable is opened once through the process itself, and the
/// bytes of that file are what is verified. A process that has ended by the end of the check, runs another executable
/// by then, or whose executable is no longer the file of that name is not valid.
class LinuxCodeSigning : public CodeSigning {
 public:
  /// The anchors in the system's configuration folder.
  LinuxCodeSigning();

  /// @param anchors  folder of trusted certificates; each file in it is one or more, PEM or DER.
  explicit LinuxCodeSigning(std::filesystem::path anchors) : anchors_(std::move(anchors)) {}

  CodeCheck check(int32_t process, const std::string& requirement) override;

 private:
  std::filesystem::path anchors_;
};

}  // namespace vorlix
