// The adaptive mode's policy by a table of measured numbers, and its mechanism under races: workers that claim
// blocks while others take the far parts of their pieces never write a byte twice nor leave one out.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <thread>

#include "batch/steal_policy.h"
#include "batch/work_share.h"

namespace {

constexpr double MiB = 1 << 20;

TEST(StealPolicy, TakesWhatEndsBothTogetherAndTailsOnlyFromCrawlers) {
    struct Row {
        long long left;
        double owner, taker, setup;
        long long take;
    };
    const Row splits[] = {
        {8 << 20, 0, 0, 0, 4 << 20},                   // rates unknown: the second half
        {8 << 20, 32 * MiB, 32 * MiB, 0, 4 << 20},     // equal rates: half
        {33 << 20, MiB, 32 * MiB, 0, 32 << 20},        // a crawler keeps a 33rd
        {1 << 20, MiB, 32 * MiB, 2, 0},                // a request costing 2 s is not worth it here
        {8 << 20, 32 * MiB, MiB, 0, (8 << 20) / 33 + 1},  // a slow taker takes little
        {0, MiB, MiB, 0, 0},
    };
    for (const Row& r : splits)
        EXPECT_NEAR(steal::balancedTake(r.left, r.owner, r.taker, r.setup), r.take, 2) << r.left << " " << r.owner;
    struct Tail {
        long long part;
        double owner, taker;
        bool taken;
    };
    const Tail tails[] = {
        {512 << 10, MiB, 32 * MiB, true},        // half a second saved
        {32 << 10, 1024, 32 * MiB, false},       // too small to be worth a request
        {512 << 10, 16 * MiB, 32 * MiB, false},  // not slow enough
        {512 << 10, 0, 32 * MiB, false},         // unknown rates decide nothing
        {512 << 10, MiB, 0, false},
    };
    for (const Tail& t : tails)
        EXPECT_EQ(steal::tailWorthTaking(t.part, t.owner, t.taker, 0.05), t.taken) << t.part << " " << t.owner;
    EXPECT_EQ(steal::measuredRate(1 << 20, 0.5), 2 * MiB);
    EXPECT_EQ(steal::measuredRate(1 << 10, 0.01), 0);     // too little to tell
    EXPECT_EQ(steal::measuredRate(0, 1.0), 1);            // nothing for a second: crawling, not unknown
    EXPECT_EQ(steal::earliestCut(1000, 0), 1000 + (64 << 10));  // what is in flight is the owner's
    EXPECT_EQ(steal::earliestCut(0, 4e6), 400000);
    EXPECT_TRUE(steal::lagging(MiB, 32 * MiB));
    EXPECT_FALSE(steal::lagging(8 * MiB, 32 * MiB));
    EXPECT_FALSE(steal::lagging(0, 32 * MiB));
}

// Three workers, one of which holds a whole file; each claims blocks of random sizes as a body would bring them,
// and the idle ones take from the busy ones as they please. Every byte of the file is claimed exactly once, the
// file's counter ends at zero, and the pieces made go into the thread lists afterwards.
TEST(WorkShareRaces, EveryByteIsClaimedOnceWhateverTheTakes) {
    const long long size = 24 << 20;
    int cuts = 0;
    for (int run = 0; run < 40; ++run) {
        webChannel channel;
        channel.m_threadNum = 3;
        for (int t = 0; t < 3; ++t) {
            channel.m_batch.push_back(new webChannel::threadData());
            channel.m_batch[t]->channel = &channel;
            channel.m_batch[t]->index = t;
        }
        webChannel::httpGetJob file("http://h/f");
        file.size = size;
        file.end = size - 1;
        channel.m_batch[0]->jobs.push_back(file);
        channel.m_downloaded[file.url] = 1;
        WorkShare share(channel, channel.m_batch);
        std::map<long long, long long> claimed[3];  // start -> end, per worker
        auto worker = [&](int w) {
            std::mt19937 random(run * 3 + w);
            for (webChannel::httpGetJob* job; (job = share.next(w)) != nullptr;) {
                job->cursor = job->start;
                share.begin(w, *job, WorkShare::Clock::now());
                share.rangesHonoured(*job);  // as a partial answer tells
                for (;;) {
                    const long long want = 1 + random() % (256 << 10);
                    const long long got = share.claim(*job, want);
                    if (got > 0) claimed[w][job->cursor] = job->cursor + got;
                    job->cursor += got;
                    job->downloaded += got;
                    if (got < want) break;
                    std::this_thread::yield();  // let the others in between blocks
                }
                __atomic_sub_fetch(&channel.m_downloaded[file.url], 1, __ATOMIC_ACQ_REL);
                share.ended(w, false);
            }
        };
        std::thread a(worker, 0), b(worker, 1), c(worker, 2);
        a.join(), b.join(), c.join();
        std::map<long long, long long> all;
        for (const auto& ranges : claimed) all.insert(ranges.begin(), ranges.end());
        long long at = 0;
        for (const auto& [from, to] : all) {
            ASSERT_EQ(from, at) << "run " << run << ": a gap or an overlap";
            at = to;
        }
        EXPECT_EQ(at, size);
        EXPECT_EQ(channel.m_downloaded[file.url], 0) << "a cut was not counted";
        share.settle(channel.m_batch);
        size_t pieces = 0;
        for (auto* record : channel.m_batch) pieces += record->jobs.size();
        EXPECT_EQ((int)pieces, 1 + share.cuts());
        cuts += share.cuts();
        for (auto* record : channel.m_batch)
            for (const auto& job : record->jobs) EXPECT_EQ(job.downloaded, job.size) << job.start;
        channel.close();
    }
    EXPECT_GT(cuts, 0) << "the workers never raced";
}

}  // namespace
