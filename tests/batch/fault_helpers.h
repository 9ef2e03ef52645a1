// Shared pieces of the fault-injection, stress, bad-input and disk-fault
// tests: leak checks (descriptors and threads), content generated from the
// byte offset (so that large files need no memory), a range-serving handler
// for such content, bounded waits, a watchdog, and the run's totals of
// injected faults and verified bytes.
#ifndef WEBCHANNEL_TESTS_BATCH_FAULT_HELPERS_H
#define WEBCHANNEL_TESTS_BATCH_FAULT_HELPERS_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace faulttest {

// ---------------------------------------------------------------------------
// Totals of the run, printed once at the end of the program.

inline std::atomic<long long> gFaultsInjected{0};
inline std::atomic<long long> gBytesVerified{0};

inline void noteFaults(long long count) { gFaultsInjected += count; }
inline void noteVerified(long long bytes) { gBytesVerified += bytes; }

class TotalsPrinter : public ::testing::Environment {
public:
    void TearDown() override {
        if (gFaultsInjected.load() == 0 && gBytesVerified.load() == 0) return;
        std::printf("[  TOTALS  ] faults injected %lld, bytes verified %lld\n", gFaultsInjected.load(),
                    gBytesVerified.load());
    }
};

inline const bool gTotalsRegistered = (::testing::AddGlobalTestEnvironment(new TotalsPrinter), true);

// ---------------------------------------------------------------------------
// Leaks: descriptors and threads of this process.

// Entries of /proc/self/task: the threads of this process.
inline int threadCount() {
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

// Taken before a test creates its servers and channels; check() after all
// of them are gone.
class ResourceCheck {
public:
    ResourceCheck() {
        // A sanitizer may start a helper thread of its own with the first
        // thread a program creates; let that happen before counting.
        std::thread([] {}).join();
        m_descriptors = testsupport::openDescriptorCount();
        m_threads = threadCount();
    }
    void check(const char* when = "at the end") const {
        EXPECT_EQ(testsupport::openDescriptorCount(), m_descriptors) << "descriptors leaked " << when;
        // A thread that was joined may stay listed for a moment while the
        // kernel finishes its exit, at either count: fewer threads at the
        // end is fine, and more get a bounded moment to disappear.
        int threads = threadCount();
        for (int i = 0; i < 200 && threads > m_threads; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            threads = threadCount();
        }
        EXPECT_LE(threads, m_threads) << "threads left running " << when;
    }

private:
    int m_descriptors = 0;
    int m_threads = 0;
};

// ---------------------------------------------------------------------------
// Time.

inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Polls `condition` until it holds or `timeoutMillis` pass; the answer is
// whether it held. For states that offer nothing to wait on (a counter
// another thread raises), with a deadline.
inline bool eventually(const std::function<bool()>& condition, int timeoutMillis = 5000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillis);
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Aborts the program with a message when a scope runs longer than allowed,
// so that a deadlock fails the run instead of hanging it.
class Watchdog {
public:
    Watchdog(int seconds, std::string what) : m_what(std::move(what)) {
        m_thread = std::thread([this, seconds] {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_done.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_finished; })) {
                std::fprintf(stderr, "watchdog: %s did not finish within %d s (deadlock?)\n", m_what.c_str(),
                             seconds);
                std::fflush(stderr);
                std::abort();
            }
        });
    }
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_finished = true;
        }
        m_done.notify_all();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string m_what;
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    std::thread m_thread;
};

// ---------------------------------------------------------------------------
// Content generated from the offset: the same bytes for the same seed and
// position, produced block by block.

inline uint64_t mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// Writes bytes [from, from + count) of the content `seed` into `out`: byte
// p is byte p % 8 (least significant first) of mix(mix(seed) ^ p / 8).
inline void generate(uint64_t seed, uint64_t from, size_t count, char* out) {
    const uint64_t key = mix(seed);
    size_t done = 0;
    // Up to the next multiple of 8, byte by byte; then whole words.
    while (done < count && ((from + done) & 7) != 0) {
        const uint64_t position = from + done;
        out[done++] = (char)(mix(key ^ (position >> 3)) >> (8 * (position & 7)));
    }
    for (; done + 8 <= count; done += 8) {
        const uint64_t word = mix(key ^ ((from + done) >> 3));
        unsigned char bytes[8];
        for (int i = 0; i < 8; ++i) bytes[i] = (unsigned char)(word >> (8 * i));
        memcpy(out + done, bytes, 8);
    }
    for (; done < count; ++done) {
        const uint64_t position = from + done;
        out[done] = (char)(mix(key ^ (position >> 3)) >> (8 * (position & 7)));
    }
}

inline std::string generated(uint64_t seed, uint64_t from, size_t count) {
    std::string text(count, '\0');
    generate(seed, from, count, &text[0]);
    return text;
}

// Lower-case hex digest of `size` generated bytes, computed block by block.
inline std::string generatedDigest(uint64_t seed, uint64_t size, const char* algorithm) {
    const EVP_MD* md = EVP_get_digestbyname(algorithm);
    EVP_MD_CTX* context = EVP_MD_CTX_create();
    EVP_DigestInit_ex(context, md, nullptr);
    std::vector<char> block((size_t)std::min<uint64_t>(size + 1, 1 << 20));
    for (uint64_t at = 0; at < size; at += block.size()) {
        const size_t count = (size_t)std::min<uint64_t>(block.size(), size - at);
        generate(seed, at, count, block.data());
        EVP_DigestUpdate(context, block.data(), count);
    }
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context, value, &length);
    EVP_MD_CTX_destroy(context);
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += hex[value[i] >> 4];
        text += hex[value[i] & 15];
    }
    return text;
}

// True when the file holds exactly `size` generated bytes of `seed`.
inline bool fileHoldsGenerated(const std::string& path, uint64_t seed, uint64_t size) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    // One byte more than expected, so that a longer file shows.
    const size_t blockSize = (size_t)std::min<uint64_t>(size + 1, 1 << 20);
    std::vector<char> got(blockSize), want(blockSize);
    bool same = true;
    uint64_t at = 0;
    while (same) {
        const size_t count = fread(got.data(), 1, got.size(), file);
        if (count == 0) break;
        if (at + count > size) {
            same = false;
            break;
        }
        generate(seed, at, count, want.data());
        same = memcmp(got.data(), want.data(), count) == 0;
        at += count;
    }
    fclose(file);
    return same && at == size;
}

// ---------------------------------------------------------------------------
// Requests.

// The target of the request line ("GET <target> HTTP/1.1").
inline std::string requestTarget(const std::string& request) {
    const size_t first = request.find(' ');
    if (first == std::string::npos) return "";
    const size_t second = request.find(" HTTP/1.1\r\n", first + 1);
    if (second == std::string::npos) return "";
    return request.substr(first + 1, second - first - 1);
}

// The path of a request target in absolute form ("http://host:port/path")
// or origin form ("/path").
inline std::string requestPath(const std::string& request) {
    std::string target = requestTarget(request);
    const size_t scheme = target.find("://");
    if (scheme == std::string::npos) return target;
    const size_t slash = target.find('/', scheme + 3);
    return slash == std::string::npos ? "/" : target.substr(slash);
}

// The byte range a request asks for ("Range: bytes=a-b"); false without one.
inline bool requestedRange(const std::string& request, long long& first, long long& last) {
    const size_t at = request.find("\r\nRange: bytes=");
    if (at == std::string::npos) return false;
    return sscanf(request.c_str() + at, "\r\nRange: bytes=%lld-%lld", &first, &last) == 2;
}

// Answers one request for generated content of `size` bytes the way a
// range-capable server does (206 with the range asked for, 200 with
// everything otherwise), streaming it in blocks. With `ignoreRange` every
// answer is 200 with the whole content. False when the client went away.
inline bool serveGenerated(testsupport::ServerConnection& c, const std::string& request, uint64_t seed,
                           uint64_t size, bool ignoreRange = false) {
    long long first = 0, last = (long long)size - 1;
    const bool ranged = !ignoreRange && requestedRange(request, first, last);
    if (last >= (long long)size) last = (long long)size - 1;
    const uint64_t count = last >= first ? (uint64_t)(last - first + 1) : 0;
    std::string head = ranged ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n";
    head += "Content-Length: " + std::to_string(count) + "\r\n";
    if (ranged)
        head += "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
                std::to_string(size) + "\r\n";
    head += "\r\n";
    if (count <= 65536) return c.send(head + generated(seed, (uint64_t)first, (size_t)count));
    if (!c.send(head)) return false;
    std::vector<char> block(1 << 20);
    for (uint64_t at = 0; at < count;) {
        const size_t n = (size_t)std::min<uint64_t>(block.size(), count - at);
        generate(seed, (uint64_t)first + at, n, block.data());
        if (!c.send(std::string_view(block.data(), n))) return false;
        at += n;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The channel.

// Bytes a running batch has written for the piece of `url` that ends at
// `end` (-1 when no such piece is planned). Reads only what the workers do
// not change, and the written count atomically.
inline long long pieceWritten(webChannel& channel, const std::string& url, long long end) {
    for (webChannel::threadData* record : channel.m_batch) {
        for (webChannel::httpGetJob& job : record->jobs) {
            if (job.end == end && job.url == url) return __atomic_load_n(&job.downloaded, __ATOMIC_SEQ_CST);
        }
    }
    return -1;
}

// The batch's first failure, as the host reads it.
inline void expectFirstFailure(webChannel& channel, int code, const std::string& file) {
    char text[4096];
    memset(text, 'x', sizeof(text));
    EXPECT_EQ(channel.getErrorCode(text, (int)sizeof(text)), code);
    EXPECT_EQ(std::string(text), std::string(wc::resultText(code)) + ": " + file);
}

// Everything getNextDownloadedFile hands out now, in order.
inline std::vector<int> handedOut(webChannel& channel) {
    std::vector<int> indexes;
    for (int i = 0; i < 1000000; ++i) {
        const int index = channel.getNextDownloadedFile();
        if (index < 0) break;
        indexes.push_back(index);
    }
    return indexes;
}

}  // namespace faulttest

#endif
