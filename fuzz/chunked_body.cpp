// webChannel::dump in chunked mode, driven as a worker drives it (the first read behind a head, each later one behind
// the bytes the decoder carried), against a plain decoding of the whole wire. Input: byte 0 (bits 0-4: the number of
// read sizes; bit 7: a head length follows), the head length, the read sizes (0 reads all), then the wire.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz_check.h"

namespace {

// Tiny reads behind a long carried line are quadratic: beyond kMaxHandedOver, reads take all that is left.
constexpr long long kMaxHandedOver = 8 << 20;
constexpr size_t kMaxWire = 65000;  // below the 64 KiB a size line may have

struct Decoded {
    enum Outcome { kEnded, kWaiting, kBadSize, kMalformed } outcome = kWaiting;
    std::string data;  // the chunks' data, the last maybe cut short by the wire or without its CR LF
    size_t whole = 0;  // the bytes of the chunks that arrived whole with their CR LF
};

// A size line (a number, then anything but NUL up to the line feed), that many bytes, CR LF; a line "0..." ends it.
Decoded decode(const std::string& wire) {
    Decoded d;
    for (size_t p = 0, n = wire.size(); p < n; d.outcome = Decoded::kWaiting) {
        const ChunkSize line = referenceChunkSize(wire.data() + p, n - p);
        const size_t feed = std::min(n, wire.find('\n', p + line.end)), start = feed + 1, size = line.size;
        if (line.status == ChunkSize::kIncomplete) return d;
        d.outcome = line.status == ChunkSize::kOutOfRange ? Decoded::kBadSize : Decoded::kMalformed;
        if (line.status == ChunkSize::kOutOfRange || line.end == 0) return d;
        if (line.size == 0 && wire[p] == '0') d.outcome = Decoded::kEnded;
        if (line.size == 0) return d;
        if (std::memchr(wire.data() + p + line.end, '\0', feed - (p + line.end)) != nullptr) return d;
        d.outcome = Decoded::kWaiting;
        if (feed == n) return d;
        d.data += wire.substr(start, size);
        if (n - start < size + 2) return d;
        d.outcome = Decoded::kMalformed;
        if (wire.compare(start + size, 2, "\r\n") != 0) return d;
        d.whole = d.data.size();
        p = start + size + 2;
    }
    return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > kMaxWire) return 0;
    size_t i = 1, head = (data[0] & 128) != 0 && size > 1 ? data[i++] : 0;
    std::vector<size_t> reads;
    while (reads.size() < (data[0] & 31u) && i < size) reads.push_back(data[i++]);
    const std::string wire(reinterpret_cast<const char*>(data) + i, size - i);
    std::string carried;  // first the head: bytes that would decode to something if read as body
    for (size_t k = 0; k < head; ++k) carried += "1\r\nX\r\n"[k % 6];
    char* written = nullptr;
    size_t writtenSize = 0;
    FILE* file = open_memstream(&written, &writtenSize);
    webChannel::httpGetJob job;
    long long offset = (long long)head, remaining = 1, handedOver = 0;
    int result = kOk;
    for (size_t at = 0, call = 0; result == kOk && remaining > 0 && (call == 0 || at < wire.size()); ++call) {
        const size_t limit = handedOver < kMaxHandedOver && !reads.empty() ? reads[call % reads.size()] : 0;
        carried.append(wire, at, limit != 0 ? limit : wire.size());
        at = std::min(wire.size(), at + (limit != 0 ? limit : wire.size()));
        const long long len = (long long)carried.size();
        handedOver += len;
        std::vector<char> slice(carried.begin(), carried.end());  // exactly `len` bytes: reading past them is caught
        result = fuzzChannel().dump(file, slice.data(), len, offset, remaining, kChunked, &job);
        FUZZ_CHECK(offset >= 0 && offset <= len);
        carried.assign(slice.data(), (size_t)offset);  // what the decoder did not carry is gone
        offset = 0;
    }
    std::fclose(file);
    const std::string got(written, writtenSize);
    std::free(written);
    const Decoded want = decode(wire);
    FUZZ_CHECK(remaining >= 0 && job.downloaded == (long long)got.size());
    // Every chunk that arrived whole reaches the file, then at most the data of the one the wire ended in.
    FUZZ_CHECK(got.size() >= want.whole && want.data.compare(0, got.size(), got) == 0);
    static const int kResults[] = {kOk, kOk, kBadChunkSize, kMalformedResponse};
    FUZZ_CHECK(result == kResults[want.outcome] &&
               (result != kOk || (remaining == 0) == (want.outcome == Decoded::kEnded)));
    return 0;
}
