#include "transport/sigpipe.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

SigpipeIgnore::SigpipeIgnore() {
    m_valid = sigaction(SIGPIPE, nullptr, &m_saved) == 0;
    if (!m_valid) return;
    struct sigaction ignore = m_saved;
    ignore.sa_handler = SIG_IGN;
    ignore.sa_flags &= ~SA_SIGINFO;
    sigaction(SIGPIPE, &ignore, nullptr);
}

SigpipeIgnore::~SigpipeIgnore() {
    if (m_valid) sigaction(SIGPIPE, &m_saved, nullptr);
}

SigpipeBlock::SigpipeBlock() {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &block, &m_saved);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
}

SigpipeBlock::~SigpipeBlock() {
    if (!m_wasPending) {
        // Swallow only a SIGPIPE raised while blocked here; one that was
        // already pending belongs to someone else.
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE) == 1) {
            sigset_t only;
            sigemptyset(&only);
            sigaddset(&only, SIGPIPE);
            timespec zero = {0, 0};
            int saved = errno;
            sigtimedwait(&only, nullptr, &zero);
            errno = saved;
        }
    }
    pthread_sigmask(SIG_SETMASK, &m_saved, nullptr);
}
