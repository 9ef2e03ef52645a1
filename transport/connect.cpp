// Connecting a fresh connection record: socket, proxy choice, non-blocking
// connect under the transfer time-out, readiness waiters.
//
// The socket, its waiters and the TLS session belong to the record: when a
// step fails, open() tears the record down, so nothing here closes by hand.
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "channel/scoped_lock.h"
#include "channel/webChannel.h"
#include "transport/descriptor_relief.h"
#include "transport/poll_wait.h"
#include "util/logging.h"

namespace {

constexpr long kMaxPort = 65535;

// Where a fresh connection's socket goes: the target itself, or a proxy.
struct Route {
    unsigned long address = 0;  // network order; 0 = no proxy
    std::string host;
    std::string port;
    bool viaProxy() const { return address != 0; }
};

// Makes the socket. Nagle's algorithm stays on (TCP_NODELAY is set to 0 on
// purpose): a request goes out in one write, so it never waits on an
// acknowledgement, and the setting is part of what servers have always seen.
int createSocket(webChannel& channel, webChannel::connection* conn, int timeout) {
    conn->socket = openRelieved(channel, [] { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); });
    // Deliberate: descriptor 0 means "no socket" in every connection record
    // (closeSocket and the pool test for it), so only 0 is taken as failure
    // here; -1 fails the connect that follows instead, unless the process is
    // out of descriptors with no idle connection left to close: then the
    // connect fails at once, naming the limit.
    if (conn->socket == 0) return kSocketCreate;
    if (conn->socket < 0 && isOutOfDescriptors(errno)) {
        const int error = errno;
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::initSocket: connection error %d", error);
        webChannel::noteFailure(kConnectFailed, webChannel::systemText(error));
        return kConnectFailed;
    }
    int nodelay = 0;
    setsockopt(conn->socket, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof(nodelay));
    if (conn->https) {
        // TLS runs on a blocking socket; these bound each of its reads and writes.
        timeval limit = {timeout, 0};
        int result = setsockopt(conn->socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (result != 0) print_log("setsockopt for SO_RCVTIMEO returned %d, errno = %d", result, errno);
        result = setsockopt(conn->socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        if (result != 0) print_log("setsockopt for SO_SNDTIMEO returned %d, errno = %d", result, errno);
    }
    return kOk;
}

// A failed connect, with the system's words for why.
int connectFailed(int error) {
    webChannel::noteFailure(kConnectFailed, webChannel::systemText(error));
    return kConnectFailed;
}

// Connects without blocking longer than `timeout` seconds.
int connectWithin(webChannel::connection* conn, int timeout) {
    errno = 0;
    if (::connect(conn->socket, reinterpret_cast<sockaddr*>(&conn->serverAddress), sizeof(conn->serverAddress)) == 0)
        return kOk;
    if (webChannel::isSocketError()) {
        int error = errno;
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::initSocket: connection error %d", error);
        return connectFailed(error);
    }
    if (errno != EINPROGRESS) return kOk;
    int ready = waitDescriptor(conn->socket, POLLOUT, timeout);
    if (ready < 1) {
        int error = ready == 0 ? ETIMEDOUT : errno;
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::initSocket: connection timeout");
        return connectFailed(error);
    }
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(conn->socket, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::initSocket: async connection error %d", error);
        return connectFailed(error);
    }
    if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::initSocket: async connection is established");
    return kOk;
}

// The connection's two readiness waiters: input or hang-up, and writability.
int makeWaiters(webChannel& channel, webChannel::connection* conn) {
    auto waiter = [] { return epoll_create1(EPOLL_CLOEXEC); };
    conn->readyEvents = 0;
    conn->readPoll = openRelieved(channel, waiter);
    if (conn->readPoll < 0) return kConnectFailed;
    epoll_event event;
    memset(&event, 0, sizeof(event));
    event.events = EPOLLIN | EPOLLRDHUP;
    if (epoll_ctl(conn->readPoll, EPOLL_CTL_ADD, conn->socket, &event) != 0) return kConnectFailed;
    conn->writePoll = openRelieved(channel, waiter);
    if (conn->writePoll < 0) return kConnectFailed;
    event.events = EPOLLOUT;
    if (epoll_ctl(conn->writePoll, EPOLL_CTL_ADD, conn->socket, &event) != 0) return kConnectFailed;
    return kOk;
}

// Picks the proxy (the configured one, or the per-host answer) or the target
// itself, and fills in the socket address.
int chooseRoute(webChannel& channel, webChannel::connection* conn, Route& route) {
    route.address = conn->https ? channel.m_httpsProxyAddress : channel.m_httpProxyAddress;
    route.host = conn->https ? channel.m_httpsProxyHost : channel.m_httpProxyHost;
    route.port = conn->https ? channel.m_httpsProxyPort : channel.m_httpProxyPort;
    if (channel.hasParam(kParamProxyPerHost)) {
        std::string perHost;
        {
            ScopedLock lock(channel.m_lock2);
            std::string key = (conn->https ? "https://" : "http://") + conn->host;
            if (channel.m_proxyAnswers.count(key) == 0) channel.m_proxyAnswers[key] = channel.resolveProxy(conn->host, conn->https);
            perHost = channel.m_proxyAnswers[key];
        }
        route.address = 0;
        if (!perHost.empty()) {
            std::string path;
            bool secure = false;  // a proxy is always spoken to in plain HTTP
            channel.parseURL(perHost, &route.address, route.host, route.port, path, &secure);
        }
    }
    if (!route.viaProxy() && conn->address == 0) {
        // The pool skipped resolving the target because a proxy was
        // configured, but that proxy is not in use: never connect to 0.0.0.0.
        std::string host, port, path;
        channel.parseURL(conn->host + ":" + conn->port, &conn->address, host, port, path, nullptr);
        if (conn->address == 0) return kProxyUnusable;  // the resolver noted why
    }
    if (!route.viaProxy()) route.port = conn->port;
    // A port text that is no port ("", "abc", "65616") must not turn into
    // port 0 or wrap around to another port: it is a failed connect.
    const long portNumber = atol(route.port.c_str());
    if (portNumber < 1 || portNumber > kMaxPort) {
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::initSocket: connection error %d", EINVAL);
        webChannel::noteFailure(kConnectFailed, "no usable port in \"" + webChannel::printable(route.port, 16) + "\"");
        return kConnectFailed;
    }
    conn->serverAddress.sin_family = AF_INET;
    conn->serverAddress.sin_port = htons((uint16_t)portNumber);
    conn->serverAddress.sin_addr.s_addr = (in_addr_t)(route.viaProxy() ? route.address : conn->address);
    return kOk;
}

}  // namespace

int webChannel::initSocket(connection* conn, threadData* worker) {
    (void)worker;
    if (conn == nullptr) return kInvalidArgument;
    if (logging()) log("VRAXSecureWebChannel::initSocket: started");
    const int timeout = getProxyTimeout();
    int result = createSocket(*this, conn, timeout);
    if (result != kOk) return result;
    Route route;
    if ((result = chooseRoute(*this, conn, route)) != kOk) return result;

    int flags = fcntl(conn->socket, F_GETFL, 0);
    fcntl(conn->socket, F_SETFL, flags | O_NONBLOCK);
    if (logging()) log("VRAXSecureWebChannel::initSocket: switched to non-blocking mode with result %d", errno);
    if ((result = connectWithin(conn, timeout)) != kOk) return result;
    // TLS reads and writes block, bounded by the socket time-outs above;
    // plain sockets stay non-blocking and are driven by the epoll waiters.
    if (conn->https) fcntl(conn->socket, F_SETFL, flags & ~O_NONBLOCK);
    if (logging())
        log("VRAXSecureWebChannel::initSocket: socket %d(%x) is connected to %s:%d", conn->socket,
            (unsigned)(uintptr_t)conn, route.viaProxy() ? route.host.c_str() : conn->host.c_str(),
            atoi(route.port.c_str()));
    if ((result = makeWaiters(*this, conn)) != kOk) {
        noteFailure(result, systemText(errno));
        return result;
    }
    if (route.viaProxy() && conn->https) return openTunnel(conn);
    return kOk;
}
