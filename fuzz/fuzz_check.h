// Shared by the fuzz targets: the failure report, one channel, a plain reading of chunk sizes.
#ifndef WEBCHANNEL_FUZZ_CHECK_H
#define WEBCHANNEL_FUZZ_CHECK_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "channel/webChannel.h"
#include "http/body.h"

// A broken invariant aborts, so libFuzzer saves the input like a crash.
inline void fuzzCheck(bool holds, const char* condition, const char* file, int line) {
    if (!holds) std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition), std::abort();
}
#define FUZZ_CHECK(...) fuzzCheck(__VA_ARGS__, #__VA_ARGS__, __FILE__, __LINE__)

// Never destroyed: it stays reachable, so the leak check ignores it.
inline webChannel& fuzzChannel() {
    static webChannel* channel = new webChannel;
    return *channel;
}

// The chunk size at the start of `text` as strtoll(text, &end, 16) reads it; incomplete while a following byte
// could change that reading ('g' ends any number, '0' would continue it).
inline ChunkSize referenceChunkSize(const char* text, size_t length) {
    size_t run = 0;  // the bytes strtoll may take
    while (run < length && text[run] != '\0' && std::strchr(" \t\n\v\f\r+-xX0123456789abcdefABCDEF", text[run])) ++run;
    auto read = [&](const char* next) {
        const std::string copy = std::string(text, run) + (run == length ? next : "");
        char* end = nullptr;
        errno = 0;
        const long long value = std::strtoll(copy.c_str(), &end, 16);
        return std::make_tuple(value, (size_t)(end - copy.c_str()), errno == ERANGE);
    };
    const auto [value, end, overflow] = read("g");
    if (read("0") != std::make_tuple(value, end, overflow)) return ChunkSize();
    const bool inRange = end == 0 || (!overflow && value >= 0 && value < 0x7ffffffffffffffdLL);  // end 0: no number
    return {inRange ? ChunkSize::kComplete : ChunkSize::kOutOfRange, inRange ? value : 0, end};
}

#endif
