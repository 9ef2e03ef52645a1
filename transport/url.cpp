// URL splitting and the two parseURL forms.
#include "transport/url.h"

#include <cctype>

#include "channel/webChannel.h"

bool splitUrl(std::string_view url, UrlParts& parts) {
    std::string_view rest = url;
    bool schemeSeen = false;
    size_t found = rest.find("://");
    if (found != std::string_view::npos) {
        parts.scheme = std::string(rest.substr(0, found));
        rest.remove_prefix(found + 3);
        schemeSeen = true;
    }
    // An "@" anywhere, the path included, separates the credentials.
    found = rest.find('@');
    if (found != std::string_view::npos) {
        parts.credentials = std::string(rest.substr(0, found));
        parts.hasCredentials = true;
        rest.remove_prefix(found + 1);
    }
    found = rest.find('/');
    if (found != std::string_view::npos) {
        parts.path = std::string(rest.substr(found));
        parts.hasPath = true;
        rest = rest.substr(0, found);
    }
    found = rest.find(':');
    if (found == std::string_view::npos) {
        parts.host = std::string(rest);
        parts.https = parts.scheme == "https";
        parts.port = parts.https ? "443" : "80";
        return schemeSeen;
    }
    parts.host = std::string(rest.substr(0, found));
    parts.port = std::string(rest.substr(found + 1));
    // Port 443 means TLS whatever the scheme says.
    if (parts.port == "443") parts.scheme = "https";
    parts.https = parts.scheme == "https";
    return true;
}

bool webChannel::parseURL(std::string url, unsigned long* address, std::string& host, std::string& port,
                          std::string& path, std::string& credentials, bool* https) {
    UrlParts parts;
    bool complete = splitUrl(url, parts);
    // Path and credentials are assigned only when present, host and port always.
    if (parts.hasCredentials) credentials = parts.credentials;
    if (parts.hasPath) path = parts.path;
    host = parts.host;
    port = parts.port;
    if (https != nullptr) *https = parts.https;
    if (!complete) return false;
    if (address != nullptr) *address = resolveAddress(host, port);
    return true;
}

bool webChannel::parseURL(std::string url, unsigned long* address, std::string& host, std::string& port,
                          std::string& path, bool* https) {
    std::string credentials;
    return parseURL(std::move(url), address, host, port, path, credentials, https);
}

bool webChannel::refusesScheme(const std::string& url) {
    // Without a scheme the URL counts as http, as it always has.
    size_t separator = url.find("://");
    if (separator == std::string::npos || !hasParam(kParamErrorDetail)) return false;
    std::string scheme = url.substr(0, separator);
    for (char& c : scheme) c = (char)tolower((unsigned char)c);
    if (scheme == "http" || scheme == "https") return false;
    noteFailure(kInvalidArgument, "unsupported scheme (http and https only)");
    return true;
}
