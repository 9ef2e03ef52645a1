// The channel's own state, without a socket. The public headers come first, so a header that needs anything
// else breaks the build.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <regex>
#include <tuple>

#include "VRAXSecureWebChannel.h"
#include "channel/globals.h"
#include "channel/webChannel.h"
#include "support/peers.h"
#include "util/webutil.h"

namespace {

TEST(Factory, CreatesOneSharedInstanceAndCountsReferences) {
    VRAXSecureWebChannel* first = VRAXSecureWebChannelCreate();
    EXPECT_EQ(VRAXSecureWebChannelCreate(), first);
    VRAXSecureWebChannelDestroy(nullptr);
    EXPECT_EQ(gRefCnt, 2u);
    VRAXSecureWebChannelDestroy(first);
    EXPECT_TRUE(gRefCnt == 1 && gInstance == first);
    VRAXSecureWebChannelDestroy(first);
    VRAXSecureWebChannelDestroy(first);  // beyond the count: ignored
    EXPECT_TRUE(gRefCnt == 0 && gInstance == nullptr);
}

TEST(Init, WorkersAreEightByDefaultAtMost64AndAnotherInitOrCloseStartsOverButKeepsTheTlsContext) {
    webChannel channel;
    for (const auto& [asked, workers] : {std::make_pair(0u, 8u), {1000u, 64u}, {UINT_MAX, 64u}, {3u, 3u}})
        EXPECT_TRUE(channel.init(asked) == 0 && channel.m_threadNum == workers) << asked;
    std::memset(channel.m_buffer, 1, 3 * kBufferSlice);  // every worker's slice usable to the last byte
    EXPECT_EQ(std::vector<int>(channel.m_incomplete, channel.m_incomplete + 3), std::vector<int>(3, 0));
    SSL_CTX* context = channel.m_sslContext;
    channel.setParam(kParamTimeout, "9", true);
    channel.m_httpGetJobs.emplace_back("http://h:1/a");
    channel.initBatch();
    channel.m_downloaded["http://h:1/a"] = -1;
    channel.recordFailure(kBadStatus, "f");
    channel.m_response = "r";
    channel.m_responseLength = 5;
    ASSERT_EQ(channel.init(2), 0);
    EXPECT_TRUE(context != nullptr && channel.m_sslContext == context);
    EXPECT_TRUE(channel.m_httpGetJobs.empty() && channel.m_downloaded.empty());
    EXPECT_EQ(
        std::make_tuple(channel.m_errorCode, channel.m_errorContext + channel.m_response, channel.m_responseLength),
        std::make_tuple(0, std::string(), 0LL));
    ASSERT_EQ(channel.m_batch.size(), 2u);
    EXPECT_TRUE(channel.m_batch[0]->jobs.empty() && channel.m_batch[1]->jobs.empty());
    channel.m_httpGetJobs.emplace_back("http://h:1/b");
    channel.close();
    channel.close();
    EXPECT_EQ(channel.getProxyTimeout(), 9);  // parameters and jobs survive both
    EXPECT_TRUE(channel.m_httpGetJobs.size() == 1 && channel.m_sslContext == context);
    EXPECT_TRUE(channel.m_batch.empty() && channel.m_connections.empty());
}

// A host that forgets init: transfers are refused, a job of known size is still listed, nothing is handed out.
TEST(Init, OperationsWithoutInitFailCleanly) {
    webChannel fresh;
    VRAXSecureWebChannel& channel = fresh;
    char body[] = "x", file[] = "/tmp/webchannel-no-init-XXXXXX";
    ::close(mkstemp(file));
    const char* url = "http://127.0.0.1:1/a";
    EXPECT_EQ((std::vector<int>{
                  channel.httpMultiGet(false), channel.httpGet(url, file), channel.httpPost(url, nullptr, body, false),
                  channel.addJob(url, file, 0, nullptr, nullptr), channel.addJob(url, file, 5, nullptr, nullptr),
                  channel.httpMultiGet(true), channel.getNextDownloadedFile(), channel.getErrorCode(nullptr, 0)}),
              (std::vector<int>{kInvalidArgument, kInvalidArgument, kInvalidArgument, kInvalidArgument, 0,
                                kInvalidArgument, -1, 0}));
    channel.close();
    channel.close();
    unlink(file);
}

// The log's text with each "<seconds>:<three digits of milliseconds> : " prefix turned into "|".
std::string messages(const std::string& text) {
    return std::regex_replace(text, std::regex("(^|\n)[0-9]+:[0-9]{3} : "), "$1|");
}

TEST(Log, LinesGoToTheFileOrStandardOutputUntilDestructionClosesTheFile) {
    const std::string path = testsupport::tempDir() + "/channel.log";
    for (const char* message : {"first", "second"}) {
        webChannel channel;
        webChannel::log("never written");  // no log until setLog
        channel.setLog(path.c_str());
        webChannel::log("%s", message);
    }
    EXPECT_EQ(webChannel::m_log, nullptr);
    const std::string start = "|webChannel::setLog " + path + "\n",
                      end = "|VRAXSecureWebChannel::~webChannel: started\n";
    EXPECT_EQ(messages(testsupport::readFile(path)),
              start + "|first\n" + end + start + "|second\n" + end);  // appended to
    testing::internal::CaptureStdout();
    {
        webChannel channel;
        channel.setLog(nullptr);
        webChannel::log("to %s", "stdout");
    }
    EXPECT_EQ(messages(testing::internal::GetCapturedStdout()), "|webChannel::setLog (null)\n|to stdout\n" + end);
    EXPECT_TRUE(webChannel::m_log == nullptr && fputs("", stdout) != EOF);  // stdout is left open
}

TEST(Params, JobParametersGoToTheLastJobTheTimeoutFallsBackTo300TheCookieGoesWithItsSwitchAndJobsInheritAccess) {
    webChannel channel;
    std::string value;
    channel.setParam(kParamUser, "u", false);
    EXPECT_FALSE(channel.getParam(kParamUser, value, false));  // no job yet
    channel.m_httpGetJobs.emplace_back("http://h:1/a");
    channel.m_httpGetJobs.emplace_back("http://h:1/b");
    channel.setParam(kParamUser, "u", false);
    channel.setParam(kParamUser, nullptr, false);  // a job parameter cannot be removed
    EXPECT_TRUE(channel.getParam(kParamUser, value, false) && value == "u");
    EXPECT_TRUE(channel.m_httpGetJobs.front().params.empty() && !channel.getParam(kParamUser, value, true));
    for (const std::string& text :
         std::vector<std::string>{"0", "-5", "abc", "", "\r\nX: 1", std::string(9999, 'a'), "7\r\n"}) {
        channel.setParam(kParamTimeout, text.c_str(), true);
        EXPECT_EQ(channel.getProxyTimeout(), text == "7\r\n" ? 7 : 300) << text.substr(0, 10);
    }
    // Removing the cookie switch removes the cookie; not the other way round.
    channel.setParam(kParamCookieCapture, "", true);
    channel.setParam(kParamCookie, "c=1", true);
    channel.setParam(kParamCookie, nullptr, true);
    EXPECT_TRUE(channel.getParam(kParamCookieCapture, value, true));
    channel.setParam(kParamCookie, "c=1", true);
    channel.setParam(kParamCookieCapture, nullptr, true);
    EXPECT_FALSE(channel.getParam(kParamCookieCapture, value, true) || channel.getParam(kParamCookie, value, true));
    // A job inherits only the cookie, the proxy credentials and the no-cache switch, and keeps its own.
    AccessParams job = {{kParamCookie, "job"}};
    webChannel::mergeAccessParams(job, {{kParamCookie, "channel"},
                                        {kParamProxyAuth, "p"},
                                        {kParamNoCache, ""},
                                        {kParamUser, "u"},
                                        {kParamPassword, "w"},
                                        {kParamTimeout, "5"}});
    EXPECT_EQ(job, (AccessParams{{kParamCookie, "job"}, {kParamProxyAuth, "p"}, {kParamNoCache, ""}}));
}

// getErrorCode writes only inside the buffer and cuts the message's last character (its line feed).
TEST(Errors, TheFailureIsCopiedOutWithinTheBuffer) {
    webChannel channel;
    char guard[16];
    auto call = [&](int size) {  // the whole guard after a call on its bytes 4 to 4 + size
        std::memset(guard, 'g', sizeof(guard));
        EXPECT_EQ(channel.getErrorCode(guard + 4, size), channel.m_errorCode);
        return std::string(guard, sizeof(guard));
    };
    EXPECT_EQ(call(8), std::string(11, 'g') + '\0' + "gggg");  // no message: only the last byte
    channel.recordFailure(kBadStatus, "/a");
    for (int size : {0, -1, -7, INT_MIN}) EXPECT_EQ(call(size), std::string(16, 'g')) << size;
    EXPECT_EQ(call(1), "gggg" + std::string(1, '\0') + std::string(11, 'g'));
    EXPECT_EQ(call(8), "ggggrespons" + std::string(1, '\0') + "gggg");
    std::string context, message;
    EXPECT_EQ(std::make_tuple(channel.getError(context, message), context, message),
              std::make_tuple(kBadStatus, std::string("/a"), std::string("response status not accepted: /a\n")));
}

// A batch as the driver leaves it: list jobs (url, size, counter) and worker pieces (worker, url, size, done);
// reports are kept as (failed, done, total, job).
class Progress : public ::testing::Test {
protected:
    using Report = std::tuple<int, long long, long long, int>;
    void SetUp() override { channel.setHandler(record, this); }
    static void record(bool& cancel, int failed, long long done, long long total, int job, void* self) {
        static_cast<Progress*>(self)->reports.emplace_back(failed, done, total, job);
        cancel = static_cast<Progress*>(self)->cancel;
    }
    void batch(std::vector<std::tuple<const char*, long long, long>> jobs,
               std::vector<std::tuple<int, const char*, long long, long long>> pieces) {
        for (const auto& [url, size, counter] : jobs) {
            channel.m_httpGetJobs.emplace_back(url);
            channel.m_httpGetJobs.back().size = size;
            channel.m_jobIndex[url] = channel.m_httpGetJobs.size() - 1;
            channel.m_downloaded[url] = counter;
        }
        for (int i = 0; i < 2; ++i) channel.m_batch.push_back(new webChannel::threadData());
        for (const auto& [worker, url, size, done] : pieces) {
            channel.m_batch[worker]->jobs.emplace_back(url);
            channel.m_batch[worker]->jobs.back().size = size;
            channel.m_batch[worker]->jobs.back().downloaded = done;
        }
    }
    webChannel channel;
    std::vector<Report> reports;
    bool cancel = false;
};

// Reports are recounted over the batch at each 256 KiB step and at the end of a batch, carry the first pending
// job of a worker that failed (not one that was cancelled), and any worker's report may cancel.
TEST_F(Progress, IsRecountedEach256KiBBlamesTheFailedWorkersJobAndCanBeCancelled) {
    channel.setHandler(nullptr, reinterpret_cast<void*>(0x1));  // no handler: no report
    EXPECT_EQ(channel.handleProgress(0, 1 << 20, 2 << 20, 0), 0);
    channel.setHandler(record, this);
    EXPECT_EQ(channel.handleProgress(0, 100, 1000, -1), 0);  // a single request: its own counts
    batch({{"a", 1000, kUrlVerified}, {"b", 3 << 20, 2}},
          {{0, "a", 1000, 1000}, {0, "b", 1 << 20, 300000}, {1, "b", 2 << 20, 500000}});
    EXPECT_EQ(channel.handleProgress(0, 300000, 1 << 20, 0), 800000 / 262144);
    EXPECT_EQ(channel.handleProgress(3, 800000, 1 << 20, 1), 3);  // same step
    channel.handleProgress(-1, 0, 0, 0);                          // the end of a batch always recounts
    channel.m_batch[0]->error = kCancelled;
    channel.handleProgress(0, 0, 0, 0);
    channel.m_batch[1]->error = kBadStatus;
    channel.handleProgress(0, 0, 0, 0);
    const Report recounted{1, 800000, 1000 + (3 << 20), -1};
    EXPECT_EQ(reports, (std::vector<Report>{
                           {0, 100, 1000, -1}, recounted, {0, 0, 0, -1}, recounted, {0, 0, 0, -1}, {0, 0, 0, 1}}));
    cancel = true;
    EXPECT_EQ(channel.handleProgress(0, 5, 10, 1), -1);  // any worker may cancel, not only the first
}

// While a batch runs, reports come from running totals; after writes, a size learnt from an answer and a
// verified file they still equal the recount over the whole batch.
TEST_F(Progress, RunningTotalsMatchTheRecount) {
    batch({{"a", 1000, 1}, {"b", 3 << 20, 2}, {"c", 0, 1}, {"d", 7, kUrlHandedOut}},
          {{0, "a", 1000, 10}, {0, "b", 1 << 20, 0}, {1, "b", 2 << 20, 5}, {1, "c", 0, 0}, {1, "d", 7, 7}});
    auto matches = [&] {  // a report from the totals, then one recounted
        reports.clear();
        for (bool running : {true, false}) {
            channel.m_batchRunning = running;
            channel.handleProgress(-7, 0, 0, 0);
        }
        return reports.size() == 2 && reports[0] == reports[1];
    };
    channel.tallyProgress();
    EXPECT_TRUE(matches());
    webChannel::httpGetJob &a = channel.m_batch[0]->jobs[0], &b0 = channel.m_batch[0]->jobs[1];
    webChannel::httpGetJob &b1 = channel.m_batch[1]->jobs[0], &c = channel.m_batch[1]->jobs[1];
    a.downloaded = 1000, b0.downloaded = 1 << 20, b1.downloaded = 2 << 20, c.size = c.downloaded = 4096;
    for (webChannel::httpGetJob* job : {&a, &b0, &b1, &c}) channel.accountProgress(job);
    EXPECT_TRUE(matches());
    channel.settleProgress(&b1);  // the last piece of b verifies the file
    channel.m_downloaded["b"] = kUrlVerified;
    EXPECT_TRUE(matches());
    EXPECT_EQ(reports[0], Report(2, 1000 + 4096, 1000 + (3 << 20) + 4096 + 7, -1));
}

}  // namespace
