// Response heads: status, lengths, framing, redirect target, cookies.
#include <gtest/gtest.h>

#include "channel/webChannel.h"
#include "http/response.h"
#include "support/log_capture.h"

namespace {

class ResponseHeader : public ::testing::Test {
protected:
    int parse(const std::string& text, webChannel::connection* conn = nullptr) {
        code = -1;
        headerLength = -1;
        contentLength = -1;
        return channel.parseHttpResponseHeader(text, code, headerLength, contentLength, conn);
    }
    webChannel channel;
    int code = 0;
    long long headerLength = 0;
    long long contentLength = 0;
};

TEST_F(ResponseHeader, PlainResponseGivesCodeLengthsAndBodyOffset) {
    std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 42\r\nServer: x\r\n\r\n";
    EXPECT_EQ(parse(head + "body"), kOk);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(contentLength, 42);
    EXPECT_EQ(headerLength, (long long)head.size());
    EXPECT_EQ(channel.m_responseLength, 42);
}

TEST_F(ResponseHeader, SecondBlankIsSearchedBeyondTheStatusLine) {
    EXPECT_EQ(parse("HTTP/1.1 200\r\nContent-Length: 5\r\n\r\nhello"), kOk);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(contentLength, 5);
}

TEST_F(ResponseHeader, ASingleBlankInAllIsMalformedAndLogged) {
    testsupport::LogCapture capture;
    EXPECT_EQ(parse("HTTP/1.1 200\r\n\r\n"), kMalformedResponse);
    EXPECT_EQ(parse("garbage"), kMalformedResponse);
    EXPECT_EQ(parse(""), kMalformedResponse);
    EXPECT_EQ(testsupport::countLines(capture.text(), "VRAXSecureWebChannel::parseHttpResponseHeader:"), 3);
}

TEST_F(ResponseHeader, ContentLengthNameIsCaseFreeButNeedsTheBlank) {
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 7\r\n\r\n"), kOk);
    EXPECT_EQ(contentLength, 7);
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nContent-Length:7\r\n\r\n"), kOk);
    EXPECT_EQ(contentLength, 0);
}

TEST_F(ResponseHeader, TransferCodingValueIsCaseSensitive) {
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: chunked\r\n\r\n"), kChunked);
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n"), kUnsupportedCoding);
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n"), kChunked);
}

TEST_F(ResponseHeader, LocationCountsOnlyForRedirectsAndEndsTheParse) {
    webChannel::connection conn(0, "h", "80", false);
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nLocation: /x\r\nContent-Length: 3\r\n\r\n", &conn), kOk);
    EXPECT_EQ(conn.location, "");
    EXPECT_EQ(contentLength, 3);
    EXPECT_EQ(parse("HTTP/1.1 302 Found\r\nLocation: http://h:1/y  \r\nContent-Length: 3\r\n\r\n", &conn), kOk);
    EXPECT_EQ(conn.location, "http://h:1/y");
    EXPECT_EQ(contentLength, 0);   // the line after the location was never seen
    EXPECT_EQ(headerLength, -1);   // untouched
    EXPECT_EQ(parse("HTTP/1.1 307 Moved\r\nLocation: http://h:2/z\r\n\r\n"), kOk);
    EXPECT_EQ(channel.m_response, "http://h:2/z");  // without a connection
}

TEST_F(ResponseHeader, CookiesAreCapturedOnlyWhenSwitchedOnAndTheLastWins) {
    std::string head = "HTTP/1.1 200 OK\r\nSet-Cookie: a=1; Path=/\r\nSet-Cookie: b=2; HttpOnly\r\n\r\n";
    std::string value;
    parse(head);
    EXPECT_FALSE(channel.getParam(kParamCookie, value, true));
    channel.setParam(kParamCookieCapture, "", true);
    parse(head);
    EXPECT_TRUE(channel.getParam(kParamCookie, value, true));
    EXPECT_EQ(value, "b=2; HttpOnly");
    channel.setParam(kParamCookieCapture, nullptr, true);
    EXPECT_FALSE(channel.getParam(kParamCookie, value, true));
}

TEST_F(ResponseHeader, HeadWithoutEmptyLineHasNoBodyOffset) {
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n"), kOk);
    EXPECT_EQ(headerLength, 0);
    EXPECT_EQ(contentLength, 5);
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\nContent-Len"), kOk);
    EXPECT_EQ(headerLength, 0);
}

TEST_F(ResponseHeader, HugeAndNegativeLengthsSaturateLikeAtoll) {
    parse("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n");
    EXPECT_EQ(contentLength, LLONG_MAX);
    parse("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n");
    EXPECT_EQ(contentLength, -5);
    parse("HTTP/1.1 99999999999 OK\r\n\r\n");
    EXPECT_EQ(code, INT_MAX);
    parse("HTTP/1.1 4294967496 OK\r\n\r\n");  // would wrap around to 200
    EXPECT_EQ(code, INT_MAX);
}

TEST_F(ResponseHeader, EveryPrefixOfAResponseParsesWithoutOverrun) {
    std::string full = "HTTP/1.1 302 Found\r\nContent-Length: 10\r\nSet-Cookie: k=v\r\nTransfer-Encoding: chunked\r\n"
                       "Location: http://a:1/b\r\n\r\n0123456789";
    channel.setParam(kParamCookieCapture, "", true);
    for (size_t cut = 0; cut <= full.size(); ++cut) {
        // A view of exactly `cut` bytes: reading past it would be caught by
        // the address sanitizer builds.
        std::unique_ptr<char[]> copy(new char[cut]);
        memcpy(copy.get(), full.data(), cut);
        channel.parseHttpResponseHeader(std::string_view(copy.get(), cut), code, headerLength, contentLength,
                                        nullptr);
    }
}

TEST(HeadEnd, FoundAfterTheFirstEmptyLineOnly) {
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\r\n\r\nbody"), 19);
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\n\nbody"), 17);
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\r\nA: b\r\n"), 0);
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\r\n \t\r\nx"), 21);
    EXPECT_EQ(findHeadEnd(""), 0);
}

TEST(ResponseBody, StartsWithTheSeparator) {
    webChannel channel;
    std::string body = "old";
    EXPECT_EQ(channel.getHttpResponseBody("HTTP/1.1 200 OK\r\nA: b\r\n\r\nhello", body), kOk);
    EXPECT_EQ(body, "\r\n\r\nhello");
    EXPECT_EQ(channel.getHttpResponseBody("HTTP/1.1 200 OK\r\n", body), kInvalidArgument);
    EXPECT_EQ(body, "");
}

}  // namespace
