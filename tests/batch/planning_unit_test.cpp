// Batch planning: the exact thread lists and piece boundaries.
#include <gtest/gtest.h>

#include "channel/webChannel.h"

namespace {

using Lines = std::vector<std::string>;

class Planning : public ::testing::Test {
protected:
    // Plans the jobs added; then each thread's list as "url start-end/size#part ...".
    Lines plan(unsigned threads, const std::vector<std::pair<std::string, long long>>& jobs) {
        channel.m_threadNum = threads;
        for (const auto& [url, size] : jobs) {
            channel.m_httpGetJobs.emplace_back(url);
            channel.m_httpGetJobs.back().size = size;
            channel.m_httpGetJobs.back().end = size - 1;
        }
        channel.initBatch();
        Lines lists;
        for (const webChannel::threadData* record : channel.m_batch) {
            std::string list;
            for (const auto& j : record->jobs)
                list += (list.empty() ? "" : " ") + j.url + " " + std::to_string(j.start) + "-" +
                        std::to_string(j.end) + "/" + std::to_string(j.size) + "#" + std::to_string(j.part);
            lists.push_back(list);
        }
        return lists;
    }
    webChannel channel;
};

TEST_F(Planning, TenMebibytesOverTwoThreadsAreCutAtTheShareAndNotPlannedAgain) {
    const std::string a = "http://h:1/a";
    EXPECT_EQ(plan(2, {{a, 10485760}}), (Lines{a + " 0-5242879/5242880#0", a + " 5242880-10485759/5242880#1"}));
    EXPECT_TRUE(channel.m_batch[1]->index == 1 && channel.m_batch[1]->channel == &channel);
    // A second plan takes only the job added since; the planned pieces keep their progress.
    channel.m_batch[1]->jobs.front().start += 1000;
    EXPECT_EQ(plan(2, {{"b", 100}}),
              (Lines{a + " 0-5242879/5242880#0 b 0-99/100#0", a + " 5243880-10485759/5242880#1"}));
}

TEST_F(Planning, SmallFilesGoWholeToTheLeastLoadedThreadWithLoadsCountedAfreshEachPlan) {
    EXPECT_EQ(plan(3, {{"a", 100}, {"b", 200}, {"c", 300}}), (Lines{"a 0-99/100#0", "b 0-199/200#0", "c 0-299/300#0"}));
    channel.m_httpGetJobs.clear();
    EXPECT_EQ(plan(3, {{"d", 50}, {"e", 50}}),
              (Lines{"a 0-99/100#0 d 0-49/50#0", "b 0-199/200#0 e 0-49/50#0", "c 0-299/300#0"}));
}

TEST_F(Planning, AFileFarLargerThanTheShareTilesConsecutiveThreadsWithoutGap) {
    EXPECT_EQ(plan(4, {{"small", 1 << 20}, {"big", 99 << 20}}),
              (Lines{"small 0-1048575/1048576#0 big 0-25165823/25165824#0", "big 25165824-51380223/26214400#1",
                     "big 51380224-77594623/26214400#2", "big 77594624-103809023/26214400#3"}));
}

// In file order, a file larger than the share goes in pieces of an eighth of a round (1 to 8 MiB), each to the
// least-loaded thread, so the threads advance through it side by side; files within the share stay whole.
TEST_F(Planning, InFileOrderALargeFileIsDealtInSmallPiecesAndSmallFilesStayWhole) {
    channel.setParam(kParamFileOrder, "", true);
    const std::string M = "/1048576#";
    EXPECT_EQ(plan(2, {{"a", 1 << 20}, {"big", 5 << 20}, {"b", 100}}),
              (Lines{"a 0-1048575" + M + "0 big 1048576-2097151" + M + "1 big 3145728-4194303" + M + "3 b 0-99/100#0",
                     "big 0-1048575" + M + "0 big 2097152-3145727" + M + "2 big 4194304-5242879" + M + "4"}));
}

TEST_F(Planning, UnknownSizeModeDealsWholeFilesRoundRobinWithOnlyTheRecordsNeeded) {
    channel.setParam(kParamUnknownSize, "", true);
    EXPECT_EQ(plan(4, {{"a", 0}, {"b", 0}}), (Lines{"a 0--1/0#0", "b 0--1/0#0"}));
    EXPECT_EQ(plan(4, {{"n0", 0}, {"n1", 0}, {"n2", 0}, {"n3", 0}, {"n4", 0}, {"n5", 0}}),
              (Lines{"a 0--1/0#0 n0 0--1/0#0 n4 0--1/0#0", "b 0--1/0#0 n1 0--1/0#0 n5 0--1/0#0", "n2 0--1/0#0",
                     "n3 0--1/0#0"}));
}

}  // namespace
