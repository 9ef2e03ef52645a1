// Connecting a fresh connection record: socket, proxy choice, non-blocking
// connect under the transfer time-out, readiness waiters.
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "channel/webChannel.h"
#include "transport/poll_wait.h"
#include "util/logging.h"

int webChannel::initSocket(connection* conn, threadData* worker) {
    (void)worker;
    if (conn == nullptr) return kInvalidArgument;
    if (logging()) log("VRAXSecureWebChannel::initSocket: started");

    conn->socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (conn->socket == 0) return kSocketCreate;
    int nodelay = 0;
    setsockopt(conn->socket, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof(nodelay));

    const int timeout = getProxyTimeout();
    if (conn->https) {
        // TLS runs on a blocking socket; these bound each of its reads and writes.
        timeval limit = {timeout, 0};
        int result = setsockopt(conn->socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (result != 0) print_log("setsockopt for SO_RCVTIMEO returned %d, errno = %d", result, errno);
        result = setsockopt(conn->socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        if (result != 0) print_log("setsockopt for SO_SNDTIMEO returned %d, errno = %d", result, errno);
    }

    unsigned long proxyAddress = conn->https ? m_httpsProxyAddress : m_httpProxyAddress;
    std::string proxyHost = conn->https ? m_httpsProxyHost : m_httpProxyHost;
    std::string proxyPort = conn->https ? m_httpsProxyPort : m_httpProxyPort;
    bool proxySecure = conn->https ? m_httpsProxySecure : m_httpProxySecure;

    std::string perHost;
    if (hasParam(kParamProxyPerHost)) {
        pthread_mutex_lock(&m_lock2);
        std::string key = (conn->https ? "https://" : "http://") + conn->host;
        if (m_proxyAnswers.count(key) == 0) m_proxyAnswers[key] = resolveProxy(conn->host, conn->https);
        perHost = m_proxyAnswers[key];
        pthread_mutex_unlock(&m_lock2);
        proxyAddress = 0;
        if (!perHost.empty()) {
            std::string path;
            parseURL(perHost, &proxyAddress, proxyHost, proxyPort, path, &proxySecure);
        }
    }
    (void)proxySecure;

    const bool viaProxy = proxyAddress != 0;
    if (!viaProxy && conn->address == 0) {
        // The pool skipped resolving the target because a proxy was
        // configured, but that proxy is not in use: never connect to 0.0.0.0.
        std::string host, port, path;
        parseURL(conn->host + ":" + conn->port, &conn->address, host, port, path, nullptr);
        if (conn->address == 0) return kProxyUnusable;
    }
    const std::string& port = viaProxy ? proxyPort : conn->port;
    // A port text that is no port ("", "abc", "65616") must not turn into
    // port 0 or wrap around to another port: it is a failed connect.
    const long portNumber = atol(port.c_str());
    if (portNumber < 1 || portNumber > 65535) {
        if (logging()) log("VRAXSecureWebChannel::initSocket: connection error %d", EINVAL);
        return kConnectFailed;
    }
    conn->serverAddress.sin_family = AF_INET;
    conn->serverAddress.sin_port = htons((uint16_t)portNumber);
    conn->serverAddress.sin_addr.s_addr = (in_addr_t)(viaProxy ? proxyAddress : conn->address);

    int flags = fcntl(conn->socket, F_GETFL, 0);
    fcntl(conn->socket, F_SETFL, flags | O_NONBLOCK);
    if (logging()) log("VRAXSecureWebChannel::initSocket: switched to non-blocking mode with result %d", errno);

    errno = 0;
    if (::connect(conn->socket, reinterpret_cast<sockaddr*>(&conn->serverAddress), sizeof(conn->serverAddress)) ==
        -1) {
        if (isSocketError()) {
            if (logging()) log("VRAXSecureWebChannel::initSocket: connection error %d", errno);
            return kConnectFailed;
        }
        if (errno == EINPROGRESS) {
            if (waitDescriptor(conn->socket, POLLOUT, timeout) < 1) {
                if (logging()) log("VRAXSecureWebChannel::initSocket: connection timeout");
                return kConnectFailed;
            }
            int error = 0;
            socklen_t length = sizeof(error);
            getsockopt(conn->socket, SOL_SOCKET, SO_ERROR, &error, &length);
            if (error != 0) {
                if (logging()) log("VRAXSecureWebChannel::initSocket: async connection error %d", error);
                return kConnectFailed;
            }
            if (logging()) log("VRAXSecureWebChannel::initSocket: async connection is established");
        }
    }
    // TLS reads and writes block, bounded by the socket time-outs above;
    // plain sockets stay non-blocking and are driven by the epoll waiters.
    if (conn->https) fcntl(conn->socket, F_SETFL, flags & ~O_NONBLOCK);

    if (logging())
        log("VRAXSecureWebChannel::initSocket: socket %d(%x) is connected to %s:%d", conn->socket,
            (unsigned)(uintptr_t)conn, viaProxy ? proxyHost.c_str() : conn->host.c_str(), atoi(port.c_str()));

    conn->readyEvents = 0;
    conn->readPoll = epoll_create1(EPOLL_CLOEXEC);
    if (conn->readPoll < 0) return kConnectFailed;
    epoll_event event;
    memset(&event, 0, sizeof(event));
    event.events = EPOLLIN | EPOLLRDHUP;
    if (epoll_ctl(conn->readPoll, EPOLL_CTL_ADD, conn->socket, &event) != 0) return kConnectFailed;
    conn->writePoll = epoll_create1(EPOLL_CLOEXEC);
    if (conn->writePoll < 0) return kConnectFailed;
    event.events = EPOLLOUT;
    if (epoll_ctl(conn->writePoll, EPOLL_CTL_ADD, conn->socket, &event) != 0) return kConnectFailed;

    if (viaProxy && conn->https) return openTunnel(conn);
    return kOk;
}
