// Connection records and the pools that hand them out by host and port.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "transport/idle_registry.h"
#include "transport/poll_wait.h"
#include "transport/sigpipe.h"

webChannel::connection::connection(unsigned long address_, std::string host_, std::string port_, bool https_)
    : readPoll(0),
      writePoll(0),
      readyEvents(0),
      hangupEvents(0),
      socket(0),
      address(address_),
      host(std::move(host_)),
      port(std::move(port_)),
      https(https_),
      ssl(nullptr) {
    memset(&serverAddress, 0, sizeof(serverAddress));
}

namespace {

// The pooled connection to `key` when it may serve the request. One that may
// not (a reconnect is asked for, or it was made under another trust setting:
// a server accepted under one says nothing about another) is closed and
// retired, as the caller may still hold it; its address is kept in `address`.
webChannel::connection* pooled(webChannel& channel, std::map<std::string, webChannel::connection*>& pool,
                               std::vector<webChannel::connection*>& retired, const std::string& key, bool reconnect,
                               const std::optional<std::string>& trust, unsigned long& address) {
    auto found = pool.find(key);
    if (found == pool.end()) return nullptr;
    webChannel::connection* conn = found->second;
    if (!channel.m_idle->take(conn)) {
        // Closed while idle, to make room for another descriptor.
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::open: connection %x to %s was closed while idle",
                            (unsigned)(uintptr_t)conn, key.c_str());
        address = conn->address;
        pool.erase(found);
        retired.push_back(conn);
        return nullptr;
    }
    const bool sameTrust = !conn->https || conn->verifyPeer == trust;
    if (!reconnect && sameTrust) {
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::open: reusing existing connection %x to %s",
                            (unsigned)(uintptr_t)conn, key.c_str());
        if (!conn->https) conn->readyEvents = EPOLLOUT;
        return conn;
    }
    if (!sameTrust && webChannel::logging())
        webChannel::log(
            "VRAXSecureWebChannel::open: replacing connection %x to %s made under another verification setting",
            (unsigned)(uintptr_t)conn, key.c_str());
    address = conn->address;
    channel.closeConnection(conn);
    pool.erase(found);
    retired.push_back(conn);
    return nullptr;
}

}  // namespace

webChannel::connection* webChannel::open(std::string url, threadData* worker, bool reconnect, int* result) {
    std::map<std::string, connection*>& pool = worker != nullptr ? worker->connections : m_connections;
    std::vector<connection*>& retired = worker != nullptr ? worker->retired : m_retiredConnections;
    // Only calls outside a batch report through the channel's error state:
    // workers must not overwrite a batch's first failure.
    auto report = [&](int code) {
        if (result != nullptr) *result = code;
        if (worker == nullptr) storeOpenFailure(code);
    };

    std::string host, port, path, credentials;
    bool https = false;
    parseURL(url, nullptr, host, port, path, credentials, &https);
    if (host.empty()) {
        noteFailure(kInvalidArgument, "no host in the URL");
        if (result != nullptr) *result = kInvalidArgument;
        return nullptr;
    }
    std::string key = host + ":" + port;
    unsigned long address = 0;
    const std::optional<std::string> trust = https ? verifySetting() : std::nullopt;
    if (connection* conn = pooled(*this, pool, retired, key, reconnect, trust, address)) {
        if (result != nullptr) *result = kOk;
        return conn;
    }

    const std::string& proxyHost = https ? m_httpsProxyHost : m_httpProxyHost;
    if (proxyHost.empty() && address == 0) {
        std::string resolvedHost, resolvedPort, resolvedPath;
        parseURL(url, &address, resolvedHost, resolvedPort, resolvedPath, nullptr);
        if (address == 0) {
            report(kProxyUnusable);
            return nullptr;
        }
    }

    connection* conn = new connection(address, host, port, https);
    conn->verifyPeer = trust;
    int code = initSocket(conn, worker);
    if (code == kOk && https) code = connectSSL(conn);
    report(code);
    if (code != kOk) {
        destroyConnection(conn);
        return nullptr;
    }
    pool[key] = conn;
    if (logging())
        log("VRAXSecureWebChannel::open: created connection %x to %s, socket %d", (unsigned)(uintptr_t)conn,
            key.c_str(), conn->socket);
    return conn;
}

void webChannel::closeSocket(connection* conn) {
    if (conn == nullptr || conn->socket == 0) return;
    if (logging()) log("VRAXSecureWebChannel::closeSocket: closing socket %d", conn->socket);
    // Both waiters go with the socket: a record is never reconnected in
    // place, and a waiter left open would leak a descriptor per connection.
    if (conn->readPoll > 0) ::close(conn->readPoll);
    if (conn->writePoll > 0) ::close(conn->writePoll);
    conn->readPoll = 0;
    conn->writePoll = 0;
    shutdown(conn->socket, SHUT_RDWR);
    ::close(conn->socket);
    conn->socket = 0;
}

void webChannel::closeSSL(connection* conn) {
    if (conn == nullptr || conn->ssl == nullptr) return;
    {
        // The close alert is a write to a peer that may be gone.
        SigpipeBlock guard;
        SSL_shutdown(conn->ssl);
    }
    SSL_set_connect_state(conn->ssl);
    SSL_free(conn->ssl);
    conn->ssl = nullptr;
}

int webChannel::prepareSocket(connection* conn, bool forWriting) {
    unsigned wanted = forWriting ? EPOLLOUT : EPOLLIN;
    conn->hangupEvents = 0;
    unsigned events = 0;
    int waited = waitEvent(forWriting ? conn->writePoll : conn->readPoll, getProxyTimeout(), events);
    while (waited >= 1) {
        conn->hangupEvents = events & kHangupBits;
        if ((events & wanted) && !(events & EPOLLERR)) return 1;
        if (events & EPOLLERR) return conn->hangupEvents != 0 ? 0 : -1;
        if (conn->hangupEvents != 0 || (events & (wanted | kErrorOrHangupBits))) return 0;
        waited = waitEvent(forWriting ? conn->writePoll : conn->readPoll, getProxyTimeout(), events);
    }
    if (waited == 0) return -2;
    return conn->hangupEvents != 0 ? 0 : -1;
}

void webChannel::closeConnection(connection* conn) {
    closeSSL(conn);
    closeSocket(conn);
}

void webChannel::destroyConnection(connection* conn) {
    m_idle->forget(conn);
    closeConnection(conn);
    delete conn;
}

void webChannel::dropConnection(connection* conn, threadData* worker) {
    if (conn == nullptr) return;
    closeConnection(conn);
    std::map<std::string, connection*>& pool = worker != nullptr ? worker->connections : m_connections;
    std::vector<connection*>& retired = worker != nullptr ? worker->retired : m_retiredConnections;
    auto pooled = pool.find(conn->host + ":" + conn->port);
    if (pooled != pool.end() && pooled->second == conn) {
        pool.erase(pooled);
        retired.push_back(conn);
    }
}

void webChannel::parkConnection(connection* conn, threadData* worker) {
    if (conn == nullptr) return;
    std::map<std::string, connection*>& pool = worker != nullptr ? worker->connections : m_connections;
    std::vector<connection*>& retired = worker != nullptr ? worker->retired : m_retiredConnections;
    std::string capText;
    const long cap = findParam(kParamIdleCap, capText) ? idleCapFrom(capText) : -1;
    for (connection* closed : m_idle->park(conn, &pool, cap)) {
        const std::string key = closed->host + ":" + closed->port;
        if (logging())
            log("VRAXSecureWebChannel::parkConnection: closed idle connection %x to %s beyond the cap of %ld",
                (unsigned)(uintptr_t)closed, key.c_str(), cap);
        auto pooled = pool.find(key);
        if (pooled != pool.end() && pooled->second == closed) pool.erase(pooled);
        // The caller of the request that parked it may still hold it.
        retired.push_back(closed);
    }
}

bool webChannel::relieveDescriptors(int error) {
    const size_t closed = m_idle->relieve();
    if (logging())
        log("VRAXSecureWebChannel::relieveDescriptors: %s: closed %zu idle connections", systemText(error).c_str(),
            closed);
    return closed > 0;
}

void webChannel::emptyPool(std::map<std::string, connection*>& pool, std::vector<connection*>& retired) {
    for (auto& entry : pool) destroyConnection(entry.second);
    pool.clear();
    for (connection* conn : retired) destroyConnection(conn);
    retired.clear();
}
