// Load: 64 workers over 2,000 files and one large file cut into many pieces,
// served by a scripted server that resets a tenth of its connections; and
// repeated create/init/batch/close/destroy cycles through the factory.
//
// Sizes: the large file is generated from its byte offsets by the server,
// so it never sits in memory. It is 2 GiB (about 30 s in a normal build);
// sanitizer builds, 3-10 times slower, use 64 MiB unless
// WEBCHANNEL_STRESS_FULL=1 asks for the full size there too.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "batch/fault_helpers.h"
#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace {

using faulttest::fileHoldsGenerated;
using faulttest::generate;
using faulttest::generatedDigest;
using faulttest::mix;
using faulttest::noteFaults;
using faulttest::noteVerified;
using faulttest::requestedRange;
using faulttest::requestPath;
using faulttest::ResourceCheck;
using faulttest::secondsSince;
using faulttest::serveGenerated;
using testsupport::ScriptServer;
using testsupport::ServerConnection;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

bool fullRun() {
    const char* full = std::getenv("WEBCHANNEL_STRESS_FULL");
    return full != nullptr && std::string(full) == "1";
}

constexpr int kWorkers = 64;
constexpr int kFiles = 2000;
constexpr uint64_t kSeed = 20240601;
constexpr uint64_t kLargeSeed = 77;

uint64_t largeSize() {
    return fullRun() || !kSanitized ? 2ULL << 30 : 64ULL << 20;
}

// 1 to 32 KiB, different for every file.
uint64_t smallSize(int i) { return 1024 + mix(kSeed + (uint64_t)i) % (31 * 1024); }

// Sends the head and up to 256 KiB of what the request asks for, then
// resets the connection.
void sendSomeAndReset(ServerConnection& c, const std::string& request, uint64_t seed, uint64_t size) {
    long long first = 0, last = (long long)size - 1;
    const bool ranged = requestedRange(request, first, last);
    const long long count = last - first + 1;
    const size_t some = (size_t)std::min<long long>(count / 2, 256 * 1024);
    std::string head = std::string(ranged ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n") +
                       "Content-Length: " + std::to_string(count) + "\r\n\r\n";
    std::string body(some, '\0');
    generate(seed, (uint64_t)first, some, &body[0]);
    c.send(head + body);
    c.reset();
}

TEST(Stress, SixtyFourWorkersOverTwoThousandFilesAndALargeFileWhileConnectionsAreReset) {
    ResourceCheck resources;
    const std::string dir = testsupport::tempDir();
    const uint64_t large = largeSize();
    std::printf("[ STRESS   ] %d files of 1-32 KiB and a large file of %llu MiB on %d workers\n", kFiles,
                (unsigned long long)(large >> 20), kWorkers);
    const std::string largeDigest = generatedDigest(kLargeSeed, large, "md5");
    {
        faulttest::Watchdog watchdog(300, "the stress batch");
        std::atomic<int> resets{0};
        std::atomic<long long> served{0};
        ScriptServer server([&](ServerConnection& c) {
            // A tenth of the connections, chosen by a fixed seed, are reset
            // in the middle of an answer: of a piece of the large file at
            // once, of small files after a few answers.
            const uint64_t draw = mix(kSeed ^ (uint64_t)c.index());
            const bool resetting = draw % 10 == 0;
            const int resetAt = (int)((draw >> 8) % 4);
            for (int n = 0; n < 1000000; ++n) {
                std::string request = c.readRequest(30000);
                if (request.empty()) return;
                const std::string path = requestPath(request);
                uint64_t seed, size;
                if (path == "/large") {
                    seed = kLargeSeed;
                    size = large;
                } else {
                    const int i = atoi(path.c_str() + 3);  // "/s/<i>"
                    seed = kSeed + 1000 + (uint64_t)i;
                    size = smallSize(i);
                }
                if (resetting && (n == resetAt || path == "/large")) {
                    ++resets;
                    sendSomeAndReset(c, request, seed, size);
                    return;
                }
                if (!serveGenerated(c, request, seed, size)) return;
                ++served;
            }
        });
        webChannel channel;
        ASSERT_EQ(channel.init(kWorkers), 0);
        channel.setParam(kParamTimeout, "20", true);
        for (int i = 0; i < kFiles; ++i) {
            const uint64_t seed = kSeed + 1000 + (uint64_t)i;
            ASSERT_EQ(channel.addJob(server.url("/s/" + std::to_string(i)).c_str(),
                                     (dir + "/s/" + std::to_string(i)).c_str(), (long long)smallSize(i),
                                     generatedDigest(seed, smallSize(i), "md5").c_str(), "md5"),
                      0);
        }
        ASSERT_EQ(channel.addJob(server.url("/large").c_str(), (dir + "/large").c_str(), (long long)large,
                                 largeDigest.c_str(), "md5"),
                  0);

        const auto start = std::chrono::steady_clock::now();
        std::set<int> handed;
        int batches = 0;
        int pending = -1;
        for (; batches < 10 && pending != 0; ++batches) {
            pending = channel.httpMultiGet(false);
            for (int index; (index = channel.getNextDownloadedFile()) >= 0;)
                EXPECT_TRUE(handed.insert(index).second) << "handed out twice: " << index;
        }
        const double elapsed = secondsSince(start);
        channel.close();
        std::printf("[ STRESS   ] %d batch(es), %.1f s, %d connections, %d reset, %lld answers\n", batches,
                    elapsed, server.connections(), resets.load(), served.load());
        EXPECT_EQ(pending, 0);
        EXPECT_EQ(handed.size(), (size_t)kFiles + 1);
        EXPECT_GT(resets.load(), 0);
        EXPECT_LT(elapsed, 240.0);
        noteFaults(resets.load());

        // Handed out means verified by the channel; check the bytes too.
        uint64_t bytes = 0;
        for (int i = 0; i < kFiles; ++i) {
            ASSERT_TRUE(fileHoldsGenerated(dir + "/s/" + std::to_string(i), kSeed + 1000 + (uint64_t)i, smallSize(i)))
                << i;
            bytes += smallSize(i);
        }
        EXPECT_TRUE(fileHoldsGenerated(dir + "/large", kLargeSeed, large));
        bytes += large;
        noteVerified((long long)bytes);
    }
    unlink((dir + "/large").c_str());  // do not leave gigabytes behind
    resources.check();
}

// The large file is cut into many pieces: one per worker, about.
TEST(Stress, TheLargeFileIsCutIntoManyPieces) {
    webChannel channel;
    ASSERT_EQ(channel.init(kWorkers), 0);
    const std::string dir = testsupport::tempDir();
    for (int i = 0; i < kFiles; ++i)
        ASSERT_EQ(channel.addJob(("http://127.0.0.1:1/s/" + std::to_string(i)).c_str(),
                                 (dir + "/s/" + std::to_string(i)).c_str(), (long long)smallSize(i), nullptr, nullptr),
                  0);
    ASSERT_EQ(channel.addJob("http://127.0.0.1:1/large", (dir + "/large").c_str(), (long long)largeSize(), nullptr,
                             nullptr),
              0);
    channel.initBatch();
    int pieces = 0;
    long long covered = 0;
    std::set<long long> starts;
    for (webChannel::threadData* record : channel.m_batch)
        for (const webChannel::httpGetJob& job : record->jobs)
            if (job.url == "http://127.0.0.1:1/large") {
                ++pieces;
                covered += job.size;
                starts.insert(job.start);
            }
    EXPECT_GE(pieces, 32);
    EXPECT_EQ(covered, (long long)largeSize());
    EXPECT_EQ((int)starts.size(), pieces);
    EXPECT_EQ(channel.m_downloaded["http://127.0.0.1:1/large"], pieces);
}

// Create, init, a batch, close and destroy, a hundred times through the
// exported factory: descriptors and threads come back to where they were
// (and a sanitizer build reports no leak at exit).
TEST(Stress, RepeatedChannelLifecyclesThroughTheFactoryLeakNothing) {
    ResourceCheck resources;
    const std::string dir = testsupport::tempDir();
    const std::string five = testsupport::readFile(testsupport::peers().www + "/five.bin");
    const std::string small = testsupport::readFile(testsupport::peers().www + "/small/f00042.bin");
    int cycles = 0;
    {
        faulttest::Watchdog watchdog(240, "the lifecycle cycles");
        ScriptServer server([](ServerConnection& c) {
            for (std::string request; !(request = c.readRequest()).empty();)
                if (!serveGenerated(c, request, 5, 300000)) return;
        });
        const std::string digest = generatedDigest(5, 300000, "md5");
        for (int cycle = 0; cycle < 100; ++cycle) {
            VRAXSecureWebChannel* channel = VRAXSecureWebChannelCreate();
            ASSERT_NE(channel, nullptr);
            ASSERT_EQ(channel->init(4), 0);
            channel->setParam(kParamTimeout, "10", true);
            const std::string sub = dir + "/" + std::to_string(cycle);
            ASSERT_EQ(channel->addJob(testsupport::peers().httpUrl("/five.bin").c_str(), (sub + "/five").c_str(), 5,
                                      nullptr, nullptr),
                      0);
            ASSERT_EQ(channel->addJob(testsupport::peers().httpsUrl("/small/f00042.bin").c_str(),
                                      (sub + "/small").c_str(), 1024, nullptr, nullptr),
                      0);
            ASSERT_EQ(channel->addJob(server.url("/g").c_str(), (sub + "/g").c_str(), 300000, digest.c_str(), "md5"),
                      0);
            // Keep the connections: close() must release them.
            EXPECT_EQ(channel->httpMultiGet(false), 0);
            int handed = 0;
            while (channel->getNextDownloadedFile() >= 0) ++handed;
            EXPECT_EQ(handed, 3);
            channel->close();
            VRAXSecureWebChannelDestroy(channel);
            ++cycles;
            if (cycle == 0 || cycle == 99) {
                EXPECT_TRUE(testsupport::readFile(sub + "/five") == five);
                EXPECT_TRUE(testsupport::readFile(sub + "/small") == small);
                EXPECT_TRUE(fileHoldsGenerated(sub + "/g", 5, 300000));
            }
            if (::testing::Test::HasFailure()) break;
        }
        noteVerified(2LL * (5 + 1024 + 300000));
    }
    EXPECT_EQ(cycles, 100);
    resources.check();
}

}  // namespace
