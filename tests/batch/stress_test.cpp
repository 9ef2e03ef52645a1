// Load: 64 workers over 2,000 files and one large file cut into many pieces, from a server that resets a
// tenth of its connections, batch after batch until complete; and 100 channel lifecycles.
#include <unistd.h>

#include <atomic>
#include <set>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using testsupport::peers;
using testsupport::readFile;
using Stress = Fixture<>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr int kFiles = 2000;
constexpr uint64_t kSeed = 20240601, kLargeSeed = 77;

uint64_t smallSize(int i) {
    return 1024 + mix(kSeed + i) % (31 * 1024);  // 1 to 32 KiB
}

// The large file is generated from its offsets, never held in memory: 2 GiB (about 20 s); sanitizer
// builds use 64 MiB unless WEBCHANNEL_STRESS_FULL=1.
TEST_F(Stress, SixtyFourWorkersFinishTwoThousandFilesAndALargeFileWhileATenthOfConnectionsAreReset) {
    const char* full = std::getenv("WEBCHANNEL_STRESS_FULL");
    const uint64_t large = !kSanitized || (full && std::string(full) == "1") ? 2ULL << 30 : 64ULL << 20;
    std::atomic<int> resets{0};
    ScriptServer server([&](ServerConnection& c) {
        // A tenth of the connections, drawn from a fixed seed, are reset in the middle of an answer: of a
        // piece of the large file at once, of small files after a few answers.
        const uint64_t draw = mix(kSeed ^ c.index());
        for (int n = 0; n < 1000000; ++n) {
            const std::string request = c.readRequest(30000), path = requestPath(request);
            if (request.empty()) return;
            const int i = path == "/large" ? -1 : atoi(path.c_str() + 3);  // "/s/<i>"
            const uint64_t seed = i < 0 ? kLargeSeed : kSeed + 1000 + i, size = i < 0 ? large : smallSize(i);
            if (draw % 10 == 0 && (n == (int)((draw >> 8) % 4) || i < 0)) {
                ++resets;
                sendHalf(c, request, seed, size, 256 * 1024);
                return c.reset();
            }
            if (!serve(c, request, seed, size)) return;
        }
    });
    webChannel channel;
    init(channel, 64, "20");
    for (int i = 0; i < kFiles; ++i)
        add(channel, server.url("/s/" + std::to_string(i)), "/s/" + std::to_string(i), kSeed + 1000 + i, smallSize(i));
    add(channel, server.url("/large"), "/large", kLargeSeed, large);
    const auto start = Clock::now();
    std::set<int> handed;
    int batches = 0, pending = -1;
    for (; batches < 10 && pending != 0; ++batches) {
        pending = channel.httpMultiGet(false);
        for (int index : handedOut(channel)) EXPECT_TRUE(handed.insert(index).second) << "handed out twice: " << index;
    }
    const double elapsed = secondsSince(start);
    channel.close();
    std::printf("[ STRESS   ] %llu MiB and %d files: %d batch(es), %.1f s, %d connections, %d reset\n",
                (unsigned long long)(large >> 20), kFiles, batches, elapsed, server.connections(), resets.load());
    EXPECT_EQ(pending, 0);
    EXPECT_EQ(handed.size(), (size_t)kFiles + 1);
    EXPECT_GT(resets.load(), 0);
    EXPECT_LT(elapsed, 240.0);
    std::set<long long> pieceEnds;  // of the large file, asked for in many pieces
    for (const std::string& request : server.requests()) {
        long long last = -1;
        if (requestPath(request) == "/large" && firstByte(request, &last) >= 0) pieceEnds.insert(last);
    }
    EXPECT_GE(pieceEnds.size(), 32u);
    // Handed out means verified by the channel; the bytes are checked too.
    for (int i = 0; i < kFiles; ++i)
        ASSERT_TRUE(fileHoldsGenerated(dir + "/s/" + std::to_string(i), kSeed + 1000 + i, smallSize(i))) << i;
    EXPECT_TRUE(fileHoldsGenerated(dir + "/large", kLargeSeed, large));
    unlink((dir + "/large").c_str());  // leave no gigabytes behind
}

// Through the exported factory; each cycle fetches from nginx over HTTP and HTTPS, and keeps its
// connections for close(). The fixture finds what a cycle leaked.
TEST_F(Stress, AHundredChannelLifecyclesThroughTheFactoryLeakNothing) {
    const std::string small = readFile(peers().www + "/small/f00042.bin");
    for (int cycle = 0; cycle < 100 && !HasFailure(); ++cycle) {
        VRAXSecureWebChannel* channel = VRAXSecureWebChannelCreate();
        ASSERT_EQ(channel->init(4), 0);
        channel->setParam(kParamTimeout, "10", true);
        const std::string sub = "/" + std::to_string(cycle);
        job(*channel, peers().httpUrl("/five.bin"), sub + "/five", 5, digestOf("hello"), "md5");
        job(*channel, peers().httpsUrl("/small/f00042.bin"), sub + "/small", 1024);
        EXPECT_EQ(channel->httpMultiGet(false), 0);
        EXPECT_EQ(channel->getNextDownloadedFile() + channel->getNextDownloadedFile(), 1);  // 0 and 1
        EXPECT_EQ(channel->getNextDownloadedFile(), -1);
        channel->close();
        VRAXSecureWebChannelDestroy(channel);
        EXPECT_TRUE(readFile(dir + sub + "/small") == small);
    }
}

}  // namespace
