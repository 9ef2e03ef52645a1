// POST: the request bytes, how long the answer is read, bad answers (redirects: the redirect tests). SIGPIPE: single
// GETs ignore it while they run and give the host its disposition back whole; POST leaves it alone and survives a reset
// in the upload.
#include <signal.h>

#include <mutex>

#include "../transport/transport_helpers.h"

namespace {

using namespace transporttest;

class Post : public ChannelTest {
protected:
    int post(const std::string& url, std::string body) {
        return channel.httpPost(url.c_str(), nullptr, &body[0], false);
    }
};

// Parameters and the host's own lines: the redirect tests; here an empty body, a large one, and nginx over HTTPS.
TEST_F(Post, RequestCarriesLengthHostAndTheWholeBodyAlsoOverHttps) {
    const std::string answer = httpResponse(200, "stored\n"), large = pattern(3 * 1024 * 1024 + 17, 1, true);
    ScriptServer server(serveEach([&](const std::string&) { return answer; }, 1));
    ASSERT_EQ(post(server.url(""), ""), kOk);
    ASSERT_EQ(post(server.url("/big"), large), kOk);
    long long length = -1;
    EXPECT_EQ(channel.httpResponse(&length), answer);
    EXPECT_EQ(length, 7);
    const std::vector<std::string> requests = server.requests();
    const std::string host = "Host: " + hostOf(server) + "\r\n";
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], "POST / HTTP/1.1\r\nContent-Length: 0\r\n" + host + "\r\n");
    EXPECT_TRUE(requests[1] == "POST /big HTTP/1.1\r\nContent-Length: " + std::to_string(large.size()) + "\r\n" + host +
                                   "\r\n" + large);
    ASSERT_EQ(post(peers().httpsUrl("/post"), "data=1"), kOk);  // nginx's answer is kept with its head
    const std::string nginx = channel.m_response;
    EXPECT_EQ(nginx.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << nginx;
    EXPECT_EQ(nginx.substr(nginx.size() - std::min<size_t>(nginx.size(), 11)), "\r\n\r\nposted\n") << nginx;
}

// Answers, sent in pieces, are read to the close or, on a kept connection, to the time-out; error answers are kept.
TEST_F(Post, AnswersAreReadWholeToTheCloseOrTheTimeOutAndBadOnesFailWithTheirCode) {
    const std::string whole = httpResponse(200, pattern(3000, 2, true), "X-Server: script\r\n");
    const std::vector<std::tuple<std::string, bool, int, bool>> cases = {
        // answer, the server stalls after it, code, kept
        {whole, false, kOk, true},
        {whole, true, kOk, true},
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", false, kReadFailed, false},  // shorter than announced
        {"", false, kReadFailed, false},                                                   // closed without an answer
        {httpResponse(404, "no such form"), false, kBadStatus, true},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunkedBody({"posted\n"}), false, kBadStatus, true},
    };
    for (const auto& [answer, stalls, code, kept] : cases) {
        SCOPED_TRACE(answer.substr(0, 40) + (stalls ? " (stalls)" : ""));
        ScriptServer server([&](ServerConnection& c) {
            if (c.readRequest().empty()) return;
            c.sendPieces(answer, {5, 20, 38, 40, 1000, 2500}, 30);
            if (stalls) c.stall(10);
        });
        Stopwatch watch;
        EXPECT_EQ(post(server.url("/p"), "x"), code);
        EXPECT_EQ(channel.getErrorCode(nullptr, 0), code);
        EXPECT_TRUE(watch.tookTheTimeout(stalls));
        if (kept) {
            EXPECT_EQ(channel.m_response, answer);
        }
    }
}

volatile sig_atomic_t gSigpipes = 0;
void countSigpipe(int, siginfo_t*, void*) {
    gSigpipes = gSigpipes + 1;
}

struct sigaction disposition() {
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    return now;
}

// The host's handler, flags and mask; or ignored, with the host's flags but SA_SIGINFO (which would mark the ignore
// as a handler with information) and its mask.
bool isTheHosts(const struct sigaction& d, bool ignored = false) {
    return (ignored ? d.sa_handler == SIG_IGN && !(d.sa_flags & SA_SIGINFO)
                    : d.sa_sigaction == countSigpipe && (d.sa_flags & SA_SIGINFO)) &&
           (d.sa_flags & SA_RESTART) && sigismember(&d.sa_mask, SIGUSR1) == 1;
}

// A host with its own handler: GETs ignore SIGPIPE while they run (as the server sees) and give the handler back;
// POST leaves it alone, and a reset in its upload fails it, no signal reaching the host.
TEST_F(ChannelTest, GetsIgnoreSigpipeWhileRunningAndGiveTheHostsHandlerBackWhilePostLeavesItAlone) {
    struct sigaction host {
    }, original{};
    host.sa_sigaction = countSigpipe;
    host.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&host.sa_mask);
    sigaddset(&host.sa_mask, SIGUSR1);
    ASSERT_EQ(sigaction(SIGPIPE, &host, &original), 0);
    std::mutex mutex;
    std::vector<struct sigaction> seen;  // by the server, as each request came
    ScriptServer server([&](ServerConnection& c) {
        for (std::string head; !(head = c.readHead()).empty();) {
            if (requestPath(head) == "/upload") return c.reset();  // in the middle of the upload
            c.readBytes(requestPath(head) == "/p" ? 1 : 0);
            std::lock_guard<std::mutex> lock(mutex);
            seen.push_back(disposition());
            if (!c.send(httpResponse(requestPath(head) == "/missing" ? 404 : 200, "seen"))) return;
        }
    });
    EXPECT_EQ(channel.httpGet(server.url("/f").c_str(), (tempDir() + "/f").c_str()), kOk);
    EXPECT_TRUE(isTheHosts(disposition()));
    EXPECT_EQ(channel.httpGet(server.url("/missing").c_str()), kBadStatus);
    EXPECT_TRUE(isTheHosts(disposition()));
    std::string body = "x";
    ASSERT_EQ(channel.httpPost(server.url("/p").c_str(), nullptr, &body[0], false), kOk);
    body = pattern(32 * 1024 * 1024, 1, true);
    EXPECT_EQ(channel.httpPost(server.url("/upload").c_str(), nullptr, &body[0], true), kSendFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kSendFailed);
    EXPECT_TRUE(gSigpipes == 0 && isTheHosts(disposition()));
    sigaction(SIGPIPE, &original, nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_TRUE(isTheHosts(seen[0], true) && isTheHosts(seen[1], true) && isTheHosts(seen[2]));
}

}  // namespace
