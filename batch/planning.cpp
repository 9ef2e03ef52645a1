// Planning a batch: every thread record gets about the same number of bytes,
// large files cut into byte ranges; or, with sizes unknown, whole files in
// turn.
#include <algorithm>

#include "channel/webChannel.h"

namespace {

constexpr long long kSlack = 262144;

}  // namespace

void webChannel::initBatch() {
    // Work list: the jobs not planned yet. It grows at its end while pieces
    // are split off.
    std::vector<httpGetJob> work;
    long long total = 0;
    for (const httpGetJob& job : m_httpGetJobs) {
        if (m_downloaded[job.url] != 0) continue;  // planned earlier, or finished
        work.push_back(job);
        total += job.size;
    }
    if (logging()) log("VRAXSecureWebChannel::initBatch: jobs %d, size %lld", (int)work.size(), total);

    const long long share = total / m_threadNum;
    const long long lowMark = share - kSlack;
    const long long highMark = share + kSlack;
    size_t cursor = 0;
    auto makeRecord = [this](unsigned index) {
        threadData* record = new threadData();
        record->channel = this;
        record->index = (int)index;
        return record;
    };

    if (!hasParam(kParamUnknownSize)) {
        for (unsigned t = 0; t < m_threadNum; ++t) {
            bool created = t >= m_batch.size();
            threadData* record = created ? makeRecord(t) : m_batch[t];
            record->size = 0;
            if (lowMark > 0) {
                do {
                    if (cursor >= work.size()) break;
                    httpGetJob job = work[cursor];
                    if (record->size + job.size > highMark) {
                        // Cut so that this thread ends exactly at the share;
                        // the rest goes to the back of the list.
                        long long take = share - record->size;
                        httpGetJob rest = job;
                        rest.start = job.start + take;
                        rest.size = job.size - take;
                        rest.part = job.part + 1;
                        rest.downloaded = 0;
                        job.size = take;
                        job.end = job.start + take - 1;
                        work[cursor] = job;
                        work.push_back(rest);
                    }
                    record->jobs.push_back(job);
                    record->size += job.size;
                    m_downloaded[job.url] += 1;
                    ++cursor;
                } while (record->size < lowMark);
            }
            if (created) m_batch.push_back(record);
        }
        // Leftovers, whole, each to the least-loaded record (the first of
        // equals).
        for (; cursor < work.size(); ++cursor) {
            threadData* record = *std::min_element(m_batch.begin(), m_batch.end(), threadData::compare);
            record->jobs.push_back(work[cursor]);
            record->size += work[cursor].size;
            m_downloaded[work[cursor].url] += 1;
        }
    } else {
        for (unsigned t = 0; cursor < work.size(); ++cursor, t = (t + 1) % m_threadNum) {
            if (t < m_batch.size()) {
                m_batch[t]->jobs.push_back(work[cursor]);
            } else {
                threadData* record = makeRecord(t);
                record->jobs.push_back(work[cursor]);
                m_batch.push_back(record);
            }
            m_downloaded[work[cursor].url] = 1;
        }
    }

    if (!logging()) return;
    for (threadData* record : m_batch) {
        log("VRAXSecureWebChannel::initBatch: thread %d, size %lld:", record->index, record->size);
        for (const httpGetJob& job : record->jobs) log("%s : %lld - %lld", job.url.c_str(), job.start, job.end);
    }
    for (const auto& entry : m_downloaded)
        log("VRAXSecureWebChannel::initBatch: URL %s, jobs %ld", entry.first.c_str(), entry.second);
}
