// SPDX-License-Identifier: Apache-2.0
#include "LibraryLog.h"

#include <cstdio>

#include "Complaint.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

LogCapture::File chooseFile() {
  if (canOpenLog()) return LogCapture::File::written;
  if (isVerbose()) complain("the log " + logFilePath() + " cannot be opened; continuing without it");
  return LogCapture::File::leftAlone;
}

}  // namespace

LibraryLog::LibraryLog() : capture_(chooseFile()) {}

void LibraryLog::print() const {
  const std::string& log = capture_.text();
  std::fprintf(stderr, "The library's log of this run:\n%s%s", printableLines(log).c_str(),
               log.ends_with('\n') ? "" : "\n");
}

}  // namespace vorlix::tool
