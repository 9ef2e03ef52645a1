// Shared by the transport and HTTP tests: the channel, a loopback port, a stopwatch, contents, scripted answers.
#ifndef WEBCHANNEL_TESTS_TRANSPORT_HELPERS_H
#define WEBCHANNEL_TESTS_TRANSPORT_HELPERS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>

#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace transporttest {

using namespace testsupport;

// Times a wait: ended by the one-second transfer time-out (not sooner, not much later), or well before it.
struct Stopwatch {
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    ::testing::AssertionResult tookTheTimeout(bool expected = true) const {
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (expected ? s >= 0.9 && s < 5.0 : s < 0.9) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "took " << s << " s; the 1 s time-out expected: " << expected;
    }
};

// A port on 127.0.0.1 held by the test. Not listening, it refuses every connect while it lives (and nobody else
// can take it); listening, the test accepts the one connection it drives (within 5 s).
struct LoopbackPort {
    explicit LoopbackPort(bool listening, int backlog = 16) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof(address);
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            (listening && ::listen(fd, backlog) != 0) ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            ADD_FAILURE() << "cannot bind on 127.0.0.1";
        port = ntohs(address.sin_port);
    }
    ~LoopbackPort() {
        if (peer >= 0) ::close(peer);
        if (fd >= 0) ::close(fd);
    }
    std::string url(const std::string& path, const char* scheme = "http") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + path;
    }
    int acceptOne() {
        pollfd waiter = {fd, POLLIN, 0};
        if (::poll(&waiter, 1, 5000) == 1) peer = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        return peer;
    }
    int fd = -1, port = 0, peer = -1;
};

// One worker, a one-second transfer time-out; the log capture outlives the channel, which closes the log.
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

// Answers every request of a connection with respond(request), at most `most` of them, then closes.
inline ScriptServer::Handler serveEach(std::function<std::string(const std::string&)> respond, int most = 100) {
    return [respond, most](ServerConnection& connection) {
        for (int i = 0; i < most; ++i) {
            const std::string request = connection.readRequest();
            if (request.empty() || !connection.send(respond(request))) return;
        }
    };
}

}  // namespace transporttest

#endif
