// Signals: SIGINT and SIGTERM are blocked in every thread (the library's
// workers inherit the mask, so their socket waits never see EINTR) and taken
// by one watcher thread with sigwait. The first one asks the progress
// callback to cancel; a second one ends the program at once.
#include <unistd.h>

#include "webget.h"

namespace webget {

std::atomic<bool> gInterrupted{false};

namespace {

std::atomic<bool> gWatcherStop{false};

void* signalWatcher(void*) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR2);
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0) continue;
        if (gWatcherStop.load()) return nullptr;
        if (signal == SIGUSR2) continue;
        if (gInterrupted.exchange(true)) {
            static const char kMessage[] = "\nwebget: interrupted again, quitting at once\n";
            ssize_t ignored = write(2, kMessage, sizeof kMessage - 1);
            (void)ignored;
            _exit(kExitInterrupted);
        }
        static const char kMessage[] = "\nwebget: cancelling the batch (interrupt again to quit at once)\n";
        ssize_t ignored = write(2, kMessage, sizeof kMessage - 1);
        (void)ignored;
    }
}

}  // namespace

SignalGuard::SignalGuard() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &set, &m_previous);
    m_started = pthread_create(&m_thread, nullptr, signalWatcher, nullptr) == 0;
}

SignalGuard::~SignalGuard() {
    if (m_started) {
        gWatcherStop.store(true);
        pthread_kill(m_thread, SIGUSR2);
        pthread_join(m_thread, nullptr);
    }
    // A signal that arrived after the watcher left stays pending and is
    // delivered here: the batch is over, so its default action is right.
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
}

}  // namespace webget
