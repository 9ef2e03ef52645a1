// Keeping SIGPIPE from ending the host when a peer closes a connection.
#ifndef WEBCHANNEL_TRANSPORT_SIGPIPE_H
#define WEBCHANNEL_TRANSPORT_SIGPIPE_H

#include <signal.h>

// Sets SIGPIPE to ignored for the lifetime of the object (keeping the flags
// and mask of the caller's disposition) and restores the caller's
// disposition afterwards. Used around single GETs and batches.
class SigpipeIgnore {
public:
    SigpipeIgnore();
    ~SigpipeIgnore();
    SigpipeIgnore(const SigpipeIgnore&) = delete;
    SigpipeIgnore& operator=(const SigpipeIgnore&) = delete;

private:
    struct sigaction m_saved;
    bool m_valid;
};

// Blocks SIGPIPE in the calling thread only, for one write through OpenSSL
// (which cannot be told MSG_NOSIGNAL), and swallows a SIGPIPE that write
// raised. Leaves the process-wide disposition alone, so it is safe in any
// host, including one with its own SIGPIPE handler.
class SigpipeBlock {
public:
    SigpipeBlock();
    ~SigpipeBlock();
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

private:
    sigset_t m_saved;
    bool m_wasPending;
};

#endif
