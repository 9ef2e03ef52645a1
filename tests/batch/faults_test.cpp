// Faults injected by scripted servers, one test each with every consequence asserted: exact codes, only
// verified files handed out, repeats, resume offsets, connections, and (through the fixture) no descriptor
// or thread left behind.
#include <atomic>
#include <set>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using testsupport::countLines;
using testsupport::LogCapture;
using testsupport::peers;
using Faults = Fixture<>;

// A file in two pieces whose back piece is cut (an orderly close) in one batch: the job fails, and the next
// batch resumes that piece from its first missing byte. The front piece, finished earlier, is not counted
// again, so the file is verified once, whole, and only then handed out: the resumed answer is held back a
// moment so that a verification made too early shows. Corrupted, it gives -3061, and the batch after
// fetches every piece again from its first byte.
class PiecesAcrossBatches : public Fixture<::testing::TestWithParam<bool>> {};

TEST_P(PiecesAcrossBatches, TheFileIsVerifiedOnceWholeAndOnlyThenHandedOut) {
    const bool corrupt = GetParam();
    const uint64_t seed = 145, size = 3 << 20;
    webChannel channel;
    Routes server({{"/f", [&](ServerConnection& c, const std::string& request, int attempt) {
                        long long last = 0, first = firstByte(request, &last);
                        if (first == (long long)size / 2 && attempt < 2) {
                            const long long half = sendHalf(c, request, seed, size);
                            EXPECT_TRUE(eventually([&] { return pieceWritten(channel, "/f", last) == half; }));
                            return c.close(), false;
                        }
                        std::string part = generated(seed, (uint64_t)first, (size_t)(last - first + 1));
                        if (attempt == 2) {
                            eventually([&] { return errorCodeNow(channel) != 0; }, 300);
                            if (corrupt) part[part.size() / 2] ^= 0x01;
                        }
                        return c.send(testsupport::httpResponse(206, part));
                    }}});
    init(channel, 2);
    add(channel, server.url("/f"), "/f", seed, size);
    EXPECT_EQ(channel.httpMultiGet(false), 1);
    expectFirstFailure(channel, kReadFailed, dir + "/f");
    EXPECT_EQ(handedOut(channel), Ints{});
    EXPECT_EQ(server.requestsFor("/f").size(), 2u);

    EXPECT_EQ(channel.httpMultiGet(true), corrupt ? 1 : 0);
    ASSERT_EQ(server.requestsFor("/f").size(), 3u);
    EXPECT_EQ(firstByte(server.requestsFor("/f")[2]), (long long)size * 3 / 4);
    if (corrupt) {
        expectFirstFailure(channel, kChecksumMismatch, dir + "/f");
        EXPECT_EQ(handedOut(channel), Ints{}) << "a file that fails its digest was handed out";
        EXPECT_EQ(channel.httpMultiGet(true), 0);
        const std::vector<std::string> requests = server.requestsFor("/f");
        ASSERT_EQ(requests.size(), 5u);
        EXPECT_EQ(std::set<long long>({firstByte(requests[3]), firstByte(requests[4])}),
                  std::set<long long>({0, (long long)size / 2}));
    }
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), 0) << "the file was verified before it was whole";
    EXPECT_EQ(handedOut(channel), Ints{0});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/f", seed, size));
}

INSTANTIATE_TEST_SUITE_P(Faults, PiecesAcrossBatches, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "CorruptedResume" : "CleanResume"); });

// Driven through the segment download: a reset before the head costs an attempt after a 2-second pause,
// and the thirtieth counted attempt ends the piece, after the pause, without a request.
TEST_F(Faults, ThePieceEndsAtItsThirtiethCountedAttemptWithoutAskingAgain) {
    webChannel channel;
    webChannel::threadData record;
    {
        ScriptServer server([](ServerConnection& c) {
            if (!c.readRequest().empty()) c.reset();
        });
        init(channel, 1);
        record.channel = &channel;
        record.index = 0;  // the worker's slice of the receive buffer
        webChannel::httpGetJob job(server.url("/p"));
        job.file = dir + "/p";
        job.size = 1000;
        job.end = 999;
        webChannel::connection* conn = nullptr;
        int attempts = 29;
        const auto start = Clock::now();
        EXPECT_EQ(channel.httpGet(conn, job.url, job.file, &job, &record, attempts), kRepeat);
        EXPECT_EQ(attempts, 30);
        EXPECT_EQ(channel.httpGet(conn, job.url, job.file, &job, &record, attempts), kTooManyAttempts);
        EXPECT_GE(secondsSince(start), 3.9);
        EXPECT_EQ(server.requests().size(), 1u);
        EXPECT_EQ(job.downloaded, 0);
        channel.emptyPool(record.connections, record.retired);
    }
    channel.close();
}

// The first request for a path meets `fault`; later ones get the content.
using Fault = std::function<void(ServerConnection&, const std::string&)>;
Routes::Route faultOnce(uint64_t seed, uint64_t size, Fault fault) {
    return [=](ServerConnection& c, const std::string& request, int attempt) {
        return attempt > 0 ? serve(c, request, seed, size) : (fault(c, request), false);
    };
}

// Four workers. Small files go whole to the least-loaded worker: /f0 then /f2 to the first, /silent then
// /behind to the second, /f1 then /late (asked for after the pause, so after /silent failed) to the third,
// /mid to the fourth.
// - /f0 is reset mid-body after half its bytes were written: resumed at once, without a counted repeat,
//   from its first missing byte.
// - A reset before the head on a fresh connection (/f1), an orderly close of a kept connection as the next
//   request arrives (/f2), and a stall mid-body beyond the time-out (/mid) are each repeated after a counted
//   2-second pause, on a fresh connection, from the first missing byte.
// - A server silent before the head (/silent) fails its job after the time-out, unasked again, and ends its
//   worker's work (/behind) only; a later failure (/late) leaves the first one reported.
TEST_F(Faults, BrokenConnectionsAreResumedOrRepeatedAfterACountedPauseOrFailOnlyTheirOwnWorker) {
    LogCapture log;
    std::atomic<long long> half{0};
    webChannel channel;
    const std::tuple<std::string, uint64_t, uint64_t, Fault> jobs[] = {
        {"/f0", 50, 10000,
         [&](ServerConnection& c, const std::string& request) {
             const long long sent = sendHalf(c, request, 50, 10000);
             EXPECT_TRUE(eventually([&] { return pieceWritten(channel, "/f0", 9999) == sent; }));
             c.reset();
         }},
        {"/silent", 41, 1000, [](ServerConnection& c, const std::string&) { c.stall(20); }},
        {"/f1", 51, 10000, [](ServerConnection& c, const std::string&) { c.reset(); }},
        {"/mid", 42, 200000,
         [&](ServerConnection& c, const std::string& request) {
             half = sendHalf(c, request, 42, 200000);
             c.stall(20);
         }},
        {"/behind", 53, 10000, nullptr},
        {"/f2", 52, 10000, [](ServerConnection& c, const std::string&) { c.close(); }},
        {"/late", 54, 1000, [&](ServerConnection& c, const std::string&) {
             EXPECT_TRUE(eventually([&] { return errorCodeNow(channel) != 0; }));
             c.send(testsupport::httpResponse(404, ""));
         }}};
    std::map<std::string, Routes::Route> routes;
    for (const auto& [path, seed, size, fault] : jobs)
        routes[path] = fault ? faultOnce(seed, size, fault) : content(seed, size);
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
    EXPECT_EQ(server.requestsFor("/silent").size(), 1u);
    EXPECT_EQ(server.requestsFor("/behind").size(), 0u);
    EXPECT_EQ(server.requestsFor("/late").size(), 1u);
    for (const auto& [path, resume] : {std::make_pair("/f0", 5000LL), {"/f1", 0}, {"/f2", 0}, {"/mid", half.load()}}) {
        ASSERT_EQ(server.requestsFor(path).size(), 2u) << path;
        EXPECT_EQ(firstByte(server.requestsFor(path)[1]), resume) << path;
    }
    EXPECT_EQ(server.connections(), 8);
    EXPECT_EQ(countLines(log.text(), kCountedRepeat), 3);
}

// Malformed answers, absurd lengths, broken chunk framing and bad redirects, each for one job of a
// two-worker batch whose other job is served correctly. "BASE" in an answer stands for the server's URL.
enum After { kClose, kStall, kKeep };

struct BadAnswer {
    const char* name;
    std::string bytes;         // sent after the request was read
    After after;               // then close, wait for the client to give up, or keep reading
    int code;                  // the job's result (0: it arrives verified)
    size_t requests = 1;       // for the job's path
    bool sizeUnknown = false;  // added in unknown-size mode: asked for without a Range
};

const std::string kPartial = "HTTP/1.1 206 Partial Content\r\n", kChunkedHead = kPartial + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kFound = "HTTP/1.1 302 Found\r\nContent-Length: 0\r\n", kGiant = "Content-Length: 99999999999999999999\r\n";
const std::string kBody = generated(70, 0, 5);  // the job's content

const BadAnswer kBadAnswers[] = {
    {"NoBlankAnywhere", "HTTP/1.1_206_Partial\r\nContent-Length:5\r\n\r\nhello", kClose, kBadStatus},
    {"CodeNotANumber", "HTTP/1.1 abc Partial Content\r\nContent-Length: 5\r\n\r\nhello", kClose, kBadStatus},
    {"CodeBeyondAnyInteger", "HTTP/1.1 99999999999999999999 OK\r\nContent-Length: 5\r\n\r\nhello", kClose, kBadStatus},
    {"NegativeCode", "HTTP/1.1 -206 Partial Content\r\nContent-Length: 5\r\n\r\nhello", kClose, kBadStatus},
    {"CodeWithFiveDigits", "HTTP/1.1 20600 Partial Content\r\nContent-Length: 5\r\n\r\nhello", kClose, kBadStatus},
    {"Informational", "HTTP/1.1 100 Continue\r\n\r\n", kClose, kBadStatus},
    {"BinaryGarbage", std::string("\x16\x03\x01\x00\x05garbage\r\n\r\n", 16), kClose, kBadStatus},
    {"NulBytesOnly", std::string(8, '\0'), kClose, kBadStatus},
    {"UnsupportedCoding", kPartial + "Transfer-Encoding: gzip\r\n\r\nhello", kClose, kBadStatus},
    {"HeadCutOffByClose", kPartial + "Content-Length: 5\r\n", kClose, kReadFailed},
    {"HeadLongerThanTheBuffer", kPartial + "X-Padding: " + std::string(600000, 'p') + "\r\n", kStall, kBadStatus},
    {"NegativeContentLength", kPartial + "Content-Length: -5\r\n\r\nhello", kClose, kBadStatus},
    {"GiantLengthOnARangedAnswer", kPartial + kGiant + "\r\n" + kBody, kStall, 0},
    {"GiantLengthWithoutARangeUntilTheClose", "HTTP/1.1 200 OK\r\n" + kGiant + "\r\n" + kBody, kClose, kReadFailed, 1,
     true},
    {"GiantLengthOnAnError", "HTTP/1.1 404 Not Found\r\n" + kGiant + "\r\nnot here", kClose, kBadStatus},
    {"GiantLengthOnARedirect", "HTTP/1.1 302 Found\r\n" + kGiant + "Location: BASE/target\r\n\r\nmoved", kClose, 0},
    {"ChunkSizeOfSeventeenDigits", kChunkedHead + "10000000000000000\r\nhello\r\n0\r\n\r\n", kStall, kBadChunkSize},
    {"ChunkSizeWithAllBitsSet", kChunkedHead + "ffffffffffffffff\r\nhello\r\n0\r\n\r\n", kStall, kBadChunkSize},
    {"ChunkSizeAtTheLimit", kChunkedHead + "7ffffffffffffffd\r\nhello\r\n0\r\n\r\n", kStall, kBadChunkSize},
    {"NegativeChunkSize", kChunkedHead + "-5\r\nhello\r\n0\r\n\r\n", kStall, kBadChunkSize},
    {"ChunkSizeWithoutDigits", kChunkedHead + "zz\r\nhello\r\n0\r\n\r\n", kStall, kMalformedResponse},
    {"NoLineEndAfterChunkData", kChunkedHead + "5\r\nhelloXY0\r\n\r\n", kStall, kMalformedResponse},
    {"BareLineFeedAfterChunkData", kChunkedHead + "5\r\nhello\n0\r\n\r\n", kStall, kMalformedResponse},
    {"SecondChunkWithoutLineEnd", kChunkedHead + "2\r\nhe\r\n3\r\nlloZZ0\r\n\r\n", kStall, kMalformedResponse},
    {"RedirectToARelativePath", kFound + "Location: /elsewhere/file.bin\r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectToAHostWithoutScheme", kFound + "Location: elsewhere..invalid/file.bin\r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectToASchemeWithoutHost", kFound + "Location: http://\r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectToNowhere", kFound + "Location: \r\n\r\n", kKeep, kInvalidArgument},
    {"RedirectWithoutLocation", kFound + "\r\n", kKeep, kInvalidArgument},
    {"RedirectLoop", kFound + "Location: BASE/bad\r\n\r\n", kKeep, kTooManyAttempts, 30},
};

class BadAnswers : public Fixture<::testing::TestWithParam<BadAnswer>> {};

TEST_P(BadAnswers, EndOnlyTheirOwnJobWithTheExactCodeAndNoRepeat) {
    const BadAnswer& bad = GetParam();
    LogCapture log;
    std::string base;
    Routes server({{"/bad",
                    [&](ServerConnection& c, const std::string&, int) {
                        std::string bytes = bad.bytes;
                        if (size_t at = bytes.find("BASE"); at != std::string::npos) bytes.replace(at, 4, base);
                        c.send(bytes);
                        if (bad.after == kStall) c.stall(20);
                        return bad.after == kKeep;
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
    EXPECT_EQ(firstByte(server.requestsFor("/bad")[0]), bad.sizeUnknown ? -1 : 0);
    EXPECT_EQ(server.total(), bad.requests + 1 + server.requestsFor("/target").size());  // nowhere else
    EXPECT_EQ(handedOut(channel), (bad.code == 0 ? Ints{0, 1} : Ints{1}));
    EXPECT_TRUE(bad.code != 0 || fileHoldsGenerated(dir + "/bad", 70, 5));
    EXPECT_TRUE(fileHoldsGenerated(dir + "/good", 71, 100000));
    EXPECT_EQ(countLines(log.text(), kCountedRepeat), 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, BadAnswers, ::testing::ValuesIn(kBadAnswers),
                         [](const auto& info) { return std::string(info.param.name); });

// Every request asks for a range and gets the whole file with a 200: each byte lands at its own offset.
TEST_F(Faults, AServerIgnoringRangesAnswersWholeFilesAndTheBatchStillVerifies) {
    const std::tuple<const char*, uint64_t, uint64_t> files[] = {{"/big", 130, 3 << 20}, {"/s", 131, 300000}};
    Routes server({{"/big", content(130, 3 << 20, true)}, {"/s", content(131, 300000, true)}});
    webChannel channel;
    init(channel, 4);
    for (const auto& [path, seed, size] : files) add(channel, server.url(path), path, seed, size);
    EXPECT_EQ(channel.httpMultiGet(true), 0);
    EXPECT_EQ(handedOut(channel), (Ints{0, 1}));
    for (const auto& [path, seed, size] : files) EXPECT_TRUE(fileHoldsGenerated(dir + path, seed, size)) << path;
    std::set<long long> firsts;
    for (const std::string& request : server.requestsFor("/big")) firsts.insert(firstByte(request));
    EXPECT_GT(firsts.size(), 1u);
    EXPECT_EQ(firsts.count(-1), 0u);
}

// A scripted peer in front of the HTTPS job: a proxy answering the CONNECT (or closing at once first), or,
// reached directly, a TLS server that stops mid-handshake. Only the HTTPS job fails, with the exact code.
struct PeerFault {
    const char* name;
    const char* answer;  // to the CONNECT; none: a TLS server that reads the ClientHello's start and stalls
    int code;
    bool closeFirst = false;  // the first connection is closed at once, before the CONNECT is read
};

const char* const k407 = "HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 0\r\n\r\n";
const PeerFault kPeerFaults[] = {
    {"ProxyRequiresAuthentication", k407, kTunnelRefused},
    {"ProxyBadGateway", "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n", kTunnelRefused},
    // Accepted from its first 63 bytes; the rest meets the TLS handshake.
    {"ProxyOverlongReply",
     "HTTP/1.1 200 Connection established\r\nProxy-agent: scripted-proxy/1.0 with a long name\r\n\r\n", kTlsHandshake},
    {"ProxyClosesAtOnceThenRefuses", k407, kTunnelRefused, true},
    {"TlsServerStopsMidHandshake", nullptr, kTlsHandshake},
};

class PeerFaults : public Fixture<::testing::TestWithParam<PeerFault>> {};

TEST_P(PeerFaults, FailOnlyTheHttpsJobWithTheExactCode) {
    const PeerFault& bad = GetParam();
    LogCapture log;
    ScriptServer peer([&](ServerConnection& c) {
        if (bad.closeFirst && c.index() == 0) return c.close();
        if (bad.answer ? c.readHead().empty() || !c.send(bad.answer) : c.readBytes(5).empty()) return;
        c.stall(15);
    });
    webChannel channel;
    init(channel, 2);
    const std::string k256m1 = testsupport::readFile(peers().www + "/k256m1.bin"), port = std::to_string(peer.port());
    EXPECT_EQ(bad.answer ? channel.setProxy(nullptr, ("http://u:p@127.0.0.1:" + port).c_str()) : 0, 0);
    job(channel, bad.answer ? peers().httpsUrl("/five.bin") : "https://127.0.0.1:" + port + "/five.bin", "/five.bin", 5,
        digestOf("hello"), "md5");
    job(channel, peers().httpUrl("/k256m1.bin"), "/k256m1.bin", (long long)k256m1.size(), digestOf(k256m1), "md5");
    const auto start = Clock::now();
    EXPECT_EQ(channel.httpMultiGet(true), 1);
    // A close is a repeat that costs an attempt and a pause; a stalled handshake ends with the time-out.
    EXPECT_GE(secondsSince(start), bad.closeFirst || !bad.answer ? 1.9 : 0);
    EXPECT_LT(secondsSince(start), 10.0);
    expectFirstFailure(channel, bad.code, dir + "/five.bin");
    EXPECT_EQ(handedOut(channel), Ints{1});
    EXPECT_TRUE(testsupport::readFile(dir + "/k256m1.bin") == k256m1);
    EXPECT_EQ(peer.connections(), bad.closeFirst ? 2 : 1);
    ASSERT_EQ(peer.requests().size(), bad.answer ? 1u : 0u);
    EXPECT_EQ(bad.answer ? peer.requests()[0].rfind("CONNECT 127.0.0.1:443 HTTP/1.1\r\n", 0) : 0u, 0u);
    EXPECT_EQ(countLines(log.text(), kCountedRepeat), bad.closeFirst ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, PeerFaults, ::testing::ValuesIn(kPeerFaults),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
