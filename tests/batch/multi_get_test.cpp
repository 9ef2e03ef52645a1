// Whole batches against real nginx over HTTP and HTTPS, and against a
// scripted server for the faults.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <set>

#include "batch/batch_helpers.h"
#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"

namespace {

using testsupport::peers;
using testsupport::readFile;

struct Source {
    const char* name;
    bool probe;  // added with size 0: the channel asks the server
    const char* algorithm;
};

const Source kMixed[] = {
    {"empty.bin", true, "md5"},    {"five.bin", false, "sha1"},  {"k256m1.bin", false, "sha256"},
    {"k256.bin", true, "md5"},     {"k256p1.bin", false, "sha1"}, {"m40.bin", false, "sha256"},
    {"m1.bin", true, "sha256"},
};

class MixedBatch : public ::testing::TestWithParam<std::tuple<unsigned, bool>> {};

TEST_P(MixedBatch, EveryFileArrivesVerifiedAndIsHandedOutOnceInOrder) {
    const unsigned workers = std::get<0>(GetParam());
    const bool https = std::get<1>(GetParam());
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(workers), 0);
    channel.setParam(kParamTimeout, "20", true);
    std::vector<std::string> sources;
    for (const Source& source : kMixed) {
        std::string content = readFile(peers().www + "/" + source.name);
        sources.push_back(content);
        std::string url = https ? peers().httpsUrl(std::string("/") + source.name)
                                : peers().httpUrl(std::string("/") + source.name);
        std::string digest = batchtest::digestOf(content, source.algorithm);
        ASSERT_EQ(channel.addJob(url.c_str(), (dir + "/sub/" + source.name).c_str(),
                                 source.probe ? 0 : (long long)content.size(), digest.c_str(), source.algorithm),
                  0)
            << source.name;
    }
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    char text[64];
    EXPECT_EQ(channel.getErrorCode(text, sizeof(text)), 0);
    for (int i = 0; i < (int)std::size(kMixed); ++i) EXPECT_EQ(channel.getNextDownloadedFile(), i);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
    for (size_t i = 0; i < std::size(kMixed); ++i)
        EXPECT_TRUE(readFile(dir + "/sub/" + kMixed[i].name) == sources[i]) << kMixed[i].name;
    // Finished work leaves the thread lists; a second batch has nothing to do.
    for (auto* record : channel.m_batch) EXPECT_TRUE(record->jobs.empty());
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
}

INSTANTIATE_TEST_SUITE_P(WorkersAndProtocols, MixedBatch,
                         ::testing::Combine(::testing::Values(1u, 4u, 8u, 64u), ::testing::Bool()));

TEST(Batch, ABatchWithoutJobsStartsNoThread) {
    webChannel channel;
    ASSERT_EQ(channel.init(4), 0);
    EXPECT_EQ(channel.httpMultiGet(false), 0);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
}

TEST(Batch, UnknownSizeModeDealsWholeFiles) {
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(3), 0);
    channel.setParam(kParamUnknownSize, "", true);
    const char* names[] = {"m1.bin", "five.bin", "k256p1.bin", "empty.bin"};
    for (const char* name : names)
        ASSERT_EQ(channel.addJob(peers().httpUrl(std::string("/") + name).c_str(), (dir + "/" + name).c_str(), 0,
                                 nullptr, nullptr),
                  0);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(channel.getNextDownloadedFile(), i);
    for (const char* name : names)
        EXPECT_TRUE(readFile(dir + "/" + name) == readFile(peers().www + "/" + name)) << name;
}

TEST(Batch, TenThousandSmallFilesOnEightWorkers) {
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(8), 0);
    char name[64];
    for (int i = 0; i < 10000; ++i) {
        snprintf(name, sizeof(name), "/small/f%05d.bin", i);
        ASSERT_EQ(channel.addJob(peers().httpUrl(name).c_str(), (dir + name).c_str(), 1024, nullptr, nullptr), 0);
    }
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    std::set<int> handedOut;
    for (int index; (index = channel.getNextDownloadedFile()) >= 0;) EXPECT_TRUE(handedOut.insert(index).second);
    EXPECT_EQ(handedOut.size(), 10000u);
    EXPECT_TRUE(readFile(dir + "/small/f09999.bin") == readFile(peers().www + "/small/f09999.bin"));
}

// Progress reports come from the workers while they download; a cancel
// ends the batch with -3055 and leaves finished files intact.
struct ProgressLog {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    long long maxTotal = 0;
    int reports = 0;
    std::atomic<bool> cancel{false};
    webChannel* channel = nullptr;
    std::vector<int> handedOut;
    static void handler(bool& cancel, int, long long, long long total, int, void* data) {
        auto* self = static_cast<ProgressLog*>(data);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->threads.insert(std::this_thread::get_id());
        if (total > self->maxTotal) self->maxTotal = total;
        ++self->reports;
        for (int index; (index = self->channel->getNextDownloadedFile()) >= 0;) self->handedOut.push_back(index);
        cancel = self->cancel.load();
    }
};

TEST(Batch, WorkersReportProgressAndHandOutFilesDuringTheBatch) {
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(4), 0);
    ProgressLog progress;
    progress.channel = &channel;
    channel.setHandler(ProgressLog::handler, &progress);
    std::string content = readFile(peers().www + "/m40.bin");
    ASSERT_EQ(channel.addJob(peers().httpUrl("/five.bin").c_str(), (dir + "/five.bin").c_str(), 5, nullptr, nullptr),
              0);
    ASSERT_EQ(channel.addJob(peers().httpUrl("/m40.bin").c_str(), (dir + "/m40.bin").c_str(),
                             (long long)content.size(), batchtest::digestOf(content, "md5").c_str(), "md5"),
              0);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_GT(progress.threads.size(), 1u);  // several workers reported
    EXPECT_EQ(progress.maxTotal, (long long)content.size() + 5);
    std::sort(progress.handedOut.begin(), progress.handedOut.end());
    EXPECT_EQ(progress.handedOut, (std::vector<int>{0, 1}));
}

TEST(Batch, ACancellingCallbackEndsTheBatchAndKeepsFinishedFiles) {
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(2), 0);
    ProgressLog progress;
    progress.channel = &channel;
    progress.cancel = true;
    channel.setHandler(ProgressLog::handler, &progress);
    ASSERT_EQ(channel.addJob(peers().httpUrl("/m40.bin").c_str(), (dir + "/m40.bin").c_str(), 41943040, nullptr,
                             nullptr),
              0);
    EXPECT_EQ(channel.httpMultiGet(true), 1);
    char text[8];
    EXPECT_EQ(channel.getErrorCode(text, sizeof(text)), kCancelled);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
}

TEST(Batch, CancellingOnFilesThatArriveInOneReadStopsTheBatch) {
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(2), 0);
    ProgressLog progress;
    progress.channel = &channel;
    progress.cancel = true;
    channel.setHandler(ProgressLog::handler, &progress);
    char name[64];
    for (int i = 0; i < 200; ++i) {
        snprintf(name, sizeof(name), "/small/f%05d.bin", i);
        ASSERT_EQ(channel.addJob(peers().httpUrl(name).c_str(), (dir + name).c_str(), 1024, nullptr, nullptr), 0);
    }
    int pending = channel.httpMultiGet(true);
    EXPECT_GE(pending, 190);  // each worker finishes at most the piece it was on
    char text[8];
    EXPECT_EQ(channel.getErrorCode(text, sizeof(text)), kCancelled);
    // What finished stays finished and verified.
    EXPECT_EQ((int)progress.handedOut.size() + [&] {
        int more = 0;
        while (channel.getNextDownloadedFile() >= 0) ++more;
        return more;
    }(), 200 - pending);
}

// Digest mismatch: reported with the file, not handed out, fetched again.
TEST(Batch, ADigestMismatchIsReportedAndTheNextBatchFetchesTheFileAgain) {
    const std::string dir = testsupport::tempDir();
    const std::string good = batchtest::pseudoRandom(300000, 1);
    std::atomic<int> served{0};
    testsupport::ScriptServer server([&](testsupport::ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();) {
            std::string content = good;
            if (served++ == 0) content[1000] ^= 1;  // the first answer is corrupt
            batchtest::serveRange(c, request, content);
        }
    });
    webChannel channel;
    ASSERT_EQ(channel.init(1), 0);
    std::string file = dir + "/f.bin";
    ASSERT_EQ(channel.addJob(server.url("/f").c_str(), file.c_str(), (long long)good.size(),
                             batchtest::digestOf(good, "SHA256").c_str(), "SHA256"),
              0);
    EXPECT_EQ(channel.httpMultiGet(false), 1);
    std::string context, message;
    EXPECT_EQ(channel.getError(context, message), kChecksumMismatch);
    EXPECT_EQ(context, file);
    char text[512];
    EXPECT_EQ(channel.getErrorCode(text, sizeof(text)), kChecksumMismatch);
    EXPECT_EQ(std::string(text), "size or digest mismatch: " + file);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(channel.getNextDownloadedFile(), 0);
    EXPECT_TRUE(readFile(file) == good);
    EXPECT_EQ(served.load(), 2);
}

// A piece cut short by the server resumes from its first missing byte.
TEST(Batch, APieceCutByTheServerResumesInTheNextBatch) {
    const std::string dir = testsupport::tempDir();
    const std::string content = batchtest::pseudoRandom(3 << 20, 2);
    std::mutex mutex;
    std::vector<std::string> ranges;
    std::atomic<bool> cutOnce{false};
    testsupport::ScriptServer server([&](testsupport::ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();) {
            long long first = 0, last = 0;
            ASSERT_TRUE(batchtest::requestedRange(request, first, last));
            {
                std::lock_guard<std::mutex> lock(mutex);
                ranges.push_back(std::to_string(first) + "-" + std::to_string(last));
            }
            if (first == 0 && !cutOnce.exchange(true)) {
                // Announce the whole piece, send half, close without a reset.
                std::string part = content.substr(0, (size_t)(last + 1));
                std::string response = testsupport::httpResponse(206, part);
                c.send(std::string_view(response).substr(0, response.size() - part.size() / 2));
                c.close();
                return;
            }
            batchtest::serveRange(c, request, content);
        }
    });
    webChannel channel;
    ASSERT_EQ(channel.init(2), 0);
    std::string file = dir + "/f.bin";
    ASSERT_EQ(channel.addJob(server.url("/f").c_str(), file.c_str(), (long long)content.size(),
                             batchtest::digestOf(content, "md5").c_str(), "md5"),
              0);
    EXPECT_EQ(channel.httpMultiGet(false), 1);
    std::string context, message;
    EXPECT_EQ(channel.getError(context, message), kReadFailed);
    EXPECT_EQ(context, file);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kOk);  // the finished piece is not counted twice
    EXPECT_EQ(channel.getNextDownloadedFile(), 0);
    EXPECT_TRUE(readFile(file) == content);
    const long long half = (3 << 20) / 2;
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(ranges.size(), 3u);
    std::multiset<std::string> seen(ranges.begin(), ranges.end());
    EXPECT_EQ(seen.count("0-" + std::to_string(half - 1)), 1u);
    EXPECT_EQ(seen.count(std::to_string(half) + "-" + std::to_string((3 << 20) - 1)), 1u);
    EXPECT_EQ(seen.count(std::to_string(half / 2) + "-" + std::to_string(half - 1)), 1u);
}

// A failed job ends only its own worker; the first failure is kept.
TEST(Batch, AFailedJobStopsOnlyItsOwnWorker) {
    const std::string dir = testsupport::tempDir();
    webChannel channel;
    ASSERT_EQ(channel.init(2), 0);
    // Small batch: files go whole to the least-loaded worker in turn:
    // missing (worker 0), five (worker 1), k256 (worker 0, behind the failure).
    ASSERT_EQ(channel.addJob(peers().httpUrl("/missing.bin").c_str(), (dir + "/missing").c_str(), 1, nullptr,
                             nullptr),
              0);
    ASSERT_EQ(channel.addJob(peers().httpUrl("/five.bin").c_str(), (dir + "/five").c_str(), 5, nullptr, nullptr), 0);
    ASSERT_EQ(channel.addJob(peers().httpUrl("/k256.bin").c_str(), (dir + "/k256").c_str(), 262144, nullptr, nullptr),
              0);
    EXPECT_EQ(channel.httpMultiGet(true), 2);
    std::string context, message;
    EXPECT_EQ(channel.getError(context, message), kBadStatus);
    EXPECT_EQ(context, dir + "/missing");
    EXPECT_EQ(channel.getNextDownloadedFile(), 1);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
    EXPECT_EQ(readFile(dir + "/five"), "hello");
}

}  // namespace
