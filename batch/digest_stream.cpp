#include "batch/digest_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Bytes read from the file per digest update when catching up.
constexpr size_t kCatchUpBlock = 65536;

}  // namespace

std::string hexDigest(const unsigned char* value, unsigned length) {
    static const char kHex[] = "0123456789abcdef";
    std::string text(length * 2, '0');
    for (unsigned i = 0; i < length; ++i) {
        text[2 * i] = kHex[value[i] >> 4];
        text[2 * i + 1] = kHex[value[i] & 15];
    }
    return text;
}

namespace {

// Feeds [from, to) of the file (to < 0: up to its end) to the digest; false
// when a read fails, with what came before it fed.
bool feed(EVP_MD_CTX* context, int fd, long long from, long long to) {
    char block[kCatchUpBlock];
    while (to < 0 || from < to) {
        size_t want = to < 0 || to - from > (long long)kCatchUpBlock ? kCatchUpBlock : (size_t)(to - from);
        ssize_t got = pread(fd, block, want, from);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) return to < 0;  // the end of the file
        EVP_DigestUpdate(context, block, (size_t)got);
        from += got;
    }
    return true;
}

// Ends the digest and gives its text.
std::string finalHex(EVP_MD_CTX* context) {
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context, value, &length);
    return hexDigest(value, length);
}

}  // namespace

std::string hashDescriptor(int fd, const EVP_MD* digest, long long from) {
    EVP_MD_CTX* context = EVP_MD_CTX_create();
    if (context == nullptr) return std::string();
    EVP_DigestInit_ex(context, digest, nullptr);
    feed(context, fd, from, -1);
    std::string text = finalHex(context);
    EVP_MD_CTX_destroy(context);
    return text;
}

DigestStream::DigestStream(const EVP_MD* digest, bool stale)
    : m_context(EVP_MD_CTX_create()), m_digest(digest), m_stale(stale) {
    if (m_context == nullptr || EVP_DigestInit_ex(m_context, digest, nullptr) != 1) m_stale = true;
}

DigestStream::~DigestStream() {
    if (m_reader.joinable()) m_reader.join();
    if (m_context != nullptr) EVP_MD_CTX_destroy(m_context);
}

void DigestStream::seed(const std::map<long long, long long>& ranges, const std::string& path) {
    std::unique_lock<std::mutex> lock(m_lock);
    m_path = path;
    for (const auto& range : ranges) {
        m_ahead.emplace(range.first, range.second);
        m_kept.emplace(range.first, range.second);
    }
    // Kept bytes that lead the file are hashed beside its first requests.
    if (!m_busy && !m_ahead.empty() && m_ahead.begin()->first == m_hashed) {
        m_busy = true;
        startReader(lock);
    }
}

void DigestStream::startReader(std::unique_lock<std::mutex>&) {
    // A reader that ended has let go of the lock for good; only its thread
    // is left to join.
    if (m_reader.joinable()) m_reader.join();
    m_reader = std::thread([this] { readKept(); });
}

void DigestStream::readKept() {
    const int fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    std::unique_lock<std::mutex> lock(m_lock);
    if (fd < 0) m_stale = true;  // finish() hashes the file from disk, or fails
    followPrefix(lock, fd, true);
    lock.unlock();
    if (fd >= 0) ::close(fd);
}

void DigestStream::written(int fd, long long offset, const char* data, size_t size) {
    if (size == 0) return;
    const long long end = offset + (long long)size;
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_stale) return;
    // Bytes at a place already hashed, being hashed, or written before: the
    // stream can no longer tell which bytes the file holds.
    auto next = m_ahead.lower_bound(offset);
    bool overlaps = offset < m_claimed || (next != m_ahead.end() && next->first < end);
    if (next != m_ahead.begin() && std::prev(next)->second > offset) overlaps = true;
    if (overlaps) {
        m_stale = true;
        return;
    }
    if (!m_busy && offset != m_hashed && !m_ahead.empty() && m_ahead.begin()->first == m_hashed) {
        // Bytes that were there before this batch lead the prefix.
        m_busy = true;
        followPrefix(lock, fd);
    }
    if (m_stale) return;
    if (m_busy || offset != m_hashed) {
        m_ahead.emplace(offset, end);
        return;
    }
    // These bytes extend the prefix: hash them while they are in memory.
    m_busy = true;
    m_claimed = end;
    lock.unlock();
    EVP_DigestUpdate(m_context, data, size);
    lock.lock();
    m_hashed = end;
    followPrefix(lock, fd);
}

// With the lock held and m_busy set: takes in the pieces other workers wrote
// just ahead of the prefix, reading them back from the file. Kept bytes of
// an earlier run go to the reader (`reader`: this is it), which then follows
// the prefix on.
void DigestStream::followPrefix(std::unique_lock<std::mutex>& lock, int fd, bool reader) {
    while (!m_stale && !m_ahead.empty() && m_ahead.begin()->first == m_hashed) {
        if (!reader && m_kept.count(m_hashed) != 0) {
            startReader(lock);  // m_busy passes to it
            return;
        }
        m_kept.erase(m_hashed);
        const long long from = m_hashed, to = m_ahead.begin()->second;
        m_ahead.erase(m_ahead.begin());
        m_claimed = to;
        lock.unlock();
        const bool read = feed(m_context, fd, from, to);
        lock.lock();
        if (!read) m_stale = true;
        m_hashed = to;
    }
    m_busy = false;
}

std::string DigestStream::finish(const std::string& path, const std::function<int(const std::string&)>& open) {
    // The workers are done with this file; the reader may still be reading.
    if (m_reader.joinable()) m_reader.join();
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_context == nullptr) return std::string();
    // The workers are done with this file: everything ahead is on disk.
    struct stat info;
    const bool present = stat(path.c_str(), &info) == 0;
    if (!present) return std::string();
    if (info.st_size < m_hashed) m_stale = true;  // cut short behind the batch
    int fd = -1;
    if (m_stale || info.st_size > m_hashed) {
        fd = open(path);
        if (fd < 0) return std::string();
    }
    bool read = true;
    if (m_stale) {
        m_rehashed = true;
        EVP_DigestInit_ex(m_context, m_digest, nullptr);
        read = feed(m_context, fd, 0, -1);
    } else if (fd >= 0) {
        read = feed(m_context, fd, m_hashed, -1);
    }
    if (fd >= 0) close(fd);
    std::string text = finalHex(m_context);
    EVP_MD_CTX_destroy(m_context);
    m_context = nullptr;
    return read ? text : std::string();
}
