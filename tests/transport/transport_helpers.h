// Shared pieces of the transport tests: a channel with a captured log and a
// short transfer time-out, a bare listening socket for tests that need to
// hold the server end themselves, and small log and time helpers.
#ifndef WEBCHANNEL_TESTS_TRANSPORT_HELPERS_H
#define WEBCHANNEL_TESTS_TRANSPORT_HELPERS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"

namespace transporttest {

// 127.0.0.1 as the channel stores addresses: network byte order in the low
// 32 bits.
inline unsigned long loopbackAddress() {
    return (unsigned long)htonl(INADDR_LOOPBACK);
}

// "%x" of a record's address, as the channel writes it into its log lines.
inline std::string hexOf(const void* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%x", (unsigned)(uintptr_t)pointer);
    return text;
}

// A host name the resolver rejects by itself (an empty label), so the
// lookup fails without any query leaving the machine.
inline const char* unresolvableHost() {
    return "no..such..host";
}

class Stopwatch {
public:
    Stopwatch() : m_start(std::chrono::steady_clock::now()) {}
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count(); }

private:
    std::chrono::steady_clock::time_point m_start;
};

// A listening TCP socket on 127.0.0.1 (ephemeral port) whose accepted end
// the test drives by hand.
class Listener {
public:
    explicit Listener(int backlog = 16) {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        socklen_t length = sizeof(address);
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(m_fd, backlog) != 0 || getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            ADD_FAILURE() << "cannot listen on 127.0.0.1";
            return;
        }
        m_port = ntohs(address.sin_port);
    }
    ~Listener() {
        for (int fd : m_accepted) ::close(fd);
        if (m_fd >= 0) ::close(m_fd);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int port() const { return m_port; }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(m_port) + path; }

    // Accepts one pending connection, waiting at most timeoutMillis; -1 when
    // none came. The descriptor is closed with the listener.
    int acceptOne(int timeoutMillis = 5000) {
        pollfd waiter = {m_fd, POLLIN, 0};
        if (::poll(&waiter, 1, timeoutMillis) != 1) return -1;
        int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) m_accepted.push_back(fd);
        return fd;
    }

    // Abortive close of an accepted connection: the client gets a reset.
    void reset(int fd) {
        auto found = std::find(m_accepted.begin(), m_accepted.end(), fd);
        if (found == m_accepted.end()) return;
        linger abortive = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
        ::close(fd);
        m_accepted.erase(found);
    }

private:
    int m_fd = -1;
    int m_port = 0;
    std::vector<int> m_accepted;
};

// A port on 127.0.0.1 that refuses connections for as long as the object
// lives: the socket is bound, so nobody else can take the port, but it is
// not listening.
class RefusingPort {
public:
    RefusingPort() {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            ADD_FAILURE() << "cannot bind on 127.0.0.1";
            return;
        }
        m_port = ntohs(address.sin_port);
    }
    ~RefusingPort() {
        if (m_fd >= 0) ::close(m_fd);
    }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    int port() const { return m_port; }

private:
    int m_fd = -1;
    int m_port = 0;
};

// A channel ready for transfers, with its log captured and a transfer
// time-out of one second. The capture is declared first so that it
// outlives the channel, which closes the log when it is destroyed.
class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(channel.init(1), 0);
        channel.setParam(kParamTimeout, "1", true);
    }

    std::vector<std::string> logLines() const { return log.lines(); }
    bool logged(const std::string& line) const {
        std::vector<std::string> lines = log.lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    int loggedCount(const std::string& needle) const { return testsupport::countLines(log.text(), needle); }
    // Index of the first line equal to `line` at or after `from`, or -1.
    int lineIndex(const std::string& line, size_t from = 0) const {
        std::vector<std::string> lines = log.lines();
        for (size_t i = from; i < lines.size(); ++i)
            if (lines[i] == line) return (int)i;
        return -1;
    }

    testsupport::LogCapture log;
    webChannel channel;
};

}  // namespace transporttest

#endif
