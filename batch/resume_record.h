// The control record of a file that a later run may continue.
//
// While such a file is incomplete, a small text file beside the target
// ("<target>.resume") says which byte ranges of the target are on disk. It
// is replaced whole (written under another name, then renamed over the old
// one), so a crash at any moment leaves either the old record or the new one,
// never a torn one; it is not synced, so a crash of the machine may lose the
// last updates, never claim bytes that are not there. Bytes reach the file
// before the record names them. Updates come at most every 4 MiB of new bytes
// or every second, whichever comes first, so a killed run loses at most that
// much of each piece.
#ifndef WEBCHANNEL_BATCH_RESUME_RECORD_H
#define WEBCHANNEL_BATCH_RESUME_RECORD_H

#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "http/body.h"

class ResumeRecord : public BodyObserver {
public:
    // Byte ranges, start -> end (exclusive), disjoint and not touching.
    using Ranges = std::map<long long, long long>;

    ResumeRecord(std::string target, std::string url, long long size);
    ~ResumeRecord() override = default;
    ResumeRecord(const ResumeRecord&) = delete;
    ResumeRecord& operator=(const ResumeRecord&) = delete;

    static std::string pathFor(const std::string& target) { return target + ".resume"; }

    // What an earlier run left of the file in `target`: the ranges its
    // record names (within the target's length), or without a record the
    // target's length when it is shorter than `size`. Empty, with the reason
    // in `why`, when nothing can be trusted.
    static Ranges onDisk(const std::string& target, const std::string& url, long long size, std::string& why);

    // Starts the record with what is on disk and writes it at once, so that
    // every byte the batch writes afterwards is covered by a record.
    void keep(const Ranges& ranges);
    const Ranges& kept() const { return m_kept; }
    long long size() const { return m_size; }
    // Where the bytes go on after the record has noted them (the digest).
    void chain(BodyObserver* next) { m_next = next; }

    void written(int fd, long long offset, const char* data, size_t size) override;

    // The server sent the whole file where a range was asked for: the kept
    // bytes are given up and the file is written again from its first byte.
    // True once, and only when something had been kept.
    bool startOver();
    // Writes what the last update did not cover.
    void flush();
    // The file verified: the record is removed and no longer written.
    void finish();
    // The file failed its verification: the record is removed, and the next
    // batch starts the file over.
    void discard();
    bool discarded() const;

private:
    void add(long long from, long long to);
    void save();

    const std::string m_target;
    const std::string m_path;
    const std::string m_url;
    const long long m_size;
    BodyObserver* m_next = nullptr;
    mutable std::mutex m_lock;
    Ranges m_kept;  // what the batch found on disk
    Ranges m_done;  // what is on disk now
    long long m_unsaved = 0;
    timespec m_saved{};
    bool m_closed = false;
    bool m_discarded = false;
    bool m_startedOver = false;
    bool m_saveFailed = false;
};

// The ranges of [0, size) that `kept` lacks, in order.
std::vector<std::pair<long long, long long>> missingRanges(const ResumeRecord::Ranges& kept, long long size);
// The record's text, and reading it back: false unless the text is a whole
// record for this URL and size with ranges inside the file.
std::string formatResumeRecord(const std::string& url, long long size, const ResumeRecord::Ranges& ranges);
bool parseResumeRecord(const std::string& text, const std::string& url, long long size, ResumeRecord::Ranges& ranges);

#endif
