// POST with a text body; the whole answer, head included, is kept for
// httpResponse.
#include <cstdio>
#include <cstring>
#include <optional>

#include "channel/webChannel.h"
#include "http/redirects.h"
#include "http/response.h"
#include "transport/connection_lease.h"

namespace {

// Each followed redirect posts again; a server that redirects forever gets
// an answer after this many.
constexpr int kMaxPostRedirects = 30;
// Room for the Content-Length value of any body.
constexpr size_t kLengthText = 32;

}  // namespace

int webChannel::httpPost(const char* url, char* headers, char* body, bool flag) {
    clearError();
    // The URL given is the origin of every re-post.
    int result = httpPost(nullptr, url, headers, body, flag, url != nullptr ? url : "");
    releaseRetired();
    if (result < 0) setError(result);
    return result;
}

namespace {

// A step's verdict: a result to return at once, or nothing to go on.
using Stop = std::optional<int>;

// `withheld`: without the server credentials and the cookie (a re-post that
// left the origin under strict redirects).
Stop sendPost(webChannel& channel, webChannel::connection* conn, const std::string& path, char* headers,
              const char* body, bool withheld) {
    AccessParams params = channel.paramsSnapshot();
    if (withheld) params = withoutCredentials(std::move(params));
    webChannel::httpRequest request("POST", conn->host + ":" + conn->port, path.empty() ? "/" : path, headers,
                                    &params);
    char length[kLengthText];
    snprintf(length, sizeof(length), "%lld", (long long)strlen(body));
    request.headers["Content-Length"] = length;
    if (channel.writeAll(conn, request.str() + body) < 1) return kSendFailed;
    return std::nullopt;
}

// Reads the rest of a successful answer, until the server closes or goes
// quiet for the transfer time-out. `expected` is what the announced length
// still asks for.
int readRest(webChannel& channel, ConnectionLease& lease, webChannel::connection* conn, std::string& answer,
             long long expected) {
    char* buffer = channel.m_buffer;
    for (;;) {
        int more = channel.read(conn, buffer, kMaxRead, 0, false);
        if (more <= 0) {
            // A peer that closed leaves nothing to reuse.
            lease.keepIf(more == -2);
            break;
        }
        buffer[more] = 0;
        expected -= more;
        answer.append(buffer, strnlen(buffer, (size_t)more));
    }
    if (expected <= 0) return kOk;
    webChannel::noteFailure(kReadFailed, "answer shorter than its Content-Length");
    return kReadFailed;
}

}  // namespace

int webChannel::httpPost(connection* conn, const char* url, char* headers, char* body, bool flag,
                         const std::string& origin) {
    if (url == nullptr || body == nullptr) return kInvalidArgument;
    if (m_buffer == nullptr) return kInvalidArgument;  // init() has not sized the buffers
    if (refusesScheme(url)) return kInvalidArgument;
    std::string host, port, path;
    bool parsed = parseURL(url, nullptr, host, port, path, nullptr);
    if (!parsed && conn == nullptr) return kInvalidArgument;
    if (parsed) {
        int opened = kOk;
        conn = open(host + ":" + port, nullptr, flag, &opened);
        if (conn == nullptr) return opened;
    }
    ConnectionLease lease(*this, conn, nullptr);
    if (Stop stop = sendPost(*this, conn, path, headers, body, withholdsCredentials(url, origin))) return *stop;

    char* buffer = m_buffer;
    int lastRead = 0;
    int received = readHead(conn, buffer, kMaxRead, lastRead);
    if (received <= 0 || buffer[0] == 0) return kReadFailed;
    buffer[received] = 0;
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    std::string_view head(buffer, strnlen(buffer, (size_t)received));
    int parsedHead = parseHttpResponseHeader(head, code, headerLength, contentLength, nullptr);
    if (logging()) log("VRAXSecureWebChannel::httpPost: code %d, size %lld bytes", code, contentLength);
    if (parsedHead != kOk || code < 200 || code > 399) {
        if (parsedHead == kChunked) noteFailure(kBadStatus, "chunked answer, which a POST does not read");
        else noteRejectedHead(head, parsedHead);
        m_response = std::string(head);
        if (logging()) log("VRAXSecureWebChannel::httpPost: %s", m_response.c_str());
        return kBadStatus;
    }
    if (code >= 300) {
        // The rest of the redirect's answer is not read: that connection goes.
        lease.drop();
        return followRedirect(conn, url, code, headers, body, origin);
    }
    if ((size_t)received >= m_response.max_size()) {
        lease.keep();  // as it always was; a read never comes near this size
        return kBadChunkSize;
    }
    std::string answer(head);
    // Written so that a length near 2^63 cannot overflow.
    long long expected = contentLength < 0 ? contentLength : contentLength - (received - headerLength);
    int result = readRest(*this, lease, conn, answer, expected);
    m_response = std::move(answer);
    return result;
}

int webChannel::followRedirect(connection* conn, const std::string& url, int code, char* headers, char* body,
                               const std::string& origin) {
    static thread_local int depth = 0;
    if (code != 301 && code != 307 && code != 308) {
        noteFailure(kBadStatus, "HTTP " + std::to_string(code) + " redirect, which a POST does not follow");
        return kBadStatus;
    }
    if (depth >= kMaxPostRedirects) return kTooManyAttempts;
    // The parser left the target in m_response (no connection given). A
    // target without scheme and port goes to the same server, on a fresh
    // connection since the old one still holds the redirect's body.
    std::string target = m_response;
    std::string targetHost, targetPort, targetPath;
    const bool sameServer = !parseURL(target, nullptr, targetHost, targetPort, targetPath, nullptr);
    if (sameServer) target = conn->host + ":" + conn->port + (targetPath.empty() ? "/" : targetPath);
    // A POST opens its connection by host and port, so only port 443 is TLS.
    if (!sameServer && refusesRedirect(url, target, conn->https && targetPort != "443", nullptr)) return kUntrusted;
    ++depth;
    int result = httpPost(conn, target.c_str(), headers, body, false, origin);
    --depth;
    return result;
}
