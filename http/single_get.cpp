// Single GET requests: into a file, into memory, and the in-memory result.
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "http/response.h"
#include "transport/sigpipe.h"

namespace {

// A redirect loop in memory never changes the URL, so it has no natural
// end; the host gets an answer after this many redirects.
constexpr int kMaxMemoryRedirects = 30;

}  // namespace

void webChannel::releaseRetired() {
    // Retired shared-pool records are kept while a single request may still
    // hold one; between requests nobody does.
    for (connection* conn : m_retiredConnections) {
        closeSSL(conn);
        closeSocket(conn);
        delete conn;
    }
    m_retiredConnections.clear();
}

int webChannel::httpGet(const char* url, const char* file) {
    if (url == nullptr) return kInvalidArgument;
    clearError();
    if (m_buffer == nullptr) return kInvalidArgument;  // init() has not sized the buffers
    SigpipeIgnore sigpipe;
    int result = fetch(url, file != nullptr ? file : "", nullptr, nullptr);
    releaseRetired();
    if (result < 0) setError(result);
    return result;
}

int webChannel::httpGet_c(const char* url, const char* file) {
    // Non-virtual entry point; honours an override of the virtual one.
    return httpGet(url, file);
}

int webChannel::httpGet(const char* url) {
    if (url == nullptr) return kInvalidArgument;
    clearError();
    SigpipeIgnore sigpipe;
    int attempts = 0;
    int redirects = 0;
    connection* conn = nullptr;
    int result;
    do {
        int before = attempts;
        // The same URL every time, also after a redirect.
        result = httpGetResponse(conn, url, attempts);
        if (result == kRepeat && attempts == redirectedAttempts(before) && ++redirects > kMaxMemoryRedirects) result = kTooManyAttempts;
    } while (result == kRepeat);
    releaseRetired();
    if (result < 0) setError(result);
    return result;
}

const char* webChannel::httpResponse(long long* length) {
    if (length != nullptr) *length = atomicLoad(m_responseLength);
    return m_response.c_str();
}

int webChannel::httpGetResponse(connection*& conn, std::string url, int& attempts) {
    if (attempts >= 3) return kTooManyAttempts;
    if (isCancelled()) return kCancelled;
    std::string host, port, path;
    bool parsed = parseURL(url, nullptr, host, port, path, nullptr);
    if (!parsed && conn == nullptr) return kInvalidArgument;
    if (parsed) {
        int opened = kOk;
        conn = open(host + ":" + port, nullptr, false, &opened);
        if (logging())
            log("VRAXSecureWebChannel::httpGet: opened connection %x, socket %d", (unsigned)(uintptr_t)conn,
                conn != nullptr ? conn->socket : 0);
        if (conn == nullptr) {
            if (opened == kPeerClosed) {
                ++attempts;
                return kRepeat;
            }
            return opened;
        }
    }
    AccessParams params = paramsSnapshot();
    httpRequest request("GET", conn->host + ":" + conn->port, path.empty() ? "/" : path, nullptr, &params);
    std::string text = request.str();
    if (logging()) log("SENT\n%s\n", text.c_str());
    int written = writeAll(conn, text);
    if (written == 0 || (written == -1 && isDropped())) {
        if (logging()) log("SENT\n%d : %d\n", written, errorCode());
        dropConnection(conn, nullptr);  // the retry needs a fresh connection
        ++attempts;
        return kRepeat;
    }
    if (written < 0) {
        dropConnection(conn, nullptr);
        return kSendFailed;
    }

    char buffer[4096];
    memset(buffer, 0, sizeof(buffer));
    int lastRead = 0;
    int received = readHead(conn, buffer, (int)sizeof(buffer) - 1, lastRead);
    if (received == 0 || (received == -1 && isReset())) {
        if (logging()) log("Going to repeat download. RECV\n%d : %d\n", received, errorCode());
        dropConnection(conn, nullptr);
        ++attempts;
        return kRepeat;
    }
    if (received < 0) {
        if (logging()) log("VRAXSecureWebChannel::httpGet: size: %lld", (long long)received);
        dropConnection(conn, nullptr);
        return kReadFailed;
    }
    if (logging()) log("RECV\n%s\n", buffer);
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    ResponseHead head;
    int parsedHead = parseHttpResponseHeader(std::string_view(buffer, strlen(buffer)), code, headerLength,
                                             contentLength, conn, &head);
    if (logging()) log("VRAXSecureWebChannel::httpGet: code %d, size %lld bytes", code, contentLength);
    // Only what the first read brought is used; whatever else the server
    // sends would be taken for the next response, so such a connection goes.
    bool consumed = parsedHead == kOk && head.contentLengthSeen && head.headerLength > 0 &&
                    head.contentLength >= 0 && head.contentLength == received - head.headerLength;
    if (!consumed) dropConnection(conn, nullptr);
    if (parsedHead < 0 || code < 200 || code > 399) return kBadStatus;
    if (code < 300) {
        getHttpResponseBody(buffer, m_response);
        return kOk;
    }
    if (isRedirectStatus(code)) {
        if (logging()) log("VRAXSecureWebChannel::httpGet: redirecting to %s", conn->location.c_str());
        attempts = redirectedAttempts(attempts);
        return kRepeat;
    }
    return kBadStatus;
}
