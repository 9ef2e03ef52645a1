// The two operations through which the HTTP layer moves bytes. Each makes at
// most one transfer per call; transient conditions read as 0, time-outs as -2.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>

#include <openssl/err.h>

#include "channel/webChannel.h"
#include "transport/poll_wait.h"
#include "transport/sigpipe.h"

namespace {

// A full socket buffer is waited on this many times in a row before the
// write gives up.
constexpr int kMaxWriteStalls = 16;

// Whether the TLS layer already holds data for the next read, decrypted or
// not (with read-ahead, whole records wait in its buffer), so that reading
// it cannot block.
bool tlsHolds(SSL* ssl) {
#if OPENSSL_VERSION_NUMBER >= 0x10100000L
    return SSL_has_pending(ssl) != 0;
#else
    return SSL_pending(ssl) != 0;
#endif
}

// Takes what the TLS layer already holds into `buffer`, at most `size` bytes,
// without waiting for the network. With read-ahead it may hold the start of
// a record whose rest is still on the way; a read on the blocking socket
// would then wait for that rest up to the socket's time-out, long after the
// data a caller wanted had arrived. So these reads run with the socket
// non-blocking, and a record still incomplete ends them.
int takeHeld(SSL* ssl, int socket, char* buffer, int size) {
    if (size <= 0 || !tlsHolds(ssl)) return 0;
    const int flags = fcntl(socket, F_GETFL, 0);
    if (flags < 0 || ((flags & O_NONBLOCK) == 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK) != 0)) return 0;
    const int saved = errno;
    int got = 0;
    while (got < size && tlsHolds(ssl)) {
        ERR_clear_error();
        const int more = SSL_read(ssl, buffer + got, size - got);
        if (more <= 0) break;
        got += more;
    }
    if ((flags & O_NONBLOCK) == 0) fcntl(socket, F_SETFL, flags);
    ERR_clear_error();
    errno = saved;
    return got;
}

}  // namespace

int webChannel::read(connection* conn, char* buffer, int size, long long offset, bool fill) {
    (void)offset;
    if (buffer == nullptr || size <= 0) return 0;
    buffer[0] = 0;
    if (conn->ssl == nullptr && conn->socket == 0) {
        // A closed record: never wait on descriptor 0, which is not ours.
        errno = EBADF;
        return -1;
    }
    if (conn->ssl == nullptr) {
        conn->hangupEvents = 0;
        unsigned events = 0;
        int waited;
        while ((waited = waitEvent(conn->readPoll, getProxyTimeout(), events)) >= 1) {
            conn->hangupEvents = events & kHangupBits;
            if ((events & EPOLLIN) && !(events & EPOLLERR)) {
                ssize_t received = recv(conn->socket, buffer, (size_t)size, 0);
                if (received == -1) return isSocketError() ? -1 : 0;
                return (int)received;
            }
            if (events & EPOLLERR) {
                // A reset shows as the error bit together with the hang-up
                // bits; it is reported as a failed read with ECONNRESET, so
                // that callers can tell it from an orderly close and resume.
                int error = 0;
                socklen_t length = sizeof(error);
                getsockopt(conn->socket, SOL_SOCKET, SO_ERROR, &error, &length);
                if (error == ECONNRESET) {
                    errno = ECONNRESET;
                    return -1;
                }
                return conn->hangupEvents != 0 ? 0 : -1;
            }
            if (conn->hangupEvents != 0 || (events & kReadWaiterBits)) return 0;
        }
        if (waited == 0) return -2;
        return conn->hangupEvents != 0 ? 0 : -1;
    }
    // TLS reads block up to the socket's receive time-out. A read never asks
    // for more than the buffer holds.
    if (size > kMaxRead) size = kMaxRead;
    if (!fill) {
        ERR_clear_error();
        return SSL_read(conn->ssl, buffer, size);
    }
    // Then drain what the TLS layer already holds, within the buffer.
    ERR_clear_error();
    const int result = SSL_read(conn->ssl, buffer, size);
    if (result <= 0) return 0;
    return result + takeHeld(conn->ssl, conn->socket, buffer + result, size - result);
}

int webChannel::write(connection* conn, std::string data) {
    int result;
    if (conn->ssl != nullptr) {
        SigpipeBlock guard;
        ERR_clear_error();
        result = SSL_write(conn->ssl, data.data(), (int)data.size());
    } else if (conn->socket == 0) {
        errno = EBADF;
        result = -1;
    } else {
        bool send_ = true;
        result = 0;
        if (conn->readyEvents == 0) {
            conn->hangupEvents = 0;
            unsigned events = 0;
            int waited;
            send_ = false;
            while ((waited = waitEvent(conn->writePoll, getProxyTimeout(), events)) >= 1) {
                conn->hangupEvents = events & kHangupBits;
                if ((events & EPOLLOUT) && !(events & EPOLLERR)) {
                    send_ = true;
                    break;
                }
                if (events & EPOLLERR) {
                    result = conn->hangupEvents != 0 ? 0 : -1;
                    break;
                }
                if (events & kWriteWaiterBits) break;  // writability and errors were handled above: a hang-up
            }
            if (waited == 0) result = conn->hangupEvents != 0 ? 0 : -2;
            if (waited < 0) result = conn->hangupEvents != 0 ? 0 : -1;
        }
        // A reused connection skips the wait; the hang-up bits of its last
        // wait decide whether the peer is still there.
        if (send_ && conn->hangupEvents == 0) {
            // MSG_NOSIGNAL: a closed peer must not end a host that does not
            // ignore SIGPIPE (a POST runs with the host's disposition).
            ssize_t sent = ::send(conn->socket, data.data(), data.size(), MSG_NOSIGNAL);
            result = sent == -1 ? (isSocketError() ? -1 : 0) : (int)sent;
        }
        int saved = errno;
        int error = 0;
        socklen_t length = sizeof(error);
        getsockopt(conn->socket, SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0 && error != EAGAIN && error != EINTR && error != EINPROGRESS) {
            if (logging()) log("VRAXSecureWebChannel::write socket error: %d", error);
            result = -1;
            saved = error;
        }
        errno = saved;
    }
    if (result < 0 && logging()) log("VRAXSecureWebChannel::write error: %d, result: %d", errno, result);
    return result;
}

int webChannel::writeAll(connection* conn, const std::string& data) {
    // Requests are small, but a POST body may exceed what one send takes.
    size_t done = 0;
    int stalls = 0;
    while (done < data.size()) {
        int result = write(conn, done == 0 ? data : data.substr(done));
        if (result > 0) {
            done += (size_t)result;
            stalls = 0;
            continue;
        }
        if (done == 0) return result;
        // The socket buffer is full: wait until it drains (bounded by the
        // transfer time-out), a limited number of times in a row.
        if (result == 0 && conn->ssl == nullptr && conn->hangupEvents == 0 && ++stalls <= kMaxWriteStalls &&
            prepareSocket(conn, true) == 1)
            continue;
        return -1;
    }
    return (int)(done > (size_t)INT_MAX ? INT_MAX : done);  // the result is an int; more is never asked for
}

int webChannel::readBlock(connection* conn, char* buffer, int size) {
    int got = read(conn, buffer, size, 0, false);
    // Over TLS a read brings one record; the records the TLS layer already
    // holds are taken too, so that the file gets large writes rather than
    // one per 16 KiB record. None of these further reads waits.
    if (got <= 0 || conn->ssl == nullptr) return got;
    return got + takeHeld(conn->ssl, conn->socket, buffer + got, size - got);
}
