// POST with a text body; the whole answer, head included, is kept for
// httpResponse.
#include <cstdio>
#include <cstring>

#include "channel/webChannel.h"
#include "http/response.h"

namespace {

// Each followed redirect posts again; a server that redirects forever gets
// an answer after this many.
constexpr int kMaxPostRedirects = 30;

}  // namespace

int webChannel::httpPost(const char* url, char* headers, char* body, bool flag) {
    m_errorCode = 0;
    m_errorMessage.clear();
    m_errorContext.clear();
    int result = httpPost(nullptr, url, headers, body, flag);
    releaseRetired();
    if (result < 0) setError(result);
    return result;
}

int webChannel::httpPost(connection* conn, const char* url, char* headers, char* body, bool flag) {
    static thread_local int depth = 0;
    if (url == nullptr || body == nullptr) return kInvalidArgument;
    if (m_buffer == nullptr) return kInvalidArgument;  // init() has not sized the buffers
    std::string host, port, path;
    bool parsed = parseURL(url, nullptr, host, port, path, nullptr);
    if (!parsed && conn == nullptr) return kInvalidArgument;
    if (parsed) {
        int opened = kOk;
        conn = open(host + ":" + port, nullptr, flag, &opened);
        if (conn == nullptr) return opened;
    }
    AccessParams params = paramsSnapshot();
    httpRequest request("POST", conn->host + ":" + conn->port, path.empty() ? "/" : path, headers, &params);
    char length[32];
    snprintf(length, sizeof(length), "%lld", (long long)strlen(body));
    request.headers["Content-Length"] = length;
    std::string text = request.str() + body;
    if (writeAll(conn, text) < 1) {
        dropConnection(conn, nullptr);
        return kSendFailed;
    }

    char* buffer = m_buffer;
    int lastRead = 0;
    int received = readHead(conn, buffer, kMaxRead, lastRead);
    if (received <= 0 || buffer[0] == 0) {
        dropConnection(conn, nullptr);
        return kReadFailed;
    }
    buffer[received] = 0;
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    std::string_view head(buffer, strnlen(buffer, (size_t)received));
    int parsedHead = parseHttpResponseHeader(head, code, headerLength, contentLength, nullptr);
    if (logging()) log("VRAXSecureWebChannel::httpPost: code %d, size %lld bytes", code, contentLength);
    if (parsedHead != kOk || code < 200 || code > 399) {
        m_response = std::string(head);
        if (logging()) log("VRAXSecureWebChannel::httpPost: %s", m_response.c_str());
        dropConnection(conn, nullptr);
        return kBadStatus;
    }
    if (code >= 300) {
        // The rest of the redirect's answer is not read: that connection goes.
        dropConnection(conn, nullptr);
        if (code != 301 && code != 307 && code != 308) return kBadStatus;
        if (depth >= kMaxPostRedirects) return kTooManyAttempts;
        // The parser left the target in m_response (no connection given). A
        // target without scheme and port goes to the same server, on a
        // fresh connection since the old one still holds the redirect's body.
        std::string target = m_response;
        std::string targetHost, targetPort, targetPath;
        if (!parseURL(target, nullptr, targetHost, targetPort, targetPath, nullptr))
            target = conn->host + ":" + conn->port + (targetPath.empty() ? "/" : targetPath);
        ++depth;
        int result = httpPost(conn, target.c_str(), headers, body, false);
        --depth;
        return result;
    }
    if ((size_t)received >= m_response.max_size()) return kBadChunkSize;
    std::string answer(head);
    // What the announced length still asks for beyond this read; written so
    // that a length near 2^63 cannot overflow.
    long long expected = contentLength < 0 ? contentLength : contentLength - (received - headerLength);
    // Read until the server closes or goes quiet for the transfer time-out.
    for (;;) {
        int more = read(conn, buffer, kMaxRead, 0, false);
        if (more <= 0) {
            // A peer that closed leaves nothing to reuse.
            if (more != -2) dropConnection(conn, nullptr);
            break;
        }
        buffer[more] = 0;
        expected -= more;
        answer.append(buffer, strnlen(buffer, (size_t)more));
    }
    m_response = std::move(answer);
    return expected > 0 ? kReadFailed : kOk;
}
