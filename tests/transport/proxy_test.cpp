// Proxies: configuration and credentials, the transfer time-out, the
// per-host resolver, and traffic through real and scripted proxies (plain
// requests, CONNECT tunnels and the ways a tunnel is refused).
#include <atomic>
#include <string>

#include "support/script_server.h"
#include "transport_helpers.h"

namespace {

using testsupport::openDescriptorCount;
using testsupport::peers;
using testsupport::readFile;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using transporttest::hexOf;
using transporttest::loopbackAddress;
using transporttest::unresolvableHost;

// Standard base64 with padding, written out here so that the expected
// values do not come from the code under test.
std::string base64(const std::string& text) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < text.size(); i += 3) {
        unsigned v = (unsigned char)text[i] << 16 | (unsigned char)text[i + 1] << 8 | (unsigned char)text[i + 2];
        out += alphabet[v >> 18 & 63];
        out += alphabet[v >> 12 & 63];
        out += alphabet[v >> 6 & 63];
        out += alphabet[v & 63];
    }
    if (i + 1 == text.size()) {
        unsigned v = (unsigned char)text[i] << 16;
        out += alphabet[v >> 18 & 63];
        out += alphabet[v >> 12 & 63];
        out += "==";
    } else if (i + 2 == text.size()) {
        unsigned v = (unsigned char)text[i] << 16 | (unsigned char)text[i + 1] << 8;
        out += alphabet[v >> 18 & 63];
        out += alphabet[v >> 12 & 63];
        out += alphabet[v >> 6 & 63];
        out += '=';
    }
    return out;
}

std::string proxyUrl(const std::string& credentials, int port) {
    return "http://" + (credentials.empty() ? std::string() : credentials + "@") + "127.0.0.1:" + std::to_string(port);
}

class ProxySettings : public transporttest::ChannelTest {
protected:
    std::string proxyAuth() {
        std::string value;
        return channel.getParam(kParamProxyAuth, value, true) ? value : "<absent>";
    }
};

TEST_F(ProxySettings, Base64HelperMatchesKnownValues) {
    EXPECT_EQ(base64("u:p"), "dTpw");
    EXPECT_EQ(base64("user:pw"), "dXNlcjpwdw==");
    EXPECT_EQ(base64("ab"), "YWI=");
}

TEST_F(ProxySettings, ResolvableProxiesAreAccepted) {
    EXPECT_EQ(channel.setProxy("http://127.0.0.1:8888", nullptr), 0);
    EXPECT_EQ(channel.setProxy(nullptr, "http://127.0.0.1:8888"), 0);
    EXPECT_EQ(channel.setProxy("http://127.0.0.1:8888", "http://localhost:3128"), 0);
    EXPECT_EQ(channel.m_httpsProxyAddress, loopbackAddress());
    EXPECT_EQ(channel.m_httpsProxyHost, "localhost");
}

TEST_F(ProxySettings, ProxyWithoutHostIsAnInvalidArgument) {
    EXPECT_EQ(channel.setProxy("http://", nullptr), kInvalidArgument);
    EXPECT_EQ(channel.setProxy(nullptr, "http://"), kInvalidArgument);
    EXPECT_EQ(channel.setProxy("http://127.0.0.1:8888", "http://"), kInvalidArgument);
}

TEST_F(ProxySettings, UnresolvableProxyIsUnusable) {
    const std::string bad = std::string("http://") + unresolvableHost() + ":8888";
    EXPECT_EQ(channel.setProxy(bad.c_str(), nullptr), kProxyUnusable);
    EXPECT_EQ(channel.m_httpProxyHost, unresolvableHost());
    EXPECT_EQ(channel.m_httpProxyAddress, 0u);
    EXPECT_EQ(channel.setProxy(nullptr, bad.c_str()), kProxyUnusable);
    EXPECT_EQ(channel.setProxy("http://127.0.0.1:8888", bad.c_str()), kProxyUnusable);
}

TEST_F(ProxySettings, MissingHostIsReportedBeforeAFailedLookup) {
    const std::string bad = std::string("http://") + unresolvableHost() + ":8888";
    EXPECT_EQ(channel.setProxy(bad.c_str(), "http://"), kInvalidArgument);
    EXPECT_EQ(channel.setProxy("http://", bad.c_str()), kInvalidArgument);
}

TEST_F(ProxySettings, SingleHttpProxyServesBothSchemes) {
    ASSERT_EQ(channel.setProxy("http://127.0.0.1:8888", nullptr), 0);
    EXPECT_EQ(channel.m_httpProxyHost, "127.0.0.1");
    EXPECT_EQ(channel.m_httpProxyPort, "8888");
    EXPECT_EQ(channel.m_httpProxyAddress, loopbackAddress());
    EXPECT_FALSE(channel.m_httpProxySecure);
    EXPECT_EQ(channel.m_httpsProxyHost, "127.0.0.1");
    EXPECT_EQ(channel.m_httpsProxyPort, "8888");
    EXPECT_EQ(channel.m_httpsProxyAddress, loopbackAddress());
    EXPECT_FALSE(channel.m_httpsProxySecure);
}

TEST_F(ProxySettings, ProxyUrlWithoutPortDefaultsToEightyOrIsMarkedSecure) {
    ASSERT_EQ(channel.setProxy("http://127.0.0.1", "https://127.0.0.1"), 0);
    EXPECT_EQ(channel.m_httpProxyPort, "80");
    EXPECT_FALSE(channel.m_httpProxySecure);
    EXPECT_EQ(channel.m_httpsProxyPort, "443");
    EXPECT_TRUE(channel.m_httpsProxySecure);
}

TEST_F(ProxySettings, OnlyHttpsProxyLeavesPlainHttpDirect) {
    ASSERT_EQ(channel.setProxy(nullptr, proxyUrl("", peers().squidPort).c_str()), 0);
    EXPECT_TRUE(channel.m_httpProxyHost.empty());
    EXPECT_EQ(channel.m_httpProxyAddress, 0u);
    EXPECT_EQ(channel.m_httpsProxyPort, std::to_string(peers().squidPort));

    webChannel::connection* conn = channel.open(peers().httpUrl("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    EXPECT_EQ(ntohs(conn->serverAddress.sin_port), peers().httpPort);
    EXPECT_EQ(conn->address, loopbackAddress());
    EXPECT_TRUE(logged("VRAXSecureWebChannel::initSocket: socket " + std::to_string(conn->socket) + "(" + hexOf(conn) +
                       ") is connected to 127.0.0.1:" + std::to_string(peers().httpPort)))
        << log.text();
}

TEST_F(ProxySettings, NullUrlsClearBothProxies) {
    ASSERT_EQ(channel.setProxy("http://127.0.0.1:8888", "http://127.0.0.1:3128"), 0);
    EXPECT_EQ(channel.setProxy(nullptr, nullptr), 0);
    EXPECT_TRUE(channel.m_httpProxyHost.empty());
    EXPECT_TRUE(channel.m_httpsProxyHost.empty());
    EXPECT_EQ(channel.m_httpProxyAddress, 0u);
    EXPECT_EQ(channel.m_httpsProxyAddress, 0u);
}

TEST_F(ProxySettings, CredentialsAreStoredAsOneLineBase64OfTheTextBeforeTheAt) {
    ASSERT_EQ(channel.setProxy("http://user:pw@127.0.0.1:8888", nullptr), 0);
    EXPECT_EQ(proxyAuth(), "dXNlcjpwdw==");
    EXPECT_EQ(channel.m_httpProxyHost, "127.0.0.1");

    // Escapes are not decoded; long values stay on one line.
    const std::string escaped = "us%40er:p%3Aw";
    ASSERT_EQ(channel.setProxy(("http://" + escaped + "@127.0.0.1:8888").c_str(), nullptr), 0);
    EXPECT_EQ(proxyAuth(), base64(escaped));
    const std::string longer = std::string(70, 'n') + ":" + std::string(70, 'p');
    ASSERT_EQ(channel.setProxy(("http://" + longer + "@127.0.0.1:8888").c_str(), nullptr), 0);
    EXPECT_EQ(proxyAuth(), base64(longer));
    EXPECT_EQ(proxyAuth().find('\n'), std::string::npos);
}

TEST_F(ProxySettings, HttpsProxyCredentialsReplaceTheHttpOnes) {
    ASSERT_EQ(channel.setProxy("http://a:b@127.0.0.1:8888", "http://c:d@127.0.0.1:3128"), 0);
    EXPECT_EQ(proxyAuth(), base64("c:d"));
    ASSERT_EQ(channel.setProxy("http://a:b@127.0.0.1:8888", "http://127.0.0.1:3128"), 0);
    EXPECT_EQ(proxyAuth(), base64("a:b"));
}

TEST_F(ProxySettings, CredentialsStayWhenALaterProxyHasNone) {
    EXPECT_EQ(proxyAuth(), "<absent>");
    ASSERT_EQ(channel.setProxy("http://a:b@127.0.0.1:8888", nullptr), 0);
    ASSERT_EQ(channel.setProxy("http://127.0.0.1:9999", nullptr), 0);
    EXPECT_EQ(proxyAuth(), base64("a:b"));
    ASSERT_EQ(channel.setProxy(nullptr, nullptr), 0);
    EXPECT_EQ(proxyAuth(), base64("a:b"));
}

TEST_F(ProxySettings, TransferTimeoutFallsBackTo300) {
    channel.m_params.erase(kParamTimeout);
    EXPECT_EQ(channel.getProxyTimeout(), 300);  // absent
    channel.setParam(kParamTimeout, "45", true);
    EXPECT_EQ(channel.getProxyTimeout(), 45);
    channel.setParam(kParamTimeout, "0", true);
    EXPECT_EQ(channel.getProxyTimeout(), 300);
    channel.setParam(kParamTimeout, "-5", true);
    EXPECT_EQ(channel.getProxyTimeout(), 300);
    channel.setParam(kParamTimeout, "abc", true);
    EXPECT_EQ(channel.getProxyTimeout(), 300);
    channel.setParam(kParamTimeout, "7s", true);
    EXPECT_EQ(channel.getProxyTimeout(), 7);
}

TEST_F(ProxySettings, ResolveProxyAnswersDirectAndLogsTheUrlItWasAsked) {
    const char* answer = channel.resolveProxy("https://127.0.0.1/x/y");
    ASSERT_NE(answer, nullptr);
    EXPECT_STREQ(answer, "");
    EXPECT_EQ(answer, channel.m_proxyAnswer.c_str());
    EXPECT_TRUE(logged("VRAXSecureWebChannel::resolveProxy: started with https://127.0.0.1:443/x/y")) << log.text();

    answer = channel.resolveProxy("http://somehost:8080/p");
    ASSERT_NE(answer, nullptr);
    EXPECT_STREQ(answer, "");
    EXPECT_TRUE(logged("VRAXSecureWebChannel::resolveProxy: started with http://somehost:8080/p")) << log.text();
    // Nothing was resolved or cached for it.
    EXPECT_EQ(channel.m_hostAddresses.count("somehost:8080"), 0u);
}

TEST_F(ProxySettings, ResolveProxyOfNullIsNull) {
    EXPECT_EQ(channel.resolveProxy(nullptr), nullptr);
    EXPECT_EQ(loggedCount("resolveProxy"), 0);
}

// Traffic through the real proxies of the test peers.
class RealProxy : public transporttest::ChannelTest {
protected:
    std::string squid(const std::string& credentials) { return proxyUrl(credentials, peers().squidPort); }
    std::string tinyproxy(const std::string& credentials) { return proxyUrl(credentials, peers().tinyproxyPort); }
    std::string squidCredentials() { return peers().squidUser + ":" + peers().squidPassword; }
    std::string tinyproxyCredentials() { return peers().tinyproxyUser + ":" + peers().tinyproxyPassword; }
};

TEST_F(RealProxy, HttpsGetThroughSquidTunnelWithCredentialsFromTheProxyUrl) {
    ASSERT_EQ(channel.setProxy(nullptr, squid(squidCredentials()).c_str()), 0);
    ASSERT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str()), 0) << log.text();
    long long length = 0;
    EXPECT_EQ(std::string(channel.httpResponse(&length)), "\r\n\r\nhello");
    EXPECT_EQ(length, 5);
    EXPECT_EQ(channel.m_errorCode, 0);

    ASSERT_EQ(channel.m_connections.count("127.0.0.1:443"), 1u);
    webChannel::connection* conn = channel.m_connections["127.0.0.1:443"];
    EXPECT_EQ(conn->address, 0u);  // the target is left to the proxy
    EXPECT_EQ(ntohs(conn->serverAddress.sin_port), peers().squidPort);
    EXPECT_TRUE(logged("HTTP/1.1 200 Connection established\r")) << log.text();
    EXPECT_TRUE(logged("VRAXSecureWebChannel::initSocket: " + hexOf(conn) + " is connected to 127.0.0.1:443"))
        << log.text();
    EXPECT_TRUE(logged("VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0")) << log.text();
}

TEST_F(RealProxy, SquidRefusesTheTunnelWithWrongOrMissingCredentials) {
    const int before = openDescriptorCount();
    ASSERT_EQ(channel.setProxy(nullptr, squid(peers().squidUser + ":wrong").c_str()), 0);
    EXPECT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str()), kTunnelRefused) << log.text();
    EXPECT_EQ(channel.m_errorCode, kTunnelRefused);
    EXPECT_EQ(loggedCount("HTTP/1.1 407 "), 1) << log.text();
    EXPECT_TRUE(channel.m_connections.empty());

    // Without any credentials at all.
    channel.m_params.erase(kParamProxyAuth);
    ASSERT_EQ(channel.setProxy(nullptr, squid("").c_str()), 0);
    int result = 0;
    EXPECT_EQ(channel.open(peers().httpsUrl("/five.bin"), nullptr, false, &result), nullptr);
    EXPECT_EQ(result, kTunnelRefused);
    EXPECT_EQ(channel.m_errorCode, kTunnelRefused);
    EXPECT_EQ(loggedCount("HTTP/1.1 407 "), 2) << log.text();
    EXPECT_TRUE(channel.m_connections.empty());

    channel.close();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(RealProxy, FileGetThroughTinyproxyWithCredentialsIsByteIdentical) {
    ASSERT_EQ(channel.setProxy(tinyproxy(tinyproxyCredentials()).c_str(), nullptr), 0);
    const std::string target = testsupport::tempDir() + "/m1.bin";
    ASSERT_EQ(channel.httpGet(peers().httpUrl("/m1.bin").c_str(), target.c_str()), 0) << log.text();
    const std::string expected = readFile(peers().www + "/m1.bin");
    const std::string received = readFile(target);
    EXPECT_EQ(received.size(), expected.size());
    EXPECT_TRUE(received == expected);
    EXPECT_EQ(loggedCount(") is connected to 127.0.0.1:" + std::to_string(peers().tinyproxyPort)), 1) << log.text();
    EXPECT_EQ(loggedCount(") is connected to 127.0.0.1:" + std::to_string(peers().httpPort)), 0) << log.text();
}

TEST_F(RealProxy, TinyproxyTurnsAwayAPlainRequestWithoutCredentials) {
    ASSERT_EQ(channel.setProxy(tinyproxy("").c_str(), nullptr), 0);
    const std::string target = testsupport::tempDir() + "/five.bin";
    EXPECT_EQ(channel.httpGet(peers().httpUrl("/five.bin").c_str(), target.c_str()), kBadStatus) << log.text();
    EXPECT_EQ(channel.m_errorCode, kBadStatus);
    EXPECT_EQ(loggedCount("code 407"), 1) << log.text();
}

TEST_F(RealProxy, HttpsThroughTinyproxyFailsOnTheUnreadRestOfItsAnswer) {
    const int before = openDescriptorCount();
    ASSERT_EQ(channel.setProxy(nullptr, tinyproxy(tinyproxyCredentials()).c_str()), 0);
    EXPECT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str()), kTlsHandshake) << log.text();
    EXPECT_EQ(channel.m_errorCode, kTlsHandshake);
    // Its 200 answer was accepted from the first 63 bytes; the rest met the
    // handshake.
    EXPECT_EQ(loggedCount("HTTP/1.0 200 Connection established"), 1) << log.text();
    EXPECT_EQ(loggedCount(" is connected to 127.0.0.1:443"), 1) << log.text();
    EXPECT_TRUE(channel.m_connections.empty());
    channel.close();
    EXPECT_EQ(openDescriptorCount(), before);
}

// A scripted server in the role of the proxy.
class ScriptedProxy : public transporttest::ChannelTest {
protected:
    static constexpr const char* kConnect =
        "CONNECT 127.0.0.1:443 HTTP/1.1\r\nHost: 127.0.0.1:443\r\nProxy-Authorization: Basic dTpw\r\n\r\n";

    // Opens the HTTPS peer through a proxy that behaves as `handler` says,
    // and checks that the failure `expected` leaves no record and no
    // descriptor behind. Returns the requests the proxy received.
    std::vector<std::string> tunnelFails(const ScriptServer::Handler& handler, int expected) {
        const int before = openDescriptorCount();
        std::vector<std::string> requests;
        std::atomic<int> served{0};
        {
            ScriptServer proxy([&](ServerConnection& c) {
                ++served;
                handler(c);
            });
            EXPECT_EQ(channel.setProxy(nullptr, proxyUrl("u:p", proxy.port()).c_str()), 0);
            int result = 0;
            EXPECT_EQ(channel.open(peers().httpsUrl("/five.bin"), nullptr, false, &result), nullptr);
            EXPECT_EQ(result, expected);
            EXPECT_EQ(channel.m_errorCode, expected);
            EXPECT_TRUE(channel.m_connections.empty());
            EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL:"), 0) << log.text();
            channel.close();
            requests = proxy.requests();
        }
        EXPECT_EQ(served.load(), 1);
        EXPECT_EQ(openDescriptorCount(), before);
        return requests;
    }
};

TEST_F(ScriptedProxy, BadGatewayAnswerRefusesTheTunnel) {
    std::vector<std::string> requests = tunnelFails(
        [](ServerConnection& c) {
            if (c.readHead().empty()) return;
            c.send("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
            c.stall(15);
        },
        kTunnelRefused);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], kConnect);
    EXPECT_TRUE(logged("HTTP/1.1 502 Bad Gateway\r")) << log.text();
}

TEST_F(ScriptedProxy, AuthenticationRequiredAnswerRefusesTheTunnel) {
    std::vector<std::string> requests = tunnelFails(
        [](ServerConnection& c) {
            if (c.readHead().empty()) return;
            c.send("HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 0\r\n\r\n");
            c.stall(15);
        },
        kTunnelRefused);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], kConnect);
    EXPECT_EQ(loggedCount("HTTP/1.1 407 Proxy Authentication Required"), 1) << log.text();
}

TEST_F(ScriptedProxy, UnparsableAnswerRefusesTheTunnel) {
    std::vector<std::string> requests = tunnelFails(
        [](ServerConnection& c) {
            if (c.readHead().empty()) return;
            c.send("no status line here\r\n\r\n");
            c.stall(15);
        },
        kTunnelRefused);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], kConnect);
}

TEST_F(ScriptedProxy, InformationalAnswerRefusesTheTunnel) {
    tunnelFails(
        [](ServerConnection& c) {
            if (c.readHead().empty()) return;
            c.send("HTTP/1.1 199 Almost\r\n\r\n");
            c.stall(15);
        },
        kTunnelRefused);
}

TEST_F(ScriptedProxy, ProxyClosingAtOnceIsAPeerClose) {
    tunnelFails([](ServerConnection& c) { c.close(); }, kPeerClosed);
}

TEST_F(ScriptedProxy, ProxyResettingAfterTheRequestIsAPeerClose) {
    std::vector<std::string> requests = tunnelFails(
        [](ServerConnection& c) {
            if (c.readHead().empty()) return;
            c.reset();
        },
        kPeerClosed);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], kConnect);
}

TEST_F(ScriptedProxy, SilentProxyRefusesTheTunnelAfterTheTimeout) {
    transporttest::Stopwatch watch;
    std::vector<std::string> requests = tunnelFails(
        [](ServerConnection& c) {
            if (c.readHead().empty()) return;
            c.stall(15);
        },
        kTunnelRefused);
    const double elapsed = watch.seconds();
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], kConnect);
}

TEST_F(ScriptedProxy, RefusingProxyFailsTheConnect) {
    transporttest::RefusingPort refusing;
    const int before = openDescriptorCount();
    ASSERT_EQ(channel.setProxy(proxyUrl("", refusing.port()).c_str(), nullptr), 0);
    int result = 0;
    EXPECT_EQ(channel.open(peers().httpUrl("/"), nullptr, false, &result), nullptr);
    EXPECT_EQ(result, kConnectFailed);
    EXPECT_EQ(channel.m_errorCode, kConnectFailed);
    EXPECT_TRUE(channel.m_connections.empty());
    channel.close();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(ScriptedProxy, PlainRequestGoesToTheProxyWithoutATunnel) {
    ScriptServer proxy([](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(testsupport::httpResponse(200, "hello"));
        c.stall(15);
    });
    ASSERT_EQ(channel.setProxy(proxyUrl("u:p", proxy.port()).c_str(), nullptr), 0);
    const std::string target = testsupport::tempDir() + "/five.bin";
    // The target's port is never contacted: the proxy answers for it.
    ASSERT_EQ(channel.httpGet("http://127.0.0.1:9/five.bin", target.c_str()), 0) << log.text();
    EXPECT_EQ(readFile(target), "hello");
    ASSERT_EQ(proxy.requests().size(), 1u);
    EXPECT_EQ(
        proxy.requests()[0],
        "GET http://127.0.0.1:9/five.bin HTTP/1.1\r\nHost: 127.0.0.1:9\r\nProxy-Authorization: Basic dTpw\r\n\r\n");
    ASSERT_EQ(channel.m_connections.count("127.0.0.1:9"), 1u);
    EXPECT_EQ(channel.m_connections["127.0.0.1:9"]->address, 0u);
}

TEST_F(ScriptedProxy, PerHostResolutionIgnoresConfiguredProxiesAndCachesOneAnswerPerSchemeAndHost) {
    ScriptServer proxy([](ServerConnection& c) { c.close(); });
    transporttest::Listener other;
    ASSERT_EQ(channel.setProxy(proxyUrl("", proxy.port()).c_str(), nullptr), 0);
    channel.setParam(kParamProxyPerHost, "1", true);

    webChannel::connection* plain = channel.open(peers().httpUrl("/"), nullptr, false);
    ASSERT_NE(plain, nullptr) << log.text();
    webChannel::connection* tls = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(tls, nullptr) << log.text();
    webChannel::connection* second = channel.open(other.url("/"), nullptr, false);
    ASSERT_NE(second, nullptr) << log.text();

    EXPECT_GE(other.acceptOne(), 0);
    EXPECT_EQ(ntohs(second->serverAddress.sin_port), other.port());
    EXPECT_EQ(proxy.connections(), 0);
    EXPECT_EQ(ntohs(plain->serverAddress.sin_port), peers().httpPort);
    EXPECT_EQ(ntohs(tls->serverAddress.sin_port), 443);
    EXPECT_EQ(plain->serverAddress.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(tls->serverAddress.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(tls->ssl, nullptr);

    const std::map<std::string, std::string> expected = {{"http://127.0.0.1", ""}, {"https://127.0.0.1", ""}};
    EXPECT_EQ(channel.m_proxyAnswers, expected);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::resolveProxy: started with "), 2) << log.text();
    EXPECT_TRUE(logged("VRAXSecureWebChannel::resolveProxy: started with http://127.0.0.1")) << log.text();
    EXPECT_TRUE(logged("VRAXSecureWebChannel::resolveProxy: started with https://127.0.0.1")) << log.text();
}

TEST_F(ScriptedProxy, PerHostResolutionWithoutProxiesConnectsDirectly) {
    channel.setParam(kParamProxyPerHost, "", true);
    ASSERT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str()), 0) << log.text();
    EXPECT_EQ(std::string(channel.httpResponse(nullptr)), "\r\n\r\nhello");
    const std::map<std::string, std::string> expected = {{"https://127.0.0.1", ""}};
    EXPECT_EQ(channel.m_proxyAnswers, expected);
    EXPECT_EQ(loggedCount(") is connected to 127.0.0.1:443"), 1) << log.text();
}

}  // namespace
