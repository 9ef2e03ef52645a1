// Continuing files an earlier run left incomplete: planning only what is
// missing, and the control records that say what is on disk.
#include <unistd.h>

#include <cerrno>

#include "batch/resume_record.h"
#include "channel/webChannel.h"

bool webChannel::continues(const httpGetJob& job) {
    return job.size > 0 && job.params.count(kParamContinue) != 0;
}

ResumeRecord* webChannel::resumeRecord(const std::string& url) const {
    auto found = m_resumeRecords.find(url);
    return found == m_resumeRecords.end() ? nullptr : found->second.get();
}

long long webChannel::continueJob(const httpGetJob& job, std::vector<httpGetJob>& work) {
    std::string why, validator;
    long long length = 0;
    bool stored = false;
    ResumeRecord::Ranges kept = ResumeRecord::onDisk(job.file, job.url, job.size, validator, why, length, stored);
    // Nothing to trust: the file starts over from an empty target, as a new
    // job's does.
    if (kept.empty() && length > 0 && truncate(job.file.c_str(), 0) != 0 && errno != ENOENT && logging())
        log("VRAXSecureWebChannel::initBatch: cannot empty %s: %s", job.file.c_str(), systemText(errno).c_str());
    // A file that is all there is verified through its last byte, fetched
    // again: the one request also tells that the server still has the file.
    if (!kept.empty() && kept.begin()->first == 0 && kept.begin()->second == job.size) kept.begin()->second -= 1;
    if (!kept.empty() && kept.begin()->second <= kept.begin()->first) kept.erase(kept.begin());

    std::shared_ptr<ResumeRecord>& record = m_resumeRecords[job.url];
    record = std::make_shared<ResumeRecord>(job.file, job.url, job.size);
    record->keep(kept, kept.empty() ? std::string() : validator, stored);
    long long onDisk = 0;
    for (const auto& range : kept) onDisk += range.second - range.first;
    if (logging())
        log("VRAXSecureWebChannel::initBatch: continuing %s with %lld of %lld bytes on disk (%s)", job.file.c_str(),
            onDisk, job.size, why.c_str());

    long long missing = 0;
    int part = 0;
    for (const auto& gap : missingRanges(kept, job.size)) {
        httpGetJob piece = job;
        piece.start = gap.first;
        piece.end = gap.second - 1;
        piece.size = gap.second - gap.first;
        piece.part = part++;
        piece.downloaded = 0;
        work.push_back(piece);
        missing += piece.size;
    }
    return missing;
}

std::unique_ptr<RecordKeeper> webChannel::keepResumeRecords() {
    std::vector<std::shared_ptr<ResumeRecord>> records;
    for (auto& entry : m_resumeRecords) records.push_back(entry.second);
    return std::make_unique<RecordKeeper>(std::move(records));
}

void webChannel::flushResumeRecords() {
    for (auto& entry : m_resumeRecords) entry.second->flush();
}
