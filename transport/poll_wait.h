// Bounded readiness waits on a connection's epoll waiters.
#ifndef WEBCHANNEL_TRANSPORT_POLL_WAIT_H
#define WEBCHANNEL_TRANSPORT_POLL_WAIT_H

#include <sys/epoll.h>

// Hang-up bits kept in a connection's hangupEvents.
constexpr unsigned kHangupBits = EPOLLRDHUP | EPOLLHUP;  // 0x2010

// Waits for one event on `poller` for at most `seconds`. Returns 1 with the
// event's bits, 0 on time-out, -1 when the wait failed. A signal arriving
// meanwhile does not end the wait early.
int waitEvent(int poller, int seconds, unsigned& events);

// Waits until `fd` shows one of `events` (poll bits) for at most `seconds`:
// 1 ready, 0 time-out, -1 failure. Any descriptor number works.
int waitDescriptor(int fd, short events, int seconds);

#endif
