// webget's pure helpers: the share plan of --shard, the checksum files of --checksums.
#include <gtest/gtest.h>

#include <algorithm>

#include "tools/webget/checksum_file.h"
#include "tools/webget/shard.h"

using namespace webget;

TEST(WebgetShard, ParsesOnlyIndexBelowCount) {
    unsigned long index = 9, count = 9;
    EXPECT_TRUE(parseShard("2/3", index, count));
    EXPECT_EQ(index, 2u);
    EXPECT_EQ(count, 3u);
    for (const char* bad : {"3/3", "0/0", "1", "/3", "1/", "-1/3", "1/3/4", " 1/3", "1/x", "0/99999999"})
        EXPECT_FALSE(parseShard(bad, index, count)) << bad;
}

TEST(WebgetShard, BalancesBytesWithinOneLargestJobAndIgnoresListOrder) {
    std::vector<long long> sizes;
    std::vector<std::string> names;
    for (int i = 0; i < 200; ++i) {
        sizes.push_back(1 + (i * 7919LL) % 50 * 1000 + (i % 17 == 0 ? 500000 : 0));  // with ties
        names.push_back("f" + std::to_string(i));
    }
    const long long largest = *std::max_element(sizes.begin(), sizes.end());
    for (unsigned long count : {1ul, 3ul, 7ul, 250ul}) {
        const std::vector<unsigned long> share = planShares(sizes, names, count);
        std::vector<long long> load(count, 0);
        long long total = 0;
        for (size_t i = 0; i < sizes.size(); ++i) {
            ASSERT_LT(share[i], count);
            load[share[i]] += sizes[i];
            total += sizes[i];
        }
        for (long long bytes : load) EXPECT_LE(std::llabs(bytes * (long long)count - total), largest * (long long)count);
        // Every process plans alike whatever order it read the jobs in.
        std::vector<long long> reversedSizes(sizes.rbegin(), sizes.rend());
        std::vector<std::string> reversedNames(names.rbegin(), names.rend());
        std::vector<unsigned long> reversed = planShares(reversedSizes, reversedNames, count);
        std::reverse(reversed.begin(), reversed.end());
        EXPECT_EQ(reversed, share) << count;
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
    struct Row {
        std::string line;
        bool ok;
        std::string digest, algorithm, name;  // name "": nothing to take
    } rows[] = {
        {md5 + "  a b.bin", true, md5, "md5", "a b.bin"},
        {sha1 + " *bin/x", true, std::string(40, 'b'), "sha1", "bin/x"},
        {sha256 + "  ./x.iso\r", true, sha256, "sha256", "./x.iso"},
        {"\\" + sha512 + "  new\\nline\\\\x", true, sha512, "sha512", "new\nline\\x"},
        {"  # comment", true, "", "", ""},
        {"", true, "", "", ""},
        {md5 + " x.bin", false, "", "", ""},
        {md5 + "\tx.bin", false, "", "", ""},
        {std::string(33, 'a') + "  x.bin", false, "", "", ""},
        {md5 + "  ", false, "", "", ""},
        {"zz  x.bin", false, "", "", ""},
        {"\\" + md5 + "  bad\\q", false, "", "", ""},
    };
    for (const Row& row : rows) {
        ChecksumEntry entry;
        std::string why;
        EXPECT_EQ(parseChecksumLine(row.line, entry, why), row.ok) << row.line;
        EXPECT_EQ(why.empty(), row.ok) << row.line;
        if (!row.ok) continue;
        EXPECT_EQ(entry.digest + " " + entry.algorithm + " " + entry.name,
                  row.name.empty() ? "  " : row.digest + " " + row.algorithm + " " + row.name);
    }
    std::vector<ChecksumEntry> entries;
    int badLine = 0;
    std::string why;
    EXPECT_TRUE(parseChecksums("# sums\n\n" + md5 + "  a\n" + sha1 + " *b\n", entries, badLine, why));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1].line, 4);
    EXPECT_FALSE(parseChecksums(md5 + "  a\nnot a sum\n", entries, badLine, why));
    EXPECT_EQ(badLine, 2);
}
