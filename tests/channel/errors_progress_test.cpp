// The error state and progress reports.
#include <gtest/gtest.h>

#include <cstring>

#include "channel/webChannel.h"
#include "support/log_capture.h"

namespace {

TEST(ErrorCode, CopiesNothingIntoNoBufferAndReturnsTheCode) {
    webChannel channel;
    channel.m_errorCode = kBadStatus;
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(channel.getErrorCode(buffer, 0), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 10), kBadStatus);
    EXPECT_EQ(memcmp(buffer, "xxxx", 4), 0);
    EXPECT_EQ(channel.getErrorCode(buffer, -3), kBadStatus);
    EXPECT_EQ(memcmp(buffer, "xxxx", 4), 0);
}

TEST(ErrorCode, TerminatesWithinTheBufferAndCutsTheLastCharacter) {
    webChannel channel;
    char buffer[8];
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(channel.getErrorCode(buffer, 8), 0);  // empty message: only the last byte
    EXPECT_EQ(buffer[7], 0);
    EXPECT_EQ(buffer[0], 'x');
    channel.m_errorMessage = "abc";
    channel.getErrorCode(buffer, 8);
    EXPECT_STREQ(buffer, "ab");
    channel.m_errorMessage = "0123456789";
    channel.getErrorCode(buffer, 8);
    EXPECT_STREQ(buffer, "0123456");
}

TEST(ErrorState, FirstFailureWinsWithItsFile) {
    webChannel channel;
    channel.recordFailure(kBadStatus, "/a");
    channel.recordFailure(kReadFailed, "/b");
    std::string context, message;
    EXPECT_EQ(channel.getError(context, message), kBadStatus);
    EXPECT_EQ(context, "/a");
    EXPECT_EQ(message, "response status not accepted: /a\n");
}

TEST(ErrorState, IsErrorNamesTheFailedWorker) {
    testsupport::LogCapture capture;
    webChannel channel;
    channel.m_threadNum = 2;
    for (int i = 0; i < 2; ++i) {
        channel.m_batch.push_back(new webChannel::threadData());
        channel.m_batch.back()->index = i;
    }
    EXPECT_FALSE(channel.isError());
    channel.m_batch[1]->error = kBadStatus;
    EXPECT_TRUE(channel.isError());
    EXPECT_FALSE(channel.isCancelled());  // a failed job stops only its own worker
    channel.m_batch[0]->error = kCancelled;
    EXPECT_TRUE(channel.isCancelled());
    EXPECT_EQ(testsupport::countLines(capture.text(), "VRAXSecureWebChannel::isError: thread 1:"), 1);
    EXPECT_EQ(testsupport::countLines(capture.text(), "is in error state -3052"), 1);
}

struct Report {
    int failed;
    long long done, total;
    int job;
};

struct Reports {
    std::vector<Report> seen;
    bool cancel = false;
    static void handler(bool& cancel, int failed, long long done, long long total, int job, void* data) {
        auto* self = static_cast<Reports*>(data);
        self->seen.push_back({failed, done, total, job});
        cancel = self->cancel;
    }
};

class Progress : public ::testing::Test {
protected:
    void SetUp() override {
        channel.setHandler(Reports::handler, &reports);
        channel.m_threadNum = 2;
        for (int i = 0; i < 2; ++i) {
            channel.m_batch.push_back(new webChannel::threadData());
            channel.m_batch.back()->index = i;
        }
    }
    webChannel::httpGetJob& job(const std::string& url, long long size, int thread, long long downloaded) {
        webChannel::httpGetJob job(url);
        job.size = size;
        job.downloaded = downloaded;
        channel.m_batch[thread]->jobs.push_back(job);
        return channel.m_batch[thread]->jobs.back();
    }
    webChannel channel;
    Reports reports;
};

TEST_F(Progress, WithoutAHandlerNothingIsReported) {
    channel.setHandler(nullptr, nullptr);
    EXPECT_EQ(channel.handleProgress(0, 1 << 20, 2 << 20, 0), 0);
    EXPECT_TRUE(reports.seen.empty());
}

TEST_F(Progress, SingleRequestsReportTheirOwnCounts) {
    EXPECT_EQ(channel.handleProgress(0, 100, 1000, -1), 0);  // same step: no recount
    ASSERT_EQ(reports.seen.size(), 1u);
    EXPECT_EQ(reports.seen[0].done, 100);
    EXPECT_EQ(reports.seen[0].total, 1000);
    EXPECT_EQ(reports.seen[0].job, -1);
}

TEST_F(Progress, EachStepRecountsTheWholeBatch) {
    channel.m_httpGetJobs.emplace_back("a");
    channel.m_httpGetJobs.back().size = 1000;
    channel.m_httpGetJobs.emplace_back("b");
    channel.m_httpGetJobs.back().size = 3 << 20;
    channel.m_downloaded["a"] = -1;  // finished and verified
    channel.m_downloaded["b"] = 2;
    job("a", 1000, 0, 1000);
    job("b", 1 << 20, 0, 300000);
    job("b", 2 << 20, 1, 500000);
    long long step = channel.handleProgress(0, 300000, 1 << 20, 0);
    ASSERT_EQ(reports.seen.size(), 1u);
    EXPECT_EQ(reports.seen[0].failed, 1);
    EXPECT_EQ(reports.seen[0].done, 800000);
    EXPECT_EQ(reports.seen[0].total, 1000 + (3 << 20));
    EXPECT_EQ(step, 800000 / 262144);
    // Within the same step a report carries no counts.
    channel.handleProgress(1, 300001, 1 << 20, 0);
    EXPECT_EQ(reports.seen[1].done, 0);
    EXPECT_EQ(reports.seen[1].total, 0);
    // The end-of-batch report always recounts.
    channel.handleProgress(-1, 0, 0, 0);
    EXPECT_EQ(reports.seen[2].done, 800000);
}

TEST_F(Progress, BlamesTheFirstPendingJobOfAFailedWorker) {
    channel.m_httpGetJobs.emplace_back("a");
    channel.m_httpGetJobs.emplace_back("b");
    channel.m_downloaded["a"] = 1;
    channel.m_downloaded["b"] = 1;
    job("a", 10, 0, 0);
    job("b", 10, 1, 0);
    channel.m_batch[0]->error = kCancelled;  // cancellation blames nobody
    channel.handleProgress(0, 0, 0, 0);
    EXPECT_EQ(reports.seen.back().job, -1);
    channel.m_batch[1]->error = kBadStatus;
    channel.handleProgress(0, 0, 0, 0);
    EXPECT_EQ(reports.seen.back().job, 1);
}

TEST_F(Progress, ACancellingCallbackGetsMinusOne) {
    reports.cancel = true;
    EXPECT_EQ(channel.handleProgress(0, 5, 10, 1), -1);
    EXPECT_EQ(reports.seen.size(), 1u);  // every worker reports, not only the first
}

}  // namespace
