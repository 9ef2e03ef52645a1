// TLS connections: the handshake against the real HTTPS peer, certificate
// verification that is reported but not enforced, and handshakes that a
// scripted server breaks off.
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "support/script_server.h"
#include "transport_helpers.h"

namespace {

using testsupport::openDescriptorCount;
using testsupport::peers;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using transporttest::hexOf;
using transporttest::Stopwatch;

// Subject of the HTTPS peer's certificate as X509_NAME_oneline prints it.
std::string peerCertificateSubject() {
    FILE* file = fopen(peers().cert.c_str(), "r");
    if (file == nullptr) return "<unreadable " + peers().cert + ">";
    X509* certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    if (certificate == nullptr) return "<no certificate in " + peers().cert + ">";
    char subject[256] = {0};
    X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof(subject) - 1);
    X509_free(certificate);
    return subject;
}

std::string tlsUrl(const ScriptServer& server) {
    return "https://127.0.0.1:" + std::to_string(server.port()) + "/";
}

// TLS record type of a handshake message (the ClientHello comes in one).
constexpr int kHandshakeRecord = 0x16;

class TlsHandshake : public transporttest::ChannelTest {};

TEST_F(TlsHandshake, SelfSignedPeerCompletesAndVerificationFailureIsOnlyLogged) {
    int result = 12345;
    webChannel::connection* conn = channel.open(peers().httpsUrl("/five.bin"), nullptr, false, &result);
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(channel.m_errorCode, 0);
    EXPECT_TRUE(conn->https);
    ASSERT_NE(conn->ssl, nullptr);
    EXPECT_TRUE(SSL_is_init_finished(conn->ssl));
    EXPECT_NE(conn->socket, 0);

    // The certificate names "localhost", the connection 127.0.0.1: the
    // self-signed chain fails verification, which is reported and ignored.
    const std::string failLine = "Verifying certificate " + peerCertificateSubject() + " : FAIL";
    const std::string codeLine = "VRAXSecureWebChannel::connectSSL: certificate verification failed with code " +
                                 std::to_string(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
    const std::string handshakeLine = "VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0";
    const std::string createdLine = "VRAXSecureWebChannel::open: created connection " + hexOf(conn) +
                                    " to 127.0.0.1:443, socket " + std::to_string(conn->socket);
    int fail = lineIndex(failLine);
    int code = lineIndex(codeLine);
    int handshake = lineIndex(handshakeLine);
    int created = lineIndex(createdLine);
    EXPECT_GE(fail, 0) << log.text();
    EXPECT_GT(code, fail) << log.text();
    EXPECT_GT(handshake, code) << log.text();
    EXPECT_GT(created, handshake) << log.text();
    EXPECT_EQ(loggedCount("Verifying certificate "), 1) << log.text();

    ASSERT_EQ(channel.m_connections.size(), 1u);
    EXPECT_EQ(channel.m_connections.begin()->first, "127.0.0.1:443");
    EXPECT_EQ(channel.m_connections.begin()->second, conn);
}

TEST_F(TlsHandshake, CertificateStoreIsNamedInTheLogAtInit) {
    // The channel of this fixture was initialised after the capture began.
    struct stat info;
    std::string expected;
    if (stat("/etc/pki/tls/certs/ca-bundle.crt", &info) == 0)
        expected = "VRAXSecureWebChannel::initSSL: using /etc/pki/tls/certs/ca-bundle.crt as certificate store file";
    else if (stat("/etc/ssl/certs", &info) == 0)
        expected = std::string("VRAXSecureWebChannel::initSSL: using /etc/ssl/certs as certificate store ") +
                   (S_ISDIR(info.st_mode) ? "dir" : "file");
    else
        GTEST_SKIP() << "this machine has neither certificate store";
    EXPECT_TRUE(logged(expected)) << log.text();
}

TEST_F(TlsHandshake, InMemoryGetOverHttpsReturnsTheBodyWithItsSeparator) {
    ASSERT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str()), 0) << log.text();
    long long length = -1;
    const char* body = channel.httpResponse(&length);
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(std::string(body), "\r\n\r\nhello");
    EXPECT_EQ(length, 5);
    EXPECT_EQ(channel.m_errorCode, 0);
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL: handshake result 1, error code 0"), 1) << log.text();
}

TEST_F(TlsHandshake, TlsSocketBlocksAndCarriesTheTransferTimeout) {
    channel.setParam(kParamTimeout, "3", true);
    webChannel::connection* conn = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    int flags = fcntl(conn->socket, F_GETFL, 0);
    ASSERT_NE(flags, -1);
    EXPECT_EQ(flags & O_NONBLOCK, 0);
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval limit{};
        socklen_t length = sizeof(limit);
        ASSERT_EQ(getsockopt(conn->socket, SOL_SOCKET, option, &limit, &length), 0);
        EXPECT_EQ(limit.tv_sec, 3) << "option " << option;
        EXPECT_EQ(limit.tv_usec, 0) << "option " << option;
    }
}

TEST_F(TlsHandshake, ServerStallingAfterClientHelloFailsWithinTheTimeout) {
    std::atomic<int> firstByte{-1};
    std::atomic<int> served{0};
    const int before = openDescriptorCount();
    {
        ScriptServer server([&](ServerConnection& c) {
            ++served;
            std::string header = c.readBytes(5);
            if (!header.empty()) firstByte = (unsigned char)header[0];
            c.stall(15);  // until the client gives up
        });
        Stopwatch watch;
        int result = 0;
        webChannel::connection* conn = channel.open(tlsUrl(server), nullptr, false, &result);
        const double elapsed = watch.seconds();
        EXPECT_EQ(conn, nullptr);
        EXPECT_EQ(result, kTlsHandshake);
        EXPECT_EQ(channel.m_errorCode, kTlsHandshake);
        EXPECT_GE(elapsed, 0.9);
        EXPECT_LT(elapsed, 5.0);
        EXPECT_TRUE(channel.m_connections.empty());
        EXPECT_TRUE(logged("VRAXSecureWebChannel::connectSSL: handshake result -1, error code 2")) << log.text();
        EXPECT_EQ(loggedCount("Verifying certificate"), 0);
    }
    EXPECT_EQ(served.load(), 1);
    EXPECT_EQ(firstByte.load(), kHandshakeRecord);
    channel.close();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(TlsHandshake, PlainTextAnswerToClientHelloFails) {
    std::atomic<int> firstByte{-1};
    std::atomic<int> served{0};
    const int before = openDescriptorCount();
    {
        ScriptServer server([&](ServerConnection& c) {
            ++served;
            std::string header = c.readBytes(5);
            if (!header.empty()) firstByte = (unsigned char)header[0];
            c.send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
            c.stall(15);
        });
        Stopwatch watch;
        int result = 0;
        webChannel::connection* conn = channel.open(tlsUrl(server), nullptr, false, &result);
        EXPECT_LT(watch.seconds(), 5.0);
        EXPECT_EQ(conn, nullptr);
        EXPECT_EQ(result, kTlsHandshake);
        EXPECT_EQ(channel.m_errorCode, kTlsHandshake);
        EXPECT_TRUE(channel.m_connections.empty());
        EXPECT_TRUE(logged("VRAXSecureWebChannel::connectSSL: handshake result -1, error code 1")) << log.text();
        EXPECT_EQ(loggedCount("Verifying certificate"), 0);
    }
    EXPECT_EQ(served.load(), 1);
    EXPECT_EQ(firstByte.load(), kHandshakeRecord);
    channel.close();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(TlsHandshake, ServerClosingDuringHandshakeFails) {
    std::atomic<int> firstByte{-1};
    std::atomic<int> served{0};
    const int before = openDescriptorCount();
    {
        ScriptServer server([&](ServerConnection& c) {
            ++served;
            std::string header = c.readBytes(5);
            if (!header.empty()) firstByte = (unsigned char)header[0];
            c.close();
        });
        int result = 0;
        webChannel::connection* conn = channel.open(tlsUrl(server), nullptr, false, &result);
        EXPECT_EQ(conn, nullptr);
        EXPECT_EQ(result, kTlsHandshake);
        EXPECT_EQ(channel.m_errorCode, kTlsHandshake);
        EXPECT_TRUE(channel.m_connections.empty());
        EXPECT_EQ(loggedCount("VRAXSecureWebChannel::connectSSL: handshake result -1, error code "), 1) << log.text();
    }
    EXPECT_EQ(served.load(), 1);
    EXPECT_EQ(firstByte.load(), kHandshakeRecord);
    channel.close();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(TlsHandshake, FailedHandshakeIsFollowedByAWorkingOne) {
    {
        ScriptServer server([](ServerConnection& c) {
            c.readBytes(5);
            c.send("garbage\r\n\r\n");
            c.stall(15);
        });
        ASSERT_EQ(channel.open(tlsUrl(server), nullptr, false), nullptr);
        ASSERT_EQ(channel.m_errorCode, kTlsHandshake);
    }
    webChannel::connection* conn = channel.open(peers().httpsUrl("/"), nullptr, false);
    ASSERT_NE(conn, nullptr) << log.text();
    EXPECT_EQ(channel.m_errorCode, 0);
    EXPECT_EQ(channel.m_connections.size(), 1u);
}

}  // namespace
