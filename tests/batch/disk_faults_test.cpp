// Disk faults: targets that cannot be written because of permissions, and a
// file system that fills up in the middle of a batch. The channel answers
// -3054 for them, keeps its other workers going, and hands out no partial
// file.
//
// The tests run as root, for whom permissions do not bite. The permission
// test therefore switches the file-system identity of the test's thread to
// "nobody" (setfsuid/setfsgid act on the calling thread only, and the
// channel's workers, started from it, inherit it). The full file system is
// a 1 MiB tmpfs mounted in a private mount namespace of the test's thread;
// where that is not permitted the test is skipped and says why.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "batch/fault_helpers.h"
#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace {

using faulttest::expectFirstFailure;
using faulttest::fileHoldsGenerated;
using faulttest::generatedDigest;
using faulttest::handedOut;
using faulttest::noteFaults;
using faulttest::noteVerified;
using faulttest::requestPath;
using faulttest::ResourceCheck;
using faulttest::serveGenerated;
using testsupport::ScriptServer;
using testsupport::ServerConnection;

constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

long long sizeOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? (long long)info.st_size : -1;
}

// Serves generated content: "/<seed>/<size>".
ScriptServer::Handler generatedFiles() {
    return [](ServerConnection& c) {
        for (int i = 0; i < 1000; ++i) {
            std::string request = c.readRequest();
            if (request.empty()) return;
            unsigned long long seed = 0, size = 0;
            if (sscanf(requestPath(request).c_str(), "/%llu/%llu", &seed, &size) != 2) {
                c.send(testsupport::httpResponse(404, ""));
                continue;
            }
            if (!serveGenerated(c, request, seed, size)) return;
        }
    };
}

std::string generatedUrl(const ScriptServer& server, uint64_t seed, uint64_t size) {
    return server.url("/" + std::to_string(seed) + "/" + std::to_string(size));
}

int addGenerated(webChannel& channel, const ScriptServer& server, const std::string& file, uint64_t seed,
                 uint64_t size) {
    return channel.addJob(generatedUrl(server, seed, size).c_str(), file.c_str(), (long long)size,
                          generatedDigest(seed, size, "md5").c_str(), "md5");
}

// While it lives, files are opened as nobody by this thread and by the
// threads it starts.
class NobodyFiles {
public:
    NobodyFiles() {
        setfsgid(kNogroup);
        setfsuid(kNobody);
        m_active = setfsuid((uid_t)-1) == kNobody && setfsgid((gid_t)-1) == kNogroup;
    }
    ~NobodyFiles() {
        setfsuid(0);
        setfsgid(0);
    }
    bool active() const { return m_active; }

private:
    bool m_active = false;
};

// Can the current file-system identity create a file in `dir`?
bool canCreateIn(const std::string& dir) {
    const std::string probe = dir + "/.probe";
    int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    ::close(fd);
    ::unlink(probe.c_str());
    return true;
}

TEST(DiskFaults, TargetsThatCannotBeWrittenFailWithTheirOwnJobsOnly) {
    ResourceCheck resources;
    const std::string base = testsupport::tempDir();
    ASSERT_EQ(chmod(base.c_str(), 0755), 0);
    const std::string readOnly = base + "/read-only";   // root's, not writable by others
    const std::string writable = base + "/writable";    // nobody's
    const std::string closing = base + "/closing";      // nobody's, made read-only after addJob
    ASSERT_EQ(mkdir(readOnly.c_str(), 0555), 0);
    for (const std::string& dir : {writable, closing}) {
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        ASSERT_EQ(chown(dir.c_str(), kNobody, kNogroup), 0);
    }
    {
        ScriptServer server(generatedFiles());
        webChannel channel;
        ASSERT_EQ(channel.init(4), 0);
        channel.setParam(kParamTimeout, "5", true);
        NobodyFiles nobody;
        if (!nobody.active()) GTEST_SKIP() << "cannot switch the file-system identity to nobody";
        if (canCreateIn(readOnly) || !canCreateIn(writable))
            GTEST_SKIP() << "file permissions do not apply to the switched identity here";

        // 0: a target in a directory nobody may not write: addJob says so,
        //    and the job, listed all the same, fails in the batch.
        EXPECT_EQ(addGenerated(channel, server, readOnly + "/a", 1, 200000), kFileWrite);
        // 1: created by addJob, then made read-only.
        ASSERT_EQ(addGenerated(channel, server, writable + "/b", 2, 200000), 0);
        ASSERT_EQ(chmod((writable + "/b").c_str(), 0444), 0);
        // 2: created by addJob, then deleted and its directory made read-only.
        ASSERT_EQ(addGenerated(channel, server, closing + "/c", 3, 200000), 0);
        ASSERT_EQ(unlink((closing + "/c").c_str()), 0);
        ASSERT_EQ(chmod(closing.c_str(), 0555), 0);
        // 3: a file that can be written.
        ASSERT_EQ(addGenerated(channel, server, writable + "/d", 4, 200000), 0);

        EXPECT_EQ(channel.httpMultiGet(true), 3);
        EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
        std::string context, message;
        channel.getError(context, message);
        EXPECT_TRUE(context == readOnly + "/a" || context == writable + "/b" || context == closing + "/c") << context;
        int failed = 0;
        for (webChannel::threadData* record : channel.m_batch) {
            if (record->error == 0) continue;
            EXPECT_EQ(record->error, kFileWrite);
            ++failed;
        }
        EXPECT_EQ(failed, 3);
        EXPECT_EQ(handedOut(channel), (std::vector<int>{3}));
        EXPECT_FALSE(exists(readOnly + "/a"));
        EXPECT_EQ(sizeOf(writable + "/b"), 0);
        EXPECT_FALSE(exists(closing + "/c"));
        EXPECT_TRUE(fileHoldsGenerated(writable + "/d", 4, 200000));
        noteVerified(200000);
        noteFaults(3);

        // A single GET into a directory it may not write.
        EXPECT_EQ(channel.httpGet(generatedUrl(server, 5, 1000).c_str(), (readOnly + "/single").c_str()),
                  kFileWrite);
        EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
        EXPECT_FALSE(exists(readOnly + "/single"));
        noteFaults(1);
        channel.close();
    }
    resources.check();
}

// A tmpfs of 1 MiB, mounted in a mount namespace private to this thread
// (and the threads it starts) for as long as it lives.
class SmallFileSystem {
public:
    explicit SmallFileSystem(const std::string& where) : m_where(where) {
        m_original = ::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC);
        if (m_original < 0) {
            m_why = std::string("cannot open the mount namespace: ") + strerror(errno);
            return;
        }
        if (unshare(CLONE_NEWNS) != 0) {
            m_why = std::string("unshare(CLONE_NEWNS): ") + strerror(errno);
            return;
        }
        m_unshared = true;
        // Nothing mounted here may propagate to the namespace the rest of
        // the machine sees.
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            m_why = std::string("making / private: ") + strerror(errno);
            return;
        }
        if (mount("tmpfs", m_where.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=1m,mode=0755") != 0) {
            m_why = std::string("mount -t tmpfs -o size=1m: ") + strerror(errno);
            return;
        }
        m_mounted = true;
    }
    ~SmallFileSystem() {
        if (m_mounted && umount2(m_where.c_str(), MNT_DETACH) != 0)
            ADD_FAILURE() << "cannot unmount " << m_where << ": " << strerror(errno);
        if (m_unshared) {
            // Workers that shared this thread's file-system context may
            // still be on their way out right after being joined; setns
            // refuses (EINVAL) until they are gone.
            int result = -1;
            for (int i = 0; i < 2000 && (result = setns(m_original, CLONE_NEWNS)) != 0 && errno == EINVAL; ++i)
                std::this_thread::yield();
            if (result != 0) ADD_FAILURE() << "cannot return to the original mount namespace: " << strerror(errno);
        }
        if (m_original >= 0) ::close(m_original);
    }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    bool mounted() const { return m_mounted; }
    const std::string& why() const { return m_why; }

private:
    std::string m_where;
    std::string m_why;
    int m_original = -1;
    bool m_unshared = false;
    bool m_mounted = false;
};

TEST(DiskFaults, AFileSystemThatFillsUpFailsTheLargeFileAndHandsOutNoPartOfIt) {
    ResourceCheck resources;
    const std::string base = testsupport::tempDir();
    const std::string small = base + "/small";
    ASSERT_EQ(mkdir(small.c_str(), 0755), 0);
    {
        ScriptServer server(generatedFiles());  // before the namespace: its threads keep the usual one
        {
            SmallFileSystem full(small);
            if (!full.mounted()) GTEST_SKIP() << "no tmpfs can be mounted here (" << full.why() << ")";
            webChannel channel;
            ASSERT_EQ(channel.init(4), 0);
            channel.setParam(kParamTimeout, "5", true);
            // 0: a small file beside the full file system, 1: 4 MiB into 1 MiB.
            ASSERT_EQ(addGenerated(channel, server, base + "/beside", 11, 100000), 0);
            ASSERT_EQ(addGenerated(channel, server, small + "/large", 12, 4 << 20), 0);
            EXPECT_EQ(channel.httpMultiGet(false), 1);
            expectFirstFailure(channel, kFileWrite, small + "/large");
            EXPECT_EQ(handedOut(channel), (std::vector<int>{0}));
            EXPECT_TRUE(fileHoldsGenerated(base + "/beside", 11, 100000));
            noteVerified(100000);
            // The pieces that found room were written; the file is not whole.
            EXPECT_FALSE(fileHoldsGenerated(small + "/large", 12, 4 << 20));

            // The next batch runs into the same wall, and still hands out nothing.
            EXPECT_EQ(channel.httpMultiGet(true), 1);
            EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
            EXPECT_EQ(handedOut(channel), std::vector<int>{});

            // A single GET into the full file system.
            EXPECT_EQ(channel.httpGet(generatedUrl(server, 13, 2 << 20).c_str(), (small + "/single").c_str()),
                      kFileWrite);
            EXPECT_EQ(channel.getErrorCode(nullptr, 0), kFileWrite);
            channel.close();
            noteFaults(3);
        }
        // Unmounted: the directory is empty again.
        EXPECT_FALSE(exists(small + "/large"));
    }
    resources.check();
}

}  // namespace
