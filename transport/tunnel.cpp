// The CONNECT tunnel through an HTTP proxy to a TLS target.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "channel/webChannel.h"
#include "http/response.h"

namespace {

int proxyClosed() {
    webChannel::noteFailure(kPeerClosed, "the proxy closed the connection");
    return kPeerClosed;
}

}  // namespace

int webChannel::openTunnel(connection* conn) {
    // The channel's parameters go along, so the proxy gets its Basic
    // credentials; a copy, because a worker's response parser may store a
    // cookie meanwhile.
    AccessParams params = paramsSnapshot();
    std::string target = conn->host + ":" + conn->port;
    httpRequest request("CONNECT", target, target, nullptr, &params);
    std::string text = request.str();
    ssize_t sent = ::send(conn->socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent == 0 || (sent == -1 && isReset())) return proxyClosed();
    if (sent < (ssize_t)text.size()) return kTunnelSendShort;

    // One bounded read: a longer answer leaves its rest in the socket, where
    // the TLS handshake meets it.
    char answer[64];
    memset(answer, 0, sizeof(answer));
    ssize_t received = ::recv(conn->socket, answer, sizeof(answer) - 1, 0);
    if (received == 0 || (received == -1 && isReset())) return proxyClosed();
    return checkTunnelReply(answer, conn);
}

int webChannel::checkTunnelReply(const char* answer, connection* conn) {
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    int result = parseHttpResponseHeader(std::string_view(answer, strlen(answer)), code, headerLength, contentLength,
                                         conn);
    if (logging()) log("%s", answer);
    if (result < 0 || code < 200 || code > 299) {
        std::string status = statusSummary(answer);
        noteFailure(kTunnelRefused,
                    status.empty() ? std::string("proxy answer not understood") : "proxy answered " + status);
        return kTunnelRefused;
    }
    if (logging())
        log("VRAXSecureWebChannel::initSocket: %x is connected to %s:%s", (unsigned)(uintptr_t)conn, conn->host.c_str(),
            conn->port.c_str());
    return kOk;
}
