// Planning a batch: every thread record gets about the same number of bytes,
// large files cut into byte ranges; or, with sizes unknown, whole files in
// turn.
#include <algorithm>

#include "channel/webChannel.h"

namespace {

// How far a worker's share may fall short of or run past the mean before a
// file is cut to make it fit.
constexpr long long kShareSlack = 262144;
// The pieces of a file fetched in file order: about an eighth of a round of
// the workers, within these bounds.
constexpr long long kOrderedPieceMin = 1LL << 20;
constexpr long long kOrderedPieceMax = 8LL << 20;

webChannel::threadData* makeRecord(webChannel* channel, unsigned index) {
    webChannel::threadData* record = new webChannel::threadData();
    record->channel = channel;
    record->index = (int)index;
    return record;
}

}  // namespace

void webChannel::initBatch() {
    // Work list: the jobs not planned yet. It grows at its end while pieces
    // are split off.
    std::vector<httpGetJob> work;
    long long total = 0;
    for (const httpGetJob& job : m_httpGetJobs) {
        if (m_downloaded[job.url] != 0) continue;  // planned earlier, or finished
        if (continues(job)) {
            total += continueJob(job, work);
            continue;
        }
        work.push_back(job);
        total += job.size;
    }
    if (logging()) log("VRAXSecureWebChannel::initBatch: jobs %d, size %lld", (int)work.size(), total);
    if (!hasParam(kParamUnknownSize)) {
        planShares(work, total);
    } else {
        dealWholeFiles(work);
    }
    if (!logging()) return;
    for (threadData* record : m_batch) {
        log("VRAXSecureWebChannel::initBatch: thread %d, size %lld:", record->index, record->size);
        for (const httpGetJob& job : record->jobs) log("%s : %lld - %lld", job.url.c_str(), job.start, job.end);
    }
    for (const auto& entry : m_downloaded)
        log("VRAXSecureWebChannel::initBatch: URL %s, jobs %ld", entry.first.c_str(), entry.second);
}

void webChannel::prepareRecords() {
    for (unsigned t = 0; t < m_threadNum; ++t) {
        if (t >= m_batch.size()) m_batch.push_back(makeRecord(this, t));
        m_batch[t]->size = 0;
    }
}

void webChannel::planShares(std::vector<httpGetJob>& work, long long total) {
    if (hasParam(kParamFileOrder)) {
        planFileOrder(work, total);
        return;
    }
    const long long share = total / m_threadNum;
    const long long lowMark = share - kShareSlack;
    const long long highMark = share + kShareSlack;
    size_t cursor = 0;
    prepareRecords();
    for (unsigned t = 0; t < m_threadNum; ++t) {
        threadData* record = m_batch[t];
        while (lowMark > 0 && cursor < work.size()) {
            httpGetJob job = work[cursor];
            if (record->size + job.size > highMark) {
                // Cut so that this thread ends exactly at the share; the rest
                // goes to the back of the list.
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
            if (record->size >= lowMark) break;
        }
    }
    // Leftovers, whole, each to the least-loaded record (the first of equals).
    for (; cursor < work.size(); ++cursor) {
        threadData* record = *std::min_element(m_batch.begin(), m_batch.end(), threadData::compare);
        record->jobs.push_back(work[cursor]);
        record->size += work[cursor].size;
        m_downloaded[work[cursor].url] += 1;
    }
}

void webChannel::planFileOrder(std::vector<httpGetJob>& work, long long total) {
    // A file larger than a worker's share is cut into small pieces, dealt in
    // file order to the least-loaded worker each: the workers then advance
    // through the file side by side, and its contiguous prefix, which the
    // digest follows, grows all the time instead of when a worker's whole
    // share has arrived. Only the last round of pieces is left to hash when
    // the last byte lands. Smaller files stay whole.
    const long long share = total / m_threadNum;
    prepareRecords();
    auto deal = [this](const httpGetJob& piece) {
        threadData* record = *std::min_element(m_batch.begin(), m_batch.end(), threadData::compare);
        record->jobs.push_back(piece);
        record->size += piece.size;
        m_downloaded[piece.url] += 1;
    };
    for (const httpGetJob& job : work) {
        long long piece = job.size;
        if (share > 0 && job.size > share)
            piece = std::min(kOrderedPieceMax, std::max(kOrderedPieceMin, job.size / (m_threadNum * 8)));
        // An empty file is one piece all the same: its one request makes it.
        if (job.size <= 0) deal(job);
        int part = job.part;
        for (long long at = 0; at < job.size; at += piece) {
            httpGetJob cut = job;
            cut.start = job.start + at;
            cut.size = std::min(piece, job.size - at);
            cut.end = cut.start + cut.size - 1;
            cut.part = part++;
            cut.downloaded = 0;
            deal(cut);
        }
    }
}

void webChannel::dealWholeFiles(std::vector<httpGetJob>& work) {
    // Sizes unknown: whole files, dealt to the workers in turn.
    for (size_t cursor = 0, t = 0; cursor < work.size(); ++cursor, t = (t + 1) % m_threadNum) {
        if (t < m_batch.size()) {
            m_batch[t]->jobs.push_back(work[cursor]);
        } else {
            threadData* record = makeRecord(this, (unsigned)t);
            record->jobs.push_back(work[cursor]);
            m_batch.push_back(record);
        }
        m_downloaded[work[cursor].url] += 1;  // a file continued may have several
    }
}
