// Chunk sizes: scanChunkSize against referenceChunkSize, on every cut of a
// size line that one read may have brought (a sample of the cuts of a long
// one). Each cut is scanned from its own exactly sized copy, so a read past
// the end is caught by AddressSanitizer.
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const size_t step = size <= 96 ? 1 : size / 64;
    for (size_t length = 0;; length = length + step < size ? length + step : size) {
        std::unique_ptr<char[]> copy(new char[length == 0 ? 1 : length]);
        if (length > 0) std::memcpy(copy.get(), data, length);
        const ChunkSize got = scanChunkSize(copy.get(), length);
        const ChunkSize want = referenceChunkSize(copy.get(), length);
        FUZZ_CHECK(got.status == want.status && got.size == want.size && got.end == want.end,
                   "%zu bytes: status %d size %lld end %zu, expected status %d size %lld end %zu", length,
                   (int)got.status, got.size, got.end, (int)want.status, want.size, want.end);
        if (length == size) return 0;
    }
}
