// Files continued from an earlier run: only the missing ranges are fetched, the control record follows what is on
// disk, and whatever is continued ends verified whole or starts over.
#include <sys/stat.h>

#include <set>

#include "batch/batch_helpers.h"
#include "batch/resume_record.h"

namespace {

using namespace batchtest;
using Ranges = ResumeRecord::Ranges;
using Resume = Fixture<>;
constexpr uint64_t kSize = 3 << 20, kSeed = 77;
constexpr long long M = 1 << 20;

// The byte ranges the server was asked for, merged.
Ranges asked(const Routes& server, const std::string& path) {
    Ranges ranges;
    for (const std::string& request : server.requestsFor(path)) {
        long long last = (long long)kSize - 1, first = firstByte(request, &last);
        ranges[std::max(first, 0LL)] = last + 1;
    }
    for (auto at = ranges.begin(); at != ranges.end() && std::next(at) != ranges.end();)
        if (std::next(at)->first <= at->second) {
            at->second = std::max(at->second, std::next(at)->second);
            ranges.erase(std::next(at));
        } else {
            ++at;
        }
    return ranges;
}

// A target of `length` bytes with the right bytes in `good` and garbage between them, or (`sparse`) holes, as
// pieces written side by side leave them.
void leave(const std::string& path, long long length, const Ranges& good, bool sparse = false) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << (sparse ? "" : std::string(length, 'x'));
    std::filesystem::resize_file(path, (uintmax_t)length);
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    for (const auto& range : good) out.seekp(range.first) << generated(kSeed, range.first, range.second - range.first);
}

struct Case {
    const char* name;
    long long length;  // of the target left behind
    Ranges good;       // its right bytes
    long long recordSize;
    Ranges recorded;
    bool digest, continued, ignoresRanges;
    Ranges fetched;       // what the server must be asked for
    std::string garbage;  // a record that is not one: its text
    bool sparse = false;  // the target's gaps are holes
};

// Every way an earlier run can leave a file: each ends with the file whole and verified and its record gone,
// having fetched exactly what was missing, or everything when what is on disk cannot be trusted.
TEST_F(Resume, OnlyTheMissingRangesAreFetchedAndTheWholeFileIsVerified) {
    const long long N = kSize;
    const Ranges split = {{0, M}, {2 * M, 5 * M / 2}}, all = {{0, N}};
    const Case cases[] = {
        {"recorded ranges", 5 * M / 2, split, N, split, true, true, false, {{M, 2 * M}, {5 * M / 2, N}}, ""},
        {"recorded ranges, size only",
         5 * M / 2,
         split,
         N,
         split,
         false,
         true,
         false,
         {{M, 2 * M}, {5 * M / 2, N}},
         ""},
        {"no record, shorter target", 5 * M / 4, {{0, 5 * M / 4}}, 0, {}, true, true, false, {{5 * M / 4, N}}, ""},
        {"no record, target as long as the file", N, {}, 0, {}, false, true, false, all, ""},
        {"record of another size", N, {}, N + 1, all, true, true, false, all, ""},
        {"all there", N, all, N, all, false, true, false, {{N - 1, N}}, ""},
        {"without the continue parameter", 5 * M / 2, split, N, split, true, false, false, all, ""},
        {"server ignores ranges", 5 * M / 2, split, N, split, true, true, true, {}, ""},
        // What cannot be accounted for is fetched again, with or without a digest to catch it.
        {"a record cut short", 5 * M / 2, split, 0, {}, false, true, false, all, "webchannel-resume 1\nurl "},
        {"a record too large to be one", 5 * M / 2, split, 0, {}, false, true, false, all, std::string(2 << 20, 'r')},
        {"no record, a target with holes", 5 * M / 2, split, 0, {}, false, true, false, all, "", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        Routes server({{"/f", content(kSeed, kSize, c.ignoresRanges)}});
        const std::string target = dir + "/f";
        leave(target, c.length, c.good, c.sparse);
        if (c.recordSize > 0)
            std::ofstream(ResumeRecord::pathFor(target))
                << formatResumeRecord(server.url("/f"), c.recordSize, c.recorded);
        if (!c.garbage.empty()) std::ofstream(ResumeRecord::pathFor(target)) << c.garbage;
        webChannel channel;
        init(channel, 2);
        if (c.continued) channel.setParam(kParamContinue, "", true);
        if (c.digest)
            add(channel, server.url("/f"), "/f", kSeed, kSize);
        else
            job(channel, server.url("/f"), "/f", (long long)kSize);
        EXPECT_EQ(channel.httpMultiGet(true), 0);
        EXPECT_TRUE(fileHoldsGenerated(target, kSeed, kSize));
        EXPECT_FALSE(std::filesystem::exists(ResumeRecord::pathFor(target)));
        if (c.ignoresRanges)
            EXPECT_EQ(countLines(log.text(), "starting the file over"), 1);
        else
            EXPECT_EQ(asked(server, "/f"), c.fetched);
        std::filesystem::remove(target);
    }
}

// A file continued from a stopped batch's record that then fails its digest loses its record and starts over from
// its first byte. (That the record names only bytes on disk and a continued run asks for the rest: the webget test
// tools/resume-test.sh, stopping and killing webget.)
TEST_F(Resume, AContinuedFileThatFailsItsDigestStartsOver) {
    const uint64_t size = 16 << 20;
    Routes server({{"/f", content(kSeed, size)}});
    const std::string record = ResumeRecord::pathFor(dir + "/f");
    for (int run = 0; run < 3; ++run) {
        webChannel channel;
        init(channel, 2);
        channel.setParam(kParamContinue, "", true);
        if (run == 0)
            channel.setHandler([](bool& cancel, int, long long done, long long, int, void*) { cancel = done >= M; },
                               nullptr);
        job(channel, server.url("/f"), "/f", (long long)size, std::string(32, '0'), "md5");
        const size_t before = server.requestsFor("/f").size();
        EXPECT_EQ(channel.httpMultiGet(true), 1);
        EXPECT_EQ(std::filesystem::exists(record), run == 0) << run;
        std::set<long long> firsts;
        long long fetched = 0;
        for (size_t i = before; i < server.requestsFor("/f").size(); ++i) {
            long long last = 0, first = firstByte(server.requestsFor("/f")[i], &last);
            firsts.insert(first), fetched += last - first + 1;
        }
        if (run == 1) {
            EXPECT_EQ(channel.getErrorCode(nullptr, 0), kChecksumMismatch);
            EXPECT_LE(fetched, (long long)size - M) << "the megabyte kept was fetched again";
        } else if (run == 2) {
            EXPECT_EQ(firsts, std::set<long long>({0, (long long)size / 2})) << "it did not start over";
        }
    }
}

// A file continued from an earlier run is asked for with If-Range under the validator its record keeps: while the
// server's file is that version, only the missing ranges come; changed (same size, new ETag), the server sends it
// whole and the file starts over instead of being spliced with the bytes of the old version.
TEST_F(Resume, AFileChangedOnTheServerStartsOverInsteadOfBeingSpliced) {
    const std::string source = readFile(peers().www + "/m10.bin"), url = peers().httpUrl("/m10.bin");
    struct stat info;
    ASSERT_EQ(stat((peers().www + "/m10.bin").c_str(), &info), 0);
    char etag[64];
    snprintf(etag, sizeof etag, "\"%lx-%lx\"", (long)info.st_mtime, (long)info.st_size);  // nginx's
    const Ranges kept = {{0, 4 * M}};
    for (const bool changed : {false, true}) {
        SCOPED_TRACE(changed ? "changed" : "unchanged");
        LogCapture log;
        const std::string target = dir + "/m10";
        std::ofstream(target, std::ios::binary) << (changed ? std::string(4 * M, 'o') : source.substr(0, 4 * M));
        std::ofstream(ResumeRecord::pathFor(target))
            << formatResumeRecord(url, (long long)source.size(), kept, changed ? "\"0-0\"" : etag);
        webChannel channel;
        init(channel, 2);
        channel.setParam(kParamContinue, "", true);
        job(channel, url, "/m10", (long long)source.size());
        EXPECT_EQ(channel.httpMultiGet(true), 0);
        EXPECT_TRUE(readFile(target) == source);
        // Unchanged, both missing pieces ask under the validator; changed, one at least before the start-over.
        const int asked = countLines(log.text(), "If-Range: " + std::string(changed ? "\"0-0\"" : etag));
        EXPECT_TRUE(changed ? asked >= 1 : asked == 2) << asked;
        EXPECT_EQ(countLines(log.text(), "starting the file over"), changed ? 1 : 0);
    }
}

}  // namespace
