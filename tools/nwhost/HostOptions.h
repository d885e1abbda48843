// Options that every verb which loads the module shares.
#pragma once

#include <string>

#include "base/WString.h"
#include "hostlib/ModuleHost.h"

// Makes a registry export the settings the module will read: on POSIX the file itself becomes
// the registry; on Windows its keys below HKEY_LOCAL_MACHINE are written into the registry.
bool PrepareRegistry(const std::string& path, std::string& error);

// Prepares the registry (when a file is named) and starts the module in the host's order. False,
// with the reason on standard error, when either fails.
bool PrepareAndStart(const std::string& registry, ModuleHost& host);

// Parses --module PATH, --cabinet N, --no-cabinet and --registry FILE at argv[i]. Returns 1 when
// it took the option (i then stands on its last word), 0 when the word is no host option, -1 for
// a host option with a bad value.
int ParseHostOption(int argc, char** argv, int& i, ModuleHost::Options& options, std::string& registry);

// The module's mirror runs the transfer tool from a directory of its own (a working location, or
// the module's work directory for a check). When `directory` lacks the tool, the one `tool` names,
// else the one beside nwhost, is copied in. False, with the reason, when there is none to copy or
// the copy fails; `place` names the directory in that reason.
bool ProvideTransferTool(const WString& directory, const char* place, const std::string& tool, std::string& error);
