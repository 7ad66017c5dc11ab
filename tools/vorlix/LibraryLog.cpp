// SPDX-License-Identifier: Apache-2.0
#include "LibraryLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Complaint.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

// Whether this is the first time in the user's session. An empty file remembers it in the folder of the session, which
// the system removes at logout. Without such a folder no time is the first.
bool isFirstInSession() {
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder == nullptr || *folder != '/') return false;
  const std::string path = std::string(folder) + "/vorlix-log-was-mentioned";
  const int created = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (created >= 0) close(created);
  return created >= 0;
}

LogCapture::File chooseFile() {
  if (canOpenLog()) return LogCapture::File::written;
  if (isVerbose() || isFirstInSession()) {
    complain("the log " + logFilePath() + " cannot be opened; continuing without it");
  }
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
