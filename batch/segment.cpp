// The segment download: one attempt at fetching a URL, or one byte range of
// it, into its place in the target file. Callers repeat while it answers 3003.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "http/response.h"

namespace {

// Opens a batch target for writing without truncating it: pieces of one
// file are written by several workers at once, and whichever opens first
// must not wipe what another has written.
FILE* openShared(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return nullptr;
    FILE* file = fdopen(fd, "rb+");
    if (file == nullptr) ::close(fd);
    return file;
}

// Opens the target of a single GET: it ends up holding exactly the body.
FILE* openFresh(const std::string& path) {
    return fopen(path.c_str(), "wb+");
}

bool isRedirect(int code) {
    return code == 301 || code == 302 || code == 303 || code == 307 || code == 308;
}

}  // namespace

int webChannel::httpGet(connection*& conn, std::string url, std::string file, httpGetJob* job, threadData* record,
                        int& attempts) {
    const int thread = record != nullptr ? record->index : 0;
    const char* target = file.c_str();
    if (conn != nullptr && !conn->location.empty()) {
        url = conn->location;
        conn->location.clear();
    }
    if (attempts > 0) {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, file %s): server closed connection, re-creating", thread,
                target);
        sleep(2);
    } else {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, URL %s, file %s): started", thread, url.c_str(), target);
        attempts = -attempts;
    }
    if (attempts >= kMaxAttempts) return kTooManyAttempts;
    if (isCancelled()) return kCancelled;

    std::string host, port, path;
    bool https = false;
    if (!parseURL(url, nullptr, host, port, path, &https)) return kInvalidArgument;
    int opened = kOk;
    // The URL itself goes to the pool, so that its scheme decides TLS.
    conn = open(url, record, false, &opened);
    if (logging())
        log("VRAXSecureWebChannel::httpGet(thread %d, file %s): opened connection %x, socket %d", thread, target,
            (unsigned)(uintptr_t)conn, conn != nullptr ? conn->socket : 0);
    if (conn == nullptr) {
        if (opened == kPeerClosed) {
            ++attempts;
            return kRepeat;
        }
        return opened != kOk ? opened : kInvalidArgument;
    }

    // Request: the job's parameters merged with the channel's, or the
    // channel's alone for a single GET or a size probe.
    AccessParams probeParams;
    AccessParams* params;
    bool relative;
    if (job != nullptr) {
        relative = job->params.count(kParamRelativeTarget) != 0;
        mergeChannelParams(job->params);
        params = &job->params;
    } else {
        probeParams = paramsSnapshot();
        relative = probeParams.count(kParamRelativeTarget) != 0;
        params = &probeParams;
    }
    if (path.empty()) path = "/";
    std::string requestTarget =
        relative ? path : std::string(conn->https ? "https://" : "http://") + host + ":" + port + path;
    httpRequest request("GET", conn->host + ":" + conn->port, requestTarget, nullptr, params);
    const bool ranged = job != nullptr && job->end > 0;
    if (ranged) {
        char range[4096];
        snprintf(range, sizeof(range), "bytes=%lld-%lld", job->start, job->end);
        request.headers["Range"] = range;
    }
    std::string text = request.str();
    if (logging()) log("SENT\n%s\n", text.c_str());
    int sent = writeAll(conn, text);
    if (sent == 0 || (sent == -1 && isDropped())) {
        if (logging()) log("SENT\n%d : %d\n", sent, m_errorCode);
        dropConnection(conn, record);  // the next attempt needs a fresh connection
        ++attempts;
        return kRepeat;
    }
    if (sent < 0) {
        dropConnection(conn, record);
        return kSendFailed;
    }

    // The first block: the whole head, and whatever body came with it.
    char* buffer = m_buffer + (long long)thread * kBufferSlice;
    int lastRead = 0;
    int received = readHead(conn, buffer, kMaxRead, lastRead);
    if (received == 0 || (received == -1 && isReset())) {
        if (logging()) log("Going to repeat download. RECV\n%d : %d\n", received, m_errorCode);
        dropConnection(conn, record);
        ++attempts;
        return kRepeat;
    }
    if (received < 0) {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, file %s): size: %lld", thread, target, (long long)received);
        dropConnection(conn, record);
        return kReadFailed;
    }
    m_incomplete[thread] = 0;
    buffer[received] = 0;
    if (logging()) log("RECV\n%s\n", buffer);
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    ResponseHead head;
    std::string_view headText(buffer, strnlen(buffer, (size_t)received));
    int mode = parseHttpResponseHeader(headText, code, headerLength, contentLength, conn, &head);
    if (logging())
        log("VRAXSecureWebChannel::httpGet(thread %d, file %s): code %d, size %lld bytes", thread, target, code,
            contentLength);

    // Where the body starts. A head that never ended (the peer closed in its
    // middle, or it exceeds the buffer) is unusable: none of it may be taken
    // for a size or reach a target.
    const long long bodyStart = findHeadEnd(headText);
    if (bodyStart == 0 && mode >= 0) {
        dropConnection(conn, record);
        return received >= kMaxRead ? kBadStatus : kReadFailed;
    }
    // Bytes of this response still on the wire after the first block, when
    // known: a connection is reused only when nothing of the response is left.
    auto leftOnWire = [&]() -> long long {
        if (mode != kOk || !head.contentLengthSeen || head.contentLength < 0) return -1;
        return head.contentLength - (received - bodyStart);  // cannot overflow: both terms are >= 0
    };
    if (mode < 0 || code < 200 || code >= 400) {
        if (leftOnWire() != 0) dropConnection(conn, record);
        return kBadStatus;
    }
    if (isRedirect(code)) {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, file %s): redirecting to %s", thread, target,
                conn->location.c_str());
        if (leftOnWire() != 0) dropConnection(conn, record);
        attempts = -1 - attempts;
        return kRepeat;
    }
    if (code < 300 && job != nullptr && atomicLoad(job->size) == 0) {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, file %s): intitializing job size to %d", thread, target,
                (int)contentLength);
        if (contentLength > 0) atomicStore(job->size, contentLength);
    }
    if (file.empty()) {
        // Size probe: the head is all that was wanted. The body is not
        // fetched, so the connection cannot serve another request.
        dropConnection(conn, record);
        return kOk;
    }
    if (head.contentLengthSeen && head.contentLength < 0) {
        dropConnection(conn, record);
        return kBadStatus;
    }

    // Where the body goes. A ranged request answered with the whole file
    // (200 instead of 206) starts at the file's first byte: the bytes before
    // this piece are skipped, so that each byte lands at its own offset.
    const bool chunked = mode == kChunked;
    const bool wholeFile = ranged && code == 200;
    long long skip = wholeFile ? job->start : 0;
    if (wholeFile && chunked && skip > 0) {
        dropConnection(conn, record);
        return kBadStatus;
    }
    FILE* out = job != nullptr ? openShared(file) : openFresh(file);
    if (out == nullptr) {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, file %s): failed to open target: %d", thread, target,
                m_errorCode);
        dropConnection(conn, record);
        return kFileWrite;
    }
    // Body blocks are large already: they go to the file in one write each,
    // without a copy through a stdio buffer.
    setvbuf(out, nullptr, _IONBF, 0);
    long long position = 0;
    if (job != nullptr) {
        if (ranged) {
            position = job->start;
        } else {
            // Without a range the whole body comes again from its first byte.
            atomicStore(job->downloaded, 0LL);
            job->start = 0;
        }
    }
    if (position > 0 && fseeko(out, position, SEEK_SET) != 0) {
        fclose(out);
        dropConnection(conn, record);
        return kFileWrite;
    }

    // Plain bodies: `wire` is what the response still owes (LLONG_MAX when it
    // is delimited by the server closing), `remaining` what this call still
    // wants to write. Chunked bodies: `remaining` is the decoder's state.
    const bool untilClose = !chunked && !head.contentLengthSeen && code != 204 && code != 304;
    long long wire = chunked || untilClose ? LLONG_MAX : head.contentLength;
    long long remaining = 1;
    if (!chunked) {
        remaining = wire == LLONG_MAX ? LLONG_MAX : wire - skip;
        if (ranged && remaining > job->end - job->start + 1) remaining = job->end - job->start + 1;
        if (remaining < 0) remaining = 0;
    }
    // Without a job the bytes are counted on a scratch record.
    httpGetJob scratch;
    httpGetJob* sink = job != nullptr ? job : &scratch;
    const long long downloadedBefore = atomicLoad(sink->downloaded);
    auto writtenHere = [&]() { return atomicLoad(sink->downloaded) - downloadedBefore; };
    const int reporter = record != nullptr ? record->index : -1;
    long long lastReport = 0;
    long long offset = 0;  // bytes carried at the start of the buffer (chunked)

    // Hands the body bytes buffer[from, to) on: to the chunk decoder, or,
    // for a plain body, after the skip and within what is wanted.
    auto deliver = [&](long long from, long long to) -> int {
        if (chunked) {
            long long start = from;
            int dumped = dump(out, buffer, to, start, remaining, kChunked, sink);
            offset = start;
            return dumped;
        }
        offset = 0;
        long long length = to - from;
        if (length > wire) length = wire;
        wire -= length;
        long long skipped = length < skip ? length : skip;
        skip -= skipped;
        from += skipped;
        length -= skipped;
        if (length > remaining) length = remaining;
        if (length <= 0) return kOk;
        long long start = from;
        return dump(out, buffer, from + length, start, remaining, 0, sink);
    };
    auto report = [&]() {
        if (m_handler == nullptr) return;
        long long done = job != nullptr ? atomicLoad(job->downloaded) : writtenHere();
        long long all = job != nullptr ? atomicLoad(job->size) : contentLength;
        lastReport = handleProgress(lastReport, done, all, reporter);
    };
    auto wantsMore = [&]() { return chunked ? remaining > 0 : remaining > 0 && wire > 0; };

    int dumped = deliver(bodyStart, received);
    report();
    lastRead = received;
    bool resetSeen = false;
    bool closedByPeer = false;
    while (dumped == kOk && wantsMore() && lastReport >= 0 && !isCancelled()) {
        int got = readBlock(conn, buffer + offset, (int)(kMaxRead - offset));
        if (got <= 0) {
            resetSeen = got == -1 && isReset();
            lastRead = got;
            closedByPeer = got == 0;
            if (logging())
                log("VRAXSecureWebChannel::httpGet(thread %d, file %s): read returned error %d", thread, target, got);
            break;
        }
        lastRead = got;
        dumped = deliver(0, offset + got);
        report();
    }
    // A body delimited by the server closing ends with that close.
    if (untilClose && dumped == kOk && closedByPeer) remaining = 0;

    if (fclose(out) != 0 && dumped == kOk) dumped = kFileWrite;  // buffered bytes that could not be written
    const long long written = writtenHere();
    if (job != nullptr) job->start += written;

    if (dumped == kOk && remaining == 0) {
        if (logging())
            log("VRAXSecureWebChannel::httpGet(thread %d, file %s): downloaded %lld bytes from offset %lld", thread,
                target, written, position);
        // Kept for the next request only when the response was read to its
        // last byte and the peer is still there.
        if (chunked || untilClose || wire != 0 || conn->hangupEvents != 0) dropConnection(conn, record);
        // The host asked to stop on the report of a piece that was already
        // complete: the piece stands, but its worker takes no further job
        // and the batch ends as cancelled.
        if (lastReport < 0 && record != nullptr) {
            atomicStore(record->error, (int)kCancelled);
            recordFailure(kCancelled, file);
        }
        return kOk;
    }

    if (logging())
        log("VRAXSecureWebChannel::httpGet(thread %d, file %s): processing incomplete download: downloaded %lld "
            "bytes with code %d, %lld bytes remaining",
            thread, target, written, lastRead, remaining);
    dropConnection(conn, record);  // whatever is left of the response is unusable
    if (dumped != kOk) return dumped;
    if (lastRead == -1 && resetSeen) {
        // A reset that cut a piece costs an attempt only when it brought nothing.
        if (written == 0) ++attempts;
        return kRepeat;
    }
    const bool cancelled = isCancelled();
    if (lastRead == -2) {
        m_incomplete[thread] = 1;
        ++attempts;
        if (logging()) log("VRAXSecureWebChannel::httpGet(thread %d, file %s): isError: %d", thread, target, cancelled);
        return kRepeat;
    }
    if (logging())
        log("VRAXSecureWebChannel::httpGet(thread %d, file %s): isError: %d handled: %d", thread, target, cancelled,
            (int)lastReport);
    return cancelled || lastReport < 0 ? kCancelled : kReadFailed;
}

int webChannel::fetch(std::string url, const std::string& file, httpGetJob* job, threadData* record) {
    // After a redirect (attempts negative) the next attempt goes to the
    // location the response left in the connection record.
    connection* conn = nullptr;
    int attempts = 0;
    int result;
    do {
        if (attempts < 0 && conn != nullptr) url = conn->location;
        result = httpGet(conn, url, file, job, record, attempts);
    } while (result == kRepeat);
    return result;
}
