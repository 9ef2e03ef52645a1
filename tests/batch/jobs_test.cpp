// The host's job list: adding, probing, removing, validating.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>

#include "batch/batch_helpers.h"
#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"

namespace {

using testsupport::readFile;

void writeFile(const std::string& path, const std::string& content) {
    FILE* file = fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
}

class Jobs : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(channel.init(2), 0);
        dir = testsupport::tempDir();
    }
    webChannel channel;
    std::string dir;
};

TEST_F(Jobs, MissingArgumentsAddNothing) {
    EXPECT_EQ(channel.addJob(nullptr, "/tmp/x", 5, nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/x", nullptr, 5, nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/x", "/tmp/x", -1, nullptr, nullptr), kInvalidArgument);
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
}

TEST_F(Jobs, ATargetWithTheExpectedDigestIsLeftAlone) {
    std::string file = dir + "/done.bin";
    writeFile(file, "hello");
    struct stat before;
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    std::string digest = batchtest::digestOf("hello", "md5");
    for (char& c : digest) c = (char)toupper(c);  // stored lower-cased
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/done", file.c_str(), 5, digest.c_str(), "MD5"), kAlreadyPresent);
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
    EXPECT_EQ(readFile(file), "hello");
    struct stat after;
    ASSERT_EQ(stat(file.c_str(), &after), 0);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(Jobs, AStaleTargetIsEmptiedAndMissingDirectoriesAreMade) {
    std::string stale = dir + "/stale.bin";
    writeFile(stale, "old content");
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/a", stale.c_str(), 5, "00", "md5"), kOk);
    EXPECT_EQ(readFile(stale), "");
    std::string deep = dir + "/a/b/c/new.bin";
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/b", deep.c_str(), 5, nullptr, nullptr), kOk);
    struct stat info;
    EXPECT_EQ(stat(deep.c_str(), &info), 0);
    ASSERT_EQ(channel.m_httpGetJobs.size(), 2u);
    EXPECT_EQ(channel.m_httpGetJobs[0].checksum, "00");
    EXPECT_EQ(channel.m_httpGetJobs[0].end, 4);
}

TEST_F(Jobs, AnUncreatableTargetFailsWithTheFileCode) {
    std::string blocker = dir + "/file";
    writeFile(blocker, "x");
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/a", (blocker + "/sub/t.bin").c_str(), 5, nullptr, nullptr),
              kFileWrite);
}

TEST_F(Jobs, TheSameUrlTwiceIsListedOnce) {
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/a", (dir + "/1").c_str(), 5, nullptr, nullptr), kOk);
    EXPECT_EQ(channel.addJob("http://127.0.0.1:1/a", (dir + "/2").c_str(), 5, nullptr, nullptr), kOk);
    EXPECT_EQ(channel.m_httpGetJobs.size(), 1u);
    EXPECT_EQ(channel.m_httpGetJobs[0].file, dir + "/1");
}

TEST_F(Jobs, RemoveTakesTheJobOutOfTheListAndTheThreads) {
    testsupport::LogCapture capture;
    for (const char* name : {"a", "b", "c"})
        ASSERT_EQ(channel.addJob((std::string("http://127.0.0.1:1/") + name).c_str(), (dir + "/" + name).c_str(), 5,
                                 nullptr, nullptr),
                  kOk);
    channel.initBatch();
    EXPECT_EQ(channel.removeJob("http://127.0.0.1:1/unknown"), 3);
    EXPECT_EQ(channel.removeJob(nullptr), 3);
    EXPECT_EQ(channel.removeJob("http://127.0.0.1:1/b"), 2);
    EXPECT_EQ(channel.m_httpGetJobs[1].url, "http://127.0.0.1:1/c");
    for (auto* record : channel.m_batch)
        for (auto& job : record->jobs) EXPECT_NE(job.url, "http://127.0.0.1:1/b");
    std::string log = capture.text();
    EXPECT_EQ(testsupport::countLines(log, "removeJob: started with http://127.0.0.1:1/unknown"), 1);
    EXPECT_EQ(testsupport::countLines(log, "removeJob: removed global entry"), 1);
    EXPECT_EQ(testsupport::countLines(log, "removeJob: removed entry from thread"), 1);
    // Positions after the removed job moved: the hand-out follows them.
    channel.m_downloaded["http://127.0.0.1:1/c"] = -1;
    EXPECT_EQ(channel.getNextDownloadedFile(), 1);
    EXPECT_EQ(channel.getNextDownloadedFile(), -1);
}

TEST_F(Jobs, IsValidComparesTheExactDigestText) {
    std::string file = dir + "/v.bin";
    writeFile(file, "hello");
    std::string digest = batchtest::digestOf("hello", "sha1");
    EXPECT_EQ(channel.isValid(file.c_str(), digest.c_str(), "sha1"), 1);
    EXPECT_EQ(channel.isValid_c(file.c_str(), digest.c_str(), "sha1"), 1);
    std::string upper = digest;
    for (char& c : upper) c = (char)toupper(c);
    EXPECT_EQ(channel.isValid(file.c_str(), upper.c_str(), "sha1"), 0);
    EXPECT_EQ(channel.isValid(nullptr, digest.c_str(), "sha1"), 0);
    EXPECT_EQ(channel.isValid(file.c_str(), nullptr, "sha1"), 0);
    EXPECT_EQ(channel.isValid(file.c_str(), digest.c_str(), nullptr), 0);
    char empty[1] = {0};
    EXPECT_EQ(channel.isValid(file.c_str(), digest.c_str(), empty), 0);
    EXPECT_EQ(channel.isValid((dir + "/missing").c_str(), digest.c_str(), "sha1"), 0);
    EXPECT_EQ(channel.isValid(file.c_str(), digest.c_str(), "no-such-digest"), 0);
}

TEST_F(Jobs, DigestsOfEmptyInputAndLongDigests) {
    std::string file = dir + "/empty.bin";
    writeFile(file, "");
    EXPECT_EQ(channel.checksum(file, "md5"), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(channel.checksum(file, "sha512"), batchtest::digestOf("", "sha512"));
    EXPECT_EQ(channel.checksum(file, "nonsense"), "");
    EXPECT_EQ(channel.filesize(file), 0);
    EXPECT_EQ(channel.filesize(dir + "/missing"), -1);
}

// The size probe reads the head only, closes that connection, and fetches
// no body twice.
TEST_F(Jobs, ProbeReadsTheHeadOnlyAndDropsItsConnection) {
    const std::string content = batchtest::pseudoRandom(2 << 20, 3);
    std::atomic<bool> probeClosed{false};
    testsupport::ScriptServer server([&](testsupport::ServerConnection& c) {
        std::string request = c.readRequest();
        if (request.empty()) return;
        if (c.index() == 0) {
            c.send(testsupport::httpResponse(200, content));
            probeClosed = c.stall(5);
            return;
        }
        batchtest::serveRange(c, request, content);
    });
    std::string file = dir + "/probed.bin";
    ASSERT_EQ(channel.addJob(server.url("/p").c_str(), file.c_str(), 0, nullptr, nullptr), kOk);
    ASSERT_EQ(channel.m_httpGetJobs.size(), 1u);
    EXPECT_EQ(channel.m_httpGetJobs[0].size, (long long)content.size());
    EXPECT_TRUE(channel.m_connections.empty());
    EXPECT_EQ(channel.httpMultiGet(true), 1);  // piece sizes do not match the file: no digest given
    EXPECT_TRUE(readFile(file) == content);
    EXPECT_TRUE(probeClosed.load());
    EXPECT_EQ(server.connections(), 3);  // the probe, then one connection per piece
}

TEST_F(Jobs, UnknownSizeModeDoesNotProbe) {
    testsupport::ScriptServer server([](testsupport::ServerConnection& c) { c.readRequest(); });
    channel.setParam(kParamUnknownSize, "", true);
    EXPECT_EQ(channel.addJob(server.url("/p").c_str(), (dir + "/u").c_str(), 0, nullptr, nullptr), kOk);
    EXPECT_EQ(server.connections(), 0);
    EXPECT_EQ(channel.m_httpGetJobs[0].end, -1);
}

TEST_F(Jobs, AProbeThatFindsNoSizeRejectsTheJob) {
    testsupport::ScriptServer server([](testsupport::ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(c.index() == 0 ? testsupport::httpResponse(404, "missing") : "HTTP/1.1 200 OK\r\n\r\nno length");
        c.close();
    });
    EXPECT_EQ(channel.addJob(server.url("/a").c_str(), (dir + "/a").c_str(), 0, nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(channel.addJob(server.url("/b").c_str(), (dir + "/b").c_str(), 0, nullptr, nullptr), kInvalidArgument);
    EXPECT_TRUE(channel.m_httpGetJobs.empty());
}

}  // namespace
