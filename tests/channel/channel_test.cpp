// Hostile arguments through the exported interface: null, empty, 64 KiB, CR/LF-bearing and non-ASCII text give
// their codes and crash nothing. Host names that are no IP literals carry an empty label ("..") so that no name
// server is asked.
#include <gtest/gtest.h>
#include <unistd.h>

#include "channel/webChannel.h"
#include "transport/transport_helpers.h"

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
    EXPECT_EQ(channel->setProxy(nullptr, nullptr), kOk);
    EXPECT_EQ(channel->resolveProxy(nullptr), nullptr);
    for (const std::string& url : {std::string(), "http://" + kLong, "http://h/" + kCrLf, "https://" + kNonAscii})
        EXPECT_STREQ(channel->resolveProxy(url.c_str()), "");  // direct
    const std::string file = dir + "/f";
    char body[] = "x";
    // Refused as they stand; hosts that cannot be resolved (twice: a failed lookup is not cached); port texts that
    // are no port or would wrap (65979 to the HTTPS peer's 443), and a port that refuses. None waits for the time-out,
    // none leaves a descriptor.
    transporttest::LoopbackPort refusing(false);
    const std::vector<std::pair<std::string, int>> urls = {{"", kInvalidArgument},
                                                           {"http://", kInvalidArgument},
                                                           {"http:///path", kInvalidArgument},
                                                           {"host..x/" + kCrLf, kInvalidArgument},
                                                           {kNonAscii + "/x", kInvalidArgument},
                                                           {kLong, kInvalidArgument},
                                                           {"http://" + kLong + "..x/", kProxyUnusable},
                                                           {"http://" + kNonAscii + "..x/", kProxyUnusable},
                                                           {"http://h" + kCrLf + "..x/", kProxyUnusable},
                                                           {"http://127.0.0.1:/", kConnectFailed},
                                                           {"http://127.0.0.1:0/", kConnectFailed},
                                                           {"http://127.0.0.1:65979/", kConnectFailed},
                                                           {"127.0.0.1:abc", kConnectFailed},
                                                           {refusing.url("/"), kConnectFailed},
                                                           {refusing.url("/", "https"), kConnectFailed}};
    const int descriptors = openDescriptorCount();
    const auto start = std::chrono::steady_clock::now();
    for (const auto& [url, code] : urls) {
        for (const char* u : {url.c_str(), (const char*)nullptr}) {  // null is refused alike
            const int expected = u == nullptr ? kInvalidArgument : code;
            EXPECT_EQ(channel->httpGet(u, file.c_str()), expected) << url.substr(0, 40);
            EXPECT_EQ(channel->httpGet(u), expected) << url.substr(0, 40);
            EXPECT_EQ(channel->httpGet_c(u, file.c_str()), expected) << url.substr(0, 40);
            EXPECT_EQ(channel->getErrorCode(nullptr, 0), code) << "a null URL leaves the last error";
            EXPECT_EQ(channel->httpPost(u, nullptr, body, false), expected) << url.substr(0, 40);
        }
    }
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.0);
    EXPECT_EQ(openDescriptorCount(), descriptors);
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
