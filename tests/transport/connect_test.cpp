// Connection records: opening, reuse, pools, close(); raw reads and writes after time-outs and hang-ups. Opens that
// fail (refused, no port, no host) are the BadInput and ErrorDetail tests'.
#include <openssl/x509_vfy.h>
#include <sys/epoll.h>
#include <sys/stat.h>

#include <set>

#include "transport_helpers.h"

namespace {

using namespace transporttest;

const std::string kHandshakeDone = "VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0";

class Connect : public ChannelTest {
protected:
    std::string httpKey() const { return "127.0.0.1:" + std::to_string(peers().httpPort); }
};

// A listener with a full accept queue drops further SYNs: the connect stays unanswered.
TEST_F(Connect, UnansweredConnectFailsAfterTheTransferTimeoutLeavingNoDescriptor) {
    LoopbackPort full(true, 0);
    const int descriptors = openDescriptorCount();
    std::vector<int> fillers;  // never accepted; once one is left hanging, the queue is full
    bool saturated = false;
    for (int i = 0; i < 8 && !saturated; ++i) {
        fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        sockaddr_in address{AF_INET, htons((uint16_t)full.port), {htonl(INADDR_LOOPBACK)}, {}};
        if (::connect(fillers.back(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) continue;
        pollfd waiter = {fillers.back(), POLLOUT, 0};
        saturated = errno == EINPROGRESS && ::poll(&waiter, 1, 300) == 0;
    }
    int result = 0;
    Stopwatch watch;
    webChannel::connection* conn = saturated ? channel.open(full.url("/"), nullptr, false, &result) : nullptr;
    EXPECT_TRUE(!saturated || watch.tookTheTimeout());
    for (int fd : fillers) ::close(fd);
    if (!saturated) GTEST_SKIP() << "this network stack answers connects beyond the accept queue";
    EXPECT_TRUE(conn == nullptr && result == kConnectFailed);
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

// Records are reused by host and port whatever the scheme, without a second handshake; a reconnect replaces one
// (taking its address, not a new lookup) and close() releases them all, also a record whose server closed.
TEST_F(Connect, RecordsAreReusedByHostAndPortReplacedOnReconnectAndReleasedByClose) {
    const int descriptors = openDescriptorCount();
    {
        ScriptServer closing([](ServerConnection& c) { c.close(); });
        webChannel::connection* plain = channel.open(peers().httpUrl("/"), nullptr, false);
        webChannel::connection* tls = channel.open(peers().httpsUrl("/five.bin"), nullptr, false);
        ASSERT_TRUE(plain != nullptr && tls != nullptr) << log.text();
        // The certificate names localhost, not 127.0.0.1: the self-signed chain fails verification, only logged.
        EXPECT_EQ(loggedCount("Verifying certificate /CN=localhost : FAIL"), 1) << log.text();
        EXPECT_EQ(loggedCount("connectSSL: certificate verification failed with code " +
                              std::to_string(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT)),
                  1);
        // The trust store: the first of the two places that exists.
        struct stat store;
        const std::string bundle = "/etc/pki/tls/certs/ca-bundle.crt";
        const std::string path = stat(bundle.c_str(), &store) == 0 ? bundle : "/etc/ssl/certs";
        const std::string kind = stat(path.c_str(), &store) != 0 ? "none" : S_ISDIR(store.st_mode) ? "dir" : "file";
        EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSSL: using " + path + " as certificate store " + kind),
                  kind == "none" ? 0 : 1);
        EXPECT_EQ(channel.open("https://" + httpKey() + "/five.bin", nullptr, false), plain);
        EXPECT_EQ(channel.open(peers().httpsUrl("/empty.bin"), nullptr, false), tls);
        EXPECT_EQ(loggedCount(kHandshakeDone), 1);
        channel.m_hostAddresses[httpKey()] = 0;  // a new lookup would take this spoiled address
        webChannel::connection* freshPlain = channel.open(peers().httpUrl("/"), nullptr, true);
        ASSERT_NE(freshPlain, nullptr) << log.text();
        EXPECT_EQ(freshPlain->address, htonl(INADDR_LOOPBACK));
        webChannel::connection* freshTls = channel.open(peers().httpsUrl("/"), nullptr, true);
        ASSERT_NE(freshTls, nullptr) << log.text();
        EXPECT_TRUE(freshTls->ssl != nullptr && SSL_is_init_finished(freshTls->ssl));
        EXPECT_EQ(channel.m_connections, (std::map<std::string, webChannel::connection*>{{httpKey(), freshPlain},
                                                                                         {"127.0.0.1:443", freshTls}}));
        webChannel::connection idle(htonl(INADDR_LOOPBACK), "127.0.0.1", "80", false);
        channel.closeSocket(&idle);  // not connected: must not close descriptor 0
        channel.closeSocket(nullptr);
        char buffer[32];
        EXPECT_EQ(channel.read(channel.open(closing.url("/"), nullptr, false), buffer, sizeof(buffer), 0, false), 0);
        ASSERT_NE(channel.open(closing.url("/"), nullptr, true), nullptr);
        channel.close();
    }
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST_F(Connect, WorkersOpeningAtOnceKeepPoolsOfTheirOwnAndShareOneLookupAndProxyAnswer) {
    channel.setParam(kParamProxyPerHost, "1", true);
    std::vector<webChannel::threadData> workers(4);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < workers.size(); ++i) {
        workers[i].channel = &channel;
        workers[i].index = (int)i;
        threads.emplace_back([&, i] {
            channel.open(peers().httpUrl("/"), &workers[i], false);
            channel.open(peers().httpsUrl("/"), &workers[i], false);
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::set<webChannel::connection*> records;
    for (webChannel::threadData& worker : workers)
        for (const auto& entry : worker.connections) records.insert(entry.second);
    EXPECT_TRUE(records.size() == 8 && records.count(nullptr) == 0) << log.text();  // none missing, none shared
    EXPECT_TRUE(channel.m_connections.empty());
    // Each host and port is resolved once, whoever came first, and the proxy asked once for each scheme and host.
    for (const std::string& key : {httpKey(), std::string("127.0.0.1:443")})
        EXPECT_EQ(loggedCount("parseURL: IP address of " + key + " is 100007f"), 1) << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::resolveProxy: started with "), 2) << log.text();
    EXPECT_EQ(channel.open(peers().httpUrl("/"), &workers[0], false), workers[0].connections[httpKey()]);
    for (webChannel::threadData& worker : workers) channel.emptyPool(worker.connections, worker.retired);
}

// Silence ends a wait after the time-out (plain or TLS), a hang-up at once; a hung-up record sends nothing.
TEST_F(ChannelTest, ReadsEndAfterTheTimeoutOrAtOnceOnAHangup) {
    LoopbackPort port(true);
    webChannel::connection* conn = channel.open(port.url("/"), nullptr, false);
    const int peer = port.acceptOne();
    ASSERT_TRUE(conn != nullptr && peer >= 0) << log.text();
    char buffer[64];
    memset(buffer, 'x', sizeof(buffer));
    Stopwatch watch;
    EXPECT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), -2);
    EXPECT_TRUE(watch.tookTheTimeout());
    EXPECT_EQ(std::string(buffer, 2), std::string("\0x", 2));  // terminated, nothing else written
    EXPECT_EQ(channel.prepareSocket(conn, true), 1);
    Stopwatch again;
    EXPECT_EQ(channel.prepareSocket(conn, false), -2);
    EXPECT_TRUE(again.tookTheTimeout());
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    Stopwatch hangup;
    EXPECT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), 0);
    EXPECT_TRUE(hangup.tookTheTimeout(false));
    ASSERT_NE(conn->hangupEvents & EPOLLRDHUP, 0u);
    ASSERT_EQ(channel.open(port.url("/"), nullptr, false), conn);  // reused without a wait
    EXPECT_EQ(channel.write(conn, "GET / HTTP/1.1\r\n\r\n"), 0);
    EXPECT_TRUE(recv(peer, buffer, sizeof(buffer), MSG_DONTWAIT) == -1 && errno == EAGAIN);
    // A timed-out TLS read gives 0 in fill mode only.
    std::vector<char> slice(kBufferSlice, 'x');  // TLS reads may take the full read size
    webChannel::connection* tls = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(tls, nullptr) << log.text();
    for (bool fill : {true, false}) {  // nothing was asked: the server stays silent
        Stopwatch watch;
        const int result = channel.read(tls, slice.data(), kMaxRead, 0, fill);
        EXPECT_TRUE(fill ? result == 0 : result < 0) << fill << " " << result;
        EXPECT_TRUE(watch.tookTheTimeout());
    }
}

}  // namespace
