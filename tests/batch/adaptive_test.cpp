// The adaptive mode against scripted servers whose connections crawl or ignore ranges: idle workers take queued
// files, the far part of pieces under way and the tail of a crawling connection; every file arrives whole, its
// digest streamed (no byte written twice), the progress never above its total, and a size-only file cut into
// pieces passes its size check.
#include <atomic>
#include <set>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using Adaptive = Fixture<>;

// Answers a range at about `rate` bytes a second (blocks of 16 KiB), until done or the client goes away; the
// body bytes sent.
long long crawl(ServerConnection& c, const std::string& request, uint64_t seed, uint64_t size, long long rate) {
    long long last = (long long)size - 1, first = std::max(firstByte(request, &last), 0LL);
    if (!c.send("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(first) + "-" +
                std::to_string(last) + "/" + std::to_string(size) +
                "\r\nContent-Length: " + std::to_string(last - first + 1) + "\r\n\r\n"))
        return 0;
    const long long block = 16 << 10;
    const auto gap = std::chrono::microseconds(block * 1000000 / rate);
    long long at = first;
    for (; at <= last && c.send(generated(seed, (uint64_t)at, (size_t)std::min(block, last - at + 1))); at += block)
        std::this_thread::sleep_for(gap);  // the link's pace, not a synchronisation
    return std::min(at, last + 1) - first;
}

// Reports that count more bytes done than the batch holds.
struct Totals {
    static void handler(bool&, int, long long done, long long total, int, void* data) {
        if (done > total) static_cast<Totals*>(data)->over++;
    }
    std::atomic<int> over{0};
};

// One file in two pieces; the back piece's connection crawls. The first worker, done, takes the far part of the
// piece under way, balanced by the measured rates, and later the crawling tail: the slow connection is cut at the
// byte it reached, each byte written once (the digest streams), and the file arrives verified.
TEST_F(Adaptive, AnIdleWorkerTakesTheFarPartOfAPieceUnderWayAndTheCrawlingTail) {
    const uint64_t seed = 301, size = 8 << 20;
    std::atomic<long long> crawled{-1};
    Routes server({{"/f", [&](ServerConnection& c, const std::string& request, int) {
                        if (firstByte(request) != (long long)size / 2) return serve(c, request, seed, size) >= 0;
                        crawled = crawl(c, request, seed, size, 1 << 20);
                        return false;
                    }}});
    webChannel channel;
    init(channel, 2, "20");
    channel.setParam(kParamAdaptive, "", true);
    Totals totals;
    channel.setHandler(Totals::handler, &totals);
    add(channel, server.url("/f"), "/f", seed, size);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(handedOut(channel), Ints{0});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/f", seed, size));
    EXPECT_EQ(channel.m_filesRehashed, 0) << "a byte was written twice";
    EXPECT_EQ(totals.over.load(), 0);
    const std::vector<std::string> requests = server.requestsFor("/f");
    EXPECT_LE(requests.size(), 8u);
    int inCrawlingPiece = 0;  // requests after the crawling one, for bytes it was asked for
    for (size_t i = 2; i < requests.size(); ++i) inCrawlingPiece += firstByte(requests[i]) > (long long)size / 2;
    EXPECT_GE(inCrawlingPiece, 1);
    for (auto* record : channel.m_batch) EXPECT_TRUE(record->jobs.empty());
    EXPECT_TRUE(eventually([&] { return crawled.load() >= 0; }));
    EXPECT_LT(crawled.load(), (long long)size / 4) << "the crawling connection was waited for";
}

// Two workers, four whole files; the first one's connection crawls, the second file waits behind it. The other
// worker, done with its own, takes the queued file whole on its own connection.
TEST_F(Adaptive, AnIdleWorkerTakesAQueuedFileWhole) {
    const uint64_t size = 1 << 20;
    std::mutex mutex;
    std::map<std::string, int> servedOn;  // path -> connection
    auto route = [&](uint64_t seed, bool slow) {
        return [&, seed, slow](ServerConnection& c, const std::string& request, int attempt) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                servedOn.emplace(requestPath(request), c.index());  // the first answer's
            }
            if (slow && attempt == 0) return crawl(c, request, seed, size, 256 << 10) == (long long)size;
            return serve(c, request, seed, size) >= 0;
        };
    };
    Routes server({{"/a", route(1, true)}, {"/b", route(2, false)}, {"/c", route(3, false)}, {"/d", route(4, false)}});
    webChannel channel;
    init(channel, 2, "20");
    channel.setParam(kParamAdaptive, "", true);
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        const std::string path = std::string("/") + char('a' + seed - 1);
        add(channel, server.url(path), path, seed, size);
    }
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(handedOut(channel), (Ints{0, 1, 2, 3}));
    for (uint64_t seed = 1; seed <= 4; ++seed)
        EXPECT_TRUE(fileHoldsGenerated(dir + "/" + char('a' + seed - 1), seed, size)) << seed;
    ASSERT_EQ(server.requestsFor("/b").size(), 1u);
    EXPECT_EQ(firstByte(server.requestsFor("/b")[0]), 0);
    EXPECT_EQ(server.requestsFor("/a").size(), 2u) << "the crawling file's tail was not taken";
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_NE(servedOn["/b"], servedOn["/a"]) << "the queued file waited for the crawling one";
    EXPECT_EQ(channel.m_filesRehashed, 0);
}

// A server that ignores ranges answers a piece with the whole file. Until a first answer shows whether ranges
// work, one piece asks at a time; the whole-file answer then serves every piece, fetched once.
TEST_F(Adaptive, AServerThatIgnoresRangesGivesOneWholeFileFetch) {
    const uint64_t seed = 302, size = 12 << 20;
    std::atomic<long long> sent{0};
    Routes server({{"/f", [&](ServerConnection& c, const std::string& request, int) {
                        const long long body = serve(c, request, seed, size, true);
                        if (body > 0) sent += body;
                        return body >= 0;
                    }}});
    webChannel channel;
    init(channel, 4, "20");
    channel.setParam(kParamAdaptive, "", true);
    channel.setParam(kParamFileOrder, "", true);  // many pieces
    add(channel, server.url("/f"), "/f", seed, size);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(handedOut(channel), Ints{0});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/f", seed, size));
    EXPECT_EQ(server.requestsFor("/f").size(), 1u) << "pieces asked again after the first whole answer";
}

// Cut into pieces without a digest, a file is held to its whole listed size in file order and in the adaptive
// mode, not to the size of the piece that finished last.
class SizeOnly : public Fixture<::testing::TestWithParam<int>> {};

TEST_P(SizeOnly, AFileCutIntoPiecesPassesItsSizeCheck) {
    const std::string source = readFile(peers().www + "/m40.bin");
    webChannel channel;
    init(channel, 4, "20");
    channel.setParam(GetParam(), "", true);
    job(channel, peers().httpUrl("/m40.bin"), "/m40", (long long)source.size());
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), 0);
    EXPECT_EQ(handedOut(channel), Ints{0});
    EXPECT_TRUE(readFile(dir + "/m40") == source);
}

INSTANTIATE_TEST_SUITE_P(Adaptive, SizeOnly, ::testing::Values((int)kParamFileOrder, (int)kParamAdaptive),
                         [](const auto& info) {
                             return std::string(info.param == kParamFileOrder ? "FileOrder" : "Adaptive");
                         });

}  // namespace
