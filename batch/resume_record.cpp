#include "batch/resume_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <thread>

#include "channel/webChannel.h"

namespace {

// How often the keeper looks at the records, and when one is brought up to
// date (after a sync of its target): once so long.
constexpr auto kKeepInterval = std::chrono::milliseconds(250);
constexpr auto kSaveInterval = std::chrono::seconds(1);
// Once the files of a batch brought 64 MiB a second (this much between two
// looks), they are left unsaved for their first seconds: a sync of that much
// costs a fast download more than a crash would lose, most such files are
// done by then, and a process cannot exit while a sync of its is under way.
constexpr long long kFastBetweenLooks = 16LL << 20;
constexpr auto kFastFileGrace = std::chrono::seconds(3);
// A record names a few ranges; anything much larger is not one.
constexpr long long kMaxRecordBytes = 1 << 20;
constexpr char kMagic[] = "webchannel-resume 1";

bool readSmallFile(const std::string& path, std::string& text) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char block[4096];
    bool ok = true;
    for (;;) {
        ssize_t got = ::read(fd, block, sizeof block);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            ok = got == 0;
            break;
        }
        text.append(block, (size_t)got);
        if ((long long)text.size() > kMaxRecordBytes) {
            ok = false;
            break;
        }
    }
    ::close(fd);
    return ok;
}

bool writeWhole(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t put = ::write(fd, text.data() + done, text.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += (size_t)put;
    }
    return true;
}

}  // namespace

std::vector<std::pair<long long, long long>> missingRanges(const ResumeRecord::Ranges& kept, long long size) {
    std::vector<std::pair<long long, long long>> gaps;
    long long at = 0;
    for (const auto& range : kept) {
        if (range.first >= size) break;
        if (range.first > at) gaps.emplace_back(at, range.first);
        if (range.second > at) at = range.second;
    }
    if (at < size) gaps.emplace_back(at, size);
    return gaps;
}

std::string formatResumeRecord(const std::string& url, long long size, const ResumeRecord::Ranges& ranges,
                               const std::string& validator) {
    std::string text = std::string(kMagic) + "\nurl " + url + "\nsize " + std::to_string(size) + "\n";
    if (!validator.empty()) text += "validator " + validator + "\n";
    for (const auto& range : ranges)
        text += "range " + std::to_string(range.first) + " " + std::to_string(range.second) + "\n";
    // The count at the end tells a whole record from one cut short.
    return text + "end " + std::to_string(ranges.size()) + "\n";
}

bool parseResumeRecord(const std::string& text, const std::string& url, long long size, ResumeRecord::Ranges& ranges,
                       std::string* validator) {
    std::istringstream in(text);
    std::string line;
    if (!std::getline(in, line) || line != kMagic) return false;
    if (!std::getline(in, line) || line != "url " + url) return false;
    if (!std::getline(in, line) || line != "size " + std::to_string(size)) return false;
    ranges.clear();
    long long last = -1;
    bool first = true;
    while (std::getline(in, line)) {
        // The validator, when the server gave one, comes before the ranges.
        static const std::string kValidator = "validator ";
        if (first && line.compare(0, kValidator.size(), kValidator) == 0) {
            if (validator != nullptr) *validator = line.substr(kValidator.size());
            first = false;
            continue;
        }
        first = false;
        long long from = 0, to = 0;
        char tail = 0;
        size_t count = 0;
        if (sscanf(line.c_str(), "end %zu%c", &count, &tail) == 1)
            return count == ranges.size() && !std::getline(in, line);
        if (sscanf(line.c_str(), "range %lld %lld%c", &from, &to, &tail) != 2) return false;
        // Ranges come in order, apart, and inside the file.
        if (from <= last || from >= to || to > size) return false;
        ranges.emplace(from, to);
        last = to;
    }
    return false;
}

ResumeRecord::ResumeRecord(std::string target, std::string url, long long size)
    : m_target(std::move(target)), m_path(pathFor(m_target)), m_url(std::move(url)), m_size(size) {}

bool withoutHoles(int fd, long long length) {
    const off_t hole = lseek(fd, 0, SEEK_HOLE);
    // A file system without hole reporting names the file's end, as for a
    // file without holes.
    return hole < 0 || hole >= length;
}

ResumeRecord::Ranges ResumeRecord::onDisk(const std::string& target, const std::string& url, long long size,
                                          std::string& validator, std::string& why, long long& length,
                                          bool& stored) {
    struct stat info, record;
    stored = lstat(pathFor(target).c_str(), &record) == 0;
    length = stat(target.c_str(), &info) == 0 ? (long long)info.st_size : 0;
    if (length == 0) {
        why = "nothing on disk";
        return {};
    }
    if (info.st_size > size) {
        why = "the target is longer than the file";
        return {};
    }
    std::string text;
    Ranges ranges;
    if (stored) {
        // A record that is there but cannot be read whole, or is not one for
        // this file, vouches for nothing; the bytes it might have named are
        // not taken on the target's length either.
        if (!readSmallFile(pathFor(target), text)) {
            why = "the control record cannot be read";
            return {};
        }
        if (!parseResumeRecord(text, url, size, ranges, &validator)) {
            why = "the control record is not one for this file";
            return {};
        }
        // Bytes the record names beyond the target's end are not there.
        Ranges inside;
        for (const auto& range : ranges)
            if (range.first < info.st_size)
                inside.emplace(range.first, std::min(range.second, (long long)info.st_size));
        why = "from the control record";
        return inside;
    }
    if (info.st_size == size) {
        // As long as the file and no record: whether it is whole cannot be
        // told, so it is fetched again.
        why = "no control record, and the target is as long as the file";
        return {};
    }
    // Without a record only a plain prefix is trusted: a file whose pieces
    // were written side by side has holes where pieces are missing.
    int fd = ::open(target.c_str(), O_RDONLY | O_CLOEXEC);
    const bool plain = fd >= 0 && withoutHoles(fd, info.st_size);
    if (fd >= 0) ::close(fd);
    if (!plain) {
        why = "no control record, and the target has holes";
        return {};
    }
    why = "no control record: continuing at the target's length";
    return {{0, (long long)info.st_size}};
}

void ResumeRecord::keep(const Ranges& ranges, const std::string& validator, bool stored) {
    std::lock_guard<std::mutex> saving(m_saving);
    std::lock_guard<std::mutex> lock(m_lock);
    m_kept = ranges;
    m_done = ranges;
    m_validator = validator;
    m_unsaved = 0;
    m_saved = m_began = std::chrono::steady_clock::now();
    // What was kept is on disk since an earlier run: nothing to sync. With
    // nothing kept there is nothing to name yet: the keeper writes the first
    // record once bytes have landed, and an earlier one goes now, as it no
    // longer tells what the target holds (a batch of many small files pays
    // for no record a file).
    m_stored = stored;
    if (ranges.empty() && m_stored) ::unlink(m_path.c_str());
    if (ranges.empty()) m_stored = false;
    if (!ranges.empty()) save(m_done, m_validator, true);
}

std::string ResumeRecord::validator() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_validator;
}

std::string ResumeRecord::continuedFrom() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_kept.empty() || m_startedOver ? std::string() : m_validator;
}

void ResumeRecord::noteValidator(const std::string& validator) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_validator.empty() && !validator.empty()) {
        m_validator = validator;
        ++m_unsaved;  // the next update writes it down
    }
}

void ResumeRecord::add(long long from, long long to) {
    // Merge with every range it overlaps or touches.
    auto next = m_done.upper_bound(from);
    if (next != m_done.begin() && std::prev(next)->second >= from) {
        --next;
        from = next->first;
        if (next->second > to) to = next->second;
    }
    while (next != m_done.end() && next->first <= to) {
        if (next->second > to) to = next->second;
        next = m_done.erase(next);
    }
    m_done.emplace(from, to);
}

void ResumeRecord::written(int fd, long long offset, const char* data, size_t size) {
    if (m_next != nullptr) m_next->written(fd, offset, data, size);
    if (size == 0) return;
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_closed) return;
    add(offset, offset + (long long)size);
    m_unsaved.fetch_add((long long)size, std::memory_order_relaxed);
}

bool ResumeRecord::save(const Ranges& ranges, const std::string& validator, bool locked) {
    const std::string temporary = m_path + ".new";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool written = fd >= 0 && writeWhole(fd, formatResumeRecord(m_url, m_size, ranges, validator));
    if (fd >= 0 && ::close(fd) != 0) written = false;
    if (written) {
        // The record takes its place only while the file is still being
        // fetched: one that was verified or given up meanwhile has no record.
        std::unique_lock<std::mutex> lock(m_lock, std::defer_lock);
        if (!locked) lock.lock();
        if (m_closed) {
            ::unlink(temporary.c_str());
            return false;
        }
        if (::rename(temporary.c_str(), m_path.c_str()) == 0) return m_stored = true;
    }
    const int error = errno;
    if (fd >= 0) ::unlink(temporary.c_str());
    if (m_saveFailed) return false;
    m_saveFailed = true;
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpMultiGet: cannot write the control record %s: %s", m_path.c_str(),
                        webChannel::systemText(error).c_str());
    return false;
}

bool ResumeRecord::startOver(const std::string& validator) {
    std::lock_guard<std::mutex> saving(m_saving);
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_startedOver || m_kept.empty() || m_closed) return false;
    m_startedOver = true;
    m_done.clear();
    m_validator = validator;
    m_unsaved = 0;
    save(m_done, m_validator, true);  // claims nothing: no sync needed
    return true;
}

long long ResumeRecord::unsaved() const {
    return m_closed.load(std::memory_order_relaxed) ? 0 : m_unsaved.load(std::memory_order_relaxed);
}

void ResumeRecord::flush(bool always, bool fast) {
    // A file that ended needs no record: that never waits for a save. Most
    // records have nothing new at a look: they cost no lock.
    if (unsaved() == 0) return;
    // The bytes are synced before a record names them; the record is taken
    // first, so that it names only bytes written before the sync.
    std::lock_guard<std::mutex> saving(m_saving);
    Ranges ranges;
    std::string validator;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        if (m_closed || m_unsaved == 0) return;
        const auto now = std::chrono::steady_clock::now();
        if (!always && now - m_saved < kSaveInterval) return;
        if (!always && fast && now - m_began < kFastFileGrace) return;
        ranges = m_done;
        validator = m_validator;
        m_unsaved = 0;
        m_saved = now;
    }
    int fd = ::open(m_target.c_str(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && fdatasync(fd) == 0;
    if (fd >= 0) ::close(fd);
    if (!synced) {
        std::lock_guard<std::mutex> lock(m_lock);
        ++m_unsaved;  // the next update tries again
        return;
    }
    save(ranges, validator, false);
}

void ResumeRecord::finish() {
    // Never waits for a save in flight (a sync may take long): that one
    // sees the record closed and does not put it back.
    std::lock_guard<std::mutex> lock(m_lock);
    m_closed = true;
    if (m_stored) ::unlink(m_path.c_str());
    m_stored = false;
}

void ResumeRecord::discard() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_closed = true;
    m_discarded = true;
    if (m_stored) ::unlink(m_path.c_str());
    m_stored = false;
}

RecordKeeper::RecordKeeper(std::vector<std::shared_ptr<ResumeRecord>> records)
    : m_shared(std::make_shared<Shared>()) {
    m_shared->records = std::move(records);
    if (m_shared->records.empty()) return;
    // The thread owns a share of all it touches, so that the batch can end
    // while it finishes a sync (of a file that ended meanwhile) on its own.
    std::thread([shared = m_shared] {
        std::unique_lock<std::mutex> lock(shared->lock);
        long long before = 0;
        bool fast = false;
        while (!shared->wake.wait_for(lock, kKeepInterval, [&] { return shared->stop; })) {
            lock.unlock();
            long long unsaved = 0;
            for (const std::shared_ptr<ResumeRecord>& record : shared->records) unsaved += record->unsaved();
            fast = fast || unsaved - before >= kFastBetweenLooks;
            for (const std::shared_ptr<ResumeRecord>& record : shared->records) record->flush(false, fast);
            before = 0;
            for (const std::shared_ptr<ResumeRecord>& record : shared->records) before += record->unsaved();
            lock.lock();
        }
    }).detach();
}

RecordKeeper::~RecordKeeper() {
    {
        std::lock_guard<std::mutex> lock(m_shared->lock);
        m_shared->stop = true;
    }
    m_shared->wake.notify_all();
    // The last update, here: only the records of files still incomplete,
    // each waiting at most for a sync of its own file under way.
    for (const std::shared_ptr<ResumeRecord>& record : m_shared->records) record->flush(true);
}

bool ResumeRecord::discarded() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_discarded;
}
