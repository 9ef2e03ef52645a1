// The host's job list: adding (with the size probe), removing, validating.
#include <sys/stat.h>

#include <atomic>
#include <cctype>
#include <fstream>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using testsupport::readFile;

class Jobs : public Fixture<> {
protected:
    void SetUp() override { init(channel, 2); }
    static void writeFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
    static std::string upper(std::string text) {
        for (char& c : text) c = (char)toupper(c);
        return text;
    }
    const std::string nowhere = "http://127.0.0.1:1/";
    webChannel channel;
};

TEST_F(Jobs, ATargetAlreadyHoldingTheDigestIsLeftUntouched) {
    writeFile(dir + "/done", "hello");
    struct stat before, after;
    ASSERT_EQ(stat((dir + "/done").c_str(), &before), 0);
    // Digest and algorithm name are compared lower-cased.
    job(channel, nowhere + "done", "/done", 5, upper(digestOf("hello")), "MD5", kAlreadyPresent);
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
    EXPECT_EQ(readFile(dir + "/done"), "hello");
    ASSERT_EQ(stat((dir + "/done").c_str(), &after), 0);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(Jobs, AddingRefusesBadArgumentsTruncatesAStaleTargetCreatesDirectoriesAndListsAUrlOnce) {
    EXPECT_EQ(channel.addJob(nullptr, "/tmp/x", 5, nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(channel.addJob(nowhere.c_str(), nullptr, 5, nullptr, nullptr), kInvalidArgument);
    job(channel, nowhere, "/x", -1, "", nullptr, kInvalidArgument);
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
    writeFile(dir + "/stale", "old content");
    job(channel, nowhere + "a", "/stale", 5, "00", "md5");
    EXPECT_EQ(readFile(dir + "/stale"), "");
    job(channel, nowhere + "b", "/a/b/c/new", 5);
    EXPECT_EQ(readFile(dir + "/a/b/c/new"), "");
    job(channel, nowhere + "b", "/other", 5);
    ASSERT_EQ(channel.m_httpGetJobs.size(), 2u);
    EXPECT_EQ(channel.m_httpGetJobs[0].checksum, "00");
    EXPECT_EQ(channel.m_httpGetJobs[0].end, 4);
    EXPECT_EQ(channel.m_httpGetJobs[1].file, dir + "/a/b/c/new");
}

TEST_F(Jobs, RemoveJobTakesTheJobOutOfTheListAndTheThreads) {
    for (const char* name : {"a", "b", "c"}) job(channel, nowhere + name, std::string("/") + name, 5);
    channel.initBatch();
    EXPECT_EQ(channel.removeJob((nowhere + "unknown").c_str()), 3);
    EXPECT_EQ(channel.removeJob(nullptr), 3);
    EXPECT_EQ(channel.removeJob((nowhere + "b").c_str()), 2);
    EXPECT_EQ(channel.m_httpGetJobs[1].url, nowhere + "c");
    for (auto* record : channel.m_batch)
        for (auto& job : record->jobs) EXPECT_NE(job.url, nowhere + "b");
    // The hand-out follows the positions that moved.
    channel.m_downloaded[nowhere + "c"] = -1;
    EXPECT_EQ(handedOut(channel), (std::vector<int>{1}));
}

// Size 0: the size comes from a probe that reads the head only and drops its
// connection; the pieces are fetched on connections of their own. A probe
// that finds no size rejects the job; unknown-size mode does not probe.
TEST_F(Jobs, ASizeProbeReadsTheHeadOnlyAndDropsItsConnection) {
    const uint64_t size = 2 << 20;
    std::atomic<bool> probeClosed{false};
    ScriptServer server([&](ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();) {
            const std::string path = requestPath(request);
            if (path != "/p")
                return (void)c.send(path == "/missing" ? testsupport::httpResponse(404, "missing")
                                                       : "HTTP/1.1 200 OK\r\n\r\nno length");
            if (request.find("\r\nRange:") == std::string::npos) {  // the probe
                serveGenerated(c, request, 3, size);
                return (void)(probeClosed = c.stall(5));
            }
            if (!serveGenerated(c, request, 3, size)) return;
        }
    });
    job(channel, server.url("/missing"), "/missing", 0, "", nullptr, kInvalidArgument);
    job(channel, server.url("/nolength"), "/nolength", 0, "", nullptr, kInvalidArgument);
    job(channel, server.url("/p"), "/p", 0);
    ASSERT_EQ(channel.m_httpGetJobs.size(), 1u);
    EXPECT_EQ(channel.m_httpGetJobs[0].size, (long long)size);
    EXPECT_TRUE(channel.m_connections.empty());
    const int probes = server.connections();
    // Without a digest a file in pieces is checked against the size of the
    // piece that finished last: a size mismatch, the file is not handed out.
    EXPECT_EQ(channel.httpMultiGet(true), 1);
    expectFirstFailure(channel, kChecksumMismatch, dir + "/p");
    EXPECT_EQ(handedOut(channel), std::vector<int>{});
    EXPECT_TRUE(fileHoldsGenerated(dir + "/p", 3, size));
    EXPECT_TRUE(probeClosed.load());
    EXPECT_EQ(server.connections(), probes + 2);

    channel.setParam(kParamUnknownSize, "", true);
    job(channel, server.url("/u"), "/u", 0);
    EXPECT_EQ(server.connections(), probes + 2);
    EXPECT_EQ(channel.m_httpGetJobs.back().end, -1);
}

}  // namespace
