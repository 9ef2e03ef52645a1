// Writing the body bytes of one read into the target file, plain or chunked.
#include "http/body.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "channel/atomics.h"
#include "batch/work_share.h"
#include "channel/webChannel.h"

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A size line (with its extension) longer than this is not a size line.
constexpr long long kMaxSizeLine = 65536;
// In chunked mode `remaining` is 1 while a size line is expected and 0 after
// the last chunk. A chunk too large to be held whole in the buffer is
// written as it arrives; then `remaining` is 2 + the data bytes still to
// come, followed by the chunk's CR LF.
constexpr long long kInChunk = 2;

}  // namespace

ChunkSize scanChunkSize(const char* text, size_t length) {
    ChunkSize result;
    size_t i = 0;
    while (i < length && isSpace(text[i])) ++i;
    if (i == length) return result;  // only blanks so far
    bool negative = false;
    if (text[i] == '+' || text[i] == '-') {
        negative = text[i] == '-';
        if (++i == length) return result;
    }
    if (text[i] == '0' && i + 1 < length && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
        if (i + 2 == length) return result;  // "0x" or "0" followed by a size? not known yet
        if (hexValue(text[i + 2]) >= 0) i += 2;
    } else if (text[i] == '0' && i + 1 == length) {
        return result;
    }
    size_t digits = i;
    unsigned long long value = 0;
    bool overflow = false;
    for (; i < length && hexValue(text[i]) >= 0; ++i) {
        if (value > (0x7fffffffffffffffULL >> 4)) overflow = true;
        value = (value << 4) | (unsigned)hexValue(text[i]);
    }
    if (i == length) return result;  // the digits may go on in the next read
    result.status = ChunkSize::kComplete;
    if (i == digits) {
        result.end = 0;  // no number at all
        return result;
    }
    result.end = i;
    if (overflow || value >= 0x7ffffffffffffffdULL || (negative && value != 0)) {
        result.status = ChunkSize::kOutOfRange;
        return result;
    }
    result.size = (long long)value;
    return result;
}

size_t chunkedTailEnd(const char* text, size_t length) {
    bool first = true;  // the size line itself
    for (size_t line = 0; line < length;) {
        const char* feed = static_cast<const char*>(memchr(text + line, '\n', length - line));
        if (feed == nullptr) return 0;
        const size_t next = (size_t)(feed - text) + 1;
        const size_t content = next - line - 1 - (next - line >= 2 && text[next - 2] == '\r' ? 1 : 0);
        if (!first && content == 0) return next;
        first = false;
        line = next;
    }
    return 0;
}

namespace {

// A step's verdict: a result to return at once, or nothing to go on.
using Stop = std::optional<int>;

// Adds the bytes written in one call to the job's count once, on return:
// other workers read that count, and small chunks must not each pay for an
// atomic update.
class CountOnReturn {
public:
    CountOnReturn(webChannel::httpGetJob* job, const long long& bytes) : m_job(job), m_bytes(bytes) {}
    ~CountOnReturn() {
        if (m_job != nullptr && m_bytes != 0) atomicAdd(m_job->downloaded, m_bytes);
    }
    CountOnReturn(const CountOnReturn&) = delete;
    CountOnReturn& operator=(const CountOnReturn&) = delete;

private:
    webChannel::httpGetJob* m_job;
    const long long& m_bytes;
};

// How many of `count` bytes, about to be written at the job's cursor, the job
// may write: never past the end of what its answer names, nor (in an adaptive
// batch) past a part another worker took. The rest is dropped unwritten.
long long admitted(webChannel::httpGetJob* job, long long count) {
    if (job == nullptr || count <= 0) return count;
    if (job->share != nullptr) return job->share->claim(*job, count);
    return std::max(0LL, std::min(count, job->bound - job->cursor));
}

// Tells the job's observer of bytes just written at the job's cursor.
void observe(webChannel::httpGetJob* job, FILE* file, const char* data, size_t size) {
    if (job == nullptr || size == 0) return;
    if (job->observer != nullptr) job->observer->written(fileno(file), job->cursor, data, size);
    job->cursor += (long long)size;
}

// One chunked dump call: the buffer `buf[0, len)`, the read position `p`,
// and the caller's carry-over `offset` and decoder state `remaining`.
struct ChunkedDump {
    FILE* file;
    char* buf;
    long long len;
    long long& offset;
    long long& remaining;
    long long p;
    webChannel::httpGetJob* job;
    long long written = 0;

    // Whole chunks are gathered into one run at the front of what was read
    // (their data moved down over the size lines between them) and written
    // with one call: a body of many small chunks costs a write per read,
    // not one per chunk. `run` is where the run starts, -1 when empty.
    long long run = -1;
    long long runEnd = 0;

    void gather(long long from, long long count) {
        if (run < 0) {
            run = runEnd = from;
        } else if (from != runEnd) {
            memmove(buf + runEnd, buf + from, (size_t)count);
        }
        runEnd += count;
    }
    bool flush() {
        if (run < 0) return true;
        const long long from = run;
        run = -1;
        return write(from, runEnd - from);
    }
    bool write(long long from, long long count) {
        count = admitted(job, count);
        size_t done = count > 0 ? fwrite_unlocked(buf + from, 1, (size_t)count, file) : 0;
        observe(job, file, buf + from, done);
        written += (long long)done;
        return (long long)done == count;
    }
    // Carries the bytes from `from` to the end to the start of the buffer;
    // the caller appends the next read behind them.
    int carry(long long from) {
        if (!flush()) return kFileWrite;
        if (from > 0 && from < len) {
            memmove(buf, buf + from, (size_t)(len - from));
            if (webChannel::logging())
                webChannel::log("webChannel::dump: copied %lld bytes from offset %lld", len - from, from);
        }
        offset = len - from;
        return kOk;
    }
    int consumedAll() {
        offset = 0;
        return flush() ? kOk : kFileWrite;
    }
};

int dumpPlain(FILE* file, char* buf, long long len, long long& offset, long long& remaining,
              webChannel::httpGetJob* job) {
    if (len <= 0) return kOk;
    long long count = admitted(job, len - offset);
    // The target belongs to one worker: no stdio locking is needed.
    size_t written = count > 0 ? fwrite_unlocked(buf + offset, 1, (size_t)count, file) : 0;
    observe(job, file, buf + offset, written);
    if (job != nullptr) atomicAdd(job->downloaded, (long long)written);
    remaining -= (long long)written;
    offset = 0;
    return (long long)written < count ? kFileWrite : kOk;
}

// The rest of a chunk that was too large for the buffer, and its CR LF.
Stop finishLargeChunk(ChunkedDump& d) {
    long long pending = d.remaining - kInChunk;
    long long take = d.len - d.p < pending ? d.len - d.p : pending;
    if (!d.write(d.p, take)) return kFileWrite;
    d.p += take;
    pending -= take;
    d.remaining = kInChunk + pending;
    if (pending > 0) return d.consumedAll();
    if (d.len - d.p < 2) return d.carry(d.p);
    if (d.buf[d.p] != '\r' || d.buf[d.p + 1] != '\n') return kMalformedResponse;
    d.p += 2;
    d.remaining = 1;
    return std::nullopt;
}

// A chunk whose data has not all arrived. It is written whole once it has
// arrived with its CR LF, unless it could never fit the buffer: then its
// data is written as it comes, and the buffer never overflows.
int partialChunk(ChunkedDump& d, long long data, long long size) {
    if (webChannel::logging())
        webChannel::log("webChannel::dump: needed %x, current %x (len %lld, data offset %x, data len %ld)",
                        (unsigned)(data + size + 2), (unsigned)d.len, d.len, (unsigned)data, (long)size);
    if (size <= kMaxRead - 2 - (data - d.p)) return d.carry(d.p);
    long long take = d.len - data < size ? d.len - data : size;
    if (!d.flush() || !d.write(data, take)) return kFileWrite;
    d.remaining = kInChunk + (size - take);
    if (take < size) return d.consumedAll();
    return d.carry(data + take);  // part of the CR LF
}

// One size line and its chunk. Nothing to go on with when the chunk was
// written whole and more bytes follow.
Stop nextChunk(ChunkedDump& d) {
    ChunkSize scanned = scanChunkSize(d.buf + d.p, (size_t)(d.len - d.p));
    if (webChannel::logging())
        webChannel::log("webChannel::dump: started iteration from offset %lld, next chunk is %ld bytes long", d.p,
                        (long)scanned.size);
    if (scanned.status == ChunkSize::kOutOfRange) return kBadChunkSize;
    if (scanned.status == ChunkSize::kIncomplete) {
        if (d.len - d.p > kMaxSizeLine) return kMalformedResponse;
        return d.carry(d.p);
    }
    if (scanned.size == 0) {
        if (d.buf[d.p] != '0') return kMalformedResponse;
        // The last chunk: trailers and the final blank line are not read, but
        // when they came whole with this read and nothing after them, the
        // connection is clean for another request.
        d.remaining = 0;
        if (d.job != nullptr)
            d.job->chunkedEnd = chunkedTailEnd(d.buf + d.p, (size_t)(d.len - d.p)) == (size_t)(d.len - d.p);
        return d.consumedAll();
    }
    // The size line ends at the first line feed; an extension before it is
    // skipped unread.
    long long feed = d.p + (long long)scanned.end;
    while (feed < d.len && d.buf[feed] != '\n') {
        if (d.buf[feed] == 0) return kMalformedResponse;
        ++feed;
    }
    if (feed == d.len) {
        if (d.len - d.p > kMaxSizeLine) return kMalformedResponse;
        return d.carry(d.p);
    }
    long long data = feed + 1;
    long long size = scanned.size;
    if (size > d.len - data - 2) return partialChunk(d, data, size);
    // The line end is checked before the data moves: the move may overwrite it.
    const bool lineEnd = d.buf[data + size] == '\r' && d.buf[data + size + 1] == '\n';
    d.gather(data, size);
    if (!lineEnd) return d.flush() ? kMalformedResponse : kFileWrite;
    d.p = data + size + 2;
    if (d.p >= d.len) return d.consumedAll();
    return std::nullopt;
}

}  // namespace

int webChannel::dump(FILE* file, char* buf, long long len, long long& offset, long long& remaining, int mode,
                     httpGetJob* job) {
    if (mode == 0) return dumpPlain(file, buf, len, offset, remaining, job);
    if (mode != kChunked) return kOk;
    // Chunked mode. On return `offset` is the number of bytes carried over to
    // the start of `buf` (an incomplete size line, or an incomplete chunk that
    // fits the buffer).
    if (len <= 0) return kOk;
    if (remaining < 1) remaining = 1;
    ChunkedDump d{file, buf, len, offset, remaining, offset, job};
    CountOnReturn counted(job, d.written);
    if (remaining >= kInChunk) {
        if (Stop stop = finishLargeChunk(d)) return *stop;
    }
    if (d.p >= len) return d.consumedAll();
    for (;;) {
        if (Stop stop = nextChunk(d)) {
            // Whatever ended the call, the chunks gathered before it are written.
            if (!d.flush() && *stop == kOk) return kFileWrite;
            return *stop;
        }
    }
}
