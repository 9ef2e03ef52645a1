// The chunked-body decoder: webChannel::dump in chunked mode (3002), driven
// the way a worker drives it, and compared with a plain decoding of the
// whole wire written here.
//
// Input:
//   byte 0   bits 0-4: how many read-size bytes follow; bit 5: expand the
//            escapes below in the wire; bit 6: a target file that refuses
//            writes beyond a capacity; bit 7: head bytes before the body.
//   1 byte   when bit 7 is set, the head length: h < 128 gives h bytes,
//            more gives (h - 127) * 4093 bytes.
//   1 byte   when bit 6 is set, the file capacity: c < 128 gives c bytes,
//            more gives (c - 127) * 4099 bytes.
//   N bytes  the read sizes, used in turn and then over again: 0 reads as
//            much as fits, v < 128 reads v bytes, more reads (v - 127) * 4099.
//   rest     the wire: the body as the server sends it.
// Escapes (bit 5), so that small inputs reach chunks too large to be held
// in the buffer, L = x * 4096 + y * 16 + (z & 15) and data byte 'a' + (z >> 4):
//   FF x y z   a whole chunk of L data bytes: size line, data, CR LF
//   FE x y z   L data bytes alone
//
// The worker's contract: the buffer is a slice of kBufferSlice bytes and a
// read brings at most kMaxRead bytes. The first call gets the bytes of the
// first block (head and the start of the body) with `offset` at the first
// body byte and `remaining` 1; every later read is placed behind the
// `offset` bytes the decoder carried to the start of the buffer, and the
// decoder is called with offset 0 and len = carried + read. `remaining`
// reaches 0 after the last chunk. Bytes of the slice beyond `len` are
// poisoned during each call, so that any access to them is reported.
//
// What must hold, however the reads cut the wire:
//   - a complete body: result 0, `remaining` 0, the file holds exactly the
//     reference's decoding;
//   - a wire that ends early: result 0, `remaining` above 0, the file holds
//     every complete chunk and at most a prefix of the cut one;
//   - bad framing: -3001 for a bad size, -3002 for anything else, and the
//     file holds the chunks before the fault and at most the faulty chunk's
//     data (a chunk is written before its CR LF is looked at);
//   - a file that refuses a write gives -3054; the byte count of the job
//     always equals what reached the file;
//   - the decoder always leaves room for the next read.
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"

namespace {

// Bounds on the work of one input.
constexpr size_t kMaxWire = size_t(3) << 19;
constexpr int kMaxCalls = 20000;
// Every call scans what the buffer holds, so tiny reads behind a long
// carried line cost quadratic time; once this many bytes were handed over
// in all, the reads take as much as fits.
constexpr long long kMaxHandedOver = 8 << 20;
// The decoder refuses a size line longer than this while it is still
// incomplete; whether it ever sees it incomplete depends on how the reads
// cut it, so beyond this length either answer is right.
constexpr size_t kMaxLine = 65536;

struct Plan {
    size_t headLength = 0;
    bool limitedFile = false;
    size_t capacity = 0;
    std::vector<size_t> reads;  // 0: as much as fits
    std::string wire;
};

size_t scaled(uint8_t value, size_t unit) {
    return value < 128 ? value : (size_t)(value - 127) * unit;
}

bool makePlan(const uint8_t* data, size_t size, Plan& plan) {
    if (size < 1) return false;
    const uint8_t control = data[0];
    size_t i = 1;
    const size_t readCount = control & 31;
    const bool expand = (control & 32) != 0;
    plan.limitedFile = (control & 64) != 0;
    if ((control & 128) != 0) {
        if (i >= size) return false;
        plan.headLength = scaled(data[i++], 4093);
    }
    if (plan.limitedFile) {
        if (i >= size) return false;
        plan.capacity = scaled(data[i++], 4099);
    }
    for (size_t k = 0; k < readCount; ++k) {
        if (i >= size) return false;
        plan.reads.push_back(data[i] == 0 ? 0 : scaled(data[i], 4099));
        ++i;
    }
    for (; i < size; ++i) {
        const uint8_t byte = data[i];
        if (expand && (byte == 0xFF || byte == 0xFE) && i + 3 < size) {
            const size_t length = ((size_t)data[i + 1] << 12) | ((size_t)data[i + 2] << 4) | (data[i + 3] & 15);
            const char fill = (char)('a' + (data[i + 3] >> 4));
            if (plan.wire.size() + length + 32 > kMaxWire) break;
            if (byte == 0xFF) {
                char line[32];
                std::snprintf(line, sizeof(line), "%zx\r\n", length);
                plan.wire += line;
            }
            plan.wire.append(length, fill);
            if (byte == 0xFF) plan.wire += "\r\n";
            i += 3;
            continue;
        }
        plan.wire += (char)byte;
    }
    return true;
}

// ---- the reference decoding ----

// A size read the way strtoll(..., 16) reads it.
struct Reading {
    long long value = 0;
    size_t end = 0;
    bool overflow = false;
    bool operator==(const Reading& other) const {
        return value == other.value && end == other.end && overflow == other.overflow;
    }
};

Reading readSize(const std::string& wire, size_t from, char next) {
    // Only these bytes can be part of what strtoll reads; a NUL ends the
    // run like any other byte (the libc scans keep big inputs fast).
    static const char kNumberBytes[] = " \t\n\v\f\r+-xX0123456789abcdefABCDEF";
    const size_t run = std::strspn(wire.c_str() + from, kNumberBytes);
    std::string text = wire.substr(from, run);
    // When the wire ends inside what could still be a number, `next` stands
    // for the byte that follows.
    if (from + run == wire.size()) text += next;
    Reading reading;
    char* end = nullptr;
    errno = 0;
    reading.value = std::strtoll(text.c_str(), &end, 16);
    reading.overflow = errno == ERANGE;
    reading.end = (size_t)(end - text.c_str());
    return reading;
}

struct Decoded {
    enum Outcome { kEnded, kWaiting, kBadSize, kMalformed };
    Outcome outcome = kWaiting;
    std::string data;     // the chunks that arrived whole with their CR LF
    std::string pending;  // the chunk that the wire ended in, or whose CR LF is wrong
    bool longLine = false;
    size_t dataBeforeLongLine = 0;
};

// Size line: white space, a sign, "0x", hex digits (a number strtoll reads),
// then anything but NUL up to the line feed; then exactly that many data
// bytes and CR LF. A size of 0 ends the body when its line starts with the
// digit '0'; no number at all, or a 0 written otherwise, is malformed;
// negative sizes, overflowing ones and those of 0x7ffffffffffffffd or more
// are bad sizes.
Decoded decode(const std::string& wire) {
    Decoded d;
    const size_t n = wire.size();
    size_t p = 0;
    auto finish = [&](Decoded::Outcome outcome) {
        d.outcome = outcome;
        return d;
    };
    for (;;) {
        if (p == n) return finish(Decoded::kWaiting);
        Reading ended = readSize(wire, p, 'g');
        Reading continued = readSize(wire, p, '0');
        // How much of this line the decoder may hold while it is still
        // incomplete, at most: while the number is read, the white space or
        // the number and a few bytes of look-ahead (sign, "0x"); then the
        // extension up to the line feed.
        const size_t blanks = std::strspn(wire.c_str() + p, " \t\n\v\f\r");
        const size_t feed = std::min(n, wire.find('\n', p + ended.end));
        const bool sized = ended == continued && ended.end > 0 && !ended.overflow && ended.value > 0 &&
                           ended.value < 0x7ffffffffffffffdLL;
        size_t held = !(ended == continued) ? n : std::min(n, p + std::max(ended.end, blanks) + 3);
        if (sized) held = std::max(held, feed);
        if (held - p > kMaxLine && !d.longLine) {
            d.longLine = true;
            d.dataBeforeLongLine = d.data.size();
        }
        if (!(ended == continued)) return finish(Decoded::kWaiting);
        if (ended.end == 0) return finish(Decoded::kMalformed);
        if (ended.overflow || ended.value < 0 || ended.value >= 0x7ffffffffffffffdLL)
            return finish(Decoded::kBadSize);
        if (ended.value == 0) return finish(wire[p] == '0' ? Decoded::kEnded : Decoded::kMalformed);
        if (std::memchr(wire.data() + p + ended.end, '\0', feed - (p + ended.end)) != nullptr)
            return finish(Decoded::kMalformed);
        if (feed == n) return finish(Decoded::kWaiting);
        const size_t start = feed + 1;
        const unsigned long long size = (unsigned long long)ended.value;
        if (n - start < size) {
            d.pending = wire.substr(start);
            return finish(Decoded::kWaiting);
        }
        d.pending = wire.substr(start, (size_t)size);
        if (n - start < size + 2) return finish(Decoded::kWaiting);
        if (wire[start + size] != '\r' || wire[start + size + 1] != '\n') return finish(Decoded::kMalformed);
        d.data += d.pending;
        d.pending.clear();
        p = start + (size_t)size + 2;
    }
}

// ---- the target file ----

// An unbuffered stream whose writes are stored in memory; with a capacity,
// a write beyond it comes out short (after storing what still fits), the
// way a full disk makes it short.
struct Sink {
    std::string data;
    size_t capacity = SIZE_MAX;
};

ssize_t sinkWrite(void* cookie, const char* bytes, size_t size) {
    Sink* sink = static_cast<Sink*>(cookie);
    size_t take = std::min(size, sink->capacity - sink->data.size());
    sink->data.append(bytes, take);
    // A short count, never -1: the stdio of glibc passes a cookie's -1 on
    // to fwrite's byte count unchecked (a regular file's write loop
    // catches it), and fwrite would then report the whole block written.
    if (take < size) errno = ENOSPC;
    return (ssize_t)take;
}

FILE* openSink(Sink& sink) {
    cookie_io_functions_t functions = {nullptr, sinkWrite, nullptr, nullptr};
    FILE* file = fopencookie(&sink, "w", functions);
    if (file != nullptr) setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

// ---- the receive buffer ----

// One worker slice, allocated at its exact size; [0, exposed) is
// addressable, the rest poisoned.
char* slice() {
    static char* buffer = [] {
        char* b = static_cast<char*>(std::malloc((size_t)kBufferSlice));
        ASAN_POISON_MEMORY_REGION(b, (size_t)kBufferSlice);
        return b;
    }();
    return buffer;
}
size_t exposed = 0;

void expose(size_t end) {
    char* buffer = slice();
    if (end > exposed) ASAN_UNPOISON_MEMORY_REGION(buffer + exposed, end - exposed);
    if (end < exposed) ASAN_POISON_MEMORY_REGION(buffer + end, exposed - end);
    exposed = end;
}

bool isPrefix(const std::string& part, const std::string& whole) {
    return part.size() <= whole.size() && whole.compare(0, part.size(), part) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Plan plan;
    if (!makePlan(data, size, plan)) return 0;
    webChannel& channel = fuzzChannel();
    char* buffer = slice();
    const std::string& wire = plan.wire;

    Sink sink;
    if (plan.limitedFile) sink.capacity = plan.capacity;
    FILE* file = openSink(sink);
    if (file == nullptr) return 0;
    webChannel::httpGetJob job;

    size_t position = 0;  // in the wire
    size_t readIndex = 0;
    int calls = 0;
    long long handedOver = 0;
    // The next read: its planned size, within the room left and the wire.
    auto nextRead = [&](size_t room) {
        size_t want = room;
        if (calls < kMaxCalls && handedOver < kMaxHandedOver && !plan.reads.empty()) {
            size_t planned = plan.reads[readIndex++ % plan.reads.size()];
            if (planned != 0) want = planned;
        }
        return std::min({want, room, wire.size() - position});
    };

    // The first block: the head (a pattern that decodes to something, so
    // that reading it as body shows) and the first read of the body.
    const size_t head = std::min(plan.headLength, (size_t)kMaxRead - 1);
    size_t count = nextRead((size_t)kMaxRead - head);
    expose(head + count);
    static const char kHeadPattern[] = "1\r\nX\r\n";
    for (size_t i = 0; i < head; ++i) buffer[i] = kHeadPattern[i % (sizeof(kHeadPattern) - 1)];
    std::memcpy(buffer + head, wire.data(), count);
    position = count;
    long long len = (long long)(head + count);
    long long offset = (long long)head;
    long long remaining = 1;
    int result = channel.dump(file, buffer, len, offset, remaining, kChunked, &job);
    ++calls;
    handedOver += len;

    while (result == kOk && remaining > 0) {
        FUZZ_CHECK(offset >= 0 && offset <= len, "carried %lld bytes of %lld", offset, len);
        expose((size_t)offset);  // what the decoder did not carry is gone
        if (position == wire.size()) break;
        FUZZ_CHECK(offset < kMaxRead, "the decoder carried %lld bytes and left no room for a read", offset);
        const size_t carried = (size_t)offset;
        count = nextRead((size_t)kMaxRead - carried);
        expose(carried + count);
        std::memcpy(buffer + carried, wire.data() + position, count);
        position += count;
        len = (long long)(carried + count);
        offset = 0;
        result = channel.dump(file, buffer, len, offset, remaining, kChunked, &job);
        ++calls;
        handedOver += len;
    }
    std::fclose(file);

    const Decoded want = decode(wire);
    const std::string& got = sink.data;
    const std::string all = want.data + want.pending;
    FUZZ_CHECK(result == kOk || result == kBadChunkSize || result == kMalformedResponse || result == kFileWrite,
               "unexpected result %d", result);
    FUZZ_CHECK(remaining >= 0, "remaining %lld", remaining);
    FUZZ_CHECK(job.downloaded == (long long)got.size(), "counted %lld bytes, wrote %zu", job.downloaded,
               got.size());
    // Whatever happened, only data bytes of the wire, in order, reach the file.
    FUZZ_CHECK(isPrefix(got, all), "wrote %zu bytes that are not the decoded body (%zu bytes, outcome %d)",
               got.size(), all.size(), (int)want.outcome);
    if (result == kFileWrite) {
        FUZZ_CHECK(plan.limitedFile && got.size() == plan.capacity, "write failure with %zu bytes stored",
                   got.size());
        return 0;
    }
    if (want.longLine && result != kOk) {
        FUZZ_CHECK(got.size() >= want.dataBeforeLongLine, "chunks before a long size line lost");
        return 0;
    }
    switch (want.outcome) {
    case Decoded::kEnded:
        FUZZ_CHECK(result == kOk && remaining == 0, "complete body: result %d, remaining %lld", result, remaining);
        FUZZ_CHECK(got == want.data, "decoded %zu bytes, expected %zu", got.size(), want.data.size());
        break;
    case Decoded::kWaiting:
        FUZZ_CHECK(result == kOk && remaining > 0, "cut body: result %d, remaining %lld", result, remaining);
        FUZZ_CHECK(got.size() >= want.data.size(), "cut body: %zu bytes written, %zu complete", got.size(),
                   want.data.size());
        break;
    case Decoded::kBadSize:
        FUZZ_CHECK(result == kBadChunkSize, "bad chunk size: result %d, remaining %lld", result, remaining);
        FUZZ_CHECK(got.size() >= want.data.size(), "chunks before the bad size lost");
        break;
    case Decoded::kMalformed:
        FUZZ_CHECK(result == kMalformedResponse, "malformed body: result %d, remaining %lld", result, remaining);
        FUZZ_CHECK(got.size() >= want.data.size(), "chunks before the malformed line lost");
        break;
    }
    return 0;
}
