// Process-wide state of the library.
#ifndef WEBCHANNEL_GLOBALS_H
#define WEBCHANNEL_GLOBALS_H

#include <pthread.h>

#include <cstdint>

class webChannel;

extern webChannel* gInstance;
extern uint32_t gRefCnt;
extern pthread_mutex_t gLockLog;
extern pthread_mutex_t* gSSLMutexArray;

#endif
