// Getting a descriptor when the process has run out: idle pooled
// connections are closed, least recently used first and from every pool,
// and the call is made again, for as long as any are left.
#ifndef WEBCHANNEL_TRANSPORT_DESCRIPTOR_RELIEF_H
#define WEBCHANNEL_TRANSPORT_DESCRIPTOR_RELIEF_H

#include <cerrno>

#include "channel/webChannel.h"

// Rounds of relief one call may ask for. Each closes a quarter of the idle
// connections (at least one), which empties tens of thousands within this;
// the bound only matters while other threads keep parking new ones.
constexpr int kMaxReliefRounds = 64;

inline bool isOutOfDescriptors(int error) {
    return error == EMFILE || error == ENFILE;
}

// Runs `attempt` (true on success; on failure errno says why) again after
// each relief while it fails for want of descriptors. One more attempt
// follows a relief that found nothing idle: another thread may have made
// room meanwhile. On failure errno is the last attempt's.
template <typename Attempt>
bool withDescriptors(webChannel& channel, Attempt attempt) {
    errno = 0;
    if (attempt()) return true;
    for (int round = 0; round < kMaxReliefRounds && isOutOfDescriptors(errno); ++round) {
        const bool relieved = channel.relieveDescriptors(errno);
        errno = 0;
        if (attempt()) return true;
        if (!relieved) return false;
    }
    return false;
}

// A descriptor from `open` (a call returning one, or -1 with errno), with relief.
template <typename Open>
int openRelieved(webChannel& channel, Open open) {
    int fd = -1;
    withDescriptors(channel, [&] { return (fd = open()) >= 0; });
    return fd;
}

#endif
