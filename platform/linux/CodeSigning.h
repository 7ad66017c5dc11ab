// SPDX-License-Identifier: Apache-2.0
//
// Detached signatures of executables: CMS (RFC 5652) in a file beside the executable, with a certificate chain to
// anchors that the host installs.
#pragma once

#include <Vorlix/platform/CodeSigning.h>

#include <filesystem>

namespace vorlix {

/// The name of a signature is the name of its executable with this suffix.
inline constexpr const char* kSignatureSuffix = ".p7s";

/// The process is pinned before anything is read. Its executable is opened once, through the process, and the bytes of
/// that file are verified. A process is not valid if, by the end of the check, it has ended, runs another executable,
/// or its executable is no longer the file with that name.
class LinuxCodeSigning : public CodeSigning {
 public:
  /// Uses the anchors in the system's configuration folder.
  LinuxCodeSigning();

  /// @param anchors  folder of trusted certificates; each file has one or more, PEM or DER.
  explicit LinuxCodeSigning(std::filesystem::path anchors) : anchors_(std::move(anchors)) {}

  CodeCheck check(int32_t process, const std::string& requirement) override;

 private:
  std::filesystem::path anchors_;
};

}  // namespace vorlix
