// The chunked decoder fed as the segment download feeds it, at every read boundary and at the limits of a read (the
// fuzz targets check it against a plain decoding, the chunk-size scan against strtoll; batch tests: bad framing).
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "channel/webChannel.h"
#include "http/body.h"
#include "support/script_server.h"

namespace {

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
    // Decodes `wire` (the head already taken) onto an empty target: the reads end at the cuts, each placed behind
    // what the decoder carried; -99 when a read would not fit the slice.
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
            if ((long long)(end - position) > kMaxRead - offset) return -99;
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

// Beyond the wires the fuzz target tries: a size line, extension included, ends within 64 KiB.
TEST_F(Body, SizeLinesLongerThan64KiBAreMalformed) {
    EXPECT_EQ(decode("5;" + std::string(70000, 'e')), kMalformedResponse);
    EXPECT_EQ(decode(std::string(70000, '0')), kMalformedResponse);
    EXPECT_EQ(decode("5;" + std::string(65000, 'e') + "\r\nhello\r\n0\r\n\r\n", {30000}), kOk);
    EXPECT_EQ(written(), "hello");
}

TEST_F(Body, EveryReadBoundaryGivesTheSameBytesExactlyOnce) {
    // Every single cut and every seventh pair: in size lines, data, extensions and the trailer.
    const std::string expected = "abc" + std::string(17, 'd') + "efgh" + std::string(300, 'x');
    const std::string wire = "1\r\na\r\n2\r\nbc\r\n11\r\n" + std::string(17, 'd') + "\r\n4\r\nefgh\r\n12C\r\n" +
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

// With its 7-byte size line and CR LF, a chunk of 524278 bytes fills a read: carried whole, the rest of it still
// fits the next read. One byte more and its data is written as it comes, also when a read ends in its CR LF.
TEST_F(Body, ChunksAtTheSizeOfAReadAreCarriedWholeOrWrittenAsTheyCome) {
    for (size_t size : {524278, 524279}) {
        const std::string data(size, 'd');
        for (const std::vector<size_t>& cuts : {std::vector<size_t>{8, 524287}, {524287}}) {
            ASSERT_EQ(decode(testsupport::chunkedBody({data}), cuts), kOk) << size;
            EXPECT_EQ(remaining, 0);
            EXPECT_TRUE(written() == data) << size;
        }
    }
}

// The rest of a chunked body after its last chunk's size, for reuse of its connection: only a tail that ends
// with its empty line inside the bytes at hand counts.
TEST(ChunkedTail, EndsAfterTheEmptyLineThatFollowsTheTrailers) {
    for (const auto& [text, end] : std::vector<std::pair<std::string, size_t>>{{"0\r\n\r\n", 5},
                                                                               {"0;x=1\r\nSum: 1\r\n\r\nnext", 17},
                                                                               {"0\n\n", 3},
                                                                               {"0\r\n", 0},
                                                                               {"0\r\nSum: 1\r\n", 0},
                                                                               {"0\r\n\r", 0},
                                                                               {"", 0}})
        EXPECT_EQ(chunkedTailEnd(text.data(), text.size()), end) << text;
}

}  // namespace
