// Request text, byte for byte: the request line, the headers in byte-wise
// order of their names, the caller's extra text unchanged, the blank line.
#include <gtest/gtest.h>

#include "channel/webChannel.h"

namespace {

// The text of a request, rendered twice: rendering must change nothing.
std::string render(const char* method, const char* host, const char* target, AccessParams params,
                   const std::map<std::string, std::string>& added = {}, std::string extra = "") {
    webChannel::httpRequest request(method, host, target, extra.empty() ? nullptr : &extra[0], &params);
    for (const auto& header : added) request.headers[header.first] = header.second;  // as the callers add them
    const size_t headers = request.headers.size();
    const std::string text = request.str();
    EXPECT_EQ(request.str(), text);
    EXPECT_EQ(request.headers.size(), headers);
    return text;
}

std::string repeat(const std::string& text, int times) {
    return times > 0 ? text + repeat(text, times - 1) : "";
}

TEST(RequestText, HeadersComeInByteOrderOfTheirNamesAndTheExtraTextLast) {
    EXPECT_EQ(render("GET", "h:443", "/a/b", {{kParamUser, "u"}, {kParamPassword, "p"}, {kParamNoCache, "x"}}),
              "GET /a/b HTTP/1.1\r\nAuthorization: Basic dTpw\r\nCache-Control: no-cache, no-store, must-revalidate\r\n"
              "Expires: 0\r\nHost: h:443\r\nPragma: no-cache\r\n\r\n");
    EXPECT_EQ(
        render("GET", "h:8080", "http://h:8080/f",
               {{kParamCookie, "c=1"}, {kParamProxyAuth, "cHg="}, {kParamNoCache, ""}},
               {{"Range", "bytes=0-9"}, {"Content-Length", "0"}}),
        "GET http://h:8080/f HTTP/1.1\r\nCache-Control: no-cache, no-store, must-revalidate\r\nContent-Length: 0\r\n"
        "Cookie: c=1\r\nExpires: 0\r\nHost: h:8080\r\nPragma: no-cache\r\nProxy-Authorization: Basic cHg=\r\n"
        "Range: bytes=0-9\r\n\r\n");
    EXPECT_EQ(render("POST", "h:80", "/p", {}, {{"Content-Length", "3"}}, "X-One: 1\r\nX-Two: 2\r\n"),
              "POST /p HTTP/1.1\r\nContent-Length: 3\r\nHost: h:80\r\nX-One: 1\r\nX-Two: 2\r\n\r\n");
    EXPECT_EQ(render("CONNECT", "t:443", "t:443", {{kParamProxyAuth, "dTpw"}, {kParamUser, "u"}}),
              "CONNECT t:443 HTTP/1.1\r\nHost: t:443\r\nProxy-Authorization: Basic dTpw\r\n\r\n");
    EXPECT_EQ(webChannel::httpRequest("GET", "h:80", "/", nullptr, nullptr).str(),
              "GET / HTTP/1.1\r\nHost: h:80\r\n\r\n");
}

TEST(RequestText, CredentialsNeedBothPartsAndAreJoinedUnescapedAndEncodedOnOneLine) {
    const std::string plain = "GET / HTTP/1.1\r\nHost: h:80\r\n\r\n", name(200, 'n');
    EXPECT_EQ(render("GET", "h:80", "/", {{kParamUser, "u"}}), plain);
    EXPECT_EQ(render("GET", "h:80", "/", {{kParamPassword, "p"}}), plain);
    EXPECT_EQ(render("GET", "h:80", "/", {{kParamUser, "a:b"}, {kParamPassword, "c"}}),
              "GET / HTTP/1.1\r\nAuthorization: Basic YTpiOmM=\r\nHost: h:80\r\n\r\n");
    EXPECT_EQ(render("GET", "h:80", "/", {{kParamUser, name}, {kParamPassword, name}}),
              "GET / HTTP/1.1\r\nAuthorization: Basic " + repeat("bm5u", 66) + "bm46" + repeat("bm5u", 66) +
                  "bm4=\r\nHost: h:80\r\n\r\n");
}

TEST(AccessParams, MergeInheritsOnlyCookieProxyCredentialsAndNoCache) {
    AccessParams target = {{kParamCookie, "job"}};
    webChannel::mergeAccessParams(target, {{kParamCookie, "channel"},
                                           {kParamProxyAuth, "p"},
                                           {kParamNoCache, ""},
                                           {kParamUser, "u"},
                                           {kParamPassword, "w"},
                                           {kParamTimeout, "5"}});
    EXPECT_EQ(target, (AccessParams{{kParamCookie, "job"}, {kParamProxyAuth, "p"}, {kParamNoCache, ""}}));
}

}  // namespace
