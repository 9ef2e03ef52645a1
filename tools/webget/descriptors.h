// webget's descriptor budget: the soft limit raised to the hard one at start,
// and the idle cap (library parameter 3026) that keeps the workers' pools
// well inside it. The cap is a pure function, kept in this header so that
// the unit tests can use it without the program.
#ifndef WEBGET_DESCRIPTORS_H
#define WEBGET_DESCRIPTORS_H

namespace webget {

// Descriptors one pooled connection of the library holds: its socket and its
// two readiness waiters.
constexpr unsigned long long kDescriptorsPerConnection = 3;

// Idle connections a worker keeps: all workers' together take at most half
// the limit, which leaves the other half to the connections in use, the
// targets and whatever else the process opens. At least one, so that a
// worker fetching from one host always keeps its connection.
inline unsigned long long idleCapFor(unsigned long long limit, unsigned workers) {
    const unsigned long long cap = limit / 2 / (kDescriptorsPerConnection * (workers > 0 ? workers : 1));
    return cap > 0 ? cap : 1;
}

// Raises the soft descriptor limit to the hard one, as far as the system
// lets it; nothing changes when it does not.
void raiseDescriptorLimit();
// The soft descriptor limit in effect.
unsigned long long descriptorLimit();

}  // namespace webget

#endif
