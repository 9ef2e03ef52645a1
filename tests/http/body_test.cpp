// Body transfer: plain bytes and chunked decoding across read boundaries.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>

using namespace std::string_literals;

#include "channel/webChannel.h"
#include "http/body.h"

namespace {

// A temporary target file and a receive buffer the size of a worker's slice.
class Body : public ::testing::Test {
protected:
    void SetUp() override {
        file = tmpfile();
        ASSERT_NE(file, nullptr);
        buffer.reset(new char[kBufferSlice]);
    }
    void TearDown() override {
        if (file != nullptr) fclose(file);
    }
    std::string written() {
        fflush(file);
        long length = ftell(file);
        std::string text((size_t)length, '\0');
        rewind(file);
        if (length > 0) EXPECT_EQ(fread(&text[0], 1, (size_t)length, file), (size_t)length);
        return text;
    }

    // Feeds `wire` (head already removed) to the decoder the way the segment
    // download does: the first read is cut at `cuts[0]`, later reads at the
    // following cuts, each appended behind what the decoder carried.
    int decode(const std::string& wire, const std::vector<size_t>& cuts, long long& remaining) {
        remaining = 1;  // a size line is expected first
        size_t position = 0;
        long long offset = 0;
        int result = kOk;
        std::vector<size_t> ends(cuts);
        ends.push_back(wire.size());
        for (size_t end : ends) {
            if (end < position) continue;
            size_t count = end - position;
            if ((long long)count > kMaxRead - offset) return -99;  // would not fit: a test bug
            memcpy(buffer.get() + offset, wire.data() + position, count);
            long long length = offset + (long long)count;
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
    FILE* file = nullptr;
    std::unique_ptr<char[]> buffer;
};

std::string chunkedWire(const std::vector<std::string>& chunks, const std::string& lastLine = "0\r\n\r\n") {
    std::string wire;
    char size[32];
    for (const std::string& chunk : chunks) {
        snprintf(size, sizeof(size), "%zx\r\n", chunk.size());
        wire += size + chunk + "\r\n";
    }
    return wire + lastLine;
}

TEST_F(Body, PlainModeWritesFromOffsetAndCounts) {
    memcpy(buffer.get(), "HEADbody", 8);
    long long offset = 4, remaining = 10;
    EXPECT_EQ(channel.dump(file, buffer.get(), 8, offset, remaining, 0, &job), kOk);
    EXPECT_EQ(written(), "body");
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(remaining, 6);
    EXPECT_EQ(job.downloaded, 4);
}

TEST_F(Body, OneBufferWithAChunkAndTheLastChunk) {
    long long remaining = 0;
    EXPECT_EQ(decode("5\r\nhello\r\n0\r\n\r\n", {}, remaining), kOk);
    EXPECT_EQ(written(), "hello");
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(job.downloaded, 5);
}

TEST_F(Body, ExtensionAfterTheSizeIsSkipped) {
    long long remaining = 0;
    EXPECT_EQ(decode("5;name=value\r\nhello\r\n0\r\n\r\n", {}, remaining), kOk);
    EXPECT_EQ(written(), "hello");
}

TEST_F(Body, IncompleteChunkAtTheStartIsCarriedWhole) {
    memcpy(buffer.get(), "5\r\nhel", 6);
    long long offset = 0, remaining = 0;
    EXPECT_EQ(channel.dump(file, buffer.get(), 6, offset, remaining, kChunked, &job), kOk);
    EXPECT_EQ(offset, 6);
    EXPECT_EQ(remaining, 1);
    EXPECT_EQ(written(), "");
}

TEST_F(Body, MalformedFramingAndSizes) {
    long long remaining = 0;
    EXPECT_EQ(decode("A\r\n0123456789XY3\r\nabc\r\n0\r\n\r\n", {}, remaining), kMalformedResponse);
    EXPECT_EQ(decode("zz\r\n", {}, remaining), kMalformedResponse);
    EXPECT_EQ(decode("12345678901234567\r\n", {}, remaining), kBadChunkSize);
    EXPECT_EQ(decode("7ffffffffffffffd\r\n", {}, remaining), kBadChunkSize);
    EXPECT_EQ(decode("-5\r\nabcde\r\n", {}, remaining), kBadChunkSize);
    EXPECT_EQ(decode("5\r\nab\0de\r\n0\r\n\r\n"s, {}, remaining), kOk);  // data may hold NUL bytes
}

TEST_F(Body, EveryReadBoundaryGivesTheSameBytesExactlyOnce) {
    // Chunks ending exactly at a read, size lines cut anywhere, a read that
    // ends right after the head: every single cut and every pair of cuts.
    std::string expected;
    std::vector<std::string> chunks = {"a", "bc", std::string(17, 'd'), "efgh", std::string(300, 'x')};
    for (const auto& chunk : chunks) expected += chunk;
    std::string wire = chunkedWire(chunks, "0;end\r\nTrailer: t\r\n\r\n");
    for (size_t first = 0; first <= wire.size(); ++first) {
        for (size_t second = first; second <= wire.size(); second += 7) {
            ASSERT_EQ(fseek(file, 0, SEEK_SET), 0);
            ASSERT_EQ(ftruncate(fileno(file), 0), 0);
            job.downloaded = 0;
            long long remaining = 0;
            ASSERT_EQ(decode(wire, {first, second}, remaining), kOk) << first << "," << second;
            ASSERT_EQ(remaining, 0) << first << "," << second;
            ASSERT_EQ(written(), expected) << first << "," << second;
            ASSERT_EQ(job.downloaded, (long long)expected.size());
        }
    }
}

TEST_F(Body, ChunksLargerThanTheBufferStreamWithoutOverflow) {
    // 1.5 MiB in one chunk, then a small one, read in slices of 100 KiB.
    std::string big(3 * kBufferSlice, '\0');
    std::mt19937 random(7);
    for (char& c : big) c = (char)(random() & 0xff);
    std::string wire = chunkedWire({big, "tail"});
    std::vector<size_t> cuts;
    for (size_t cut = 100000; cut < wire.size(); cut += 100000) cuts.push_back(cut);
    long long remaining = 0;
    ASSERT_EQ(decode(wire, cuts, remaining), kOk);
    EXPECT_EQ(remaining, 0);
    EXPECT_TRUE(written() == big + "tail");
}

TEST(ChunkSize, ScansLikeStrtolWithinTheBuffer) {
    auto scan = [](const std::string& text) { return scanChunkSize(text.data(), text.size()); };
    EXPECT_EQ(scan("1a\r\n").size, 26);
    EXPECT_EQ(scan("1a\r\n").end, 2u);
    EXPECT_EQ(scan("0x10\r\n").size, 16);
    EXPECT_EQ(scan("\r\n 5\r\n").size, 5);
    EXPECT_EQ(scan("1a").status, ChunkSize::kIncomplete);
    EXPECT_EQ(scan("0").status, ChunkSize::kIncomplete);
    EXPECT_EQ(scan("0x").status, ChunkSize::kIncomplete);
    EXPECT_EQ(scan("  ").status, ChunkSize::kIncomplete);
    EXPECT_EQ(scan("0\r").status, ChunkSize::kComplete);
    EXPECT_EQ(scan("0\r").size, 0);
    EXPECT_EQ(scan("g\r").status, ChunkSize::kComplete);
    EXPECT_EQ(scan("g\r").end, 0u);
    EXPECT_EQ(scan("ffffffffffffffff\r").status, ChunkSize::kOutOfRange);
    EXPECT_EQ(scan("7ffffffffffffffc\r").size, 0x7ffffffffffffffcLL);
}

}  // namespace
