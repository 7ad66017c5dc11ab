// SPDX-License-Identifier: Apache-2.0
//
// The commands. Each function adds one command, or a few, to the command line. When the user runs that command, its
// callback sets `status` to the exit status or throws Failure.
#pragma once

#include <string>
#include <vector>

#include "CommandLine.h"

namespace vorlix::tool {

void addShowCommand(Command& top, int& status);
void addHybridCommand(Command& top, int& status);
void addBackupCommand(Command& top, int& status);
void addCheckCommand(Command& top, int& status);
void addIdentifyCommand(Command& top, int& status);
void addMountCommands(Command& top, int& status);
void addBootStoreCommand(Command& top, int& status);
void addBootRecordCommands(Command& top, int& status);
void addLegacyBootCommand(Command& top, int& status);
void addUndoCommand(Command& top, int& status);
void addRestoreCommand(Command& top, int& status);
void addRunCommand(Command& top, int& status);
void addImageSizeCommand(Command& top, int& status);
void addArchiveCommand(Command& top, int& status);
void addProbeCommands(Command& top, int& status);
void addDisksCommand(Command& top, int& status);
void addListCommands(Command& top, int& status);
void addWindowsCommand(Command& top, int& status);
void addStartupDiskCommand(Command& top, int& status);
void addLogCommand(Command& top, int& status);
void addCompletionCommand(Command& top, int& status);

/// Prints what may stand in the place of the last of the words, for the scripts of the command `completion`: a line
/// with the kind of place and, after a blank, "files" or "folders" if the shell is to offer those, then the words, one
/// a line, each with a description after a tab if there is one.
void printCompletions(const CommandShape& shape, const std::vector<std::string>& words);

}  // namespace vorlix::tool
