// The digest of a batch file, computed while its bytes are written.
//
// A file cut into pieces is written by several workers at once, each piece
// front to back. The digest can only take bytes in file order, so it follows
// the file's contiguous prefix: whichever worker writes the bytes that extend
// the prefix feeds them (from its buffer while they are at hand, and from the
// file for bytes other pieces wrote ahead of it). When the last piece lands,
// little or nothing is left to hash.
//
// Bytes an earlier run left (the kept ranges of a file that continues) are
// read back by a thread of the stream's own when the prefix reaches them,
// from the first one on, never by a worker: a worker that stopped to hash
// gigabytes would leave its response unread on the socket for as long.
//
// Anything that breaks the picture (bytes written twice at one place, as when
// a whole-file answer starts over, a read that fails, a file that changed
// size behind the batch) makes the stream stale; the verification then hashes
// the whole file from disk, as if nothing had been streamed.
#ifndef WEBCHANNEL_BATCH_DIGEST_STREAM_H
#define WEBCHANNEL_BATCH_DIGEST_STREAM_H

#include <openssl/evp.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "http/body.h"

class DigestStream : public BodyObserver {
public:
    // `stale`: the file already holds bytes written without a stream.
    DigestStream(const EVP_MD* digest, bool stale);
    ~DigestStream() override;
    DigestStream(const DigestStream&) = delete;
    DigestStream& operator=(const DigestStream&) = delete;

    // Ranges (start -> end) the file at `path` already holds from an
    // earlier run: hashed from the file, beside the workers, as the prefix
    // reaches them (at once for those that lead it).
    void seed(const std::map<long long, long long>& ranges, const std::string& path);
    void written(int fd, long long offset, const char* data, size_t size) override;
    // The lower-case hex digest of the whole file at `path`, reading from it
    // only what was not streamed; empty when the file cannot be read. Once.
    // `open` opens the file for reading: a descriptor, or -1.
    std::string finish(const std::string& path, const std::function<int(const std::string&)>& open);
    // Whether finish() had to hash the file from its first byte.
    bool rehashed() const { return m_rehashed; }

private:
    void followPrefix(std::unique_lock<std::mutex>& lock, int fd, bool reader = false);
    // With the lock held and m_busy taken: hands the prefix to the reader.
    void startReader(std::unique_lock<std::mutex>& lock);
    void readKept();

    std::mutex m_lock;
    EVP_MD_CTX* m_context;
    const EVP_MD* m_digest;
    long long m_hashed = 0;                  // bytes [0, m_hashed) are in the digest
    long long m_claimed = 0;                 // and [m_hashed, m_claimed) are being hashed now
    std::map<long long, long long> m_ahead;  // written beyond the prefix: start -> end
    bool m_busy = false;                     // a worker (or the reader) is feeding the digest
    bool m_stale;
    bool m_rehashed = false;
    std::map<long long, long long> m_kept;   // seeded: read by the reader only
    std::string m_path;                      // where the reader reads them
    std::thread m_reader;                    // while it runs, it holds m_busy
};

// Lower-case hex text of a digest value.
std::string hexDigest(const unsigned char* value, unsigned length);
// The lower-case hex digest of what `fd` holds from `from` to its end; a read
// that fails ends it there, as the end of the file would.
std::string hashDescriptor(int fd, const EVP_MD* digest, long long from = 0);

#endif
