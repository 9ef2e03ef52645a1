// POST against nginx and the scripted server: the request bytes, how long
// the answer is read, redirects and failures.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>

#include "http/transfer_fixtures.h"
#include "support/log_capture.h"

namespace {

using namespace transfertest;
using testsupport::httpResponse;
using testsupport::peers;
using testsupport::ScriptServer;
using testsupport::ServerConnection;

std::string hostOf(const ScriptServer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

// Answers one request and closes the connection, as a server without
// keep-alive does.
ScriptServer::Handler answerAndClose(std::string answer) {
    return [answer](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(answer);
        c.close();
    };
}

class Post : public ChannelTest {
protected:
    int post(const std::string& url, std::string body, const char* headers = nullptr) {
        std::string extra = headers != nullptr ? headers : "";
        return channel.httpPost(url.c_str(), headers != nullptr ? &extra[0] : nullptr, &body[0], false);
    }
    std::string response() { return channel.m_response; }
};

// ---------------------------------------------------------------------------
// The request on the wire.

TEST_F(Post, RequestCarriesLengthHostExtraHeadersAndBody) {
    const std::string answer = httpResponse(200, "stored\n");
    ScriptServer server(answerAndClose(answer));
    ASSERT_EQ(post(server.url("/p"), "a=1&b=2", "X-One: 1\r\nX-Two: 2\r\n"), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "POST /p HTTP/1.1\r\nContent-Length: 7\r\nHost: " + hostOf(server) +
                                        "\r\nX-One: 1\r\nX-Two: 2\r\n\r\na=1&b=2");
    EXPECT_EQ(response(), answer);
}

TEST_F(Post, EmptyBodyIsAnnouncedWithLengthZero) {
    ScriptServer server(answerAndClose(httpResponse(200, "")));
    ASSERT_EQ(post(server.url("/p"), ""), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "POST /p HTTP/1.1\r\nContent-Length: 0\r\nHost: " + hostOf(server) + "\r\n\r\n");
}

TEST_F(Post, UrlWithoutPathPostsToSlash) {
    ScriptServer server(answerAndClose(httpResponse(200, "")));
    ASSERT_EQ(post(server.url(""), "x"), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "POST / HTTP/1.1\r\nContent-Length: 1\r\nHost: " + hostOf(server) + "\r\n\r\nx");
}

TEST_F(Post, CredentialsCookieAndNoCacheParametersAddTheirHeadersInNameOrder) {
    ScriptServer server(answerAndClose(httpResponse(200, "")));
    channel.setParam(kParamUser, "u", true);
    channel.setParam(kParamPassword, "p", true);
    channel.setParam(kParamCookie, "s=9", true);
    channel.setParam(kParamNoCache, "yes", true);
    ASSERT_EQ(post(server.url("/p"), "body", "X-Extra: e\r\n"), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0],
              "POST /p HTTP/1.1\r\n"
              "Authorization: Basic dTpw\r\n"
              "Cache-Control: no-cache, no-store, must-revalidate\r\n"
              "Content-Length: 4\r\n"
              "Cookie: s=9\r\n"
              "Expires: 0\r\n"
              "Host: " +
                  hostOf(server) +
                  "\r\n"
                  "Pragma: no-cache\r\n"
                  "X-Extra: e\r\n"
                  "\r\n"
                  "body");
}

TEST_F(Post, LargeBodyArrivesWhole) {
    const std::string body = letters(3 * 1024 * 1024 + 17);
    ScriptServer server(answerAndClose(httpResponse(200, "ok")));
    ASSERT_EQ(post(server.url("/big"), body), kOk);
    ASSERT_EQ(server.requests().size(), 1u);
    const std::string head = "POST /big HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                             "\r\nHost: " + hostOf(server) + "\r\n\r\n";
    EXPECT_TRUE(server.requests()[0] == head + body);
}

TEST_F(Post, MissingUrlOrBodyIsRefusedWithoutConnecting) {
    ScriptServer server(answerAndClose(httpResponse(200, "")));
    std::string body = "b";
    EXPECT_EQ(channel.httpPost(nullptr, nullptr, &body[0], false), kInvalidArgument);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kInvalidArgument);
    EXPECT_EQ(channel.httpPost(server.url("/p").c_str(), nullptr, nullptr, false), kInvalidArgument);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kInvalidArgument);
    EXPECT_EQ(server.connections(), 0);
}

// ---------------------------------------------------------------------------
// Reading the answer.

TEST_F(Post, NginxAnswerIsKeptWithItsHead) {
    for (bool https : {false, true}) {
        const std::string url = https ? peers().httpsUrl("/post") : peers().httpUrl("/post");
        ASSERT_EQ(post(url, "data=1"), kOk) << url;
        const std::string answer = response();
        EXPECT_EQ(answer.substr(0, 17), "HTTP/1.1 200 OK\r\n") << answer;
        ASSERT_GE(answer.size(), 11u);
        EXPECT_EQ(answer.substr(answer.size() - 11), "\r\n\r\nposted\n") << answer;
        long long length = -1;
        channel.httpResponse(&length);
        EXPECT_EQ(length, 7);
    }
}

TEST_F(Post, ServerThatClosesAfterAnsweringEndsThePostPromptly) {
    channel.setParam(kParamTimeout, "3", true);
    const std::string answer = httpResponse(200, "done", "X-Server: script\r\n");
    ScriptServer server(answerAndClose(answer));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(post(server.url("/p"), "x"), kOk);
    EXPECT_LT(secondsSince(start), 1.5);
    EXPECT_EQ(response(), answer);
}

TEST_F(Post, ServerThatKeepsTheConnectionEndsThePostWithTheTimeOut) {
    const std::string answer = httpResponse(200, "kept");
    ScriptServer server([&](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(answer);
        c.stall(10);
    });
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(post(server.url("/p"), "x"), kOk);
    const double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(response(), answer);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kOk);
}

TEST_F(Post, AnswerArrivingInPiecesIsCollectedWhole) {
    const std::string answer = httpResponse(200, letters(3000));
    ScriptServer server([&](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.sendPieces(answer, {5, 20, 38, 40, 1000, 2500}, 30);
        c.close();
    });
    ASSERT_EQ(post(server.url("/p"), "x"), kOk);
    EXPECT_EQ(response(), answer);
}

TEST_F(Post, AnswerShorterThanAnnouncedFailsWithReadError) {
    ScriptServer server(answerAndClose("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf"));
    EXPECT_EQ(post(server.url("/p"), "x"), kReadFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kReadFailed);
}

TEST_F(Post, ServerClosingWithoutAnswerFailsWithReadError) {
    ScriptServer server([](ServerConnection& c) {
        c.readRequest();
        c.close();
    });
    EXPECT_EQ(post(server.url("/p"), "x"), kReadFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kReadFailed);
}

TEST_F(Post, ErrorStatusFailsAndKeepsTheAnswer) {
    const std::string answer = httpResponse(404, "no such form");
    ScriptServer server(answerAndClose(answer));
    EXPECT_EQ(post(server.url("/p"), "x"), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
    EXPECT_EQ(response(), answer);
}

TEST_F(Post, ChunkedAnswerIsRefused) {
    const std::string answer =
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + testsupport::chunkedBody({"posted\n"});
    ScriptServer server(answerAndClose(answer));
    EXPECT_EQ(post(server.url("/p"), "x"), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
    EXPECT_EQ(response(), answer);
}

TEST_F(Post, FlagAsksForAFreshConnection) {
    ScriptServer server([](ServerConnection& c) {
        for (int i = 0; i < 10; ++i) {
            const std::string request = c.readRequest();
            if (request.empty()) return;
            c.send(httpResponse(200, "r"));
            if (request.compare(0, 5, "POST ") == 0) return c.close();
        }
    });
    std::string body = "x";
    ASSERT_EQ(channel.httpGet(server.url("/g").c_str()), kOk);
    ASSERT_EQ(channel.httpPost(server.url("/p").c_str(), nullptr, &body[0], false), kOk);
    EXPECT_EQ(server.connections(), 1) << "the kept connection was not reused";
    ASSERT_EQ(channel.httpGet(server.url("/g").c_str()), kOk);
    ASSERT_EQ(channel.httpPost(server.url("/p").c_str(), nullptr, &body[0], true), kOk);
    EXPECT_EQ(server.connections(), 3) << "the flag did not open a fresh connection";
    EXPECT_EQ(server.requests().size(), 4u);
}

// ---------------------------------------------------------------------------
// Redirects.

class PostRedirect : public Post, public ::testing::WithParamInterface<int> {};

TEST_P(PostRedirect, PermanentAndMethodKeepingRedirectsRepostTheBodyToTheLocation) {
    const std::string answer = httpResponse(201, "created");
    ScriptServer destination(answerAndClose(answer));
    ScriptServer origin(answerAndClose(httpResponse(GetParam(), "", "Location: " + destination.url("/new") + "\r\n")));
    ASSERT_EQ(post(origin.url("/old"), "same body", "X-Form: 7\r\n"), kOk);
    ASSERT_EQ(origin.requests().size(), 1u);
    ASSERT_EQ(destination.requests().size(), 1u);
    EXPECT_EQ(destination.requests()[0], "POST /new HTTP/1.1\r\nContent-Length: 9\r\nHost: " + hostOf(destination) +
                                             "\r\nX-Form: 7\r\n\r\nsame body");
    EXPECT_EQ(response(), answer);
}

TEST_P(PostRedirect, RelativeLocationIsRepostedToTheSameServer) {
    std::atomic<int> answered{0};
    ScriptServer server([&](ServerConnection& c) {
        for (int i = 0; i < 3; ++i) {
            if (c.readRequest().empty()) return;
            if (answered++ != 0) {
                c.send(httpResponse(200, "here"));
                c.close();
                return;
            }
            c.send(httpResponse(GetParam(), "", "Location: /new\r\n"));
        }
    });
    testsupport::LogCapture log;
    ASSERT_EQ(post(server.url("/old"), "again"), kOk) << log.text();
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1], "POST /new HTTP/1.1\r\nContent-Length: 5\r\nHost: " + hostOf(server) + "\r\n\r\nagain");
}

INSTANTIATE_TEST_SUITE_P(Codes, PostRedirect, ::testing::Values(301, 307, 308));

class PostRedirectRefused : public Post, public ::testing::WithParamInterface<int> {};

TEST_P(PostRedirectRefused, FoundAndSeeOtherAreNotFollowed) {
    ScriptServer destination(answerAndClose(httpResponse(200, "")));
    ScriptServer origin(answerAndClose(httpResponse(GetParam(), "", "Location: " + destination.url("/new") + "\r\n")));
    EXPECT_EQ(post(origin.url("/old"), "x"), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
    EXPECT_EQ(origin.requests().size(), 1u);
    EXPECT_EQ(destination.connections(), 0);
}

INSTANTIATE_TEST_SUITE_P(Codes, PostRedirectRefused, ::testing::Values(302, 303));

TEST_F(Post, EndlessRedirectStopsAfterThirtyRedirects) {
    ScriptServer* self = nullptr;
    ScriptServer server([&](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(httpResponse(307, "", "Location: " + self->url("/loop") + "\r\n"));
        c.close();
    });
    self = &server;
    EXPECT_EQ(post(server.url("/loop"), "x"), kTooManyAttempts);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kTooManyAttempts);
    EXPECT_EQ(server.requests().size(), 31u);
}

}  // namespace
