// The connection pools: reuse by host and port, reconnects, failed opens
// that leave nothing behind, and descriptors released by close().
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/script_server.h"
#include "transport_helpers.h"

namespace {

using testsupport::openDescriptorCount;
using testsupport::peers;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using transporttest::hexOf;
using transporttest::loopbackAddress;
using transporttest::RefusingPort;
using transporttest::unresolvableHost;

class ConnectionPool : public transporttest::ChannelTest {
protected:
    std::string httpKey() const { return "127.0.0.1:" + std::to_string(peers().httpPort); }
    std::string reuseLine(const webChannel::connection* conn, const std::string& key) const {
        return "VRAXSecureWebChannel::open: reusing existing connection " + hexOf(conn) + " to " + key;
    }
};

TEST_F(ConnectionPool, TwoTlsUrlsOfOneHostShareTheRecord) {
    webChannel::connection* first = channel.open(peers().httpsUrl("/five.bin"), nullptr, false);
    ASSERT_NE(first, nullptr) << log.text();
    const int socket = first->socket;
    EXPECT_EQ(first->readyEvents, 0);
    webChannel::connection* second = channel.open(peers().httpsUrl("/empty.bin"), nullptr, false);
    EXPECT_EQ(second, first);
    EXPECT_EQ(second->socket, socket);
    // A reused TLS record keeps its mark: only plain records are marked.
    EXPECT_EQ(second->readyEvents, 0);
    EXPECT_TRUE(logged(reuseLine(first, "127.0.0.1:443"))) << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::open: created connection"), 1);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL: handshake result"), 1);
    ASSERT_EQ(channel.m_connections.size(), 1u);
    EXPECT_EQ(channel.m_connections["127.0.0.1:443"], first);
}

TEST_F(ConnectionPool, ReusedPlainRecordIsMarkedWritable) {
    int result = 1;
    webChannel::connection* first = channel.open(peers().httpUrl("/"), nullptr, false, &result);
    ASSERT_NE(first, nullptr) << log.text();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(first->readyEvents, 0);
    EXPECT_EQ(first->address, loopbackAddress());
    EXPECT_EQ(first->host, "127.0.0.1");
    EXPECT_EQ(first->port, std::to_string(peers().httpPort));
    EXPECT_FALSE(first->https);
    EXPECT_EQ(first->ssl, nullptr);
    EXPECT_TRUE(logged("VRAXSecureWebChannel::open: created connection " + hexOf(first) + " to " + httpKey() +
                       ", socket " + std::to_string(first->socket)))
        << log.text();

    result = 1;
    webChannel::connection* second = channel.open(peers().httpUrl("/five.bin"), nullptr, false, &result);
    EXPECT_EQ(second, first);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(second->readyEvents, 4);  // the epoll writable bit
    EXPECT_TRUE(logged(reuseLine(first, httpKey()))) << log.text();
}

TEST_F(ConnectionPool, PoolKeyIgnoresTheScheme) {
    webChannel::connection* plain = channel.open(peers().httpUrl("/"), nullptr, false);
    ASSERT_NE(plain, nullptr) << log.text();
    // Same host and port under the https scheme: the plain record is handed
    // out again, no handshake is tried.
    webChannel::connection* again =
        channel.open("https://127.0.0.1:" + std::to_string(peers().httpPort) + "/", nullptr, false);
    EXPECT_EQ(again, plain);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL:"), 0);
    EXPECT_EQ(channel.m_connections.size(), 1u);
}

TEST_F(ConnectionPool, ReconnectReplacesTheRecordWithoutANewLookup) {
    webChannel::connection* old = channel.open(peers().httpUrl("/"), nullptr, false);
    ASSERT_NE(old, nullptr) << log.text();
    const int oldSocket = old->socket;
    // Spoil the cached address: a reconnect that looked the host up again
    // would find no address and fail; it must use the old record's.
    channel.m_hostAddresses[httpKey()] = 0;
    const size_t mark = logLines().size();

    int result = 1;
    webChannel::connection* fresh = channel.open(peers().httpUrl("/five.bin"), nullptr, true, &result);
    ASSERT_NE(fresh, nullptr) << log.text();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(channel.m_errorCode, 0);
    EXPECT_NE(fresh, old);
    EXPECT_EQ(old->socket, 0);  // the old record is closed but still valid
    EXPECT_NE(fresh->socket, 0);
    EXPECT_EQ(fresh->address, loopbackAddress());
    EXPECT_EQ(fresh->readyEvents, 0);
    ASSERT_EQ(channel.m_connections.size(), 1u);
    EXPECT_EQ(channel.m_connections[httpKey()], fresh);

    std::vector<std::string> lines = logLines();
    std::vector<std::string> after(lines.begin() + (long)mark, lines.end());
    auto has = [&](const std::string& line) { return std::find(after.begin(), after.end(), line) != after.end(); };
    EXPECT_TRUE(has("VRAXSecureWebChannel::closeSocket: closing socket " + std::to_string(oldSocket))) << log.text();
    EXPECT_TRUE(has("VRAXSecureWebChannel::open: created connection " + hexOf(fresh) + " to " + httpKey() +
                    ", socket " + std::to_string(fresh->socket)))
        << log.text();
    for (const std::string& line : after) {
        EXPECT_EQ(line.find("VRAXSecureWebChannel::parseURL:"), std::string::npos) << line;
        EXPECT_EQ(line.find("reusing existing connection"), std::string::npos) << line;
    }
}

TEST_F(ConnectionPool, TlsReconnectEndsTheOldSessionAndHandshakesAgain) {
    webChannel::connection* old = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(old, nullptr) << log.text();
    webChannel::connection* fresh = channel.open(peers().httpsUrl("/"), nullptr, true);
    ASSERT_NE(fresh, nullptr) << log.text();
    EXPECT_NE(fresh, old);
    EXPECT_EQ(old->ssl, nullptr);
    EXPECT_EQ(old->socket, 0);
    ASSERT_NE(fresh->ssl, nullptr);
    EXPECT_TRUE(SSL_is_init_finished(fresh->ssl));
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0"), 2);
    EXPECT_EQ(channel.m_connections["127.0.0.1:443"], fresh);
    EXPECT_EQ(channel.m_connections.size(), 1u);
}

TEST_F(ConnectionPool, CloseSocketOnUnconnectedRecordDoesNothing) {
    webChannel::connection conn(loopbackAddress(), "127.0.0.1", "80", false);
    const std::string before = log.text();
    channel.closeSocket(&conn);
    channel.closeSocket(nullptr);
    EXPECT_EQ(conn.socket, 0);
    EXPECT_EQ(log.text(), before);
}

TEST_F(ConnectionPool, UnresolvableHostGivesNoRecordAndProxyUnusable) {
    const int before = openDescriptorCount();
    int result = 0;
    const std::string host = unresolvableHost();
    webChannel::connection* conn = channel.open("http://" + host + "/x", nullptr, false, &result);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(result, kProxyUnusable);
    EXPECT_EQ(channel.m_errorCode, kProxyUnusable);
    EXPECT_TRUE(channel.m_connections.empty());
    // A failed lookup is not cached, and no socket was tried.
    EXPECT_EQ(channel.m_hostAddresses.count(host + ":80"), 0u);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::parseURL: failed with return code "), 1) << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSocket: started"), 0);
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(ConnectionPool, UrlWithoutHostReturnsNullAndLeavesTheErrorAlone) {
    channel.m_errorCode = kConnectFailed;
    EXPECT_EQ(channel.open("http:///five.bin", nullptr, false), nullptr);
    EXPECT_EQ(channel.m_errorCode, kConnectFailed);
    EXPECT_TRUE(channel.m_connections.empty());
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::initSocket: started"), 0);
}

TEST_F(ConnectionPool, WorkerOpensUseTheWorkersOwnPool) {
    webChannel::threadData worker;
    worker.channel = &channel;
    worker.index = 0;
    webChannel::connection* mine = channel.open(peers().httpUrl("/"), &worker, false);
    ASSERT_NE(mine, nullptr) << log.text();
    EXPECT_TRUE(channel.m_connections.empty());
    ASSERT_EQ(worker.connections.size(), 1u);
    EXPECT_EQ(worker.connections[httpKey()], mine);
    // The shared pool knows nothing of it: an open outside the worker makes
    // its own record.
    webChannel::connection* shared = channel.open(peers().httpUrl("/"), nullptr, false);
    ASSERT_NE(shared, nullptr);
    EXPECT_NE(shared, mine);
    EXPECT_EQ(channel.open(peers().httpUrl("/"), &worker, false), mine);
    channel.emptyPool(worker.connections, worker.retired);
    EXPECT_TRUE(worker.connections.empty());
}

TEST_F(ConnectionPool, WorkersOpeningAtOnceKeepSeparatePoolsAndShareOneProxyAnswer) {
    channel.setParam(kParamProxyPerHost, "1", true);
    constexpr int kWorkers = 4;
    std::vector<webChannel::threadData> workers(kWorkers);
    std::vector<webChannel::connection*> plain(kWorkers, nullptr), tls(kWorkers, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWorkers; ++i) {
        workers[i].channel = &channel;
        workers[i].index = i;
        threads.emplace_back([&, i] {
            plain[i] = channel.open(peers().httpUrl("/"), &workers[i], false);
            tls[i] = channel.open(peers().httpsUrl("/"), &workers[i], false);
        });
    }
    for (std::thread& thread : threads) thread.join();

    for (int i = 0; i < kWorkers; ++i) {
        ASSERT_NE(plain[i], nullptr) << "worker " << i << "\n" << log.text();
        ASSERT_NE(tls[i], nullptr) << "worker " << i << "\n" << log.text();
        EXPECT_EQ(workers[i].connections.size(), 2u);
        EXPECT_NE(tls[i]->ssl, nullptr);
        for (int j = 0; j < i; ++j) {
            EXPECT_NE(plain[i], plain[j]);
            EXPECT_NE(tls[i], tls[j]);
        }
    }
    EXPECT_TRUE(channel.m_connections.empty());
    EXPECT_EQ(channel.m_proxyAnswers.size(), 2u);
    // The answer for each scheme and host is asked once, whoever came first.
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::resolveProxy: started with "), 2) << log.text();
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0"), kWorkers);
    for (webChannel::threadData& worker : workers) channel.emptyPool(worker.connections, worker.retired);
}

TEST_F(ConnectionPool, CloseReleasesEveryDescriptorOfGoodAndFailedOpens) {
    RefusingPort refusing;
    const int before = openDescriptorCount();
    std::atomic<int> served{0};
    {
        ScriptServer garbage([&](ServerConnection& c) {
            ++served;
            c.readBytes(5);
            c.send("not a TLS record\r\n\r\n");
            c.stall(15);
        });
        ASSERT_NE(channel.open(peers().httpUrl("/"), nullptr, false), nullptr) << log.text();
        ASSERT_NE(channel.open(peers().httpsUrl("/"), nullptr, false), nullptr) << log.text();
        ASSERT_NE(channel.open(peers().httpUrl("/"), nullptr, false), nullptr);   // reused
        ASSERT_NE(channel.open(peers().httpsUrl("/"), nullptr, false), nullptr);  // reused
        ASSERT_NE(channel.open(peers().httpUrl("/"), nullptr, true), nullptr);    // reconnected
        ASSERT_NE(channel.open(peers().httpsUrl("/"), nullptr, true), nullptr);   // reconnected
        EXPECT_EQ(channel.open("http://127.0.0.1:" + std::to_string(refusing.port()) + "/", nullptr, false), nullptr);
        EXPECT_EQ(channel.m_errorCode, kConnectFailed);
        EXPECT_EQ(channel.open("https://127.0.0.1:" + std::to_string(garbage.port()) + "/", nullptr, false), nullptr);
        EXPECT_EQ(channel.m_errorCode, kTlsHandshake);
        EXPECT_EQ(channel.open(std::string("http://") + unresolvableHost() + "/", nullptr, false), nullptr);
        EXPECT_EQ(channel.m_errorCode, kProxyUnusable);
        EXPECT_EQ(channel.m_connections.size(), 2u);

        channel.close();
        EXPECT_TRUE(channel.m_connections.empty());
    }
    EXPECT_EQ(served.load(), 1);
    EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
