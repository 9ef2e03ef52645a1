// Response heads: parseResponseHead, findHeadEnd, the channel's
// parseHttpResponseHeader and getHttpResponseBody.
//
// Input: one option byte (bit 0: cookie capture on, bit 1: the parse gets a
// connection record for the redirect target), then the received text.
//
// Every head a server or proxy sends goes through these functions before
// anything else looks at it, so besides never reading outside the text they
// must agree with a second, deliberately plain reading of the head written
// here: the status code between the first two blanks, then the lines up to
// the first empty one, with the four headers the channel acts on.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "http/response.h"

namespace {

// The number at the start of `text` the way atoll would read it, except
// that it saturates instead of overflowing (strtoll does exactly that).
long long decimalPrefix(std::string_view text) {
    std::string copy(text);  // strtoll stops at an embedded NUL, as the parser does
    errno = 0;
    return std::strtoll(copy.c_str(), nullptr, 10);
}

bool hasPrefixNoCase(std::string_view line, const char* lowerName) {
    size_t length = std::strlen(lowerName);
    if (line.size() < length) return false;
    for (size_t i = 0; i < length; ++i) {
        unsigned char c = (unsigned char)line[i];
        if (c >= 'A' && c <= 'Z') c = (unsigned char)(c + ('a' - 'A'));
        if (c != (unsigned char)lowerName[i]) return false;
    }
    return true;
}

struct Expected {
    bool malformed = false;
    long long statusNumber = 0;  // the number between the blanks, saturated
    int code = 0;
    long long headerLength = 0;
    bool stoppedAtLocation = false;
    int result = 0;
    bool contentLengthSeen = false;
    long long contentLength = 0;
    bool cookieSeen = false;
    std::string cookie;
    std::string location;
};

Expected readHead(std::string_view text, bool captureCookies) {
    Expected e;
    size_t first = text.find(' ');
    size_t second = first == std::string_view::npos ? first : text.find(' ', first + 1);
    if (second == std::string_view::npos) {
        e.malformed = true;
        return e;
    }
    e.statusNumber = decimalPrefix(text.substr(first + 1, second - first - 1));
    e.code = (int)e.statusNumber;  // compared only when it fits

    size_t start = 0;
    for (;;) {
        size_t feed = text.find('\n', start);
        size_t end = feed == std::string_view::npos ? text.size() : feed;
        // Trailing blanks and carriage returns are not part of a line.
        while (end > start && std::strchr(" \r\t", text[end - 1]) != nullptr && text[end - 1] != 0) --end;
        std::string_view line = text.substr(start, end - start);
        if (line.empty()) {
            if (feed != std::string_view::npos) e.headerLength = (long long)feed + 1;
            return e;
        }
        if (hasPrefixNoCase(line, "content-length: ")) {
            e.contentLength = decimalPrefix(line.substr(16));
            e.contentLengthSeen = true;
        }
        if (hasPrefixNoCase(line, "transfer-encoding: "))
            e.result = line.substr(19) == "chunked" ? kChunked : kUnsupportedCoding;
        if (captureCookies && hasPrefixNoCase(line, "set-cookie: ")) {
            e.cookie = std::string(line.substr(12));
            e.cookieSeen = true;
        }
        if (e.code >= 300 && e.code <= 399 && hasPrefixNoCase(line, "location: ")) {
            e.location = std::string(line.substr(10));
            e.stoppedAtLocation = true;
            return e;
        }
        if (feed == std::string_view::npos) return e;
        start = feed + 1;
    }
}

// The end of the head: just past the first line that is empty once its
// trailing blanks are gone, provided that line has its line feed.
long long headEnd(std::string_view text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t feed = text.find('\n', start);
        if (feed == std::string_view::npos) return 0;
        bool blank = true;
        for (size_t i = start; i < feed; ++i)
            if (text[i] != ' ' && text[i] != '\r' && text[i] != '\t') blank = false;
        if (blank) return (long long)feed + 1;
        start = feed + 1;
    }
    return 0;
}

bool inside(std::string_view part, std::string_view text) {
    if (part.empty()) return true;
    return part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size();
}

void checkPureParse(std::string_view text, bool capture) {
    ResponseHead head;
    head.code = 12345;  // must be reset by the parse
    parseResponseHead(text, capture, head);
    Expected e = readHead(text, capture);

    FUZZ_CHECK(inside(head.location, text) && inside(head.cookie, text), "views must point into the text");
    if (e.malformed) {
        FUZZ_CHECK(head.result == kMalformedResponse && head.code == 0, "no two blanks: result %d code %d",
                   head.result, head.code);
        return;
    }
    FUZZ_CHECK(head.result != kMalformedResponse, "a head with two blanks is not malformed");
    // A number beyond the range of int is no status: however the parser
    // stores it, cutting it to an int must not turn it into one (4294967496
    // would become 200).
    if (e.statusNumber < INT_MIN || e.statusNumber > INT_MAX)
        FUZZ_CHECK(head.code < 100 || head.code > 999, "status number %lld read as status %d", e.statusNumber,
                   head.code);
    else
        FUZZ_CHECK(head.code == e.code, "status code %d, expected %d", head.code, e.code);
    FUZZ_CHECK(head.result == e.result, "result %d, expected %d", head.result, e.result);
    FUZZ_CHECK(head.contentLengthSeen == e.contentLengthSeen && head.contentLength == e.contentLength,
               "content length %d/%lld, expected %d/%lld", head.contentLengthSeen, head.contentLength,
               e.contentLengthSeen, e.contentLength);
    FUZZ_CHECK(head.cookieSeen == e.cookieSeen && head.cookie == e.cookie, "cookie differs");
    FUZZ_CHECK(capture || !head.cookieSeen, "cookie captured while capture is off");
    FUZZ_CHECK(head.locationSeen == e.stoppedAtLocation && head.location == e.location, "location differs");
    FUZZ_CHECK(head.headerLengthSet == !e.stoppedAtLocation, "headerLengthSet %d", head.headerLengthSet);
    FUZZ_CHECK(head.headerLength == e.headerLength, "header length %lld, expected %lld", head.headerLength,
               e.headerLength);
    FUZZ_CHECK(head.headerLength >= 0 && head.headerLength <= (long long)text.size(), "header length out of text");
    FUZZ_CHECK(head.headerLength == 0 || text[(size_t)head.headerLength - 1] == '\n',
               "the body must start after a line feed");
    // Both functions look for the same empty line.
    if (!head.locationSeen)
        FUZZ_CHECK(head.headerLength == findHeadEnd(text), "parse says %lld, findHeadEnd says %lld",
                   head.headerLength, findHeadEnd(text));
}

void checkChannelParse(std::string_view text, bool capture, bool withConnection) {
    webChannel& channel = fuzzChannel();
    channel.setParam(kParamCookie, nullptr, true);
    channel.setParam(kParamCookieCapture, capture ? "" : nullptr, true);
    channel.m_response = "untouched";
    channel.m_responseLength = -77;
    webChannel::connection conn(0, "h", "80", false);
    conn.location = "untouched";

    int code = -77;
    long long headerLength = -77, contentLength = -77;
    ResponseHead details;
    int result = channel.parseHttpResponseHeader(text, code, headerLength, contentLength,
                                                 withConnection ? &conn : nullptr, &details);
    ResponseHead head;
    parseResponseHead(text, capture, head);

    FUZZ_CHECK(details.result == head.result && details.code == head.code &&
                   details.headerLength == head.headerLength && details.location == head.location &&
                   details.cookie == head.cookie && details.contentLength == head.contentLength,
               "details differ from the pure parse");
    FUZZ_CHECK(result == head.result, "result %d, parse says %d", result, head.result);
    if (head.result == kMalformedResponse) {
        FUZZ_CHECK(code == -77 && headerLength == -77 && contentLength == -77, "outputs set on a malformed head");
        return;
    }
    FUZZ_CHECK(code == head.code && contentLength == head.contentLength, "code or length differs");
    FUZZ_CHECK(channel.m_responseLength == (head.contentLengthSeen ? head.contentLength : -77),
               "response length %lld", channel.m_responseLength);
    std::string cookie;
    bool cookieStored = channel.getParam(kParamCookie, cookie, true);
    FUZZ_CHECK(cookieStored == head.cookieSeen, "cookie stored %d, seen %d", cookieStored, head.cookieSeen);
    if (cookieStored) FUZZ_CHECK(cookie == head.cookie, "stored cookie differs");
    std::string& target = withConnection ? conn.location : channel.m_response;
    if (head.locationSeen) {
        FUZZ_CHECK(target == head.location, "redirect target differs");
        FUZZ_CHECK(headerLength == -77, "header length set at a redirect");
    } else {
        FUZZ_CHECK(target == "untouched", "redirect target written without a location");
        FUZZ_CHECK(headerLength == head.headerLength, "header length %lld, parse says %lld", headerLength,
                   head.headerLength);
    }
    FUZZ_CHECK(conn.host == "h" && conn.port == "80", "connection record damaged");
}

void checkBody(const std::string& response) {
    std::string body = "untouched";
    int result = fuzzChannel().getHttpResponseBody(response, body);
    size_t separator = response.find("\r\n\r\n");
    if (separator == std::string::npos) {
        FUZZ_CHECK(result == kInvalidArgument && body.empty(), "no separator: result %d", result);
    } else {
        FUZZ_CHECK(result == kOk && body == response.substr(separator), "body differs");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const bool capture = (data[0] & 1) != 0;
    const bool withConnection = (data[0] & 2) != 0;
    std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

    // The pure functions take any bytes, NULs included.
    checkPureParse(text, capture);
    long long end = findHeadEnd(text);
    FUZZ_CHECK(end == headEnd(text), "findHeadEnd %lld, expected %lld", end, headEnd(text));

    // The channel hands its parser the received text up to the first NUL.
    std::string_view received = text.substr(0, std::min(text.size(), text.find('\0')));
    checkChannelParse(received, capture, withConnection);
    checkBody(std::string(text));
    return 0;
}
