// The segment download: one attempt at fetching a URL, or one byte range of
// it, into its place in the target file. Callers repeat while it answers 3003.
//
// One attempt is a short list of steps (start, connect, send, read the head,
// judge it, open the target, stream the body, settle the outcome), each a
// function below. The state they share lives in one `Attempt`; the
// connection and the target file belong to guards made by the top function,
// so a step that stops early releases nothing by hand.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <algorithm>
#include <optional>

#include "batch/resume_record.h"
#include "batch/work_share.h"
#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "http/redirects.h"
#include "http/response.h"
#include "transport/connection_lease.h"
#include "transport/descriptor_relief.h"

namespace {

using connection = webChannel::connection;
using httpGetJob = webChannel::httpGetJob;
using threadData = webChannel::threadData;

// A step's verdict: a result to return at once, or nothing to go on.
using Stop = std::optional<int>;

// Pause before a counted repeat, so that a server that keeps dropping the
// connection is not hammered.
constexpr unsigned kRepeatPauseSeconds = 2;
// Answers for another file, or another place, end a job once they came this
// many times: a server that keeps them up will not give the file listed.
constexpr int kMismatchesBeforeFailing = 2;
// The Range value is rendered into a buffer of this size.
constexpr size_t kRangeTextBuffer = 4096;

// The target file of one attempt, closed when the attempt ends; close()
// tells whether the last buffered bytes reached the disk.
class TargetFile {
public:
    TargetFile() = default;
    ~TargetFile() { close(); }
    TargetFile(const TargetFile&) = delete;
    TargetFile& operator=(const TargetFile&) = delete;
    void reset(FILE* file) { m_file = file; }
    FILE* get() const { return m_file; }
    bool close() {
        if (m_file == nullptr) return true;
        bool closed = fclose(m_file) == 0;
        m_file = nullptr;
        return closed;
    }

private:
    FILE* m_file = nullptr;
};

// Opens a batch target for writing without truncating it: pieces of one
// file are written by several workers at once, and whichever opens first
// must not wipe what another has written. Out of descriptors, idle
// connections make room.
FILE* openShared(webChannel& channel, const std::string& path) {
    int fd = openRelieved(channel, [&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644); });
    if (fd < 0) return nullptr;
    FILE* file = fdopen(fd, "rb+");
    if (file == nullptr) ::close(fd);
    return file;
}

// A target that could not be written, with the system's words for why.
int fileFailure() {
    webChannel::noteFailure(kFileWrite, webChannel::systemText(errno));
    return kFileWrite;
}

// Opens the target of a single GET: it ends up holding exactly the body.
FILE* openFresh(const std::string& path) {
    return fopen(path.c_str(), "wb+");
}

// What the steps of one attempt share.
struct Attempt {
    Attempt(webChannel& channel_, connection*& conn_, std::string& url_, const std::string& file_, httpGetJob* job_,
            threadData* record_, int& attempts_)
        : channel(channel_),
          conn(conn_),
          url(url_),
          file(file_),
          job(job_),
          record(record_),
          attempts(attempts_),
          thread(record_ != nullptr ? record_->index : 0),
          target(file_.c_str()) {}
    webChannel& channel;
    connection*& conn;
    std::string& url;
    const std::string& file;
    httpGetJob* job;
    threadData* record;
    int& attempts;
    int thread;          // the worker's number, 0 outside a batch
    const char* target;  // the file's name, for the log
    bool ranged = false;
    // The range asked for ends here (a cut may have moved the piece's end
    // since), and the answer's range at `rangeLast` (206 answers).
    long long requestedEnd = -1;
    long long rangeLast = -1;
    WorkShare::Clock::time_point sent;
    // Other pieces of the file this whole-file answer also feeds (the
    // adaptive mode folds them into the first worker to meet such an answer).
    std::vector<httpGetJob*> folded;
    // The head, once read: the first block of the response sits in `buffer`.
    char* buffer = nullptr;
    int received = 0;
    int code = 0;
    long long contentLength = 0;
    int mode = 0;  // the parser's result: 0 plain body, kChunked, or a failure
    ResponseHead head;
    long long bodyStart = 0;

    // Bytes of this response still on the wire after the first block, when
    // known (-1 otherwise): a connection is reused only when nothing is left.
    long long leftOnWire() const {
        if (mode != kOk || !head.contentLengthSeen || head.contentLength < 0) return -1;
        return head.contentLength - (received - bodyStart);  // cannot overflow: both terms are >= 0
    }
};

// How the body is framed, and how far this attempt got with it.
struct Body {
    bool chunked = false;
    bool untilClose = false;  // delimited by the server closing the connection
    // Plain bodies: `wire` is what the response still owes (LLONG_MAX when
    // the close delimits it), `remaining` what this attempt still wants to
    // write, `skip` the leading bytes that belong before this piece. Chunked
    // bodies: `remaining` is the decoder's state.
    long long wire = LLONG_MAX;
    long long remaining = 1;
    long long skip = 0;
    long long position = 0;  // offset in the target of the first byte written
    long long offset = 0;    // bytes carried at the start of the buffer (chunked)
    long long lastReport = 0;
    int lastRead = 0;
    // A whole-file answer feeding folded pieces: the file offset of the next
    // body byte, the piece it goes to next, and the bytes they all still want.
    long long fileAt = 0;
    size_t target = 0;
    long long folded = 0;
    int dumped = kOk;
    bool resetSeen = false;
    bool closedByPeer = false;
    std::string writeError;  // the system's words when writing the target failed
    // Without a job the bytes are counted on a scratch record.
    httpGetJob scratch;
    httpGetJob* sink = nullptr;
    long long downloadedBefore = 0;

    long long writtenHere() const { return atomicLoad(sink->downloaded) - downloadedBefore; }
    bool wantsMore() const { return chunked ? remaining > 0 : remaining > 0 && wire > 0; }
};

// Takes a pending redirect's target, counts the attempt, and checks that the
// job may go on at all.
Stop beginAttempt(Attempt& a) {
    if (a.conn != nullptr && !a.conn->location.empty()) {
        a.url = a.conn->location;
        a.conn->location.clear();
    }
    if (a.attempts > 0) {
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): server closed connection, re-creating",
                            a.thread, a.target);
        sleep(kRepeatPauseSeconds);
    } else {
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, URL %s, file %s): started", a.thread,
                            a.url.c_str(), a.target);
        a.attempts = -a.attempts;  // a redirect's count becomes a plain count again
    }
    // This attempt's failure is noted afresh: one that an earlier attempt
    // left behind is no reason for this one.
    webChannel::forgetFailure();
    if (a.attempts >= kMaxAttempts) return kTooManyAttempts;
    // A single GET into a file sends nothing while the channel is in its
    // error state (a worker of the last batch holds a failure, until close()
    // or a clean batch). Batch workers stop only on a cancel, so that one
    // failed job leaves the other workers going; the size probe goes on too.
    const bool singleGet = a.record == nullptr && !a.file.empty();
    if (singleGet ? a.channel.isError() : a.channel.isCancelled()) return kCancelled;
    return std::nullopt;
}

// Takes a connection from the worker's pool (or the shared one).
Stop takeConnection(Attempt& a) {
    int opened = kOk;
    // The URL itself goes to the pool, so that its scheme decides TLS.
    a.conn = a.channel.open(a.url, a.record, false, &opened);
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): opened connection %x, socket %d", a.thread,
                        a.target, (unsigned)(uintptr_t)a.conn, a.conn != nullptr ? a.conn->socket : 0);
    if (a.conn != nullptr) return std::nullopt;
    if (opened == kPeerClosed) {
        ++a.attempts;
        return kRepeat;
    }
    return opened != kOk ? opened : kInvalidArgument;
}

// Renders the request: the job's parameters merged with the channel's, or
// the channel's alone for a single GET or a size probe; without the server
// credentials and the cookie once a redirect has left the `origin`.
std::string requestText(Attempt& a, const std::string& origin, const std::string& host, const std::string& port,
                        std::string path) {
    AccessParams probeParams;
    AccessParams* params;
    bool relative;
    if (a.job != nullptr) {
        relative = a.job->params.count(kParamRelativeTarget) != 0;
        a.channel.mergeChannelParams(a.job->params);
        params = &a.job->params;
    } else {
        probeParams = a.channel.paramsSnapshot();
        relative = probeParams.count(kParamRelativeTarget) != 0;
        params = &probeParams;
    }
    AccessParams withheld;
    if (a.channel.withholdsCredentials(a.url, origin)) {
        withheld = withoutCredentials(*params);
        params = &withheld;
    }
    if (path.empty()) path = "/";
    std::string requestTarget =
        relative ? path : std::string(a.conn->https ? "https://" : "http://") + host + ":" + port + path;
    webChannel::httpRequest request("GET", a.conn->host + ":" + a.conn->port, requestTarget, nullptr, params);
    a.requestedEnd = a.job != nullptr ? atomicLoad(a.job->end) : -1;
    a.ranged = a.job != nullptr && a.requestedEnd > 0;
    if (a.ranged) {
        char range[kRangeTextBuffer];
        snprintf(range, sizeof(range), "bytes=%lld-%lld", a.job->start, a.requestedEnd);
        request.headers["Range"] = range;
        // A range of a file continued from an earlier run is asked for only
        // of the version whose bytes are kept: if the file changed, the server
        // sends it whole and the file starts over instead of being spliced.
        if (ResumeRecord* resume = a.channel.resumeRecord(a.job->url)) {
            const std::string validator = resume->continuedFrom();
            if (!validator.empty()) request.headers["If-Range"] = validator;
        }
    }
    return request.str();
}

// Writes the request. A kept connection the server has closed meanwhile
// fails here: that costs an attempt and a fresh connection.
Stop sendRequest(Attempt& a, ConnectionLease& lease, const std::string& text) {
    if (webChannel::logging()) webChannel::log("SENT\n%s\n", text.c_str());
    a.sent = WorkShare::Clock::now();
    int sent = a.channel.writeAll(a.conn, text);
    if (sent == 0 || (sent == -1 && webChannel::isDropped())) {
        if (webChannel::logging()) webChannel::log("SENT\n%d : %d\n", sent, atomicLoad(a.channel.m_errorCode));
        lease.drop();
        ++a.attempts;
        return kRepeat;
    }
    if (sent < 0) return kSendFailed;
    return std::nullopt;
}

// Reads the first block (the whole head and whatever body came with it) and
// parses the head.
Stop readResponseHead(Attempt& a, ConnectionLease& lease) {
    a.buffer = a.channel.m_buffer + (long long)a.thread * kBufferSlice;
    int lastRead = 0;
    a.received = a.channel.readHead(a.conn, a.buffer, kMaxRead, lastRead);
    if (a.received == 0 || (a.received == -1 && webChannel::isReset())) {
        if (webChannel::logging())
            webChannel::log("Going to repeat download. RECV\n%d : %d\n", a.received, atomicLoad(a.channel.m_errorCode));
        lease.drop();
        ++a.attempts;
        return kRepeat;
    }
    if (a.received < 0) {
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): size: %lld", a.thread, a.target,
                            (long long)a.received);
        return kReadFailed;
    }
    a.channel.m_incomplete[a.thread] = 0;
    a.buffer[a.received] = 0;
    if (webChannel::logging()) webChannel::log("RECV\n%s\n", a.buffer);
    long long headerLength = 0;
    std::string_view headText(a.buffer, strnlen(a.buffer, (size_t)a.received));
    a.mode = a.channel.parseHttpResponseHeader(headText, a.code, headerLength, a.contentLength, a.conn, &a.head);
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): code %d, size %lld bytes", a.thread,
                        a.target, a.code, a.contentLength);
    // A head that never ended (the peer closed in its middle, or it exceeds
    // the buffer) is unusable: none of it may be taken for a size or reach a
    // target.
    a.bodyStart = findHeadEnd(headText);
    if (a.bodyStart == 0 && a.mode >= 0) {
        if (a.received >= kMaxRead) {
            webChannel::noteFailure(kBadStatus, "response head too large");
            return kBadStatus;
        }
        webChannel::noteFailure(kReadFailed, "connection closed within the response head");
        return kReadFailed;
    }
    return std::nullopt;
}

// Judges the status: failures and redirects end the attempt; a success of a
// job of unknown size tells the size.
Stop judgeStatus(Attempt& a, ConnectionLease& lease) {
    if (a.mode < 0 || a.code < 200 || a.code >= 400) {
        lease.keepIf(a.leftOnWire() == 0);
        webChannel::noteRejectedHead(std::string_view(a.buffer, strnlen(a.buffer, (size_t)a.received)), a.mode);
        return kBadStatus;
    }
    if (isRedirectStatus(a.code)) {
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): redirecting to %s", a.thread, a.target,
                            a.conn->location.c_str());
        lease.keepIf(a.leftOnWire() == 0);
        a.attempts = redirectedAttempts(a.attempts);
        // A size probe takes the length of the answer that ends the chain: a
        // redirect's own body length says nothing about the file.
        if (a.file.empty()) atomicStore(a.channel.m_responseLength, -1LL);
        return kRepeat;
    }
    if (a.code < 300 && a.job != nullptr && atomicLoad(a.job->size) == 0) {
        // "intitializing" is spelled as hosts' log filters expect it.
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): intitializing job size to %d", a.thread,
                            a.target, (int)a.contentLength);
        if (a.contentLength > 0) atomicStore(a.job->size, a.contentLength);
    }
    return std::nullopt;
}

// A file continued from an earlier run whose server answers a range with
// the whole file starts over: the kept bytes are given up, and the piece that
// met the answer first now writes the file from its first byte to its last.
bool startOverIfContinued(Attempt& a) {
    ResumeRecord* resume = a.channel.resumeRecord(a.job->url);
    if (resume == nullptr || !resume->startOver(validatorOf(a.head))) return false;
    if (webChannel::logging())
        webChannel::log(
            "VRAXSecureWebChannel::httpGet(thread %d, file %s): the server sent the whole file for bytes %lld-%lld: "
            "starting the file over",
            a.thread, a.target, a.job->start, a.job->end);
    a.job->start = 0;
    atomicStore(a.job->end, resume->size() - 1);
    atomicStore(a.job->size, resume->size());
    atomicStore(a.job->downloaded, 0LL);
    return true;
}

// In the adaptive mode the first answer that ignores a range fetches the
// file whole: the pieces of the file not yet claimed by other workers are
// written from this answer too, instead of each asking again and reading the
// file's beginning once more. A file continued from an earlier run may start
// over instead; it is only kept whole, from then on not cut.
void fetchWhole(Attempt& a, Body& body) {
    if (WorkShare* share = a.job->share) {
        // Only a file that kept bytes of an earlier run may start over.
        const ResumeRecord* resume = a.channel.resumeRecord(a.job->url);
        const bool continued = resume != nullptr && !resume->kept().empty();
        a.folded = share->wholeFile(a.thread, *a.job, !continued);
        for (httpGetJob* piece : a.folded) {
            piece->cursor = piece->start;
            piece->bound = LLONG_MAX;
            piece->chunkedEnd = false;
            body.folded += atomicLoad(piece->end) + 1 - piece->start;
        }
    }
    startOverIfContinued(a);
}

// Works out the framing and where the body lands. A ranged request answered
// with the whole file (200 instead of 206) starts at the file's first byte:
// the bytes before this piece are skipped, so that each byte lands at its
// own offset.
Stop planBody(Attempt& a, Body& body) {
    if (a.head.contentLengthSeen && a.head.contentLength < 0) return kBadStatus;
    body.chunked = a.mode == kChunked;
    const bool wholeFile = a.ranged && a.code == 200;
    if (wholeFile) fetchWhole(a, body);
    body.skip = wholeFile ? a.job->start : 0;
    if (wholeFile && body.chunked && body.skip > 0) return kBadStatus;
    body.untilClose = !body.chunked && !a.head.contentLengthSeen && a.code != 204 && a.code != 304;
    body.wire = body.chunked || body.untilClose ? LLONG_MAX : a.head.contentLength;
    if (!body.chunked) {
        body.remaining = body.wire == LLONG_MAX ? LLONG_MAX : body.wire - body.skip;
        if (a.ranged) {  // only a batch piece asks for a range; a single GET has no job
            const long long asked = (wholeFile ? atomicLoad(a.job->end) : a.requestedEnd) - a.job->start + 1;
            if (body.remaining > asked) body.remaining = asked;
        }
        if (!a.folded.empty()) body.remaining = LLONG_MAX;  // the folded pieces end it (deliverToPieces)
        if (body.remaining < 0) body.remaining = 0;
    }
    return std::nullopt;
}

// The job ends without a further attempt: the server's file is not the one
// the job describes, whatever later attempts would bring.
Stop mismatch(Attempt& a, const std::string& why) {
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): %s", a.thread, a.target, why.c_str());
    webChannel::noteFailure(kChecksumMismatch, why);
    return kChecksumMismatch;
}

// An answer for a file of another size. Once may be a server changing its
// file under way, so a fresh attempt asks again; twice ends the job.
Stop anotherFile(Attempt& a, ConnectionLease& lease, long long size, long long listed) {
    lease.drop();
    if (++a.job->mismatches >= kMismatchesBeforeFailing)
        return mismatch(a, "the server's file is " + std::to_string(size) + " bytes, the job lists " +
                               std::to_string(listed));
    ++a.attempts;
    return kRepeat;
}

// A partial answer is written only where it says it belongs: its range must
// start at the byte asked for, end within the piece, and be part of a file of
// the listed size (when the listed size and the total are known). An answer
// without a range, with one that does not parse, or for another place or
// another file costs an attempt and none of its bytes reach the target.
Stop checkRange(Attempt& a, ConnectionLease& lease) {
    if (!a.ranged || (a.code != 206 && a.code != 200)) return std::nullopt;
    long long first = -1, last = -1, total = -1;
    const long long listed = a.channel.listedSize(a.job->url);
    if (a.code == 200) {
        // The whole file instead of a range: it must be the file listed.
        if (!a.head.contentLengthSeen || listed <= 0 || a.head.contentLength == listed) return std::nullopt;
        return anotherFile(a, lease, a.head.contentLength, listed);
    }
    const bool parsed = a.head.contentRangeSeen && parseContentRange(a.head.contentRange, first, last, total);
    const bool here = parsed && first == a.job->start && last <= a.requestedEnd;
    if (here && (total < 0 || listed <= 0 || total == listed)) {
        a.rangeLast = last;
        if (a.job->share != nullptr) a.job->share->rangesHonoured(*a.job);
        return std::nullopt;
    }
    if (webChannel::logging())
        webChannel::log(
            "VRAXSecureWebChannel::httpGet(thread %d, file %s): content range '%.*s' is not bytes %lld-%lld", a.thread,
            a.target, (int)a.head.contentRange.size(), a.head.contentRange.data(), a.job->start, a.requestedEnd);
    if (here) return anotherFile(a, lease, total, listed);
    // Another place, asked for once more on a fresh connection; the same
    // answer again means the server will not give this one.
    if (parsed && ++a.job->mismatches >= kMismatchesBeforeFailing) {
        lease.drop();
        return mismatch(a, "the server answers bytes " + std::to_string(first) + "-" + std::to_string(last) +
                               " when asked for " + std::to_string(a.job->start) + "-" +
                               std::to_string(a.requestedEnd));
    }
    lease.drop();
    ++a.attempts;
    return kRepeat;
}

// A file continued from an earlier run keeps to the version its kept bytes
// came from: a partial answer of another version (from a server that did
// not heed If-Range) makes the file start over, asked for whole on a fresh
// connection. The first answer's validator is noted for a later run.
Stop checkVersion(Attempt& a, ConnectionLease& lease) {
    if (!a.ranged || (a.code != 200 && a.code != 206)) return std::nullopt;
    ResumeRecord* resume = a.channel.resumeRecord(a.job->url);
    if (resume == nullptr) return std::nullopt;
    const std::string answered = validatorOf(a.head), kept = resume->continuedFrom();
    if (a.code == 206 && !kept.empty() && !answered.empty() && answered != kept) {
        if (a.job->share != nullptr) a.job->share->wholeFile(a.thread, *a.job, false);
        if (startOverIfContinued(a)) {
            lease.drop();
            return kRepeat;
        }
    }
    resume->noteValidator(answered);
    return std::nullopt;
}

// Opens the target and places it at this piece's offset.
Stop openTarget(Attempt& a, Body& body, TargetFile& out) {
    out.reset(a.job != nullptr ? openShared(a.channel, a.file) : openFresh(a.file));
    if (out.get() == nullptr) {
        int failed = fileFailure();
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): failed to open target: %d", a.thread,
                            a.target, atomicLoad(a.channel.m_errorCode));
        return failed;
    }
    // Body blocks are large already: they go to the file in one write each,
    // without a copy through a stdio buffer.
    setvbuf(out.get(), nullptr, _IONBF, 0);
    if (a.job != nullptr) {
        if (a.ranged) {
            body.position = a.job->start;
        } else {
            // Without a range the whole body comes again from its first byte.
            atomicStore(a.job->downloaded, 0LL);
            a.job->start = 0;
        }
    }
    if (body.position > 0 && fseeko(out.get(), body.position, SEEK_SET) != 0) return fileFailure();
    body.sink = a.job != nullptr ? a.job : &body.scratch;
    body.sink->cursor = body.position;
    body.sink->chunkedEnd = false;
    // A piece writes no further than the range it asked for, nor than a
    // partial answer names: bytes past them are not this place's.
    body.sink->bound = LLONG_MAX;
    if (a.ranged) body.sink->bound = (a.rangeLast >= 0 ? std::min(a.rangeLast, a.requestedEnd) : a.requestedEnd) + 1;
    if (a.ranged && a.code == 200) body.sink->bound = atomicLoad(a.job->end) + 1;  // after a start-over
    body.downloadedBefore = atomicLoad(body.sink->downloaded);
    if (a.job != nullptr && a.job->share != nullptr) a.job->share->begin(a.thread, *a.job, a.sent);
    if (!a.folded.empty()) {
        a.folded.push_back(a.job);
        std::sort(a.folded.begin(), a.folded.end(),
                  [](const httpGetJob* x, const httpGetJob* y) { return x->start < y->start; });
        body.folded += body.sink->bound - body.position;
    }
    return std::nullopt;
}

// Whether the piece has written all it may: its bound, or an end that a cut
// moved below it.
bool reachedEnd(const httpGetJob* job) {
    if (job == nullptr) return false;
    const long long end = atomicLoad(job->end);
    const long long limit = end < 0 ? job->bound : std::min(job->bound, end + 1);
    return limit != LLONG_MAX && job->cursor >= limit;
}

// A whole-file answer feeding several pieces: each body byte goes to the
// piece whose unwritten part holds its offset; bytes of no piece are passed
// over (other workers write them, or wrote them before).
int deliverToPieces(Attempt& a, Body& body, FILE* out, long long from, long long to) {
    body.offset = 0;
    long long length = std::min(to - from, body.wire);
    body.wire -= length;
    while (length > 0 && body.target < a.folded.size()) {
        httpGetJob* piece = a.folded[body.target];
        const long long first = piece->cursor, end = atomicLoad(piece->end) + 1;
        const long long last = std::min(piece->bound, end);
        if (first >= last) {
            ++body.target;
            continue;
        }
        if (body.fileAt + length <= first) break;
        if (body.fileAt < first) {
            from += first - body.fileAt;
            length -= first - body.fileAt;
            body.fileAt = first;
        }
        const long long count = std::min(length, last - body.fileAt);
        if (fseeko(out, body.fileAt, SEEK_SET) != 0) return kFileWrite;
        long long start = from, remaining = count;
        const int dumped = a.channel.dump(out, a.buffer, from + count, start, remaining, 0, piece);
        if (dumped != kOk) return dumped;
        body.folded -= count;
        from += count;
        length -= count;
        body.fileAt += count;
    }
    body.fileAt += length;
    if (body.folded <= 0) body.remaining = 0;
    return kOk;
}

// Hands the body bytes buffer[from, to) on: to the chunk decoder, or, for a
// plain body, after the skip and within what is wanted.
int deliverBytes(Attempt& a, Body& body, FILE* out, long long from, long long to) {
    if (!a.folded.empty() && !body.chunked) return deliverToPieces(a, body, out, from, to);
    if (body.chunked) {
        long long start = from;
        int dumped = a.channel.dump(out, a.buffer, to, start, body.remaining, kChunked, body.sink);
        body.offset = start;
        return dumped;
    }
    body.offset = 0;
    long long length = to - from;
    if (length > body.wire) length = body.wire;
    body.wire -= length;
    long long skipped = length < body.skip ? length : body.skip;
    body.skip -= skipped;
    from += skipped;
    length -= skipped;
    if (length > body.remaining) length = body.remaining;
    if (length <= 0) return kOk;
    long long start = from;
    return a.channel.dump(out, a.buffer, from + length, start, body.remaining, 0, body.sink);
}

// Delivers, keeping the system's words when writing the target failed. A
// piece that wrote all it may is done, whatever else the answer holds.
int deliver(Attempt& a, Body& body, FILE* out, long long from, long long to) {
    const int dumped = deliverBytes(a, body, out, from, to);
    if (dumped == kFileWrite) body.writeError = webChannel::systemText(errno);
    if (dumped == kOk && a.folded.empty() && reachedEnd(a.job)) body.remaining = 0;
    return dumped;
}

void report(Attempt& a, Body& body) {
    if (atomicLoad(a.channel.m_handler) == nullptr) return;
    for (httpGetJob* piece : a.folded)
        if (piece != a.job) a.channel.accountProgress(piece);
    a.channel.accountProgress(a.job);
    long long done = a.job != nullptr ? atomicLoad(a.job->downloaded) : body.writtenHere();
    long long all = a.job != nullptr ? atomicLoad(a.job->size) : a.contentLength;
    body.lastReport = a.channel.handleProgress(body.lastReport, done, all, a.record != nullptr ? a.record->index : -1);
}

// Streams the body into the target: the bytes that came with the head,
// then block after block until the body is complete, a read fails, the host
// asks to stop or the batch is cancelled.
void streamBody(Attempt& a, Body& body, FILE* out) {
    body.dumped = deliver(a, body, out, a.bodyStart, a.received);
    report(a, body);
    body.lastRead = a.received;
    while (body.dumped == kOk && body.wantsMore() && body.lastReport >= 0 && !a.channel.isCancelled()) {
        int got = a.channel.readBlock(a.conn, a.buffer + body.offset, (int)(kMaxRead - body.offset));
        if (got <= 0) {
            body.resetSeen = got == -1 && webChannel::isReset();
            body.lastRead = got;
            body.closedByPeer = got == 0;
            if (webChannel::logging())
                webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): read returned error %d", a.thread,
                                a.target, got);
            break;
        }
        body.lastRead = got;
        body.dumped = deliver(a, body, out, 0, body.offset + got);
        report(a, body);
    }
    // A body delimited by the server closing ends with that close.
    if (body.untilClose && body.dumped == kOk && body.closedByPeer) body.remaining = 0;
}

// The complete piece: the connection is kept for the next request only when
// the response was read to its last byte and the peer is still there.
int complete(Attempt& a, Body& body, ConnectionLease& lease, long long written) {
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): downloaded %lld bytes from offset %lld",
                        a.thread, a.target, written, body.position);
    const bool drained = body.chunked ? body.sink->chunkedEnd : !body.untilClose && body.wire == 0;
    // A connection that crawls far behind the other workers' is not kept:
    // the next request goes out on a fresh one.
    const bool lagging = a.job != nullptr && a.job->share != nullptr && a.job->share->lagging(a.thread);
    lease.keepIf(drained && a.conn->hangupEvents == 0 && !lagging);
    // The host asked to stop on the report of a piece that was already
    // complete: the piece stands, but its worker takes no further job and
    // the batch ends as cancelled.
    if (body.lastReport < 0 && a.record != nullptr) {
        atomicStore(a.record->error, (int)kCancelled);
        a.channel.recordFailure(kCancelled, a.file);
    }
    return kOk;
}

// A partial answer that named less than the range asked for (or sent less
// than it named) was written where it belongs; the rest of the piece is asked
// for again. Only an answer that brought nothing costs an attempt.
int partOfTheRange(Attempt& a, Body& body, ConnectionLease& lease, long long written) {
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): the answer ended at byte %lld of %lld",
                        a.thread, a.target, a.job->start, atomicLoad(a.job->end));
    const bool drained = body.chunked ? body.sink->chunkedEnd : !body.untilClose && body.wire == 0;
    lease.keepIf(drained && a.conn->hangupEvents == 0);
    if (written == 0) ++a.attempts;
    return kRepeat;
}

// The piece stopped short: whether to repeat, and whether that costs an
// attempt.
int incomplete(Attempt& a, Body& body, ConnectionLease& lease, long long written) {
    if (webChannel::logging())
        webChannel::log(
            "VRAXSecureWebChannel::httpGet(thread %d, file %s): processing incomplete download: "
            "downloaded %lld bytes with code %d, %lld bytes remaining",
            a.thread, a.target, written, body.lastRead, body.remaining);
    lease.drop();  // whatever is left of the response is unusable
    if (body.dumped == kOk && body.lastRead == -1 && body.resetSeen) {
        // A reset that cut a piece costs an attempt only when it brought nothing.
        if (written == 0) ++a.attempts;
        return kRepeat;
    }
    const bool cancelled = a.channel.isCancelled();
    if (body.dumped == kOk && body.lastRead == -2) {
        a.channel.m_incomplete[a.thread] = 1;
        ++a.attempts;
        if (webChannel::logging())
            webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): isError: %d", a.thread, a.target,
                            cancelled);
        return kRepeat;
    }
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpGet(thread %d, file %s): isError: %d handled: %d", a.thread,
                        a.target, cancelled, (int)body.lastReport);
    if (body.closedByPeer) webChannel::noteFailure(kReadFailed, "connection closed before the body was complete");
    // A body that writing or decoding cut short ended early like any other:
    // -3051, not repeated. What failed stays the detail of the error.
    if (body.dumped == kFileWrite) webChannel::noteFailure(kReadFailed, body.writeError, kFileWrite);
    if (body.dumped != kOk && body.dumped != kFileWrite)
        webChannel::noteFailure(kReadFailed, resultText(body.dumped), body.dumped);
    return cancelled || body.lastReport < 0 ? kCancelled : kReadFailed;
}

}  // namespace

int webChannel::httpGet(connection*& conn, std::string url, std::string file, httpGetJob* job, threadData* record,
                        int& attempts, const std::string& origin) {
    Attempt a(*this, conn, url, file, job, record, attempts);
    if (Stop stop = beginAttempt(a)) return *stop;
    if (refusesScheme(url)) return kInvalidArgument;
    std::string host, port, path;
    bool https = false;
    if (!parseURL(url, nullptr, host, port, path, &https)) {
        noteFailure(kInvalidArgument, "not a URL (http://HOST[:PORT]/PATH)");
        return kInvalidArgument;
    }
    if (Stop stop = takeConnection(a)) return *stop;

    ConnectionLease lease(*this, conn, record);
    if (Stop stop = sendRequest(a, lease, requestText(a, origin, host, port, path))) return *stop;
    if (Stop stop = readResponseHead(a, lease)) return *stop;
    if (Stop stop = judgeStatus(a, lease)) return *stop;
    // A size probe wants the head alone. Its body is not fetched, so the
    // connection cannot serve another request (the lease drops it).
    if (file.empty()) return kOk;

    Body body;
    if (Stop stop = checkRange(a, lease)) return *stop;
    if (Stop stop = checkVersion(a, lease)) return *stop;
    if (Stop stop = planBody(a, body)) return *stop;
    TargetFile out;
    if (Stop stop = openTarget(a, body, out)) return *stop;
    streamBody(a, body, out.get());
    if (!out.close() && body.dumped == kOk) {  // buffered bytes that could not be written
        body.dumped = kFileWrite;
        body.writeError = webChannel::systemText(errno);
    }
    const long long written = body.writtenHere();
    if (job != nullptr) job->start += written;
    for (httpGetJob* piece : a.folded)
        if (piece != job) piece->start = piece->cursor;
    // With folded pieces, this one is done once its own bytes are in: the
    // worker queues again those the answer ended before.
    if (body.dumped == kOk && (body.remaining == 0 || (!a.folded.empty() && reachedEnd(job)))) {
        if (a.ranged && job->start <= atomicLoad(job->end)) return partOfTheRange(a, body, lease, written);
        return complete(a, body, lease, written);
    }
    return incomplete(a, body, lease, written);
}

int webChannel::fetch(std::string url, const std::string& file, httpGetJob* job, threadData* record) {
    // After a redirect the next attempt goes to the location the response
    // left in the connection record. The URL the fetch started from stays its
    // origin, for every attempt after a redirect too: under strict redirects
    // only requests to that origin carry the credentials and the cookie.
    const std::string origin = url;
    connection* conn = nullptr;
    int attempts = 0;
    int result;
    do {
        // The next attempt takes whatever location the connection holds
        // (beginAttempt); one that would leave verified TLS goes nowhere.
        if (conn != nullptr && !conn->location.empty() &&
            refusesRedirect(url, conn->location, leavesTls(url, conn->location), record))
            return kUntrusted;
        if (isRedirectPending(attempts) && conn != nullptr) url = conn->location;
        result = httpGet(conn, url, file, job, record, attempts, origin);
    } while (result == kRepeat);
    return result;
}
