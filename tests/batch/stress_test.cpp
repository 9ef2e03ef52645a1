// Load: 64 workers over 2,000 files and one large file cut into many pieces, from a server that resets a tenth
// of its connections, batch after batch until complete.
#include <unistd.h>

#include <set>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using Stress = Fixture<>;

constexpr int kFiles = 2000;
constexpr uint64_t kSeed = 20240601;

uint64_t sizeOf(int i) {  // 1 to 32 KiB; the large file (-1) 2 GiB, in sanitizer builds 64 MiB
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const char* full = std::getenv("WEBCHANNEL_STRESS_FULL");  // "1" for the full size
    if (i < 0 && !(full && std::string(full) == "1")) return 64ULL << 20;
#endif
    return i < 0 ? 2ULL << 30 : 1024 + mix(kSeed + i) % (31 * 1024);
}

// The large file is generated from its offsets, never held in memory.
TEST_F(Stress, SixtyFourWorkersFinishTwoThousandFilesAndALargeFileWhileATenthOfConnectionsAreReset) {
    std::atomic<int> resets{0};
    ScriptServer server([&](ServerConnection& c) {
        // A tenth of the connections, drawn from a fixed seed, are reset in the middle of an answer: of a piece
        // of the large file at once, of small files after a few answers.
        const uint64_t draw = mix(kSeed ^ c.index());
        for (int n = 0; n < 1000000; ++n) {
            const std::string request = c.readRequest(30000), path = requestPath(request);
            const int i = path == "/large" ? -1 : atoi(path.c_str() + 3);  // "/s/<i>"
            if (request.empty()) return;
            if (draw % 10 == 0 && (n == (int)((draw >> 8) % 4) || i < 0)) {
                ++resets;
                serve(c, request, kSeed + 1000 + i, sizeOf(i), false, 0.5, 256 * 1024);
                return c.reset();
            }
            if (serve(c, request, kSeed + 1000 + i, sizeOf(i)) < 0) return;
        }
    });
    webChannel channel;
    init(channel, 64, "20");
    for (int i = -1; i < kFiles; ++i) {
        const std::string path = i < 0 ? "/large" : "/s/" + std::to_string(i);
        add(channel, server.url(path), path, kSeed + 1000 + i, sizeOf(i));
    }
    const auto start = Clock::now();
    std::set<int> handed;
    int batches = 0, pending = -1;
    for (; batches < 10 && pending != 0; ++batches) {
        pending = channel.httpMultiGet(false);
        for (int index : handedOut(channel)) EXPECT_TRUE(handed.insert(index).second) << "handed out twice: " << index;
    }
    channel.close();
    EXPECT_TRUE(pending == 0 && handed.size() == kFiles + 1u && resets.load() > 0);
    EXPECT_LT(secondsSince(start), 240.0);
    std::set<long long> pieceEnds;  // of the large file, asked for in many pieces
    for (const std::string& request : server.requests()) {
        long long last = -1;
        if (requestPath(request) == "/large" && firstByte(request, &last) >= 0) pieceEnds.insert(last);
    }
    EXPECT_GE(pieceEnds.size(), 32u);
    // Handed out means verified by the channel; the bytes are checked too.
    for (int i = -1; i < kFiles; ++i) {
        const std::string path = i < 0 ? "/large" : "/s/" + std::to_string(i);
        ASSERT_TRUE(fileHoldsGenerated(dir + path, kSeed + 1000 + i, sizeOf(i))) << path;
    }
    unlink((dir + "/large").c_str());  // leave no gigabytes behind
}

}  // namespace
