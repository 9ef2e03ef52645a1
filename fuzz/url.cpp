// URLs: splitUrl and the channel's parseURL (without an address, so that
// nothing is resolved).
//
// Input: the URL, any bytes.
//
// Every URL of a job, a redirect and a proxy setting goes through these.
// The parts must fit back together into the URL, each must hold what its
// name says (a path starts with "/", a host holds no ":" or "/"; a port is
// whatever follows the first ":", possibly nothing, and the connect step
// refuses a port outside 1..65535), TLS must follow the scheme and the port,
// and parseURL must report what splitUrl found.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "transport/url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);

    UrlParts parts;
    const bool complete = splitUrl(url, parts);

    // The scheme as written: everything before the first "://".
    const size_t schemeEnd = url.find("://");
    const bool schemeSeen = schemeEnd != std::string::npos;
    const std::string written = schemeSeen ? url.substr(0, schemeEnd) : std::string();
    std::string_view rest(url);
    if (schemeSeen) rest.remove_prefix(schemeEnd + 3);

    FUZZ_CHECK(parts.hasPath == !parts.path.empty(), "hasPath %d with path \"%s\"", parts.hasPath,
               parts.path.c_str());
    FUZZ_CHECK(!parts.hasPath || parts.path[0] == '/', "path \"%s\" does not start with /", parts.path.c_str());
    FUZZ_CHECK(parts.hasCredentials || parts.credentials.empty(), "credentials without hasCredentials");
    FUZZ_CHECK(parts.credentials.find('@') == std::string::npos, "credentials hold an @");
    FUZZ_CHECK(parts.host.find_first_of(":/") == std::string::npos, "host \"%s\" holds : or /", parts.host.c_str());

    // The parts put together again give the URL.
    const std::string credentials = parts.hasCredentials ? parts.credentials + "@" : std::string();
    const std::string tail = credentials + parts.host;
    const bool portWritten = rest.size() >= tail.size() + 1 + parts.port.size() + parts.path.size() &&
                             rest.substr(0, tail.size()) == tail && rest[tail.size()] == ':';
    const std::string rebuilt = tail + (portWritten ? ":" + parts.port : std::string()) + parts.path;
    FUZZ_CHECK(rest == rebuilt, "parts do not give the URL back: \"%s\"", rebuilt.c_str());
    if (!portWritten) {
        FUZZ_CHECK(parts.port == (written == "https" ? "443" : "80"), "default port %s for scheme \"%s\"",
                   parts.port.c_str(), written.c_str());
    }

    // TLS: the scheme "https" exactly, or port 443; the scheme part follows.
    const bool tls = written == "https" || parts.port == "443";
    FUZZ_CHECK(parts.https == tls, "https %d for scheme \"%s\" port \"%s\"", parts.https, written.c_str(),
               parts.port.c_str());
    FUZZ_CHECK(parts.scheme == (parts.port == "443" && portWritten ? std::string("https") : written),
               "scheme \"%s\"", parts.scheme.c_str());
    FUZZ_CHECK(complete == (schemeSeen || portWritten), "result %d", complete);

    // parseURL: host and port always, path and credentials only when present.
    std::string host = "-", port = "-", path = "untouched", userInfo = "untouched";
    bool https = !parts.https;
    const bool parsed = fuzzChannel().parseURL(url, nullptr, host, port, path, userInfo, &https);
    FUZZ_CHECK(parsed == complete && host == parts.host && port == parts.port && https == parts.https,
               "parseURL differs from splitUrl");
    FUZZ_CHECK(path == (parts.hasPath ? parts.path : std::string("untouched")), "parseURL path");
    FUZZ_CHECK(userInfo == (parts.hasCredentials ? parts.credentials : std::string("untouched")),
               "parseURL credentials");
    return 0;
}
