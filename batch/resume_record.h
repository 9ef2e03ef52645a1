// The control record of a file that a later run may continue.
//
// While such a file is incomplete, a small text file beside the target
// ("<target>.resume") says which byte ranges of the target are on disk, and
// the validator (ETag or Last-Modified) of the server's file they came from.
// It is replaced whole (written under another name, then renamed over the old
// one), so a crash at any moment leaves either the old record or the new one,
// never a torn one. A record that names new bytes is written only after the
// target's data was synced, so that even a crash of the machine never leaves
// a record claiming bytes that are not on the disk. The syncs are batched: a
// keeper thread brings every record up to date once a second while a batch
// runs (keepRecords), so the workers never wait for the disk and a killed run
// loses at most about a second of each file.
#ifndef WEBCHANNEL_BATCH_RESUME_RECORD_H
#define WEBCHANNEL_BATCH_RESUME_RECORD_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
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
    // record names (within the target's length) with the record's validator,
    // or without a record the target's length when it is shorter than `size`
    // and has no holes (a file cut into pieces without a record has holes
    // where pieces were missing). Empty, with the reason in `why`, when
    // nothing can be trusted: a record that cannot be read, or is not one for
    // this URL and size, makes the file start over.
    // `length` receives the target's length (0 when there is none) and
    // `stored` whether a record is there.
    static Ranges onDisk(const std::string& target, const std::string& url, long long size, std::string& validator,
                         std::string& why, long long& length, bool& stored);

    // Starts the record with what is on disk and writes it at once (with
    // nothing kept, removes an earlier one: a target without a record is
    // trusted only as a plain prefix without holes).
    // `stored`: a record was found beside the target.
    void keep(const Ranges& ranges, const std::string& validator, bool stored);
    const Ranges& kept() const { return m_kept; }
    long long size() const { return m_size; }
    // Where the bytes go on after the record has noted them (the digest).
    void chain(BodyObserver* next) { m_next = next; }

    void written(int fd, long long offset, const char* data, size_t size) override;

    // The validator of the server's file the kept bytes came from; empty
    // when none is known (the file is then continued by its size alone).
    std::string validator() const;
    // The first answer's validator, kept when none is known yet.
    void noteValidator(const std::string& validator);
    // The validator of the kept bytes while the file goes on from them (not
    // started over); empty otherwise.
    std::string continuedFrom() const;
    // The server sent the whole file where a range was asked for (it does
    // not honour ranges, or the file changed): the kept bytes are given up and
    // the file is written again from its first byte, under the answer's
    // validator. True once, and only when something had been kept.
    bool startOver(const std::string& validator);
    // Syncs the target and writes what the last update did not cover; unless
    // `always`, only once a second has passed since the last update, so that
    // syncs come in batches, and in a `fast` batch (64 MiB between two looks
    // of the keeper) only after the file's first three seconds.
    void flush(bool always = true, bool fast = false);
    // Bytes written since the last update (0 once the file ended).
    long long unsaved() const;
    // The file verified: the record is removed and no longer written.
    void finish();
    // The file failed its verification: the record is removed, and the next
    // batch starts the file over.
    void discard();
    bool discarded() const;

private:
    void add(long long from, long long to);
    // Writes `ranges` as the record, unless the file was closed meanwhile
    // (`locked`: m_lock is held by the caller).
    bool save(const Ranges& ranges, const std::string& validator, bool locked);

    const std::string m_target;
    const std::string m_path;
    const std::string m_url;
    const long long m_size;
    BodyObserver* m_next = nullptr;
    mutable std::mutex m_lock;
    Ranges m_kept;  // what the batch found on disk
    Ranges m_done;  // what is on disk now
    std::string m_validator;
    // Bytes since the last update: also read without the lock by the
    // keeper, which looks at every record often (as is m_closed).
    std::atomic<long long> m_unsaved{0};
    bool m_stored = false;  // a record file is there (written, or found at the start)
    std::chrono::steady_clock::time_point m_saved = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_began = m_saved;  // the batch's start
    // One save at a time (the keeper's, a start-over's): they share the
    // record's temporary file.
    std::mutex m_saving;
    std::atomic<bool> m_closed{false};  // the file ended: verified or given up
    bool m_discarded = false;
    bool m_startedOver = false;
    bool m_saveFailed = false;
};

// Brings each record up to date once a second of its file, after a sync of
// its target, on a thread of its own while a batch runs; when destroyed, it
// brings the records of the files still incomplete up to date once more. A
// sync under way for a file that ended is left to the thread, which holds a
// share of the records and ends on its own: the batch never waits for it.
class RecordKeeper {
public:
    explicit RecordKeeper(std::vector<std::shared_ptr<ResumeRecord>> records);
    ~RecordKeeper();
    RecordKeeper(const RecordKeeper&) = delete;
    RecordKeeper& operator=(const RecordKeeper&) = delete;

private:
    struct Shared {
        std::mutex lock;
        std::condition_variable wake;
        bool stop = false;
        std::vector<std::shared_ptr<ResumeRecord>> records;
    };
    std::shared_ptr<Shared> m_shared;
};

// The ranges of [0, size) that `kept` lacks, in order.
std::vector<std::pair<long long, long long>> missingRanges(const ResumeRecord::Ranges& kept, long long size);
// The record's text, and reading it back: false unless the text is a whole
// record for this URL and size with ranges inside the file.
std::string formatResumeRecord(const std::string& url, long long size, const ResumeRecord::Ranges& ranges,
                               const std::string& validator = std::string());
bool parseResumeRecord(const std::string& text, const std::string& url, long long size, ResumeRecord::Ranges& ranges,
                       std::string* validator = nullptr);
// Whether the first `length` bytes of the file at `fd` hold no hole (a
// region never written); true where the file system cannot tell.
bool withoutHoles(int fd, long long length);

#endif
