// Progress reports to the host's callback.
#include <cstdint>

#include "channel/atomics.h"
#include "channel/webChannel.h"

void webChannel::setHandler(ProgressHandler handler, void* userData) {
    // The workers read both while a batch runs: the data goes first, so that
    // a worker that sees the new handler also sees its data.
    atomicStore(m_handlerData, userData);
    atomicStore(m_handler, handler);
}

long long webChannel::handleProgress(long long lastReported, long long done, long long total, int mode) {
    // `mode` is the reporting worker's number. Every worker reports: the
    // callback is documented to run on several workers at once, and a batch
    // whose first worker has finished must still be able to report and be
    // cancelled.
    (void)mode;
    long long result = lastReported;
    const ProgressHandler handler = atomicLoad(m_handler);
    if (handler == nullptr) return result;

    int failedJobs = 0;
    long long bytesDone = done;
    long long bytesTotal = total;
    if (!m_downloaded.empty()) bytesDone = bytesTotal = 0;

    // The counter of job `i` of the list, or of job `j` of a worker.
    const bool indexed = atomicLoad(m_batchRunning);
    auto listCounter = [&](size_t i) {
        return indexed ? atomicLoad(*m_jobCounters[i]) : urlCounter(m_httpGetJobs[i].url);
    };
    auto workerCounter = [&](const threadData* record, size_t j) {
        return indexed ? atomicLoad(*record->counters[j]) : urlCounter(record->jobs[j].url);
    };

    if (done / kProgressStep != lastReported && indexed) {
        failedJobs = atomicLoad(m_progressFinished);
        bytesDone = atomicLoad(m_progressDone);
        bytesTotal = atomicLoad(m_progressSize);
        result = bytesDone / kProgressStep;
    } else if (done / kProgressStep != lastReported) {
        // Files whose counter went negative are finished and verified (or
        // handed out); they are counted and their size is part of the total.
        for (size_t i = 0; i < m_httpGetJobs.size(); ++i) {
            if (listCounter(i) < 0) {
                ++failedJobs;
                bytesTotal += m_httpGetJobs[i].size;
            }
        }
        for (threadData* record : m_batch) {
            for (size_t j = 0; j < record->jobs.size(); ++j) {
                if (workerCounter(record, j) < 0) continue;
                bytesDone += atomicLoad(record->jobs[j].downloaded);
                bytesTotal += atomicLoad(record->jobs[j].size);
            }
        }
        result = bytesDone / kProgressStep;
    }

    bool cancel = false;
    handler(cancel, failedJobs, bytesDone, bytesTotal, blamedJob(indexed), atomicLoad(m_handlerData));
    return cancel ? -1 : result;
}

int webChannel::blamedJob(bool indexed) {
    // The first pending job of the first worker that failed for a reason
    // other than cancellation.
    const std::string* blamed = nullptr;
    for (threadData* record : m_batch) {
        int code = atomicLoad(record->error);
        if (code == 0 || code == kCancelled) continue;
        for (size_t j = 0; j < record->jobs.size() && blamed == nullptr; ++j) {
            long counter = indexed ? atomicLoad(*record->counters[j]) : urlCounter(record->jobs[j].url);
            if (counter >= 0) blamed = &record->jobs[j].url;
        }
        if (blamed != nullptr) break;
    }
    if (blamed == nullptr) return -1;
    // While a batch runs the index is in step with the list and nobody
    // changes it; otherwise it may be stale, and the list is searched.
    auto position = indexed ? m_jobIndex.find(*blamed) : m_jobIndex.end();
    if (position != m_jobIndex.end()) return (int)position->second;
    for (size_t i = 0; i < m_httpGetJobs.size(); ++i) {
        if (m_httpGetJobs[i].url == *blamed) return (int)i;
    }
    return -1;
}

void webChannel::tallyProgress() {
    // The same sums as the recount of a report, taken once.
    long long done = 0, size = 0;
    int finished = 0;
    m_progressTallies.assign(m_httpGetJobs.size(), {0, 0});
    for (size_t i = 0; i < m_httpGetJobs.size(); ++i) {
        if (urlCounter(m_httpGetJobs[i].url) >= 0) continue;
        ++finished;
        size += m_httpGetJobs[i].size;
    }
    for (threadData* record : m_batch) {
        for (httpGetJob& job : record->jobs) {
            long position = jobPosition(job.url);
            job.listed = position < 0 ? SIZE_MAX : (size_t)position;
            job.accountedDone = atomicLoad(job.downloaded);
            job.accountedSize = atomicLoad(job.size);
            if (urlCounter(job.url) < 0) job.accountedDone = job.accountedSize = 0;  // finished: not pending
            done += job.accountedDone;
            size += job.accountedSize;
            if (position >= 0) {
                m_progressTallies[(size_t)position].first += job.accountedDone;
                m_progressTallies[(size_t)position].second += job.accountedSize;
            }
        }
    }
    atomicStore(m_progressDone, done);
    atomicStore(m_progressSize, size);
    atomicStore(m_progressFinished, finished);
}

size_t webChannel::accountProgress(httpGetJob* job) {
    if (job == nullptr) return SIZE_MAX;
    const size_t position = job->listed;
    const long long done = atomicLoad(job->downloaded) - job->accountedDone,
                    size = atomicLoad(job->size) - job->accountedSize;
    if (done == 0 && size == 0) return position;
    job->accountedDone += done;
    job->accountedSize += size;
    atomicAdd(m_progressDone, done);
    atomicAdd(m_progressSize, size);
    if (position < m_progressTallies.size()) {
        atomicAdd(m_progressTallies[position].first, done);
        atomicAdd(m_progressTallies[position].second, size);
    }
    return position;
}

void webChannel::settleProgress(httpGetJob* job) {
    const size_t position = accountProgress(job);
    if (position >= m_progressTallies.size()) return;
    // Every piece of the file is done and accounted: its pieces leave the
    // pending sums, and the file joins the finished ones with its listed size.
    const std::pair<long long, long long> pieces = m_progressTallies[position];
    atomicAdd(m_progressDone, -pieces.first);
    atomicAdd(m_progressSize, m_httpGetJobs[position].size - pieces.second);
    atomicAdd(m_progressFinished, 1);
}
