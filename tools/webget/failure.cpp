// Failures in words a person can act on: what failed (a host, a URL, a
// file) and why, as the library's error detail tells it.
#include <cctype>
#include <cerrno>
#include <cstring>

#include "webget.h"

namespace webget {
namespace {

// Room for the library's message.
constexpr int kErrorText = 1024;

// Host and port of a URL as the library reads it: after "scheme://" and
// any "user@", up to the path; the port defaults by scheme.
std::string hostOf(const std::string& url, bool withPort) {
    size_t start = url.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    size_t end = url.find('/', start);
    std::string authority = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
    size_t at = authority.rfind('@');
    if (at != std::string::npos) authority.erase(0, at + 1);
    size_t colon = authority.find(':');
    if (!withPort) return authority.substr(0, colon);
    if (colon != std::string::npos) return authority;
    return authority + (url.compare(0, 8, "https://") == 0 ? ":443" : ":80");
}

// The system's words start with a capital; inside a line they read better
// without it ("127.0.0.1:1: connection refused").
std::string lowerFirst(std::string text) {
    if (text.size() > 1 && isupper((unsigned char)text[0]) && islower((unsigned char)text[1]))
        text[0] = (char)tolower((unsigned char)text[0]);
    return text;
}

}  // namespace

LibraryError lastError(VRAXSecureWebChannel* channel, int result) {
    char text[kErrorText] = {0};
    LibraryError error;
    error.code = channel->getErrorCode(text, (int)sizeof text);
    error.reason = text;
    if (error.code == wc::kOk) error.code = result;
    return error;
}

std::string explainFailure(int code, const std::string& reason, const std::string& url, const std::string& target,
                           bool creating) {
    const std::string why = reason.empty() ? wc::resultText(code) : reason;
    switch (code) {
    case wc::kProxyUnusable:
        return hostOf(url, false) + ": host not found" + (reason.empty() ? "" : ": " + reason);
    case wc::kSocketCreate:
    case wc::kConnectFailed:
    case wc::kPeerClosed: return hostOf(url, true) + ": " + lowerFirst(why);
    case wc::kTlsSetup:
    case wc::kTlsHandshake: return hostOf(url, true) + ": TLS handshake failed: " + why;
    // The library's reason starts with the server it concerns.
    case wc::kUntrusted: return reason.empty() ? hostOf(url, true) + ": " + why : reason;
    case wc::kTunnelSendShort:
    case wc::kTunnelRefused: return hostOf(url, true) + ": no tunnel through the proxy: " + why;
    case wc::kFileWrite: return target + (creating ? ": cannot create: " : ": cannot write: ") + why;
    case wc::kChecksumMismatch: return target + ": " + why;
    case wc::kCancelled: return why;
    default: return url + ": " + why;
    }
}

std::string explainTemporaryFailure(const std::string& directory, const std::string& reason) {
    std::string text =
        "cannot write the temporary file in " + directory + ": " + (reason.empty() ? "unknown reason" : reason);
    // The body is kept whole until it is complete, so the folder must hold all of it.
    if (reason == strerror(ENOSPC)) text += " (set TMPDIR to a folder with room for the whole file)";
    return text;
}

std::string explainInstallFailure(const std::string& target, const Landing& landing, int error) {
    return target + ": cannot replace it with the finished download " + landing.path + ": " + strerror(error);
}

}  // namespace webget
