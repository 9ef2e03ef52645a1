// Ownership of a pooled connection for the length of one request.
#ifndef WEBCHANNEL_TRANSPORT_CONNECTION_LEASE_H
#define WEBCHANNEL_TRANSPORT_CONNECTION_LEASE_H

#include "channel/webChannel.h"

// Drops a request's connection from its pool when the request ends, unless
// a step decided it can serve the next one (a connection is reused only
// when its response was read to the last byte): that one is parked, idle
// until its pool hands it out again. Steps that must log after the drop
// call drop() at that point, so the log keeps its order.
class ConnectionLease {
public:
    ConnectionLease(webChannel& channel, webChannel::connection*& conn, webChannel::threadData* worker)
        : m_channel(channel), m_conn(conn), m_worker(worker) {}
    ~ConnectionLease() {
        if (m_keep && m_conn != nullptr) m_channel.parkConnection(m_conn, m_worker);
        drop();
    }
    ConnectionLease(const ConnectionLease&) = delete;
    ConnectionLease& operator=(const ConnectionLease&) = delete;
    void keep() { m_keep = true; }
    void drop() {
        if (m_keep || m_dropped || m_conn == nullptr) return;
        m_dropped = true;
        m_channel.dropConnection(m_conn, m_worker);
    }
    // Keeps the connection only when `reusable`.
    void keepIf(bool reusable) {
        if (reusable)
            keep();
        else
            drop();
    }

private:
    webChannel& m_channel;
    webChannel::connection*& m_conn;
    webChannel::threadData* m_worker;
    bool m_keep = false;
    bool m_dropped = false;
};

#endif
