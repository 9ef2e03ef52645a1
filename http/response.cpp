// Response heads: parsing, the in-memory body, and reading a complete head.
#include "http/response.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "channel/atomics.h"
#include "channel/webChannel.h"

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The number at the start of `text` as atoll reads it (leading white space,
// a sign, digits), saturating instead of overflowing, and never reading past
// the view.
long long leadingNumber(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    unsigned long long value = 0;
    const unsigned long long limit = negative ? (unsigned long long)LLONG_MAX + 1 : (unsigned long long)LLONG_MAX;
    bool overflow = false;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        unsigned digit = (unsigned)(text[i] - '0');
        if (overflow || value > (limit - digit) / 10) {
            overflow = true;
            continue;
        }
        value = value * 10 + digit;
    }
    if (overflow) return negative ? LLONG_MIN : LLONG_MAX;
    return negative ? (long long)(0 - value) : (long long)value;
}

bool startsWithNoCase(std::string_view line, std::string_view lowerName) {
    if (line.size() < lowerName.size()) return false;
    for (size_t i = 0; i < lowerName.size(); ++i) {
        char c = line[i];
        if (c >= 'A' && c <= 'Z') c = (char)(c - 'A' + 'a');
        if (c != lowerName[i]) return false;
    }
    return true;
}

// One line of the head: [start, end) without its line feed and trailing
// blanks; `next` is where the following line starts (npos at the end).
struct Line {
    std::string_view text;
    size_t next;
    bool terminated;
};

Line lineAt(std::string_view text, size_t start) {
    size_t feed = text.find('\n', start);
    size_t end = feed == std::string_view::npos ? text.size() : feed;
    while (end > start &&
           (text[end - 1] == ' ' || text[end - 1] == '\r' || text[end - 1] == '\t' || text[end - 1] == '\n'))
        --end;
    Line line;
    line.text = text.substr(start, end - start);
    line.terminated = feed != std::string_view::npos;
    line.next = line.terminated ? feed + 1 : std::string_view::npos;
    return line;
}

}  // namespace

void parseResponseHead(std::string_view text, bool captureCookies, ResponseHead& head) {
    head = ResponseHead();
    size_t first = text.find(' ');
    size_t second = first == std::string_view::npos ? first : text.find(' ', first + 1);
    if (second == std::string_view::npos) {
        head.result = kMalformedResponse;
        return;
    }
    // The code is read from the text between the two blanks; the second blank
    // may lie beyond the status line ("HTTP/1.1 200\r\nServer: x").
    // A number beyond the range of a status code saturates rather than
    // wrapping around: "4294967496" must not read as 200.
    long long code = leadingNumber(text.substr(first + 1, second - first));
    head.code = code > INT_MAX ? INT_MAX : code < INT_MIN ? INT_MIN : (int)code;

    size_t position = 0;
    while (position != std::string_view::npos && position <= text.size()) {
        Line line = lineAt(text, position);
        if (line.text.empty()) {
            if (line.terminated) {
                head.headerLength = (long long)line.next;
                head.headerLengthSet = true;
            } else {
                head.headerLengthSet = true;  // text ran out: no body offset yet
            }
            return;
        }
        static constexpr std::string_view kContentLength = "content-length: ";
        static constexpr std::string_view kTransferEncoding = "transfer-encoding: ";
        static constexpr std::string_view kSetCookie = "set-cookie: ";
        static constexpr std::string_view kLocation = "location: ";
        static constexpr std::string_view kContentRange = "content-range: ";
        static constexpr std::string_view kEtag = "etag: ";
        static constexpr std::string_view kLastModified = "last-modified: ";
        if (startsWithNoCase(line.text, kEtag)) head.etag = line.text.substr(kEtag.size());
        if (startsWithNoCase(line.text, kLastModified)) head.lastModified = line.text.substr(kLastModified.size());
        if (startsWithNoCase(line.text, kContentRange)) {
            head.contentRange = line.text.substr(kContentRange.size());
            head.contentRangeSeen = true;
        }
        if (startsWithNoCase(line.text, kContentLength)) {
            head.contentLength = leadingNumber(line.text.substr(kContentLength.size()));
            head.contentLengthSeen = true;
        }
        if (startsWithNoCase(line.text, kTransferEncoding))
            head.result = line.text.substr(kTransferEncoding.size()) == "chunked" ? kChunked : kUnsupportedCoding;
        if (captureCookies && startsWithNoCase(line.text, kSetCookie)) {
            head.cookie = line.text.substr(kSetCookie.size());
            head.cookieSeen = true;
        }
        if (head.code >= 300 && head.code <= 399 && startsWithNoCase(line.text, kLocation)) {
            head.location = line.text.substr(kLocation.size());
            head.locationSeen = true;
            return;
        }
        position = line.next;
    }
    head.headerLengthSet = true;
}

std::string validatorOf(const ResponseHead& head) {
    if (!head.etag.empty() && head.etag.substr(0, 2) != "W/") return std::string(head.etag);
    return std::string(head.lastModified);
}

namespace {

// Reads the decimal number at the start of `text` into `value` and drops it
// from `text`; false when there is none or it does not fit.
bool takeNumber(std::string_view& text, long long& value) {
    size_t digits = 0;
    value = 0;
    for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; ++digits) {
        if (value > (LLONG_MAX - 9) / 10) return false;
        value = value * 10 + (text[digits] - '0');
    }
    text.remove_prefix(digits);
    return digits > 0;
}

bool takeChar(std::string_view& text, char c) {
    if (text.empty() || text[0] != c) return false;
    text.remove_prefix(1);
    return true;
}

}  // namespace

bool parseContentRange(std::string_view value, long long& first, long long& last, long long& total) {
    if (!startsWithNoCase(value, "bytes ")) return false;
    value.remove_prefix(6);
    if (!takeNumber(value, first) || !takeChar(value, '-') || !takeNumber(value, last) || !takeChar(value, '/'))
        return false;
    if (value == "*") {
        total = -1;
    } else if (!takeNumber(value, total) || !value.empty() || total <= last) {
        return false;
    }
    return last >= first;
}

long long findHeadEnd(std::string_view text) {
    size_t position = 0;
    while (position < text.size()) {
        Line line = lineAt(text, position);
        if (!line.terminated) return 0;
        if (line.text.empty()) return (long long)line.next;
        position = line.next;
    }
    return 0;
}

std::string statusSummary(std::string_view text) {
    Line line = lineAt(text, 0);
    std::string_view status = line.text;
    size_t blank = status.find(' ');
    if (status.substr(0, 5) != "HTTP/" || blank == std::string_view::npos) return std::string();
    status.remove_prefix(blank);
    while (!status.empty() && status.front() == ' ') status.remove_prefix(1);
    return "HTTP " + webChannel::printable(status, 80);
}

void webChannel::noteRejectedHead(std::string_view head, int parsed) {
    std::string summary = statusSummary(head);
    if (parsed == kUnsupportedCoding) {
        noteFailure(kBadStatus, "unsupported transfer coding", kUnsupportedCoding);
    } else if (parsed < 0 || summary.empty()) {
        std::string_view first = lineAt(head, 0).text;
        noteFailure(kBadStatus,
                    first.empty() ? std::string("malformed response: no status line")
                                  : "malformed response: \"" + printable(first, 40) + "\"",
                    kMalformedResponse);
    } else {
        noteFailure(kBadStatus, summary);
    }
}

int webChannel::parseHttpResponseHeader(std::string_view header, int& code, long long& headerLength,
                                        long long& contentLength, connection* conn, ResponseHead* details) {
    ResponseHead head;
    parseResponseHead(header, hasParam(kParamCookieCapture), head);
    if (details != nullptr) *details = head;
    if (head.result == kMalformedResponse) {
        if (logging()) log("VRAXSecureWebChannel::parseHttpResponseHeader:\n%.*s\n", (int)header.size(), header.data());
        return kMalformedResponse;
    }
    code = head.code;
    contentLength = head.contentLength;
    if (head.contentLengthSeen) atomicStore(m_responseLength, head.contentLength);
    if (head.cookieSeen) setParam(kParamCookie, std::string(head.cookie).c_str(), true);
    if (head.locationSeen) {
        if (conn != nullptr)
            conn->location = std::string(head.location);
        else
            m_response = std::string(head.location);
        return head.result;
    }
    headerLength = head.headerLength;
    return head.result;
}

int webChannel::getHttpResponseBody(std::string response, std::string& body) {
    size_t separator = response.find("\r\n\r\n");
    if (separator == std::string::npos) {
        body.clear();
        return kInvalidArgument;
    }
    // The body handed to the host starts with the separator itself.
    body = response.substr(separator);
    return kOk;
}

int webChannel::readHead(connection* conn, char* buffer, int capacity, int& lastRead) {
    // Servers and proxies may send the head in several pieces; parsing a
    // partial head would misread the response and put head bytes into the
    // target, so reading goes on until the empty line has arrived.
    int total = 0;
    lastRead = read(conn, buffer, capacity, 0, false);
    if (lastRead <= 0) {
        int error = errno;
        buffer[0] = 0;
        if (lastRead == -2)
            noteFailure(kReadFailed, "no answer within " + std::to_string(getProxyTimeout()) + " s");
        else if (lastRead == -1)
            noteFailure(kReadFailed, error != 0 ? systemText(error) : "the answer could not be read");
        else
            noteFailure(kReadFailed, "connection closed without an answer");
        return lastRead;
    }
    total = lastRead;
    while (total < capacity && findHeadEnd(std::string_view(buffer, strnlen(buffer, (size_t)total))) == 0) {
        lastRead = read(conn, buffer + total, capacity - total, 0, false);
        if (lastRead <= 0) break;
        total += lastRead;
    }
    buffer[total] = 0;
    return total;
}
