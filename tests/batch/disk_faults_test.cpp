// Targets that cannot be written give -3054 for their own jobs only, and no partial file is handed out.
// Made without privileges, so that they bite root too: a directory in the way of a file, a file in the way of
// a directory, and a link to /dev/full for a disk that is full.
#include <sys/stat.h>
#include <unistd.h>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;
using DiskFaults = Fixture<>;

TEST_F(DiskFaults, TargetsThatCannotBeWrittenFailOnlyTheirOwnJobsInEveryBatchAndSingleGets) {
    ScriptServer server([](ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();)
            if (!serve(c, request, 7, 100000)) return;
    });
    std::ofstream(dir + "/file") << "in the way";
    ASSERT_EQ(symlink("/dev/full", (dir + "/full").c_str()), 0);
    webChannel channel;
    init(channel, 4, "5");
    // Small files go whole, one to each worker.
    job(channel, server.url("/a"), "/file/a", 100000, digestOf("", "md5", 7, 100000), "md5", kFileWrite);  // yet listed
    add(channel, server.url("/b"), "/b", 7, 100000);
    ASSERT_EQ(unlink((dir + "/b").c_str()), 0);
    ASSERT_EQ(mkdir((dir + "/b").c_str(), 0755), 0);  // the target became a directory
    job(channel, server.url("/full"), "/full", 100000);  // no digest: reading /dev/full never ends
    add(channel, server.url("/c"), "/c", 7, 100000);
    for (int batch = 0; batch < 2; ++batch) {
        EXPECT_EQ(channel.httpMultiGet(false), 3);
        EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
        for (int t = 0; t < 4; ++t) EXPECT_EQ(channel.m_batch[t]->error, t < 3 ? kFileWrite : 0) << t;
        EXPECT_EQ(handedOut(channel), batch == 0 ? Ints{3} : Ints{});
    }
    EXPECT_TRUE(fileHoldsGenerated(dir + "/c", 7, 100000));
    EXPECT_EQ(channel.httpGet(server.url("/s").c_str(), (dir + "/file/single").c_str()), kFileWrite);
    EXPECT_EQ(channel.httpGet(server.url("/s").c_str(), (dir + "/full").c_str()), kFileWrite);
    channel.close();
}

}  // namespace
