// SPDX-License-Identifier: Apache-2.0
//
// The commands. Each function adds one command to the command line. When the user runs that command, its callback sets
// `status` to the exit status or throws Failure.
#pragma once

#include <CLI/App.hpp>

namespace vorlix::tool {

void addShowCommand(CLI::App& app, int& status);
void addHybridCommand(CLI::App& app, int& status);
void addBackupCommand(CLI::App& app, int& status);
void addCheckCommand(CLI::App& app, int& status);
void addIdentifyCommand(CLI::App& app, int& status);
void addMountCommands(CLI::App& app, int& status);
void addBootStoreCommand(CLI::App& app, int& status);
void addBootRecordCommands(CLI::App& app, int& status);
void addLegacyBootCommand(CLI::App& app, int& status);
void addUndoCommand(CLI::App& app, int& status);
void addRestoreCommand(CLI::App& app, int& status);
void addRunCommand(CLI::App& app, int& status);
void addImageSizeCommand(CLI::App& app, int& status);
void addArchiveCommand(CLI::App& app, int& status);
void addProbeCommands(CLI::App& app, int& status);
void addListCommands(CLI::App& app, int& status);
void addWindowsCommand(CLI::App& app, int& status);
void addStartupDiskCommand(CLI::App& app, int& status);
void addLogCommand(CLI::App& app, int& status);

}  // namespace vorlix::tool
