#include "transport/poll_wait.h"

#include <poll.h>

#include <cerrno>
#include <ctime>

namespace {

long long nowMillis() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

int waitEvent(int poller, int seconds, unsigned& events) {
    events = 0;
    long long deadline = nowMillis() + (long long)seconds * 1000;
    for (;;) {
        long long left = deadline - nowMillis();
        if (left < 0) left = 0;
        epoll_event event;
        int ready = epoll_wait(poller, &event, 1, (int)(left > kMaxWaitMillis ? kMaxWaitMillis : left));
        if (ready > 0) {
            events = event.events;
            return 1;
        }
        if (ready == 0) return 0;
        if (errno != EINTR || left == 0) return -1;
    }
}

int waitDescriptor(int fd, short events, int seconds) {
    long long deadline = nowMillis() + (long long)seconds * 1000;
    for (;;) {
        long long left = deadline - nowMillis();
        if (left < 0) left = 0;
        pollfd waiter = {fd, events, 0};
        int ready = poll(&waiter, 1, (int)(left > kMaxWaitMillis ? kMaxWaitMillis : left));
        if (ready > 0) return 1;
        if (ready == 0) return 0;
        if (errno != EINTR || left == 0) return -1;
    }
}
