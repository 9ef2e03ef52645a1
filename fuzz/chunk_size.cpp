// Chunk sizes: scanChunkSize against referenceChunkSize on every cut of a size line that one read may have brought
// (a sample of the cuts of a long one), each from its own exactly sized copy so that a read past the end is caught.
#include <algorithm>
#include <cstdint>
#include <memory>

#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const size_t step = size <= 96 ? 1 : size / 64;
    for (size_t length = 0;; length = std::min(length + step, size)) {
        std::unique_ptr<char[]> copy(new char[length]);
        std::copy(data, data + length, copy.get());
        const ChunkSize got = scanChunkSize(copy.get(), length), want = referenceChunkSize(copy.get(), length);
        FUZZ_CHECK(got.status == want.status && got.size == want.size && got.end == want.end);
        if (length == size) return 0;
    }
}
