// Hostile arguments through the exported interface: every one of the 21
// operations with null, empty, over-long (64 KiB), CR/LF-bearing and
// non-ASCII text. Each call gives its documented result and nothing
// crashes; text that reaches a request goes onto the wire exactly as given,
// and the channel adds nothing of its own.
//
// Host names that are not IP literals always carry an empty label ("..")
// so that the resolver rejects them without asking any name server.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "batch/fault_helpers.h"
#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace {

using faulttest::requestedRange;
using faulttest::ResourceCheck;
using testsupport::ScriptServer;
using testsupport::ServerConnection;

const std::string kLong(65536, 'a');                       // 64 KiB of text
const std::string kInjection = "\r\nX-Injected: 1";         // a header line smuggled into text
const std::string kNonAscii = "d\xC3\xA4t\xC3\xA4-\xE2\x82\xAC-\xFF";  // UTF-8 and a lone 0xFF

std::string md5Of(const std::string& data) {
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), value, &length, EVP_md5(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += hex[value[i] >> 4];
        text += hex[value[i] & 15];
    }
    return text;
}

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

// A server that answers "hello" to every request: 206 for a range, 200
// otherwise; a POST gets "ok" and the connection closes.
testsupport::ScriptServer::Handler helloServer() {
    return [](ServerConnection& c) {
        for (int i = 0; i < 100; ++i) {
            std::string request = c.readRequest();
            if (request.empty()) return;
            if (request.rfind("POST ", 0) == 0) {
                c.send(testsupport::httpResponse(200, "ok"));
                return;
            }
            long long first = 0, last = 0;
            if (requestedRange(request, first, last)) {
                if (!c.send(testsupport::httpResponse(206, std::string("hello").substr((size_t)first,
                                                                                        (size_t)(last - first + 1)))))
                    return;
            } else if (!c.send(testsupport::httpResponse(200, "hello"))) {
                return;
            }
        }
    };
}

// The channel from the exported factory, as a host gets it.
class BadInput : public ::testing::Test {
protected:
    void SetUp() override {
        channel = VRAXSecureWebChannelCreate();
        ASSERT_NE(channel, nullptr);
        ASSERT_EQ(channel->init(2), 0);
        channel->setParam(kParamTimeout, "2", true);
        dir = testsupport::tempDir();
    }
    void TearDown() override {
        channel->setLog("");  // logging off (an empty path opens nothing)
        channel->close();
        VRAXSecureWebChannelDestroy(channel);
    }

    webChannel& impl() { return *static_cast<webChannel*>(channel); }

    VRAXSecureWebChannel* channel = nullptr;
    std::string dir;
};

// ---------------------------------------------------------------------------
// 1 setLog

TEST_F(BadInput, SetLogTakesAnyPathAndFailsQuietly) {
    const int descriptors = testsupport::openDescriptorCount();
    channel->setLog(nullptr);  // standard output
    EXPECT_EQ(webChannel::m_log, stdout);
    channel->setLog("");
    EXPECT_EQ(webChannel::m_log, nullptr);
    channel->setLog(("/" + kLong).c_str());  // name too long: nothing opens
    EXPECT_EQ(webChannel::m_log, nullptr);
    channel->setLog((dir + "/no/such/dir/log").c_str());
    EXPECT_EQ(webChannel::m_log, nullptr);
    // A name with a line break and non-ASCII bytes is just a name.
    const std::string odd = dir + "/log" + kInjection + kNonAscii;
    channel->setLog(odd.c_str());
    ASSERT_NE(webChannel::m_log, nullptr);
    channel->setLog("");
    EXPECT_EQ(webChannel::m_log, nullptr);
    EXPECT_EQ(testsupport::readFile(odd).find("webChannel::setLog " + odd + "\n") != std::string::npos, true);
    EXPECT_EQ(testsupport::openDescriptorCount(), descriptors);
}

// ---------------------------------------------------------------------------
// 2 init

TEST_F(BadInput, InitClampsAnyWorkerCount) {
    EXPECT_EQ(channel->init(0), 0);
    EXPECT_EQ(impl().m_threadNum, 8u);
    EXPECT_EQ(channel->init(UINT_MAX), 0);
    EXPECT_EQ(impl().m_threadNum, 64u);
    EXPECT_EQ(channel->init((unsigned)-1 / 2 + 7), 0);
    EXPECT_EQ(impl().m_threadNum, 64u);
    EXPECT_EQ(channel->init(1), 0);
    EXPECT_EQ(impl().m_threadNum, 1u);
}

// ---------------------------------------------------------------------------
// 3 setProxy, 4 resolveProxy

TEST_F(BadInput, SetProxyRejectsUnusableUrlsWithTheirCodes) {
    EXPECT_EQ(channel->setProxy(nullptr, nullptr), 0);
    EXPECT_EQ(channel->setProxy("", nullptr), kInvalidArgument);
    EXPECT_EQ(channel->setProxy(nullptr, ""), kInvalidArgument);
    EXPECT_EQ(channel->setProxy("http://", "http://"), kInvalidArgument);
    // Over-long and non-ASCII host names do not resolve.
    EXPECT_EQ(channel->setProxy(("http://" + kLong + "..x:3128").c_str(), nullptr), kProxyUnusable);
    EXPECT_EQ(channel->setProxy(nullptr, ("http://" + kNonAscii + "..x:3128").c_str()), kProxyUnusable);
    EXPECT_EQ(channel->setProxy(("http://prox" + kInjection + "..x:3128").c_str(), nullptr), kProxyUnusable);
    // Text after the port is the port's text; the number in front counts.
    EXPECT_EQ(channel->setProxy(("http://127.0.0.1:3128" + kInjection).c_str(), nullptr), 0);
    EXPECT_EQ(impl().m_httpProxyHost, "127.0.0.1");
    EXPECT_EQ(channel->setProxy(nullptr, nullptr), 0);
    EXPECT_TRUE(impl().m_httpProxyHost.empty());
    EXPECT_TRUE(impl().m_httpsProxyHost.empty());
}

TEST_F(BadInput, ProxyCredentialsWithLineBreaksAreEncodedNotSent) {
    const std::string credentials = "us" + kInjection + kNonAscii + ":p\r\nw";
    ASSERT_EQ(channel->setProxy(("http://" + credentials + "@127.0.0.1:3128").c_str(), nullptr), 0);
    std::string value;
    ASSERT_TRUE(channel->getParam(kParamProxyAuth, value, true));
    EXPECT_FALSE(value.empty());
    EXPECT_EQ(value.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
              std::string::npos)
        << value;
    ASSERT_EQ(channel->setProxy(nullptr, nullptr), 0);
    channel->setParam(kParamProxyAuth, nullptr, true);
}

TEST_F(BadInput, ResolveProxyAnswersDirectForAnyText) {
    EXPECT_EQ(channel->resolveProxy(nullptr), nullptr);
    for (const std::string& url : {std::string(), "http://" + kLong, "http://h/" + kInjection,
                                   "https://" + kNonAscii + "/x", std::string("\xFF\xFE"), std::string("://@:/")}) {
        const char* answer = channel->resolveProxy(url.c_str());
        ASSERT_NE(answer, nullptr);
        EXPECT_STREQ(answer, "");
    }
}

// ---------------------------------------------------------------------------
// 5 setHandler, 6 setParam, 7 getParam

TEST_F(BadInput, ANullHandlerMeansNoReports) {
    channel->setHandler(nullptr, nullptr);
    channel->setHandler(nullptr, reinterpret_cast<void*>(0x1));
    ScriptServer server(helloServer());
    ASSERT_EQ(channel->addJob(server.url("/x").c_str(), (dir + "/x").c_str(), 5, nullptr, nullptr), 0);
    EXPECT_EQ(channel->httpMultiGet(true), 0);
    EXPECT_EQ(channel->getNextDownloadedFile(), 0);
    channel->setHandler(nullptr, nullptr);
}

TEST_F(BadInput, ParametersStoreAnyTextUnderAnyId) {
    std::string value = "unchanged";
    channel->setParam(kParamCookie, nullptr, false);  // no job: ignored
    channel->setParam(kParamCookie, "x", false);
    EXPECT_FALSE(channel->getParam(kParamCookie, value, false));
    EXPECT_EQ(value, "unchanged");
    EXPECT_FALSE(channel->getParam(INT_MIN, value, true));
    EXPECT_EQ(value, "unchanged");
    const std::vector<std::pair<int, std::string>> stored = {
        {INT_MIN, kLong}, {INT_MAX, ""}, {0, kInjection}, {-1, kNonAscii}, {kParamCookie, kInjection}};
    for (const auto& entry : stored) {
        channel->setParam(entry.first, entry.second.c_str(), true);
        ASSERT_TRUE(channel->getParam(entry.first, value, true)) << entry.first;
        EXPECT_EQ(value, entry.second);
    }
    for (const auto& entry : stored) {
        channel->setParam(entry.first, nullptr, true);
        EXPECT_FALSE(channel->getParam(entry.first, value, true)) << entry.first;
    }
    // A job parameter needs a job, and goes to the last one.
    ASSERT_EQ(channel->addJob("http://127.0.0.1:1/a", (dir + "/a").c_str(), 5, nullptr, nullptr), 0);
    channel->setParam(kParamCookie, kLong.c_str(), false);
    channel->setParam(kParamCookie, nullptr, false);  // cannot remove: ignored
    ASSERT_TRUE(channel->getParam(kParamCookie, value, false));
    EXPECT_EQ(value, kLong);
}

// A time-out that is no number falls back to 300 seconds.
TEST_F(BadInput, TimeoutTextThatIsNoPositiveNumberFallsBack) {
    for (const std::string& text : {std::string(""), std::string("abc"), std::string("-5"), std::string("0"),
                                    kLong, std::string("99999999999999999999"), std::string("4294967297")}) {
        channel->setParam(kParamTimeout, text.c_str(), true);
        EXPECT_GT(impl().getProxyTimeout(), 0) << text;
    }
    channel->setParam(kParamTimeout, "abc", true);
    EXPECT_EQ(impl().getProxyTimeout(), 300);
    channel->setParam(kParamTimeout, "7\r\n", true);
    EXPECT_EQ(impl().getProxyTimeout(), 7);
}

// ---------------------------------------------------------------------------
// 8 getNextDownloadedFile, 9 getErrorCode

TEST_F(BadInput, NoFileIsHandedOutWithoutABatch) {
    EXPECT_EQ(channel->getNextDownloadedFile(), -1);
    EXPECT_EQ(channel->httpMultiGet(false), 0);
    EXPECT_EQ(channel->getNextDownloadedFile(), -1);
    ASSERT_EQ(channel->addJob("http://127.0.0.1:1/a", (dir + "/a").c_str(), 5, nullptr, nullptr), 0);
    EXPECT_EQ(channel->getNextDownloadedFile(), -1);
}

TEST_F(BadInput, GetErrorCodeWritesOnlyInsideTheBuffer) {
    // Make an error with a file name that carries a line break.
    ScriptServer server([](ServerConnection& c) {
        if (!c.readRequest().empty()) c.send(testsupport::httpResponse(404, ""));
    });
    const std::string file = dir + "/f" + kInjection;
    ASSERT_EQ(channel->addJob(server.url("/missing").c_str(), file.c_str(), 5, nullptr, nullptr), 0);
    EXPECT_EQ(channel->httpMultiGet(true), 1);

    EXPECT_EQ(channel->getErrorCode(nullptr, 100), kBadStatus);
    EXPECT_EQ(channel->getErrorCode(nullptr, -1), kBadStatus);
    char guard[16];
    memset(guard, 'g', sizeof(guard));
    EXPECT_EQ(channel->getErrorCode(guard + 4, 0), kBadStatus);
    EXPECT_EQ(channel->getErrorCode(guard + 4, -7), kBadStatus);
    EXPECT_EQ(channel->getErrorCode(guard + 4, INT_MIN), kBadStatus);
    EXPECT_EQ(std::string(guard, sizeof(guard)), std::string(16, 'g'));
    EXPECT_EQ(channel->getErrorCode(guard + 4, 1), kBadStatus);
    EXPECT_EQ(guard[4], '\0');
    EXPECT_EQ(std::string(guard, 4), "gggg");
    EXPECT_EQ(std::string(guard + 5, 11), std::string(11, 'g'));
    EXPECT_EQ(channel->getErrorCode(guard + 4, 8), kBadStatus);
    EXPECT_EQ(std::string(guard + 4, 8), std::string("respons", 7) + '\0');
    EXPECT_EQ(std::string(guard, 4), "gggg");
    EXPECT_EQ(std::string(guard + 12, 4), "gggg");
    // The whole text, file name as given.
    char text[1024];
    EXPECT_EQ(channel->getErrorCode(text, (int)sizeof(text)), kBadStatus);
    EXPECT_EQ(std::string(text), std::string(wc::resultText(kBadStatus)) + ": " + file);
}

// ---------------------------------------------------------------------------
// 10-12 the single GETs, 14 httpResponse

TEST_F(BadInput, SingleGetsRejectMissingAndUnusableUrls) {
    ResourceCheck resources;
    const std::string file = dir + "/f";
    EXPECT_EQ(channel->httpGet(nullptr, file.c_str()), kInvalidArgument);
    EXPECT_EQ(channel->httpGet(nullptr), kInvalidArgument);
    EXPECT_EQ(channel->httpGet_c(nullptr, file.c_str()), kInvalidArgument);
    EXPECT_EQ(channel->httpGet_c(nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(channel->httpGet("", file.c_str()), kInvalidArgument);
    EXPECT_EQ(channel->httpGet(""), kInvalidArgument);
    EXPECT_EQ(channel->httpGet_c("", file.c_str()), kInvalidArgument);
    EXPECT_EQ(channel->getErrorCode(nullptr, 0), kInvalidArgument);
    // No scheme and no port.
    EXPECT_EQ(channel->httpGet(("host..x/" + kInjection).c_str()), kInvalidArgument);
    EXPECT_EQ(channel->httpGet((kNonAscii + "/x").c_str(), file.c_str()), kInvalidArgument);
    EXPECT_EQ(channel->httpGet(kLong.c_str(), file.c_str()), kInvalidArgument);
    // A scheme but no host.
    EXPECT_EQ(channel->httpGet("http://", file.c_str()), kInvalidArgument);
    EXPECT_EQ(channel->httpGet("http:///path"), kInvalidArgument);
    // Hosts that cannot resolve: over-long, non-ASCII, with a line break.
    EXPECT_EQ(channel->httpGet(("http://" + kLong + "..x/").c_str(), file.c_str()), kProxyUnusable);
    EXPECT_EQ(channel->httpGet(("http://" + kNonAscii + "..x/").c_str()), kProxyUnusable);
    EXPECT_EQ(channel->httpGet_c(("http://h" + kInjection + "..x/").c_str(), file.c_str()), kProxyUnusable);
    EXPECT_EQ(channel->getErrorCode(nullptr, 0), kProxyUnusable);
    EXPECT_FALSE(exists(file));
    // A null URL leaves the last error in place.
    EXPECT_EQ(channel->httpGet(nullptr), kInvalidArgument);
    EXPECT_EQ(channel->getErrorCode(nullptr, 0), kProxyUnusable);
    channel->close();
    resources.check();
}

TEST_F(BadInput, SingleGetsTakeOddTargetFileNames) {
    ResourceCheck resources;
    {
        ScriptServer server(helloServer());
        const std::string url = server.url("/five");
        // No file, or an empty name: the head is fetched, nothing is written.
        EXPECT_EQ(channel->httpGet(url.c_str(), nullptr), 0);
        EXPECT_EQ(channel->httpGet_c(url.c_str(), ""), 0);
        // A name too long to open, and one in a missing directory.
        EXPECT_EQ(channel->httpGet(url.c_str(), (dir + "/" + kLong).c_str()), kFileWrite);
        EXPECT_EQ(channel->getErrorCode(nullptr, 0), kFileWrite);
        EXPECT_EQ(channel->httpGet(url.c_str(), (dir + "/missing/dir/f").c_str()), kFileWrite);
        // Line breaks and non-ASCII bytes are just part of the name.
        const std::string odd = dir + "/f" + kInjection + kNonAscii;
        EXPECT_EQ(channel->httpGet_c(url.c_str(), odd.c_str()), 0);
        EXPECT_EQ(testsupport::readFile(odd), "hello");
        long long length = -1;
        ASSERT_NE(channel->httpResponse(nullptr), nullptr);
        ASSERT_NE(channel->httpResponse(&length), nullptr);
        channel->close();
    }
    resources.check();
}

// The request text carries the URL's text as given, CR/LF included, and
// nothing the caller did not ask for.
class RequestText : public BadInput {
protected:
    std::string host() const { return "127.0.0.1:" + std::to_string(server.port()); }
    ScriptServer server{helloServer()};
};

TEST_F(RequestText, InMemoryGetPutsThePathIntoTheRequestLineAsGiven) {
    ASSERT_EQ(channel->httpGet(server.url("/a" + kInjection).c_str()), 0);
    EXPECT_STREQ(channel->httpResponse(nullptr), "\r\n\r\nhello");
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "GET /a" + kInjection + " HTTP/1.1\r\nHost: " + host() + "\r\n\r\n");
}

TEST_F(RequestText, FileGetPutsTheAbsoluteTargetIntoTheRequestLineAsGiven) {
    const std::string file = dir + "/f";
    ASSERT_EQ(channel->httpGet(server.url("/a" + kInjection).c_str(), file.c_str()), 0);
    EXPECT_EQ(testsupport::readFile(file), "hello");
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0],
              "GET http://" + host() + "/a" + kInjection + " HTTP/1.1\r\nHost: " + host() + "\r\n\r\n");
}

TEST_F(RequestText, BatchRequestsCarryTheUrlAsGivenAndOnlyTheRange) {
    const std::string url = server.url("/a" + kInjection + kNonAscii);
    ASSERT_EQ(channel->addJob(url.c_str(), (dir + "/f").c_str(), 5, md5Of("hello").c_str(), "md5"), 0);
    EXPECT_EQ(channel->httpMultiGet(true), 0);
    EXPECT_EQ(channel->getNextDownloadedFile(), 0);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "GET http://" + host() + "/a" + kInjection + kNonAscii +
                                        " HTTP/1.1\r\nHost: " + host() + "\r\nRange: bytes=0-4\r\n\r\n");
}

TEST_F(RequestText, AHostTextWithALineBreakAfterThePortReachesTheHostHeaderAsGiven) {
    // The port text runs to the first "/"; its number is what is connected to.
    const std::string url = "http://" + host() + kInjection + "/x";
    ASSERT_EQ(channel->httpGet(url.c_str()), 0);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0], "GET /x HTTP/1.1\r\nHost: " + host() + kInjection + "\r\n\r\n");
}

TEST_F(RequestText, ParameterValuesGoIntoTheirHeadersAsGiven) {
    channel->setParam(kParamCookie, ("c=1" + kInjection).c_str(), true);
    channel->setParam(kParamUser, ("u" + kInjection).c_str(), true);
    channel->setParam(kParamPassword, kNonAscii.c_str(), true);
    ASSERT_EQ(channel->httpGet(server.url("/p").c_str()), 0);
    ASSERT_EQ(server.requests().size(), 1u);
    const std::string request = server.requests()[0];
    // The credentials are encoded, the cookie is sent verbatim.
    const std::string credentials = "u" + kInjection + ":" + kNonAscii;
    std::string encoded;
    {
        static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        size_t i = 0;
        for (; i + 2 < credentials.size(); i += 3) {
            unsigned v = (unsigned char)credentials[i] << 16 | (unsigned char)credentials[i + 1] << 8 |
                         (unsigned char)credentials[i + 2];
            for (int shift : {18, 12, 6, 0}) encoded += alphabet[v >> shift & 63];
        }
        if (i + 1 == credentials.size()) {
            unsigned v = (unsigned char)credentials[i] << 16;
            encoded += alphabet[v >> 18 & 63];
            encoded += alphabet[v >> 12 & 63];
            encoded += "==";
        } else if (i + 2 == credentials.size()) {
            unsigned v = (unsigned char)credentials[i] << 16 | (unsigned char)credentials[i + 1] << 8;
            encoded += alphabet[v >> 18 & 63];
            encoded += alphabet[v >> 12 & 63];
            encoded += alphabet[v >> 6 & 63];
            encoded += '=';
        }
    }
    EXPECT_EQ(request, "GET /p HTTP/1.1\r\nAuthorization: Basic " + encoded + "\r\nCookie: c=1" + kInjection +
                           "\r\nHost: " + host() + "\r\n\r\n");
    channel->setParam(kParamCookie, nullptr, true);
    channel->setParam(kParamUser, nullptr, true);
    channel->setParam(kParamPassword, nullptr, true);
}

TEST_F(RequestText, SixtyFourKibibyteUrlsGoOutWhole) {
    const std::string path = "/" + kLong;
    ASSERT_EQ(channel->httpGet(server.url(path).c_str()), 0);
    ASSERT_EQ(channel->httpGet(server.url(path).c_str(), (dir + "/f").c_str()), 0);
    ASSERT_EQ(channel->addJob(server.url(path).c_str(), (dir + "/g").c_str(), 5, md5Of("hello").c_str(), "md5"), 0);
    EXPECT_EQ(channel->httpMultiGet(true), 0);
    EXPECT_EQ(channel->getNextDownloadedFile(), 0);
    std::vector<std::string> requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], "GET " + path + " HTTP/1.1\r\nHost: " + host() + "\r\n\r\n");
    EXPECT_EQ(requests[1], "GET http://" + host() + path + " HTTP/1.1\r\nHost: " + host() + "\r\n\r\n");
    EXPECT_EQ(requests[2],
              "GET http://" + host() + path + " HTTP/1.1\r\nHost: " + host() + "\r\nRange: bytes=0-4\r\n\r\n");
}

// ---------------------------------------------------------------------------
// 13 httpPost

TEST_F(RequestText, PostRejectsMissingArgumentsAndSendsTextAsGiven) {
    char body[] = "x";
    char empty[] = "";
    EXPECT_EQ(channel->httpPost(nullptr, nullptr, body, false), kInvalidArgument);
    EXPECT_EQ(channel->httpPost(server.url("/p").c_str(), nullptr, nullptr, false), kInvalidArgument);
    EXPECT_EQ(channel->httpPost("", nullptr, body, true), kInvalidArgument);
    EXPECT_EQ(channel->httpPost(("host..x/" + kInjection).c_str(), nullptr, body, false), kInvalidArgument);
    EXPECT_EQ(channel->httpPost(("http://" + kNonAscii + "..x/").c_str(), nullptr, body, false), kProxyUnusable);
    EXPECT_TRUE(server.requests().empty());

    // Raw header text is the caller's, and goes out verbatim.
    std::string headers = "X-One: 1" + kInjection + "\r\n";
    std::vector<char> headerText(headers.begin(), headers.end());
    headerText.push_back('\0');
    std::string longBody = kNonAscii + kLong;
    std::vector<char> bodyText(longBody.begin(), longBody.end());
    bodyText.push_back('\0');
    ASSERT_EQ(channel->httpPost(server.url("/a" + kInjection).c_str(), headerText.data(), bodyText.data(), false),
              0);
    ASSERT_EQ(channel->httpPost(server.url("/e").c_str(), nullptr, empty, true), 0);
    std::vector<std::string> requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], "POST /a" + kInjection + " HTTP/1.1\r\nContent-Length: " +
                               std::to_string(longBody.size()) + "\r\nHost: " + host() + "\r\n" + headers + "\r\n" +
                               longBody);
    EXPECT_EQ(requests[1], "POST /e HTTP/1.1\r\nContent-Length: 0\r\nHost: " + host() + "\r\n\r\n");
}

// ---------------------------------------------------------------------------
// 15, 16 addJob, 17 httpMultiGet, 18 removeJob

TEST_F(BadInput, AddJobRejectsMissingArgumentsAndUnknownSizes) {
    const std::string file = dir + "/f";
    for (int variant = 0; variant < 2; ++variant) {
        auto add = [&](const char* url, const char* target, long long size, const char* sum, const char* algorithm) {
            return variant == 0 ? channel->addJob(url, target, size, sum, algorithm)
                                : channel->addJob_c(url, target, size, sum, algorithm);
        };
        EXPECT_EQ(add(nullptr, file.c_str(), 5, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add("http://127.0.0.1:1/a", nullptr, 5, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add(nullptr, nullptr, 0, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add("http://127.0.0.1:1/a", file.c_str(), -1, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add("http://127.0.0.1:1/a", file.c_str(), LLONG_MIN, nullptr, nullptr), kInvalidArgument);
        // Size 0 asks the server, and there is none (or no URL at all).
        EXPECT_EQ(add("", file.c_str(), 0, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add(("host..x/" + kInjection).c_str(), file.c_str(), 0, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add("http://127.0.0.1:1/a", file.c_str(), 0, nullptr, nullptr), kInvalidArgument);
        EXPECT_EQ(add(("http://" + kNonAscii + "..x/").c_str(), file.c_str(), 0, nullptr, nullptr), kInvalidArgument);
    }
    EXPECT_EQ(channel->removeJob("x"), 0);  // none of these was added
}

TEST_F(BadInput, AddJobStoresOddTextAndTheBatchReportsWhatIsWrongWithIt) {
    ASSERT_EQ(channel->init(6), 0);  // one worker per job: a failure stops no other job
    ScriptServer server(helloServer());
    const std::string hello = md5Of("hello");
    // 0: an empty URL, 1: a 64 KiB URL, 2: a digest name with a line break,
    // 3: an upper-case digest with non-ASCII file name, 4: a target that
    // cannot be created (the job is listed all the same).
    ASSERT_EQ(channel->addJob("", (dir + "/empty-url").c_str(), 5, nullptr, nullptr), 0);
    ASSERT_EQ(channel->addJob(server.url("/" + kLong).c_str(), (dir + "/long").c_str(), 5, hello.c_str(), "md5"), 0);
    ASSERT_EQ(channel->addJob(server.url("/b").c_str(), (dir + "/b").c_str(), 5, hello.c_str(),
                              ("md5" + kInjection).c_str()),
              0);
    std::string upper = hello;
    for (char& c : upper) c = (char)toupper((unsigned char)c);
    ASSERT_EQ(channel->addJob_c(server.url("/c").c_str(), (dir + "/" + kNonAscii).c_str(), 5, upper.c_str(), "MD5"),
              0);
    EXPECT_EQ(channel->addJob(server.url("/d").c_str(), (dir + "/no/such/dir/d").c_str(), 5, nullptr, nullptr), 0)
        << "the directories on the way are made";
    EXPECT_EQ(channel->addJob(server.url("/e").c_str(), (dir + "/" + kLong).c_str(), 5, nullptr, nullptr), kFileWrite);
    EXPECT_EQ(channel->removeJob(nullptr), 6);
    EXPECT_EQ(channel->removeJob(""), 5);  // the job with the empty URL goes
    ASSERT_EQ(channel->addJob("", (dir + "/empty-url").c_str(), 5, nullptr, nullptr), 0);

    // Index: 0 long, 1 b, 2 c, 3 d, 4 e (unwritable), 5 the empty URL.
    EXPECT_EQ(channel->httpMultiGet(true), 3);
    std::vector<int> handed;
    for (int index; (index = channel->getNextDownloadedFile()) >= 0;) handed.push_back(index);
    EXPECT_EQ(handed, (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(testsupport::readFile(dir + "/" + kNonAscii), "hello");
    // An unknown digest name fails verification; the job with the long
    // target name cannot open it; the empty URL does not parse.
    webChannel& c = impl();
    EXPECT_EQ(c.m_downloaded[server.url("/b")], 0);
    std::set<int> errors;
    for (webChannel::threadData* record : c.m_batch) errors.insert(record->error);
    EXPECT_TRUE(errors.count(kChecksumMismatch)) << "digest name with a line break";
    EXPECT_TRUE(errors.count(kFileWrite)) << "target name too long";
    EXPECT_TRUE(errors.count(kInvalidArgument)) << "empty URL";
}

TEST_F(BadInput, RemoveJobOfAnyTextLeavesTheOthers) {
    ASSERT_EQ(channel->addJob(("http://127.0.0.1:1/" + kInjection).c_str(), (dir + "/a").c_str(), 5, nullptr,
                              nullptr),
              0);
    ASSERT_EQ(channel->addJob(("http://127.0.0.1:1/" + kNonAscii).c_str(), (dir + "/b").c_str(), 5, nullptr,
                              nullptr),
              0);
    EXPECT_EQ(channel->removeJob(nullptr), 2);
    EXPECT_EQ(channel->removeJob(""), 2);
    EXPECT_EQ(channel->removeJob(kLong.c_str()), 2);
    EXPECT_EQ(channel->removeJob(kInjection.c_str()), 2);
    EXPECT_EQ(channel->removeJob(("http://127.0.0.1:1/" + kInjection).c_str()), 1);
    EXPECT_EQ(channel->removeJob(("http://127.0.0.1:1/" + kInjection).c_str()), 1);
    EXPECT_EQ(channel->removeJob(("http://127.0.0.1:1/" + kNonAscii).c_str()), 0);
}

// A channel whose host never called init: nothing crashes.
TEST(BadInputBeforeInit, OperationsWithoutInitFailCleanly) {
    webChannel fresh;
    VRAXSecureWebChannel& channel = fresh;
    const std::string dir = testsupport::tempDir();
    char body[] = "x";
    EXPECT_EQ(channel.httpMultiGet(false), kInvalidArgument);
    EXPECT_EQ(channel.httpGet("http://127.0.0.1:1/a", (dir + "/a").c_str()), kInvalidArgument);
    EXPECT_EQ(channel.httpPost("http://127.0.0.1:1/a", nullptr, body, false), kInvalidArgument);
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/a", (dir + "/a").c_str(), 0, nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/a", (dir + "/a").c_str(), 5, nullptr, nullptr), 0);
    EXPECT_EQ(channel.httpMultiGet(true), kInvalidArgument);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), 0);
    channel.close();
    channel.close();
}

// ---------------------------------------------------------------------------
// 19, 20 isValid, 21 close, and the factory

TEST_F(BadInput, IsValidAnswersZeroForAnythingButAnExactDigest) {
    const std::string file = dir + "/hello";
    {
        FILE* out = fopen(file.c_str(), "wb");
        ASSERT_NE(out, nullptr);
        fputs("hello", out);
        fclose(out);
    }
    const std::string hello = md5Of("hello");
    std::string upper = hello;
    for (char& c : upper) c = (char)toupper((unsigned char)c);
    for (int variant = 0; variant < 2; ++variant) {
        auto valid = [&](const char* f, const char* sum, const char* algorithm) {
            return variant == 0 ? channel->isValid(f, sum, algorithm) : channel->isValid_c(f, sum, algorithm);
        };
        EXPECT_EQ(valid(file.c_str(), hello.c_str(), "md5"), 1);
        EXPECT_EQ(valid(nullptr, hello.c_str(), "md5"), 0);
        EXPECT_EQ(valid(file.c_str(), nullptr, "md5"), 0);
        EXPECT_EQ(valid(file.c_str(), hello.c_str(), nullptr), 0);
        EXPECT_EQ(valid(nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(valid(file.c_str(), upper.c_str(), "md5"), 0);  // no lower-casing here
        EXPECT_EQ(valid(file.c_str(), (hello + kInjection).c_str(), "md5"), 0);
        EXPECT_EQ(valid(file.c_str(), hello.c_str(), ("md5" + kInjection).c_str()), 0);
        EXPECT_EQ(valid(file.c_str(), hello.c_str(), kNonAscii.c_str()), 0);
        EXPECT_EQ(valid(file.c_str(), hello.c_str(), kLong.c_str()), 0);
        EXPECT_EQ(valid((dir + "/" + kLong).c_str(), hello.c_str(), "md5"), 0);
        EXPECT_EQ(valid((file + kInjection).c_str(), hello.c_str(), "md5"), 0);
        EXPECT_EQ(valid(file.c_str(), kLong.c_str(), "md5"), 0);
        EXPECT_EQ(valid(file.c_str(), "", "md5"), 0);
        // An unreadable file or an unknown digest gives an empty digest,
        // which matches only an empty expected text.
        EXPECT_EQ(valid((dir + "/missing").c_str(), "", "md5"), 1);
        EXPECT_EQ(valid(file.c_str(), "", kNonAscii.c_str()), 1);
    }
}

TEST_F(BadInput, CloseAndDestroyTolerateRepeatsAndNull) {
    channel->close();
    channel->close();
    VRAXSecureWebChannelDestroy(nullptr);
    // Still usable after close: the job list and parameters stay.
    ScriptServer server(helloServer());
    ASSERT_EQ(channel->addJob(server.url("/x").c_str(), (dir + "/x").c_str(), 5, md5Of("hello").c_str(), "md5"), 0);
    EXPECT_EQ(channel->httpMultiGet(false), 0);
    channel->close();
    channel->close();
    EXPECT_EQ(channel->getNextDownloadedFile(), 0);
    // A second reference and its release leave the channel in place.
    VRAXSecureWebChannel* again = VRAXSecureWebChannelCreate();
    EXPECT_EQ(again, channel);
    VRAXSecureWebChannelDestroy(again);
    EXPECT_EQ(channel->getNextDownloadedFile(), -1);
}

}  // namespace
