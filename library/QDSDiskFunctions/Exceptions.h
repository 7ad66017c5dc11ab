// SPDX-License-Identifier: Apache-2.0
//
// What the flat functions do with exceptions, which must not pass through C linkage.
#pragma once

#include <exception>

namespace vorlix {

/// Logs "<function>: <reason>" and a line feed. A function that allocates or asks a port catches what is thrown there
/// as std::exception and answers as after a failure. Not `catch (...)`: the end of a cancelled thread has to pass.
void logException(const char* function, const std::exception& error) noexcept;

}  // namespace vorlix
