// Single GET requests: into a file, into memory, and the in-memory result.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "http/response.h"
#include "transport/connection_lease.h"
#include "transport/sigpipe.h"

namespace {

// A redirect loop in memory never changes the URL, so it has no natural
// end; the host gets an answer after this many redirects.
constexpr int kMaxMemoryRedirects = 30;
// Counted attempts of an in-memory GET (dropped connections, empty answers).
constexpr int kMaxMemoryAttempts = 3;
// An in-memory answer is what one read of this many bytes (less the
// terminating zero) brings.
constexpr int kMemoryAnswerBuffer = 4096;

}  // namespace

void webChannel::releaseRetired() {
    // Retired shared-pool records are kept while a single request may still
    // hold one; between requests nobody does.
    for (connection* conn : m_retiredConnections) destroyConnection(conn);
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
        // The same URL every time, also after a redirect: the request never
        // leaves its origin, so strict redirects (3027) find nothing to
        // withhold or refuse here.
        result = httpGetResponse(conn, url, attempts);
        if (result == kRepeat && attempts == redirectedAttempts(before) && ++redirects > kMaxMemoryRedirects)
            result = kTooManyAttempts;
    } while (result == kRepeat);
    releaseRetired();
    // The result is returned, not stored: the error state holds what the
    // layers below stored (a connection's failure), as hosts of the
    // in-memory GET read it. Error detail, when asked for, keeps the result.
    if (result < 0 && hasParam(kParamErrorDetail)) setError(result);
    return result;
}

const char* webChannel::httpResponse(long long* length) {
    if (length != nullptr) *length = atomicLoad(m_responseLength);
    return m_response.c_str();
}

namespace {

// A step's verdict: a result to return at once, or nothing to go on.
using Stop = std::optional<int>;

// Takes a connection for host:port from the shared pool; a kept connection
// the server closed meanwhile means "repeat".
Stop takeShared(webChannel& channel, webChannel::connection*& conn, const std::string& key, int& attempts) {
    int opened = kOk;
    conn = channel.open(key, nullptr, false, &opened);
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet: opened connection %x, socket %d", (unsigned)(uintptr_t)conn,
                        conn != nullptr ? conn->socket : 0);
    if (conn != nullptr) return std::nullopt;
    if (opened == kPeerClosed) {
        ++attempts;
        return kRepeat;
    }
    return opened;
}

Stop sendGet(webChannel& channel, ConnectionLease& lease, webChannel::connection* conn, const std::string& path,
             int& attempts) {
    AccessParams params = channel.paramsSnapshot();
    webChannel::httpRequest request("GET", conn->host + ":" + conn->port, path.empty() ? "/" : path, nullptr, &params);
    std::string text = request.str();
    if (webChannel::logging()) webChannel::log("SENT\n%s\n", text.c_str());
    int written = channel.writeAll(conn, text);
    if (written == 0 || (written == -1 && webChannel::isDropped())) {
        if (webChannel::logging()) webChannel::log("SENT\n%d : %d\n", written, webChannel::errorCode());
        lease.drop();  // the retry needs a fresh connection
        ++attempts;
        return kRepeat;
    }
    if (written < 0) return kSendFailed;
    return std::nullopt;
}

// Reads the answer: one block of at most `capacity` bytes, terminated.
Stop readAnswer(webChannel& channel, ConnectionLease& lease, webChannel::connection* conn, char* buffer, int capacity,
                int& received, int& attempts) {
    int lastRead = 0;
    received = channel.readHead(conn, buffer, capacity, lastRead);
    if (received == 0 || (received == -1 && webChannel::isReset())) {
        if (webChannel::logging())
            webChannel::log("Going to repeat download. RECV\n%d : %d\n", received, webChannel::errorCode());
        lease.drop();
        ++attempts;
        return kRepeat;
    }
    if (received < 0) {
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannel::httpGet: size: %lld", (long long)received);
        return kReadFailed;
    }
    if (webChannel::logging()) webChannel::log("RECV\n%s\n", buffer);
    return std::nullopt;
}

}  // namespace

int webChannel::httpGetResponse(connection*& conn, std::string url, int& attempts) {
    if (attempts >= kMaxMemoryAttempts) return kTooManyAttempts;
    // While a worker of the last batch holds a failure (until close() or a
    // clean batch) the channel is in its error state, and a single GET sends
    // nothing.
    if (isError()) return kCancelled;
    if (refusesScheme(url)) return kInvalidArgument;
    std::string host, port, path;
    bool parsed = parseURL(url, nullptr, host, port, path, nullptr);
    if (!parsed && conn == nullptr) return kInvalidArgument;
    // Deliberate: with a connection in hand, a URL that does not parse reuses
    // it with an empty path (the loop above never gets here: its first call
    // has no connection, and it passes the same URL every time).
    if (parsed) {
        if (Stop stop = takeShared(*this, conn, host + ":" + port, attempts)) return *stop;
    }
    ConnectionLease lease(*this, conn, nullptr);
    if (Stop stop = sendGet(*this, lease, conn, path, attempts)) return *stop;

    char buffer[kMemoryAnswerBuffer];
    memset(buffer, 0, sizeof(buffer));
    int received = 0;
    if (Stop stop = readAnswer(*this, lease, conn, buffer, (int)sizeof(buffer) - 1, received, attempts)) return *stop;
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    ResponseHead head;
    int parsedHead = parseHttpResponseHeader(std::string_view(buffer, strlen(buffer)), code, headerLength,
                                             contentLength, conn, &head);
    if (logging()) log("VRAXSecureWebChannel::httpGet: code %d, size %lld bytes", code, contentLength);
    // Only what the first read brought is used; whatever else the server
    // sends would be taken for the next response, so such a connection goes.
    lease.keepIf(parsedHead == kOk && head.contentLengthSeen && head.headerLength > 0 && head.contentLength >= 0 &&
                 head.contentLength == received - head.headerLength);
    if (parsedHead < 0 || code < 200 || code > 399) {
        noteRejectedHead(buffer, parsedHead);
        return kBadStatus;
    }
    if (code < 300) {
        getHttpResponseBody(buffer, m_response);
        return kOk;
    }
    if (isRedirectStatus(code)) {
        if (logging()) log("VRAXSecureWebChannel::httpGet: redirecting to %s", conn->location.c_str());
        attempts = redirectedAttempts(attempts);
        return kRepeat;
    }
    noteRejectedHead(buffer, parsedHead);
    return kBadStatus;
}
