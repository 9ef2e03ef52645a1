// Plain integer fields that worker threads share (the per-URL counters, the
// worker error fields, a job's byte counts) are accessed through these, so
// that the record layouts stay plain while every concurrent access is atomic.
#ifndef WEBCHANNEL_ATOMICS_H
#define WEBCHANNEL_ATOMICS_H

template <typename T>
inline T atomicLoad(const T& value) {
    return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}

template <typename T>
inline void atomicStore(T& target, T value) {
    __atomic_store_n(&target, value, __ATOMIC_RELEASE);
}

template <typename T>
inline void atomicAdd(T& target, T delta) {
    __atomic_add_fetch(&target, delta, __ATOMIC_ACQ_REL);
}

// Replaces `expected` by `desired`; false (with `expected` updated) when the
// value had changed meanwhile.
template <typename T>
inline bool atomicSwap(T& target, T& expected, T desired) {
    return __atomic_compare_exchange_n(&target, &expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

#endif
