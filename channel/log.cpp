// The channel's log: one line per event, prefixed with the wall-clock time,
// flushed at once so that a crash leaves the log complete.
#include <sys/time.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "channel/globals.h"
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"

// One mutex for the whole process, initialised statically: it stays usable
// until the very last line, including those written while a channel is torn
// down.
pthread_mutex_t gLockLog = PTHREAD_MUTEX_INITIALIZER;

FILE* webChannel::m_log = nullptr;

void webChannel::setLog(const char* path) {
    FILE* opened = path == nullptr ? stdout : fopen(path, "a+");
    FILE* previous;
    {
        ScopedLock lock(gLockLog);
        previous = m_log;
        __atomic_store_n(&m_log, opened, __ATOMIC_RELAXED);
    }
    // The previous file is closed so that repeated calls do not leak streams;
    // the swap above happened under the line lock, so no line is being
    // written to it now.
    if (previous != nullptr && previous != stdout && previous != opened) fclose(previous);
    if (opened != nullptr) log("webChannel::setLog %s", path != nullptr ? path : "(null)");
}

void webChannel::log(const char* format, ...) {
    if (!logging()) return;
    // Callers test errno after logging a failed call; a log line must not
    // change it.
    int savedErrno = errno;
    timeval now;
    gettimeofday(&now, nullptr);
    // The line is formatted before the lock is taken, so that workers logging
    // at once wait only for each other's writes, not for each other's
    // formatting. Most lines fit the stack buffer; a long one (a response
    // head, say) is formatted again into one of its size.
    char small[4096];
    int prefix = snprintf(small, sizeof(small), "%ld:%.3d : ", (long)now.tv_sec, (int)(now.tv_usec / 1000));
    va_list args;
    va_start(args, format);
    int message = vsnprintf(small + prefix, sizeof(small) - (size_t)prefix, format, args);
    va_end(args);
    if (message < 0) message = 0;
    std::string large;
    const char* line = small;
    size_t length = (size_t)prefix + (size_t)message;
    if (length + 1 >= sizeof(small)) {
        large.assign(small, (size_t)prefix);
        large.resize(length + 1);
        va_start(args, format);
        vsnprintf(&large[(size_t)prefix], (size_t)message + 1, format, args);
        va_end(args);
        line = large.data();
    }
    {
        ScopedLock lock(gLockLog);
        FILE* out = m_log;  // read again under the lock: setLog may have swapped it
        if (out != nullptr) {
            fwrite(line, 1, length, out);
            fputc('\n', out);
            fflush(out);
        }
    }
    errno = savedErrno;
}
