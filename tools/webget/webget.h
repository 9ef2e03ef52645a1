// webget: the command-line host of the web channel.
//
// It loads libwebchannel.so at run time (dlopen), takes the channel from the
// exported factory and uses nothing but the public interface
// (VRAXSecureWebChannel.h, webchannel_codes.h). Batches come from a manifest
// or from URLs on the command line; single GETs go to a file or to standard
// output; POSTs print the answer.
//
// Output conventions: standard output carries results (one line per finished
// file, or the body of -O - / --post, or with --json one JSON object alone);
// standard error carries progress, the summary and diagnostics, so that
// results can be piped or redirected without progress noise.
//
// A download lands beside its target, in TARGET.part, and replaces the
// target only once the library hands it out complete and verified: a
// failed or interrupted run leaves the user's file as it was.
//
// This header is what the program's files share; each file is one concern:
// options, library, signals, manifest, landing, progress, and one file per
// mode.
#ifndef WEBGET_WEBGET_H
#define WEBGET_WEBGET_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <signal.h>
#include <pthread.h>

#include "VRAXSecureWebChannel.h"
#include "webchannel_codes.h"

namespace webget {

// Exit statuses, documented in --help.
enum ExitStatus : int {
    kExitOk = 0,
    kExitFailed = 1,       // some job failed: a transfer, or a file did not verify
    kExitUsage = 2,        // usage or set-up: command line, manifest, library, channel
    kExitInterrupted = 130 // cancelled by Ctrl-C (SIGINT) or SIGTERM
};

extern const char* gProgram;

// One diagnostic line on standard error, prefixed with the program's name.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A result code with its meaning: "-3052 (status not accepted)".
std::string describe(int code);

// ---- failure.cpp: failures in words ----
// The library's last failure: with error detail on, the failing layer's own
// code and its reason (for a batch failure followed by ": " and the target).
struct LibraryError {
    int code = 0;
    std::string reason;
};
// `result` stands in for a code the library did not keep.
LibraryError lastError(VRAXSecureWebChannel* channel, int result);
// What failed and why, e.g. "127.0.0.1:1: connection refused" or
// "out/f.bin: cannot create: Permission denied" (`creating`: the target was
// being created, not written).
std::string explainFailure(int code, const std::string& reason, const std::string& url, const std::string& target,
                           bool creating = false);
// A temporary file of -O - that could not be written, naming its folder:
// "cannot write the temporary file in /tmp: No space left on device (...)".
std::string explainTemporaryFailure(const std::string& directory, const std::string& reason);
struct Landing;
// A finished download that could not be renamed over its target (`error`:
// the errno of the rename).
std::string explainInstallFailure(const std::string& target, const Landing& landing, int error);

// ---- options.cpp: the command line ----
struct Options {
    std::string manifest;
    std::string directory;
    bool directoryGiven = false;
    std::string output;     // -o FILE
    bool toStdout = false;  // -O -
    bool post = false;
    std::string postData;
    std::vector<std::string> headers;
    unsigned workers = 8;
    std::string httpProxy, httpsProxy;
    bool httpProxyGiven = false, httpsProxyGiven = false;
    std::string user;
    bool userGiven = false;
    std::string cookie;
    bool cookieGiven = false;
    bool keepCookies = false;
    bool locationTrusted = false;  // credentials and cookie follow redirects to other servers
    bool noCache = false;
    std::string timeout;
    bool insecure = false;  // -k: servers' certificates are not verified
    std::string caCert;     // --cacert PATH: trust anchors instead of the system store
    bool unknownSize = false;
    std::string logFile;
    std::string library;
    bool quiet = false;
    bool json = false;      // the batch's account as JSON on standard output
    bool resume = false;    // -c: continue what an earlier run left
    unsigned long shardIndex = 0, shardCount = 1;  // --shard I/N: this process's share
    std::vector<std::string> checksumFiles;        // --checksums FILE, in order
    std::vector<std::string> urls;
};

// Returns -1 to go on, or an exit status (after --help, --version or a
// usage error, which it has reported).
int parseCommandLine(int argc, char** argv, Options& options);
bool parseInt(const std::string& text, long long low, long long high, long long& value);
// The whole content of the file at `path`; false when it cannot be read.
bool readWholeFile(const std::string& path, std::string& content);

// ---- library.cpp: loading the library, the channel's set-up ----
struct Library {
    void* handle = nullptr;
    VRAXSecureWebChannelCreateFn create = nullptr;
    VRAXSecureWebChannelDestroyFn destroy = nullptr;
    std::string path;
};

bool loadLibrary(const Options& options, Library& library);
struct ChannelHandle {
    Library& library;
    VRAXSecureWebChannel* channel;
    explicit ChannelHandle(Library& lib) : library(lib), channel(lib.create()) {}
    ~ChannelHandle() {
        if (channel != nullptr) library.destroy(channel);
    }
    ChannelHandle(const ChannelHandle&) = delete;
    ChannelHandle& operator=(const ChannelHandle&) = delete;
};

// Returns -1 to go on, or an exit status.
int configureChannel(VRAXSecureWebChannel* channel, const Options& options);
// Sets the channel's request form for `url` (the size probe and the single
// GETs read it there): the path alone when the request goes straight to the
// server, the absolute URL when it goes through a proxy. True for the path
// alone, which a batch job must then be given as its own parameter.
bool chooseRequestForm(VRAXSecureWebChannel* channel, const Options& options, const std::string& url);

// ---- signals.cpp ----
// Set by the first SIGINT or SIGTERM of a batch; the progress callback then
// asks the library to cancel.
extern std::atomic<bool> gInterrupted;

// SIGINT and SIGTERM are blocked in every thread (the library's workers
// inherit the mask, so their socket waits never see EINTR) and taken by one
// watcher thread with sigwait for the lifetime of this guard.
class SignalGuard {
public:
    SignalGuard();
    ~SignalGuard();
    SignalGuard(const SignalGuard&) = delete;
    SignalGuard& operator=(const SignalGuard&) = delete;

private:
    pthread_t m_thread{};
    bool m_started = false;
    sigset_t m_previous{};
};

// ---- landing.cpp: where a download lands until it is complete ----
struct Landing {
    std::string path;   // what the library writes: PLACE.part, or the target itself when written in place
    std::string place;  // the file a finished download replaces; empty when written in place
    bool present = false;  // whether the target existed when the landing was chosen
};
// A regular file (or a new one) lands in PLACE.part, PLACE being the target
// or, for a symbolic link, the file it points to. Anything else (a device
// such as /dev/null, a FIFO) is written in place: renaming over it would
// replace the device itself.
Landing landingFor(const std::string& target);
// The control record the library keeps beside a file it may continue.
std::string recordOf(const std::string& path);
bool pathExists(const std::string& path);
// Renames a finished download over its place; false with errno set.
bool install(const Landing& landing);
// Removes what a failed download left when it holds nothing: an empty
// PLACE.part and its record. A part with bytes stays for -c.
void dropIfEmpty(const Landing& landing);

// ---- manifest.cpp: batch jobs ----
struct Job {
    std::string url;
    std::string target;
    std::string name;    // the target as listed, before -d DIR
    long long size = 0;
    std::string digest;
    std::string algorithm;
    std::string origin;  // "manifest:line" or "argument N", for messages
    Landing landing;     // set when the job is offered
};

std::string joinPath(const std::string& directory, const std::string& name);
// Last path component of a URL, without query or fragment.
std::string urlBasename(const std::string& url);
// Returns -1 to go on, or an exit status.
int readManifest(const Options& options, std::vector<Job>& jobs);
// A URL or a target listed twice is a usage error. Checked on the whole list,
// before --shard keeps a share, so that every process rejects the same
// manifest. Returns -1 to go on, or an exit status.
int checkDuplicates(const std::vector<Job>& jobs);
int mkdirs(const std::string& directory);

// ---- checksums.cpp: digests from checksum files ----
// Fills in the digests the jobs lack from --checksums files. Returns -1 to go
// on, or an exit status (a malformed line, a digest that disagrees).
int applyChecksumFiles(const Options& options, std::vector<Job>& jobs);
// `text` in lower case (ASCII): digests and algorithm names compare so.
std::string lowered(std::string text);

// ---- progress.cpp: the progress display ----
using Clock = std::chrono::steady_clock;
// How one listed job ended, for --json.
struct Outcome {
    int result = wc::kCancelled;  // never offered: the batch was interrupted first
    bool verified = false;
    bool skipped = false;         // the target already held the expected digest
    long long size = 0;
};
struct BatchState {
    std::mutex lock;
    VRAXSecureWebChannel* channel = nullptr;
    const std::vector<Job>* jobs = nullptr;  // in addJob order: the library's job indexes
    std::vector<char> handedOut;
    int handedCount = 0;
    long long handedBytes = 0;
    int upToDate = 0;
    int refused = 0;
    std::set<int> blamed;        // job indexes the library named as failing
    std::set<int> notInstalled;  // finished and verified, but not renamed over the target
    long long knownTotal = 0;    // sizes from the manifest or the probes
    long long reportedTotal = 0; // largest total the library reported
    long long pendingDone = 0;   // bytes of pending files, from the last report carrying counts
    long long shownDone = 0;
    bool quiet = false;
    bool terminal = false;       // standard error is a terminal: live bar
    FILE* results = stdout;      // file lines: standard error when stdout is JSON's
    bool resultsTerminal = false; // file lines go to the same terminal
    bool barVisible = false;
    Clock::time_point start;
    Clock::time_point lastDraw;
    bool drawnOnce = false;
    int widestInfo = 0;          // keeps the bar's width steady
    std::deque<std::pair<double, long long>> samples;  // (seconds, bytes) for the rate
    std::vector<Outcome> outcomes;  // one per listed job
    std::vector<size_t> listedAs;   // the library's job index -> listed job

    long long total() const { return knownTotal > reportedTotal ? knownTotal : reportedTotal; }
    int fileCount() const { return (int)jobs->size() + upToDate + refused; }
};

std::string humanBytes(double bytes);
long long fileSize(const std::string& path);
// Hands out every file the library has finished and verified: renames it
// over its target and prints it. Caller holds state.lock.
void collectFinished(BatchState& state);
// Draws the progress; `final` forces a draw and ends the bar's line.
// Caller holds state.lock.
void drawProgress(BatchState& state, bool final);
// The library's progress callback.
void onProgress(bool& cancel, int finished, long long bytesDone, long long bytesTotal, int jobIndex, void* user);

// ---- report.cpp: the batch's account in JSON ----
struct Totals {
    int downloaded = 0, upToDate = 0, failures = 0;
    long long bytes = 0;
    double seconds = 0;
};
void printJson(const std::vector<Job>& listed, const std::vector<Outcome>& outcomes, const Totals& totals);

// ---- the modes: batch.cpp, get.cpp, post.cpp ----
int runBatch(VRAXSecureWebChannel* channel, const Options& options, std::vector<Job> wanted);
int runGetToFile(VRAXSecureWebChannel* channel, const Options& options);
// -c -o FILE: continues FILE.part, or FILE itself, through a one-job batch.
int runContinueToFile(VRAXSecureWebChannel* channel, const Options& options);
int runGetToStdout(VRAXSecureWebChannel* channel, const Options& options);
int runPost(VRAXSecureWebChannel* channel, const Options& options);
// Writes to standard output and flushes; false on failure.
bool writeAll(const char* data, size_t length);

}  // namespace webget

#endif
