// Single GETs through the exported calls, against nginx and the scripted
// server: files byte for byte, the in-memory form, the request bytes,
// redirects per operation, heads arriving in pieces, statuses and faults,
// and chunked bodies with the reads ending at each part of their framing.
#include <algorithm>
#include <array>
#include <atomic>
#include <map>

#include "http/transfer_fixtures.h"

namespace {

using namespace transfertest;

std::string nginxUrl(const std::string& path, bool https) {
    return https ? peers().httpsUrl(path) : peers().httpUrl(path);
}

class SingleGet : public ChannelTest {
protected:
    int get(const std::string& url) { return channel.httpGet(url.c_str()); }
    int getFile(const std::string& url, const std::string& file) { return channel.httpGet(url.c_str(), file.c_str()); }
    std::string memory(long long* length = nullptr) { return channel.httpResponse(length); }
    const std::string target = tempDir() + "/target";
    // Gets `wire`, sent in pieces cut at `cuts` (repeats are ignored), into a
    // target that held a longer file; gives what the target holds afterwards.
    std::string download(const std::string& wire, std::vector<size_t> cuts) {
        std::sort(cuts.begin(), cuts.end());
        ScriptServer server([&](ServerConnection& c) {
            if (!c.readRequest().empty()) c.sendPieces(wire, cuts);
            c.stall(5);
        });
        writeFile(target, std::string(100000, 'o'));
        EXPECT_EQ(getFile(server.url("/c"), target), kOk);
        return readFile(target);
    }
};

TEST_F(SingleGet, FilesArriveByteIdenticalOverHttpAndHttpsReplacingLongerTargets) {
    for (bool https : {false, true}) {
        for (const std::string name : {"empty.bin", "five.bin", "k256m1.bin", "k256p1.bin", "m40.bin"}) {
            SCOPED_TRACE(name + (https ? " over https" : " over http"));
            writeFile(target, std::string(10000, 'x'));  // to be cut to the body
            const std::string url = nginxUrl("/" + name, https);
            // The non-virtual entry point does the same.
            ASSERT_EQ(name == "k256m1.bin" ? channel.httpGet_c(url.c_str(), target.c_str()) : getFile(url, target),
                      kOk);
            const std::string source = readFile(peers().www + "/" + name), got = readFile(target);
            EXPECT_EQ(got.size(), source.size());
            EXPECT_TRUE(got == source);
        }
    }
}

TEST_F(SingleGet, MemoryGetGivesTheSeparatorAndTheBodyBytesOfTheFirstReadOnly) {
    long long length = -1;
    for (bool https : {false, true}) {
        for (const auto& [name, body] :
             {std::pair<std::string, std::string>{"/five.bin", "hello"}, {"/empty.bin", ""}}) {
            ASSERT_EQ(get(nginxUrl(name, https)), kOk) << name;
            EXPECT_EQ(memory(&length), "\r\n\r\n" + body) << name;
            EXPECT_EQ(length, (long long)body.size()) << name;
        }
    }
    // One read takes at most 4095 bytes, head included; the unread rest is not taken for the next answer.
    const std::string body = pattern(10000, 1, true), answer = httpResponse(200, body);
    ScriptServer server(serveEach([&](const std::string& request) {
        return requestPath(request) == "/big" ? answer : httpResponse(200, "next");
    }));
    ASSERT_EQ(get(server.url("/big")), kOk);
    EXPECT_EQ(memory(&length), "\r\n\r\n" + body.substr(0, 4095 - (answer.size() - body.size())));
    EXPECT_EQ(length, 10000);
    ASSERT_EQ(get(server.url("/next")), kOk);
    EXPECT_EQ(memory(&length), "\r\n\r\nnext");
}

TEST_F(SingleGet, RequestsNameTheAbsoluteUrlForFilesAndThePathInMemoryOnOneKeptConnection) {
    ScriptServer server(serveEach([](const std::string& request) {
        return httpResponse(200, "ok", requestPath(request) == "/login" ? "Set-Cookie: id=42; Path=/" : "");
    }));
    ASSERT_EQ(getFile(server.url("/dir/f.bin"), target), kOk);
    EXPECT_EQ(readFile(target), "ok");
    ASSERT_EQ(getFile(server.url(""), target), kOk);
    ASSERT_EQ(get(server.url("/dir/x?q=1")), kOk);
    EXPECT_EQ(memory(), "\r\n\r\nok");
    ASSERT_EQ(get(server.url("")), kOk);
    channel.setParam(kParamUser, "u", true);
    channel.setParam(kParamPassword, "p", true);
    channel.setParam(kParamCookie, "a=1; b=2", true);
    channel.setParam(kParamNoCache, "", true);
    ASSERT_EQ(get(server.url("/m")), kOk);
    ASSERT_EQ(getFile(server.url("/f"), target), kOk);
    // A password alone sends no credentials; a captured cookie replaces the one set.
    channel.setParam(kParamUser, nullptr, true);
    channel.setParam(kParamNoCache, nullptr, true);
    channel.setParam(kParamCookieCapture, "", true);
    for (const char* path : {"/login", "/page"}) ASSERT_EQ(get(server.url(path)), kOk);
    ASSERT_EQ(getFile(server.url("/file"), target), kOk);
    const std::string http = "http://" + hostOf(server), host = "Host: " + hostOf(server) + "\r\n";
    const std::string params =
        " HTTP/1.1\r\nAuthorization: Basic dTpw\r\nCache-Control: no-cache, no-store, "
        "must-revalidate\r\nCookie: a=1; b=2\r\nExpires: 0\r\n" +
        host + "Pragma: no-cache\r\n\r\n";
    const std::string cookie = " HTTP/1.1\r\nCookie: id=42; Path=/\r\n" + host + "\r\n";
    EXPECT_EQ(
        server.requests(),
        (std::vector<std::string>{
            "GET " + http + "/dir/f.bin HTTP/1.1\r\n" + host + "\r\n", "GET " + http + "/ HTTP/1.1\r\n" + host + "\r\n",
            "GET /dir/x?q=1 HTTP/1.1\r\n" + host + "\r\n", "GET / HTTP/1.1\r\n" + host + "\r\n", "GET /m" + params,
            "GET " + http + "/f" + params, "GET /login HTTP/1.1\r\nCookie: a=1; b=2\r\n" + host + "\r\n",
            "GET /page" + cookie, "GET " + http + "/file" + cookie}));
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(SingleGet, FileGetsFollowRedirectsWhileMemoryGetsRepeatTheSameUrl) {
    for (int code : {301, 302, 303, 307, 308}) {
        SCOPED_TRACE(code);
        ScriptServer destination(serveEach([](const std::string&) { return httpResponse(200, "moved"); }));
        const std::string location = destination.url("/new/place");
        std::atomic<int> starts{0};
        ScriptServer origin(serveEach([&](const std::string& request) {
            if (requestPath(request) == "/start" && starts++ > 0) return httpResponse(200, "again");
            return httpResponse(code, "", "Location: " + location);
        }));
        ASSERT_EQ(getFile(origin.url("/old"), target), kOk);
        EXPECT_EQ(readFile(target), "moved");
        ASSERT_EQ(get(origin.url("/start")), kOk);
        EXPECT_EQ(memory(), "\r\n\r\nagain");
        EXPECT_EQ(
            destination.requests(),
            std::vector<std::string>{"GET " + location + " HTTP/1.1\r\nHost: " + hostOf(destination) + "\r\n\r\n"});
        EXPECT_EQ(origin.requests().size(), 3u);
    }
    // From plain HTTP to the HTTPS peer.
    ScriptServer toTls(serveEach(
        [](const std::string&) { return httpResponse(302, "", "Location: " + peers().httpsUrl("/k256p1.bin")); }));
    ASSERT_EQ(getFile(toTls.url("/plain"), target), kOk);
    EXPECT_TRUE(readFile(target) == readFile(peers().www + "/k256p1.bin"));
    // A redirect to itself ends a file GET after 30 attempts, an in-memory one after 31 redirects.
    ScriptServer loop(
        serveEach([&](const std::string&) { return httpResponse(302, "", "Location: " + loop.url("/")); }));
    EXPECT_EQ(getFile(loop.url("/"), target + "-loop"), kTooManyAttempts);
    EXPECT_EQ(loop.requests().size(), 30u);
    EXPECT_EQ(get(loop.url("/")), kTooManyAttempts);
    EXPECT_EQ(loop.requests().size(), 61u);
}

TEST_F(SingleGet, HeadArrivingInPiecesNeverReachesTheTargetAndMemoryKeepsTheBodyOfItsLastRead) {
    const std::string response = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";  // the head ends at 38
    const std::vector<std::vector<size_t>> cutSets = {{4}, {9}, {20}, {37}, {38}, {2, 9, 17, 25, 35, 36, 37, 38, 40}};
    for (const std::vector<size_t>& cuts : cutSets) {
        SCOPED_TRACE(::testing::PrintToString(cuts));
        ScriptServer server([&](ServerConnection& c) {
            for (int i = 0; i < 10 && !c.readRequest().empty(); ++i)
                if (!c.sendPieces(response, cuts, 50)) return;
        });
        ASSERT_EQ(getFile(server.url("/f"), target), kOk);
        EXPECT_EQ(readFile(target), "hello");
        size_t readEnd = response.size();  // of the read that brings the head's last byte
        for (size_t cut : cuts)
            if (cut > 37 && cut < readEnd) readEnd = cut;
        long long length = -1;
        ASSERT_EQ(get(server.url("/f")), kOk);
        EXPECT_EQ(memory(&length), "\r\n\r\n" + response.substr(38, readEnd - 38));
        EXPECT_EQ(length, 5);
    }
}

TEST_F(SingleGet, StatusesAndBodyEndsGiveTheirCodesAndFailuresLeaveTheTargetAlone) {
    const std::string body = pattern(700000, 3);
    const std::map<std::string, std::string> answers = {
        {"/missing", httpResponse(404, "no such file")},
        {"/choices", httpResponse(300, "choices", "Location: /elsewhere")},
        {"/fine", httpResponse(200, "fine")},
        {"/until-close", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + body},
        {"/short", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(40, 'b')},
        {"/stall", ""}};
    ScriptServer server([&](ServerConnection& c) {
        for (int i = 0; i < 10; ++i) {
            const std::string path = requestPath(c.readRequest());
            if (answers.count(path) == 0 || !c.sendPieces(answers.at(path), {1000, 300000})) return;
            if (path == "/stall") c.stall(10);
            if (path == "/until-close" || path == "/short" || path == "/stall") return;  // and close
        }
    });
    writeFile(target, "previous content");
    EXPECT_EQ(getFile(server.url("/missing"), target), kBadStatus);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadStatus);
    EXPECT_EQ(readFile(target), "previous content");
    EXPECT_EQ(get(server.url("/missing")), kBadStatus);
    EXPECT_EQ(channel.httpGet(server.url("/fine").c_str(), nullptr), kOk);  // no target is no error
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kOk);                       // cleared by the success
    // A 300 is no redirect: in memory it fails, into a file its body is taken.
    EXPECT_EQ(get(server.url("/choices")), kBadStatus);
    EXPECT_EQ(getFile(server.url("/choices"), target), kOk);
    EXPECT_EQ(readFile(target), "choices");
    // Without a length the body ends at the close; shorter than its length, it fails.
    EXPECT_EQ(getFile(server.url("/until-close"), target), kOk);
    EXPECT_TRUE(readFile(target) == body);
    EXPECT_EQ(getFile(server.url("/short"), target), kReadFailed);
    Stopwatch watch;
    EXPECT_EQ(get(server.url("/stall")), kReadFailed);
    EXPECT_TRUE(tookTheTimeout(watch.seconds()));
    EXPECT_EQ(loggedCount("VRAXSecureWebChannel::httpGet: size: -2"), 1) << log.text();
    for (const std::string& request : server.requests()) EXPECT_NE(requestPath(request), "/elsewhere");
}

TEST_F(SingleGet, MemoryGetTriesThreeConnectionsAgainstResets) {
    for (int answering : {2, -1}) {  // the third connection answers, or none does
        ScriptServer server([&](ServerConnection& c) {
            if (!c.readRequest().empty()) c.index() == answering ? (void)c.send(httpResponse(200, "third")) : c.reset();
        });
        EXPECT_EQ(get(server.url("/r")), answering < 0 ? kTooManyAttempts : kOk);
        if (answering > 0) {
            EXPECT_EQ(memory(), "\r\n\r\nthird");
        }
        EXPECT_EQ(server.connections(), 3);
        EXPECT_EQ(server.requests().size(), 3u);
    }
}

// The server closes the kept connection instead of answering the next
// request: the in-memory GET repeats it on a fresh connection.
TEST_F(SingleGet, AKeptConnectionTheServerClosedIsReplacedByAFreshOne) {
    ScriptServer server([](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(httpResponse(200, c.index() == 0 ? "one" : "two"));
        if (c.index() == 0) c.readHead();  // then closes
    });
    ASSERT_EQ(get(server.url("/a")), kOk);
    EXPECT_EQ(memory(), "\r\n\r\none");
    ASSERT_EQ(get(server.url("/b")), kOk) << log.text();
    EXPECT_EQ(memory(), "\r\n\r\ntwo");
    EXPECT_EQ(server.connections(), 2);
    EXPECT_EQ(server.requests().size(), 3u);  // /b went out on the kept connection first
}

// --------------------------------------------------------------------------- Chunked bodies end to end.

const std::string kChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

// Where a read may end in a chunk: inside the size, before the CR of the size
// line, between its CR and LF, right after it, inside the data, before the CR
// after the data, between that CR and LF, exactly after the chunk.
enum Mark { kInSize, kSizeCr, kSizeLf, kData, kMidData, kDataCr, kDataLf, kEnd, kMarks };

// A chunked response with upper-case sizes, an extension and a trailer.
struct ChunkedResponse {
    std::string wire = kChunkedHead, body;
    std::vector<std::array<size_t, kMarks>> chunks;
    size_t lastChunk = 0;

    explicit ChunkedResponse(const std::vector<std::string>& data) {
        for (const std::string& piece : data) {
            char size[32];
            snprintf(size, sizeof(size), "%zX;name=value", piece.size());
            const size_t start = wire.size(), cr = start + strlen(size), data = cr + 2;
            chunks.push_back({start + 1, cr, cr + 1, data, data + piece.size() / 2, data + piece.size(),
                              data + piece.size() + 1, data + piece.size() + 2});
            wire += size + ("\r\n" + piece) + "\r\n";
            body += piece;
        }
        lastChunk = wire.size();
        wire += "0\r\nX-Checksum: abc\r\n\r\n";
    }
    std::vector<size_t> at(Mark mark) const {
        std::vector<size_t> cuts;
        for (const auto& chunk : chunks) cuts.push_back(chunk[mark]);
        return cuts;
    }
};

TEST_F(SingleGet, ChunkedBodyReachesTheTargetOnceWhereverTheReadsEnd) {
    // Small chunks, and chunks around and beyond the 512 KiB receive buffer.
    std::vector<std::string> data = {pattern(500, 1), "7 bytes", pattern(4096, 2), pattern(3 * 512 * 1024, 3)};
    for (size_t size : {524270, 524277, 524279, 524286, 524287, 524288, 524289}) data.push_back(pattern(size, size));
    data.push_back("x");
    const ChunkedResponse response(data);
    // The reads end at one mark in every chunk; then the whole response in one
    // send, right after the head, inside the last chunk, in a large chunk's
    // last bytes, and at all of these at once.
    std::vector<std::vector<size_t>> rules;
    for (int mark = 0; mark < kMarks; ++mark) rules.push_back(response.at((Mark)mark));
    const auto& big = response.chunks[3];
    rules.insert(rules.end(), {{},
                               {kChunkedHead.size()},
                               {response.lastChunk + 1, response.lastChunk + 2},
                               {big[kData] + 524287, big[kDataCr] - 1}});
    std::vector<size_t> all;
    for (const auto& rule : rules) all.insert(all.end(), rule.begin(), rule.end());
    rules.push_back(all);
    for (size_t rule = 0; rule < rules.size(); ++rule) {
        const std::string got = download(response.wire, rules[rule]);
        EXPECT_EQ(got.size(), response.body.size()) << "rule " << rule;
        EXPECT_TRUE(got == response.body) << "rule " << rule;
    }
}

}  // namespace
