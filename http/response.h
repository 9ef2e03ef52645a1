// Reading the facts the channel acts on out of a response head. Pure
// functions over the received text, so that they can be tested and fuzzed
// without a socket.
#ifndef WEBCHANNEL_HTTP_RESPONSE_H
#define WEBCHANNEL_HTTP_RESPONSE_H

#include <string>
#include <string_view>

struct ResponseHead {
    int result = 0;                // 0 plain body, 3002 chunked, -3053 other coding, -3002 no status line
    int code = 0;                  // status code
    long long headerLength = 0;    // offset of the first body byte; 0 when the head has no end yet
    bool headerLengthSet = false;  // false when parsing stopped at a redirect's location
    long long contentLength = 0;   // last "content-length" value
    bool contentLengthSeen = false;
    bool locationSeen = false;  // a 3xx "location" ended the parse
    std::string_view location;
    bool cookieSeen = false;  // only when cookie capture is on
    std::string_view cookie;  // the last "set-cookie" value
    bool contentRangeSeen = false;
    std::string_view contentRange;  // the last "content-range" value
    std::string_view etag;          // the last "etag" value, "" when none
    std::string_view lastModified;  // the last "last-modified" value, "" when none
};

// What tells this version of the server's file from another, for "If-Range":
// a strong ETag, else the Last-Modified date; "" when the head has neither
// (a weak ETag never matches a range request).
std::string validatorOf(const ResponseHead& head);

// A "content-range" value of a partial answer, "bytes FIRST-LAST/TOTAL" (TOTAL
// may be "*"): false unless it has exactly that form with LAST >= FIRST and a
// TOTAL beyond LAST; `total` is -1 for "*".
bool parseContentRange(std::string_view value, long long& first, long long& last, long long& total);

// Parses `text` (the received bytes up to the first NUL) the way the channel
// reads every response: status code between the first two blanks, then the
// lines up to the first empty one, matching "content-length: ",
// "transfer-encoding: ", "content-range: ", "etag: ", "last-modified: ",
// "set-cookie: " (with captureCookies) and, for a 3xx status, "location: ",
// which ends the parse at once.
void parseResponseHead(std::string_view text, bool captureCookies, ResponseHead& head);

// The status codes the channel follows to their "location".
constexpr bool isRedirectStatus(int code) {
    return code == 301 || code == 302 || code == 303 || code == 307 || code == 308;
}

// The status line in a message's words: "HTTP 404 Not Found" for
// "HTTP/1.1 404 Not Found"; "" when the text does not start with a status line.
std::string statusSummary(std::string_view text);

// Offset just past the empty line that ends the head, or 0 when the text
// holds no empty line yet. Lines end at "\n"; trailing " \r\t" do not count.
long long findHeadEnd(std::string_view text);

#endif
