// A batch over 100 hosts (one nginx on 100 ports) in a process allowed few descriptors.
#include <dirent.h>
#include <sys/resource.h>

#include <set>

#include "batch/batch_helpers.h"

namespace {

using namespace batchtest;

// Lowers this process's soft descriptor limit for its lifetime, so that `room` more descriptors can be opened.
// The limit bounds descriptor numbers, not their count: numbers in use below it take no room.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int room) {
        std::set<int> open;
        DIR* listing = opendir("/proc/self/fd");
        for (dirent* entry; listing != nullptr && (entry = readdir(listing)) != nullptr;)
            if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(listing)) open.insert(atoi(entry->d_name));
        if (listing != nullptr) closedir(listing);
        for (int free = 0; free < room; ++soft)
            if (open.count(soft) == 0) ++free;
        getrlimit(RLIMIT_NOFILE, &m_saved);
        rlimit lowered = {(rlim_t)soft, m_saved.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    }
    int soft = 0;
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_saved); }

private:
    rlimit m_saved;
};

// The most descriptors seen open by the progress reports. Counting needs a descriptor of its own, which may
// not be there when the batch is at the limit: that report is skipped.
struct Peak {
    static void handler(bool&, int, long long, long long, int, void* data) {
        auto* self = static_cast<Peak*>(data);
        std::lock_guard<std::mutex> lock(self->mutex);
        std::error_code failed;
        int open = 0;
        for (std::filesystem::directory_iterator it("/proc/self/fd", failed), end; !failed && it != end;
             it.increment(failed))
            ++open;
        if (!failed) self->most = std::max(self->most, open - 1), ++self->samples;  // less the listing's own
    }
    std::mutex mutex;
    int most = 0, samples = 0;
};

struct Case {
    const char* name;
    unsigned workers;
    int room;         // descriptors the batch may open
    const char* cap;  // parameter 3026, or none
    int failure;      // the batch's code: 0, or the job that finds no room fails with it
};

const Case kCases[] = {
    // Pools of 8 workers would keep 25 idle connections each (600 descriptors): relief closes the least
    // recently used of any worker as the limit is reached.
    {"EightWorkersRelievedAtTheLimit", 8, 64, nullptr, kOk},
    // At most one idle connection a worker: the limit is never reached.
    {"FourWorkersWithinTheCap", 4, 64, "1", kOk},
    // Room for a socket and one waiter and nothing idle to close: the usual code, and the limit in the reason.
    {"NoRoomAndNothingIdle", 1, 2, nullptr, kConnectFailed},
};

class ManyHosts : public Fixture<::testing::TestWithParam<Case>> {};

TEST_P(ManyHosts, EveryFileArrivesVerifiedWithinTheDescriptorLimit) {
    const Case& c = GetParam();
    const std::vector<int>& ports = peers().hostPorts;
    ASSERT_EQ(ports.size(), 100u);
    constexpr int kFiles = 300;
    auto name = [](int i) { return "/small/f" + std::to_string(100000 + i).substr(1) + ".bin"; };
    LogCapture log;
    webChannel channel;
    init(channel, c.workers, "20");
    channel.setParam(kParamErrorDetail, "1", true);
    if (c.cap != nullptr) channel.setParam(kParamIdleCap, c.cap, true);
    Peak peak;
    channel.setHandler(Peak::handler, &peak);
    for (int i = 0; i < kFiles; ++i) {
        const std::string url = "http://127.0.0.1:" + std::to_string(ports[(size_t)i % ports.size()]) + name(i);
        job(channel, url, name(i), 1024, digestOf(readFile(peers().www + name(i)), "sha256"), "sha256");
    }
    const int before = openDescriptorCount();
    int pending = -1, limit = 0;
    {
        DescriptorLimit lowered(c.room);
        limit = lowered.soft;
        pending = channel.httpMultiGet(false);
    }
    char text[512] = {0};
    EXPECT_EQ(channel.getErrorCode(text, (int)sizeof(text)), c.failure);
    const std::string lines = log.text();
    const bool relieved =
        lines.find("VRAXSecureWebChannel::relieveDescriptors: Too many open files") != std::string::npos;
    if (c.failure != kOk) {
        EXPECT_EQ(pending, kFiles);
        EXPECT_EQ(std::string(text),
                  "Too many open files (descriptor limit " + std::to_string(limit) + " reached): " + dir + name(0));
        EXPECT_TRUE(relieved) << "the search for idle connections is logged";
        return;
    }
    EXPECT_EQ(pending, 0);
    EXPECT_EQ(handedOut(channel).size(), (size_t)kFiles);
    int same = 0;
    for (int i = 0; i < kFiles; ++i) same += readFile(dir + name(i)) == readFile(peers().www + name(i));
    EXPECT_EQ(same, kFiles);
    EXPECT_GE(peak.samples, kFiles / 2);
    EXPECT_LE(peak.most, before + c.room);
    if (c.cap == nullptr) {
        EXPECT_TRUE(relieved) << "the limit was reached";
    } else {
        // Per worker: the capped idle connections and one in use, its target, and the count's own listing.
        EXPECT_LE(peak.most, before + (int)c.workers * (3 * (std::atoi(c.cap) + 1) + 2));
        EXPECT_FALSE(relieved);
    }
}

INSTANTIATE_TEST_SUITE_P(Limits, ManyHosts, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
