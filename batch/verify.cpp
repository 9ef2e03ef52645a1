// Verifying finished files by digest or by size.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>

#include "batch/digest_stream.h"
#include "batch/resume_record.h"
#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "transport/descriptor_relief.h"

std::string webChannel::checksum(std::string file, std::string algorithm) {
    const EVP_MD* digest = EVP_get_digestbyname(algorithm.c_str());
    if (digest == nullptr) {
        if (logging()) log("VRAXSecureWebChannel::checksum: invalid algorithm %s", algorithm.c_str());
        return std::string();
    }
    int input = openRelieved(*this, [&] { return ::open(file.c_str(), O_RDONLY | O_CLOEXEC); });
    std::string text = input < 0 ? std::string() : hashDescriptor(input, digest);
    if (input >= 0) ::close(input);
    logChecksum(file, text);
    return text;
}

void webChannel::logChecksum(const std::string& file, const std::string& text) {
    if (!logging()) return;
    if (text.empty())
        log("VRAXSecureWebChannel::checksum: file %s cannot be opened", file.c_str());
    else
        log("VRAXSecureWebChannel::checksum: file %s has checksum %s", file.c_str(), text.c_str());
}

long long webChannel::filesize(std::string file) {
    // The length as the directory entry tells it: asking needs no open.
    struct stat info;
    if (stat(file.c_str(), &info) != 0) {
        if (logging()) log("VRAXSecureWebChannel::filesize: file %s cannot be opened", file.c_str());
        return -1;
    }
    return (long long)info.st_size;
}

int webChannel::checksumJob(threadData* record, unsigned int j) {
    return checksumPiece(record, record->jobs[j], (int)j);
}

int webChannel::checksumPiece(threadData* record, httpGetJob& job, int j) {
    auto counter = m_downloaded.find(job.url);
    if (counter == m_downloaded.end()) return kOk;
    // Several workers may finish pieces of one file at the same moment;
    // exactly one of them sees the count reach zero and verifies.
    long current = atomicLoad(counter->second);
    while (!atomicSwap(counter->second, current, current - 1)) {
    }
    if ((int)(current - 1) != 0) return kOk;

    ResumeRecord* resume = resumeRecord(job.url);
    if (job.algorithm.empty()) {
        // The size compared is this job's: for a file cut into pieces, the
        // size of the piece that finished last. A file that continued an
        // earlier run is held to its whole size: its pieces are only what
        // was missing; so is one cut by file order or the adaptive mode,
        // whose pieces are many and change hands.
        long long length = filesize(job.file);
        const long long listed = listedSize(job.url);
        long long expected = resume != nullptr ? resume->size() : job.size;
        if (resume == nullptr && listed > 0 && (hasParam(kParamFileOrder) || hasParam(kParamAdaptive)))
            expected = listed;
        if (expected > 0 && expected != length) {
            if (logging())
                log("VRAXSecureWebChannel::checksumJob: thread %d, job %d, expected size for file %s is %d, actual "
                    "is %d",
                    record->index, j, job.file.c_str(), (int)expected, (int)length);
            return kChecksumMismatch;
        }
    } else {
        std::string digest = fileDigest(job);
        if (digest.size() != job.checksum.size() || digest != job.checksum) {
            // Deliberate: the length is read and not used. Its one effect is the
            // "cannot be opened" line when the target has vanished, which the
            // log of a mismatch has always carried.
            filesize(job.file);
            if (logging())
                log("VRAXSecureWebChannel::checksumJob: thread %d, job %d, expected checksum for file %s is %s",
                    record->index, j, job.file.c_str(), job.checksum.c_str());
            return kChecksumMismatch;
        }
    }
    // Complete and verified: getNextDownloadedFile may hand it out now.
    if (resume != nullptr) resume->finish();
    settleProgress(&job);
    atomicStore(counter->second, kUrlVerified);
    noteVerified(job.url);
    return kOk;
}

int webChannel::checksumErrJob(threadData* record, unsigned int j) {
    return checksumErrPiece(record, record->jobs[j], (int)j);
}

int webChannel::checksumErrPiece(threadData* record, httpGetJob& job, int j) {
    // "registing" is spelled as hosts' log filters match it.
    if (logging())
        log("VRAXSecureWebChannel::checksumErrJob: thread %d, job %d, registing checksum mismatch for file %s",
            record->index, j, job.file.c_str());
    long long length = filesize(job.file);
    if (ResumeRecord* resume = resumeRecord(job.url)) resume->discard();
    atomicStore(record->error, (int)kChecksumMismatch);
    recordFailure(kChecksumMismatch, job.file);
    if (atomicLoad(m_handler) != nullptr) handleProgress(0, length, job.size, record->index);
    return kOk;
}

std::string webChannel::fileDigest(const httpGetJob& job) {
    auto stream = m_digestStreams.find(job.url);
    if (stream == m_digestStreams.end()) return checksum(job.file, job.algorithm);
    std::string text = stream->second->finish(job.file, [this](const std::string& path) {
        return openRelieved(*this, [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
    });
    if (stream->second->rehashed()) atomicAdd(m_filesRehashed, 1);
    logChecksum(job.file, text);  // the line hashing the file itself writes
    return text;
}

void webChannel::attachDigestStreams() {
    // A file whose pieces already hold bytes but that has no stream yet was
    // written without one: its stream starts stale and the file is hashed
    // from disk when it is complete.
    std::set<std::string> written;
    for (threadData* record : m_batch)
        for (const httpGetJob& job : record->jobs)
            if (atomicLoad(job.downloaded) > 0) written.insert(job.url);
    for (threadData* record : m_batch) {
        for (httpGetJob& job : record->jobs) {
            job.observer = nullptr;
            ResumeRecord* resume = resumeRecord(job.url);
            if (resume != nullptr) {
                job.observer = resume;
                resume->chain(nullptr);  // until this batch's stream, if any, is known
            }
            if (job.algorithm.empty()) continue;
            std::unique_ptr<DigestStream>& stream = m_digestStreams[job.url];
            if (stream == nullptr) {
                const EVP_MD* digest = EVP_get_digestbyname(job.algorithm.c_str());
                if (digest == nullptr) {
                    m_digestStreams.erase(job.url);  // checksum() reports the unknown algorithm
                    continue;
                }
                stream = std::make_unique<DigestStream>(digest, written.count(job.url) != 0);
                // The bytes an earlier run left are read back from the file
                // as the prefix reaches them.
                if (resume != nullptr) stream->seed(resume->kept(), job.file);
            }
            // The control record notes the bytes, then passes them on.
            if (resume != nullptr)
                resume->chain(stream.get());
            else
                job.observer = stream.get();
        }
    }
}

void webChannel::dropDigestStream(const std::string& url) {
    m_digestStreams.erase(url);
}
