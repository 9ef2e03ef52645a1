// Whole batches against the real nginx over HTTP and HTTPS: mixed batches on 1 to 64 workers, and a cancel.
#include <set>
#include <sstream>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;

// Name, added with size 0 (the channel asks the server), digest algorithm.
const std::tuple<std::string, bool, const char*> kMixed[] = {
    {"/empty.bin", true, "md5"}, {"/five.bin", false, "sha1"},   {"/k256m1.bin", false, "sha256"},
    {"/k256.bin", true, "md5"},  {"/k256p1.bin", false, "sha1"}, {"/m40.bin", false, "sha256"},
    {"/m1.bin", true, "sha256"},
};

class MixedBatch : public Fixture<::testing::TestWithParam<std::tuple<unsigned, bool>>> {};

TEST_P(MixedBatch, EveryFileArrivesVerifiedAndIsHandedOutOnceInOrder) {
    const auto [workers, https] = GetParam();
    webChannel channel;
    init(channel, workers, "20");
    for (const auto& [name, probe, algorithm] : kMixed) {
        const std::string source = readFile(peers().www + name);
        job(channel, https ? peers().httpsUrl(name) : peers().httpUrl(name), "/sub" + name,
            probe ? 0 : (long long)source.size(), digestOf(source, algorithm), algorithm);
    }
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), 0);
    EXPECT_EQ(handedOut(channel), (Ints{0, 1, 2, 3, 4, 5, 6}));
    for (const auto& [name, probe, algorithm] : kMixed)
        EXPECT_TRUE(readFile(dir + "/sub" + name) == readFile(peers().www + name)) << name;
    EXPECT_EQ(channel.m_filesRehashed, 0) << "every digest is streamed, pieces finishing in any order";
    // Finished work leaves the thread lists; a second batch has nothing to do.
    for (auto* record : channel.m_batch) EXPECT_TRUE(record->jobs.empty());
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
}

INSTANTIATE_TEST_SUITE_P(WorkersAndProtocols, MixedBatch,
                         ::testing::Combine(::testing::Values(1u, 4u, 8u, 64u), ::testing::Bool()),
                         [](const auto& info) {
                             return std::to_string(std::get<0>(info.param)) +
                                    (std::get<1>(info.param) ? "WorkersHttps" : "WorkersHttp");
                         });

// The workers report; each report hands out what is verified, and cancels. Each small file arrives in one
// read: the cancel still ends the batch, each worker finishing at most the file it was on, and what finished
// stays whole.
struct Progress {
    static void handler(bool& cancel, int, long long, long long, int, void* data) {
        auto* self = static_cast<Progress*>(data);
        std::lock_guard<std::mutex> lock(self->mutex);
        for (int index; (index = self->channel->getNextDownloadedFile()) >= 0;) self->handed.push_back(index);
        cancel = true;
    }
    webChannel* channel;
    std::mutex mutex;
    Ints handed;
};
using Cancel = Fixture<>;

TEST_F(Cancel, ACancelFromTheProgressCallbackEndsTheBatch) {
    webChannel channel;
    init(channel, 2, "20");
    Progress progress{&channel, {}, {}};
    channel.setHandler(Progress::handler, &progress);
    auto small = [](int i) { return "/small/f" + std::to_string(100000 + i).substr(1) + ".bin"; };
    for (int i = 0; i < 200; ++i) job(channel, peers().httpUrl(small(i)), small(i), 1024);
    const int pending = channel.httpMultiGet(true);
    EXPECT_GE(pending, 190);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kCancelled);
    Ints handed = handedOut(channel);
    handed.insert(handed.end(), progress.handed.begin(), progress.handed.end());
    EXPECT_EQ((int)handed.size(), 200 - pending);
    for (int i : handed) EXPECT_TRUE(readFile(dir + small(i)) == readFile(peers().www + small(i))) << i;
}

// A chunked answer whose last chunk and final empty line came whole with the last read leaves its connection
// for the next file; one whose end is still owed drops it.
using KeptConnection = Fixture<>;

TEST_F(KeptConnection, AChunkedAnswerThatEndedCleanlyIsReused) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n";
    auto chunked = [&](std::string tail, bool owed) {
        return
            [=](ServerConnection& c, const std::string&, int) { return c.send(head + tail) && !(owed && c.stall(5)); };
    };
    Routes server({{"/clean", chunked("0\r\n\r\n", false)},
                   {"/trailer", chunked("0\r\nX-Sum: 1\r\n\r\n", false)},
                   {"/owed", chunked("0\r\n", true)},
                   {"/after", chunked("0\r\n\r\n", false)}});
    webChannel channel;
    init(channel, 1, "20");
    for (const char* path : {"/clean", "/trailer", "/owed", "/after"}) job(channel, server.url(path), path, 5);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(handedOut(channel), (Ints{0, 1, 2, 3}));
    EXPECT_EQ(server.connections(), 2);
}

}  // namespace

// getNextDownloadedFile answers as the walk over the list in addJob order does (the first verified file is
// handed out), whatever changed the list since: jobs added after a hand-out, removed and added again, init.
using HandOut = Fixture<>;

TEST_F(HandOut, EveryAnswerIsTheWalksOverTheJobList) {
    webChannel channel;
    init(channel, 2, "20");
    // aN: add file N; rN: remove it; b: batch; n: one hand-out; i: init.
    std::istringstream steps("a0 a1 a2 b r2 n a2 n n n a3 a4 b n r0 a0 n n n i a5 a6 b r5 n a5 n n n b n n a6 n b n");
    for (std::string step; steps >> step;) {
        const std::string url = peers().httpUrl("/small/f0000" + step.substr(1) + ".bin");
        int walk = -1;
        for (size_t i = channel.m_httpGetJobs.size(); i-- > 0;)
            if (channel.urlCounter(channel.m_httpGetJobs[i].url) == kUrlVerified) walk = (int)i;
        if (step[0] == 'a') job(channel, url, "/" + step, 1024);
        if (step[0] == 'r') channel.removeJob(url.c_str());
        if (step[0] == 'i') init(channel, 2, "20");
        EXPECT_EQ(step[0] == 'b' ? channel.httpMultiGet(false) : 0, 0) << "step " << steps.tellg();
        const int given = step[0] == 'n' ? channel.getNextDownloadedFile() : walk;
        EXPECT_EQ(given, walk) << "step " << steps.tellg();
        // Added again, a file is fetched again: an emptied target is never handed out.
        if (step[0] == 'n' && given >= 0) {
            EXPECT_EQ(std::filesystem::file_size(channel.m_httpGetJobs[(size_t)given].file), 1024u) << given;
        }
    }
}
