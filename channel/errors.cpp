// Error state of the channel and the socket-error tests.
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

void webChannel::recordFailure(int code, const std::string& file) {
    // The first failure of a batch wins; the workers race for it, so the
    // claim is a compare-and-swap and only the winner writes the context.
    // The texts are written under the lock, so that a host reading the error
    // meanwhile sees them whole.
    ScopedLock lock(m_errorLock);
    int expected = 0;
    if (!atomicSwap(m_errorCode, expected, code)) return;
    m_errorContext = file;
    m_errorMessage = errorText(code, file);
}

void webChannel::setError(int code) {
    ScopedLock lock(m_errorLock);
    atomicStore(m_errorCode, code);
    m_errorMessage = code == 0 ? std::string() : errorText(code, std::string());
}

void webChannel::clearError() {
    ScopedLock lock(m_errorLock);
    atomicStore(m_errorCode, 0);
    m_errorMessage.clear();
    m_errorContext.clear();
}

std::string webChannel::errorText(int code, const std::string& file) {
    // In words, with the file a batch failure concerns. The text ends with a
    // line feed because getErrorCode drops the last character of a message
    // shorter than the host's buffer: that way only the line feed goes.
    std::string text = resultText(code);
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
