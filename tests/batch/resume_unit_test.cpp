// The control record's text and the ranges left to fetch: a record is taken only whole, for its own URL and size,
// with ordered ranges inside the file; anything else means the file starts over.
#include <gtest/gtest.h>

#include "batch/resume_record.h"

namespace {

using Ranges = ResumeRecord::Ranges;
using Gaps = std::vector<std::pair<long long, long long>>;

TEST(ResumeRecordText, OnlyAWholeRecordOfThisFileIsTaken) {
    const Ranges two = {{0, 10}, {20, 30}};
    const std::string good = formatResumeRecord("http://h/f", 100, two);
    Ranges read;
    ASSERT_TRUE(parseResumeRecord(good, "http://h/f", 100, read));
    EXPECT_EQ(read, two);
    ASSERT_TRUE(parseResumeRecord(formatResumeRecord("http://h/f", 100, {}), "http://h/f", 100, read));
    EXPECT_TRUE(read.empty());
    const std::string head = "webchannel-resume 1\nurl http://h/f\nsize 100\n";
    for (const std::string& bad : {
             good.substr(0, good.size() - 6),            // cut before its end line
             good + "range 40 50\n",                     // more after the end line
             head + "range 0 10\nend 2\n",               // count does not match
             head + "range 20 30\nrange 0 10\nend 2\n",  // out of order
             head + "range 0 10\nrange 10 20\nend 2\n",  // touching (never written so)
             head + "range 5 5\nend 1\n",                // empty
             head + "range 90 101\nend 1\n",             // past the file's end
             head + "range 0 10 junk\nend 1\n",          // trailing text
             head + "range -5 10\nend 1\n",              // negative
             std::string("webchannel-resume 2\nurl http://h/f\nsize 100\nend 0\n"),
         }) {
        EXPECT_FALSE(parseResumeRecord(bad, "http://h/f", 100, read)) << bad;
    }
    EXPECT_FALSE(parseResumeRecord(good, "http://h/g", 100, read)) << "another URL";
    EXPECT_FALSE(parseResumeRecord(good, "http://h/f", 101, read)) << "another size";
}

TEST(ResumeRecordText, TheMissingRangesAreTheGapsInOrder) {
    EXPECT_EQ(missingRanges({}, 100), (Gaps{{0, 100}}));
    EXPECT_EQ(missingRanges({{0, 100}}, 100), Gaps{});
    EXPECT_EQ(missingRanges({{10, 20}, {30, 100}}, 100), (Gaps{{0, 10}, {20, 30}}));
    EXPECT_EQ(missingRanges({{0, 10}, {50, 60}}, 100), (Gaps{{10, 50}, {60, 100}}));
}

}  // namespace
