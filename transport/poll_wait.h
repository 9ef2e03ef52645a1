// Bounded readiness waits on a connection's epoll waiters.
#ifndef WEBCHANNEL_TRANSPORT_POLL_WAIT_H
#define WEBCHANNEL_TRANSPORT_POLL_WAIT_H

#include <sys/epoll.h>

// Hang-up bits kept in a connection's hangupEvents.
constexpr unsigned kHangupBits = EPOLLRDHUP | EPOLLHUP;
// A wait that ends with one of these found the connection failed or closed.
constexpr unsigned kErrorOrHangupBits = EPOLLERR | kHangupBits;
// Everything a connection's read waiter reports: input, error, hang-ups.
constexpr unsigned kReadWaiterBits = EPOLLIN | kErrorOrHangupBits;
// Everything its write waiter reports: writability, error, hang-ups.
constexpr unsigned kWriteWaiterBits = EPOLLOUT | kErrorOrHangupBits;
static_assert(kErrorOrHangupBits == 0x2018 && kReadWaiterBits == 0x2019 && kWriteWaiterBits == 0x201c,
              "the readiness masks are the epoll bits the waiters were always tested against");

// epoll_wait and poll take an int of milliseconds: a longer wait is made of
// waits of at most this many.
constexpr long long kMaxWaitMillis = 2000000000;

// Waits for one event on `poller` for at most `seconds`. Returns 1 with the
// event's bits, 0 on time-out, -1 when the wait failed. A signal arriving
// meanwhile does not end the wait early.
int waitEvent(int poller, int seconds, unsigned& events);

// Waits until `fd` shows one of `events` (poll bits) for at most `seconds`:
// 1 ready, 0 time-out, -1 failure. Any descriptor number works.
int waitDescriptor(int fd, short events, int seconds);

#endif
