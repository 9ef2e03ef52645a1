// Response heads: status, lengths, framing, redirect target and cookies, read
// exactly; where the head ends; the body an in-memory GET hands out.
#include "http/response.h"

#include <gtest/gtest.h>

#include <climits>

#include "channel/webChannel.h"
#include "support/log_capture.h"

namespace {

class ResponseHead : public ::testing::Test {
protected:
    int parse(const std::string& text, webChannel::connection* record = nullptr) {
        code = -1;
        headerLength = contentLength = -1;
        return channel.parseHttpResponseHeader(text, code, headerLength, contentLength, record);
    }
    webChannel channel;
    webChannel::connection conn{0, "h", "80", false};
    int code = 0;
    long long headerLength = 0, contentLength = 0;
};

TEST_F(ResponseHead, StatusLengthsAndFramingAreReadExactly) {
    testsupport::LogCapture capture;
    constexpr long long kAll = -2;  // the whole text is the head
    struct Case {
        std::string text;
        int result, code;
        long long headerLength, contentLength;
        std::string location;
    };
    const Case cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 42\r\nServer: x\r\n\r\nbody", kOk, 200, 50, 42, ""},
        {"HTTP/1.1 200\r\nContent-Length: 5\r\n\r\nhello", kOk, 200, 35, 5, ""},  // the end is after the status line
        // A single blank in all is malformed, and nothing is written.
        {"HTTP/1.1 200\r\n\r\n", kMalformedResponse, -1, -1, -1, ""},
        {"garbage", kMalformedResponse, -1, -1, -1, ""},
        {"", kMalformedResponse, -1, -1, -1, ""},
        // Names are case-free, but a value needs its blank; the coding's value is case-sensitive.
        {"HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 7\r\n\r\n", kOk, 200, kAll, 7, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length:7\r\n\r\n", kOk, 200, kAll, 0, ""},
        {"HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: chunked\r\n\r\n", kChunked, 200, kAll, 0, ""},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n", kUnsupportedCoding, 200, kAll, 0, ""},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n", kChunked, 200, kAll, 0, ""},
        // Without the empty line there is no body offset.
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", kOk, 200, 0, 5, ""},
        {"HTTP/1.1 200 OK\r\nContent-Len", kOk, 200, 0, 0, ""},
        // Numbers saturate as atoll does instead of wrapping.
        {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n", kOk, 200, kAll, LLONG_MAX, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n", kOk, 200, kAll, -5, ""},
        {"HTTP/1.1 99999999999 OK\r\n\r\n", kOk, INT_MAX, kAll, 0, ""},
        {"HTTP/1.1 4294967496 OK\r\n\r\n", kOk, INT_MAX, kAll, 0, ""},  // would wrap around to 200
        // A location counts only in a redirect, and ends the parse there.
        {"HTTP/1.1 200 OK\r\nLocation: /x\r\nContent-Length: 3\r\n\r\n", kOk, 200, kAll, 3, ""},
        {"HTTP/1.1 302 Found\r\nLocation: http://h:1/y  \r\nContent-Length: 3\r\n\r\n", kOk, 302, -1, 0,
         "http://h:1/y"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        conn.location.clear();
        EXPECT_EQ(parse(c.text, &conn), c.result);
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(headerLength, c.headerLength == kAll ? (long long)c.text.size() : c.headerLength);
        EXPECT_EQ(contentLength, c.contentLength);
        EXPECT_EQ(conn.location, c.location);
    }
    EXPECT_EQ(testsupport::countLines(capture.text(), "VRAXSecureWebChannel::parseHttpResponseHeader:"), 3);
    EXPECT_EQ(parse("HTTP/1.1 307 Moved\r\nLocation: http://h:2/z\r\n\r\n"), kOk);
    EXPECT_EQ(channel.m_response, "http://h:2/z");  // without a record
}

TEST_F(ResponseHead, CookiesAreCapturedOnlyWhenSwitchedOnAndTheLastWins) {
    const std::string head = "HTTP/1.1 200 OK\r\nSet-Cookie: a=1; Path=/\r\nSet-Cookie: b=2; HttpOnly\r\n\r\n";
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

TEST(HeadEnd, IsFoundAfterTheFirstEmptyLineAndTheInMemoryBodyStartsWithTheSeparator) {
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\r\n\r\nbody"), 19);
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\n\nbody"), 17);
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\r\nA: b\r\n"), 0);
    EXPECT_EQ(findHeadEnd("HTTP/1.1 200 OK\r\n \t\r\nx"), 21);
    EXPECT_EQ(findHeadEnd(""), 0);
    webChannel channel;
    std::string body = "old";
    EXPECT_EQ(channel.getHttpResponseBody("HTTP/1.1 200 OK\r\nA: b\r\n\r\nhello", body), kOk);
    EXPECT_EQ(body, "\r\n\r\nhello");
    EXPECT_EQ(channel.getHttpResponseBody("HTTP/1.1 200 OK\r\n", body), kInvalidArgument);
    EXPECT_EQ(body, "");
}

}  // namespace
