// Shared by the fuzz targets: the failure report and the one channel object
// of the process.
#ifndef WEBCHANNEL_FUZZ_CHECK_H
#define WEBCHANNEL_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

#include "channel/webChannel.h"

// A broken invariant is a finding like a crash: libFuzzer saves the input
// when the process aborts.
#define FUZZ_CHECK(condition, ...)                                                         \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "%s:%d: check failed: %s\n  ", __FILE__, __LINE__, #condition); \
            std::fprintf(stderr, __VA_ARGS__);                                             \
            std::fputc('\n', stderr);                                                      \
            std::abort();                                                                  \
        }                                                                                  \
    } while (0)

// The member functions under test need a channel but no init(); one object
// serves every input (construction takes locks and would only cost time).
// Never destroyed: it stays reachable, so the leak check ignores it.
inline webChannel& fuzzChannel() {
    static webChannel* channel = new webChannel;
    return *channel;
}

#endif
