// TLS against real and scripted servers: certificate verification (parameter 3021), reads of partial records.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "transport/transport_helpers.h"

namespace {

using namespace transporttest;

// The peers' servers by certificate, with OpenSSL's words for each when verified against the private CA.
const std::pair<const char*, const char*> kCases[] = {{"good", ""},
                                                      {"othername", "IP address mismatch"},
                                                      {"expired", "certificate has expired"},
                                                      {"selfsigned", "self-signed certificate"},
                                                      {"unknownca", "unable to get local issuer certificate"}};

std::string serverOf(const std::string& name) {
    return "127.0.0.1:" + std::to_string(peers().tlsPorts.at(name));
}

std::string reported(webChannel& channel) {  // "<code> <message>"
    char text[512] = {};
    return std::to_string(channel.getErrorCode(text, (int)sizeof text)) + " " + text;
}

// Direct and through squid's tunnel, the size probe, the single GET and the batch fail with -3034 (once each,
// never repeated, no byte written, nothing handed out) where the certificate is not good; without 3021 all pass.
class Verify : public ChannelTest, public ::testing::WithParamInterface<std::tuple<int, bool>> {};

TEST_P(Verify, AnUntrustedServerFailsEveryRequestOnlyWhenVerifying) {
    const auto [name, reason] = kCases[std::get<0>(GetParam())];
    const std::string url = "https://" + serverOf(name) + "/five.bin", dir = tempDir();
    const std::string squid =
        "http://" + peers().squidUser + ":" + peers().squidPassword + "@127.0.0.1:" + std::to_string(peers().squidPort);
    ASSERT_EQ(channel.setProxy(nullptr, std::get<1>(GetParam()) ? squid.c_str() : nullptr), 0);
    for (const bool verify : {true, false}) {
        SCOPED_TRACE(verify ? "verifying" : "not verifying");
        channel.close();  // a failed batch leaves the channel in its error state
        ASSERT_EQ(channel.init(1), 0);
        channel.setParam(kParamVerifyPeer, verify ? peers().trustCa.c_str() : nullptr, true);
        const bool fails = verify && *reason != 0;
        const std::string untrusted = fails ? "-3034 " + serverOf(name) + ": " + reason : "0 ";
        EXPECT_EQ(channel.addJob(url.c_str(), (dir + "/probed").c_str(), 0, nullptr, nullptr),
                  fails ? kInvalidArgument : kOk);
        EXPECT_EQ(reported(channel), untrusted);
        EXPECT_EQ(std::filesystem::exists(dir + "/probed"), !fails);  // a refused job's target is never made
        std::ofstream(dir + "/single") << "old";
        EXPECT_EQ(channel.httpGet(url.c_str(), (dir + "/single").c_str()), fails ? kUntrusted : kOk);
        EXPECT_EQ(reported(channel), untrusted);
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

INSTANTIATE_TEST_SUITE_P(CasesAndPaths, Verify, ::testing::Combine(::testing::Range(0, 5), ::testing::Bool()),
                         [](const auto& info) {
                             return kCases[std::get<0>(info.param)].first +
                                    std::string(std::get<1>(info.param) ? "Tunnelled" : "Direct");
                         });

// The trust setting changes between requests (set, another path, a hashed directory, an unreadable path, removed):
// a pooled connection serves only the setting it was made under. The host is checked as the resolver reads it:
// every spelling of 127.0.0.1 matches the certificate's address and no other name, a name the certificate's names.
TEST_F(ChannelTest, EachRequestIsJudgedUnderTheTrustSettingOfTheMomentAndTheHostAsSpelt) {
    const std::string missing = tempDir() + "/missing.pem", file = tempDir() + "/got";
    const std::map<std::string, std::string> paths = {
        {"ca", peers().trustCa}, {"dir", peers().trustDir}, {"system", ""}, {"missing", missing}};
    const std::string noIssuer = "unable to get local issuer certificate", address = "IP address mismatch";
    const std::tuple<const char*, const char*, const char*, std::string> steps[] = {
        // trust ("-": none), host, server, reason ("": trusted)
        {"-", "127.0.0.1", "selfsigned", ""},
        {"ca", "127.0.0.1", "selfsigned", "self-signed certificate"},
        {"-", "127.0.0.1", "good", ""},
        {"ca", "127.0.0.1", "good", ""},
        {"system", "127.0.0.1", "good", noIssuer},
        {"dir", "127.0.0.1", "good", ""},
        {"dir", "127.0.0.1", "unknownca", noIssuer},
        {"ca", "127.1", "good", ""},
        {"ca", "2130706433", "good", ""},
        {"ca", "0x7f.0.0.1", "good", ""},
        {"ca", "localhost", "good", ""},
        {"ca", "127.1", "othername", address},
        {"ca", "2130706433", "othername", address},
        {"ca", "0x7f.0.0.1", "othername", address},
        {"ca", "localhost", "othername", "hostname mismatch"},
        {"missing", "127.0.0.1", "good", "cannot read the trust anchors in " + missing}};
    for (const auto& [trust, host, server, reason] : steps) {
        channel.setParam(kParamVerifyPeer, *trust == '-' ? nullptr : paths.at(trust).c_str(), true);
        const std::string at = std::string(host) + ":" + std::to_string(peers().tlsPorts.at(server));
        const int result = channel.httpGet(("https://" + at + "/five.bin").c_str(), file.c_str());
        EXPECT_EQ(reported(channel), reason.empty() ? "0 " : "-3034 " + at + ": " + reason) << at << " under " << trust;
        EXPECT_EQ(result, reason.empty() ? kOk : kUntrusted) << at << " under " << trust;
    }
    EXPECT_EQ(loggedCount("cannot read the trust anchors in " + missing), 1);
}

// A read ends with what arrived, not waiting (time-out 20 s) for the rest of a record the TLS layer holds the start
// of: the server sends head, body and a further record less its last 2 bytes, then waits for the client to go.
TEST_F(ChannelTest, AReadEndsWithWhatArrivedBeforeAPartialRecord) {
    LoopbackPort port(true);
    std::thread server([&port] {
        SSL_CTX* context = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate_file(context, (peers().trustDir + "/../good.pem").c_str(), SSL_FILETYPE_PEM);
        SSL_CTX_use_PrivateKey_file(context, (peers().trustDir + "/../good.key").c_str(), SSL_FILETYPE_PEM);
        SSL* ssl = SSL_new(context);
        char request[4096];
        if (port.acceptOne() >= 0 && SSL_set_fd(ssl, port.peer) == 1 && SSL_accept(ssl) == 1 &&
            SSL_read(ssl, request, sizeof request) > 0) {
            BIO* records = BIO_new(BIO_s_mem());
            SSL_set0_wbio(ssl, records);  // the records are cut before they go out
            for (const char* text : {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "hello", "more"})
                SSL_write(ssl, text, (int)strlen(text));
            char* bytes = nullptr;
            const long length = BIO_get_mem_data(records, &bytes);
            pollfd gone = {port.peer, POLLIN, 0};
            if (send(port.peer, bytes, length - 2, MSG_NOSIGNAL) > 0) poll(&gone, 1, 10000);
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
