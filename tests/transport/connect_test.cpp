// Connection records: opening, reuse, pools, close(); raw reads and writes after time-outs, hang-ups and resets.
#include <openssl/x509_vfy.h>
#include <sys/epoll.h>
#include <sys/stat.h>

#include <cstring>
#include <set>

#include "transport_helpers.h"

namespace {

using namespace transporttest;

const std::string kUnresolvable = "http://no..such..host/x";  // an empty label: rejected without a query
const std::string kHandshakeDone = "VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0";

class Connect : public ChannelTest {
protected:
    std::string httpKey() const { return "127.0.0.1:" + std::to_string(peers().httpPort); }
};

TEST_F(Connect, FailedOpensGiveTheirCodeAndLeaveNoRecordNoCacheEntryAndNoDescriptor) {
    LoopbackPort refusing(false);
    const std::string refused = "connection error " + std::to_string(ECONNREFUSED);  // also "async connection error"
    const std::string invalid = "initSocket: connection error " + std::to_string(EINVAL);
    const std::string lookup = "parseURL: failed with return code ";
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {refusing.url("/"), kConnectFailed, refused},
        {refusing.url("/", "https"), kConnectFailed, refused},  // before any handshake
        {"http://127.0.0.1:/", kConnectFailed, invalid},        // port texts that are no port, or would wrap
        {"http://127.0.0.1:0/", kConnectFailed, invalid},
        {"http://127.0.0.1:65616/", kConnectFailed, invalid},
        {"127.0.0.1:abc", kConnectFailed, invalid},
        {kUnresolvable, kProxyUnusable, lookup},
        {kUnresolvable, kProxyUnusable, lookup},  // a failed lookup is not cached
    };
    const int descriptors = openDescriptorCount();
    for (const auto& [url, code, line] : cases) {
        const int lines = loggedCount(line);
        int result = 0;
        Stopwatch watch;
        EXPECT_EQ(channel.open(url, nullptr, false, &result), nullptr) << url;
        EXPECT_TRUE(watch.tookTheTimeout(false)) << url;
        EXPECT_TRUE(result == code && channel.m_errorCode == code) << url << ": " << result;
        EXPECT_EQ(loggedCount(line), lines + 1) << url;
        EXPECT_TRUE(channel.m_connections.empty()) << url;
        EXPECT_EQ(openDescriptorCount(), descriptors) << url;
    }
    EXPECT_EQ(loggedCount("connectSSL:") + loggedCount("created connection"), 0);
    // A URL without a host is refused before any socket, leaving the error alone.
    EXPECT_EQ(channel.open("http:///five.bin", nullptr, false), nullptr);
    EXPECT_EQ(channel.m_errorCode, kProxyUnusable);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSocket: started"), 6);  // none after a failed lookup either
    ASSERT_NE(channel.open(peers().httpUrl("/"), nullptr, false), nullptr);
    EXPECT_EQ(channel.m_errorCode, 0);  // cleared by a successful open
}

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
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(result, kConnectFailed);
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

// Also the handshake with the self-signed peer, and close() releasing failed handshakes and replaced records.
TEST_F(Connect, RecordsAreReusedByHostAndPortReplacedOnReconnectAndReleasedByClose) {
    const int descriptors = openDescriptorCount();
    std::atomic<int> served{0};
    {
        ScriptServer garbage([&](ServerConnection& c) {
            ++served;
            c.readBytes(5);  // the start of the ClientHello
            c.send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
            c.stall(15);
        });
        ScriptServer closing([](ServerConnection& c) { c.close(); });
        int result = 1;
        webChannel::connection* plain = channel.open(peers().httpUrl("/"), nullptr, false, &result);
        webChannel::connection* tls = channel.open(peers().httpsUrl("/five.bin"), nullptr, false, &result);
        ASSERT_TRUE(plain != nullptr && tls != nullptr) << log.text();
        // The certificate names localhost, not 127.0.0.1: the self-signed chain fails verification, only logged.
        EXPECT_EQ(loggedCount("Verifying certificate /CN=localhost : FAIL"), 1) << log.text();
        EXPECT_EQ(loggedCount("connectSSL: certificate verification failed with code " +
                              std::to_string(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT)),
                  1);
        // The trust store loaded at init: the first of the two places that exists.
        struct stat store;
        const std::string bundle = "/etc/pki/tls/certs/ca-bundle.crt";
        const std::string path = stat(bundle.c_str(), &store) == 0 ? bundle : "/etc/ssl/certs";
        const std::string kind = stat(path.c_str(), &store) != 0 ? "none" : S_ISDIR(store.st_mode) ? "dir" : "file";
        EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSSL: using " + path + " as certificate store " + kind),
                  kind == "none" ? 0 : 1);
        // Reused whatever the scheme, without a second handshake; only plain records are marked writable (bit 4).
        EXPECT_EQ(channel.open("https://" + httpKey() + "/five.bin", nullptr, false, &result), plain);
        EXPECT_EQ(channel.open(peers().httpsUrl("/empty.bin"), nullptr, false), tls);
        EXPECT_EQ(std::make_tuple(result, plain->readyEvents, tls->readyEvents, loggedCount(kHandshakeDone)),
                  std::make_tuple(0, 4, 0, 1));
        // A reconnect takes the old record's address: a new lookup would fail on the spoiled cache.
        channel.m_hostAddresses[httpKey()] = 0;
        const int lookups = loggedCount("VRAXSecureWebChannel::parseURL:");
        webChannel::connection* freshPlain = channel.open(peers().httpUrl("/"), nullptr, true, &result);
        ASSERT_NE(freshPlain, nullptr) << log.text();
        EXPECT_EQ(std::make_tuple(result, loggedCount("VRAXSecureWebChannel::parseURL:"), freshPlain->readyEvents),
                  std::make_tuple(0, lookups, 0));
        EXPECT_EQ(freshPlain->address, htonl(INADDR_LOOPBACK));
        webChannel::connection* freshTls = channel.open(peers().httpsUrl("/"), nullptr, true);
        ASSERT_NE(freshTls, nullptr) << log.text();
        EXPECT_TRUE(plain->socket == 0 && tls->socket == 0 && tls->ssl == nullptr);  // closed, but still valid
        EXPECT_TRUE(freshTls->ssl != nullptr && SSL_is_init_finished(freshTls->ssl));
        EXPECT_EQ(loggedCount(kHandshakeDone), 2);
        EXPECT_EQ(channel.m_connections, (std::map<std::string, webChannel::connection*>{{httpKey(), freshPlain},
                                                                                         {"127.0.0.1:443", freshTls}}));
        EXPECT_EQ(channel.open("https://127.0.0.1:" + std::to_string(garbage.port()) + "/", nullptr, false), nullptr);
        EXPECT_EQ(channel.m_errorCode, kTlsHandshake);
        EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL: handshake result -1, error code 1"), 1) << log.text();
        webChannel::connection idle(htonl(INADDR_LOOPBACK), "127.0.0.1", "80", false);
        channel.closeSocket(&idle);  // not connected: must not close descriptor 0
        channel.closeSocket(nullptr);
        char buffer[32];
        EXPECT_EQ(channel.read(channel.open(closing.url("/"), nullptr, false), buffer, sizeof(buffer), 0, false), 0);
        ASSERT_NE(channel.open(closing.url("/"), nullptr, true), nullptr);
        EXPECT_EQ(channel.m_connections.size(), 3u);
        channel.close();
    }
    EXPECT_EQ(served.load(), 1);
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
    EXPECT_EQ(loggedCount(kHandshakeDone), 4);
    // Each host and port is resolved once, whoever came first; the others take the cached address.
    for (const std::string& key : {httpKey(), std::string("127.0.0.1:443")}) {
        EXPECT_EQ(loggedCount("parseURL: IP address of " + key + " is 100007f"), 1) << log.text();
        EXPECT_EQ(loggedCount("parseURL: cached IP address of " + key + " is 100007f"), 3) << log.text();
    }
    // The proxy answer is asked once for each scheme and host.
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::resolveProxy: started with "), 2) << log.text();
    // A worker gets its own record back.
    EXPECT_EQ(channel.open(peers().httpUrl("/"), &workers[0], false), workers[0].connections[httpKey()]);
    for (webChannel::threadData& worker : workers) channel.emptyPool(worker.connections, worker.retired);
}

class ReadWrite : public ChannelTest {
protected:
    void SetUp() override {
        ChannelTest::SetUp();
        conn = channel.open(port.url("/"), nullptr, false);
        peer = port.acceptOne();
        ASSERT_TRUE(conn != nullptr && peer >= 0) << log.text();
        memset(buffer, 'x', sizeof(buffer));
    }

    LoopbackPort port{true};
    webChannel::connection* conn = nullptr;
    int peer = -1;
    char buffer[64];
};

TEST_F(ReadWrite, SilenceEndsWaitsAfterTheTimeoutPlainOrTlsAndAHangupAtOnce) {
    Stopwatch watch;
    EXPECT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), -2);
    EXPECT_TRUE(watch.tookTheTimeout());
    EXPECT_EQ(std::string(buffer, 2), std::string("\0x", 2));  // terminated, nothing else written
    EXPECT_EQ(channel.prepareSocket(conn, true), 1);
    Stopwatch again;
    EXPECT_EQ(channel.prepareSocket(conn, false), -2);
    EXPECT_TRUE(again.tookTheTimeout());
    EXPECT_EQ(conn->hangupEvents, 0u);
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    Stopwatch hangup;
    buffer[0] = 'x';
    EXPECT_EQ(channel.read(conn, buffer, sizeof(buffer), 0, false), 0);
    EXPECT_TRUE(hangup.tookTheTimeout(false));
    EXPECT_EQ(buffer[0], 0);
    ASSERT_NE(conn->hangupEvents & EPOLLRDHUP, 0u);
    // Reused, the record is marked writable, so there is no wait; and nothing is sent.
    ASSERT_EQ(channel.open(port.url("/"), nullptr, false), conn);
    ASSERT_EQ(conn->readyEvents, 4);
    EXPECT_EQ(channel.write(conn, "GET / HTTP/1.1\r\n\r\n"), 0);
    EXPECT_TRUE(recv(peer, buffer, sizeof(buffer), MSG_DONTWAIT) == -1 && errno == EAGAIN);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::write"), 0) << log.text();
    // A timed-out TLS read gives 0 in fill mode only.
    std::vector<char> slice(kBufferSlice, 'x');  // TLS reads may take the full read size
    webChannel::connection* tls = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(tls, nullptr) << log.text();
    for (bool fill : {true, false}) {  // nothing was asked: the server stays silent
        slice[0] = slice[1] = 'x';
        Stopwatch watch;
        const int result = channel.read(tls, slice.data(), kMaxRead, 0, fill);
        EXPECT_TRUE(fill ? result == 0 : result < 0) << fill << " " << result;
        EXPECT_TRUE(watch.tookTheTimeout());
        EXPECT_EQ(std::string(slice.data(), 2), std::string("\0x", 2));
    }
}

TEST_F(ReadWrite, WriteAfterAResetGivesMinusOneAndLogsTheSocketError) {
    port.resetPeer();
    ASSERT_EQ(channel.prepareSocket(conn, false), 0) << log.text();  // a bounded wait for the reset
    ASSERT_NE(conn->hangupEvents & (EPOLLRDHUP | EPOLLHUP), 0u);
    EXPECT_EQ(channel.write(conn, "GET / HTTP/1.1\r\n\r\n"), -1);
    const std::string reset = std::to_string(ECONNRESET);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::write socket error: " + reset), 1) << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::write error: " + reset + ", result: -1"), 1) << log.text();
}

}  // namespace
