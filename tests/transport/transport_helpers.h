// Shared by the transport and HTTP tests: a channel with its log captured and a one-second transfer time-out,
// a loopback port the test holds itself, a stopwatch for the time-outs, contents and scripted answers.
#ifndef WEBCHANNEL_TESTS_TRANSPORT_HELPERS_H
#define WEBCHANNEL_TESTS_TRANSPORT_HELPERS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>

#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace transporttest {

using namespace testsupport;

struct Stopwatch {
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); }
};

// The wait was ended by the one-second transfer time-out: not sooner, not much later.
inline ::testing::AssertionResult tookTheTimeout(double seconds) {
    if (seconds >= 0.9 && seconds < 5.0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "took " << seconds << " s instead of the 1 s time-out";
}

// A port on 127.0.0.1 held by the test. Not listening, it refuses every connect while it lives (and
// nobody else can take it); listening, the test accepts and drives the server end by hand.
class LoopbackPort {
public:
    explicit LoopbackPort(bool listening, int backlog = 16) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof(address);
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            (listening && ::listen(m_fd, backlog) != 0) ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            ADD_FAILURE() << "cannot bind on 127.0.0.1";
        m_port = ntohs(address.sin_port);
    }
    ~LoopbackPort() {
        if (m_peer >= 0) ::close(m_peer);
        if (m_fd >= 0) ::close(m_fd);
    }
    int port() const { return m_port; }
    std::string url(const std::string& path, const char* scheme = "http") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(m_port) + path;
    }
    // Accepts the one connection the test drives (within 5 s); -1 if none came.
    int acceptOne() {
        pollfd waiter = {m_fd, POLLIN, 0};
        if (::poll(&waiter, 1, 5000) == 1) m_peer = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        return m_peer;
    }
    // Abortive close of the accepted connection: the client gets a reset.
    void resetPeer() {
        linger abortive = {1, 0};
        setsockopt(m_peer, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
        ::close(m_peer);
        m_peer = -1;
    }

private:
    int m_fd = -1, m_port = 0, m_peer = -1;
};

// A channel as a host sets it up: one worker, a one-second transfer time-out. The capture is declared
// first so that it outlives the channel, which closes the log when it is destroyed.
class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(channel.init(1), 0);
        channel.setParam(kParamTimeout, "1", true);
    }
    int loggedCount(const std::string& needle) const { return countLines(log.text(), needle); }

    LogCapture log;
    webChannel channel;
};

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// `size` bytes, the same for the same seed: of any value, or letters only for bodies used as C text.
inline std::string pattern(size_t size, unsigned seed, bool letters = false) {
    std::string text(size, '\0');
    std::mt19937 random(seed);
    for (char& c : text) c = letters ? (char)('a' + random() % 26) : (char)(random() & 0xff);
    return text;
}

inline std::string hostOf(const ScriptServer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

// The path a raw request asks for, also when its line names the absolute URL.
inline std::string requestPath(const std::string& request) {
    const size_t first = request.find(' '), second = request.find(' ', first + 1);
    const std::string target = second == std::string::npos ? "" : request.substr(first + 1, second - first - 1);
    return target.rfind("http://", 0) == 0 ? target.substr(std::min(target.find('/', 7), target.size())) : target;
}

// Answers every request of a connection with respond(request), at most 100.
inline ScriptServer::Handler serveEach(std::function<std::string(const std::string&)> respond) {
    return [respond](ServerConnection& connection) {
        for (int i = 0; i < 100; ++i) {
            const std::string request = connection.readRequest();
            if (request.empty() || !connection.send(respond(request))) return;
        }
    };
}

}  // namespace transporttest

#endif
