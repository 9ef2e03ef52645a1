// URLs: splitUrl. The parts must give the URL back and hold what their names say (a path starts with "/", a host
// holds no ":" or "/", a port is what follows the first ":", maybe nothing), and TLS must follow the scheme and port.
#include "transport/url.h"

#include <cstdint>
#include <string_view>

#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);
    UrlParts parts;
    const bool complete = splitUrl(url, parts);
    const size_t schemeEnd = url.find("://");
    const std::string written = schemeEnd != std::string::npos ? url.substr(0, schemeEnd) : std::string();
    const std::string_view rest = std::string_view(url).substr(schemeEnd != std::string::npos ? schemeEnd + 3 : 0);
    FUZZ_CHECK(parts.hasPath == !parts.path.empty() && (!parts.hasPath || parts.path[0] == '/'));
    FUZZ_CHECK((parts.hasCredentials || parts.credentials.empty()) && parts.credentials.find('@') == std::string::npos);
    FUZZ_CHECK(parts.host.find_first_of(":/") == std::string::npos);
    const std::string tail = (parts.hasCredentials ? parts.credentials + "@" : std::string()) + parts.host;
    const bool portWritten = rest.size() >= tail.size() + 1 + parts.port.size() + parts.path.size() &&
                             rest.substr(0, tail.size()) == tail && rest[tail.size()] == ':';
    FUZZ_CHECK(rest == tail + (portWritten ? ":" + parts.port : std::string()) + parts.path);
    FUZZ_CHECK(portWritten || parts.port == (written == "https" ? "443" : "80"));
    FUZZ_CHECK(parts.https == (written == "https" || parts.port == "443"));
    FUZZ_CHECK(parts.scheme == (parts.port == "443" && portWritten ? std::string("https") : written));
    FUZZ_CHECK(complete == (schemeEnd != std::string::npos || portWritten));
    return 0;
}
