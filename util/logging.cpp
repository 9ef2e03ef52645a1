// The utility library's logger. It is deliberately tiny: one process-wide
// record naming an open FILE*, no levels, no rotation, no lock. Modules that
// are linked separately share one log by passing the record's address around
// (log_init hands it out, and log_init(nullptr, &theirs) adopts it).
#include "logging.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

// The process-wide logger record; zero (no file, not ready) at start.
logging_state_t _g_logging_state = {nullptr, 0};

void clear_state() {
    _g_logging_state.file = nullptr;
    _g_logging_state.ready = 0;
}

// printf-style formatting into a string. A format that cannot be rendered
// (an encoding error) gives an empty message rather than a partial one.
std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[256];
    const int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) return std::string();
    if (static_cast<size_t>(needed) < sizeof small) return std::string(small, static_cast<size_t>(needed));
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

// Writes prefix + message + "\n" with a single fwrite, so that lines written
// by several threads at once never interleave (the FILE's own lock is
// enough), and flushes so that a crash leaves the log complete.
int write_line(const std::string& prefix, const char* format, va_list args) {
    if (format == nullptr) return -1;
    const int ready = log_is_ready();
    if (ready != 0) return ready;
    std::string line = prefix;
    line += vformat(format, args);
    line += '\n';
    FILE* file = _g_logging_state.file;
    std::fwrite(line.data(), 1, line.size(), file);
    std::fflush(file);
    return 0;
}

std::string time_prefix(const char* label) {
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%d - %s : ", static_cast<int>(std::time(nullptr)), label);
    return prefix;
}

}  // namespace

int log_init(const char* name, logging_state_t** state) {
    if (state == nullptr || *state == nullptr) {
        clear_state();
        if (name == nullptr) {
            std::fputs("ERROR: log name is NULL\n", stderr);
            return -1;
        }
    } else if (name == nullptr) {
        // Adopt the logger of the module that handed us its record, but only
        // while we have none of our own.
        if (_g_logging_state.file == nullptr) {
            _g_logging_state = **state;
            return 0;
        }
        clear_state();
        std::fputs("ERROR: log name is NULL\n", stderr);
        return -1;
    } else {
        clear_state();
    }

    // A file opened by an earlier call is left open on purpose: another
    // module may have copied our record and still write through that FILE*,
    // and closing it here would leave that module with a dangling stream.
    FILE* file = std::fopen(name, "ab");
    if (file == nullptr) {
        std::fprintf(stderr, "Can't open %s\n", name);
        _g_logging_state.ready = 0;
    } else {
        _g_logging_state.file = file;
        _g_logging_state.ready = 1;
    }
    if (state != nullptr) *state = &_g_logging_state;
    return 0;
}

int log_is_ready() {
    if (_g_logging_state.file == nullptr) return -3;
    if (_g_logging_state.ready == 0) return -2;
    return 0;
}

int log_disable() {
    // The file is not closed: whoever opened it (or shares it) still owns it.
    clear_state();
    return 0;
}

int print_log(const char* format, ...) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%ld:%.3d : ", static_cast<long>(now.tv_sec),
                  static_cast<int>(now.tv_usec / 1000));
    va_list args;
    va_start(args, format);
    const int result = write_line(prefix, format, args);
    va_end(args);
    return result;
}

int warn(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = write_line(time_prefix("WARN"), format, args);
    va_end(args);
    return result;
}

int error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = write_line(time_prefix("ERROR"), format, args);
    va_end(args);
    return result;
}

void die(int code, const char* format, ...) {
    // The message is formatted once, with the caller's arguments, and that
    // same text goes to the log and to standard error. Handing the bare
    // format to error() would let its conversions read arguments that were
    // never passed.
    std::string message;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        message = vformat(format, args);
        va_end(args);
    }
    error("%s", message.c_str());
    std::fprintf(stderr, "%s\n", message.c_str());
    std::exit(code);
}
