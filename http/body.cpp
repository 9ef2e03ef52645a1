// Writing the body bytes of one read into the target file, plain or chunked.
#include "http/body.h"

#include <cstring>

#include "channel/atomics.h"
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

int webChannel::dump(FILE* file, char* buf, long long len, long long& offset, long long& remaining, int mode,
                     httpGetJob* job) {
    if (mode == 0) {
        if (len <= 0) return kOk;
        long long count = len - offset;
        // The target belongs to one worker: no stdio locking is needed.
        size_t written = count > 0 ? fwrite_unlocked(buf + offset, 1, (size_t)count, file) : 0;
        if (job != nullptr) atomicAdd(job->downloaded, (long long)written);
        remaining -= (long long)written;
        offset = 0;
        return (long long)written < count ? kFileWrite : kOk;
    }
    if (mode != kChunked) return kOk;

    // Chunked mode. On return `offset` is the number of bytes carried over to
    // the start of `buf` (an incomplete size line, or an incomplete chunk that
    // fits the buffer); the caller appends the next read behind them.
    if (len <= 0) return kOk;
    if (remaining < 1) remaining = 1;
    long long p = offset;

    // Carries the bytes from `from` to the end to the start of the buffer.
    auto carry = [&](long long from) {
        if (from > 0 && from < len) {
            memmove(buf, buf + from, (size_t)(len - from));
            if (logging()) log("webChannel::dump: copied %lld bytes from offset %lld", len - from, from);
        }
        offset = len - from;
        return kOk;
    };
    // The bytes written in this call reach the job's count once, on return:
    // other workers read that count, and small chunks must not each pay for
    // an atomic update.
    struct Counted {
        httpGetJob* job;
        long long bytes;
        ~Counted() {
            if (job != nullptr && bytes != 0) atomicAdd(job->downloaded, bytes);
        }
    } counted{job, 0};
    auto writeData = [&](long long from, long long count) {
        size_t written = count > 0 ? fwrite_unlocked(buf + from, 1, (size_t)count, file) : 0;
        counted.bytes += (long long)written;
        return (long long)written == count;
    };

    if (remaining >= kInChunk) {
        // The rest of a chunk that was too large for the buffer.
        long long pending = remaining - kInChunk;
        long long take = len - p < pending ? len - p : pending;
        if (!writeData(p, take)) return kFileWrite;
        p += take;
        pending -= take;
        remaining = kInChunk + pending;
        if (pending > 0) {
            offset = 0;
            return kOk;
        }
        if (len - p < 2) return carry(p);
        if (buf[p] != '\r' || buf[p + 1] != '\n') return kMalformedResponse;
        p += 2;
        remaining = 1;
    }
    if (p >= len) {
        offset = 0;
        return kOk;
    }

    for (;;) {
        ChunkSize scanned = scanChunkSize(buf + p, (size_t)(len - p));
        if (logging())
            log("webChannel::dump: started iteration from offset %lld, next chunk is %ld bytes long", p,
                (long)scanned.size);
        if (scanned.status == ChunkSize::kOutOfRange) return kBadChunkSize;
        if (scanned.status == ChunkSize::kIncomplete) {
            if (len - p > kMaxSizeLine) return kMalformedResponse;
            return carry(p);
        }
        if (scanned.size == 0) {
            if (buf[p] != '0') return kMalformedResponse;
            // The last chunk: trailers and the final blank line are not read.
            remaining = 0;
            offset = 0;
            return kOk;
        }
        // The size line ends at the first line feed; an extension before it
        // is skipped unread.
        long long feed = p + (long long)scanned.end;
        while (feed < len && buf[feed] != '\n') {
            if (buf[feed] == 0) return kMalformedResponse;
            ++feed;
        }
        if (feed == len) {
            if (len - p > kMaxSizeLine) return kMalformedResponse;
            return carry(p);
        }
        long long data = feed + 1;
        long long size = scanned.size;
        if (size > len - data - 2) {
            if (logging())
                log("webChannel::dump: needed %x, current %x (len %lld, data offset %x, data len %ld)",
                    (unsigned)(data + size + 2), (unsigned)len, len, (unsigned)data, (long)size);
            // A chunk is written whole once it has arrived with its CR LF,
            // unless it could never fit the buffer: then its data is written
            // as it comes, and the buffer never overflows.
            if (size <= kMaxRead - 2 - (data - p)) return carry(p);
            long long take = len - data < size ? len - data : size;
            if (!writeData(data, take)) return kFileWrite;
            remaining = kInChunk + (size - take);
            if (take < size) {
                offset = 0;
                return kOk;
            }
            return carry(data + take);  // part of the CR LF
        }
        if (!writeData(data, size)) return kFileWrite;
        if (buf[data + size] != '\r' || buf[data + size + 1] != '\n') return kMalformedResponse;
        p = data + size + 2;
        if (p >= len) {
            offset = 0;
            return kOk;
        }
    }
}
