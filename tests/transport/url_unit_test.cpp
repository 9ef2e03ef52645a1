// URL splitting, exact part by part.
#include "transport/url.h"

#include <gtest/gtest.h>

namespace {

TEST(UrlSplit, CutsAtTheFirstOfEachSeparatorAndFillsThePartsEvenOnFailure) {
    struct Case {
        const char* url;
        bool ok;
        const char *credentials, *host, *port, *path;
        bool https;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url);
        UrlParts parts;
        EXPECT_EQ(splitUrl(c.url, parts), c.ok);
        EXPECT_EQ(parts.credentials, c.credentials);
        EXPECT_EQ(parts.hasCredentials, *c.credentials != '\0');
        EXPECT_EQ(parts.host, c.host);
        EXPECT_EQ(parts.port, c.port);
        EXPECT_EQ(parts.path, c.path);
        EXPECT_EQ(parts.hasPath, *c.path != '\0');
        EXPECT_EQ(parts.https, c.https);
    }
}

}  // namespace
