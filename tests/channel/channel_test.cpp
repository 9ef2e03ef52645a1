// Hostile arguments through the exported interface: null, empty, 64 KiB, CR/LF-bearing and non-ASCII text give
// their codes and crash nothing. Host names that are no IP literals carry an empty label ("..") so that no name
// server is asked.
#include <gtest/gtest.h>
#include <unistd.h>

#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace {

using namespace testsupport;

const std::string kLong(65536, 'a'), kCrLf = "\r\nX-Injected: 1", kNonAscii = "d\xC3\xA4t\xC3\xA4-\xE2\x82\xAC-\xFF";

class BadInput : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(channel->init(2), 0);
        channel->setParam(kParamTimeout, "2", true);
    }
    void TearDown() override {
        channel->setLog("");
        channel->close();
        VRAXSecureWebChannelDestroy(channel);
    }
    VRAXSecureWebChannel* channel = VRAXSecureWebChannelCreate();
    webChannel& impl() { return *static_cast<webChannel*>(channel); }
    const std::string dir = tempDir();
};

TEST_F(BadInput, ConfigurationAndSingleRequestsAnswerUnusableTextWithTheirCodes) {
    for (const std::string& path : {std::string(), "/" + kLong, dir + "/no/such/dir/log"}) {
        channel->setLog(path.c_str());
        EXPECT_EQ(webChannel::m_log, nullptr) << path.size();
    }
    for (const auto& [proxy, code] : std::vector<std::pair<std::string, int>>{
             {"", kInvalidArgument},
             {"http://", kInvalidArgument},
             {"http://" + kLong + "..x:1", kProxyUnusable},
             {"http://" + kNonAscii + "..x:1", kProxyUnusable},
             {"http://p" + kCrLf + "..x:1", kProxyUnusable},
             {"http://127.0.0.1:3128" + kCrLf, kOk}}) {  // the number in front of the port text counts
        EXPECT_EQ(channel->setProxy(proxy.c_str(), nullptr), code) << proxy.substr(0, 40);
        EXPECT_EQ(channel->setProxy(nullptr, proxy.c_str()), code) << proxy.substr(0, 40);
    }
    EXPECT_EQ(impl().m_httpsProxyHost, "127.0.0.1");
    EXPECT_EQ(channel->setProxy(nullptr, nullptr), kOk);
    EXPECT_TRUE(impl().m_httpProxyHost.empty() && impl().m_httpsProxyHost.empty());
    EXPECT_EQ(channel->resolveProxy(nullptr), nullptr);
    for (const std::string& url : {std::string(), "http://" + kLong, "http://h/" + kCrLf, "https://" + kNonAscii})
        EXPECT_STREQ(channel->resolveProxy(url.c_str()), "");  // direct
    const std::string file = dir + "/f";
    char body[] = "x";
    // Refused as they stand; then hosts that cannot be resolved.
    const std::vector<std::string> urls = {"",
                                           "http://",
                                           "http:///path",
                                           "host..x/" + kCrLf,
                                           kNonAscii + "/x",
                                           kLong,
                                           "http://" + kLong + "..x/",
                                           "http://" + kNonAscii + "..x/",
                                           "http://h" + kCrLf + "..x/"};
    for (size_t i = 0; i < urls.size(); ++i) {
        const std::string& url = urls[i];
        const int code = i < 6 ? kInvalidArgument : kProxyUnusable;
        for (const char* u : {url.c_str(), (const char*)nullptr}) {  // null is refused alike
            const int expected = u == nullptr ? kInvalidArgument : code;
            EXPECT_EQ(channel->httpGet(u, file.c_str()), expected) << url.substr(0, 40);
            EXPECT_EQ(channel->httpGet(u), expected) << url.substr(0, 40);
            EXPECT_EQ(channel->httpGet_c(u, file.c_str()), expected) << url.substr(0, 40);
            EXPECT_EQ(channel->getErrorCode(nullptr, 0), code) << "a null URL leaves the last error";
            EXPECT_EQ(channel->httpPost(u, nullptr, body, false), expected) << url.substr(0, 40);
        }
    }
    EXPECT_EQ(channel->httpPost("http://127.0.0.1:1/", nullptr, nullptr, false), kInvalidArgument);  // no body
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

// Line breaks in a URL's path reach the request line as given, and the channel adds nothing of its own; odd
// file names are just names.
TEST_F(BadInput, ALineBreakInThePathReachesTheRequestLineAsGiven) {
    const int descriptors = openDescriptorCount();
    {
        ScriptServer server([](ServerConnection& c) {
            for (int i = 0; i < 10 && !c.readRequest().empty(); ++i) c.send(httpResponse(200, "hello"));
        });
        const std::string host = "127.0.0.1:" + std::to_string(server.port()), odd = dir + "/f" + kCrLf + kNonAscii;
        ASSERT_EQ(channel->httpGet(server.url("/a" + kCrLf).c_str()), 0);
        EXPECT_STREQ(channel->httpResponse(nullptr), "\r\n\r\nhello");
        ASSERT_EQ(channel->httpGet_c(server.url("/b" + kCrLf).c_str(), odd.c_str()), 0);
        EXPECT_EQ(readFile(odd), "hello");
        const std::string end = " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
        EXPECT_EQ(server.requests(),
                  (std::vector<std::string>{"GET /a" + kCrLf + end, "GET http://" + host + "/b" + kCrLf + end}));
        EXPECT_EQ(channel->httpGet(server.url("/c").c_str(), (dir + "/" + kLong).c_str()), kFileWrite);
        channel->close();
    }
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

}  // namespace
