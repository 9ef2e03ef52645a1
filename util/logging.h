// The utility library's own logger: a second log file, independent of the
// channel's log, shared between modules through a logging_state_t.
#ifndef WEBCHANNEL_UTIL_LOGGING_H
#define WEBCHANNEL_UTIL_LOGGING_H

#include <cstdint>
#include <cstdio>

#include "../channel/webchannel_export.h"

struct logging_state_t {
    FILE* file;     // the open log file, or null
    int32_t ready;  // 1 when the file was opened, else 0
};

// Opens `name` for appending and, when `state` is given, hands out the
// process-wide record through it. With a null name and a set *state, adopts
// that other module's logger. 0, or -1 when no name is usable; a file that
// cannot be opened still gives 0 and leaves the logger off. A file opened
// earlier is never closed here, as other modules may still write to it.
WEBCHANNEL_EXPORT int log_init(const char* name, logging_state_t** state);
// 0 ready; -2 not ready but a file is set; -3 no file.
WEBCHANNEL_EXPORT int log_is_ready();
// Detaches the file without closing it. Always 0.
WEBCHANNEL_EXPORT int log_disable();
// Each writes one line and flushes: 0, -1 for a null format, or log_is_ready's code.
// A line is written with a single call, so concurrent lines never interleave.
WEBCHANNEL_EXPORT int print_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
WEBCHANNEL_EXPORT int warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
WEBCHANNEL_EXPORT int error(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Formats the message once, logs it through error(), writes it and a newline
// to standard error, and exits with `code`.
WEBCHANNEL_EXPORT void die(int code, const char* format, ...) __attribute__((format(printf, 2, 3), noreturn));

#endif
