// Single GETs: files and the in-memory form, statuses and faults, answers in pieces (redirects: the redirect tests).
#include <atomic>
#include <fstream>
#include <map>

#include "../transport/transport_helpers.h"

namespace {

using namespace transporttest;

class SingleGet : public ChannelTest {
protected:
    int get(const std::string& url) { return channel.httpGet(url.c_str()); }
    int getFile(const std::string& url, const std::string& file) { return channel.httpGet(url.c_str(), file.c_str()); }
    std::string memory(long long* length = nullptr) { return channel.httpResponse(length); }
    const std::string target = tempDir() + "/target";
};

TEST_F(SingleGet, NginxFilesArriveWholeAndMemoryGetsGiveTheSeparatorAndTheBodyOfTheFirstReadOnly) {
    long long length = -1;
    for (auto url : {&Peers::httpUrl, &Peers::httpsUrl}) {
        for (const std::string name : {"/empty.bin", "/k256p1.bin", "/m40.bin"}) {
            std::ofstream(target) << std::string(10000, 'x');  // to be cut to the body
            ASSERT_EQ(getFile((peers().*url)(name), target), kOk) << name;
            EXPECT_TRUE(readFile(target) == readFile(peers().www + name)) << (peers().*url)(name);
        }
        for (const auto& [name, body] :
             {std::pair<std::string, std::string>{"/five.bin", "hello"}, {"/empty.bin", ""}}) {
            ASSERT_EQ(get((peers().*url)(name)), kOk) << name;
            EXPECT_EQ(memory(&length), "\r\n\r\n" + body) << name;
            EXPECT_EQ(length, (long long)body.size()) << name;
        }
    }
    // One read takes at most 4095 bytes, head included, also when the head comes in pieces; the unread rest is not
    // taken for the next answer.
    const std::string body = pattern(10000, 1, true), answer = httpResponse(200, body);
    ScriptServer server([&](ServerConnection& c) {
        std::string request;
        for (int i = 0; i < 10 && !(request = c.readRequest()).empty(); ++i)
            c.sendPieces(requestPath(request) == "/big" ? answer : httpResponse(200, "next"), {9});
    });
    ASSERT_EQ(get(server.url("/big")), kOk);
    EXPECT_EQ(memory(&length), "\r\n\r\n" + body.substr(0, 4095 - (answer.size() - body.size())));
    EXPECT_EQ(length, 10000);
    ASSERT_EQ(get(server.url("/next")), kOk);
    EXPECT_EQ(memory(&length), "\r\n\r\nnext");
    ASSERT_EQ(getFile(server.url("/next"), target), kOk);
    EXPECT_EQ(server.connections(), 2);  // the file GET took the memory GET's kept connection
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
    std::ofstream(target) << "previous content";
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
    EXPECT_TRUE(watch.tookTheTimeout());
    for (const std::string& request : server.requests()) EXPECT_NE(requestPath(request), "/elsewhere");
}

// The in-memory GET goes again on a fresh connection after resets, three connections at most, and when the server
// closed the kept connection instead of answering.
TEST_F(SingleGet, MemoryGetRepeatsOnFreshConnectionsAfterResetsAndOnAKeptConnectionTheServerClosed) {
    for (int answering : {2, -1}) {  // the third connection answers, or none does
        ScriptServer server([&](ServerConnection& c) {
            if (!c.readRequest().empty()) c.index() == answering ? (void)c.send(httpResponse(200, "third")) : c.reset();
        });
        EXPECT_EQ(get(server.url("/r")), answering < 0 ? kTooManyAttempts : kOk);
        EXPECT_EQ(memory(), "\r\n\r\nthird");  // kept from the first round by the failing second
        EXPECT_EQ(server.connections(), 3);
        EXPECT_EQ(server.requests().size(), 3u);
    }
    ScriptServer server([](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(httpResponse(200, c.index() == 0 ? "one" : "two"));
        if (c.index() == 0) c.readHead();  // then closes
    });
    ASSERT_EQ(get(server.url("/a")), kOk);
    ASSERT_EQ(get(server.url("/b")), kOk) << log.text();
    EXPECT_EQ(memory(), "\r\n\r\ntwo");
    EXPECT_EQ(server.connections(), 2);
    EXPECT_EQ(server.requests().size(), 3u);  // /b went out on the kept connection first
}

// The decoder's wiring into a file GET: reads ending in the head, in size lines, between CR and LF, inside the
// data, and in a chunk larger than the 512 KiB slice or one that fills a read exactly with its size line.
TEST_F(SingleGet, ChunkedBodyReachesTheTargetOnceWhereverTheReadsEnd) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", big = pattern(0x180000, 3);
    const std::string full = pattern(524278, 4), body = "7 bytes" + big + full + "x";
    const std::string wire = head + chunkedBody({"7 bytes", big, full, "x"});
    // The big chunk's data follows "7\r\n7 bytes\r\n180000\r\n"; the full one's "\r\n7fff6\r\n".
    const size_t h = head.size(), bigData = h + 20, bigEnd = bigData + big.size();
    const std::vector<std::vector<size_t>> rules = {{9, h - 1},
                                                    {h, h + 1, h + 11, bigData - 1},
                                                    {h + 2, bigData - 5, bigData + 524287, bigEnd, bigEnd + 1},
                                                    {bigEnd + 2, bigEnd + 6, bigEnd + 9, wire.size() - 7}};
    for (const std::vector<size_t>& cuts : rules) {
        SCOPED_TRACE(::testing::PrintToString(cuts));
        ScriptServer server([&](ServerConnection& c) {
            if (!c.readRequest().empty()) c.sendPieces(wire, cuts);
            c.stall(5);
        });
        std::ofstream(target) << std::string(100000, 'o');
        ASSERT_EQ(getFile(server.url("/c"), target), kOk);
        const std::string got = readFile(target);
        EXPECT_EQ(got.size(), body.size());
        EXPECT_TRUE(got == body);
    }
}

}  // namespace
