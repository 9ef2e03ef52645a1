// Shell commands and the df questions about partitions.
//
// get_command_output points the process's standard error at /dev/null while
// the command runs, so the command's complaints are not shown. That affects
// every thread: these helpers must not run concurrently with each other or
// with other code writing to standard error.
#include "process.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "logging.h"
#include "strings.h"

namespace {

// The exit code behind a wait status: the status shifted right by eight
// bits, an arithmetic shift, so a failed start (-1) stays -1. A command
// ended by a signal therefore gives 0; callers that must tell it from a
// success look at the raw status that execute_args logs.
int exit_code_of(int status) {
    return status >> 8;
}

// The path itself or its nearest existing ancestor; empty when none of its
// prefixes exists. Every step makes the text strictly shorter, so the walk
// ends on any input ("", "x", "x/", "\\", "////", paths far longer than
// PATH_MAX) after at most path.size() + 1 steps.
std::string nearest_existing(const std::string& path) {
    // The system sees a path only up to its first NUL byte; so does df.
    std::string p = path.substr(0, path.find('\0'));
    const size_t first = p.find_first_of("/\\");
    struct stat st;
    // A text of PATH_MAX bytes or more cannot be looked up; skip the call.
    while (!p.empty() && (p.size() >= PATH_MAX || ::stat(p.c_str(), &st) != 0)) {
        const size_t last = p.find_last_of("/\\");
        size_t keep;
        if (last == std::string::npos)
            keep = 0;
        else if (last == first)
            keep = last + 1;  // a missing top-level entry leads to the root
        else
            keep = last;
        // "x/" or a lone "\\" would be cut to itself: drop the separator too.
        if (keep >= p.size()) keep = last;
        p.resize(keep);
    }
    return p;
}

// Puts `path` between double quotes for the shell. Inside double quotes only
// '$', '`', '"' and '\\' are special; escaping them keeps a file name from
// ending the quotes and running as a command.
std::string shell_quoted(const std::string& path) {
    std::string quoted = "\"";
    for (char c : path) {
        if (c == '$' || c == '`' || c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

// Points standard error back at the descriptor saved in `saved` and
// releases both the saved copy and the /dev/null stream.
void restore_stderr(int saved, FILE* devNull) {
    std::fflush(stderr);
    if (saved >= 0) {
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
    }
    if (devNull != nullptr) std::fclose(devNull);
}

}  // namespace

std::string get_command_output(std::string command, int* exitCode, bool /*flag*/) {
    std::string output;
    if (exitCode != nullptr) *exitCode = -1;

    // Both descriptors are close-on-exec, so the command inherits neither.
    FILE* devNull = std::fopen("/dev/null", "w+e");
    std::fflush(stderr);
    const int savedStderr = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    // Without a saved copy standard error could never be given back, so it
    // is only redirected when both descriptors were had.
    if (devNull != nullptr && savedStderr >= 0) ::dup2(fileno(devNull), STDERR_FILENO);

    FILE* pipe = ::popen(command.c_str(), "re");
    if (pipe == nullptr) {
        const int err = errno;
        // Standard error is given back on this path as well: leaving it on
        // /dev/null would silence every later message of the process, and
        // the saved descriptor would leak.
        restore_stderr(savedStderr, devNull);
        error("get_command_output: cannot execute command '%s': %s", command.c_str(), std::strerror(err));
        return output;
    }

    // Line by line, at most 1024 bytes a piece; a piece ends at a NUL byte.
    char buffer[1024];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
    const int status = ::pclose(pipe);
    if (exitCode != nullptr) *exitCode = exit_code_of(status);

    restore_stderr(savedStderr, devNull);
    return output;
}

int execute_args(const std::string& command, const std::string& arguments) {
    print_log("execute_args: command %s, arguments %s", command.c_str(), arguments.c_str());
    const std::string line = arguments.empty() ? command : command + " " + arguments;
    const int status = std::system(line.c_str());
    print_log("execute_args: return code is %d", status);
    return exit_code_of(status);
}

long long getPartitionFreeSpace(const std::string& path) {
    const std::string command = "df -P --block-size=1000000 " + shell_quoted(nearest_existing(path)) +
                                " | tail -n 1 | awk '{print $4}' 2>/dev/null";
    print_log("getPartitionFreeSpace: command is '%s'", command.c_str());
    int exitCode = 0;
    const std::string result = trimSpaces(get_command_output(command, &exitCode, false));
    print_log("getPartitionFreeSpace: result is '%s'", result.c_str());
    return std::atoll(result.c_str());
}

std::string getFilePartition(const std::string& path) {
    const std::string command =
        "df " + shell_quoted(nearest_existing(path)) + " | tail -n 1 | awk '{ print $NF }' 2>/dev/null";
    print_log("getFilePartition: command is '%s'", command.c_str());
    int exitCode = 0;
    const std::string result = trimSpaces(get_command_output(command, &exitCode, false));
    print_log("getFilePartition: partition for file '%s' is '%s'", path.c_str(), result.c_str());
    return result;
}
