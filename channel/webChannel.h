// The one implementation of VRAXSecureWebChannel. Internal to the library.
//
// The class is large by design: every subsystem shares its members. Members
// are declared in a fixed order, grouped by the folder that implements them;
// each member function lives in the file of its concern.
#ifndef WEBCHANNEL_WEBCHANNEL_H
#define WEBCHANNEL_WEBCHANNEL_H

#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>

#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "VRAXSecureWebChannel.h"

struct ResponseHead;
class BodyObserver;
class DigestStream;
class IdleRegistry;
class ResumeRecord;
class WorkShare;
class RecordKeeper;

using namespace wc;

// Map from parameter id to value, for the channel and for every job.
typedef std::map<int, std::string> AccessParams;

// Receive buffer of one worker: m_buffer holds one slice per worker; reads
// take at most kBufferSlice - 1 bytes so that a terminating zero always fits.
constexpr long long kBufferSlice = 524288;
constexpr int kMaxRead = 524287;
// Progress granularity.
constexpr long long kProgressStep = 262144;
// Worker count limits of init.
constexpr unsigned kDefaultThreads = 8;
constexpr unsigned kMaxThreads = 64;
// Attempts of one segment before it fails.
constexpr int kMaxAttempts = 30;
// The repeat protocol's attempt count: its magnitude counts the attempts
// made; after a redirect it is stored as -1 - count, negative even for a
// first attempt, which tells the caller to take the next URL from the
// connection's `location`.
constexpr int redirectedAttempts(int attempts) {
    return -1 - attempts;
}
constexpr bool isRedirectPending(int attempts) {
    return attempts < 0;
}
// Default transfer time-out in seconds.
constexpr int kDefaultTimeout = 300;
// A URL's state counter in m_downloaded: 0 while not planned, then the number
// of its pieces still to finish; these two once the file is complete.
constexpr long kUrlVerified = -1;   // verified, waiting for getNextDownloadedFile
constexpr long kUrlHandedOut = -2;  // handed out to the host

class webChannel : public VRAXSecureWebChannel {
public:
    // ---- transport/: one TCP connection, optionally with TLS (pool.cpp) ----
    struct connection {
        connection(unsigned long address, std::string host, std::string port, bool https);
        int readPoll;               // epoll watching input and hang-up; 0 = none
        int writePoll;              // epoll watching writability; 0 = none
        int readyEvents;            // 4 when handed out again by the pool: write without waiting
        unsigned int hangupEvents;  // hang-up bits seen by the last readiness wait
        int socket;                 // descriptor; 0 = not connected
        unsigned long address;      // target IPv4 address, network order; 0 behind a proxy
        std::string host;
        std::string port;
        std::string spare1;  // reserved on purpose: nothing reads or writes it yet, the record keeps the slot
        bool https;
        std::string location;  // redirect target left by the response parser
        SSL* ssl;
        sockaddr_in serverAddress;  // where the socket is connected (proxy or target)
        // Parameter 3021 as it stood when the connection was made: none, or
        // the trust anchors its server was verified against ("" = system).
        // The pool hands a TLS connection out only under the same setting.
        std::optional<std::string> verifyPeer;
    };

    // ---- http/: request text (request.cpp) ----
    struct httpRequest {
        httpRequest(std::string method, std::string host, std::string target, char* extra, AccessParams* params);
        ~httpRequest();
        std::string str() const;
        std::map<std::string, std::string> headers;  // rendered in byte-wise name order
        std::string method;
        std::string target;
        std::string extra;
    };

    // ---- batch/: a file of the batch, or one byte range of it (jobs.cpp) ----
    struct httpGetJob {
        httpGetJob();
        explicit httpGetJob(const std::string& url);
        explicit httpGetJob(const char* url);
        ~httpGetJob();
        bool operator<(const httpGetJob& other) const { return size < other.size; }
        bool operator==(const httpGetJob& other) const { return url == other.url; }
        std::string url;
        std::string file;
        long long size;         // bytes this job delivers; 0 = unknown
        std::string checksum;   // expected digest, lower-case hex; empty = none
        std::string algorithm;  // digest name, lower case; empty = none
        long long start;        // offset of the range's first byte
        long long end;          // offset of its last byte, inclusive
        long long downloaded;   // bytes of the range already written
        int part;               // piece number
        AccessParams params;    // per-job access parameters
        // While a transfer runs: told of the bytes written (the file's
        // digest stream, or none), the file offset the next body byte goes
        // to, and whether a chunked body ended exactly where the read that
        // brought its last chunk ended (so its connection holds nothing more).
        BodyObserver* observer;
        long long cursor;
        bool chunkedEnd;
        // While a transfer runs: the first file offset this attempt may not
        // write (the end of the range the answer names; LLONG_MAX for none).
        long long bound;
        // In an adaptive batch: the share that lets other workers take the
        // far part of this piece, and the offset up to which its runner has
        // claimed bytes for writing (under the share's lock). Null otherwise.
        WorkShare* share;
        long long claimed;
        // The batch's progress bookkeeping, touched only by the worker that
        // runs the piece: its file's place in the job list (SIZE_MAX: none),
        // and the bytes written and the size already in the running totals.
        size_t listed;
        long long accountedDone;
        long long accountedSize;
        // Answers for another file or another place this piece met (its
        // runner's): the second ends it.
        int mismatches;
    };

    // ---- batch/: one worker thread of a batch (jobs.cpp) ----
    struct threadData {
        threadData();
        static bool compare(const threadData* a, const threadData* b) { return a->size < b->size; }
        webChannel* channel;
        int index;
        std::vector<httpGetJob> jobs;
        std::map<std::string, connection*> connections;
        long long size;
        int error;
        // Records taken out of `connections` while a caller may still hold
        // them; released with the pool.
        std::vector<connection*> retired;
        // While a batch runs: the state counter of each job's URL, in the
        // order of `jobs`, for progress reports without map searches.
        std::vector<const long*> counters;
    };

    webChannel();
    ~webChannel() override;

    // ---- the interface, in slot order ----
    void setLog(const char* path) override;                                        // channel/log.cpp
    int init(unsigned threadNum) override;                                         // channel/lifecycle.cpp
    int setProxy(const char* httpProxy, const char* httpsProxy) override;          // transport/proxy.cpp
    const char* resolveProxy(const char* url) override;                            // transport/proxy.cpp
    void setHandler(ProgressHandler handler, void* userData) override;             // channel/progress.cpp
    void setParam(int id, const char* value, bool channel) override;               // channel/params.cpp
    bool getParam(int id, std::string& value, bool channel) override;              // channel/params.cpp
    int getNextDownloadedFile() override;                                          // batch/multi_get.cpp
    int getErrorCode(char* buffer, int size) override;                             // channel/errors.cpp
    int httpGet(const char* url, const char* file) override;                       // http/single_get.cpp
    int httpGet(const char* url) override;                                         // http/single_get.cpp
    int httpGet_c(const char* url, const char* file) override;                     // http/single_get.cpp
    int httpPost(const char* url, char* headers, char* body, bool flag) override;  // http/post.cpp
    const char* httpResponse(long long* length) override;                          // http/single_get.cpp
    int addJob(const char* url, const char* file, long long size, const char* checksum,
               const char* algorithm) override;  // batch/jobs.cpp
    int addJob_c(const char* url, const char* file, long long size, const char* checksum,
                 const char* algorithm) override;                                           // batch/jobs.cpp
    int httpMultiGet(bool flag) override;                                                   // batch/multi_get.cpp
    int removeJob(const char* url) override;                                                // batch/jobs.cpp
    int isValid(const char* file, const char* checksum, const char* algorithm) override;    // batch/jobs.cpp
    int isValid_c(const char* file, const char* checksum, const char* algorithm) override;  // batch/jobs.cpp
    void close() override;                                                                  // channel/lifecycle.cpp

    // ---- channel/: log (log.cpp) ----
    static void log(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static bool logging() { return __atomic_load_n(&m_log, __ATOMIC_RELAXED) != nullptr; }

    // ---- channel/: parameters (params.cpp) ----
    static void mergeAccessParams(AccessParams& target, const AccessParams& source);
    // Thread-safe reads of the channel's parameters (workers read them while
    // the cookie capture may write them).
    bool hasParam(int id);
    bool findParam(int id, std::string& value);
    AccessParams paramsSnapshot();
    void mergeChannelParams(AccessParams& target);

    // ---- channel/: errors (errors.cpp) ----
    int getError(std::string& context, std::string& message);
    bool isError();
    // True when a worker of the batch was cancelled (-3055): the state in
    // which every transfer of the channel stops.
    bool isCancelled();
    static int errorCode();
    static bool isSocketError();
    static bool isReset();
    // The peer dropped the connection under a write: a reset, or (for a
    // kept connection the server had already closed) a broken pipe.
    static bool isDropped();
    // Keeps the first failure of a batch together with its file.
    void recordFailure(int code, const std::string& file);
    // Sets the error state of a single request (0 clears it).
    void setError(int code);
    // Sets the error state of a failure outside a batch with its context
    // (the size probe's URL, addJob's target); only with error detail on.
    void setDetailedError(int code, const std::string& context);
    // Clears the error state at the start of an operation.
    void clearError();
    static std::string errorText(int code, const std::string& file);
    // The reason noted on this thread for `code` (see noteFailure), without
    // using it up; the code's words when none was noted.
    static std::string notedReason(int code);
    // Stores a connection's failure outside a batch. An untrusted server
    // also leaves its reason in the message: the code alone tells the host
    // neither which server nor why.
    void storeOpenFailure(int code);
    // Why an operation is about to fail with `code`, noted on the failing
    // thread by the layer that knows (connect, TLS, the head check, the
    // target file) and taken up when the failure reaches the error state.
    // `detail` is the code the error state reports when it says more than
    // the result does (a head that did not parse is returned as -3052 and
    // reported as -3002); 0 means `code` itself.
    static void noteFailure(int code, std::string reason, int detail = 0);
    // Drops this thread's note, at the start of an operation or attempt.
    static void forgetFailure();
    // The system's words for an errno value.
    static std::string systemText(int error);
    // Text from a peer made fit for a message: at most `limit` characters,
    // control and non-ASCII bytes shown as '?'.
    static std::string printable(std::string_view text, size_t limit);

    // ---- channel/: progress (progress.cpp) ----
    long long handleProgress(long long lastReported, long long done, long long total, int mode);
    // Position in m_httpGetJobs of the job a failed worker was on, or -1.
    int blamedJob(bool indexed);
    // Running totals, so that a report while a batch runs costs the same
    // whatever the number of jobs. tallyProgress counts them afresh before
    // the workers start; a worker brings in what its job wrote (or learnt of
    // its size) since it last did; settleProgress moves a verified file from
    // the pending bytes to the finished files.
    void tallyProgress();
    // Returns the job's position in the list (SIZE_MAX when it has none).
    size_t accountProgress(httpGetJob* job);
    void settleProgress(httpGetJob* job);

    // ---- transport/: URL parsing and host-address cache (url.cpp, address_cache.cpp) ----
    bool parseURL(std::string url, unsigned long* address, std::string& host, std::string& port, std::string& path,
                  std::string& credentials, bool* https);
    bool parseURL(std::string url, unsigned long* address, std::string& host, std::string& port, std::string& path,
                  bool* https);
    unsigned long resolveAddress(const std::string& host, const std::string& port);
    // With error detail on, a URL naming a scheme other than http and https
    // is refused (noted) rather than fetched over plain HTTP.
    bool refusesScheme(const std::string& url);

    // ---- transport/: proxies (proxy.cpp) ----
    std::string resolveProxy(std::string hostAndPath, bool https);
    int getProxyTimeout();

    // ---- transport/: connection pools (pool.cpp) ----
    // `result` receives the outcome (0 or a failure code); calls outside a
    // batch (worker null) also store it in m_errorCode.
    connection* open(std::string url, threadData* worker, bool reconnect, int* result = nullptr);
    void closeSocket(connection* conn);
    void closeSSL(connection* conn);
    // Ends a connection (TLS session first, then socket and waiters); the
    // record stays, for callers that may still hold it.
    void closeConnection(connection* conn);
    // Ends a connection and frees its record.
    void destroyConnection(connection* conn);
    int prepareSocket(connection* conn, bool forWriting);
    // Closes a connection and takes it out of its pool, so that the next
    // open() makes a fresh one; the record stays valid until the pool is emptied.
    void dropConnection(connection* conn, threadData* worker);
    // Closes every connection of a pool and releases the records.
    void emptyPool(std::map<std::string, connection*>& pool, std::vector<connection*>& retired);
    // Keeps a connection whose request is over for the next one: it is idle
    // until its pool takes it again. With the idle cap (3026) the pool's
    // least recently used idle connections beyond the cap are closed.
    void parkConnection(connection* conn, threadData* worker);
    // The process is out of descriptors (`error`: EMFILE or ENFILE): closes
    // the least recently used idle connections of every pool. False when
    // none was idle.
    bool relieveDescriptors(int error);

    // ---- transport/: connecting, tunnel, TLS (connect.cpp, tunnel.cpp, tls.cpp) ----
    int initSSL();
    // Loads the system trust store into the context, once, on the first
    // handshake: parsing the CA bundle is most of what a TLS set-up costs, and
    // a host that never speaks TLS should not pay it at init.
    void loadTrustStore();
    static int initSSLVerifyCallback(int preverifyOk, X509_STORE_CTX* store);
    // Parameter 3021: nothing when absent, else its value.
    std::optional<std::string> verifySetting();
    // The trust anchors at `path`, loaded on first use and then shared by
    // every handshake; null when they cannot be read.
    X509_STORE* trustStore(const std::string& path);
    // Makes the session verify its server under the connection's trust
    // setting; false (the failure noted) when the anchors cannot be read.
    bool requireTrust(connection* conn);
    int initSocket(connection* conn, threadData* worker);
    int openTunnel(connection* conn);
    // Judges the proxy's (at most 63-byte, NUL-terminated) answer to CONNECT.
    int checkTunnelReply(const char* answer, connection* conn);
    int connectSSL(connection* conn);

    // ---- transport/: reads and writes (socket_io.cpp) ----
    int read(connection* conn, char* buffer, int size, long long offset, bool fill);
    int write(connection* conn, std::string data);
    // Writes all of `data` with as many write() calls as it takes: the bytes
    // written, or the first failing result (0, -1, -2); a failure after some
    // bytes went out gives -1.
    int writeAll(connection* conn, const std::string& data);
    // One read, as read() with fill off; over TLS it also takes, without
    // blocking, the records the TLS layer already holds.
    int readBlock(connection* conn, char* buffer, int size);

    // ---- http/: response heads (response.cpp) ----
    // `details` (optional) receives everything the parse found.
    int parseHttpResponseHeader(std::string_view header, int& code, long long& headerLength, long long& contentLength,
                                connection* conn, ResponseHead* details = nullptr);
    int getHttpResponseBody(std::string response, std::string& body);
    // Notes why a head was refused (-3052): its status line, or (as the
    // detailed code) that it did not parse or names an unknown coding.
    static void noteRejectedHead(std::string_view head, int parsed);
    // Reads until the response head is complete, `capacity` bytes are held or
    // a read fails; terminates the text (buffer needs capacity + 1 bytes).
    // Returns the bytes held, or the first read's result when nothing arrived;
    // `lastRead` is the result of the last read made.
    int readHead(connection* conn, char* buffer, int capacity, int& lastRead);

    // ---- http/: single requests (single_get.cpp, post.cpp) ----
    int httpGetResponse(connection*& conn, std::string url, int& attempts);
    // Releases shared-pool records retired during a single request.
    void releaseRetired();
    // `origin` is the URL the host posted to (see withholdsCredentials).
    int httpPost(connection* conn, const char* url, char* headers, char* body, bool flag, const std::string& origin);
    // Posts again to a 301/307/308 answer's location (other redirects fail);
    // `url` is the one that answered.
    int followRedirect(connection* conn, const std::string& url, int code, char* headers, char* body,
                       const std::string& origin);

    // ---- http/: strict redirects (redirects.cpp) ----
    // Whether a request to `url` goes without the server credentials and the
    // cookie: under parameter 3027 (unless its value is kRedirectsTrusted),
    // once `url` has left the origin of `origin`, the URL it started from.
    bool withholdsCredentials(const std::string& url, const std::string& origin);
    // Whether the redirect from `from` to `to` is refused: under 3027 with
    // verification (3021) on, one that is a `downgrade` from TLS to plain
    // HTTP. The failure (-3034) is noted with both URLs, and stored in the
    // error state outside a batch (no worker), as an untrusted server's is.
    bool refusesRedirect(const std::string& from, const std::string& to, bool downgrade, threadData* worker);

    // ---- http/: body transfer (body.cpp) ----
    int dump(FILE* file, char* buf, long long len, long long& offset, long long& remaining, int mode, httpGetJob* job);

    // ---- batch/: planning (planning.cpp) ----
    void initBatch();
    // Known sizes: shares of about total / m_threadNum bytes, large files cut.
    void planShares(std::vector<httpGetJob>& work, long long total);
    // One record per worker, each with its share counted afresh.
    void prepareRecords();
    // With the file-order parameter: large files in small pieces, dealt in
    // file order to the least-loaded worker.
    void planFileOrder(std::vector<httpGetJob>& work, long long total);
    // Unknown sizes: whole files dealt round-robin.
    void dealWholeFiles(std::vector<httpGetJob>& work);
    // A job that continues an earlier run: only the ranges missing on disk
    // go into the work list; their bytes are returned.
    long long continueJob(const httpGetJob& job, std::vector<httpGetJob>& work);

    // ---- batch/: driver and workers (multi_get.cpp) ----
    void finalizeBatch();
    // Before planning: targets of files that start over are removed.
    void prepareTargets();
    // Before the workers start: the URL index and the counter pointers.
    void indexBatch();
    // Starts a worker per record with work and joins them all.
    int runWorkers();
    static void* executeHttpGet(void* record);
    int executeJob(threadData* record, unsigned int j);
    int downloadJob(threadData* record, unsigned int j);
    // The same for any piece the worker runs (`number`: its place in the
    // worker's list, -1 for one taken from another worker).
    int executePiece(threadData* record, httpGetJob& job, int number);
    int downloadPiece(threadData* record, httpGetJob& job, int number);
    static int pieceNumber(const threadData* record, const httpGetJob* job);
    // A worker of an adaptive batch: its own pieces, then work taken from
    // the others (work_share.h).
    void runShared(threadData* record);
    // The size the job list gives for the file of `url`; 0 when unknown.
    long long listedSize(const std::string& url) const;
    // Takes the pieces of `url` out of the thread records (`logged`: with
    // removeJob's line for each).
    void dropPieces(const std::string& url, bool logged);
    // Back to "not planned": the next batch fetches the file of `url` afresh.
    void forgetFile(const std::string& url);
    // The size of the file at `url` from the head of a GET, or -1 (noted as
    // the error when the error detail is on).
    long long probeSize(const char* url);
    // Position of the job with this URL in m_httpGetJobs, or -1.
    long jobPosition(const std::string& url);
    // Notes that the file of this URL was verified, for getNextDownloadedFile.
    void noteVerified(const std::string& url);

    // ---- batch/: job list (jobs.cpp) ----
    // The state counter of a URL (see kUrlVerified). Workers must never
    // insert into the map (it is shared without a lock), so an absent URL
    // reads as 0, the value an insertion would have given it.
    long urlCounter(const std::string& url) const;

    // ---- batch/: segment download (segment.cpp) ----
    // `origin` is the URL the fetch started from (see withholdsCredentials).
    int httpGet(connection*& conn, std::string url, std::string file, httpGetJob* job, threadData* record,
                int& attempts, const std::string& origin);
    // Runs the segment download until it stops answering "repeat", following
    // redirects: the single GET into a file, the size probe and every batch job.
    int fetch(std::string url, const std::string& file, httpGetJob* job, threadData* record);

    // ---- batch/: verification (verify.cpp) ----
    std::string checksum(std::string file, std::string algorithm);
    // The line a digest of `file` leaves in the log: its text, or that the
    // file could not be opened when there is none.
    static void logChecksum(const std::string& file, const std::string& text);
    long long filesize(std::string file);
    int checksumJob(threadData* record, unsigned int j);
    int checksumPiece(threadData* record, httpGetJob& job, int j);
    // The digest of a finished file: from its stream when it has one (reading
    // only what was not streamed), else from the file.
    std::string fileDigest(const httpGetJob& job);
    // Before the workers start: a digest stream for every pending file with a
    // digest, handed to its pieces.
    void attachDigestStreams();
    // Drops the stream of a file that starts over or is done.
    void dropDigestStream(const std::string& url);
    // Whether a job continues what an earlier run left (it carries the
    // continue parameter and its size is known).
    static bool continues(const httpGetJob& job);
    // The control record of a pending file that continues, or null.
    ResumeRecord* resumeRecord(const std::string& url) const;
    // While the workers run: a thread that brings the control records up to
    // date once a second, each after a sync of its target.
    std::unique_ptr<RecordKeeper> keepResumeRecords();
    // After the workers: every control record brought up to date.
    void flushResumeRecords();
    int checksumErrJob(threadData* record, unsigned int j);
    int checksumErrPiece(threadData* record, httpGetJob& job, int j);

    // ---- members, in declaration order ----
    SSL_CTX* m_sslContext;
    std::map<std::string, connection*> m_connections;
    std::map<std::string, unsigned long> m_hostAddresses;
    std::map<std::string, std::string> m_proxyAnswers;
    unsigned long m_httpProxyAddress;
    std::string m_httpProxyHost;
    std::string m_httpProxyPort;
    unsigned long m_httpsProxyAddress;
    std::string m_httpsProxyHost;
    std::string m_httpsProxyPort;
    char* m_buffer;
    ProgressHandler m_handler;
    void* m_handlerData;
    std::string m_response;
    long long m_responseLength;
    int m_errorCode;  // read and written through atomics.h: workers record failures while the host reads
    std::string m_errorMessage;
    std::string m_errorContext;
    std::vector<httpGetJob> m_httpGetJobs;
    std::map<std::string, long> m_downloaded;
    std::vector<threadData*> m_batch;
    pthread_mutex_t m_lock1;      // m_hostAddresses
    pthread_mutex_t m_lock2;      // m_proxyAnswers
    pthread_mutex_t m_lock3;      // m_params (the cookie capture writes it from workers)
    pthread_mutex_t m_lock4;      // m_verified
    pthread_mutex_t m_errorLock;  // m_errorMessage and m_errorContext
    unsigned int m_threadNum;
    int* m_incomplete;
    AccessParams m_params;
    std::string m_proxyAnswer;
    // Shared-pool records retired while a caller may still hold them.
    std::vector<connection*> m_retiredConnections;
    // Position of each URL in m_httpGetJobs, so that job lists of many
    // thousand files need no linear searches (see jobPosition).
    std::unordered_map<std::string, size_t> m_jobIndex;
    // Positions of files verified (counter -1) and not handed out yet, under
    // m_lock4; rebuilt from the counters when m_verifiedStale is set.
    std::set<size_t> m_verified;
    bool m_verifiedStale;
    // While a batch runs: the state counter of each job of m_httpGetJobs.
    std::vector<const long*> m_jobCounters;
    bool m_batchRunning;  // through atomics.h: workers read it
    // Under m_errorLock: m_errorMessage is a detailed one (error detail on),
    // which getErrorCode copies whole.
    bool m_errorMessageWhole;
    // Digest streams of the pending files with a digest, by URL. Changed only
    // between batches; workers reach them through their jobs' observers.
    std::unordered_map<std::string, std::unique_ptr<DigestStream>> m_digestStreams;
    // Control records of the pending files that continue, by URL; changed
    // only between batches, like the digest streams.
    // Shared with the batch's record keeper, which may outlive a batch by the
    // end of a sync.
    std::unordered_map<std::string, std::shared_ptr<ResumeRecord>> m_resumeRecords;
    int m_filesRehashed;  // through atomics.h: files whose digest came from disk after all
    // The running progress totals (through atomics.h): bytes written and size
    // of the pending pieces, finished files; and per job of the list what its
    // pending pieces add to the first two.
    long long m_progressDone;
    long long m_progressSize;
    int m_progressFinished;
    std::vector<std::pair<long long, long long>> m_progressTallies;
    // While an adaptive batch runs: who fetches which bytes.
    std::unique_ptr<WorkShare> m_share;
    pthread_mutex_t m_trustLock;  // loading the trust store into m_sslContext
    bool m_trustLoaded;           // through atomics.h: read before the lock
    // Trust anchors named by parameter 3021, by path, under m_trustLock;
    // null for a path that could not be read. Freed with the channel.
    std::map<std::string, X509_STORE*> m_trustStores;
    // The idle connections of every pool (transport/idle_registry.h): any
    // thread may close them when descriptors run short.
    std::unique_ptr<IdleRegistry> m_idle;

    static FILE* m_log;
};

// OpenSSL's static locking callback.
void webChannelSSLLock(int mode, int n, const char* file, int line);

#endif
