// What a redirect may take along: origins, leaving TLS, the parameters kept from another origin.
#include <gtest/gtest.h>

#include "channel/webChannel.h"
#include "http/redirects.h"

namespace {

TEST(Redirects, OriginsTlsAndWithheldParametersFollowTheUrlsAsTheChannelReadsThem) {
    // URL, origin, same origin
    const std::tuple<std::string, std::string, bool> origins[] = {
        {"http://h/b", "http://h:80/a", true},                // the scheme's default port
        {"http://H/b", "http://h/a", true},                   // host names without regard to case
        {"h:8080/b", "http://h:8080/a", true},                // no scheme: http
        {"http://u:p@h/b", "http://h/a", true},               // credentials in the URL are no part of it
        {"https://h/b", "http://h:443/a", true},              // port 443 means TLS
        {"https://h/b", "http://h/a", false},                 // the scheme
        {"http://h:8080/b", "http://h/a", false},             // the port
        {"http://127.0.0.2/b", "http://127.0.0.1/a", false},  // the host
    };
    for (const auto& [url, origin, same] : origins) EXPECT_EQ(sameOrigin(url, origin), same) << url << " " << origin;
    // from, to, leaves TLS
    const std::tuple<std::string, std::string, bool> moves[] = {
        {"https://h/a", "http://g/b", true},
        {"https://h/a", "g:8080/b", true},
        {"http://h:443/a", "http://h/b", true},
        {"https://h/a", "https://g/b", false},
        {"https://h/a", "http://g:443/b", false},
        {"http://h/a", "http://g/b", false},
        {"https://h/a", "/b", false},  // a relative location is not followed
    };
    for (const auto& [from, to, leaves] : moves) EXPECT_EQ(leavesTls(from, to), leaves) << from << " " << to;
    EXPECT_EQ(withoutCredentials({{kParamUser, "u"},
                                  {kParamPassword, "p"},
                                  {kParamCookie, "c"},
                                  {kParamProxyAuth, "x"},
                                  {kParamNoCache, ""},
                                  {kParamRelativeTarget, ""}}),
              (AccessParams{{kParamProxyAuth, "x"}, {kParamNoCache, ""}, {kParamRelativeTarget, ""}}));
}

}  // namespace
