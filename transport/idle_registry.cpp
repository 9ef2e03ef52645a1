#include "transport/idle_registry.h"

#include <algorithm>

size_t beyondCap(size_t idle, long cap) {
    if (cap < 0 || idle <= (size_t)cap) return 0;
    return idle - (size_t)cap;
}

size_t reliefCount(size_t idle) {
    return idle == 0 ? 0 : std::max<size_t>(1, idle / 4);
}

long idleCapFrom(const std::string& value) {
    // Ten digits at most: any count a pool could hold, and no overflow.
    if (value.empty() || value.size() > 10) return -1;
    long cap = 0;
    for (char c : value) {
        if (c < '0' || c > '9') return -1;
        cap = cap * 10 + (c - '0');
    }
    return cap;
}

std::vector<IdleRegistry::Connection*> IdleRegistry::park(Connection* conn, const void* owner, long cap) {
    std::lock_guard<std::mutex> lock(m_lock);
    unpark(conn);  // parked twice without a take: the later park counts
    m_idle[conn] = IdleMark{owner, ++m_clock};
    ++m_parkedBy[owner];
    std::vector<Connection*> closed;
    const size_t excess = beyondCap(m_parkedBy[owner], cap);
    if (excess == 0) return closed;
    for (Connection* oldest : leastRecentlyUsed(m_idle, owner, excess)) {
        unpark(oldest);
        m_close(oldest);
        closed.push_back(oldest);
    }
    return closed;
}

bool IdleRegistry::take(Connection* conn) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_closed.erase(conn) != 0) return false;
    unpark(conn);
    return true;
}

void IdleRegistry::forget(Connection* conn) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_closed.erase(conn);
    unpark(conn);
}

size_t IdleRegistry::relieve() {
    std::lock_guard<std::mutex> lock(m_lock);
    const std::vector<Connection*> oldest = leastRecentlyUsed(m_idle, nullptr, reliefCount(m_idle.size()));
    for (Connection* conn : oldest) {
        unpark(conn);
        // Under the lock: its owner cannot take it back before it is closed.
        m_close(conn);
        m_closed.insert(conn);
    }
    return oldest.size();
}

void IdleRegistry::unpark(Connection* conn) {
    auto found = m_idle.find(conn);
    if (found == m_idle.end()) return;
    auto count = m_parkedBy.find(found->second.owner);
    if (--count->second == 0) m_parkedBy.erase(count);
    m_idle.erase(found);
}
