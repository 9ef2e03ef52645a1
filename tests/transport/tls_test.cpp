// TLS against real and scripted servers: certificate verification (parameter 3021), reads of partial records.
#include <openssl/buffer.h>

#include <cstring>
#include <fstream>
#include <thread>

#include "transport/transport_helpers.h"

namespace {

using namespace transporttest;

struct Case {
    const char* name;    // the server's certificate
    const char* reason;  // OpenSSL's words for it when verified against the private CA; "" = trusted
};
const Case kCases[] = {{"good", ""},
                       {"othername", "IP address mismatch"},
                       {"expired", "certificate has expired"},
                       {"selfsigned", "self-signed certificate"},
                       {"unknownca", "unable to get local issuer certificate"}};
void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

std::string serverOf(const std::string& name) {
    return "127.0.0.1:" + std::to_string(peers().tlsPorts.at(name));
}

// Direct and through squid's tunnel, the single GET, the size probe and the batch fail with -3034 (once each,
// never repeated, no byte written, nothing handed out) where the certificate is not good; without 3021 all pass.
class Verify : public ChannelTest, public ::testing::WithParamInterface<std::tuple<Case, bool>> {};

TEST_P(Verify, AnUntrustedServerFailsEveryRequestOnlyWhenVerifying) {
    const auto [c, tunnel] = GetParam();
    const std::string url = "https://" + serverOf(c.name) + "/five.bin", dir = tempDir();
    const std::string squid = "http://" + peers().squidUser + ":" + peers().squidPassword + "@127.0.0.1:";
    ASSERT_EQ(channel.setProxy(nullptr, tunnel ? (squid + std::to_string(peers().squidPort)).c_str() : nullptr), 0);
    for (const bool verify : {true, false}) {
        SCOPED_TRACE(verify ? "verifying" : "not verifying");
        channel.close();  // a failed batch leaves the channel in its error state
        ASSERT_EQ(channel.init(1), 0);
        channel.setParam(kParamVerifyPeer, verify ? peers().trustCa.c_str() : nullptr, true);
        const bool fails = verify && *c.reason != 0;
        auto reported = [this] {
            char text[256] = {};
            const int code = channel.getErrorCode(text, (int)sizeof text);
            return std::to_string(code) + " " + text;
        };
        const std::string untrusted = fails ? "-3034 " + serverOf(c.name) + ": " + c.reason : "0 ";
        EXPECT_EQ(channel.addJob(url.c_str(), (dir + "/probed").c_str(), 0, nullptr, nullptr),
                  fails ? kInvalidArgument : kOk);
        EXPECT_EQ(reported(), untrusted);
        std::ofstream(dir + "/single") << "old";
        EXPECT_EQ(channel.httpGet(url.c_str(), (dir + "/single").c_str()), fails ? kUntrusted : kOk);
        EXPECT_EQ(reported(), untrusted);
        EXPECT_EQ(readFile(dir + "/single"), fails ? "old" : "hello");
        EXPECT_EQ(channel.addJob((url + "?batch").c_str(), (dir + "/batch").c_str(), 5, nullptr, nullptr), kOk);
        EXPECT_EQ(channel.httpMultiGet(true), fails ? 1 : 0);
        std::string context, message;
        EXPECT_EQ(channel.getError(context, message), fails ? kUntrusted : kOk);
        EXPECT_EQ(context, fails ? dir + "/batch" : "");
        EXPECT_EQ(readFile(dir + "/batch"), fails ? "" : "hello");
        EXPECT_EQ(channel.getNextDownloadedFile(), fails ? -1 : 0);
        EXPECT_TRUE(!verify || loggedCount("certificate verification failed with code") == (fails ? 3 : 0));
    }
}

INSTANTIATE_TEST_SUITE_P(CasesAndPaths, Verify, ::testing::Combine(::testing::ValuesIn(kCases), ::testing::Bool()),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) ? "Tunnelled" : "Direct");
                         });

// The trust setting changes between requests (set, another path, a hashed directory, an unreadable path,
// removed): a pooled connection serves only the setting it was made under.
TEST_F(ChannelTest, EachRequestIsJudgedUnderTheTrustSettingOfTheMoment) {
    const std::string system = "", missing = tempDir() + "/missing.pem", file = tempDir() + "/got";
    const std::tuple<const std::string*, const char*, int> steps[] = {{nullptr, "selfsigned", kOk},
                                                                      {&peers().trustCa, "selfsigned", kUntrusted},
                                                                      {nullptr, "good", kOk},
                                                                      {&peers().trustCa, "good", kOk},
                                                                      {&system, "good", kUntrusted},
                                                                      {&peers().trustDir, "good", kOk},
                                                                      {&peers().trustDir, "unknownca", kUntrusted},
                                                                      {&missing, "good", kUntrusted}};
    for (const auto& [trust, server, result] : steps) {
        SCOPED_TRACE(std::string(server) + " under " + (trust ? "'" + *trust + "'" : "no verification"));
        channel.setParam(kParamVerifyPeer, trust ? trust->c_str() : nullptr, true);
        EXPECT_EQ(channel.httpGet(("https://" + serverOf(server) + "/five.bin").c_str(), file.c_str()), result);
    }
    char text[512];
    EXPECT_EQ(channel.getErrorCode(text, (int)sizeof text), kUntrusted);
    EXPECT_EQ(text, serverOf("good") + ": cannot read the trust anchors in " + missing);
    EXPECT_EQ(loggedCount("cannot read the trust anchors in " + missing), 1);
}

// A TLS read takes what has arrived: the start of a further record, held by the TLS layer, does not make the
// read wait for the rest while the transfer time-out (20 s) runs. The server sends the head, the body and all but
// the last two bytes of one more record, each in a record of its own, then waits for the client to go (10 s).
TEST_F(ChannelTest, AReadEndsWithWhatArrivedBeforeAPartialRecord) {
    LoopbackPort port(true);
    std::thread server([&port] {
        SSL_CTX* context = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate_chain_file(context, (peers().trustDir + "/../good.pem").c_str());
        SSL_CTX_use_PrivateKey_file(context, (peers().trustDir + "/../good.key").c_str(), SSL_FILETYPE_PEM);
        SSL* ssl = SSL_new(context);
        char request[4096];
        if (port.acceptOne() >= 0 && SSL_set_fd(ssl, port.peer) == 1 && SSL_accept(ssl) == 1 &&
            SSL_read(ssl, request, sizeof request) > 0) {
            BIO* records = BIO_new(BIO_s_mem());
            SSL_set0_wbio(ssl, records);  // the records are cut before they go out
            for (const char* text : {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "hello", "more"})
                SSL_write(ssl, text, (int)strlen(text));
            BUF_MEM* bytes = nullptr;
            BIO_get_mem_ptr(records, &bytes);
            pollfd gone = {port.peer, POLLIN, 0};
            if (send(port.peer, bytes->data, bytes->length - 2, MSG_NOSIGNAL) > 0) poll(&gone, 1, 10000);
        }
        SSL_free(ssl);
        SSL_CTX_free(context);
    });
    channel.setParam(kParamTimeout, "20", true);
    const std::string file = tempDir() + "/got";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(channel.httpGet(port.url("/", "https").c_str(), file.c_str()), kOk);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
    EXPECT_EQ(readFile(file), "hello");
    channel.close();  // ends the server's wait
    server.join();
}

}  // namespace
