// The chunked-body decoder, webChannel::dump in chunked mode, driven as a
// worker drives it (a slice of kBufferSlice bytes, reads of at most kMaxRead,
// the first with the head before `offset`, each later one behind the bytes
// the decoder carried; bytes beyond `len` poisoned), against a plain decoding
// of the whole wire. Input: byte 0 (bits 0-4: the number of read sizes; bit
// 7: a head length follows), the head length, the read sizes (used in turn,
// 0 reads as much as fits), then the wire.
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz_check.h"

namespace {

// Tiny reads behind a long carried line are quadratic: beyond kMaxHandedOver,
// reads take as much as fits. Wires stay below the 64 KiB a size line may have.
constexpr long long kMaxHandedOver = 8 << 20;
constexpr size_t kMaxWire = 65000;

struct Decoded {
    enum Outcome { kEnded, kWaiting, kBadSize, kMalformed } outcome = kWaiting;
    std::string data;     // the chunks that arrived whole with their CR LF
    std::string pending;  // the chunk the wire ended in, or whose CR LF is wrong
};

// Size line: a number, then anything but NUL up to the line feed; then that
// many bytes and CR LF. A 0 ends the body when its line starts with '0'.
Decoded decode(const std::string& wire) {
    Decoded d;
    const size_t n = wire.size();
    for (size_t p = 0;; d.outcome = Decoded::kWaiting) {
        if (p == n) return d;
        const ChunkSize line = referenceChunkSize(wire.data() + p, n - p);
        if (line.status == ChunkSize::kIncomplete) return d;
        const size_t feed = std::min(n, wire.find('\n', p + line.end));
        d.outcome = line.status == ChunkSize::kOutOfRange ? Decoded::kBadSize : Decoded::kMalformed;
        if (line.status == ChunkSize::kOutOfRange || line.end == 0) return d;
        if (line.size == 0) {
            if (wire[p] == '0') d.outcome = Decoded::kEnded;
            return d;
        }
        if (std::memchr(wire.data() + p + line.end, '\0', feed - (p + line.end)) != nullptr) return d;
        const size_t start = feed + 1, size = (size_t)line.size;
        d.outcome = Decoded::kWaiting;
        if (feed == n) return d;
        d.pending = wire.substr(start, size);
        if (n - start < size + 2) return d;
        d.outcome = Decoded::kMalformed;
        if (wire[start + size] != '\r' || wire[start + size + 1] != '\n') return d;
        d.data += d.pending;
        d.pending.clear();
        p = start + size + 2;
    }
}

// One slice at its exact size; [0, gExposed) addressable, the rest poisoned.
char* const gSlice = [] {
    char* b = static_cast<char*>(std::malloc((size_t)kBufferSlice));
    ASAN_POISON_MEMORY_REGION(b, (size_t)kBufferSlice);
    return b;
}();
size_t gExposed = 0;

void expose(size_t end) {
    if (end > gExposed) ASAN_UNPOISON_MEMORY_REGION(gSlice + gExposed, end - gExposed);
    if (end < gExposed) ASAN_POISON_MEMORY_REGION(gSlice + end, gExposed - end);
    gExposed = end;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > kMaxWire) return 0;
    size_t i = 1, head = 0, position = 0;
    if ((data[0] & 128) != 0 && i < size) head = data[i++];
    std::vector<size_t> reads;
    while (reads.size() < (data[0] & 31u) && i < size) reads.push_back(data[i++]);
    const std::string wire(reinterpret_cast<const char*>(data) + i, size - i);
    char* written = nullptr;
    size_t writtenSize = 0;
    FILE* file = open_memstream(&written, &writtenSize);
    expose(head);  // the head: bytes that would decode to something if read as body
    for (size_t k = 0; k < head; ++k) gSlice[k] = "1\r\nX\r\n"[k % 6];
    webChannel::httpGetJob job;
    long long len = 0, offset = (long long)head, remaining = 1, handedOver = 0;
    int result = kOk;
    for (size_t carried = head, calls = 0; result == kOk && remaining > 0; ++calls, handedOver += len) {
        if (calls > 0) {
            FUZZ_CHECK(offset >= 0 && offset <= len, "carried %lld bytes of %lld", offset, len);
            expose((size_t)offset);  // what the decoder did not carry is gone
            if (position == wire.size()) break;
            FUZZ_CHECK(offset < kMaxRead, "carried %lld bytes: no room for a read", offset);
            carried = (size_t)offset;
            offset = 0;
        }
        size_t count = std::min((size_t)kMaxRead - carried, wire.size() - position);
        if (handedOver < kMaxHandedOver && !reads.empty() && reads[calls % reads.size()] != 0)
            count = std::min(count, reads[calls % reads.size()]);
        expose(carried + count);
        std::memcpy(gSlice + carried, wire.data() + position, count);
        position += count;
        len = (long long)(carried + count);
        result = fuzzChannel().dump(file, gSlice, len, offset, remaining, kChunked, &job);
    }
    std::fclose(file);
    const std::string got(written, writtenSize);
    std::free(written);

    const Decoded want = decode(wire);
    const std::string all = want.data + want.pending;
    FUZZ_CHECK(remaining >= 0 && job.downloaded == (long long)got.size(), "remaining %lld, counted %lld, wrote %zu",
               remaining, job.downloaded, got.size());
    // Whatever happened, only data bytes of the wire, in order, reach the file.
    FUZZ_CHECK(got.size() <= all.size() && all.compare(0, got.size(), got) == 0,
               "wrote %zu bytes that are not the decoded body (%zu bytes, outcome %d)", got.size(), all.size(),
               (int)want.outcome);
    static const int kResults[] = {kOk, kOk, kBadChunkSize, kMalformedResponse};
    const bool ended = want.outcome == Decoded::kEnded;
    FUZZ_CHECK(result == kResults[want.outcome] && (result != kOk || (remaining == 0) == ended),
               "outcome %d: result %d, remaining %lld", (int)want.outcome, result, remaining);
    FUZZ_CHECK(got.size() >= want.data.size(), "%zu bytes written, %zu complete", got.size(), want.data.size());
    FUZZ_CHECK(!ended || got == want.data, "decoded %zu bytes", got.size());
    return 0;
}
