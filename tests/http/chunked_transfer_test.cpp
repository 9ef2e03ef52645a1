// Chunked bodies end to end: a single GET into a file from the scripted
// server, with the response cut into reads at every boundary of the framing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "http/transfer_fixtures.h"

namespace {

using namespace transfertest;
using testsupport::readFile;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using testsupport::tempDir;

const std::string kChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

// A chunked response and the offsets of every part of its framing.
struct ChunkedResponse {
    struct Chunk {
        size_t sizeLine;   // first digit of the size
        size_t digitsEnd;  // just past the digits and extension: the CR
        size_t data;       // first data byte
        size_t dataEnd;    // the CR after the data
        size_t end;        // just past the LF after the data
    };
    std::string wire;
    std::string body;  // the decoded bytes
    std::vector<Chunk> chunks;
    size_t lastChunk = 0;  // the "0" of the last chunk
    size_t headEnd = 0;

    explicit ChunkedResponse(const std::vector<std::string>& data, bool upperCase = false,
                             const std::string& extension = "", const std::string& trailer = "") {
        wire = kChunkedHead;
        headEnd = wire.size();
        for (const std::string& piece : data) {
            Chunk chunk;
            char size[32];
            snprintf(size, sizeof(size), upperCase ? "%zX" : "%zx", piece.size());
            chunk.sizeLine = wire.size();
            wire += size + extension;
            chunk.digitsEnd = wire.size();
            wire += "\r\n";
            chunk.data = wire.size();
            wire += piece;
            chunk.dataEnd = wire.size();
            wire += "\r\n";
            chunk.end = wire.size();
            chunks.push_back(chunk);
            body += piece;
        }
        lastChunk = wire.size();
        wire += "0\r\n" + trailer + "\r\n";
    }
};

// Serves `wire` to every request, cut into separate sends at `cuts`.
ScriptServer::Handler servePieces(const std::string& wire, const std::vector<size_t>& cuts, int gapMillis = 20) {
    return [wire, cuts, gapMillis](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.sendPieces(wire, cuts, gapMillis);
        c.stall(5);
    };
}

class ChunkedDownload : public ChannelTest {
protected:
    // Downloads from a server sending `wire` cut at `cuts`; returns the result.
    int download(const std::string& wire, const std::vector<size_t>& cuts, int gapMillis = 20) {
        ScriptServer server(servePieces(wire, cuts, gapMillis));
        target = tempDir() + "/chunked.bin";
        return channel.httpGet(server.url("/c").c_str(), target.c_str());
    }
    std::string target;
};

// ---------------------------------------------------------------------------
// Read boundaries.

struct CutRule {
    const char* name;
    std::function<std::vector<size_t>(const ChunkedResponse&)> cuts;
};

std::vector<size_t> each(const ChunkedResponse& r, std::function<size_t(const ChunkedResponse::Chunk&)> at) {
    std::vector<size_t> cuts;
    for (const auto& chunk : r.chunks) cuts.push_back(at(chunk));
    return cuts;
}

const CutRule kCutRules[] = {
    {"WholeResponseInOneSend", [](const ChunkedResponse&) { return std::vector<size_t>{}; }},
    {"RightAfterTheHead", [](const ChunkedResponse& r) { return std::vector<size_t>{r.headEnd}; }},
    {"InsideTheSizeLine",
     [](const ChunkedResponse& r) {
         std::vector<size_t> cuts;
         for (const auto& c : r.chunks)
             if (c.digitsEnd - c.sizeLine >= 2) cuts.push_back(c.sizeLine + 1);
         return cuts;
     }},
    {"BeforeTheCrOfTheSizeLine", [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.digitsEnd; }); }},
    {"BetweenCrAndLfOfTheSizeLine",
     [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.digitsEnd + 1; }); }},
    {"RightAfterTheSizeLine", [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.data; }); }},
    {"InsideTheData",
     [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.data + (c.dataEnd - c.data) / 2; }); }},
    {"BeforeTheCrAfterTheData", [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.dataEnd; }); }},
    {"BetweenCrAndLfAfterTheData",
     [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.dataEnd + 1; }); }},
    {"ExactlyAfterAChunk", [](const ChunkedResponse& r) { return each(r, [](auto& c) { return c.end; }); }},
    {"InsideTheLastChunk",
     [](const ChunkedResponse& r) {
         return std::vector<size_t>{r.lastChunk + 1, r.lastChunk + 2};
     }},
    {"AtEveryBoundary",
     [](const ChunkedResponse& r) {
         std::vector<size_t> cuts{r.headEnd, r.lastChunk + 1, r.lastChunk + 2};
         for (const auto& c : r.chunks) {
             if (c.digitsEnd - c.sizeLine >= 2) cuts.push_back(c.sizeLine + 1);
             for (size_t at : {c.digitsEnd, c.digitsEnd + 1, c.data, c.data + (c.dataEnd - c.data) / 2, c.dataEnd,
                               c.dataEnd + 1, c.end})
                 cuts.push_back(at);
         }
         std::sort(cuts.begin(), cuts.end());
         cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
         return cuts;
     }},
};

class ChunkedReadBoundary : public ChunkedDownload, public ::testing::WithParamInterface<CutRule> {};

TEST_P(ChunkedReadBoundary, TargetHoldsEveryChunkExactlyOnce) {
    const ChunkedResponse response({pattern(500, 1), "7 bytes", pattern(4096, 2), pattern(70000, 3), "x"});
    ASSERT_EQ(download(response.wire, GetParam().cuts(response)), kOk);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kOk);
    const std::string got = readFile(target);
    EXPECT_EQ(got.size(), response.body.size());
    EXPECT_TRUE(got == response.body);
}

INSTANTIATE_TEST_SUITE_P(Cuts, ChunkedReadBoundary, ::testing::ValuesIn(kCutRules),
                         [](const ::testing::TestParamInfo<CutRule>& info) { return std::string(info.param.name); });

TEST_F(ChunkedDownload, ResponseArrivingByteByByteIsDecoded) {
    const ChunkedResponse response({"ab", "c", "hello world", std::string(17, 'z')});
    std::vector<size_t> cuts;
    for (size_t i = 1; i < response.wire.size(); ++i) cuts.push_back(i);
    ASSERT_EQ(download(response.wire, cuts, 3), kOk);
    EXPECT_EQ(readFile(target), response.body);
}

TEST_F(ChunkedDownload, UpperCaseSizesExtensionsAndTrailersAreHandled) {
    const ChunkedResponse response({pattern(300, 4), pattern(0xABC, 5)}, true, ";name=value", "X-Checksum: abc\r\n");
    ASSERT_EQ(download(response.wire, {response.chunks[1].sizeLine + 2, response.lastChunk + 3}), kOk);
    EXPECT_TRUE(readFile(target) == response.body);
}

TEST_F(ChunkedDownload, ExistingTargetEndsUpHoldingExactlyTheBody) {
    const ChunkedResponse response({"new", " content"});
    ScriptServer server(servePieces(response.wire, {}));
    const std::string file = tempDir() + "/existing";
    writeFile(file, std::string(5000, 'o'));
    ASSERT_EQ(channel.httpGet(server.url("/c").c_str(), file.c_str()), kOk);
    EXPECT_EQ(readFile(file), "new content");
}

TEST_F(ChunkedDownload, MemoryGetKeepsTheFramingAsReceived) {
    const ChunkedResponse response({"hello", " world"});
    ScriptServer server(servePieces(response.wire, {}));
    ASSERT_EQ(channel.httpGet(server.url("/c").c_str()), kOk);
    EXPECT_EQ(memoryResult(), "\r\n\r\n" + response.wire.substr(response.headEnd));
}

// ---------------------------------------------------------------------------
// Chunks larger than the 512 KiB receive buffer.

TEST_F(ChunkedDownload, ChunksLargerThanTheReceiveBufferStreamThrough) {
    const ChunkedResponse response({"abc", pattern(3 * 512 * 1024, 6), pattern(700000, 7), "0123456789"});
    ASSERT_EQ(download(response.wire, {}), kOk);
    const std::string got = readFile(target);
    EXPECT_EQ(got.size(), response.body.size());
    EXPECT_TRUE(got == response.body);
}

TEST_F(ChunkedDownload, ChunksAroundTheReceiveBufferSizeStreamThrough) {
    std::vector<std::string> data;
    unsigned seed = 10;
    for (size_t size : {524270, 524276, 524277, 524278, 524279, 524280, 524285, 524286, 524287, 524288, 524289})
        data.push_back(pattern(size, seed++));
    const ChunkedResponse response(data);
    std::vector<size_t> cuts;
    for (const auto& c : response.chunks) {
        cuts.push_back(c.sizeLine + 2);
        cuts.push_back(c.end);
    }
    ASSERT_EQ(download(response.wire, cuts), kOk);
    const std::string got = readFile(target);
    EXPECT_EQ(got.size(), response.body.size());
    EXPECT_TRUE(got == response.body);
}

TEST_F(ChunkedDownload, LargeChunkCutInsideItsLastBytesStreamsThrough) {
    const ChunkedResponse response({pattern(1200000, 30), "end"});
    const auto& big = response.chunks[0];
    ASSERT_EQ(download(response.wire, {big.data + 524287, big.dataEnd - 1, big.dataEnd + 1, big.end + 1}), kOk);
    EXPECT_TRUE(readFile(target) == response.body);
}

// ---------------------------------------------------------------------------
// Broken framing.

TEST_F(ChunkedDownload, DataNotFollowedByCrLfIsMalformed) {
    const std::string wire = kChunkedHead + "A\r\n0123456789XY3\r\nabc\r\n0\r\n\r\n";
    EXPECT_EQ(download(wire, {}), kMalformedResponse);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kMalformedResponse);
}

TEST_F(ChunkedDownload, DataNotFollowedByCrLfIsMalformedAlsoAcrossReads) {
    const std::string wire = kChunkedHead + "5\r\nhello" + "X\r\n0\r\n\r\n";
    EXPECT_EQ(download(wire, {kChunkedHead.size() + 8}), kMalformedResponse);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kMalformedResponse);
}

TEST_F(ChunkedDownload, SizeLineWithoutDigitsIsMalformed) {
    EXPECT_EQ(download(kChunkedHead + "zz\r\nhello\r\n0\r\n\r\n", {}), kMalformedResponse);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kMalformedResponse);
}

TEST_F(ChunkedDownload, SizeBeyondTheLimitIsABadChunkSize) {
    EXPECT_EQ(download(kChunkedHead + "12345678901234567\r\nhello\r\n0\r\n\r\n", {}), kBadChunkSize);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadChunkSize);
    EXPECT_EQ(download(kChunkedHead + "7ffffffffffffffd\r\nhello\r\n0\r\n\r\n", {}), kBadChunkSize);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kBadChunkSize);
}

TEST_F(ChunkedDownload, ServerClosingInsideAChunkFailsWithReadError) {
    const ChunkedResponse response({pattern(1000, 8), pattern(1000, 9)});
    ScriptServer server([&](ServerConnection& c) {
        if (c.readRequest().empty()) return;
        c.send(response.wire.substr(0, response.chunks[1].data + 10));
        c.close();
    });
    const std::string file = tempDir() + "/cut";
    EXPECT_EQ(channel.httpGet(server.url("/c").c_str(), file.c_str()), kReadFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kReadFailed);
}

}  // namespace
