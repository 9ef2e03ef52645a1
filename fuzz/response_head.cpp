// Response heads: parseResponseHead and findHeadEnd must stay inside the text
// and agree with a plain reading written here. Input: an option byte (bit 0:
// cookie capture), then the received text.
#include <cctype>
#include <climits>
#include <cstdint>
#include <string_view>

#include "fuzz_check.h"
#include "http/response.h"

namespace {

bool startsNoCase(std::string_view line, std::string_view name) {
    return line.size() >= name.size() &&
           std::equal(name.begin(), name.end(), line.begin(), [](char n, char c) { return n == std::tolower(c); });
}

// A decimal prefix as strtoll reads it (saturating; stops at a NUL).
long long number(std::string_view text) { return std::strtoll(std::string(text).c_str(), nullptr, 10); }

// The plain reading: the status between the first two blanks (saturated:
// 4294967496 cut to an int would pass for 200), then the lines up to the
// first empty one, with the four headers the channel acts on.
void readHead(std::string_view text, bool capture, ResponseHead& e) {
    const size_t first = text.find(' ');
    const size_t second = first == text.npos ? first : text.find(' ', first + 1);
    if (second == text.npos) {
        e.result = kMalformedResponse;
        return;
    }
    const long long status = number(text.substr(first + 1, second - first - 1));
    e.code = status > INT_MAX ? INT_MAX : status < INT_MIN ? INT_MIN : (int)status;
    for (size_t start = 0, feed = 0; feed != text.npos; start = feed + 1) {
        feed = text.find('\n', start);
        size_t end = feed == text.npos ? text.size() : feed;
        while (end > start && (text[end - 1] == ' ' || text[end - 1] == '\r' || text[end - 1] == '\t')) --end;
        const std::string_view line = text.substr(start, end - start);
        if (line.empty()) {
            e.headerLength = feed == text.npos ? 0 : (long long)feed + 1;
            break;
        }
        if (startsNoCase(line, "content-length: ")) e.contentLength = number(line.substr(16));
        e.contentLengthSeen |= startsNoCase(line, "content-length: ");
        if (startsNoCase(line, "transfer-encoding: "))
            e.result = line.substr(19) == "chunked" ? kChunked : kUnsupportedCoding;
        if (capture && startsNoCase(line, "set-cookie: ")) e.cookie = line.substr(12), e.cookieSeen = true;
        e.locationSeen = e.code >= 300 && e.code <= 399 && startsNoCase(line, "location: ");
        if (e.locationSeen) {
            e.location = line.substr(10);
            return;
        }
    }
    e.headerLengthSet = true;
}

// Just past the first line that is blank but for spaces, CRs and tabs, when
// that line has its line feed; else 0.
long long headEnd(std::string_view text) {
    for (size_t start = 0, feed; (feed = text.find('\n', start)) != text.npos; start = feed + 1)
        if (text.substr(start, feed - start).find_first_not_of(" \r\t") == text.npos) return (long long)feed + 1;
    return 0;
}

bool inside(std::string_view part, std::string_view text) {
    return part.empty() || (part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);  // NULs included
    ResponseHead head, e;
    head.code = 12345;  // must be reset by the parse
    parseResponseHead(text, (data[0] & 1) != 0, head);
    readHead(text, (data[0] & 1) != 0, e);
    FUZZ_CHECK(inside(head.location, text) && inside(head.cookie, text), "views must point into the text");
    FUZZ_CHECK(head.result == e.result && head.code == e.code, "result %d, status %d; expected %d, %d", head.result,
               head.code, e.result, e.code);
    FUZZ_CHECK(head.contentLengthSeen == e.contentLengthSeen && head.contentLength == e.contentLength &&
                   head.cookieSeen == e.cookieSeen && head.cookie == e.cookie &&
                   head.locationSeen == e.locationSeen && head.location == e.location,
               "content length %lld, cookie or location differs", head.contentLength);
    FUZZ_CHECK(head.headerLength == e.headerLength &&
                   (e.result == kMalformedResponse || head.headerLengthSet == e.headerLengthSet),
               "header length %lld, expected %lld", head.headerLength, e.headerLength);
    FUZZ_CHECK(findHeadEnd(text) == headEnd(text), "findHeadEnd %lld, expected %lld", findHeadEnd(text), headEnd(text));
    return 0;
}
