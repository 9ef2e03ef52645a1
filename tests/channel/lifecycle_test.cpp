// The factory's reference count, init, close and the log.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <regex>

#include "channel/globals.h"
#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"

namespace {

webChannel* asChannel(VRAXSecureWebChannel* channel) {
    return static_cast<webChannel*>(channel);
}

TEST(Factory, CreatesOneSharedInstanceAndCountsReferences) {
    testsupport::LogCapture capture;
    VRAXSecureWebChannel* first = VRAXSecureWebChannelCreate();
    VRAXSecureWebChannel* second = VRAXSecureWebChannelCreate();
    EXPECT_EQ(first, second);
    EXPECT_EQ(gRefCnt, 2u);
    VRAXSecureWebChannelDestroy(nullptr);
    EXPECT_EQ(gRefCnt, 2u);
    VRAXSecureWebChannelDestroy(first);
    EXPECT_EQ(gInstance, first);
    VRAXSecureWebChannelDestroy(second);
    EXPECT_EQ(gInstance, nullptr);
    EXPECT_EQ(gRefCnt, 0u);
    VRAXSecureWebChannelDestroy(first);  // beyond the count: ignored
    EXPECT_EQ(gRefCnt, 0u);
    std::vector<std::string> lines = capture.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "VRAXSecureWebChannelDestroy: references remaining: 1");
    EXPECT_EQ(lines[1], "VRAXSecureWebChannelDestroy: destroying WebChannel instance");
}

TEST(Init, WorkerCountIsEightByDefaultAndAtMostSixtyFour) {
    webChannel channel;
    channel.init(0);
    EXPECT_EQ(channel.m_threadNum, 8u);
    channel.init(1000);
    EXPECT_EQ(channel.m_threadNum, 64u);
    channel.init(3);
    EXPECT_EQ(channel.m_threadNum, 3u);
    // Every worker's slice is usable to its last byte.
    memset(channel.m_buffer, 1, 3 * 524288);
    for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(channel.m_incomplete[i], 0);
}

TEST(Init, SecondInitStartsOverButKeepsTheTlsContext) {
    testsupport::LogCapture capture;
    webChannel channel;
    ASSERT_EQ(channel.init(2), 0);
    SSL_CTX* context = channel.m_sslContext;
    ASSERT_NE(context, nullptr);
    channel.setParam(kParamTimeout, "9", true);
    channel.m_httpGetJobs.emplace_back("http://h:1/a");
    channel.m_downloaded["http://h:1/a"] = -1;
    channel.m_errorCode = kBadStatus;
    channel.m_errorContext = "f";
    channel.m_response = "r";
    channel.m_responseLength = 5;
    ASSERT_EQ(channel.init(4), 0);
    EXPECT_EQ(channel.m_sslContext, context);
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
    EXPECT_TRUE(channel.m_downloaded.empty());
    EXPECT_EQ(channel.m_errorCode, 0);
    EXPECT_EQ(channel.m_errorContext, "");
    EXPECT_EQ(channel.m_response, "");
    EXPECT_EQ(channel.m_responseLength, 0);
    EXPECT_EQ(channel.getProxyTimeout(), 9);  // parameters survive
    std::vector<std::string> expected = {
        "webChannel::init - start with threadNum = 2",
        "webChannel::init - check m_sslContext",
        "webChannel::init - start initSSL",
        "webChannel::init - start with threadNum = 4",
        "webChannel::init - free m_incomplete",
        "webChannel::init - check m_sslContext",
    };
    std::vector<std::string> initLines;
    for (const std::string& line : capture.lines())
        if (line.rfind("webChannel::init", 0) == 0) initLines.push_back(line);
    EXPECT_EQ(initLines, expected);
}

TEST(Init, FewerWorkersReleaseTheRecordsBeyondTheCount) {
    webChannel channel;
    channel.init(4);
    channel.m_httpGetJobs.emplace_back("http://h:1/a");
    channel.m_httpGetJobs.back().size = 10 << 20;
    channel.m_httpGetJobs.back().end = (10 << 20) - 1;
    channel.initBatch();
    ASSERT_EQ(channel.m_batch.size(), 4u);
    channel.init(2);
    ASSERT_EQ(channel.m_batch.size(), 2u);
    for (auto* record : channel.m_batch) EXPECT_TRUE(record->jobs.empty());
}

TEST(Close, KeepsParametersJobsAndTlsContext) {
    webChannel channel;
    ASSERT_EQ(channel.init(2), 0);
    channel.setParam(kParamCookie, "c", true);
    channel.m_httpGetJobs.emplace_back("http://h:1/a");
    channel.close();
    std::string value;
    EXPECT_TRUE(channel.getParam(kParamCookie, value, true));
    EXPECT_EQ(channel.m_httpGetJobs.size(), 1u);
    EXPECT_NE(channel.m_sslContext, nullptr);
    EXPECT_TRUE(channel.m_batch.empty());
    EXPECT_TRUE(channel.m_connections.empty());
}

TEST(Log, LinesCarryTheWallClockPrefix) {
    testsupport::LogCapture capture;
    webChannel::log("hello %d", 42);
    std::string text = capture.text();
    EXPECT_TRUE(std::regex_match(text, std::regex("[0-9]+:[0-9]{3} : hello 42\n"))) << text;
}

TEST(Log, NullPathLogsToStandardOutput) {
    fflush(stdout);
    std::string path = testsupport::tempDir() + "/stdout.txt";
    int saved = dup(1);
    FILE* redirected = freopen(path.c_str(), "w", stdout);
    ASSERT_NE(redirected, nullptr);
    {
        webChannel channel;
        channel.setLog(nullptr);
        webChannel::log("to stdout");
    }  // the destructor must not close standard output
    fflush(stdout);
    dup2(saved, 1);
    ::close(saved);
    clearerr(stdout);
    EXPECT_EQ(webChannel::m_log, nullptr);
    std::string text = testsupport::readFile(path);
    EXPECT_NE(text.find(" : webChannel::setLog (null)\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" : to stdout\n"), std::string::npos) << text;
    EXPECT_NE(fputs("", stdout), EOF);  // still usable
}

TEST(Log, UnwritablePathLeavesLoggingOffSilently) {
    webChannel channel;
    channel.setLog("/nonexistent-dir/sub/log.txt");
    EXPECT_EQ(webChannel::m_log, nullptr);
    EXPECT_FALSE(webChannel::logging());
}

TEST(Log, SetLogAppendsAndDestructionClosesTheFile) {
    std::string path = testsupport::tempDir() + "/log.txt";
    {
        webChannel channel;
        channel.setLog(path.c_str());
        webChannel::log("first");
    }
    EXPECT_EQ(webChannel::m_log, nullptr);
    {
        webChannel channel;
        webChannel::log("never written");  // no log until setLog
        channel.setLog(path.c_str());
        webChannel::log("second");
    }
    std::string text = testsupport::readFile(path);
    EXPECT_EQ(testsupport::countLines(text, "webChannel::setLog " + path), 2);
    EXPECT_EQ(testsupport::countLines(text, "first"), 1);
    EXPECT_EQ(testsupport::countLines(text, "second"), 1);
    EXPECT_EQ(testsupport::countLines(text, "never written"), 0);
    EXPECT_EQ(testsupport::countLines(text, "VRAXSecureWebChannel::~webChannel: started"), 2);
}

}  // namespace
