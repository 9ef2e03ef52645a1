// Running shell commands and asking df about partitions.
#ifndef WEBCHANNEL_UTIL_PROCESS_H
#define WEBCHANNEL_UTIL_PROCESS_H

#include <string>

#include "../channel/webchannel_export.h"

// Runs `command` through the shell and returns its standard output; its
// standard error is discarded (the process's descriptor 2 points at
// /dev/null meanwhile, and is given back on every path). *exitCode gets the
// exit code, 128 + the signal number when the command was killed, -1 when it
// could not be started. `flag` has no effect. Not for concurrent use.
WEBCHANNEL_EXPORT std::string get_command_output(std::string command, int* exitCode, bool flag);
// Runs `command` (followed by a blank and `arguments` when they are not
// empty) and returns its exit code (128 + the signal number when killed);
// -1 when it could not be run.
WEBCHANNEL_EXPORT int execute_args(const std::string& command, const std::string& arguments);
// Free space, in units of 1,000,000 bytes, of the partition holding `path`
// or its nearest existing ancestor; 0 when unknown. The path is quoted for
// the shell, so characters such as '"' or '$' in it are never run.
WEBCHANNEL_EXPORT long long getPartitionFreeSpace(const std::string& path);
// Mount point of the partition holding `path` or its nearest existing
// ancestor; empty when unknown.
WEBCHANNEL_EXPORT std::string getFilePartition(const std::string& path);

#endif
