// Shared by the batch tests: content generated from its offset (large files need no memory), a scripted
// server that routes requests by path, and a fixture that leaves no descriptor or thread behind.
#ifndef WEBCHANNEL_TESTS_BATCH_HELPERS_H
#define WEBCHANNEL_TESTS_BATCH_HELPERS_H

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "channel/webChannel.h"
#include "support/log_capture.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace batchtest {

using namespace testsupport;
using Clock = std::chrono::steady_clock;
using Ints = std::vector<int>;

constexpr const char* kCountedRepeat = "server closed connection, re-creating";  // costs an attempt and 2 s

inline bool eventually(const std::function<bool()>& condition, int millis = 5000) {  // whether it came to hold
    const auto end = Clock::now() + std::chrono::milliseconds(millis);
    for (; !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (Clock::now() >= end) return false;
    return true;
}

inline double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

inline uint64_t mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// Content `seed`: byte p is byte p % 8 of mix(mix(seed) ^ p / 8).
inline std::string generated(uint64_t seed, uint64_t from, size_t count) {
    std::string out(count, '\0');
    for (size_t i = 0, key = mix(seed); i < count;)
        for (uint64_t p = from + i, word = mix(key ^ (p >> 3)), b = p & 7; b < 8 && i < count; ++b)
            out[i++] = (char)(word >> (8 * b));
    return out;
}

// Lower-case hex digest of `data`, then `size` bytes of content `seed`.
inline std::string digestOf(const std::string& data, const char* algorithm = "md5", uint64_t seed = 0,
                            uint64_t size = 0) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_get_digestbyname(algorithm), nullptr);
    EVP_DigestUpdate(context, data.data(), data.size());
    for (uint64_t at = 0, n; (n = std::min<uint64_t>(size - at, 1 << 20)) > 0; at += n)
        EVP_DigestUpdate(context, generated(seed, at, n).data(), n);
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context, value, &length);
    EVP_MD_CTX_free(context);
    std::string text;
    static const char kHex[] = "0123456789abcdef";
    for (unsigned i = 0; i < length; ++i) text += {kHex[value[i] >> 4], kHex[value[i] & 15]};
    return text;
}

// True when the file holds exactly `size` bytes of content `seed`.
inline bool fileHoldsGenerated(const std::string& path, uint64_t seed, uint64_t size) {
    std::ifstream in(path, std::ios::binary);
    std::string block(1 << 20, '\0');
    uint64_t at = 0;
    for (size_t n; in && (n = (size_t)in.read(&block[0], block.size()).gcount()) > 0; at += n)
        if (at + n > size || block.compare(0, n, generated(seed, at, n)) != 0) return false;
    return in.eof() && at == size;
}

// The first byte a request asks for ("Range: bytes=a-b") and in `last` its last; -1 without a Range.
inline long long firstByte(const std::string& request, long long* last = nullptr) {
    long long first = -1, end = -1;
    const size_t at = request.find("\r\nRange: bytes=");
    if (at == std::string::npos || sscanf(&request[at], "\r\nRange: bytes=%lld-%lld", &first, &end) != 2) return -1;
    if (last != nullptr) *last = end;
    return first;
}

// Answers as a range-capable server does (`whole`: always the whole file, with a 200), with `share` of the
// asked bytes (at most `limit`) after the head. The body bytes sent, -1 when the client went away.
inline long long serve(ServerConnection& c, const std::string& request, uint64_t seed, uint64_t size,
                       bool whole = false, double share = 1, long long limit = 1LL << 40) {
    long long last = (long long)size - 1, first = whole ? -1 : firstByte(request, &last);
    const long long from = std::max(first, 0LL), count = std::min(last, (long long)size - 1) - from + 1;
    const long long body = std::min((long long)(count * share), limit);
    const std::string range = "\r\nContent-Range: bytes " + std::to_string(from) + "-" +
                              std::to_string(from + count - 1) + "/" + std::to_string(size);
    bool ok = c.send(std::string(first >= 0 ? "HTTP/1.1 206 Partial Content" + range : "HTTP/1.1 200 OK") +
                     "\r\nContent-Length: " + std::to_string(count) + "\r\n\r\n");
    for (long long at = 0; ok && at < body; at += 1 << 20)
        ok = c.send(generated(seed, (uint64_t)(from + at), (size_t)std::min<long long>(body - at, 1 << 20)));
    return ok ? body : -1;
}

// Taken by pieceWritten around its reads and by Routes before each request: ThreadSanitizer sees no order in
// the bytes between a server and the channel, and this orders a server's reads before the requests they cause.
inline std::mutex& serverReads() {
    static std::mutex mutex;
    return mutex;
}

// A scripted server dispatching each request by its path. A route gets the connection, the request and how
// many requests for that path came before; it answers false to end the connection. Others get a 404.
class Routes {
public:
    using Route = std::function<bool(ServerConnection&, const std::string& request, int attempt)>;
    explicit Routes(std::map<std::string, Route> routes)
        : m_routes(std::move(routes)), m_server([this](ServerConnection& c) {
              for (std::string request; !(request = c.readRequest()).empty();) {
                  serverReads().lock(), serverReads().unlock();
                  const auto route = m_routes.find(requestPath(request));
                  const int attempt = (int)requestsFor(requestPath(request)).size() - 1;
                  if (route == m_routes.end() ? !c.send(httpResponse(404, "")) : !route->second(c, request, attempt))
                      return;
              }
          }) {}
    std::string url(const std::string& path) const { return m_server.url(path); }
    int connections() const { return m_server.connections(); }
    size_t total() const { return m_server.requests().size(); }
    std::vector<std::string> requestsFor(const std::string& path) const {
        std::vector<std::string> found;
        for (const std::string& request : m_server.requests())
            if (requestPath(request) == path) found.push_back(request);
        return found;
    }

private:
    std::map<std::string, Route> m_routes;
    ScriptServer m_server;  // last: its handlers are joined before the routes go
};

inline Routes::Route content(uint64_t seed, uint64_t size, bool whole = false) {
    return [=](ServerConnection& c, const std::string& r, int) { return serve(c, r, seed, size, whole) >= 0; };
}

// Bytes a running batch has written of the piece of `path` ending at `end`.
inline long long pieceWritten(webChannel& channel, const std::string& path, long long end) {
    std::lock_guard<std::mutex> lock(serverReads());
    for (webChannel::threadData* record : channel.m_batch)
        for (webChannel::httpGetJob& job : record->jobs)
            if (job.end == end && requestPath("GET " + job.url + " ") == path)
                return __atomic_load_n(&job.downloaded, __ATOMIC_SEQ_CST);
    return -1;
}

// The batch's first failure as the host reads it: code and "<words>: <file>".
inline void expectFirstFailure(webChannel& channel, int code, const std::string& file) {
    char text[4096];
    EXPECT_EQ(channel.getErrorCode(text, (int)sizeof(text)), code);
    EXPECT_EQ(std::string(text), std::string(wc::resultText(code)) + ": " + file);
}

// Everything getNextDownloadedFile hands out now, in order.
inline Ints handedOut(webChannel& channel) {
    Ints indexes;
    for (int i = 0, index; i < 100000 && (index = channel.getNextDownloadedFile()) >= 0; ++i) indexes.push_back(index);
    return indexes;
}

// A fresh directory per test; what the test body made leaves no descriptor or thread behind (a sanitizer
// starts a helper thread with the first thread a program makes, hence the thread made first).
template <class Base = ::testing::Test>
class Fixture : public Base {
protected:
    static int threads() { return (int)std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); }
    void TearDown() override {
        EXPECT_EQ(openDescriptorCount(), descriptors) << "descriptors leaked";
        // A joined thread may stay listed for a moment while the kernel ends it.
        EXPECT_TRUE(eventually([this] { return threads() <= threadsBefore; }, 1000)) << "threads left running";
    }
    static int errorCodeNow(webChannel& channel) { return __atomic_load_n(&channel.m_errorCode, __ATOMIC_SEQ_CST); }
    static void init(webChannel& channel, unsigned workers, const char* timeout = "2") {
        ASSERT_EQ(channel.init(workers), 0);
        channel.setParam(kParamTimeout, timeout, true);
    }
    // Adds a job into dir + name and expects `result`.
    void job(VRAXSecureWebChannel& channel, const std::string& url, const std::string& name, long long size,
             const std::string& digest = "", const char* algorithm = nullptr, int result = 0) {
        const char* expected = algorithm ? digest.c_str() : nullptr;
        EXPECT_EQ(channel.addJob(url.c_str(), (dir + name).c_str(), size, expected, algorithm), result) << url;
    }
    // A job for `size` bytes of content `seed`, with their MD5.
    void add(webChannel& channel, const std::string& url, const std::string& name, uint64_t seed, uint64_t size) {
        job(channel, url, name, (long long)size, digestOf("", "md5", seed, size), "md5");
    }
    const int threadsBefore = (std::thread([] {}).join(), threads());
    const int descriptors = openDescriptorCount();
    const std::string dir = tempDir();
};

}  // namespace batchtest

#endif
