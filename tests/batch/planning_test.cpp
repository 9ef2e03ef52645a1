// Batch planning: thread lists, piece boundaries and counters.
#include <gtest/gtest.h>

#include <numeric>

#include "channel/webChannel.h"
#include "support/log_capture.h"

namespace {

class Planning : public ::testing::Test {
protected:
    void threads(unsigned count) { channel.m_threadNum = count; }
    void add(const std::string& url, long long size) {
        webChannel::httpGetJob job(url);
        job.file = "/tmp/" + url;
        job.size = size;
        job.end = size - 1;
        channel.m_httpGetJobs.push_back(job);
    }
    struct Piece {
        std::string url;
        long long start, end, size;
        int part;
        bool operator==(const Piece& o) const {
            return url == o.url && start == o.start && end == o.end && size == o.size && part == o.part;
        }
    };
    std::vector<Piece> pieces(unsigned thread) {
        std::vector<Piece> result;
        for (const auto& job : channel.m_batch.at(thread)->jobs)
            result.push_back({job.url, job.start, job.end, job.size, job.part});
        return result;
    }
    webChannel channel;
};



TEST_F(Planning, TenMegabytesOverTwoThreadsIsCutAtTheShare) {
    threads(2);
    add("a", 10485760);
    channel.initBatch();
    ASSERT_EQ(channel.m_batch.size(), 2u);
    EXPECT_EQ(pieces(0), (std::vector<Piece>{{"a", 0, 5242879, 5242880, 0}}));
    EXPECT_EQ(pieces(1), (std::vector<Piece>{{"a", 5242880, 10485759, 5242880, 1}}));
    EXPECT_EQ(channel.m_downloaded["a"], 2);
    EXPECT_EQ(channel.m_batch[1]->index, 1);
    EXPECT_EQ(channel.m_batch[1]->channel, &channel);
}

TEST_F(Planning, SmallBatchGoesWholeToTheLeastLoaded) {
    threads(3);
    add("a", 100);
    add("b", 200);
    add("c", 300);
    channel.initBatch();
    ASSERT_EQ(channel.m_batch.size(), 3u);
    EXPECT_EQ(pieces(0), (std::vector<Piece>{{"a", 0, 99, 100, 0}}));
    EXPECT_EQ(pieces(1), (std::vector<Piece>{{"b", 0, 199, 200, 0}}));
    EXPECT_EQ(pieces(2), (std::vector<Piece>{{"c", 0, 299, 300, 0}}));
    channel.m_httpGetJobs.clear();
    add("d", 50);
    add("e", 50);
    channel.initBatch();  // sizes restart at 0: d to thread 0, e to thread 1
    EXPECT_EQ(pieces(0).back().url, "d");
    EXPECT_EQ(pieces(1).back().url, "e");
}

TEST_F(Planning, AFileFarLargerThanTheShareSpreadsOverConsecutiveThreads) {
    threads(4);
    const long long mib = 1048576;
    add("small", 1 * mib);
    add("big", 99 * mib);
    channel.initBatch();
    const long long share = 100 * mib / 4;
    long long covered = 0;
    int bigPieces = 0;
    for (unsigned t = 0; t < 4; ++t) {
        long long load = 0;
        for (const Piece& piece : pieces(t)) {
            load += piece.size;
            EXPECT_EQ(piece.end - piece.start + 1, piece.size);
            if (piece.url == "big") {
                ++bigPieces;
                covered += piece.size;
            }
        }
        EXPECT_EQ(load, share) << t;
        EXPECT_EQ(channel.m_batch[t]->size, share);
    }
    EXPECT_EQ(covered, 99 * mib);
    EXPECT_EQ(channel.m_downloaded["big"], bigPieces);
    EXPECT_EQ(bigPieces, 4);
    // The pieces tile the file without gap or overlap.
    std::vector<Piece> all;
    for (unsigned t = 0; t < 4; ++t)
        for (const Piece& piece : pieces(t))
            if (piece.url == "big") all.push_back(piece);
    std::sort(all.begin(), all.end(), [](const Piece& a, const Piece& b) { return a.start < b.start; });
    long long next = 0;
    for (const Piece& piece : all) {
        EXPECT_EQ(piece.start, next);
        next = piece.end + 1;
    }
    EXPECT_EQ(next, 99 * mib);
}

TEST_F(Planning, NoCutPieceIsSmallerThanTheSlack) {
    threads(8);
    for (int i = 0; i < 20; ++i) add("f" + std::to_string(i), 1000003LL * (i + 1));
    channel.initBatch();
    long long total = 0;
    for (unsigned t = 0; t < 8; ++t) {
        for (const auto& job : channel.m_batch[t]->jobs) {
            total += job.size;
            if (job.part > 0 || job.size < 1000003LL * (std::stoi(job.url.substr(1)) + 1)) {
                // a front piece made by a cut is more than 256 KiB
                if (job.start == 0) EXPECT_GT(job.size, 262144);
            }
        }
    }
    EXPECT_EQ(total, 1000003LL * 210);
    for (int i = 0; i < 20; ++i) {
        long long counted = 0;
        std::string url = "f" + std::to_string(i);
        for (unsigned t = 0; t < 8; ++t)
            for (const auto& job : channel.m_batch[t]->jobs) counted += job.url == url;
        EXPECT_EQ(channel.m_downloaded[url], counted);
    }
}

TEST_F(Planning, RoundRobinModeDealsWholeFilesAndCreatesOnlyNeededRecords) {
    threads(4);
    channel.setParam(kParamUnknownSize, "", true);
    add("a", 0);
    add("b", 0);
    channel.initBatch();
    ASSERT_EQ(channel.m_batch.size(), 2u);
    EXPECT_EQ(pieces(0), (std::vector<Piece>{{"a", 0, -1, 0, 0}}));
    EXPECT_EQ(pieces(1), (std::vector<Piece>{{"b", 0, -1, 0, 0}}));
    EXPECT_EQ(channel.m_downloaded["a"], 1);
    EXPECT_EQ(channel.m_downloaded["b"], 1);
    for (int i = 0; i < 6; ++i) add("n" + std::to_string(i), 0);
    channel.initBatch();
    ASSERT_EQ(channel.m_batch.size(), 4u);
    EXPECT_EQ(pieces(0).size(), 3u);  // a, n0, n4
    EXPECT_EQ(pieces(0)[1].url, "n0");
    EXPECT_EQ(pieces(0)[2].url, "n4");
    EXPECT_EQ(pieces(3).size(), 1u);
}

TEST_F(Planning, OnlyUnplannedJobsArePlannedAgain) {
    threads(2);
    add("a", 10485760);
    channel.initBatch();
    channel.m_batch[1]->jobs.front().start += 1000;  // as if partly fetched
    add("b", 100);
    channel.initBatch();
    EXPECT_EQ(channel.m_downloaded["a"], 2);
    EXPECT_EQ(channel.m_downloaded["b"], 1);
    size_t total = channel.m_batch[0]->jobs.size() + channel.m_batch[1]->jobs.size();
    EXPECT_EQ(total, 3u);
    EXPECT_EQ(channel.m_batch[1]->jobs.front().start, 5242880 + 1000);
}

TEST_F(Planning, LogsEveryThreadJobAndCounter) {
    testsupport::LogCapture capture;
    threads(2);
    add("http://h:1/a", 10485760);
    channel.initBatch();
    std::vector<std::string> lines = capture.lines();
    std::vector<std::string> expected = {
        "VRAXSecureWebChannel::initBatch: jobs 1, size 10485760",
        "VRAXSecureWebChannel::initBatch: thread 0, size 5242880:",
        "http://h:1/a : 0 - 5242879",
        "VRAXSecureWebChannel::initBatch: thread 1, size 5242880:",
        "http://h:1/a : 5242880 - 10485759",
        "VRAXSecureWebChannel::initBatch: URL http://h:1/a, jobs 2",
    };
    EXPECT_EQ(lines, expected);
}

}  // namespace
