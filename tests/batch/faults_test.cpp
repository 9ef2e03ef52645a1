// Faults injected by scripted servers, each with every consequence asserted: codes, only verified files handed
// out, repeats, resume offsets, connections, and (through the fixture) no descriptor or thread left behind.
#include <unistd.h>

#include <atomic>
#include <set>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using Faults = Fixture<>;

// A file in two pieces whose back piece is cut by a close: the next batch resumes that piece from its first
// missing byte, verifies the file once, whole (the resumed answer waits, so an early verification shows), then
// hands it out. Corrupted, it gives -3061, and the batch after fetches every piece again from its first byte.
class PiecesAcrossBatches : public Fixture<::testing::TestWithParam<bool>> {};

TEST_P(PiecesAcrossBatches, TheFileIsVerifiedOnceWholeAndOnlyThenHandedOut) {
    const uint64_t seed = 145, size = 3 << 20;
    webChannel channel;
    Routes server({{"/f", [&](ServerConnection& c, const std::string& request, int attempt) {
                        long long last = 0, first = firstByte(request, &last), half;
                        if (first == (long long)size / 2 && attempt < 2) {
                            half = serve(c, request, seed, size, false, 0.5);
                            EXPECT_TRUE(eventually([&] { return pieceWritten(channel, "/f", last) == half; }));
                            return c.close(), false;
                        }
                        std::string part = generated(seed, (uint64_t)first, (size_t)(last - first + 1));
                        if (attempt == 2) eventually([&] { return errorCodeNow(channel) != 0; }, 300);
                        if (attempt == 2 && GetParam()) part[part.size() / 2] ^= 0x01;
                        return c.send(httpResponse(206, part,
                                                   "Content-Range: bytes " + std::to_string(first) + "-" +
                                                       std::to_string(last) + "/" + std::to_string(size)));
                    }}});
    init(channel, 2);
    add(channel, server.url("/f"), "/f", seed, size);
    EXPECT_EQ(channel.httpMultiGet(false), 1);
    expectFirstFailure(channel, kReadFailed, dir + "/f");
    EXPECT_EQ(handedOut(channel), Ints{});
    EXPECT_EQ(channel.httpMultiGet(true), GetParam() ? 1 : 0);
    std::vector<std::string> requests = server.requestsFor("/f");
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(firstByte(requests[2]), (long long)size * 3 / 4);
    if (GetParam()) {
        expectFirstFailure(channel, kChecksumMismatch, dir + "/f");
        EXPECT_EQ(handedOut(channel), Ints{}) << "a file that fails its digest was handed out";
        EXPECT_EQ(channel.httpMultiGet(true), 0);
        ASSERT_EQ((requests = server.requestsFor("/f")).size(), 5u);
        EXPECT_EQ(std::set<long long>({firstByte(requests[3]), firstByte(requests[4])}),
                  std::set<long long>({0, (long long)size / 2}));
    }
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), 0) << "the file was verified before it was whole";
    EXPECT_EQ(handedOut(channel), Ints{0});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/f", seed, size));
    EXPECT_EQ(channel.m_filesRehashed, 0) << "the digest was not streamed across the batches";
}

INSTANTIATE_TEST_SUITE_P(Faults, PiecesAcrossBatches, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "CorruptedResume" : "CleanResume"); });

// Four workers: /f0 and /f2 go to the first, /silent and /behind to the second, /f1 and /late to the third, /mid
// to the fourth. /f0, reset mid-body, resumes at once. A reset before the head (/f1), a kept connection closed
// as the next request arrives (/f2) and a stall mid-body (/mid) are repeated after a counted 2-second pause from
// the first missing byte (/mid's repeat gets a 200 with the whole file, its head skipped). Silence before the
// head (/silent) fails its job and ends its worker's work (/behind) only; a later failure (/late) leaves the
// first one reported.
TEST_F(Faults, BrokenConnectionsAreResumedOrRepeatedAfterACountedPauseOrFailOnlyTheirOwnWorker) {
    LogCapture log;
    std::atomic<long long> half{0};
    webChannel channel;
    using Fault = std::function<void(ServerConnection&, const std::string&)>;
    const std::tuple<std::string, uint64_t, uint64_t, Fault> jobs[] = {
        {"/f0", 50, 10000,
         [&](ServerConnection& c, const std::string& request) {
             const long long sent = serve(c, request, 50, 10000, false, 0.5);
             EXPECT_TRUE(eventually([&] { return pieceWritten(channel, "/f0", 9999) == sent; }));
             c.reset();
         }},
        {"/silent", 41, 1000, [](ServerConnection& c, const std::string&) { c.stall(20); }},
        {"/f1", 51, 10000, [](ServerConnection& c, const std::string&) { c.reset(); }},
        {"/mid", 42, 200000,
         [&](ServerConnection& c, const std::string& request) {
             half = serve(c, request, 42, 200000, false, 0.5);
             c.stall(20);
         }},
        {"/behind", 53, 10000, nullptr},
        {"/f2", 52, 10000, [](ServerConnection& c, const std::string&) { c.close(); }},
        {"/late", 54, 1000, [&](ServerConnection& c, const std::string&) {
             EXPECT_TRUE(eventually([&] { return errorCodeNow(channel) != 0; }));
             c.send(httpResponse(404, ""));
         }}};
    std::map<std::string, Routes::Route> routes;
    for (const auto& [path, seed, size, fault] : jobs)
        routes[path] = [seed = seed, size = size, fault = fault, whole = path == "/mid"](
                           ServerConnection& c, const std::string& request, int attempt) {
            return attempt > 0 ? serve(c, request, seed, size, whole) >= 0 : (fault(c, request), false);
        };
    Routes server(routes);
    init(channel, 4, "1");
    for (const auto& [path, seed, size, fault] : jobs) add(channel, server.url(path), path, seed, size);
    const auto start = Clock::now();
    EXPECT_EQ(channel.httpMultiGet(true), 3);
    EXPECT_GE(secondsSince(start), 2.9);  // the time-out, then the pause
    EXPECT_LT(secondsSince(start), 10.0);
    expectFirstFailure(channel, kReadFailed, dir + "/silent");
    EXPECT_EQ(handedOut(channel), (Ints{0, 2, 3, 5}));
    for (const auto& [path, seed, size, fault] : jobs)
        EXPECT_EQ(fileHoldsGenerated(dir + path, seed, size), path.size() == 3 || path == "/mid") << path;
    for (const auto& [path, resume] : std::map<std::string, long long>{
             {"/f0", 5000}, {"/f1", 0}, {"/f2", 0}, {"/mid", half.load()}, {"/silent", -2}, {"/late", -2}}) {
        const std::vector<std::string> requests = server.requestsFor(path);
        ASSERT_EQ(requests.size(), resume < -1 ? 1u : 2u) << path;
        EXPECT_EQ(firstByte(requests.back()), resume < -1 ? 0 : resume) << path;
    }
    EXPECT_EQ(server.requestsFor("/behind").size(), 0u);
    EXPECT_EQ(server.connections(), 8);
    EXPECT_EQ(channel.m_filesRehashed, 0);
    EXPECT_EQ(countLines(log.text(), kCountedRepeat), 3);
}

// Sizes unknown, a whole-file answer cut by a reset starts over from the first byte: the bytes written twice
// leave the streamed digest behind, and the file is hashed from disk instead, whole and once.
TEST_F(Faults, AWholeFileAnswerThatStartsOverIsVerifiedFromDisk) {
    webChannel channel;
    Routes server({{"/w", [&](ServerConnection& c, const std::string& request, int attempt) {
                        if (attempt > 0) return serve(c, request, 60, 300000) >= 0;
                        const long long sent = serve(c, request, 60, 300000, false, 0.5);
                        EXPECT_TRUE(eventually([&] { return pieceWritten(channel, "/w", -1) == sent; }));
                        return c.reset(), false;
                    }}});
    init(channel, 1);
    channel.setParam(kParamUnknownSize, "", true);
    job(channel, server.url("/w"), "/w", 0, digestOf("", "sha256", 60, 300000), "sha256");
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(handedOut(channel), Ints{0});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/w", 60, 300000));
    EXPECT_EQ(channel.m_filesRehashed, 1);
}

// Malformed answers, absurd lengths, broken chunk framing and bad redirects, each for one job of a two-worker
// batch whose other job is served correctly; "BASE" stands for the server's URL. After sending, the server
// closes, stalls, reads on, or closes once (or keeps the connection once) and then serves the content.
enum After { kClose, kStall, kKeep, kOnce, kOnceKept };

struct BadAnswer {
    const char* name;
    std::string bytes;
    After after;
    int code;                  // the job's result (0: it arrives verified)
    size_t requests = 1;       // for the job's path
    bool sizeUnknown = false;  // added in unknown-size mode: asked for without a Range
    long long again = 0;       // where a repeat asks from: nothing of a bad answer is kept
};

const std::string kPartial = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-4/5\r\n",
                  kFound = "HTTP/1.1 302 Found\r\nContent-Length: 0\r\n";
const std::string kPartialAt = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes ";
const std::string kChunked = kPartial + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kGiant = "Content-Length: 99999999999999999999\r\n";

const std::string kBody = generated(70, 0, 5);  // the job's content

const BadAnswer kBadAnswers[] = {
    {"NoBlankAnywhere", "HTTP/1.1_206_Partial\r\nContent-Length:5\r\n\r\nhello", kClose, kBadStatus},
    {"Informational", "HTTP/1.1 100 Continue\r\n\r\n", kClose, kBadStatus},
    {"UnsupportedCoding", kPartial + "Transfer-Encoding: gzip\r\n\r\nhello", kClose, kBadStatus},
    {"HeadCutOffByClose", kPartial + "Content-Length: 5\r\n", kClose, kReadFailed},
    {"HeadLongerThanTheBuffer", kPartial + "X-Padding: " + std::string(600000, 'p') + "\r\n", kStall, kBadStatus},
    {"NegativeContentLength", kPartial + "Content-Length: -5\r\n\r\nhello", kClose, kBadStatus},
    {"GiantLengthOnARangedAnswer", kPartial + kGiant + "\r\n" + kBody, kStall, 0},
    {"GiantLengthWithoutARangeUntilTheClose", "HTTP/1.1 200 OK\r\n" + kGiant + "\r\n" + kBody, kClose, kReadFailed, 1,
     true},
    {"GiantLengthOnAnError", "HTTP/1.1 404 Not Found\r\n" + kGiant + "\r\nnot here", kClose, kBadStatus},
    {"GiantLengthOnARedirect", "HTTP/1.1 302 Found\r\n" + kGiant + "Location: BASE/target\r\n\r\nmoved", kClose, 0},
    {"ChunkSizeOfSeventeenDigits", kChunked + "10000000000000000\r\nhello\r\n0\r\n\r\n", kStall, kReadFailed},
    {"ChunkSizeWithAllBitsSet", kChunked + "ffffffffffffffff\r\nhello\r\n0\r\n\r\n", kStall, kReadFailed},
    {"ChunkSizeAtTheLimit", kChunked + "7ffffffffffffffd\r\nhello\r\n0\r\n\r\n", kStall, kReadFailed},
    {"NegativeChunkSize", kChunked + "-5\r\nhello\r\n0\r\n\r\n", kStall, kReadFailed},
    {"ChunkSizeWithoutDigits", kChunked + "zz\r\nhello\r\n0\r\n\r\n", kStall, kReadFailed},
    {"NoLineEndAfterChunkData", kChunked + "5\r\nhelloXY0\r\n\r\n", kStall, kReadFailed},
    {"BareLineFeedAfterChunkData", kChunked + "5\r\nhello\n0\r\n\r\n", kStall, kReadFailed},
    {"SecondChunkWithoutLineEnd", kChunked + "2\r\nhe\r\n3\r\nlloZZ0\r\n\r\n", kStall, kReadFailed},
    {"RedirectToARelativePath", kFound + "Location: /elsewhere/file.bin\r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectToAHostWithoutScheme", kFound + "Location: elsewhere..invalid/file.bin\r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectToASchemeWithoutHost", kFound + "Location: http://\r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectWithoutLocation", kFound + "\r\n", kKeep, kInvalidArgument},
    {"RedirectLoop", kFound + "Location: BASE/bad\r\n\r\n", kKeep, kTooManyAttempts, 30},
    // A partial answer is written only where its range says it belongs; otherwise it costs an attempt.
    {"PartialAnswerWithoutRange", "HTTP/1.1 206 Partial Content\r\nContent-Length: 5\r\n\r\n!!!!!", kOnce, 0, 2},
    {"PartialAnswerWithAGarbledRange", kPartialAt + "0-x/5\r\nContent-Length: 5\r\n\r\n!!!!!", kOnce, 0, 2},
    {"PartialAnswerForAnotherPlace", kPartialAt + "1-4/5\r\nContent-Length: 4\r\n\r\n!!!!", kOnce, 0, 2},
    {"PartialAnswerOfAnotherFile", kPartialAt + "0-4/6\r\nContent-Length: 5\r\n\r\n!!!!!", kOnce, 0, 2},
    // A partial answer writes no byte past its range: the rest of the piece is asked for again.
    {"PartialBodyLongerThanItsRange", kPartialAt + "0-2/5\r\nContent-Length: 5\r\n\r\n" + kBody.substr(0, 3) + "!!",
     kOnceKept, 0, 2, false, 3},
    {"ChunkedPartialLongerThanItsRange", kChunked + "5\r\n" + kBody + "\r\n3\r\nXYZ\r\n0\r\n\r\n", kStall, 0},
    // Another file, or another place, once more after a fresh attempt: the job ends at once, with -3061.
    {"PartialAnswerOfAnotherFileTwice", kPartialAt + "0-4/6\r\nContent-Length: 5\r\n\r\n!!!!!", kClose,
     kChecksumMismatch, 2},
    {"PartialAnswerForAnotherPlaceTwice", kPartialAt + "1-4/5\r\nContent-Length: 4\r\n\r\n!!!!", kClose,
     kChecksumMismatch, 2},
    {"WholeAnswerOfAnotherFileTwice", "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\n!!!!!!", kClose, kChecksumMismatch,
     2},
};

class BadAnswers : public Fixture<::testing::TestWithParam<BadAnswer>> {};

TEST_P(BadAnswers, EndOnlyTheirOwnJobWithTheExactCode) {
    const BadAnswer& bad = GetParam();
    LogCapture log;
    std::string base;
    Routes server({{"/bad",
                    [&](ServerConnection& c, const std::string& request, int attempt) {
                        if ((bad.after == kOnce || bad.after == kOnceKept) && attempt > 0)
                            return serve(c, request, 70, 5) >= 0;
                        std::string bytes = bad.bytes;
                        if (size_t at = bytes.find("BASE"); at != std::string::npos) bytes.replace(at, 4, base);
                        c.send(bytes);
                        if (bad.after == kStall) c.stall(20);
                        return bad.after == kKeep || bad.after == kOnceKept;
                    }},
                   {"/target", content(70, 5)},
                   {"/good", content(71, 100000)}});
    base = server.url("");
    webChannel channel;
    init(channel, 2, "1");
    if (bad.sizeUnknown) channel.setParam(kParamUnknownSize, "", true);
    job(channel, server.url("/bad"), "/bad", bad.sizeUnknown ? 0 : 5, digestOf(kBody), "md5");
    job(channel, server.url("/good"), "/good", bad.sizeUnknown ? 0 : 100000, digestOf("", "md5", 71, 100000), "md5");
    const auto start = Clock::now();
    EXPECT_EQ(channel.httpMultiGet(true), bad.code == 0 ? 0 : 1);
    EXPECT_LT(secondsSince(start), 10.0);
    if (bad.code != 0) expectFirstFailure(channel, bad.code, dir + "/bad");
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), bad.code);
    ASSERT_EQ(server.requestsFor("/bad").size(), bad.requests);
    for (const std::string& request : server.requestsFor("/bad"))
        EXPECT_EQ(firstByte(request), bad.sizeUnknown ? -1 : request == server.requestsFor("/bad")[0] ? 0 : bad.again);
    EXPECT_EQ(server.total(), bad.requests + 1 + server.requestsFor("/target").size());  // nowhere else
    EXPECT_EQ(handedOut(channel), (bad.code == 0 ? Ints{0, 1} : Ints{1}));
    EXPECT_TRUE(bad.code != 0 || fileHoldsGenerated(dir + "/bad", 70, 5));
    EXPECT_TRUE(fileHoldsGenerated(dir + "/good", 71, 100000));
    // A repeat after an answer that wrote nothing costs an attempt.
    const bool counted = (bad.after == kOnce && bad.again == 0) || bad.code == kChecksumMismatch;
    EXPECT_EQ(countLines(log.text(), kCountedRepeat), counted ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, BadAnswers, ::testing::ValuesIn(kBadAnswers),
                         [](const auto& info) { return std::string(info.param.name); });

// A proxy in front of the HTTPS jobs closes the first tunnel to 127.0.0.1 once it has read the CONNECT (a
// counted repeat) and refuses the next with a 407; the tunnel to localhost it opens, then stalls the TLS
// handshake, which ends with the time-out. Each fails its own job with its code; the plain job arrives.
TEST_F(Faults, BrokenTunnelsAndHandshakesFailOnlyTheirOwnJobs) {
    LogCapture log;
    std::atomic<int> tunnels{0};
    ScriptServer proxy([&](ServerConnection& c) {
        const std::string head = c.readHead();
        if (head.rfind("CONNECT localhost:443 HTTP/1.1\r\n", 0) == 0 && c.send("HTTP/1.1 200 OK\r\n\r\n")) c.stall(15);
        if (head.rfind("CONNECT 127.0.0.1:443 HTTP/1.1\r\n", 0) == 0 && tunnels++ > 0)
            c.send("HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 0\r\n\r\n");
    });
    const std::string k256m1 = readFile(peers().www + "/k256m1.bin");
    webChannel channel;
    init(channel, 3);
    ASSERT_EQ(channel.setProxy(nullptr, ("http://u:p@127.0.0.1:" + std::to_string(proxy.port())).c_str()), 0);
    job(channel, "https://127.0.0.1/five.bin", "/refused", 5, digestOf("hello"), "md5");
    job(channel, "https://localhost/five.bin", "/stalled", 5, digestOf("hello"), "md5");
    job(channel, peers().httpUrl("/k256m1.bin"), "/k256m1", (long long)k256m1.size(), digestOf(k256m1), "md5");
    const auto start = Clock::now();
    EXPECT_EQ(channel.httpMultiGet(true), 2);
    EXPECT_GE(secondsSince(start), 1.9);
    EXPECT_LT(secondsSince(start), 10.0);
    EXPECT_EQ(std::make_pair(channel.m_batch[0]->error, channel.m_batch[1]->error),
              std::make_pair((int)kTunnelRefused, (int)kTlsHandshake));
    EXPECT_EQ(handedOut(channel), Ints{2});
    EXPECT_TRUE(readFile(dir + "/k256m1") == k256m1);
    EXPECT_TRUE(proxy.connections() == 3 && tunnels.load() == 2);
    EXPECT_EQ(countLines(log.text(), kCountedRepeat), 1);
}

// Targets that bite root too: a file in the way of a directory (refused by addJob, yet listed) and a directory
// in the way of the file fail with -3054; a link to /dev/full cuts its body short (-3051). No partial file is
// handed out, in any batch.
TEST_F(Faults, TargetsThatCannotBeWrittenFailOnlyTheirOwnJobsInEveryBatchAndSingleGets) {
    ScriptServer server([](ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty() && serve(c, request, 7, 100000) >= 0;) {
        }
    });
    std::ofstream(dir + "/file") << "in the way";
    ASSERT_EQ(symlink("/dev/full", (dir + "/full").c_str()), 0);
    webChannel channel;
    init(channel, 4, "5");
    job(channel, server.url("/a"), "/file/a", 100000, digestOf("", "md5", 7, 100000), "md5", kFileWrite);
    add(channel, server.url("/b"), "/b", 7, 100000);
    ASSERT_TRUE(std::filesystem::remove(dir + "/b") && std::filesystem::create_directory(dir + "/b"));
    job(channel, server.url("/full"), "/full", 100000);  // no digest: reading /dev/full never ends
    add(channel, server.url("/c"), "/c", 7, 100000);
    for (const Ints& handed : {Ints{3}, Ints{}}) {  // small files go whole, one to each worker
        EXPECT_EQ(channel.httpMultiGet(false), 3);
        const Ints errors{kFileWrite, kFileWrite, kReadFailed, 0};  // a full disk cuts the body short
        for (int t = 0; t < 4; ++t) EXPECT_EQ(channel.m_batch[t]->error, errors[t]) << t;
        const int first = channel.getErrorCode(nullptr, 0);
        EXPECT_TRUE(first == kFileWrite || first == kReadFailed) << first;
        EXPECT_EQ(handedOut(channel), handed);
    }
    EXPECT_TRUE(fileHoldsGenerated(dir + "/c", 7, 100000));
    // While the batch's failures stand, single GETs send nothing; after close() they go out again.
    const size_t requests = server.requests().size();
    EXPECT_EQ(channel.httpGet(server.url("/s").c_str(), (dir + "/s").c_str()), kCancelled);
    EXPECT_EQ(channel.httpGet(server.url("/s").c_str()), kCancelled);
    EXPECT_EQ(server.requests().size(), requests);
    channel.close();
    EXPECT_EQ(channel.httpGet(server.url("/s").c_str(), (dir + "/file/single").c_str()), kFileWrite);
    EXPECT_EQ(channel.httpGet(server.url("/s").c_str(), (dir + "/full").c_str()), kReadFailed);
    channel.close();
}

}  // namespace
