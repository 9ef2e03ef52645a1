// URL splitting, exact part by part.
#include <gtest/gtest.h>

#include "transport/url.h"

namespace {

TEST(UrlSplit, CutsAtTheFirstOfEachSeparatorAndFillsThePartsEvenOnFailure) {
    // URL, result, credentials, host, port, path, TLS
    const std::tuple<std::string, bool, std::string, std::string, std::string, std::string, bool> cases[] = {
        {"https://h/x", true, "", "h", "443", "/x", true},
        {"h:8080/x", true, "", "h", "8080", "/x", false},    // a port needs no scheme
        {"h/x", false, "", "h", "80", "/x", false},          // neither scheme nor port
        {"http://h:443/", true, "", "h", "443", "/", true},  // port 443 means TLS
        {"HTTPS://h/", true, "", "h", "80", "/", false},     // the scheme is compared exactly
        {"ftp://h:8443/", true, "", "h", "8443", "/", false},
        {"https://user:pw@h", true, "user:pw", "h", "443", "", true},
        {"http://h/a@b", true, "h/a", "b", "80", "", false},    // the first "@", even in the path
        {"http://h:1:2/p", true, "", "h", "1:2", "/p", false},  // the first ":" ends the host
        {"http://", true, "", "", "80", "", false},
        {"", false, "", "", "80", "", false},
    };
    for (const auto& [url, ok, credentials, host, port, path, https] : cases) {
        SCOPED_TRACE(url);
        UrlParts parts;
        EXPECT_EQ(splitUrl(url, parts), ok);
        EXPECT_EQ(std::make_tuple(parts.credentials, parts.hasCredentials, parts.host, parts.port),
                  std::make_tuple(credentials, !credentials.empty(), host, port));
        EXPECT_EQ(std::make_tuple(parts.path, parts.hasPath, parts.https), std::make_tuple(path, !path.empty(), https));
    }
}

}  // namespace
