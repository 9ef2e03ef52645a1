// The idle keep-alive connections of every pool of a channel, in one place,
// so that any thread can close the least recently used ones: beyond a pool's
// cap, or when the process runs out of descriptors.
//
// A pool's own thread uses its connections without a lock. The registry is
// what makes closing one from another thread safe: a connection is closed
// only while parked here (between two requests of its owner), the close
// happens under the registry's lock, and the owner takes a connection back
// under the same lock before using it. A connection closed while parked is
// then reported gone, so its owner never touches a closed (or meanwhile
// reused) descriptor number.
#ifndef WEBCHANNEL_TRANSPORT_IDLE_REGISTRY_H
#define WEBCHANNEL_TRANSPORT_IDLE_REGISTRY_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "channel/webChannel.h"

// ---- policy: small pure functions ----

// Where an idle connection belongs and when it was parked (the registry's clock).
struct IdleMark {
    const void* owner;
    unsigned long long parked;
};

// The `count` idle connections to close first, oldest first: the least
// recently used, among those of `owner` when one is given (null: any pool).
template <typename Map>
std::vector<typename Map::key_type> leastRecentlyUsed(const Map& idle, const void* owner, size_t count) {
    std::vector<std::pair<unsigned long long, typename Map::key_type>> candidates;
    for (const auto& entry : idle)
        if (owner == nullptr || entry.second.owner == owner) candidates.emplace_back(entry.second.parked, entry.first);
    count = std::min(count, candidates.size());
    std::partial_sort(candidates.begin(), candidates.begin() + (long)count, candidates.end(),
                      [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<typename Map::key_type> chosen;
    for (size_t i = 0; i < count; ++i) chosen.push_back(candidates[i].second);
    return chosen;
}

// How many of a pool's `idle` connections to close to keep within `cap`;
// a negative cap keeps them all.
size_t beyondCap(size_t idle, long cap);

// How many idle connections to close when a descriptor cannot be had: a
// quarter of them, at least one, so that the workers running into the limit
// next find room instead of closing one each.
size_t reliefCount(size_t idle);

// The idle cap a parameter value asks for: a count (decimal digits only), or
// -1 (no cap) for anything else.
long idleCapFrom(const std::string& value);

// ---- the registry ----

class IdleRegistry {
public:
    using Connection = webChannel::connection;
    // `close` ends a connection (its TLS session, socket and waiters); the
    // record itself stays with its owner.
    explicit IdleRegistry(std::function<void(Connection*)> close) : m_close(std::move(close)) {}
    IdleRegistry(const IdleRegistry&) = delete;
    IdleRegistry& operator=(const IdleRegistry&) = delete;

    // The owner (its pool) keeps the connection for a later request. With a
    // cap (not negative), the owner's least recently used idle connections
    // beyond it are closed and returned, for the owner to take out of its pool.
    std::vector<Connection*> park(Connection* conn, const void* owner, long cap);
    // The owner takes the connection for a request: true when it is open
    // (parked, or never parked), false when it was closed while parked.
    bool take(Connection* conn);
    // The record is about to be freed.
    void forget(Connection* conn);
    // Closes the least recently used idle connections of every pool,
    // reliefCount of them; returns how many (0: none was idle).
    size_t relieve();

private:
    // Takes a parked connection off the books (under the lock).
    void unpark(Connection* conn);

    std::function<void(Connection*)> m_close;
    std::mutex m_lock;
    std::unordered_map<Connection*, IdleMark> m_idle;
    std::unordered_map<const void*, size_t> m_parkedBy;  // idle connections per owner
    // Closed by relieve() while parked, until their owner takes or forgets them.
    std::unordered_set<Connection*> m_closed;
    unsigned long long m_clock = 0;
};

#endif
