// Single GETs against nginx and the scripted server: into a file, into
// memory, the request bytes on the wire, redirects, faults and retries, and
// the ranged download a single GET into a file runs on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "http/transfer_fixtures.h"
#include "support/log_capture.h"

namespace {

using namespace transfertest;
using testsupport::httpResponse;
using testsupport::LogCapture;
using testsupport::peers;
using testsupport::readFile;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using testsupport::tempDir;

std::string nginxUrl(const std::string& path, bool https) {
    return https ? peers().httpsUrl(path) : peers().httpUrl(path);
}

std::string hostOf(const ScriptServer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

bool hasLine(const LogCapture& log, const std::string& line) {
    for (const std::string& l : log.lines())
        if (l == line) return true;
    return false;
}

// ---------------------------------------------------------------------------
// Files from nginx, over HTTP and HTTPS.

class NginxFileDownload : public ChannelTest, public ::testing::WithParamInterface<std::tuple<const char*, bool>> {};

TEST_P(NginxFileDownload, TargetIsByteIdenticalToTheSource) {
    const std::string name = std::get<0>(GetParam());
    const bool https = std::get<1>(GetParam());
    const std::string target = tempDir() + "/" + name.substr(name.rfind('/') + 1);
    ASSERT_EQ(channel.httpGet(nginxUrl("/" + name, https).c_str(), target.c_str()), kOk);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kOk);
    const std::string expected = readFile(peers().www + "/" + name);
    const std::string got = readFile(target);
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected) << "content of " << target << " differs from the source";
}

INSTANTIATE_TEST_SUITE_P(Files, NginxFileDownload,
                         ::testing::Combine(::testing::Values("empty.bin", "five.bin", "k256m1.bin", "k256.bin",
                                                              "k256p1.bin", "m1.bin", "m40.bin", "small/f00000.bin"),
                                            ::testing::Bool()),
                         [](const ::testing::TestParamInfo<NginxFileDownload::ParamType>& info) {
                             std::string name = std::get<0>(info.param);
                             for (char& c : name)
                                 if (c == '.' || c == '/') c = '_';
                             return name + (std::get<1>(info.param) ? "_https" : "_http");
                         });

class NginxSingleGet : public ChannelTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NginxSingleGet, ExistingLongerTargetEndsUpHoldingExactlyTheBody) {
    const std::string target = tempDir() + "/five.bin";
    writeFile(target, std::string(10000, 'x'));
    ASSERT_EQ(channel.httpGet(nginxUrl("/five.bin", GetParam()).c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "hello");
}

TEST_P(NginxSingleGet, MemoryGetGivesSeparatorBodyAndContentLength) {
    ASSERT_EQ(channel.httpGet(nginxUrl("/five.bin", GetParam()).c_str()), kOk);
    long long length = -1;
    EXPECT_EQ(memoryResult(&length), "\r\n\r\nhello");
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(channel.httpResponse(nullptr), "\r\n\r\nhello");
}

TEST_P(NginxSingleGet, MemoryGetOfAnEmptyFileGivesTheSeparatorOnly) {
    ASSERT_EQ(channel.httpGet(nginxUrl("/five.bin", GetParam()).c_str()), kOk);
    ASSERT_EQ(channel.httpGet(nginxUrl("/empty.bin", GetParam()).c_str()), kOk);
    long long length = -1;
    EXPECT_EQ(memoryResult(&length), "\r\n\r\n");
    EXPECT_EQ(length, 0);
}

TEST_P(NginxSingleGet, MemoryGetKeepsOnlyTheFirstReadAndItsRestDoesNotLeakIntoTheNextRequest) {
    ASSERT_EQ(channel.httpGet(nginxUrl("/k256.bin", GetParam()).c_str()), kOk);
    long long length = -1;
    const std::string first = memoryResult(&length);
    EXPECT_EQ(length, 262144);
    ASSERT_GE(first.size(), 4u);
    EXPECT_EQ(first.substr(0, 4), "\r\n\r\n");
    EXPECT_LT(first.size(), 4096u) << "more than one read of 4096 bytes was kept";
    const std::string source = readFile(peers().www + "/k256.bin");
    EXPECT_TRUE(source.compare(0, first.size() - 4, first, 4) == 0) << "the kept bytes are not the body's start";

    // The unread rest of that body must not be taken for the next answer.
    ASSERT_EQ(channel.httpGet(nginxUrl("/five.bin", GetParam()).c_str()), kOk);
    EXPECT_EQ(memoryResult(&length), "\r\n\r\nhello");
    EXPECT_EQ(length, 5);
}

TEST_P(NginxSingleGet, RedirectIsFollowedToItsLocation) {
    LogCapture log;
    const std::string target = tempDir() + "/redirected.bin";
    ASSERT_EQ(channel.httpGet(nginxUrl("/redirect/anything", GetParam()).c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "hello");
    const std::string location = GetParam() ? "https://127.0.0.1/five.bin"
                                            : "http://127.0.0.1:" + std::to_string(peers().httpPort) + "/five.bin";
    EXPECT_TRUE(
        hasLine(log, "VRAXSecureWebChannel::httpGet(thread 0, file " + target + "): redirecting to " + location))
        << log.text();
}

TEST_P(NginxSingleGet, AuthAreaAnswersOnlyWithCredentials) {
    const std::string target = tempDir() + "/auth.bin";
    EXPECT_EQ(channel.httpGet(nginxUrl("/auth/five.bin", GetParam()).c_str(), target.c_str()), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
    EXPECT_FALSE(fileExists(target));

    channel.setParam(kParamUser, peers().authUser.c_str(), true);
    channel.setParam(kParamPassword, peers().authPassword.c_str(), true);
    ASSERT_EQ(channel.httpGet(nginxUrl("/auth/five.bin", GetParam()).c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "hello");
    ASSERT_EQ(channel.httpGet(nginxUrl("/auth/five.bin", GetParam()).c_str()), kOk);
    EXPECT_EQ(memoryResult(), "\r\n\r\nhello");
}

TEST_P(NginxSingleGet, NonVirtualEntryPointDownloadsLikeTheVirtualOne) {
    const std::string target = tempDir() + "/m1.bin";
    ASSERT_EQ(channel.httpGet_c(nginxUrl("/m1.bin", GetParam()).c_str(), target.c_str()), kOk);
    EXPECT_TRUE(readFile(target) == readFile(peers().www + "/m1.bin"));
}

INSTANTIATE_TEST_SUITE_P(Schemes, NginxSingleGet, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "https" : "http"; });

// ---------------------------------------------------------------------------
// The request bytes on the wire.

class SingleGetRequest : public ChannelTest {
protected:
    ScriptServer server{serveEach([](const std::string&) { return httpResponse(200, "ok"); })};
};

TEST_F(SingleGetRequest, FileGetUsesTheAbsoluteTargetAndTheHostWithPort) {
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("/dir/f.bin").c_str(), target.c_str()), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0],
              "GET http://" + hostOf(server) + "/dir/f.bin HTTP/1.1\r\nHost: " + hostOf(server) + "\r\n\r\n");
    EXPECT_EQ(readFile(target), "ok");
}

TEST_F(SingleGetRequest, FileGetOfAUrlWithoutPathAsksForTheRoot) {
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("").c_str(), target.c_str()), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0],
              "GET http://" + hostOf(server) + "/ HTTP/1.1\r\nHost: " + hostOf(server) + "\r\n\r\n");
}

TEST_F(SingleGetRequest, MemoryGetUsesThePathOnly) {
    ASSERT_EQ(channel.httpGet(server.url("/dir/x?q=1").c_str()), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "GET /dir/x?q=1 HTTP/1.1\r\nHost: " + hostOf(server) + "\r\n\r\n");
    EXPECT_EQ(memoryResult(), "\r\n\r\nok");
}

TEST_F(SingleGetRequest, MemoryGetOfAUrlWithoutPathAsksForSlash) {
    ASSERT_EQ(channel.httpGet(server.url("").c_str()), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "GET / HTTP/1.1\r\nHost: " + hostOf(server) + "\r\n\r\n");
}

TEST_F(SingleGetRequest, CredentialsCookieAndNoCacheParametersAddTheirHeadersInNameOrder) {
    channel.setParam(kParamUser, "u", true);
    channel.setParam(kParamPassword, "p", true);
    channel.setParam(kParamCookie, "a=1; b=2", true);
    channel.setParam(kParamNoCache, "", true);
    const std::string headers =
        "Authorization: Basic dTpw\r\n"
        "Cache-Control: no-cache, no-store, must-revalidate\r\n"
        "Cookie: a=1; b=2\r\n"
        "Expires: 0\r\n"
        "Host: " +
        hostOf(server) +
        "\r\n"
        "Pragma: no-cache\r\n"
        "\r\n";
    ASSERT_EQ(channel.httpGet(server.url("/m").c_str()), kOk);
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("/f").c_str(), target.c_str()), kOk);
    ASSERT_EQ(server.requests().size(), 2u);
    EXPECT_EQ(server.requests()[0], "GET /m HTTP/1.1\r\n" + headers);
    EXPECT_EQ(server.requests()[1], "GET http://" + hostOf(server) + "/f HTTP/1.1\r\n" + headers);
}

TEST_F(SingleGetRequest, UserWithoutPasswordSendsNoAuthorization) {
    channel.setParam(kParamUser, "u", true);
    ASSERT_EQ(channel.httpGet(server.url("/m").c_str()), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "GET /m HTTP/1.1\r\nHost: " + hostOf(server) + "\r\n\r\n");
}

TEST_F(SingleGetRequest, CapturedCookieIsSentWithTheNextRequests) {
    ScriptServer cookies(serveEach([](const std::string& request) {
        return requestTarget(request) == "/login" ? httpResponse(200, "in", "Set-Cookie: id=42; Path=/\r\n")
                                                  : httpResponse(200, "ok");
    }));
    channel.setParam(kParamCookieCapture, "", true);
    ASSERT_EQ(channel.httpGet(cookies.url("/login").c_str()), kOk);
    ASSERT_EQ(channel.httpGet(cookies.url("/page").c_str()), kOk);
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(cookies.url("/file").c_str(), target.c_str()), kOk);
    const auto requests = cookies.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], "GET /login HTTP/1.1\r\nHost: " + hostOf(cookies) + "\r\n\r\n");
    EXPECT_EQ(requests[1], "GET /page HTTP/1.1\r\nCookie: id=42; Path=/\r\nHost: " + hostOf(cookies) + "\r\n\r\n");
    EXPECT_EQ(requests[2], "GET http://" + hostOf(cookies) +
                               "/file HTTP/1.1\r\nCookie: id=42; Path=/\r\nHost: " + hostOf(cookies) + "\r\n\r\n");
}

TEST_F(SingleGetRequest, ConnectionIsReusedWhileTheServerKeepsIt) {
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("/1").c_str()), kOk);
    ASSERT_EQ(channel.httpGet(server.url("/2").c_str(), target.c_str()), kOk);
    ASSERT_EQ(channel.httpGet(server.url("/3").c_str()), kOk);
    ASSERT_EQ(channel.httpGet(server.url("/4").c_str(), target.c_str()), kOk);
    EXPECT_EQ(server.requests().size(), 4u);
    EXPECT_EQ(server.connections(), 1);
}

class MemoryGetBody : public ChannelTest {};

TEST_F(MemoryGetBody, KeepsNoMoreThanTheFirstReadOf4096Bytes) {
    const std::string body = letters(10000);
    const std::string answer = httpResponse(200, body);
    const size_t headLength = answer.size() - body.size();
    ScriptServer server(serveEach([&](const std::string&) { return answer; }));
    ASSERT_EQ(channel.httpGet(server.url("/big").c_str()), kOk);
    long long length = -1;
    const std::string kept = memoryResult(&length);
    EXPECT_EQ(length, 10000);
    ASSERT_GE(kept.size(), 4u);
    EXPECT_EQ(kept.substr(0, 4), "\r\n\r\n");
    const size_t bodyKept = kept.size() - 4;
    EXPECT_LE(headLength + bodyKept, 4096u);
    EXPECT_GE(headLength + bodyKept, 4095u) << "the first read was not used whole";
    EXPECT_EQ(kept.substr(4), body.substr(0, bodyKept));
}

// ---------------------------------------------------------------------------
// Redirects through the scripted server.

class RedirectCode : public ChannelTest, public ::testing::WithParamInterface<int> {};

TEST_P(RedirectCode, FileGetFollowsTheLocationToAnotherServer) {
    ScriptServer destination(serveEach([](const std::string&) { return httpResponse(200, "moved"); }));
    const std::string location = destination.url("/new/place");
    ScriptServer origin(
        serveEach([&](const std::string&) { return httpResponse(GetParam(), "", "Location: " + location + "\r\n"); }));
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(origin.url("/old").c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "moved");
    ASSERT_EQ(origin.requests().size(), 1u);
    ASSERT_EQ(destination.requests().size(), 1u);
    EXPECT_EQ(destination.requests()[0], "GET " + location + " HTTP/1.1\r\nHost: " + hostOf(destination) + "\r\n\r\n");
}

TEST_P(RedirectCode, MemoryGetRepeatsTheSameUrl) {
    std::atomic<int> answered{0};
    ScriptServer server(serveEach([&](const std::string&) {
        if (answered++ == 0) return httpResponse(GetParam(), "", "Location: /elsewhere\r\n");
        return httpResponse(200, "again");
    }));
    ASSERT_EQ(channel.httpGet(server.url("/start").c_str()), kOk);
    EXPECT_EQ(memoryResult(), "\r\n\r\nagain");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requestTarget(requests[0]), "/start");
    EXPECT_EQ(requestTarget(requests[1]), "/start");
}

INSTANTIATE_TEST_SUITE_P(Codes, RedirectCode, ::testing::Values(301, 302, 303, 307, 308));

class SingleGetRedirect : public ChannelTest {};

TEST_F(SingleGetRedirect, FileGetFollowsARedirectFromPlainHttpToHttps) {
    const std::string location = peers().httpsUrl("/k256p1.bin");
    ScriptServer server(
        serveEach([&](const std::string&) { return httpResponse(302, "", "Location: " + location + "\r\n"); }));
    const std::string target = tempDir() + "/k256p1.bin";
    ASSERT_EQ(channel.httpGet(server.url("/plain").c_str(), target.c_str()), kOk);
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_TRUE(readFile(target) == readFile(peers().www + "/k256p1.bin"));
}

class RedirectLimit : public ChannelTest {
protected:
    ScriptServer server{serveEach(
        [this](const std::string&) { return httpResponse(302, "", "Location: " + server.url("/loop") + "\r\n"); })};
};

TEST_F(RedirectLimit, FileGetStopsAfterThirtyAttempts) {
    const std::string target = tempDir() + "/f";
    EXPECT_EQ(channel.httpGet(server.url("/loop").c_str(), target.c_str()), kTooManyAttempts);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kTooManyAttempts);
    EXPECT_EQ(server.requests().size(), 30u);
    EXPECT_FALSE(fileExists(target));
}

TEST_F(RedirectLimit, MemoryGetStopsAfterThirtyRedirects) {
    EXPECT_EQ(channel.httpGet(server.url("/loop").c_str()), kTooManyAttempts);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kTooManyAttempts);
    EXPECT_EQ(server.requests().size(), 31u);
}

// ---------------------------------------------------------------------------
// Faults.

class SingleGetFault : public ChannelTest {};

TEST_F(SingleGetFault, MemoryGetRefusesAThreeHundredThatIsNoRedirect) {
    ScriptServer server(serveEach([](const std::string&) { return httpResponse(300, "choices"); }));
    EXPECT_EQ(channel.httpGet(server.url("/x").c_str()), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
}

TEST_F(SingleGetFault, FileGetTakesTheBodyOfAThreeHundredThatIsNoRedirect) {
    ScriptServer server(serveEach([&](const std::string&) {
        return httpResponse(300, "choices", "Location: " + server.url("/elsewhere") + "\r\n");
    }));
    const std::string target = tempDir() + "/choices";
    ASSERT_EQ(channel.httpGet(server.url("/x").c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "choices");
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(SingleGetFault, NotFoundFailsWithoutTouchingAnExistingTarget) {
    ScriptServer server(serveEach([](const std::string&) { return httpResponse(404, "no such file"); }));
    const std::string target = tempDir() + "/kept";
    writeFile(target, "previous content");
    EXPECT_EQ(channel.httpGet(server.url("/missing").c_str(), target.c_str()), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
    EXPECT_EQ(readFile(target), "previous content");

    EXPECT_EQ(channel.httpGet(server.url("/missing").c_str()), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
}

TEST_F(SingleGetFault, SuccessClearsThePreviousError) {
    ScriptServer server(serveEach([](const std::string& request) {
        return requestTarget(request) == "/missing" ? httpResponse(404, "") : httpResponse(200, "fine");
    }));
    ASSERT_EQ(channel.httpGet(server.url("/missing").c_str()), kBadStatus);
    ASSERT_EQ(channel.httpGet(server.url("/there").c_str()), kOk);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kOk);
}

TEST_F(SingleGetFault, TargetThatCannotBeOpenedFailsWithFileError) {
    LogCapture log;
    ScriptServer server(serveEach([](const std::string&) { return httpResponse(200, "body"); }));
    const std::string parent = tempDir() + "/plain-file";
    writeFile(parent, "not a directory");
    const std::string target = parent + "/target";
    EXPECT_EQ(channel.httpGet(server.url("/f").c_str(), target.c_str()), kFileWrite);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
    EXPECT_TRUE(hasLine(log, "VRAXSecureWebChannel::httpGet(thread 0, file " + target + "): failed to open target: 0"))
        << log.text();
}

TEST_F(SingleGetFault, BodyEndingBeforeItsLengthFailsWithReadError) {
    ScriptServer server([](ServerConnection& c) {
        c.readRequest();
        c.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(40, 'b'));
        c.close();
    });
    const std::string target = tempDir() + "/short";
    EXPECT_EQ(channel.httpGet(server.url("/f").c_str(), target.c_str()), kReadFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kReadFailed);
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(SingleGetFault, NegativeContentLengthIsRefused) {
    ScriptServer server([](ServerConnection& c) {
        c.readRequest();
        c.send("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\nhello");
    });
    const std::string target = tempDir() + "/negative";
    EXPECT_EQ(channel.httpGet(server.url("/f").c_str(), target.c_str()), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
}

TEST_F(SingleGetFault, BodyWithoutLengthIsReadUntilTheServerCloses) {
    const std::string body = pattern(700000, 3);
    ScriptServer server([&](ServerConnection& c) {
        c.readRequest();
        c.sendPieces("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + body, {1000, 300000});
        c.close();
    });
    const std::string target = tempDir() + "/until-close";
    ASSERT_EQ(channel.httpGet(server.url("/f").c_str(), target.c_str()), kOk);
    EXPECT_TRUE(readFile(target) == body);
}

TEST_F(SingleGetFault, MemoryGetOfAStalledServerEndsWithTheTimeOut) {
    LogCapture log;
    ScriptServer server([](ServerConnection& c) {
        c.readRequest();
        c.stall(10);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(channel.httpGet(server.url("/slow").c_str()), kReadFailed);
    const double elapsed = secondsSince(start);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kReadFailed);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_TRUE(hasLine(log, "VRAXSecureWebChannel::httpGet: size: -2")) << log.text();
}

TEST_F(SingleGetFault, RefusedConnectionFailsWithConnectError) {
    RefusingPort port;
    ASSERT_NE(port.port(), 0);
    const std::string target = tempDir() + "/never";
    EXPECT_EQ(channel.httpGet(port.url("/f").c_str(), target.c_str()), kConnectFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kConnectFailed);
    EXPECT_FALSE(fileExists(target));
    EXPECT_EQ(channel.httpGet(port.url("/m").c_str()), kConnectFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kConnectFailed);
}

TEST_F(SingleGetFault, FileGetOfAServerStalledBeforeTheHeadEndsWithTheTimeOut) {
    LogCapture log;
    ScriptServer server([](ServerConnection& c) {
        c.readRequest();
        c.stall(10);
    });
    const std::string target = tempDir() + "/never";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(channel.httpGet(server.url("/slow").c_str(), target.c_str()), kReadFailed);
    const double elapsed = secondsSince(start);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kReadFailed);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_FALSE(fileExists(target));
    EXPECT_TRUE(hasLine(log, "VRAXSecureWebChannel::httpGet(thread 0, file " + target + "): size: -2")) << log.text();
}

TEST_F(SingleGetFault, NullTargetIsNoError) {
    ScriptServer server(serveEach([](const std::string&) { return httpResponse(200, "body"); }));
    EXPECT_EQ(channel.httpGet(server.url("/f").c_str(), nullptr), kOk);
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(SingleGetFault, MemoryGetSucceedsOnTheThirdTryAfterTwoResets) {
    ScriptServer server([](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        if (c.index() < 2)
            c.reset();
        else
            c.send(httpResponse(200, "third"));
    });
    ASSERT_EQ(channel.httpGet(server.url("/r").c_str()), kOk);
    EXPECT_EQ(memoryResult(), "\r\n\r\nthird");
    EXPECT_EQ(server.connections(), 3);
    EXPECT_EQ(server.requests().size(), 3u);
}

TEST_F(SingleGetFault, MemoryGetGivesUpAfterThreeResets) {
    ScriptServer server([](ServerConnection& c) {
        if (!c.readRequest().empty()) c.reset();
    });
    EXPECT_EQ(channel.httpGet(server.url("/r").c_str()), kTooManyAttempts);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kTooManyAttempts);
    EXPECT_EQ(server.requests().size(), 3u);
    EXPECT_EQ(server.connections(), 3);
}

// The server answers the first request completely, and once the client has
// taken the answer it closes that kept connection; the second request goes
// to the same server.
struct ClosedAfterAnswer {
    Signal answerTaken;
    Signal closed;
    testsupport::ScriptServer::Handler handler() {
        return [this](ServerConnection& c) {
            if (c.readRequest().empty()) return;
            c.send(httpResponse(200, c.index() == 0 ? "one" : "two"));
            if (c.index() != 0) {
                c.stall(5);
                return;
            }
            answerTaken.wait(10);
            c.close();
            closed.raise();
        };
    }
};

TEST_F(SingleGetFault, MemoryGetRepeatsOnAFreshConnectionWhenTheServerClosedTheKeptOne) {
    LogCapture log;
    ClosedAfterAnswer script;
    ScriptServer server(script.handler());
    ASSERT_EQ(channel.httpGet(server.url("/a").c_str()), kOk);
    EXPECT_EQ(memoryResult(), "\r\n\r\none");
    script.answerTaken.raise();
    ASSERT_TRUE(script.closed.wait(10));
    ASSERT_EQ(channel.httpGet(server.url("/b").c_str()), kOk) << log.text();
    EXPECT_EQ(memoryResult(), "\r\n\r\ntwo");
    EXPECT_EQ(server.connections(), 2);
}

// These two repeat after the segment download's two-second pause.
TEST_F(SingleGetFault, FileGetRepeatsOnAFreshConnectionAfterAResetBeforeTheHead) {
    LogCapture log;
    ScriptServer server([](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        if (c.index() == 0)
            c.reset();
        else
            c.send(httpResponse(200, "second try"));
    });
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("/r").c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "second try");
    EXPECT_EQ(server.connections(), 2);
    EXPECT_EQ(testsupport::countLines(log.text(), "VRAXSecureWebChannel::httpGet(thread 0, file " + target +
                                                      "): server closed connection, re-creating"),
              1)
        << log.text();
}

TEST_F(SingleGetFault, FileGetRepeatsOnAFreshConnectionWhenTheServerClosedTheKeptOne) {
    LogCapture log;
    ClosedAfterAnswer script;
    ScriptServer server(script.handler());
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("/a").c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "one");
    script.answerTaken.raise();
    ASSERT_TRUE(script.closed.wait(10));
    ASSERT_EQ(channel.httpGet(server.url("/b").c_str(), target.c_str()), kOk) << log.text();
    EXPECT_EQ(readFile(target), "two");
    EXPECT_EQ(server.connections(), 2);
}

TEST_F(SingleGetFault, NullUrlIsRefusedAndLeavesTheErrorState) {
    channel.m_errorCode = kBadStatus;
    EXPECT_EQ(channel.httpGet(nullptr, "/tmp/never"), kInvalidArgument);
    EXPECT_EQ(channel.httpGet(nullptr), kInvalidArgument);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
}

// ---------------------------------------------------------------------------
// A response head that arrives in several reads.

struct HeadCuts {
    const char* name;
    std::vector<size_t> cuts;  // offsets into "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"
};

class HeadInPieces : public ChannelTest, public ::testing::WithParamInterface<HeadCuts> {
protected:
    const std::string response = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
    ScriptServer server{[this](ServerConnection& c) {
        for (int i = 0; i < 10 && !c.readRequest().empty(); ++i)
            if (!c.sendPieces(response, GetParam().cuts, 50)) return;
    }};
};

TEST_P(HeadInPieces, NoHeadByteReachesTheTarget) {
    const std::string target = tempDir() + "/f";
    ASSERT_EQ(channel.httpGet(server.url("/f").c_str(), target.c_str()), kOk);
    EXPECT_EQ(readFile(target), "hello");
}

TEST_P(HeadInPieces, MemoryGetKeepsTheBodyBytesOfTheReadThatCompletedTheHead) {
    // The head ends with the line feed at offset 37; the read that brings it
    // ends at the next cut.
    size_t readEnd = response.size();
    for (size_t cut : GetParam().cuts)
        if (cut > 37 && cut < readEnd) readEnd = cut;
    ASSERT_EQ(channel.httpGet(server.url("/f").c_str()), kOk);
    long long length = -1;
    EXPECT_EQ(memoryResult(&length), "\r\n\r\n" + response.substr(38, readEnd - 38));
    EXPECT_EQ(length, 5);
}

INSTANTIATE_TEST_SUITE_P(Cuts, HeadInPieces,
                         ::testing::Values(HeadCuts{"InsideTheStatusLine", {4}}, HeadCuts{"BeforeTheCode", {9}},
                                           HeadCuts{"InsideAHeaderName", {20}}, HeadCuts{"BetweenTheLastCrAndLf", {37}},
                                           HeadCuts{"RightAfterTheHead", {38}},
                                           HeadCuts{"EverywhereAtOnce", {2, 9, 17, 25, 35, 36, 37, 38, 40}}),
                         [](const ::testing::TestParamInfo<HeadCuts>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// The ranged download that single GETs into a file run on.

class RangedDownload : public ChannelTest {
protected:
    // Repeats the one-try download while it asks for it, at most five times.
    int download(const std::string& url, const std::string& file, webChannel::httpGetJob& job,
                 std::vector<long long>& startsPerTry, int& attempts) {
        webChannel::connection* conn = nullptr;
        attempts = 0;
        int result = kRepeat;
        for (int tries = 0; tries < 5 && result == kRepeat; ++tries) {
            startsPerTry.push_back(job.start);
            result = channel.httpGet(conn, url, file, &job, nullptr, attempts);
        }
        return result;
    }

    static std::string partialHead(long long first, long long last, long long size) {
        return "HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(last - first + 1) +
               "\r\nContent-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
               std::to_string(size) + "\r\n\r\n";
    }
};

struct ResetAfterProgress {
    long long threshold;
    Signal reached;
};

void raiseAtThreshold(bool& cancel, int, long long done, long long, int, void* data) {
    cancel = false;
    auto* watch = static_cast<ResetAfterProgress*>(data);
    if (done >= watch->threshold) watch->reached.raise();
}

TEST_F(RangedDownload, ResetInTheBodyRepeatsFromTheFirstMissingByte) {
    const std::string content = pattern(600000, 5);
    const long long first = 1000, last = 500999;
    // The first connection delivers 300000 bytes of the range, waits until
    // the client has written at least 262144 of them, then resets.
    ResetAfterProgress watch{262144, {}};
    ScriptServer server([&](ServerConnection& c) {
        const std::string request = c.readRequest();
        long long from = 0, to = 0;
        if (!requestedRange(request, from, to)) return;
        const std::string head = partialHead(from, to, (long long)content.size());
        const std::string part = content.substr((size_t)from, (size_t)(to - from + 1));
        if (c.index() == 0) {
            c.send(head + part.substr(0, 300000));
            watch.reached.wait(10);
            c.reset();
        } else {
            c.send(head + part);
            c.stall(5);
        }
    });
    LogCapture log;
    channel.setHandler(raiseAtThreshold, &watch);
    const std::string target = tempDir() + "/ranged";
    webChannel::httpGetJob job(server.url("/data"));
    job.file = target;
    job.size = last - first + 1;
    job.start = first;
    job.end = last;
    std::vector<long long> starts;
    int attempts = -1;
    ASSERT_EQ(download(server.url("/data"), target, job, starts, attempts), kOk) << "log lines of the download:\n"
                                                                                 << log.text().substr(0, 4000);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_NE(requests[0].find("\r\nRange: bytes=1000-500999\r\n"), std::string::npos) << requests[0];
    EXPECT_GE(starts[1], first + 262144) << "the bytes received before the reset were not kept";
    EXPECT_NE(requests[1].find("\r\nRange: bytes=" + std::to_string(starts[1]) + "-500999\r\n"), std::string::npos)
        << requests[1];
    EXPECT_EQ(attempts, 0) << "an attempt that made progress was counted";
    EXPECT_EQ(server.connections(), 2);
    const std::string file = readFile(target);
    ASSERT_EQ(file.size(), (size_t)last + 1);
    EXPECT_TRUE(file.compare((size_t)first, (size_t)(last - first + 1), content, (size_t)first,
                             (size_t)(last - first + 1)) == 0);
}

TEST_F(SingleGetFault, FileGetStartsOverAfterAResetInTheBody) {
    const std::string body = pattern(500000, 6);
    ResetAfterProgress watch{262144, {}};
    ScriptServer server([&](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
        if (c.index() == 0) {
            c.send(head + body.substr(0, 300000));
            watch.reached.wait(10);
            c.reset();
        } else {
            c.send(head + body);
            c.stall(5);
        }
    });
    channel.setHandler(raiseAtThreshold, &watch);
    const std::string target = tempDir() + "/restarted";
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(channel.httpGet(server.url("/data").c_str(), target.c_str()), kOk);
    EXPECT_LT(secondsSince(start), 1.5) << "an attempt that made progress was paused for";
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].find("Range"), std::string::npos) << requests[1];
    const std::string got = readFile(target);
    EXPECT_EQ(got.size(), body.size());
    EXPECT_TRUE(got == body);
}

TEST_F(RangedDownload, WholeFileAnswerToARangedRequestPutsEveryByteAtItsOwnOffset) {
    const std::string content = pattern(5000, 9);
    ScriptServer server(serveEach([&](const std::string&) { return httpResponse(200, content); }));
    const std::string target = tempDir() + "/whole";
    writeFile(target, std::string(2000, 'x'));
    webChannel::httpGetJob job(server.url("/data"));
    job.file = target;
    job.size = 1000;
    job.start = 1000;
    job.end = 1999;
    std::vector<long long> starts;
    int attempts = -1;
    ASSERT_EQ(download(server.url("/data"), target, job, starts, attempts), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_NE(server.requests()[0].find("\r\nRange: bytes=1000-1999\r\n"), std::string::npos);
    const std::string file = readFile(target);
    ASSERT_EQ(file.size(), 2000u);
    EXPECT_EQ(file.substr(0, 1000), std::string(1000, 'x'));
    EXPECT_TRUE(file.compare(1000, 1000, content, 1000, 1000) == 0);
    EXPECT_EQ(job.start, 2000);
    EXPECT_EQ(job.downloaded, 1000);
}

// ---------------------------------------------------------------------------
// Descriptors.

class SingleRequestDescriptors : public ChannelTest {};

TEST_F(SingleRequestDescriptors, NoneOutlivesASeriesOfRequestsAndClose) {
    const std::string dir = tempDir();
    // Settle what the process opens once (TLS state and the like).
    ASSERT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str(), (dir + "/warm").c_str()), kOk);
    channel.close();
    const int before = testsupport::openDescriptorCount();
    {
        ScriptServer server([](ServerConnection& c) {
            for (int i = 0; i < 10; ++i) {
                const std::string path = requestTarget(c.readRequest());
                if (path.empty()) return;
                if (path.find("/reset") != std::string::npos) return c.reset();
                if (path.find("/missing") != std::string::npos) {
                    c.send(httpResponse(404, "gone"));
                    continue;
                }
                c.send(httpResponse(200, "fine"));
                if (path.find("/post") != std::string::npos) return c.close();
            }
        });
        for (bool https : {false, true}) {
            EXPECT_EQ(channel.httpGet(nginxUrl("/m1.bin", https).c_str(), (dir + "/m1").c_str()), kOk);
            EXPECT_EQ(channel.httpGet(nginxUrl("/five.bin", https).c_str()), kOk);
            EXPECT_EQ(channel.httpGet(nginxUrl("/k256.bin", https).c_str()), kOk);
            EXPECT_EQ(channel.httpGet(nginxUrl("/redirect/x", https).c_str(), (dir + "/r").c_str()), kOk);
        }
        std::string body = "payload";
        EXPECT_EQ(channel.httpPost(server.url("/post").c_str(), nullptr, body.data(), false), kOk);
        EXPECT_EQ(channel.httpPost(peers().httpsUrl("/post").c_str(), nullptr, body.data(), false), kOk);
        EXPECT_EQ(channel.httpGet(server.url("/missing").c_str(), (dir + "/m").c_str()), kBadStatus);
        EXPECT_EQ(channel.httpGet(server.url("/missing").c_str()), kBadStatus);
        EXPECT_EQ(channel.httpGet(server.url("/reset").c_str()), kTooManyAttempts);
        EXPECT_EQ(channel.httpGet(server.url("/ok").c_str(), (dir + "/ok").c_str()), kOk);
    }
    channel.close();
    EXPECT_EQ(testsupport::openDescriptorCount(), before);
}

}  // namespace
