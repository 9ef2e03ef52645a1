// Connecting a record: where the socket goes, in which mode it is left, and
// how a refused or unanswered connect is reported.
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>

#include <string>

#include "transport_helpers.h"

namespace {

using testsupport::openDescriptorCount;
using testsupport::peers;
using transporttest::hexOf;
using transporttest::loopbackAddress;
using transporttest::RefusingPort;
using transporttest::Stopwatch;

class SocketConnect : public transporttest::ChannelTest {};

TEST_F(SocketConnect, NullRecordIsRejected) {
    EXPECT_EQ(channel.initSocket(nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSocket: started"), 0);
}

TEST_F(SocketConnect, PlainRecordIsConnectedNonBlockingWithBothWaiters) {
    webChannel::connection conn(loopbackAddress(), "127.0.0.1", std::to_string(peers().httpPort), false);
    ASSERT_EQ(channel.initSocket(&conn, nullptr), 0) << log.text();
    EXPECT_GT(conn.socket, 0);
    EXPECT_GT(conn.readPoll, 0);
    EXPECT_GT(conn.writePoll, 0);
    EXPECT_EQ(conn.readyEvents, 0);
    EXPECT_EQ(conn.serverAddress.sin_family, AF_INET);
    EXPECT_EQ(ntohs(conn.serverAddress.sin_port), peers().httpPort);
    EXPECT_EQ(conn.serverAddress.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    int flags = fcntl(conn.socket, F_GETFL, 0);
    EXPECT_NE(flags & O_NONBLOCK, 0);
    // Plain sockets carry no socket time-outs: their waits are bounded instead.
    timeval limit{7, 7};
    socklen_t length = sizeof(limit);
    ASSERT_EQ(getsockopt(conn.socket, SOL_SOCKET, SO_RCVTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec, 0);
    EXPECT_EQ(limit.tv_usec, 0);
    EXPECT_TRUE(logged("VRAXSecureWebChannel::initSocket: started"));
    EXPECT_TRUE(logged("VRAXSecureWebChannel::initSocket: socket " + std::to_string(conn.socket) + "(" + hexOf(&conn) +
                       ") is connected to 127.0.0.1:" + std::to_string(peers().httpPort)))
        << log.text();

    // The write waiter reports the fresh socket writable at once.
    epoll_event event{};
    EXPECT_EQ(epoll_wait(conn.writePoll, &event, 1, 1000), 1);
    EXPECT_NE(event.events & EPOLLOUT, 0u);
    channel.closeSocket(&conn);
}

TEST_F(SocketConnect, RefusedPortFailsWithConnectError) {
    RefusingPort refusing;
    const int before = openDescriptorCount();
    int result = 0;
    Stopwatch watch;
    webChannel::connection* conn =
        channel.open("http://127.0.0.1:" + std::to_string(refusing.port()) + "/", nullptr, false, &result);
    EXPECT_LT(watch.seconds(), 1.0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(result, kConnectFailed);
    EXPECT_EQ(channel.m_errorCode, kConnectFailed);
    EXPECT_TRUE(channel.m_connections.empty());
    const std::string refused = std::to_string(ECONNREFUSED);
    EXPECT_TRUE(logged("VRAXSecureWebChannel::initSocket: connection error " + refused) ||
                logged("VRAXSecureWebChannel::initSocket: async connection error " + refused))
        << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::open: created connection"), 0);
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(SocketConnect, PortTextThatIsNoPortFailsWithoutConnecting) {
    // An empty port, 0, or a number that would wrap around to another port.
    for (const char* url : {"http://127.0.0.1:/", "http://127.0.0.1:0/", "http://127.0.0.1:65616/", "127.0.0.1:abc"}) {
        const int before = openDescriptorCount();
        int result = 0;
        EXPECT_EQ(channel.open(url, nullptr, false, &result), nullptr) << url;
        EXPECT_EQ(result, kConnectFailed) << url;
        EXPECT_TRUE(channel.m_connections.empty());
        EXPECT_EQ(openDescriptorCount(), before) << url;
    }
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSocket: connection error " + std::to_string(EINVAL)), 4);
    EXPECT_EQ(loggedCount("is connected to"), 0);
}

TEST_F(SocketConnect, RefusedTlsPortFailsBeforeAnyHandshake) {
    RefusingPort refusing;
    const int before = openDescriptorCount();
    int result = 0;
    webChannel::connection* conn =
        channel.open("https://127.0.0.1:" + std::to_string(refusing.port()) + "/", nullptr, false, &result);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(result, kConnectFailed);
    EXPECT_EQ(channel.m_errorCode, kConnectFailed);
    EXPECT_TRUE(channel.m_connections.empty());
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL:"), 0) << log.text();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(SocketConnect, ConnectErrorIsClearedBySuccessfulOpen) {
    RefusingPort refusing;
    ASSERT_EQ(channel.open("http://127.0.0.1:" + std::to_string(refusing.port()) + "/", nullptr, false), nullptr);
    ASSERT_EQ(channel.m_errorCode, kConnectFailed);
    ASSERT_NE(channel.open(peers().httpUrl("/"), nullptr, false), nullptr) << log.text();
    EXPECT_EQ(channel.m_errorCode, 0);
}

// A listener with a full accept queue drops further SYNs, so a connect to it
// stays unanswered: the connect time-out on loopback.
TEST_F(SocketConnect, UnansweredConnectTimesOutAfterTheTransferTimeout) {
    const int before = openDescriptorCount();
    {
        transporttest::Listener full(0);
        // Fill the accept queue (never accepted). Each filler either
        // completes or is itself left hanging, which means the queue is full.
        std::vector<int> fillers;
        bool saturated = false;
        for (int i = 0; i < 8 && !saturated; ++i) {
            int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            ASSERT_GE(fd, 0);
            fillers.push_back(fd);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            address.sin_port = htons((uint16_t)full.port());
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) continue;
            ASSERT_EQ(errno, EINPROGRESS);
            pollfd waiter = {fd, POLLOUT, 0};
            if (::poll(&waiter, 1, 300) == 0) saturated = true;
        }
        if (!saturated) {
            for (int fd : fillers) ::close(fd);
            GTEST_SKIP() << "this network stack answers connects beyond the accept queue";
        }

        int result = 0;
        Stopwatch watch;
        webChannel::connection* conn = channel.open(full.url("/"), nullptr, false, &result);
        const double elapsed = watch.seconds();
        for (int fd : fillers) ::close(fd);
        EXPECT_EQ(conn, nullptr);
        EXPECT_EQ(result, kConnectFailed);
        EXPECT_EQ(channel.m_errorCode, kConnectFailed);
        EXPECT_GE(elapsed, 0.9);
        EXPECT_LT(elapsed, 5.0);
        EXPECT_TRUE(logged("VRAXSecureWebChannel::initSocket: connection timeout")) << log.text();
        EXPECT_TRUE(channel.m_connections.empty());
        channel.close();
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
