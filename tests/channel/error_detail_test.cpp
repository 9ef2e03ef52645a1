// Error detail (parameter 3023): a failed size probe, single GET or batch job leaves in the error state the code
// of the layer that failed and its reason; without the parameter the state is what it always was. The host name
// carries an empty label, so no name server is asked.
#include <cstring>

#include "batch/batch_helpers.h"
#include "transport/transport_helpers.h"

namespace {

using namespace batchtest;

class ErrorDetail : public ::testing::Test {
protected:
    static void init(webChannel& channel, unsigned workers, bool detail) {
        ASSERT_EQ(channel.init(workers), 0);
        channel.setParam(kParamTimeout, "2", true);
        if (detail) channel.setParam(kParamErrorDetail, "", true);
    }
    // Answers by path; a TLS client (its first byte is a handshake record) gets plain HTTP back.
    ScriptServer server{[](ServerConnection& c) {
        std::string request = c.readBytes(1);
        if (request == "\x16") return (void)c.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        for (int i = 0; i < 10 && !(request += c.readRequest()).empty(); request.clear()) {
            const std::string path = requestPath(request);
            c.send(path == "/five"      ? httpResponse(200, "hello")
                   : path == "/garbage" ? "garbage\r\n\r\n"
                   : path == "/chunked" ? "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"
                   : path == "/other"   ? httpResponse(206, "hello", "Content-Range: bytes 0-4/1048589")
                                        : httpResponse(404, ""));
        }
    }};
    transporttest::LoopbackPort closed{false};
    const std::string dir = tempDir();
    static std::string errorText(webChannel& channel, int& code) {
        char text[256] = {0};
        code = channel.getErrorCode(text, (int)sizeof(text));
        return text;
    }
};

TEST_F(ErrorDetail, EachFailureKeepsItsOwnCodeAndReasonOnlyWhenAskedFor) {
    const std::string tls = "https://127.0.0.1:" + std::to_string(server.port()) + "/x";
    const std::string ftp = "ftp://127.0.0.1:" + std::to_string(closed.port) + "/x";
    std::ofstream(dir + "/file") << "in the way";
    struct Row {
        std::string url, name;
        long long size;
        int added, plainState;    // addJob's result; getErrorCode after it without detail
        int plainGet, detailGet;  // httpGet's result without and with detail
        int code;                 // getErrorCode with detail, after addJob and after a failed httpGet
        std::string reason;       // its message
    };
    for (const Row& row : std::vector<Row>{
             {server.url("/nope.bin"), "/a", 0, -3000, 0, -3052, -3052, -3052, "HTTP 404 Not Found"},
             {server.url("/garbage"), "/b", 0, -3000, 0, -3052, -3052, -3002, "malformed response: \"garbage\""},
             {server.url("/chunked"), "/c", 0, -3000, 0, 0, 0, -3000, "no size in the answer (no Content-Length)"},
             {closed.url("/x"), "/d", 0, -3000, -3022, -3022, -3022, -3022, "Connection refused"},
             {"http://no-such-host..invalid/x", "/e", 0, -3000, -3011, -3011, -3011, -3011,
              "Name or service not known"},
             {tls, "/f", 0, -3000, -3033, -3033, -3033, -3033, "wrong version number"},
             {ftp, "/g", 0, -3000, -3022, -3022, -3000, -3000, "unsupported scheme (http and https only)"},
             {server.url("/five"), "/file/t", 5, -3054, 0, -3054, -3054, -3054, "Not a directory"}}) {
        for (bool detail : {false, true}) {
            SCOPED_TRACE(row.url + (detail ? " with detail" : " without detail"));
            webChannel channel;
            init(channel, 1, detail);
            const std::string file = dir + row.name;
            int code = 0;
            EXPECT_EQ(channel.addJob(row.url.c_str(), file.c_str(), row.size, nullptr, nullptr), row.added);
            EXPECT_EQ(errorText(channel, code), detail ? row.reason : "");
            EXPECT_EQ(code, detail ? row.code : row.plainState);
            std::string context, message;
            channel.getError(context, message);
            EXPECT_EQ(context, detail ? (row.size == 0 ? row.url : file) : "");
            const int got = channel.httpGet(row.url.c_str(), file.c_str());
            EXPECT_EQ(got, detail ? row.detailGet : row.plainGet);
            const std::string text = errorText(channel, code);
            EXPECT_EQ(code, got == 0 ? 0 : detail ? row.code : got);
            EXPECT_EQ(text, got == 0 ? "" : detail ? row.reason : resultText(got));  // the words lose their line feed
            channel.close();
        }
    }
}

// Two workers fail at once: the message belongs to the failure that won, names its file, and is copied whole,
// cut to the buffer; without detail it is the words and the file as always.
TEST_F(ErrorDetail, ABatchKeepsTheReasonOfItsFirstFailure) {
    for (bool detail : {false, true}) {
        webChannel channel;
        init(channel, 2, detail);
        for (const auto& [url, name] :
             {std::make_pair(server.url("/nope.bin"), "/missing"), {closed.url("/x"), "/refused"}})
            ASSERT_EQ(channel.addJob(url.c_str(), (dir + name).c_str(), 5, nullptr, nullptr), 0);
        EXPECT_EQ(channel.httpMultiGet(true), 2);
        int code = 0;
        const std::string text = errorText(channel, code);
        const bool missing = code == kBadStatus;
        ASSERT_TRUE(missing || code == kConnectFailed) << code;
        const std::string file = dir + (missing ? "/missing" : "/refused");
        EXPECT_EQ(text, (detail ? missing ? "HTTP 404 Not Found" : "Connection refused" : resultText(code)) +
                            std::string(": ") + file);
        char guard[16];
        std::memset(guard, 'g', sizeof(guard));
        channel.getErrorCode(guard + 4, 8);
        EXPECT_EQ(std::string(guard, sizeof(guard)), "gggg" + text.substr(0, 7) + '\0' + "gggg");
        channel.close();
    }
}

// A server whose file is not the one listed (another size) ends the job after one fresh attempt, saying why.
TEST_F(ErrorDetail, AnotherFileOnTheServerEndsTheJobAfterTwoAnswersSayingWhy) {
    webChannel channel;
    init(channel, 1, true);
    ASSERT_EQ(channel.addJob(server.url("/other").c_str(), (dir + "/other").c_str(), 2097152, nullptr, nullptr), 0);
    EXPECT_EQ(channel.httpMultiGet(true), 1);
    int code = 0;
    EXPECT_EQ(errorText(channel, code), "the server's file is 1048589 bytes, the job lists 2097152: " + dir + "/other");
    EXPECT_EQ(code, kChecksumMismatch);
    size_t asked = 0;
    for (const std::string& request : server.requests()) asked += requestPath(request) == "/other";
    EXPECT_EQ(asked, 2u);
    channel.close();
}

}  // namespace
