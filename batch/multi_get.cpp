// The batch driver, its worker threads, and handing finished files out.
#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "channel/atomics.h"
#include "channel/webChannel.h"
#include "transport/sigpipe.h"
#include "util/fs.h"

namespace {

long counterOf(const std::map<std::string, long>& counters, const std::string& url) {
    auto found = counters.find(url);
    return found == counters.end() ? 0 : atomicLoad(found->second);
}

}  // namespace

int webChannel::httpMultiGet(bool finalize) {
    if (logging()) log("VRAXSecureWebChannel::httpMultiGet: started with %d URLs", (int)m_httpGetJobs.size());
    m_errorCode = 0;
    m_errorMessage.clear();
    m_errorContext.clear();
    if (m_buffer == nullptr || m_incomplete == nullptr) return kInvalidArgument;  // init() not called
    memset(m_incomplete, 0, sizeof(int) * m_threadNum);

    for (const httpGetJob& job : m_httpGetJobs) {
        if (m_batch.empty()) {
            // First batch of this channel: addJob already created or emptied
            // every target.
            m_downloaded[job.url] = 0;
            if (logging()) log("VRAXSecureWebChannel::httpMultiGet: m_batch.size=0");
        } else if (m_downloaded[job.url] == 0) {
            // Added since the last batch, or failed its verification: the
            // file is fetched again from its first byte.
            if (logging()) log("VRAXSecureWebChannel::httpMultiGet: m_httpGetJobs.url=0");
            if (!job.file.empty()) remove_file(job.file);
        }
    }

    initBatch();
    // Bring the URL index up to date before the workers read it, and let
    // the next hand-out start from the counters.
    if (!m_httpGetJobs.empty()) jobPosition(m_httpGetJobs.front().url);
    pthread_mutex_lock(&m_lock4);
    m_verifiedStale = true;
    pthread_mutex_unlock(&m_lock4);

    // Progress reports run on every worker after every block; they read the
    // counters through these pointers instead of searching the map by URL.
    // The map does not change while the workers run, so they stay valid.
    m_jobCounters.clear();
    for (const httpGetJob& job : m_httpGetJobs) m_jobCounters.push_back(&m_downloaded[job.url]);
    for (threadData* record : m_batch) {
        record->counters.clear();
        for (const httpGetJob& job : record->jobs) record->counters.push_back(&m_downloaded[job.url]);
    }
    m_batchRunning = true;

    std::vector<pthread_t> threads;
    threads.reserve(m_batch.size());
    int result = kOk;
    {
        SigpipeIgnore sigpipe;
        for (threadData* record : m_batch) atomicStore(record->error, 0);
        for (threadData* record : m_batch) {
            if (record->jobs.empty()) continue;
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
    m_batchRunning = false;
    if (result != kOk) return result;

    if (m_handler != nullptr) handleProgress(-1, 0, 0, 0);
    if (logging()) log("VRAXSecureWebChannel::httpMultiGet: download complete");

    // What stays in the thread lists is exactly the unfinished work, which
    // the next batch resumes.
    for (threadData* record : m_batch) {
        std::vector<httpGetJob>& jobs = record->jobs;
        jobs.erase(std::remove_if(jobs.begin(), jobs.end(),
                                  [this](const httpGetJob& job) { return counterOf(m_downloaded, job.url) < 1; }),
                   jobs.end());
    }
    if (finalize) finalizeBatch();

    int pending = 0;
    for (const httpGetJob& job : m_httpGetJobs) {
        if (counterOf(m_downloaded, job.url) < 0) continue;
        if (logging()) log("VRAXSecureWebChannel::httpMultiGet: pending=%d\n", pending);
        ++pending;
    }
    if (logging()) log("VRAXSecureWebChannel::httpMultiGet: batch job is complete with %d pending URLs", pending);
    return pending;
}

void* webChannel::executeHttpGet(void* argument) {
    threadData* record = static_cast<threadData*>(argument);
    webChannel* channel = record->channel;
    if (logging())
        log("VRAXSecureWebChannel::executeHttpGet: thread %d started with %d urls", record->index,
            (int)record->jobs.size());
    for (unsigned j = 0; j < record->jobs.size(); ++j) {
        // A failed job ends this worker's work for the batch.
        if (channel->executeJob(record, j) != kOk) break;
    }
    return nullptr;
}

int webChannel::executeJob(threadData* record, unsigned int j) {
    // A piece finished in an earlier batch was counted against its file
    // then; counting it again would verify the file before its last piece
    // arrived, and mark it verified when that piece came in unchecked.
    const httpGetJob& job = record->jobs[j];
    const bool finishedBefore = atomicLoad(job.downloaded) == atomicLoad(job.size) && job.size >= 1;
    int result = downloadJob(record, j);
    if (result != kOk || finishedBefore) return result;
    result = checksumJob(record, j);
    if (result != kOk) checksumErrJob(record, j);
    return result;
}

int webChannel::downloadJob(threadData* record, unsigned int j) {
    httpGetJob& job = record->jobs[j];
    if (logging())
        log("VRAXSecureWebChannel::downloadJob: thread %d, job %d started with %lld/%lld", record->index, (int)j,
            atomicLoad(job.downloaded), atomicLoad(job.size));
    // Finished in an earlier batch.
    if (atomicLoad(job.downloaded) == atomicLoad(job.size) && job.size >= 1) return kOk;
    int result = fetch(job.url, job.file, &job, record);
    if (logging())
        log("VRAXSecureWebChannel::downloadJob: thread %d, job %d finished with result %d", record->index, (int)j,
            result);
    if (result != kOk) {
        atomicStore(record->error, result);
        recordFailure(result, job.file);
    }
    return result;
}

int webChannel::getNextDownloadedFile() {
    // The answer is the first job, in addJob order, whose file is complete
    // and verified (-1); it becomes handed out (-2). Verified positions are
    // kept in a set, so that a host asking after every file of a batch of
    // thousands does not walk the whole list each time.
    pthread_mutex_lock(&m_lock4);
    if (m_verifiedStale) {
        m_verified.clear();
        for (size_t i = 0; i < m_httpGetJobs.size(); ++i) {
            auto found = m_downloaded.find(m_httpGetJobs[i].url);
            if (found != m_downloaded.end() && atomicLoad(found->second) == -1) m_verified.insert(i);
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
        long expected = -1;
        if (atomicSwap(found->second, expected, -2L)) {
            result = (int)position;
            break;
        }
    }
    pthread_mutex_unlock(&m_lock4);
    return result;
}

void webChannel::noteVerified(const std::string& url) {
    // The job list does not change during a batch; the index was brought up
    // to date before the workers started.
    auto found = m_jobIndex.find(url);
    if (found == m_jobIndex.end()) return;
    pthread_mutex_lock(&m_lock4);
    m_verified.insert(found->second);
    pthread_mutex_unlock(&m_lock4);
}

void webChannel::finalizeBatch() {
    for (threadData* record : m_batch) emptyPool(record->connections, record->retired);
}
