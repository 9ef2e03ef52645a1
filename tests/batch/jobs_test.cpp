// The host's job list: adding (with the size probe) and removing, hostile arguments included.
#include <climits>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;

const std::string kLong(65536, 'a'), kCrLf = "\r\nX-Injected: 1", kNonAscii = "d\xC3\xA4t\xC3\xA4-\xE2\x82\xAC-\xFF";

class Jobs : public Fixture<> {
protected:
    void SetUp() override { init(channel, 2); }
    const std::string nowhere = "http://127.0.0.1:1/";
    webChannel channel;
};

// Missing or unusable arguments are refused (host names with an empty label ask no name server). A target
// already holding the digest (compared lower-cased) is left untouched and not listed; a stale one is
// emptied, missing directories are made, a URL is listed once, and a target that cannot be made is listed.
TEST_F(Jobs, AddingRefusesBadArgumentsSkipsWhatIsPresentEmptiesStaleTargetsAndListsAUrlOnce) {
    const std::string f = dir + "/never", crlfHost = "host..x/" + kCrLf, oddHost = "http://" + kNonAscii + "..x/";
    for (const auto& [url, file, size] : std::vector<std::tuple<const char*, const char*, long long>>{
             {nullptr, f.c_str(), 5},
             {nowhere.c_str(), nullptr, 5},
             {nowhere.c_str(), f.c_str(), -1},
             {nowhere.c_str(), f.c_str(), LLONG_MIN},
             {"", f.c_str(), 0},
             {crlfHost.c_str(), f.c_str(), 0},
             {nowhere.c_str(), f.c_str(), 0},
             {oddHost.c_str(), f.c_str(), 0}}) {  // size 0 asks the server
        EXPECT_EQ(channel.addJob(url, file, size, nullptr, nullptr), kInvalidArgument) << size;
        EXPECT_EQ(channel.addJob_c(url, file, size, nullptr, nullptr), kInvalidArgument) << size;
    }
    EXPECT_EQ(channel.httpMultiGet(false), 0);  // no jobs
    std::ofstream(dir + "/done") << "hello";
    std::ofstream(dir + "/stale") << "old content";
    std::string upper = digestOf("hello");
    for (char& c : upper) c = (char)toupper(c);
    job(channel, nowhere + "done", "/done", 5, upper, "MD5", kAlreadyPresent);
    EXPECT_TRUE(readFile(dir + "/done") == "hello" && channel.m_httpGetJobs.empty());
    job(channel, nowhere + "a", "/stale", 5, "00", "md5");
    job(channel, nowhere + "b", "/a/b/c/new", 5);
    job(channel, nowhere + "b", "/other", 5);
    job(channel, nowhere + "c", "/" + kLong, 5, "", nullptr, kFileWrite);
    EXPECT_EQ(readFile(dir + "/stale") + readFile(dir + "/a/b/c/new"), "");
    ASSERT_EQ(channel.m_httpGetJobs.size(), 3u);
    EXPECT_TRUE(channel.m_httpGetJobs[0].checksum == "00" && channel.m_httpGetJobs[0].end == 4);
    EXPECT_EQ(channel.m_httpGetJobs[1].file, dir + "/a/b/c/new");
}

// Unknown and odd URLs leave the list as it is; a job goes from the list and from the thread lists, and the
// hand-out follows the positions that moved.
TEST_F(Jobs, RemoveJobTakesTheJobOutOfTheListAndTheThreadsAndTheHandOutFollows) {
    for (const char* name : {"a", "b", "c"}) job(channel, nowhere + name, std::string("/") + name, 5);
    job(channel, "", "/" + kNonAscii, 5, kLong, kCrLf.c_str());
    channel.initBatch();
    for (const char* url : {(const char*)nullptr, kLong.c_str(), kCrLf.c_str(), "http://127.0.0.1:1/unknown"})
        EXPECT_EQ(channel.removeJob(url), 4);
    EXPECT_EQ(channel.removeJob(""), 3);
    EXPECT_EQ(channel.removeJob((nowhere + "b").c_str()), 2);
    EXPECT_EQ(channel.m_httpGetJobs[1].url, nowhere + "c");
    for (auto* record : channel.m_batch)
        for (auto& job : record->jobs) EXPECT_TRUE(job.url != nowhere + "b" && !job.url.empty());
    channel.m_downloaded[nowhere + "c"] = -1;  // verified
    EXPECT_EQ(handedOut(channel), Ints{1});
}

// Size 0: the size comes from a probe that reads the head only and drops its connection; the pieces are
// fetched on connections of their own. A redirect's own length is no size (a probe that finds none:
// ErrorDetail). Unknown-size mode does not probe. Without a digest a file in pieces is checked against the size
// of the piece that finished last: a mismatch, and the file is not handed out.
TEST_F(Jobs, ASizeProbeReadsTheHeadOnlyAndDropsItsConnection) {
    const uint64_t size = 2 << 20;
    std::atomic<bool> probeClosed{false};
    std::string base;
    ScriptServer server([&](ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();) {
            if (requestPath(request) == "/moved") {  // a redirect's own length is no size
                c.send("HTTP/1.1 302 Found\r\nContent-Length: 50\r\nLocation: " + base + "/chunked\r\n\r\n" +
                       std::string(50, 'm'));
                continue;
            }
            if (requestPath(request) == "/chunked")
                return (void)c.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
            if (firstByte(request) < 0) return (void)(serve(c, request, 3, size), probeClosed = c.stall(5));
            if (serve(c, request, 3, size) < 0) return;
        }
    });
    base = server.url("");
    job(channel, server.url("/moved"), "/moved", 0, "", nullptr, kInvalidArgument);
    job(channel, server.url("/p"), "/p", 0);
    ASSERT_EQ(channel.m_httpGetJobs.size(), 1u);
    EXPECT_EQ(channel.m_httpGetJobs[0].size, (long long)size);
    EXPECT_TRUE(channel.m_connections.empty());
    const int probes = server.connections();
    EXPECT_EQ(channel.httpMultiGet(true), 1);
    expectFirstFailure(channel, kChecksumMismatch, dir + "/p");
    EXPECT_EQ(handedOut(channel), Ints{});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/p", 3, size));
    EXPECT_TRUE(eventually([&] { return probeClosed.load(); })) << "the probe's connection was kept";
    EXPECT_EQ(server.connections(), probes + 2);
    channel.setParam(kParamUnknownSize, "", true);
    job(channel, server.url("/u"), "/u", 0);
    EXPECT_EQ(server.connections(), probes + 2);
    EXPECT_EQ(channel.m_httpGetJobs.back().end, -1);
}

}  // namespace
