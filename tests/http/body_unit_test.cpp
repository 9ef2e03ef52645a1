// Body transfer: plain bytes, and the chunked decoder fed the way the segment
// download feeds it, across every read boundary; the chunk-size scan.
#include "http/body.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "channel/webChannel.h"

using namespace std::string_literals;

namespace {

// A temporary target and a receive buffer the size of a worker's slice.
class Body : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(file, nullptr); }
    void TearDown() override {
        if (file != nullptr) fclose(file);
    }
    std::string written() {
        fflush(file);
        std::string text((size_t)ftell(file), '\0');
        rewind(file);
        EXPECT_EQ(fread(&text[0], 1, text.size(), file), text.size());
        return text;
    }
    // Decodes `wire` (the head already taken) onto an empty target: the
    // reads end at the cuts, each placed behind what the decoder carried.
    int decode(const std::string& wire, std::vector<size_t> cuts = {}) {
        rewind(file);
        EXPECT_EQ(ftruncate(fileno(file), 0), 0);
        job.downloaded = 0;
        remaining = 1;  // a size line is expected first
        size_t position = 0;
        long long offset = 0;
        int result = kOk;
        cuts.push_back(wire.size());
        for (size_t end : cuts) {
            if (end < position) continue;
            if ((long long)(end - position) > kMaxRead - offset) return -99;  // would not fit: a test bug
            memcpy(buffer.get() + offset, wire.data() + position, end - position);
            const long long length = offset + (long long)(end - position);
            buffer[length] = 0;
            offset = 0;
            position = end;
            result = channel.dump(file, buffer.get(), length, offset, remaining, kChunked, &job);
            if (result != kOk || remaining == 0) break;
        }
        return result;
    }

    webChannel channel;
    webChannel::httpGetJob job;
    FILE* file = tmpfile();
    std::unique_ptr<char[]> buffer{new char[kBufferSlice]};
    long long remaining = 0;
};

TEST_F(Body, PlainModeWritesFromTheOffsetAndCounts) {
    memcpy(buffer.get(), "HEADbody", 8);
    long long offset = 4;
    remaining = 10;
    EXPECT_EQ(channel.dump(file, buffer.get(), 8, offset, remaining, 0, &job), kOk);
    EXPECT_EQ(written(), "body");
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(remaining, 6);
    EXPECT_EQ(job.downloaded, 4);
}

TEST_F(Body, FramingIsDecodedOrRefusedWithTheExactCode) {
    const std::vector<std::tuple<std::string, std::vector<size_t>, int, std::string>> cases = {
        {"5\r\nhello\r\n0\r\n\r\n", {}, kOk, "hello"},
        {"5;name=value\r\nhello\r\n0\r\n\r\n", {}, kOk, "hello"},  // an extension is skipped
        {"5\r\nab\0de\r\n0\r\n\r\n"s, {}, kOk, "ab\0de"s},         // data may hold NUL bytes
        {"A\r\n0123456789XY3\r\nabc\r\n0\r\n\r\n", {}, kMalformedResponse, ""},
        {"5\r\nhelloX\r\n0\r\n\r\n", {8}, kMalformedResponse, ""},  // also across reads
        {"zz\r\n", {}, kMalformedResponse, ""},
        {"12345678901234567\r\n", {}, kBadChunkSize, ""},
        {"7ffffffffffffffd\r\n", {}, kBadChunkSize, ""},
        {"-5\r\nabcde\r\n", {}, kBadChunkSize, ""},
    };
    for (const auto& [wire, cuts, result, body] : cases) {
        EXPECT_EQ(decode(wire, cuts), result) << wire;
        if (result != kOk) continue;
        EXPECT_EQ(written(), body);
        EXPECT_EQ(remaining, 0);
        EXPECT_EQ(job.downloaded, (long long)body.size());
    }
}

TEST_F(Body, EveryReadBoundaryGivesTheSameBytesExactlyOnce) {
    // Chunks ending exactly at a read, size lines cut anywhere, a read that
    // ends right after the head: every single cut and every seventh pair.
    const std::string expected = "abc" + std::string(17, 'd') + "efgh" + std::string(300, 'x');
    const std::string wire = "1\r\na\r\n2\r\nbc\r\n11\r\n" + std::string(17, 'd') + "\r\n4\r\nefgh\r\n12c\r\n" +
                             std::string(300, 'x') + "\r\n0;end\r\nTrailer: t\r\n\r\n";
    for (size_t first = 0; first <= wire.size(); ++first) {
        for (size_t second = first; second <= wire.size(); second += 7) {
            ASSERT_EQ(decode(wire, {first, second}), kOk) << first << "," << second;
            ASSERT_EQ(remaining, 0) << first << "," << second;
            ASSERT_EQ(written(), expected) << first << "," << second;
            ASSERT_EQ(job.downloaded, (long long)expected.size());
        }
    }
}

TEST(ChunkSize, ScansAsStrtolDoesWithinTheBuffer) {
    const std::vector<std::tuple<std::string, ChunkSize::Status, long long, size_t>> cases = {
        {"1a\r\n", ChunkSize::kComplete, 26, 2},
        {"0x10\r\n", ChunkSize::kComplete, 16, 4},
        {"\r\n 5\r\n", ChunkSize::kComplete, 5, 4},
        {"0\r", ChunkSize::kComplete, 0, 1},
        {"g\r", ChunkSize::kComplete, 0, 0},  // no digits: nothing taken
        {"7ffffffffffffffc\r", ChunkSize::kComplete, 0x7ffffffffffffffcLL, 16},
        {"ffffffffffffffff\r", ChunkSize::kOutOfRange, 0, 0},
        {"1a", ChunkSize::kIncomplete, 0, 0},  // a following byte could still change the number
        {"0", ChunkSize::kIncomplete, 0, 0},
        {"0x", ChunkSize::kIncomplete, 0, 0},
        {"  ", ChunkSize::kIncomplete, 0, 0},
    };
    for (const auto& [text, status, size, end] : cases) {
        const ChunkSize scan = scanChunkSize(text.data(), text.size());
        EXPECT_EQ(scan.status, status) << text;
        if (status != ChunkSize::kComplete) continue;
        EXPECT_EQ(scan.size, size) << text;
        EXPECT_EQ(scan.end, end) << text;
    }
}

}  // namespace
