// Host-address cache: every host and port is resolved once per channel, so a
// batch of thousands of files from one server costs one lookup.
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>

#include "channel/scoped_lock.h"
#include "channel/webChannel.h"
#include "transport/descriptor_relief.h"

unsigned long webChannel::resolveAddress(const std::string& host, const std::string& port) {
    if (logging()) log("VRAXSecureWebChannel::parseURL: resolving IP address of %s:%s", host.c_str(), port.c_str());
    unsigned long address = 0;
    // Held across the resolver call, so that workers starting together
    // resolve a host only once.
    ScopedLock lock(m_lock1);
    std::string key = host + ":" + port;
    auto cached = m_hostAddresses.find(key);
    if (cached != m_hostAddresses.end()) {
        address = cached->second;
        if (address == 0) noteFailure(kProxyUnusable, "no IPv4 address");
        if (logging())
            log("VRAXSecureWebChannel::parseURL: cached IP address of %s:%s is %x", host.c_str(), port.c_str(),
                (unsigned)address);
        return address;
    }
    addrinfo* list = nullptr;
    int result = 0;
    // The resolver opens files and sockets of its own; out of descriptors,
    // idle connections make room for them.
    withDescriptors(*this, [&] { return (result = getaddrinfo(host.c_str(), nullptr, nullptr, &list)) == 0; });
    if (result != 0) {
        // A failed lookup is not cached: the next call tries again.
        int error = errno;
        if (logging())
            log("VRAXSecureWebChannel::parseURL: failed with return code %d, errno %d", result, error);
        noteFailure(kProxyUnusable, result == EAI_SYSTEM ? systemText(error) : gai_strerror(result));
        return 0;
    }
    for (addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_addr != nullptr && entry->ai_family == AF_INET) {
            address = reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr;
            break;
        }
    }
    freeaddrinfo(list);
    // A host without an IPv4 address is cached as 0 for good.
    m_hostAddresses[key] = address;
    if (address == 0) noteFailure(kProxyUnusable, "no IPv4 address");
    if (logging())
        log("VRAXSecureWebChannel::parseURL: IP address of %s:%s is %x", host.c_str(), port.c_str(), (unsigned)address);
    return address;
}
