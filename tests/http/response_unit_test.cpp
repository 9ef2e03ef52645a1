// Response heads: status, lengths, framing, redirect target and cookies; the body an in-memory GET hands out.
#include <gtest/gtest.h>

#include <climits>

#include "channel/webChannel.h"
#include "http/response.h"

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

// The status number and where the head ends are also checked on any text by the fuzz target.
TEST_F(ResponseHead, StatusLengthsAndFramingAreReadExactly) {
    constexpr long long kAll = -2;  // the whole text is the head
    // text, result, status, header length, content length, location
    const std::tuple<std::string, int, int, long long, long long, std::string> cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 42\r\nServer: x\r\n\r\nbody", kOk, 200, 50, 42, ""},
        {"HTTP/1.1 200\r\n\r\n", kMalformedResponse, -1, -1, -1, ""},  // a single blank: nothing is written
        // Names are case-free, but a value needs its blank; the coding's value is case-sensitive, the last one counts.
        {"HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 7\r\n\r\n", kOk, 200, kAll, 7, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length:7\r\n\r\n", kOk, 200, kAll, 0, ""},
        {"HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: chunked\r\n\r\n", kChunked, 200, kAll, 0, ""},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n", kUnsupportedCoding, 200, kAll, 0, ""},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n", kChunked, 200, kAll, 0,
         ""},
        // Lengths saturate as atoll does instead of wrapping.
        {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n", kOk, 200, kAll, LLONG_MAX, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n", kOk, 200, kAll, -5, ""},
        // A location counts only in a redirect, and ends the parse there.
        {"HTTP/1.1 200 OK\r\nLocation: /x\r\nContent-Length: 3\r\n\r\n", kOk, 200, kAll, 3, ""},
        {"HTTP/1.1 302 Found\r\nLocation: http://h:1/y  \r\nContent-Length: 3\r\n\r\n", kOk, 302, -1, 0,
         "http://h:1/y"},
    };
    for (const auto& [text, result, status, head, length, location] : cases) {
        SCOPED_TRACE(text);
        conn.location.clear();
        EXPECT_EQ(parse(text, &conn), result);
        EXPECT_EQ(std::make_tuple(code, headerLength, contentLength, conn.location),
                  std::make_tuple(status, head == kAll ? (long long)text.size() : head, length, location));
    }
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
}

TEST(HeadEnd, TheInMemoryBodyStartsWithTheSeparatorAndNeedsTheEndOfTheHead) {
    webChannel channel;
    std::string body = "old";
    EXPECT_EQ(channel.getHttpResponseBody("HTTP/1.1 200 OK\r\nA: b\r\n\r\nhello", body), kOk);
    EXPECT_EQ(body, "\r\n\r\nhello");
    EXPECT_EQ(channel.getHttpResponseBody("HTTP/1.1 200 OK\r\n", body), kInvalidArgument);
    EXPECT_EQ(body, "");
}

TEST(ContentRange, IsReadOnlyInItsExactForm) {
    long long a = 0, b = 0, t = 0;
    EXPECT_TRUE(parseContentRange("bytes 0-4/5", a, b, t) && a == 0 && b == 4 && t == 5);
    EXPECT_TRUE(parseContentRange("BYTES 10-19/*", a, b, t) && a == 10 && b == 19 && t == -1);
    for (const char* bad : {"bytes 5-4/10", "bytes 0-9/9", "bytes 0-x/5", "bytes 0-4/5 ", "bytes -4/5", "items 0-4/5",
                            "bytes 0-99999999999999999999/*"})
        EXPECT_FALSE(parseContentRange(bad, a, b, t)) << bad;
}

}  // namespace
