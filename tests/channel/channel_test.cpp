// What needs the built library or a socket: the exported symbols, and hostile arguments through the
// exported interface. Null, empty, 64 KiB, CR/LF-bearing and non-ASCII text for each group of operations
// give their codes and crash nothing. Host names that are no IP literals carry an empty label ("..") so
// that no name server is asked.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <set>

#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace {

TEST(Interface, ExactlyTheFactoryAndTheUtilityLibraryAreExported) {
    auto z = [](const std::string& n, const std::string& p) { return "_Z" + std::to_string(n.size()) + n + p; };
    const std::string s = "RKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
    std::set<std::string> expected = {
        "VRAXSecureWebChannelCreate", "VRAXSecureWebChannelDestroy", z("log_init", "PKcPP15logging_state_t"),
        z("log_is_ready", "v"), z("log_disable", "v"), z("print_log", "PKcz"), z("warn", "PKcz"), z("error", "PKcz"),
        z("die", "iPKcz"), z("get_command_output", "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEPib"),
        z("get_arch", "B5cxx11v"), z("get_window_width", "v"), z("print_dashes", "v"), z("folder_create", s + "j"),
        z("join_strings", "RKSt6vectorINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEESaIS5_EERKS5_"),
        z("wide_to_utf8", "RKNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEE")};
    for (const char* name : {"getPartitionFreeSpace", "getFilePartition", "print_string", "get_dirname", "get_basename",
                             "folder_remove", "remove_file", "normalize_path", "file_exists", "folder_exists",
                             "path_exists", "get_file_size", "trimSpaces", "to_lower", "to_upper", "utf8_to_wide",
                             "json_escape"})
        expected.insert(z(name, s));
    for (const char* name : {"execute_args", "folder_copy", "file_copy", "file_move", "split_string"})
        expected.insert(z(name, s + "S6_"));
    std::set<std::string> exported;
    FILE* pipe = popen(("nm -D --defined-only --format=posix '" WEBCHANNEL_LIBRARY "' 2>/dev/null"), "r");
    ASSERT_NE(pipe, nullptr);
    for (char line[4096]; std::fgets(line, sizeof(line), pipe) != nullptr;)
        exported.insert(std::string(line).substr(0, std::string(line).find(' ')));
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_EQ(exported, expected);
}

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
    const std::string dir = testsupport::tempDir();
};

TEST_F(BadInput, ConfigurationTakesAnyTextAndAnswersWithItsCodes) {
    for (const std::string& path : {std::string(), "/" + kLong, dir + "/no/such/dir/log"}) {
        channel->setLog(path.c_str());
        EXPECT_EQ(webChannel::m_log, nullptr) << path.size();
    }
    for (const auto& [proxy, code] : std::vector<std::pair<std::string, int>>{
             {"", kInvalidArgument}, {"http://", kInvalidArgument}, {"http://" + kLong + "..x:1", kProxyUnusable},
             {"http://" + kNonAscii + "..x:1", kProxyUnusable}, {"http://p" + kCrLf + "..x:1", kProxyUnusable},
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
    std::string value = "unchanged";
    EXPECT_FALSE(channel->getParam(INT_MIN, value, true));
    EXPECT_EQ(value, "unchanged");
    for (const auto& [id, text] : {std::make_pair(INT_MIN, kLong), {INT_MAX, ""}, {0, kCrLf}, {-1, kNonAscii}}) {
        channel->setParam(id, text.c_str(), true);
        EXPECT_TRUE(channel->getParam(id, value, true) && value == text) << id;
        channel->setParam(id, nullptr, true);
        EXPECT_FALSE(channel->getParam(id, value, true)) << id;
    }
}

TEST_F(BadInput, SingleRequestsRejectUnusableUrls) {
    const std::string file = dir + "/f";
    char body[] = "x";
    for (const auto& [url, code] : std::vector<std::pair<std::string, int>>{
             {"", kInvalidArgument}, {"http://", kInvalidArgument}, {"http:///path", kInvalidArgument},
             {"host..x/" + kCrLf, kInvalidArgument}, {kNonAscii + "/x", kInvalidArgument}, {kLong, kInvalidArgument},
             {"http://" + kLong + "..x/", kProxyUnusable}, {"http://" + kNonAscii + "..x/", kProxyUnusable},
             {"http://h" + kCrLf + "..x/", kProxyUnusable}}) {
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

// Line breaks in a URL's path reach the request line as given, and the
// channel adds nothing of its own; odd file names are just names.
TEST_F(BadInput, ALineBreakInThePathReachesTheRequestLineAsGiven) {
    const int descriptors = testsupport::openDescriptorCount();
    {
        testsupport::ScriptServer server([](testsupport::ServerConnection& c) {
            for (int i = 0; i < 10 && !c.readRequest().empty(); ++i) c.send(testsupport::httpResponse(200, "hello"));
        });
        const std::string host = "127.0.0.1:" + std::to_string(server.port()), odd = dir + "/f" + kCrLf + kNonAscii;
        ASSERT_EQ(channel->httpGet(server.url("/a" + kCrLf).c_str()), 0);
        EXPECT_STREQ(channel->httpResponse(nullptr), "\r\n\r\nhello");
        ASSERT_EQ(channel->httpGet_c(server.url("/b" + kCrLf).c_str(), odd.c_str()), 0);
        EXPECT_EQ(testsupport::readFile(odd), "hello");
        const std::string end = " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
        EXPECT_EQ(server.requests(),
                  (std::vector<std::string>{"GET /a" + kCrLf + end, "GET http://" + host + "/b" + kCrLf + end}));
        EXPECT_EQ(channel->httpGet(server.url("/c").c_str(), (dir + "/" + kLong).c_str()), kFileWrite);
        channel->close();
    }
    EXPECT_EQ(testsupport::openDescriptorCount(), descriptors);
}

TEST_F(BadInput, BatchOperationsRejectMissingArgumentsAndOddText) {
    const char *f = "/tmp/never-written", *url = "http://127.0.0.1:1/a";
    const std::string crlfHost = "host..x/" + kCrLf, oddHost = "http://" + kNonAscii + "..x/";
    for (const auto& [u, file, size] : std::vector<std::tuple<const char*, const char*, long long>>{
             {nullptr, f, 5}, {url, nullptr, 5}, {url, f, -1}, {url, f, LLONG_MIN}, {"", f, 0},
             {crlfHost.c_str(), f, 0}, {url, f, 0}, {oddHost.c_str(), f, 0}}) {  // size 0 asks the server: none
        EXPECT_EQ(channel->addJob(u, file, size, nullptr, nullptr), kInvalidArgument) << size;
        EXPECT_EQ(channel->addJob_c(u, file, size, nullptr, nullptr), kInvalidArgument) << size;
    }
    EXPECT_EQ(channel->httpMultiGet(false), 0);  // no jobs
    EXPECT_EQ(channel->getNextDownloadedFile(), -1);
    EXPECT_EQ(channel->addJob(url, (dir + "/" + kLong).c_str(), 5, nullptr, nullptr), kFileWrite);  // yet listed
    EXPECT_EQ(channel->addJob_c("", (dir + "/" + kNonAscii).c_str(), 5, kLong.c_str(), kCrLf.c_str()), 0);
    for (const char* text : {(const char*)nullptr, kLong.c_str(), kCrLf.c_str()})
        EXPECT_EQ(channel->removeJob(text), 2);
    EXPECT_EQ(channel->removeJob(""), 1);  // the job with the empty URL goes
    EXPECT_EQ(channel->httpMultiGet(true), 1);
    EXPECT_EQ(channel->getNextDownloadedFile(), -1);
}

}  // namespace
