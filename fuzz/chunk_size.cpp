// Chunk sizes: scanChunkSize.
//
// Input: the bytes at the start of a size line, as many as one read has
// brought so far.
//
// The scan promises to read a size the way strtol(text, &end, 16) does,
// without ever looking past the bytes it was given, and to answer
// "incomplete" exactly when a following byte could still change the number.
// Both are checked against strtoll itself: the text is completed once with
// a byte that ends any number ('g') and once with one that would continue it
// ('0'); where the two readings differ, the number had not ended yet. Every
// prefix of the input is scanned from its own exactly sized copy, so a read
// past the end is caught by AddressSanitizer.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "http/body.h"

namespace {

struct Reading {
    long long value = 0;
    size_t end = 0;
    bool overflow = false;
    bool operator==(const Reading& other) const {
        return value == other.value && end == other.end && overflow == other.overflow;
    }
};

Reading readWith(const char* text, size_t length, char next) {
    // strtoll stops at a NUL like at any other byte that is not part of a
    // number; without one in the text, `next` decides.
    size_t nul = std::find(text, text + length, '\0') - text;
    std::string copy(text, nul);
    if (nul == length) copy += next;
    Reading reading;
    char* end = nullptr;
    errno = 0;
    reading.value = std::strtoll(copy.c_str(), &end, 16);
    reading.overflow = errno == ERANGE;
    reading.end = (size_t)(end - copy.c_str());
    return reading;
}

ChunkSize expected(const char* text, size_t length) {
    ChunkSize result;  // incomplete, size 0, end 0
    Reading ended = readWith(text, length, 'g');
    if (!(ended == readWith(text, length, '0'))) return result;
    result.status = ChunkSize::kComplete;
    if (ended.end == 0) return result;  // no number at all
    result.end = ended.end;
    if (ended.overflow || ended.value < 0 || ended.value >= 0x7ffffffffffffffdLL) {
        result.status = ChunkSize::kOutOfRange;
        return result;
    }
    result.size = ended.value;
    return result;
}

void check(const uint8_t* data, size_t length) {
    std::unique_ptr<char[]> copy(new char[length == 0 ? 1 : length]);
    if (length > 0) std::memcpy(copy.get(), data, length);
    ChunkSize got = scanChunkSize(copy.get(), length);
    ChunkSize want = expected(copy.get(), length);
    FUZZ_CHECK(got.status == want.status && got.size == want.size && got.end == want.end,
               "%zu bytes: status %d size %lld end %zu, expected status %d size %lld end %zu", length,
               (int)got.status, got.size, got.end, (int)want.status, want.size, want.end);
    FUZZ_CHECK(got.end <= length, "end beyond the text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Reads may end anywhere in a size line: every cut of a short line, and
    // a sample of the cuts of a long one.
    size_t step = size <= 96 ? 1 : size / 64;
    for (size_t length = 0; length < size; length += step) check(data, length);
    check(data, size);
    return 0;
}
