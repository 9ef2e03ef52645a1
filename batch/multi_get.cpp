// The batch driver, its worker threads, and handing finished files out.
#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "batch/resume_record.h"
#include "batch/work_share.h"
#include "channel/atomics.h"
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"
#include "transport/sigpipe.h"
#include "util/fs.h"

int webChannel::httpMultiGet(bool finalize) {
    if (logging()) log("VRAXSecureWebChannel::httpMultiGet: started with %d URLs", (int)m_httpGetJobs.size());
    clearError();
    if (m_buffer == nullptr || m_incomplete == nullptr) return kInvalidArgument;  // init() not called
    memset(m_incomplete, 0, sizeof(int) * m_threadNum);
    prepareTargets();
    initBatch();
    indexBatch();
    // The adaptive mode lets idle workers take work from busy ones; sizes
    // unknown, files are only moved whole.
    if (hasParam(kParamAdaptive)) m_share = std::make_unique<WorkShare>(*this, m_batch);
    int result;
    {
        std::unique_ptr<RecordKeeper> keeper = keepResumeRecords();
        result = runWorkers();
    }
    if (m_share != nullptr) {
        m_share->settle(m_batch);
        m_share.reset();
    }
    flushResumeRecords();
    if (result != kOk) return result;

    if (atomicLoad(m_handler) != nullptr) handleProgress(-1, 0, 0, 0);
    if (logging()) log("VRAXSecureWebChannel::httpMultiGet: download complete");
    // What stays in the thread lists is exactly the unfinished work, which
    // the next batch resumes.
    for (threadData* record : m_batch) {
        std::vector<httpGetJob>& jobs = record->jobs;
        jobs.erase(
            std::remove_if(jobs.begin(), jobs.end(), [this](const httpGetJob& job) { return urlCounter(job.url) < 1; }),
            jobs.end());
    }
    if (finalize) finalizeBatch();

    int pending = 0;
    for (const httpGetJob& job : m_httpGetJobs) {
        if (urlCounter(job.url) < 0) continue;
        // The line's own line feed (an empty line follows it) is kept as logs have always shown it.
        if (logging()) log("VRAXSecureWebChannel::httpMultiGet: pending=%d\n", pending);
        ++pending;
    }
    if (logging()) log("VRAXSecureWebChannel::httpMultiGet: batch job is complete with %d pending URLs", pending);
    return pending;
}

void webChannel::prepareTargets() {
    for (const httpGetJob& job : m_httpGetJobs) {
        // A file that continues keeps its bytes, unless it failed its
        // verification: then it starts over like any other.
        const ResumeRecord* record = resumeRecord(job.url);
        const bool keep = continues(job) && (record == nullptr || !record->discarded());
        // A file that starts over is hashed afresh; a verified one is done.
        if (m_batch.empty() || urlCounter(job.url) <= 0) {
            dropDigestStream(job.url);
            m_resumeRecords.erase(job.url);
        }
        if (m_batch.empty()) {
            // First batch of this channel: addJob already created or emptied
            // every target.
            m_downloaded[job.url] = 0;
            if (logging()) log("VRAXSecureWebChannel::httpMultiGet: m_batch.size=0");
        } else if (m_downloaded[job.url] == 0) {
            // Added since the last batch, or failed its verification: the
            // file is fetched again from its first byte.
            if (logging()) log("VRAXSecureWebChannel::httpMultiGet: m_httpGetJobs.url=0");
            if (!job.file.empty() && !keep) remove_file(job.file);
        }
    }
}

void webChannel::indexBatch() {
    // Bring the URL index up to date before the workers read it, and let
    // the next hand-out start from the counters.
    if (!m_httpGetJobs.empty()) jobPosition(m_httpGetJobs.front().url);
    {
        ScopedLock lock(m_lock4);
        m_verifiedStale = true;
    }
    // Progress reports run on every worker after every block; they read the
    // counters through these pointers instead of searching the map by URL.
    // The map does not change while the workers run, so they stay valid.
    attachDigestStreams();
    tallyProgress();
    m_jobCounters.clear();
    for (const httpGetJob& job : m_httpGetJobs) m_jobCounters.push_back(&m_downloaded[job.url]);
    for (threadData* record : m_batch) {
        record->counters.clear();
        for (const httpGetJob& job : record->jobs) record->counters.push_back(&m_downloaded[job.url]);
    }
}

int webChannel::runWorkers() {
    std::vector<pthread_t> threads;
    threads.reserve(m_batch.size());
    int result = kOk;
    atomicStore(m_batchRunning, true);
    {
        SigpipeIgnore sigpipe;
        for (threadData* record : m_batch) atomicStore(record->error, 0);
        for (threadData* record : m_batch) {
            // In the adaptive mode a worker without work of its own takes some.
            if (record->jobs.empty() && m_share == nullptr) continue;
            pthread_t thread;
            if (pthread_create(&thread, nullptr, executeHttpGet, record) != 0) {
                // Workers already running use the channel: they are waited
                // for before the failure is reported.
                result = kInvalidArgument;
                break;
            }
            threads.push_back(thread);
        }
        for (pthread_t thread : threads) pthread_join(thread, nullptr);
    }
    atomicStore(m_batchRunning, false);
    return result;
}

void* webChannel::executeHttpGet(void* argument) {
    threadData* record = static_cast<threadData*>(argument);
    webChannel* channel = record->channel;
    if (logging())
        log("VRAXSecureWebChannel::executeHttpGet: thread %d started with %d urls", record->index,
            (int)record->jobs.size());
    if (channel->m_share != nullptr) {
        channel->runShared(record);
        return nullptr;
    }
    for (unsigned j = 0; j < record->jobs.size(); ++j) {
        // A failed job ends this worker's work for the batch.
        if (channel->executeJob(record, j) != kOk) break;
    }
    return nullptr;
}

void webChannel::runShared(threadData* record) {
    WorkShare& share = *m_share;
    const int self = record->index;
    for (httpGetJob* job; (job = share.next(self)) != nullptr;) {
        int result = executePiece(record, *job, pieceNumber(record, job));
        // Pieces written from the same whole-file answer: verified when they
        // are complete, queued again when the answer ended before them.
        std::vector<httpGetJob*> again;
        for (httpGetJob* piece : share.takeFolded(self)) {
            if (atomicLoad(piece->downloaded) < atomicLoad(piece->size)) {
                again.push_back(piece);
                continue;
            }
            const int verified = checksumPiece(record, *piece, pieceNumber(record, piece));
            if (verified != kOk) checksumErrPiece(record, *piece, pieceNumber(record, piece));
            if (result == kOk) result = verified;
        }
        share.requeue(self, again);
        share.ended(self, result != kOk);
        // A failed job ends this worker's work for the batch.
        if (result != kOk) break;
    }
}

int webChannel::pieceNumber(const threadData* record, const httpGetJob* job) {
    // Pieces taken from other workers, or made by a cut, have no number in
    // this worker's list.
    if (record->jobs.empty() || job < record->jobs.data() || job >= record->jobs.data() + record->jobs.size())
        return -1;
    return (int)(job - record->jobs.data());
}

int webChannel::executeJob(threadData* record, unsigned int j) {
    return executePiece(record, record->jobs[j], (int)j);
}

int webChannel::executePiece(threadData* record, httpGetJob& job, int number) {
    // A piece finished in an earlier batch was counted against its file
    // then; counting it again would verify the file before its last piece
    // arrived, and mark it verified when that piece came in unchecked.
    const bool finishedBefore = atomicLoad(job.downloaded) == atomicLoad(job.size) && job.size >= 1;
    int result = downloadPiece(record, job, number);
    if (result != kOk || finishedBefore) return result;
    result = checksumPiece(record, job, number);
    if (result != kOk) checksumErrPiece(record, job, number);
    return result;
}

int webChannel::downloadJob(threadData* record, unsigned int j) {
    return downloadPiece(record, record->jobs[j], (int)j);
}

int webChannel::downloadPiece(threadData* record, httpGetJob& job, int number) {
    if (logging())
        log("VRAXSecureWebChannel::downloadJob: thread %d, job %d started with %lld/%lld", record->index, number,
            atomicLoad(job.downloaded), atomicLoad(job.size));
    // Finished in an earlier batch.
    if (atomicLoad(job.downloaded) == atomicLoad(job.size) && job.size >= 1) return kOk;
    int result = fetch(job.url, job.file, &job, record);
    if (logging())
        log("VRAXSecureWebChannel::downloadJob: thread %d, job %d finished with result %d", record->index, number,
            result);
    if (result != kOk) {
        atomicStore(record->error, result);
        recordFailure(result, job.file);
    }
    return result;
}

int webChannel::getNextDownloadedFile() {
    // The answer is the first job, in addJob order, whose file is complete
    // and verified; it becomes handed out. Verified positions are
    // kept in a set, so that a host asking after every file of a batch of
    // thousands does not walk the whole list each time.
    ScopedLock lock(m_lock4);
    if (m_verifiedStale) {
        m_verified.clear();
        for (size_t i = 0; i < m_httpGetJobs.size(); ++i) {
            if (urlCounter(m_httpGetJobs[i].url) == kUrlVerified) m_verified.insert(i);
        }
        m_verifiedStale = false;
    }
    int result = -1;
    while (!m_verified.empty()) {
        size_t position = *m_verified.begin();
        m_verified.erase(m_verified.begin());
        if (position >= m_httpGetJobs.size()) continue;
        auto found = m_downloaded.find(m_httpGetJobs[position].url);
        if (found == m_downloaded.end()) continue;
        // Several workers' callbacks may ask at the same moment: each file
        // is handed out once.
        long expected = kUrlVerified;
        if (atomicSwap(found->second, expected, kUrlHandedOut)) {
            result = (int)position;
            break;
        }
    }
    return result;
}

void webChannel::noteVerified(const std::string& url) {
    // The job list does not change during a batch; the index was brought up
    // to date before the workers started.
    auto found = m_jobIndex.find(url);
    if (found == m_jobIndex.end()) return;
    ScopedLock lock(m_lock4);
    m_verified.insert(found->second);
}

void webChannel::finalizeBatch() {
    for (threadData* record : m_batch) emptyPool(record->connections, record->retired);
}
