// The single-GET modes: into a file (-o) and to standard output (-O -).
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "webget.h"

namespace webget {
namespace {

// Where -O - keeps the body until it is complete, for the signal handler too:
// a signal that ends the program must not leave the file behind.
char gTemporaryPath[4096];
constexpr int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
constexpr size_t kCopyBlock = 65536;

extern "C" void removeTemporaryAndDie(int signalNumber) {
    unlink(gTemporaryPath);
    // SA_RESETHAND restored the default action: the signal, blocked while
    // this handler runs, ends the program as it would have without us.
    raise(signalNumber);
}

// A file created with mkstemp in $TMPDIR (or /tmp), removed when this goes
// out of scope or a signal ends the program first.
class TemporaryFile {
public:
    TemporaryFile() {
        const char* directory = getenv("TMPDIR");
        m_directory = directory == nullptr || *directory == 0 ? "/tmp" : directory;
        int length = snprintf(gTemporaryPath, sizeof gTemporaryPath, "%s/webget.XXXXXX", m_directory.c_str());
        if (length <= 0 || (size_t)length >= sizeof gTemporaryPath) {
            errno = ENAMETOOLONG;
            return;
        }
        m_fd = mkstemp(gTemporaryPath);
        if (m_fd < 0) return;
        struct sigaction cleanup = {};
        cleanup.sa_handler = removeTemporaryAndDie;
        cleanup.sa_flags = SA_RESETHAND;
        sigemptyset(&cleanup.sa_mask);
        for (size_t i = 0; i < sizeof kCleanupSignals / sizeof kCleanupSignals[0]; ++i)
            sigaction(kCleanupSignals[i], &cleanup, &m_previous[i]);
    }
    ~TemporaryFile() {
        if (m_fd < 0) return;
        for (size_t i = 0; i < sizeof kCleanupSignals / sizeof kCleanupSignals[0]; ++i)
            sigaction(kCleanupSignals[i], &m_previous[i], nullptr);
        unlink(gTemporaryPath);
        close(m_fd);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    int fd() const { return m_fd; }
    const char* path() const { return gTemporaryPath; }
    const std::string& directory() const { return m_directory; }

private:
    std::string m_directory;
    int m_fd = -1;
    struct sigaction m_previous[sizeof kCleanupSignals / sizeof kCleanupSignals[0]]{};
};

int lastErrno() {
    return errno != 0 ? errno : EIO;
}

// Copies the file behind `fd`, from its start, to standard output. Returns 0,
// or the errno of the failure; `reading` tells which side failed.
int copyToStdout(int fd, bool& reading) {
    char block[kCopyBlock];
    for (off_t offset = 0;;) {
        reading = true;
        ssize_t got = pread(fd, block, sizeof block, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return lastErrno();
        reading = false;
        if (got == 0) return fflush(stdout) == 0 ? 0 : lastErrno();
        if (fwrite(block, 1, (size_t)got, stdout) != (size_t)got) return lastErrno();
        offset += got;
    }
}

}  // namespace

int runGetToFile(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    Clock::time_point start = Clock::now();
    const Landing landing = landingFor(options.output);
    chooseRequestForm(channel, options, url);
    int result = channel->httpGet(url.c_str(), landing.path.c_str());
    if (result != wc::kOk) {
        // The library returns -3054 when it cannot open the file; a write
        // that fails cuts the body short (-3051), reported as -3054.
        LibraryError error = lastError(channel, result);
        complain("error %d: %s", error.code,
                 explainFailure(error.code, error.reason, url, landing.path, result == wc::kFileWrite).c_str());
        if (!landing.place.empty()) unlink(landing.path.c_str());
        return kExitFailed;
    }
    if (!install(landing)) {
        complain("error %d: %s", wc::kFileWrite, explainInstallFailure(options.output, landing, errno).c_str());
        return kExitFailed;
    }
    if (!options.quiet) {
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        long long size = fileSize(options.output);
        fprintf(stderr, "%s: saved %s to %s in %.2f s\n", gProgram, humanBytes(size > 0 ? size : 0).c_str(),
                options.output.c_str(), seconds);
    }
    return kExitOk;
}

bool writeAll(const char* data, size_t length) {
    return fwrite(data, 1, length, stdout) == length && fflush(stdout) == 0;
}

// The in-memory GET keeps only what its first read brought, so the body goes
// through the file GET into a temporary file and from there to standard
// output: whole, whatever its size, and only once it is complete.
int runGetToStdout(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    TemporaryFile body;
    if (body.fd() < 0) {
        complain("cannot create a temporary file %s: %s", body.path(), strerror(errno));
        return kExitUsage;
    }
    chooseRequestForm(channel, options, url);
    int result = channel->httpGet(url.c_str(), body.path());
    if (result != wc::kOk) {
        LibraryError error = lastError(channel, result);
        complain("error %d: %s", error.code,
                 error.code == wc::kFileWrite ? explainTemporaryFailure(body.directory(), error.reason).c_str()
                                              : explainFailure(error.code, error.reason, url, std::string()).c_str());
        return kExitFailed;
    }
    bool reading = false;
    if (int failure = copyToStdout(body.fd(), reading); failure != 0) {
        if (reading) {
            complain("cannot read %s: %s", body.path(), strerror(failure));
        } else {
            complain("cannot write to standard output: %s", strerror(failure));
        }
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace webget
