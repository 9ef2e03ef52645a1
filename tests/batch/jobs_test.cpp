// The host's job list: adding (with the size probe), removing.
#include <sys/stat.h>

#include <atomic>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using testsupport::readFile;

class Jobs : public Fixture<> {
protected:
    void SetUp() override { init(channel, 2); }
    const std::string nowhere = "http://127.0.0.1:1/";
    webChannel channel;
};

TEST_F(Jobs, AddingSkipsATargetHoldingTheDigestTruncatesAStaleOneCreatesDirectoriesAndListsAUrlOnce) {
    std::ofstream(dir + "/done") << "hello";
    std::ofstream(dir + "/stale") << "old content";
    struct stat before, after;
    ASSERT_EQ(stat((dir + "/done").c_str(), &before), 0);
    std::string upper = digestOf("hello");
    for (char& c : upper) c = (char)toupper(c);
    job(channel, nowhere + "done", "/done", 5, upper, "MD5", kAlreadyPresent);  // compared lower-cased
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
    ASSERT_EQ(stat((dir + "/done").c_str(), &after), 0);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(readFile(dir + "/done"), "hello");
    job(channel, nowhere + "a", "/stale", 5, "00", "md5");
    job(channel, nowhere + "b", "/a/b/c/new", 5);
    job(channel, nowhere + "b", "/other", 5);
    EXPECT_EQ(readFile(dir + "/stale") + readFile(dir + "/a/b/c/new"), "");
    ASSERT_EQ(channel.m_httpGetJobs.size(), 2u);
    EXPECT_EQ(channel.m_httpGetJobs[0].checksum, "00");
    EXPECT_EQ(channel.m_httpGetJobs[0].end, 4);
    EXPECT_EQ(channel.m_httpGetJobs[1].file, dir + "/a/b/c/new");
}

TEST_F(Jobs, RemoveJobTakesTheJobOutOfTheListAndTheThreadsAndTheHandOutFollows) {
    for (const char* name : {"a", "b", "c"}) job(channel, nowhere + name, std::string("/") + name, 5);
    channel.initBatch();
    EXPECT_EQ(channel.removeJob((nowhere + "unknown").c_str()), 3);
    EXPECT_EQ(channel.removeJob((nowhere + "b").c_str()), 2);
    EXPECT_EQ(channel.m_httpGetJobs[1].url, nowhere + "c");
    for (auto* record : channel.m_batch)
        for (auto& job : record->jobs) EXPECT_NE(job.url, nowhere + "b");
    channel.m_downloaded[nowhere + "c"] = -1;  // verified
    EXPECT_EQ(handedOut(channel), Ints{1});
}

// Size 0: the size comes from a probe that reads the head only and drops its connection; the pieces are
// fetched on connections of their own. A probe that finds no size rejects the job; unknown-size mode does
// not probe. Without a digest a file in pieces is checked against the size of the piece that finished last:
// a mismatch, and the file is not handed out.
TEST_F(Jobs, ASizeProbeReadsTheHeadOnlyAndDropsItsConnection) {
    const uint64_t size = 2 << 20;
    std::atomic<bool> probeClosed{false};
    ScriptServer server([&](ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();) {
            const std::string path = requestPath(request);
            if (path != "/p")
                return (void)c.send(path == "/missing" ? testsupport::httpResponse(404, "missing")
                                                       : "HTTP/1.1 200 OK\r\n\r\nno length");
            if (firstByte(request) < 0) return (void)(serve(c, request, 3, size), probeClosed = c.stall(5));  // the probe
            if (!serve(c, request, 3, size)) return;
        }
    });
    job(channel, server.url("/missing"), "/missing", 0, "", nullptr, kInvalidArgument);
    job(channel, server.url("/nolength"), "/nolength", 0, "", nullptr, kInvalidArgument);
    job(channel, server.url("/p"), "/p", 0);
    ASSERT_EQ(channel.m_httpGetJobs.size(), 1u);
    EXPECT_EQ(channel.m_httpGetJobs[0].size, (long long)size);
    EXPECT_TRUE(channel.m_connections.empty());
    const int probes = server.connections();
    EXPECT_EQ(channel.httpMultiGet(true), 1);
    expectFirstFailure(channel, kChecksumMismatch, dir + "/p");
    EXPECT_EQ(handedOut(channel), Ints{});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/p", 3, size));
    EXPECT_TRUE(probeClosed.load());
    EXPECT_EQ(server.connections(), probes + 2);
    channel.setParam(kParamUnknownSize, "", true);
    job(channel, server.url("/u"), "/u", 0);
    EXPECT_EQ(server.connections(), probes + 2);
    EXPECT_EQ(channel.m_httpGetJobs.back().end, -1);
}

}  // namespace
