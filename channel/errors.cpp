// Error state of the channel and the socket-error tests.
#include <sys/resource.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "channel/atomics.h"
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"

int webChannel::getErrorCode(char* buffer, int size) {
    ScopedLock lock(m_errorLock);
    if (buffer != nullptr && size > 0) {
        size_t length = m_errorMessage.size();
        size_t capacity = (size_t)size;
        if (m_errorMessageWhole) {
            // A detailed message has no line feed to spare: it comes back
            // whole, or cut to the buffer, and always terminated.
            size_t copied = length < capacity - 1 ? length : capacity - 1;
            memcpy(buffer, m_errorMessage.data(), copied);
            buffer[copied] = 0;
            return atomicLoad(m_errorCode);
        }
        memcpy(buffer, m_errorMessage.data(), length < capacity ? length : capacity);
        buffer[capacity - 1] = 0;
        // A message shorter than the buffer loses its last character; this
        // cut is part of the interface. An empty message has no character to
        // cut, and nothing outside the buffer is ever written.
        if (length < capacity && length > 0) buffer[length - 1] = 0;
    }
    return atomicLoad(m_errorCode);
}

int webChannel::getError(std::string& context, std::string& message) {
    ScopedLock lock(m_errorLock);
    context = m_errorContext;
    message = m_errorMessage;
    return atomicLoad(m_errorCode);
}

bool webChannel::isError() {
    for (threadData* record : m_batch) {
        int code = atomicLoad(record->error);
        if (code == 0) continue;
        if (logging())
            log("VRAXSecureWebChannel::isError: thread %d:%x is in error state %d", record->index,
                (unsigned)(uintptr_t)&record->error, code);
        return true;
    }
    return false;
}

namespace {

// The failure this thread noted last (see noteFailure). Each thread fails on
// its own, so the note needs no lock; it reaches the shared error state
// under m_errorLock.
struct NotedFailure {
    int code = 0;
    int detail = 0;
    std::string reason;
};
thread_local NotedFailure tNoted;

// What the error state says about a failure with error detail on: the
// detailed code and the reason noted for `code` on this thread, or the code
// and its words when nothing was noted for it. The note is used up.
NotedFailure takeNoted(int code) {
    NotedFailure taken;
    if (tNoted.code == code && code != 0) taken = std::move(tNoted);
    else taken = {code, code, resultText(code)};
    tNoted = NotedFailure();
    return taken;
}

}  // namespace

void webChannel::noteFailure(int code, std::string reason, int detail) {
    tNoted.code = code;
    tNoted.detail = detail != 0 ? detail : code;
    tNoted.reason = std::move(reason);
}

void webChannel::forgetFailure() {
    tNoted = NotedFailure();
}

std::string webChannel::systemText(int error) {
    char text[256];
    std::string words = strerror_r(error, text, sizeof(text));
    // Running out of descriptors is a limit someone can raise: say which.
    rlimit limit;
    if (error == EMFILE && getrlimit(RLIMIT_NOFILE, &limit) == 0)
        words += " (descriptor limit " + std::to_string((unsigned long long)limit.rlim_cur) + " reached)";
    if (error == ENFILE) words += " (the system's descriptor limit reached)";
    return words;
}

std::string webChannel::printable(std::string_view text, size_t limit) {
    std::string shown(text.substr(0, limit));
    for (char& c : shown)
        if (c < 0x20 || c > 0x7e) c = '?';
    return shown;
}

void webChannel::recordFailure(int code, const std::string& file) {
    // The first failure of a batch wins; the workers race for it, so the
    // claim is a compare-and-swap and only the winner writes the context.
    // The texts are written under the lock, so that a host reading the error
    // meanwhile sees them whole.
    const bool detailed = hasParam(kParamErrorDetail);
    NotedFailure noted = detailed ? takeNoted(code) : NotedFailure{code, code, std::string()};
    ScopedLock lock(m_errorLock);
    int expected = 0;
    if (!atomicSwap(m_errorCode, expected, noted.detail)) return;
    m_errorContext = file;
    if (!detailed) {
        m_errorMessage = errorText(code, file);
        return;
    }
    // The file goes with the reason, as with the words: it tells the host
    // which of its jobs failed.
    m_errorMessage = noted.reason + ": " + file;
    m_errorMessageWhole = true;
}

void webChannel::setError(int code) {
    if (code != 0 && hasParam(kParamErrorDetail)) {
        setDetailedError(code, std::string());
        return;
    }
    ScopedLock lock(m_errorLock);
    atomicStore(m_errorCode, code);
    m_errorMessage = code == 0 ? std::string() : errorText(code, std::string());
    m_errorMessageWhole = false;
}

std::string webChannel::notedReason(int code) {
    return tNoted.code == code && code != 0 ? tNoted.reason : std::string(resultText(code));
}

void webChannel::storeOpenFailure(int code) {
    // With error detail on, the operation's own end writes the message.
    if (code != kUntrusted || hasParam(kParamErrorDetail)) {
        atomicStore(m_errorCode, code);
        return;
    }
    ScopedLock lock(m_errorLock);
    atomicStore(m_errorCode, code);
    m_errorMessage = errorText(code, std::string());
    m_errorMessageWhole = false;
}

void webChannel::setDetailedError(int code, const std::string& context) {
    NotedFailure noted = takeNoted(code);
    ScopedLock lock(m_errorLock);
    atomicStore(m_errorCode, noted.detail);
    m_errorMessage = std::move(noted.reason);
    m_errorContext = context;
    m_errorMessageWhole = true;
}

void webChannel::clearError() {
    forgetFailure();
    ScopedLock lock(m_errorLock);
    atomicStore(m_errorCode, 0);
    m_errorMessage.clear();
    m_errorContext.clear();
    m_errorMessageWhole = false;
}

std::string webChannel::errorText(int code, const std::string& file) {
    // In words, with the file a batch failure concerns. The text ends with a
    // line feed because getErrorCode drops the last character of a message
    // shorter than the host's buffer: that way only the line feed goes. An
    // untrusted server is named with the verification's own words.
    std::string text = code == kUntrusted ? notedReason(code) : std::string(resultText(code));
    if (!file.empty()) text += ": " + file;
    return text + "\n";
}

int webChannel::errorCode() {
    return errno;
}

bool webChannel::isSocketError() {
    int error = errno;
    return error != 0 && error != EAGAIN && error != EINTR && error != EINPROGRESS;
}

bool webChannel::isReset() {
    return errno == ECONNRESET;
}

bool webChannel::isDropped() {
    return errno == ECONNRESET || errno == EPIPE;
}

bool webChannel::isCancelled() {
    // A failed job ends only its own worker; cancellation ends them all.
    for (threadData* record : m_batch) {
        int code = atomicLoad(record->error);
        if (code != kCancelled) continue;
        if (logging())
            log("VRAXSecureWebChannel::isError: thread %d:%x is in error state %d", record->index,
                (unsigned)(uintptr_t)&record->error, code);
        return true;
    }
    return false;
}
