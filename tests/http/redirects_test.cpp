// Redirects: each code as GETs and POSTs take it, with their exact bytes; strict redirects (parameter 3027): which
// requests carry the server credentials and the cookie, read from the log of nginx on two hosts; redirects from https
// to http refused under verification; without 3027 the bytes of today.
#include <unistd.h>

#include <set>
#include <sstream>

#include "../transport/transport_helpers.h"

namespace {

using namespace transporttest;

std::string origin(const std::string& pathAndQuery) {
    return "http://127.0.0.1:" + std::to_string(peers().redirectPort) + pathAndQuery;
}

// The log's servers by name: "origin" (127.0.0.1), "other" (127.0.0.2), "tls" (127.0.0.1:443).
std::string serverName(const std::string& address) {
    const std::string port = ":" + std::to_string(peers().redirectPort);
    if (address == "127.0.0.1" + port) return "origin";
    if (address == "127.0.0.2" + port) return "other";
    return address == "127.0.0.1:443" ? "tls" : address;
}

class Redirects : public ChannelTest {
protected:
    void SetUp() override {
        ChannelTest::SetUp();
        channel.setParam(kParamErrorDetail, "", true);
    }
    // Each case's requests carry a query of their own, so that cases and runs sharing the log never mix.
    static std::string tag() {
        static int tags = 0;
        return "t" + std::to_string(getpid()) + "-" + std::to_string(++tags);
    }
    // The requests tagged `tag`, each "SERVER METHOD PATH RANGE AUTH COOKIE". nginx's one worker logs a request
    // before it reads the next one: once a later request's line is there, so are those of the case.
    std::set<std::string> sent(const std::string& tag) {
        webChannel marker;
        EXPECT_EQ(marker.init(1), kOk);
        EXPECT_EQ(marker.httpGet(origin("/five.bin?" + tag + "-end").c_str()), kOk);
        std::string text;
        for (int i = 0; i < 200 && text.find("?" + tag + "-end ") == std::string::npos; ++i) {
            if (i > 0) usleep(10000);
            text = readFile(peers().redirectLog);
        }
        std::set<std::string> requests;
        std::istringstream lines(text);
        for (std::string address, method, uri, range, auth, cookie;
             lines >> address >> method >> uri >> range >> auth >> cookie;) {
            const size_t query = uri.size() - tag.size() - 1;
            if (uri.size() > tag.size() && uri.compare(query, std::string::npos, "?" + tag) == 0)
                requests.insert(serverName(address) + " " + method + " " + uri.substr(0, query) + " " + range + " " +
                                auth + " " + cookie);
        }
        return requests;
    }
    std::string reported() {  // "<code> <message>"
        char text[1024] = {};
        return std::to_string(channel.getErrorCode(text, (int)sizeof text)) + " " + text;
    }
};

enum Request { kFile, kMemory, kPost, kBatch };

// Under 3027 a request that a redirect took from 127.0.0.1 to 127.0.0.2 goes without Authorization and Cookie, and
// one brought back carries them again: GETs into a file, POST and its re-posts, a batch's size probe and its pieces
// (two workers). The in-memory GET asks its own URL again and never leaves. "trusted" sends them on.
TEST_F(Redirects, CredentialsAndCookieGoOnlyToTheOriginTheRequestStartedFrom) {
    channel.close();
    ASSERT_EQ(channel.init(2), kOk);  // m1.bin then comes in two pieces
    channel.setParam(kParamUser, "alice", true);
    channel.setParam(kParamPassword, "s3cret", true);
    channel.setParam(kParamCookie, "session=abc", true);
    // Out to 127.0.0.2 and back: the origin's requests carry both headers, the other host's neither.
    auto chain = [](const std::string& method, const std::string& path, const std::string& range) {
        return std::set<std::string>{"origin " + method + " /away/back" + path + " " + range + " auth cookie",
                                     "other " + method + " /back" + path + " " + range + " - -",
                                     "origin " + method + " " + path + " " + range + " auth cookie"};
    };
    std::set<std::string> batch = chain("GET", "/m1.bin", "-");  // the size probe, then the pieces
    for (const std::string& piece : chain("GET", "/m1.bin", "range")) batch.insert(piece);
    const std::string dir = tempDir(), away = "origin GET /away/five.bin - auth cookie";
    const std::tuple<const char*, Request, std::string, int, std::set<std::string>> cases[] = {
        {"", kFile, "/away/back/five.bin", kOk, chain("GET", "/five.bin", "-")},
        {"", kMemory, "/away/five.bin", kTooManyAttempts, {away}},
        {"", kPost, "/away/back/post", kOk, chain("POST", "/post", "-")},
        {"", kBatch, "/away/back/m1.bin", kOk, batch},
        {"trusted", kFile, "/away/five.bin", kOk, {away, "other GET /five.bin - auth cookie"}},
    };
    for (const auto& [mode, request, path, result, expected] : cases) {
        const std::string id = tag(), url = origin(path + "?" + id), file = dir + "/" + id;
        SCOPED_TRACE(url);
        channel.setParam(kParamStrictRedirects, mode, true);
        std::string headers = "Connection: close\r\n", body = "x=1";
        switch (request) {
            case kFile:
                EXPECT_EQ(channel.httpGet(url.c_str(), file.c_str()), result);
                EXPECT_EQ(readFile(file), "hello");
                break;
            case kMemory:
                EXPECT_EQ(channel.httpGet(url.c_str()), result);
                break;
            case kPost:
                EXPECT_EQ(channel.httpPost(url.c_str(), &headers[0], &body[0], false), result);
                EXPECT_NE(channel.m_response.find("\r\n\r\nposted\n"), std::string::npos) << channel.m_response;
                break;
            case kBatch:
                ASSERT_EQ(channel.addJob(url.c_str(), file.c_str(), 0,
                                         channel.checksum(peers().www + "/m1.bin", "sha256").c_str(), "sha256"),
                          kOk);
                channel.setParam(kParamUser, "alice", false);  // a job has credentials of its own
                channel.setParam(kParamPassword, "s3cret", false);
                EXPECT_EQ(channel.httpMultiGet(true), result);
                EXPECT_TRUE(readFile(file) == readFile(peers().www + "/m1.bin"));
                break;
        }
        EXPECT_EQ(sent(id), expected);
    }
}

// With 3021 and 3027, a redirect from https to http is refused (-3034, naming both URLs) before anything reaches the
// http server: no file is written, the probed job and the POST fail alike. From http to https is followed and
// verified; without 3027, or without 3021, nothing is refused.
TEST_F(Redirects, AVerifiedTransferIsNeverRedirectedToPlainHttp) {
    const std::string down = "https://localhost/down", up = origin("/up");
    const std::tuple<const char*, bool, std::string, bool> rows[] = {
        // 3027, 3021, from, refused
        {"", true, down, true},   {"trusted", true, down, true}, {nullptr, true, down, false},
        {"", false, down, false}, {"", true, up, false},
    };
    for (const auto& [mode, verify, from, refused] : rows) {
        SCOPED_TRACE(from + (mode == nullptr ? "" : " 3027") + (verify ? " 3021" : ""));
        channel.close();  // a failed batch leaves the channel in its error state
        ASSERT_EQ(channel.init(1), kOk);
        channel.setParam(kParamStrictRedirects, mode, true);
        channel.setParam(kParamVerifyPeer, verify ? peers().cert.c_str() : nullptr, true);  // it names localhost
        const std::string id = tag(), dir = tempDir();
        auto refusal = [&](const std::string& path) {
            return "-3034 " + from + path + "?" + id + ": redirect to " + origin(path + "?" + id) +
                   " refused: it leaves verified TLS for plain HTTP";
        };
        EXPECT_EQ(channel.httpGet((from + "/five.bin?" + id).c_str(), (dir + "/single").c_str()),
                  refused ? kUntrusted : kOk);
        EXPECT_EQ(reported(), refused ? refusal("/five.bin") : "0 ");
        EXPECT_EQ(access((dir + "/single").c_str(), F_OK) == 0, !refused);
        std::string headers = "Connection: close\r\n", body = "x=1";
        EXPECT_EQ(channel.httpPost((from + "/post?" + id).c_str(), &headers[0], &body[0], false),
                  refused ? kUntrusted : kOk);
        EXPECT_EQ(reported(), refused ? refusal("/post") : "0 ");
        EXPECT_EQ(channel.addJob((from + "/five.bin?" + id).c_str(), (dir + "/probed").c_str(), 0, nullptr, nullptr),
                  refused ? kInvalidArgument : kOk);
        EXPECT_EQ(reported(), refused ? refusal("/five.bin") : "0 ");
        ASSERT_EQ(
            channel.addJob((from + "/k256.bin?" + id).c_str(), (dir + "/batch").c_str(), 262144, nullptr, nullptr),
            kOk);
        EXPECT_EQ(channel.httpMultiGet(true), refused ? 1 : 0);
        EXPECT_EQ(reported(), refused ? refusal("/k256.bin") + ": " + dir + "/batch" : "0 ");
        EXPECT_EQ(readFile(dir + "/batch").size(), refused ? 0u : 262144u);
        std::set<std::string> expected;  // the http server's lines, and the 443 server's (it logs /down only)
        for (const auto& [method, pathAndRange] : {std::pair<std::string, std::string>{"GET", "/five.bin -"},
                                                   {"POST", "/post -"},
                                                   {"GET", "/k256.bin range"},
                                                   {"GET", refused ? "/k256.bin range" : "/five.bin range"}}) {
            if (from == up) expected.insert("origin " + method + " /up" + pathAndRange + " - -");
            if (from == down) expected.insert("tls " + method + " /down" + pathAndRange + " - -");
            if (from == down && !refused) expected.insert("origin " + method + " " + pathAndRange + " - -");
        }
        EXPECT_EQ(sent(id), expected);
    }
}

// Each code, with every access parameter set, without and with 3027: an in-memory GET asks its own URL again (31
// times, the path only), a GET into a file follows it (asking for the absolute URL), a POST is posted again whole
// for 301, 307 and 308 and fails on 302 and 303, and a relative Location takes it back to its server. Without 3027 a redirected request is the same bytes as ever; with it only Authorization and Cookie stay
// behind, while the proxy credentials, the no-cache lines and the host's own lines go on.
TEST_F(Redirects, EachCodeIsFollowedAsItsMethodWantsWithTheSameBytesLessTheSecretsUnder3027) {
    channel.setParam(kParamUser, "u", true);
    channel.setParam(kParamPassword, "p", true);
    channel.setParam(kParamCookie, "a=1", true);
    channel.setParam(kParamProxyAuth, "cHg=", true);
    channel.setParam(kParamNoCache, "", true);
    auto request = [](const std::string& line, const ScriptServer& server, bool secrets, const std::string& body = "") {
        return line + " HTTP/1.1\r\n" + (secrets ? "Authorization: Basic dTpw\r\n" : "") +
               "Cache-Control: no-cache, no-store, must-revalidate\r\n" +
               (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") +
               (secrets ? "Cookie: a=1\r\n" : "") + "Expires: 0\r\nHost: " + hostOf(server) +
               "\r\nPragma: no-cache\r\nProxy-Authorization: Basic cHg=\r\n" + (body.empty() ? "" : "X-Form: 7\r\n") +
               "\r\n" + body;
    };
    const std::string file = tempDir() + "/got", body = "same body";
    for (const char* mode : {(const char*)nullptr, ""}) {
        channel.setParam(kParamStrictRedirects, mode, true);
        for (int code : {301, 302, 303, 307, 308}) {
            SCOPED_TRACE(std::to_string(code) + (mode == nullptr ? " without 3027" : " with 3027"));
            const bool reposts = code != 302 && code != 303;
            ScriptServer destination(serveEach([](const std::string&) { return httpResponse(200, "moved"); }));
            ScriptServer origin(serveEach([&](const std::string& request) {
                const std::string path = requestPath(request);
                return path == "/new"
                           ? httpResponse(200, "")
                           : httpResponse(code, "", "Location: " + (path == "/rel" ? "/new" : destination.url("/new")));
            }));
            EXPECT_EQ(channel.httpGet(origin.url("/mem").c_str()), kTooManyAttempts);
            ASSERT_EQ(channel.httpGet(origin.url("/old").c_str(), file.c_str()), kOk);
            EXPECT_EQ(readFile(file), "moved");
            std::string form = "X-Form: 7\r\n", sent = body;
            EXPECT_EQ(channel.httpPost(origin.url("/form").c_str(), &form[0], &sent[0], false),
                      reposts ? kOk : kBadStatus);
            if (reposts) {
                EXPECT_EQ(channel.httpPost(origin.url("/rel").c_str(), &form[0], &sent[0], false), kOk);
            }
            std::vector<std::string> atOrigin(31, request("GET /mem", origin, true));
            atOrigin.push_back(request("GET " + origin.url("/old"), origin, true));
            atOrigin.push_back(request("POST /form", origin, true, body));
            for (const char* line : {"POST /rel", "POST /new"})
                if (reposts) atOrigin.push_back(request(line, origin, true, body));
            EXPECT_EQ(origin.requests(), atOrigin);
            std::vector<std::string> atDestination = {request("GET " + destination.url("/new"), destination, !mode)};
            if (reposts) atDestination.push_back(request("POST /new", destination, !mode, body));
            EXPECT_EQ(destination.requests(), atDestination);
        }
    }
    ScriptServer loop(serveEach([](const std::string&) { return httpResponse(307, "", "Location: /loop"); }));
    std::string sent = "x";
    EXPECT_EQ(channel.httpPost(loop.url("/loop").c_str(), nullptr, &sent[0], false), kTooManyAttempts);
    EXPECT_EQ(loop.requests().size(), 31u);
}

}  // namespace
