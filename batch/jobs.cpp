// The job and worker records, and the host's job list.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "batch/digest_stream.h"
#include "batch/resume_record.h"
#include "channel/atomics.h"
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"
#include "util/fs.h"
#include "util/strings.h"

webChannel::httpGetJob::httpGetJob()
    : size(0),
      start(0),
      end(0),
      downloaded(0),
      part(0),
      observer(nullptr),
      cursor(0),
      chunkedEnd(false),
      bound(LLONG_MAX),
      share(nullptr),
      claimed(0),
      listed(SIZE_MAX),
      accountedDone(0),
      accountedSize(0),
      mismatches(0) {}

webChannel::httpGetJob::httpGetJob(const std::string& url_) : httpGetJob() {
    url = url_;
}

webChannel::httpGetJob::httpGetJob(const char* url_) : httpGetJob() {
    if (url_ != nullptr) url = url_;
}

webChannel::httpGetJob::~httpGetJob() = default;

webChannel::threadData::threadData() : channel(nullptr), index(-1), size(0), error(0) {}

namespace {

const char* orNull(const char* text) {
    return text != nullptr ? text : "(null)";
}

// The target of a job being added, opened at most once: the digest of what
// it holds is read through the same descriptor that then empties it, so a
// batch of small files costs one open here and one in the worker.
class JobTarget {
public:
    explicit JobTarget(const char* path) : m_path(path) {}
    ~JobTarget() {
        if (m_fd >= 0) ::close(m_fd);
    }
    JobTarget(const JobTarget&) = delete;
    JobTarget& operator=(const JobTarget&) = delete;

    // What the file holds, digested as checksum() does it, with its lines.
    std::string digest(webChannel& channel, const std::string& algorithm) {
        const EVP_MD* md = EVP_get_digestbyname(algorithm.c_str());
        struct stat info;
        if (md != nullptr && stat(m_path, &info) != 0) {
            webChannel::logChecksum(m_path, std::string());
            return std::string();
        }
        if (md != nullptr && S_ISREG(info.st_mode)) m_fd = ::open(m_path, O_RDWR | O_CLOEXEC);
        if (m_fd < 0) return channel.checksum(m_path, algorithm);  // the rare cases, as they always went
        std::string text = hashDescriptor(m_fd, md);
        webChannel::logChecksum(m_path, text);
        return text;
    }
    // Makes the target exist, keeping what it holds.
    bool create() {
        if (m_fd < 0) m_fd = ::open(m_path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        return m_fd >= 0;
    }
    // Makes the target exist and be empty.
    bool empty() {
        if (m_fd >= 0) return ftruncate(m_fd, 0) == 0;
        m_fd = ::open(m_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        return m_fd >= 0;
    }

private:
    const char* m_path;
    int m_fd = -1;
};

}  // namespace

long long webChannel::probeSize(const char* url) {
    // The head of a GET tells the size. -1 marks "no length seen", so a stale
    // length of an earlier response is never taken, and an announced length
    // of 0 (an empty file) is.
    atomicStore(m_responseLength, -1LL);
    int result = fetch(url, std::string(), nullptr, nullptr);
    releaseRetired();
    long long size = result == kOk ? atomicLoad(m_responseLength) : -1;
    if (logging()) log("VRAXSecureWebChannel::addJob: calculated size is %lld", size);
    if (size >= 0) return size;
    atomicStore(m_responseLength, 0LL);
    if (hasParam(kParamErrorDetail)) {
        // The job is refused as always; the error state tells why.
        if (result == kOk) noteFailure(kInvalidArgument, "no size in the answer (no Content-Length)");
        setDetailedError(result == kOk ? kInvalidArgument : result, url);
    }
    return -1;
}

int webChannel::addJob(const char* url, const char* file, long long size, const char* checksum_,
                       const char* algorithm) {
    if (logging())
        log("VRAXSecureWebChannel::addJob: started with %s : %s : %s", orNull(url), orNull(file), orNull(algorithm));
    if (url == nullptr || file == nullptr) return kInvalidArgument;
    if (size < 0) return kInvalidArgument;

    if (size == 0 && !hasParam(kParamUnknownSize)) {
        if (m_buffer == nullptr) return kInvalidArgument;  // init() has not sized the buffers
        size = probeSize(url);
        if (size < 0) return kInvalidArgument;
    }
    // No blank after the colon: the line stays as hosts' log filters match it.
    if (logging()) log("VRAXSecureWebChannel::addJob:file is %s", file);

    httpGetJob job;
    job.url = url;
    job.file = file;
    job.size = size;
    job.start = 0;
    job.end = size - 1;
    if (checksum_ != nullptr) job.checksum = to_lower(checksum_);
    if (algorithm != nullptr) job.algorithm = to_lower(algorithm);

    // A target that already holds the expected content is not fetched again.
    // An empty expected digest proves nothing (an unreadable file digests to
    // the empty text as well), so it never skips a download.
    JobTarget target(file);
    if (!job.algorithm.empty() && !job.checksum.empty()) {
        std::string digest = target.digest(*this, job.algorithm);
        if (digest.size() == job.checksum.size() && digest == job.checksum) {
            if (hasParam(kParamContinue)) unlink(ResumeRecord::pathFor(file).c_str());  // done with
            return kAlreadyPresent;
        }
    }

    std::string directory = get_dirname(file);
    if (!directory.empty() && !path_exists(directory)) folder_create(directory, 0755);

    // With the continue parameter on the channel, the job continues what an
    // earlier run left in its target; otherwise it starts from an empty
    // target, and a control record an earlier run left beside it goes, as
    // it no longer tells what the target holds.
    const bool continuing = hasParam(kParamContinue) && size > 0;
    if (continuing) findParam(kParamContinue, job.params[kParamContinue]);
    const long listed = jobPosition(job.url);
    if (listed < 0) {
        m_jobIndex[job.url] = m_httpGetJobs.size();
        m_httpGetJobs.push_back(job);
    }
    // A job back after removeJob, or its target emptied again: what a batch
    // knew of the file no longer holds.
    if (listed < 0 || (!continuing && m_httpGetJobs[(size_t)listed].file == job.file)) forgetFile(job.url);
    if (!continuing) unlink(ResumeRecord::pathFor(file).c_str());

    if (continuing ? !target.create() : !target.empty()) {
        const int error = errno;
        if (hasParam(kParamErrorDetail)) {
            noteFailure(kFileWrite, systemText(error));
            setDetailedError(kFileWrite, file);
        }
        return kFileWrite;
    }
    if (logging()) log("VRAXSecureWebChannel::addJob: finished");
    return kOk;
}

void webChannel::forgetFile(const std::string& url) {
    // Left as it was, a counter of -1 or -2 would hand out (or count as done)
    // the empty target, and one above 0 would wait for pieces that removeJob
    // took or that resume into an emptied file. At 0 the next batch fetches
    // the file from its first byte.
    auto counter = m_downloaded.find(url);
    if (counter == m_downloaded.end() || counter->second == 0) return;
    counter->second = 0;
    dropPieces(url, false);
    ScopedLock lock(m_lock4);
    m_verifiedStale = true;
}

int webChannel::addJob_c(const char* url, const char* file, long long size, const char* checksum_,
                         const char* algorithm) {
    return addJob(url, file, size, checksum_, algorithm);
}

int webChannel::removeJob(const char* url) {
    if (logging()) log("VRAXSecureWebChannel::removeJob: started with %s", orNull(url));
    if (url == nullptr) return (int)m_httpGetJobs.size();
    httpGetJob probe(url);
    long position = jobPosition(probe.url);
    if (position >= 0) {
        if (logging()) log("VRAXSecureWebChannel::removeJob: removed global entry");
        m_httpGetJobs.erase(m_httpGetJobs.begin() + position);
        // Later jobs moved down by one.
        m_jobIndex.erase(probe.url);
        dropDigestStream(probe.url);
        m_resumeRecords.erase(probe.url);
        for (size_t i = (size_t)position; i < m_httpGetJobs.size(); ++i) m_jobIndex[m_httpGetJobs[i].url] = i;
        ScopedLock lock(m_lock4);
        m_verifiedStale = true;
    }
    dropPieces(probe.url, true);
    return (int)m_httpGetJobs.size();
}

void webChannel::dropPieces(const std::string& url, bool logged) {
    for (size_t t = 0; t < m_batch.size(); ++t) {
        std::vector<httpGetJob>& jobs = m_batch[t]->jobs;
        for (auto job = jobs.begin(); job != jobs.end();) {
            if (job->url != url) {
                ++job;
                continue;
            }
            if (logged && logging()) log("VRAXSecureWebChannel::removeJob: removed entry from thread %d", (int)t);
            job = jobs.erase(job);
        }
    }
}

int webChannel::isValid(const char* file, const char* checksum_, const char* algorithm) {
    if (file == nullptr || checksum_ == nullptr || algorithm == nullptr) return 0;
    // Compared exactly as given: no lower-casing here.
    return checksum(file, algorithm) == checksum_ ? 1 : 0;
}

int webChannel::isValid_c(const char* file, const char* checksum_, const char* algorithm) {
    return isValid(file, checksum_, algorithm);
}

long webChannel::jobPosition(const std::string& url) {
    auto found = m_jobIndex.find(url);
    if (found != m_jobIndex.end() && found->second < m_httpGetJobs.size() && m_httpGetJobs[found->second].url == url)
        return (long)found->second;
    if (found == m_jobIndex.end() && m_jobIndex.size() == m_httpGetJobs.size()) return -1;
    // The index is out of step with the list (the list was changed directly):
    // rebuild it. The first entry of a URL counts.
    m_jobIndex.clear();
    for (size_t i = 0; i < m_httpGetJobs.size(); ++i) m_jobIndex.emplace(m_httpGetJobs[i].url, i);
    found = m_jobIndex.find(url);
    return found == m_jobIndex.end() ? -1 : (long)found->second;
}

long long webChannel::listedSize(const std::string& url) const {
    // Only reads the index: workers call it while the batch runs.
    auto found = m_jobIndex.find(url);
    if (found == m_jobIndex.end() || found->second >= m_httpGetJobs.size()) return 0;
    const httpGetJob& job = m_httpGetJobs[found->second];
    return job.url == url ? job.size : 0;
}

long webChannel::urlCounter(const std::string& url) const {
    auto found = m_downloaded.find(url);
    return found == m_downloaded.end() ? 0 : atomicLoad(found->second);
}
