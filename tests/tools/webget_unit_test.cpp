// webget's pure helpers: the share plan of --shard, the checksum files of --checksums, the idle cap, whether
// -c -o can continue a file.
#include <gtest/gtest.h>

#include <algorithm>

#include "tools/webget/checksum_file.h"
#include "tools/webget/continue_plan.h"
#include "tools/webget/descriptors.h"
#include "tools/webget/shard.h"

using namespace webget;

TEST(WebgetShard, ParsesOnlyIndexBelowCount) {
    unsigned long index = 9, count = 9;
    EXPECT_TRUE(parseShard("2/3", index, count) && index == 2 && count == 3);
    for (const char* bad : {"3/3", "0/0", "1", "/3", "1/", "-1/3", "1/3/4", " 1/3", "1/x", "0/99999999"})
        EXPECT_FALSE(parseShard(bad, index, count)) << bad;
}

TEST(WebgetShard, BalancesBytesWithinOneLargestJobAndIgnoresListOrder) {
    std::vector<long long> sizes;
    long long total = 0;
    std::vector<std::string> names;
    for (int i = 0; i < 200; ++i) {
        sizes.push_back(1 + (i * 7919LL) % 50 * 1000 + (i % 17 == 0 ? 500000 : 0));  // with ties
        names.push_back("f" + std::to_string(i));
        total += sizes.back();
    }
    const long long largest = *std::max_element(sizes.begin(), sizes.end());
    for (unsigned long count : {1ul, 3ul, 7ul, 250ul}) {
        const std::vector<unsigned long> share = planShares(sizes, names, count);
        std::vector<long long> load(count, 0);
        for (size_t i = 0; i < sizes.size(); ++i) load.at(share[i]) += sizes[i];
        for (long long bytes : load)
            EXPECT_LE(std::llabs(bytes * (long long)count - total), largest * (long long)count);
        // Every process plans alike whatever order it read the jobs in.
        auto reversed = planShares({sizes.rbegin(), sizes.rend()}, {names.rbegin(), names.rend()}, count);
        EXPECT_EQ(std::vector<unsigned long>(reversed.rbegin(), reversed.rend()), share) << count;
    }
}

TEST(WebgetShard, HashesTheNameWhenASizeIsUnknown) {
    EXPECT_EQ(fnv1a64(""), 14695981039346656037ull);
    EXPECT_EQ(fnv1a64("a"), 0xaf63dc4c8601ec8cull);
    const std::vector<std::string> names = {"a", "b/c.bin", "d"};
    const std::vector<unsigned long> share = planShares({10, 0, 30}, names, 5);
    for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(share[i], fnv1a64(names[i]) % 5) << names[i];
}

TEST(WebgetChecksums, ParsesTheLinesOfTheChecksumTools) {
    const std::string md5(32, 'a'), sha1(40, 'B'), sha256(64, 'c'), sha512(128, 'd');
    const std::pair<std::string, std::string> rows[] = {
        // line, "digest algorithm name" ("!": malformed)
        {md5 + "  a b.bin", md5 + " md5 a b.bin"},
        {sha1 + " *bin/x", std::string(40, 'b') + " sha1 bin/x"},
        {sha256 + "  ./x.iso\r", sha256 + " sha256 ./x.iso"},
        {"\\" + sha512 + "  new\\nline\\\\x", sha512 + " sha512 new\nline\\x"},
        {"  # comment", "  "},
        {"", "  "},
        {md5 + " x.bin", "!"},
        {md5 + "\tx.bin", "!"},
        {std::string(33, 'a') + "  x.bin", "!"},
        {md5 + "  ", "!"},
        {"zz  x.bin", "!"},
        {"\\" + md5 + "  bad\\q", "!"},
    };
    for (const auto& row : rows) {
        ChecksumEntry entry;
        std::string why;
        EXPECT_EQ(parseChecksumLine(row.first, entry, why), row.second != "!") << row.first;
        EXPECT_EQ(why.empty() ? entry.digest + " " + entry.algorithm + " " + entry.name : "!", row.second);
    }
    std::vector<ChecksumEntry> entries;
    int badLine = 0;
    std::string why;
    EXPECT_TRUE(parseChecksums("# sums\n\n" + md5 + "  a\n" + sha1 + " *b\n", entries, badLine, why));
    EXPECT_TRUE(entries.size() == 2 && entries[1].line == 4);
    EXPECT_FALSE(parseChecksums(md5 + "  a\nnot a sum\n", entries, badLine, why));
    EXPECT_EQ(badLine, 2);
}

// All workers' idle connections together stay within half the descriptor limit, and a worker keeps at least one.
TEST(WebgetDescriptors, TheIdleCapKeepsEveryWorkersPoolWithinHalfTheLimit) {
    const std::tuple<unsigned long long, unsigned, unsigned long long> rows[] = {
        {1024, 8, 21}, {1024, 64, 2}, {20000, 64, 52}, {1048576, 64, 2730}, {16, 64, 1}, {1024, 0, 170}};
    for (const auto& [limit, workers, cap] : rows)
        EXPECT_EQ(idleCapFor(limit, workers), cap) << limit << " " << workers;
}

TEST(WebgetContinue, ContinuesOnlyAFileThatCanBeAPartOfTheServersOne) {
    using V = ContinueVerdict;
    const struct {
        FileFacts facts;  // length, record, holes, size
        V verdict;
        const char* words;
    } rows[] = {
        {{100, false, false, 400}, V::kContinue, "continuing f at byte 100 of 400"},
        {{400, true, true, 400}, V::kContinue, "continuing f from its control record"},
        {{400, false, false, 400}, V::kComplete, "f is already complete: it is as long as the file on the server (400 "
                                                 "bytes); nothing to fetch"},
        {{401, true, false, 400}, V::kLonger, "f cannot be continued: it is 401 bytes, longer than the file on the "
                                              "server (400 bytes); fetching the file again whole"},
        {{100, false, true, 400}, V::kHoles, "f cannot be continued: it has holes"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(continueVerdict(row.facts), row.verdict) << row.words;
        EXPECT_EQ(continueMessage(row.verdict, "f", row.facts).rfind(row.words, 0), 0u) << row.words;
    }
}
