// Disk faults give -3054 for their own jobs only, and no partial file is handed out. Permissions do not
// bite root: the test's thread (and the workers it starts) opens files as nobody (setfsuid). The full file
// system is a tmpfs in a mount namespace private to the test's thread. Where not permitted, tests skip.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

// Serves content "/<seed>/<size>" from threads made before any identity or
// namespace switch.
class DiskFaults : public Fixture<> {
protected:
    void TearDown() override {
        server.reset();
        Fixture::TearDown();
    }
    std::string url(uint64_t seed, uint64_t size) {
        return server->url("/" + std::to_string(seed) + "/" + std::to_string(size));
    }
    void add(webChannel& channel, const std::string& name, uint64_t seed, uint64_t size, int result = 0) {
        job(channel, url(seed, size), name, (long long)size, generatedDigest(seed, size), "md5", result);
    }
    std::unique_ptr<ScriptServer> server = std::make_unique<ScriptServer>([](ServerConnection& c) {
        for (std::string request; !(request = c.readRequest()).empty();) {
            unsigned long long seed = 0, size = 0;
            sscanf(requestPath(request).c_str(), "/%llu/%llu", &seed, &size);
            if (!serveGenerated(c, request, seed, size)) return;
        }
    });
};

TEST_F(DiskFaults, TargetsThatCannotBeWrittenFailOnlyTheirOwnJobs) {
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir + "/read-only").c_str(), 0555), 0);  // root's
    ASSERT_EQ(mkdir((dir + "/writable").c_str(), 0755), 0);
    ASSERT_EQ(chown((dir + "/writable").c_str(), 65534, 65534), 0);  // nobody's
    webChannel channel;
    init(channel, 3, "5");
    struct Nobody {
        Nobody() { setfsgid(65534), setfsuid(65534); }
        ~Nobody() { setfsuid(0), setfsgid(0); }
    } nobody;
    if (setfsuid(-1) != 65534 || setfsgid(-1) != 65534) GTEST_SKIP() << "cannot switch the file-system identity";
    const int probe = ::open((dir + "/read-only/probe").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (probe >= 0) ::close(probe);
    if (probe >= 0) GTEST_SKIP() << "file permissions do not apply to the switched identity here";

    // 0: in a directory nobody may not write: addJob says so, and the job,
    //    listed all the same, fails in the batch. 1: created by addJob, then
    //    made read-only. 2: writable.
    add(channel, "/read-only/a", 1, 200000, kFileWrite);
    add(channel, "/writable/b", 2, 200000);
    ASSERT_EQ(chmod((dir + "/writable/b").c_str(), 0444), 0);
    add(channel, "/writable/c", 3, 200000);
    EXPECT_EQ(channel.httpMultiGet(true), 2);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
    for (int t = 0; t < 3; ++t) EXPECT_EQ(channel.m_batch[t]->error, t < 2 ? kFileWrite : 0) << t;
    EXPECT_EQ(handedOut(channel), (std::vector<int>{2}));
    EXPECT_FALSE(exists(dir + "/read-only/a"));
    EXPECT_EQ(testsupport::readFile(dir + "/writable/b"), "");
    EXPECT_TRUE(fileHoldsGenerated(dir + "/writable/c", 3, 200000));
    // A single GET into a directory it may not write.
    EXPECT_EQ(channel.httpGet(url(5, 1000).c_str(), (dir + "/read-only/single").c_str()), kFileWrite);
    EXPECT_FALSE(exists(dir + "/read-only/single"));
    channel.close();
}

// A 1 MiB tmpfs, mounted in a mount namespace private to this thread (and
// the threads it starts) for as long as it lives.
struct SmallFileSystem {
    explicit SmallFileSystem(const std::string& where) : where(where) {
        unshared = original >= 0 && unshare(CLONE_NEWNS) == 0;
        // Nothing mounted here may reach the namespace the rest of the machine sees.
        mounted = unshared && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount("tmpfs", where.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=1m") == 0;
        if (!mounted) why = strerror(errno);
    }
    ~SmallFileSystem() {
        if (mounted && umount2(where.c_str(), MNT_DETACH) != 0) ADD_FAILURE() << "cannot unmount " << where;
        // Workers that shared this thread's file-system context may still be
        // on their way out after being joined; setns refuses (EINVAL) until then.
        int result = 0;
        for (int i = 0; unshared && i < 2000 && (result = setns(original, CLONE_NEWNS)) != 0 && errno == EINVAL; ++i)
            std::this_thread::yield();
        if (result != 0) ADD_FAILURE() << "cannot return to the original mount namespace: " << strerror(errno);
        if (original >= 0) ::close(original);
    }
    const std::string where;
    const int original = ::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC);
    std::string why;
    bool unshared = false, mounted = false;
};

TEST_F(DiskFaults, AFileSystemThatFillsUpFailsTheLargeFileAndHandsOutNoPartOfIt) {
    ASSERT_EQ(mkdir((dir + "/small").c_str(), 0755), 0);
    {
        SmallFileSystem full(dir + "/small");
        if (!full.mounted) GTEST_SKIP() << "no tmpfs can be mounted here (" << full.why << ")";
        webChannel channel;
        init(channel, 4, "5");
        add(channel, "/beside", 11, 100000);        // 0: beside the full file system
        add(channel, "/small/large", 12, 4 << 20);  // 1: 4 MiB into 1 MiB
        EXPECT_EQ(channel.httpMultiGet(false), 1);
        expectFirstFailure(channel, kFileWrite, dir + "/small/large");
        EXPECT_EQ(handedOut(channel), (std::vector<int>{0}));
        EXPECT_TRUE(fileHoldsGenerated(dir + "/beside", 11, 100000));
        EXPECT_FALSE(fileHoldsGenerated(dir + "/small/large", 12, 4 << 20));
        // The next batch runs into the same wall, and still hands out nothing.
        EXPECT_EQ(channel.httpMultiGet(true), 1);
        EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
        EXPECT_EQ(handedOut(channel), std::vector<int>{});
        // A single GET into the full file system.
        EXPECT_EQ(channel.httpGet(url(13, 2 << 20).c_str(), (dir + "/small/single").c_str()), kFileWrite);
        channel.close();
    }
    EXPECT_FALSE(exists(dir + "/small/large"));  // unmounted: the directory is empty again
}

}  // namespace
