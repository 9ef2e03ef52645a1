// Batch planning: the exact thread lists, piece boundaries, counters and log lines.
#include <gtest/gtest.h>

#include <tuple>

#include "channel/webChannel.h"
#include "support/log_capture.h"

namespace {

using Piece = std::tuple<std::string, long long, long long, long long, int>;  // URL, start, end, size, part
using Pieces = std::vector<Piece>;

class Planning : public ::testing::Test {
protected:
    void plan(unsigned threads, const std::vector<std::pair<std::string, long long>>& jobs) {
        channel.m_threadNum = threads;
        for (const auto& [url, size] : jobs) {
            channel.m_httpGetJobs.emplace_back(url);
            channel.m_httpGetJobs.back().size = size;
            channel.m_httpGetJobs.back().end = size - 1;
        }
        channel.initBatch();
    }
    Pieces pieces(unsigned thread) {
        Pieces result;
        for (const auto& job : channel.m_batch.at(thread)->jobs)
            result.emplace_back(job.url, job.start, job.end, job.size, job.part);
        return result;
    }
    webChannel channel;
};

TEST_F(Planning, TenMebibytesOverTwoThreadsAreCutAtTheShareLoggedAndNotPlannedAgain) {
    const std::string a = "http://h:1/a";
    {
        testsupport::LogCapture capture;
        plan(2, {{a, 10485760}});
        EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                       "VRAXSecureWebChannel::initBatch: jobs 1, size 10485760",
                                       "VRAXSecureWebChannel::initBatch: thread 0, size 5242880:",
                                       a + " : 0 - 5242879",
                                       "VRAXSecureWebChannel::initBatch: thread 1, size 5242880:",
                                       a + " : 5242880 - 10485759",
                                       "VRAXSecureWebChannel::initBatch: URL " + a + ", jobs 2",
                                   }));
    }
    ASSERT_EQ(channel.m_batch.size(), 2u);
    EXPECT_EQ(pieces(0), (Pieces{{a, 0, 5242879, 5242880, 0}}));
    EXPECT_EQ(pieces(1), (Pieces{{a, 5242880, 10485759, 5242880, 1}}));
    EXPECT_EQ(channel.m_downloaded[a], 2);
    EXPECT_TRUE(channel.m_batch[1]->index == 1 && channel.m_batch[1]->channel == &channel);
    // A second plan takes only the job added since; the planned pieces keep their progress.
    channel.m_batch[1]->jobs.front().start += 1000;
    plan(2, {{"b", 100}});
    EXPECT_EQ(channel.m_downloaded[a], 2);
    EXPECT_EQ(channel.m_downloaded["b"], 1);
    EXPECT_EQ(pieces(0), (Pieces{{a, 0, 5242879, 5242880, 0}, {"b", 0, 99, 100, 0}}));
    EXPECT_EQ(pieces(1), (Pieces{{a, 5242880 + 1000, 10485759, 5242880, 1}}));
}

TEST_F(Planning, SmallFilesGoWholeToTheLeastLoadedThreadWithLoadsCountedAfreshEachPlan) {
    plan(3, {{"a", 100}, {"b", 200}, {"c", 300}});
    ASSERT_EQ(channel.m_batch.size(), 3u);
    EXPECT_EQ(pieces(0), (Pieces{{"a", 0, 99, 100, 0}}));
    EXPECT_EQ(pieces(1), (Pieces{{"b", 0, 199, 200, 0}}));
    EXPECT_EQ(pieces(2), (Pieces{{"c", 0, 299, 300, 0}}));
    channel.m_httpGetJobs.clear();
    plan(3, {{"d", 50}, {"e", 50}});  // d to thread 0, e to thread 1
    EXPECT_EQ(pieces(0).back(), (Piece{"d", 0, 49, 50, 0}));
    EXPECT_EQ(pieces(1).back(), (Piece{"e", 0, 49, 50, 0}));
    EXPECT_EQ(pieces(2).size(), 1u);
}

TEST_F(Planning, AFileFarLargerThanTheShareTilesConsecutiveThreadsWithoutGap) {
    const long long mib = 1048576;
    plan(4, {{"small", mib}, {"big", 99 * mib}});
    EXPECT_EQ(pieces(0).front(), (Piece{"small", 0, mib - 1, mib, 0}));
    long long next = 0;
    for (unsigned t = 0; t < 4; ++t) {
        EXPECT_EQ(channel.m_batch[t]->size, 25 * mib) << t;
        const long long size = std::get<3>(pieces(t).back());
        EXPECT_EQ(pieces(t).back(), (Piece{"big", next, next + size - 1, size, (int)t})) << t;
        next += size;
    }
    EXPECT_EQ(next, 99 * mib);
    EXPECT_EQ(channel.m_downloaded["big"], 4);
}

TEST_F(Planning, UnknownSizeModeDealsWholeFilesRoundRobinWithOnlyTheRecordsNeeded) {
    channel.setParam(kParamUnknownSize, "", true);
    plan(4, {{"a", 0}, {"b", 0}});
    ASSERT_EQ(channel.m_batch.size(), 2u);
    EXPECT_EQ(pieces(0), (Pieces{{"a", 0, -1, 0, 0}}));
    EXPECT_EQ(pieces(1), (Pieces{{"b", 0, -1, 0, 0}}));
    plan(4, {{"n0", 0}, {"n1", 0}, {"n2", 0}, {"n3", 0}, {"n4", 0}, {"n5", 0}});
    ASSERT_EQ(channel.m_batch.size(), 4u);
    EXPECT_EQ(pieces(0), (Pieces{{"a", 0, -1, 0, 0}, {"n0", 0, -1, 0, 0}, {"n4", 0, -1, 0, 0}}));
    EXPECT_EQ(pieces(3), (Pieces{{"n3", 0, -1, 0, 0}}));
    EXPECT_EQ(channel.m_downloaded["a"] + channel.m_downloaded["n5"], 2);
}

}  // namespace
