// Request text, byte for byte.
#include <gtest/gtest.h>

#include "channel/webChannel.h"

namespace {

using Request = webChannel::httpRequest;

TEST(RequestText, SingleGetWithCredentialsAndNoCache) {
    AccessParams params = {{kParamUser, "u"}, {kParamPassword, "p"}, {kParamNoCache, "x"}};
    Request request("GET", "h:443", "/a/b", nullptr, &params);
    EXPECT_EQ(request.str(),
              "GET /a/b HTTP/1.1\r\n"
              "Authorization: Basic dTpw\r\n"
              "Cache-Control: no-cache, no-store, must-revalidate\r\n"
              "Expires: 0\r\n"
              "Host: h:443\r\n"
              "Pragma: no-cache\r\n"
              "\r\n");
}

TEST(RequestText, NullParamsGiveHostOnly) {
    Request request("GET", "h:80", "/", nullptr, nullptr);
    EXPECT_EQ(request.str(), "GET / HTTP/1.1\r\nHost: h:80\r\n\r\n");
}

TEST(RequestText, HeadersFollowByteOrderNotInsertionOrder) {
    AccessParams params = {{kParamCookie, "c=1"}, {kParamProxyAuth, "cHg="}, {kParamNoCache, ""}};
    Request request("GET", "h:8080", "http://h:8080/f", nullptr, &params);
    request.headers["Range"] = "bytes=0-9";
    request.headers["Content-Length"] = "0";
    EXPECT_EQ(request.str(),
              "GET http://h:8080/f HTTP/1.1\r\n"
              "Cache-Control: no-cache, no-store, must-revalidate\r\n"
              "Content-Length: 0\r\n"
              "Cookie: c=1\r\n"
              "Expires: 0\r\n"
              "Host: h:8080\r\n"
              "Pragma: no-cache\r\n"
              "Proxy-Authorization: Basic cHg=\r\n"
              "Range: bytes=0-9\r\n"
              "\r\n");
}

TEST(RequestText, AuthorizationNeedsBothUserAndPassword) {
    AccessParams onlyUser = {{kParamUser, "u"}};
    AccessParams onlyPassword = {{kParamPassword, "p"}};
    EXPECT_EQ(Request("GET", "h:80", "/", nullptr, &onlyUser).str(), "GET / HTTP/1.1\r\nHost: h:80\r\n\r\n");
    EXPECT_EQ(Request("GET", "h:80", "/", nullptr, &onlyPassword).str(), "GET / HTTP/1.1\r\nHost: h:80\r\n\r\n");
}

TEST(RequestText, CredentialsAreJoinedUnescapedAndEncodedOnOneLine) {
    std::string longName(200, 'n');
    AccessParams params = {{kParamUser, "a:b"}, {kParamPassword, "c"}};
    EXPECT_EQ(Request("GET", "h:80", "/", nullptr, &params).headers["Authorization"], "Basic YTpiOmM=");
    AccessParams longParams = {{kParamUser, longName}, {kParamPassword, longName}};
    std::string value = Request("GET", "h:80", "/", nullptr, &longParams).headers["Authorization"];
    EXPECT_EQ(value.find('\n'), std::string::npos);
    EXPECT_EQ(value.size(), 6u + (401 + 2) / 3 * 4);
}

TEST(RequestText, ExtraTextGoesBeforeTheBlankLineUnchanged) {
    char extra[] = "X-One: 1\r\nX-Two: 2\r\n";
    AccessParams params;
    Request request("POST", "h:80", "/p", extra, &params);
    request.headers["Content-Length"] = "3";
    EXPECT_EQ(request.str(), "POST /p HTTP/1.1\r\nContent-Length: 3\r\nHost: h:80\r\nX-One: 1\r\nX-Two: 2\r\n\r\n");
}

TEST(RequestText, ConnectNamesHostAndPortTwice) {
    AccessParams params = {{kParamProxyAuth, "dTpw"}, {kParamUser, "u"}};
    Request request("CONNECT", "t:443", "t:443", nullptr, &params);
    EXPECT_EQ(request.str(), "CONNECT t:443 HTTP/1.1\r\nHost: t:443\r\nProxy-Authorization: Basic dTpw\r\n\r\n");
}

TEST(RequestText, RenderingTwiceGivesTheSameTextAndChangesNothing) {
    AccessParams params = {{kParamCookie, "a"}};
    Request request("GET", "h:80", "/", nullptr, &params);
    std::string first = request.str();
    EXPECT_EQ(request.str(), first);
    EXPECT_EQ(request.headers.size(), 2u);
}

TEST(AccessParams, MergeInheritsOnlyCookieProxyCredentialsAndNoCache) {
    AccessParams target = {{kParamCookie, "job"}};
    AccessParams source = {{kParamCookie, "channel"}, {kParamProxyAuth, "p"}, {kParamNoCache, ""},
                           {kParamUser, "u"},         {kParamPassword, "w"},  {kParamTimeout, "5"}};
    webChannel::mergeAccessParams(target, source);
    AccessParams expected = {{kParamCookie, "job"}, {kParamProxyAuth, "p"}, {kParamNoCache, ""}};
    EXPECT_EQ(target, expected);
}

}  // namespace
