// URL splitting and the host-address cache.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "transport/url.h"

namespace {

struct Split {
    bool ok;
    UrlParts parts;
};

Split split(const char* url) {
    Split result;
    result.ok = splitUrl(url, result.parts);
    return result;
}

TEST(UrlSplit, HttpsSchemeGivesPort443AndTls) {
    Split s = split("https://h/x");
    EXPECT_TRUE(s.ok);
    EXPECT_EQ(s.parts.host, "h");
    EXPECT_EQ(s.parts.port, "443");
    EXPECT_EQ(s.parts.path, "/x");
    EXPECT_TRUE(s.parts.https);
}

TEST(UrlSplit, ExplicitPortNeedsNoScheme) {
    Split s = split("h:8080/x");
    EXPECT_TRUE(s.ok);
    EXPECT_EQ(s.parts.host, "h");
    EXPECT_EQ(s.parts.port, "8080");
    EXPECT_EQ(s.parts.path, "/x");
    EXPECT_FALSE(s.parts.https);
}

TEST(UrlSplit, NeitherSchemeNorPortFailsButFillsParts) {
    Split s = split("h/x");
    EXPECT_FALSE(s.ok);
    EXPECT_EQ(s.parts.host, "h");
    EXPECT_EQ(s.parts.port, "80");
    EXPECT_EQ(s.parts.path, "/x");
}

TEST(UrlSplit, Port443ImpliesTlsAndSchemeComparisonIsExact) {
    EXPECT_TRUE(split("http://h:443/").parts.https);
    Split upper = split("HTTPS://h/");
    EXPECT_FALSE(upper.parts.https);
    EXPECT_EQ(upper.parts.port, "80");
    EXPECT_FALSE(split("ftp://h:8443/").parts.https);
}

TEST(UrlSplit, CredentialsAreCutAtTheFirstAtSignEvenInThePath) {
    Split s = split("https://user:pw@h");
    EXPECT_EQ(s.parts.credentials, "user:pw");
    EXPECT_EQ(s.parts.host, "h");
    EXPECT_EQ(s.parts.port, "443");
    Split inPath = split("http://h/a@b");
    EXPECT_EQ(inPath.parts.credentials, "h/a");
    EXPECT_EQ(inPath.parts.host, "b");
    EXPECT_FALSE(inPath.parts.hasPath);
}

TEST(UrlSplit, FirstColonSplitsHostAndPort) {
    Split s = split("http://h:1:2/p");
    EXPECT_EQ(s.parts.host, "h");
    EXPECT_EQ(s.parts.port, "1:2");
}

TEST(UrlSplit, OddInputsNeverFail) {
    for (const char* url : {"", "://", "@", "/", ":", "http://", "https://:", "a:b@", "@@@:::///", "\r\n"}) {
        UrlParts parts;
        splitUrl(url, parts);  // must simply return
    }
    EXPECT_FALSE(split("").ok);
    EXPECT_TRUE(split("http://").ok);
    EXPECT_EQ(split("http://").parts.host, "");
}

class ParseUrl : public ::testing::Test {
protected:
    webChannel channel;
};

TEST_F(ParseUrl, LeavesPathAndCredentialsUntouchedWhenAbsent) {
    std::string host, port, path = "keep", credentials = "keep";
    bool https = true;
    EXPECT_TRUE(channel.parseURL("http://h", nullptr, host, port, path, credentials, &https));
    EXPECT_EQ(path, "keep");
    EXPECT_EQ(credentials, "keep");
    EXPECT_EQ(port, "80");
    EXPECT_FALSE(https);
}

TEST_F(ParseUrl, WritesTheFlagAlsoOnFailure) {
    std::string host, port, path;
    bool https = true;
    EXPECT_FALSE(channel.parseURL("h/x", nullptr, host, port, path, &https));
    EXPECT_FALSE(https);
    EXPECT_EQ(host, "h");
}

TEST_F(ParseUrl, ResolvesOncePerHostAndPort) {
    testsupport::LogCapture capture;
    std::string host, port, path;
    unsigned long first = 0, second = 0, other = 0;
    EXPECT_TRUE(channel.parseURL("http://localhost:81/", &first, host, port, path, nullptr));
    EXPECT_TRUE(channel.parseURL("http://localhost:81/x", &second, host, port, path, nullptr));
    EXPECT_TRUE(channel.parseURL("http://localhost:82/", &other, host, port, path, nullptr));
    EXPECT_EQ(first, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(second, first);
    EXPECT_EQ(other, first);
    std::string log = capture.text();
    EXPECT_EQ(testsupport::countLines(log, "parseURL: IP address of localhost:81 is 100007f"), 1);
    EXPECT_EQ(testsupport::countLines(log, "parseURL: cached IP address of localhost:81 is 100007f"), 1);
    EXPECT_EQ(testsupport::countLines(log, "parseURL: IP address of localhost:82 is"), 1);
}

TEST_F(ParseUrl, FailedLookupIsNotCached) {
    testsupport::LogCapture capture;
    std::string host, port, path;
    unsigned long address = 1;
    EXPECT_TRUE(channel.parseURL("http://no-such-host.invalid/", &address, host, port, path, nullptr));
    EXPECT_EQ(address, 0u);
    EXPECT_TRUE(channel.parseURL("http://no-such-host.invalid/", &address, host, port, path, nullptr));
    EXPECT_EQ(testsupport::countLines(capture.text(), "parseURL: failed with return code"), 2);
    EXPECT_EQ(channel.m_hostAddresses.count("no-such-host.invalid:80"), 0u);
}

TEST_F(ParseUrl, ManyThreadsResolveAHostOnce) {
    testsupport::LogCapture capture;
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 16; ++t) {
        threads.emplace_back([&] {
            std::string host, port, path;
            unsigned long address = 0;
            channel.parseURL("http://localhost:9/", &address, host, port, path, nullptr);
            if (address != htonl(INADDR_LOOPBACK)) ++wrong;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    std::string log = capture.text();
    EXPECT_EQ(testsupport::countLines(log, "parseURL: IP address of localhost:9 is"), 1);
    EXPECT_EQ(testsupport::countLines(log, "parseURL: cached IP address of localhost:9 is"), 15);
}

}  // namespace
