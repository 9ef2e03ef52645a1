// Holds a pthread mutex for the lifetime of a scope, so that no early return
// can leave it locked.
#ifndef WEBCHANNEL_SCOPED_LOCK_H
#define WEBCHANNEL_SCOPED_LOCK_H

#include <pthread.h>

class ScopedLock {
public:
    explicit ScopedLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~ScopedLock() { pthread_mutex_unlock(&m_mutex); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

#endif
