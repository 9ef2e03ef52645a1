// Raw reads and writes on pooled connections: time-outs, hang-ups, the
// writability wait that reused connections skip, and TLS reads.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/script_server.h"
#include "transport_helpers.h"

namespace {

using testsupport::openDescriptorCount;
using testsupport::peers;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using transporttest::Listener;
using transporttest::Stopwatch;

constexpr unsigned kHangup = EPOLLRDHUP | EPOLLHUP;

class SocketReadWrite : public transporttest::ChannelTest {
protected:
    // Bytes waiting on the server end, without blocking ("" when none).
    static std::string pending(int fd) {
        char data[512];
        ssize_t got = recv(fd, data, sizeof(data), MSG_DONTWAIT);
        return got > 0 ? std::string(data, (size_t)got) : std::string();
    }
    // Replaces the record's write waiter with one that watches nothing, so
    // any wait on it can only time out. Restored by restoreWriteWaiter.
    void muteWriteWaiter(webChannel::connection* conn) {
        m_saved = conn->writePoll;
        conn->writePoll = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GT(conn->writePoll, 0);
    }
    void restoreWriteWaiter(webChannel::connection* conn) {
        ::close(conn->writePoll);
        conn->writePoll = m_saved;
    }

private:
    int m_saved = 0;
};

TEST_F(SocketReadWrite, ReadOnSilentServerTimesOut) {
    Listener silent;
    webChannel::connection* conn = channel.open(silent.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    ASSERT_GE(silent.acceptOne(), 0);
    char buffer[64];
    memset(buffer, 'x', sizeof(buffer));
    Stopwatch watch;
    EXPECT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), -2);
    const double elapsed = watch.seconds();
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(buffer[1], 'x');
    EXPECT_EQ(conn->hangupEvents, 0u);
}

TEST_F(SocketReadWrite, ReadAfterServerClosedGivesZeroAndAHangupBit) {
    std::atomic<int> served{0};
    ScriptServer server([&](ServerConnection& c) {
        ++served;
        c.close();
    });
    webChannel::connection* conn = channel.open(server.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    char buffer[64];
    memset(buffer, 'x', sizeof(buffer));
    Stopwatch watch;
    EXPECT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), 0);
    EXPECT_LT(watch.seconds(), 0.9);  // the close ended the wait, not the time-out
    EXPECT_NE(conn->hangupEvents & kHangup, 0u);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(served.load(), 1);
}

TEST_F(SocketReadWrite, WriteSendsTheBytesAndReadReturnsTheAnswer) {
    ScriptServer server([](ServerConnection& c) {
        if (!c.readRequest().empty()) c.send("pong");
        c.stall(15);
    });
    webChannel::connection* conn = channel.open(server.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    const std::string request = "GET /ping HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    EXPECT_EQ(channel.write(conn, request), (int)request.size());
    char buffer[64] = {0};
    ASSERT_EQ(channel.read(conn, buffer, sizeof(buffer) - 1, 0, false), 4);
    EXPECT_EQ(std::string(buffer, 4), "pong");
    EXPECT_EQ(conn->hangupEvents, 0u);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], request);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::write"), 0) << log.text();
}

TEST_F(SocketReadWrite, WriteOnFreshConnectionWaitsForWritabilityAndTimesOut) {
    Listener listener;
    webChannel::connection* conn = channel.open(listener.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    const int peer = listener.acceptOne();
    ASSERT_GE(peer, 0);
    ASSERT_EQ(conn->readyEvents, 0);
    muteWriteWaiter(conn);
    Stopwatch watch;
    EXPECT_EQ(channel.write(conn, "GET / HTTP/1.1\r\n\r\n"), -2);
    const double elapsed = watch.seconds();
    restoreWriteWaiter(conn);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(pending(peer), "");
    EXPECT_EQ(loggedCount(", result: -2"), 1) << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::write error: "), 1) << log.text();
}

TEST_F(SocketReadWrite, WriteOnReusedConnectionSendsWithoutWaiting) {
    Listener listener;
    webChannel::connection* conn = channel.open(listener.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    const int peer = listener.acceptOne();
    ASSERT_GE(peer, 0);
    ASSERT_EQ(channel.open(listener.url("/"), nullptr, false), conn);
    ASSERT_EQ(conn->readyEvents, 4);
    // A wait on this waiter could only time out: the send must not wait.
    muteWriteWaiter(conn);
    Stopwatch watch;
    const std::string request = "GET /again HTTP/1.1\r\n\r\n";
    EXPECT_EQ(channel.write(conn, request), (int)request.size());
    EXPECT_LT(watch.seconds(), 0.9);
    restoreWriteWaiter(conn);
    EXPECT_EQ(pending(peer), request);
    // write leaves the mark in place for the next request.
    EXPECT_EQ(conn->readyEvents, 4);
}

TEST_F(SocketReadWrite, WriteOnReusedConnectionAfterHangupSendsNothing) {
    Listener listener;
    webChannel::connection* conn = channel.open(listener.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    const int peer = listener.acceptOne();
    ASSERT_GE(peer, 0);
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);  // the server has finished with it
    char buffer[64];
    ASSERT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), 0);
    ASSERT_NE(conn->hangupEvents & EPOLLRDHUP, 0u);

    ASSERT_EQ(channel.open(listener.url("/"), nullptr, false), conn);
    ASSERT_EQ(conn->readyEvents, 4);
    EXPECT_EQ(channel.write(conn, "GET / HTTP/1.1\r\n\r\n"), 0);
    EXPECT_EQ(pending(peer), "");
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::write"), 0) << log.text();
}

TEST_F(SocketReadWrite, WriteAfterPeerResetReportsTheSocketError) {
    Listener listener;
    webChannel::connection* conn = channel.open(listener.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    const int peer = listener.acceptOne();
    ASSERT_GE(peer, 0);
    listener.reset(peer);
    // Wait (bounded) until the reset has reached the client's socket.
    ASSERT_EQ(channel.prepareSocket(conn, false), 0) << log.text();
    ASSERT_NE(conn->hangupEvents & kHangup, 0u);

    EXPECT_EQ(channel.write(conn, "GET / HTTP/1.1\r\n\r\n"), -1);
    EXPECT_TRUE(logged("VRAXSecureWebChannel::write socket error: " + std::to_string(ECONNRESET))) << log.text();
    EXPECT_TRUE(logged("VRAXSecureWebChannel::write error: " + std::to_string(ECONNRESET) + ", result: -1"))
        << log.text();
}

TEST_F(SocketReadWrite, PrepareSocketOnSilentSocketTimesOut) {
    Listener silent;
    webChannel::connection* conn = channel.open(silent.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    ASSERT_GE(silent.acceptOne(), 0);
    EXPECT_EQ(channel.prepareSocket(conn, true), 1);
    Stopwatch watch;
    EXPECT_EQ(channel.prepareSocket(conn, false), -2);
    const double elapsed = watch.seconds();
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(conn->hangupEvents, 0u);
}

TEST_F(SocketReadWrite, PrepareSocketSeesDataWithoutConsumingIt) {
    ScriptServer server([](ServerConnection& c) {
        c.send("ready");
        c.stall(15);
    });
    webChannel::connection* conn = channel.open(server.url("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    EXPECT_EQ(channel.prepareSocket(conn, false), 1);
    char buffer[16] = {0};
    ASSERT_EQ(channel.read(conn, buffer, sizeof(buffer) - 1, 0, false), 5);
    EXPECT_EQ(std::string(buffer), "ready");
}

class TlsReadWrite : public transporttest::ChannelTest {
protected:
    // TLS reads may take up to the full read size in one call.
    std::vector<char> buffer = std::vector<char>(kBufferSlice, 'x');
};

TEST_F(TlsReadWrite, WriteAndFillReadCarryAWholeExchange) {
    webChannel::connection* conn = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    const std::string request = "GET /five.bin HTTP/1.1\r\nHost: 127.0.0.1:443\r\n\r\n";
    EXPECT_EQ(channel.write(conn, request), (int)request.size());
    int got = channel.read(conn, buffer.data(), kMaxRead, 0, true);
    ASSERT_GT(got, 0) << log.text();
    const std::string answer(buffer.data(), (size_t)got);
    EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
    EXPECT_EQ(answer.substr(answer.size() - 9), "\r\n\r\nhello") << answer;
}

TEST_F(TlsReadWrite, ReadThatTimesOutGivesZeroInFillModeAndTheFailureOtherwise) {
    webChannel::connection* conn = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    // Nothing was asked, so the server stays silent for the whole time-out.
    Stopwatch watch;
    EXPECT_EQ(channel.read(conn, buffer.data(), kMaxRead, 0, true), 0);
    double elapsed = watch.seconds();
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(buffer[1], 'x');

    buffer[0] = 'x';
    Stopwatch again;
    EXPECT_LT(channel.read(conn, buffer.data(), kMaxRead, 0, false), 0);
    elapsed = again.seconds();
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(SocketReadWrite, NoDescriptorLeftAfterTimeoutsAndHangups) {
    const int before = openDescriptorCount();
    {
        ScriptServer silent([](ServerConnection& c) { c.stall(15); });
        ScriptServer closing([](ServerConnection& c) { c.close(); });
        char buffer[32];
        webChannel::connection* quiet = channel.open(silent.url("/"), nullptr, false);
        ASSERT_NE(quiet, nullptr);
        EXPECT_EQ(channel.read(quiet, buffer, sizeof(buffer), 0, false), -2);
        webChannel::connection* gone = channel.open(closing.url("/"), nullptr, false);
        ASSERT_NE(gone, nullptr);
        EXPECT_EQ(channel.read(gone, buffer, sizeof(buffer), 0, false), 0);
        ASSERT_NE(channel.open(closing.url("/"), nullptr, true), nullptr);
        channel.close();
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
