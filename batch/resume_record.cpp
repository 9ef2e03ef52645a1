#include "batch/resume_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "channel/webChannel.h"

namespace {

constexpr long long kSaveBytes = 4LL << 20;
constexpr time_t kSaveSeconds = 1;
// A record names a few ranges; anything much larger is not one.
constexpr long long kMaxRecordBytes = 1 << 20;
constexpr char kMagic[] = "webchannel-resume 1";

timespec now() {
    timespec at{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &at);
    return at;
}

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

std::string formatResumeRecord(const std::string& url, long long size, const ResumeRecord::Ranges& ranges) {
    std::string text = std::string(kMagic) + "\nurl " + url + "\nsize " + std::to_string(size) + "\n";
    for (const auto& range : ranges)
        text += "range " + std::to_string(range.first) + " " + std::to_string(range.second) + "\n";
    // The count at the end tells a whole record from one cut short.
    return text + "end " + std::to_string(ranges.size()) + "\n";
}

bool parseResumeRecord(const std::string& text, const std::string& url, long long size, ResumeRecord::Ranges& ranges) {
    std::istringstream in(text);
    std::string line;
    if (!std::getline(in, line) || line != kMagic) return false;
    if (!std::getline(in, line) || line != "url " + url) return false;
    if (!std::getline(in, line) || line != "size " + std::to_string(size)) return false;
    ranges.clear();
    long long last = -1;
    while (std::getline(in, line)) {
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

ResumeRecord::Ranges ResumeRecord::onDisk(const std::string& target, const std::string& url, long long size,
                                          std::string& why) {
    struct stat info;
    if (stat(target.c_str(), &info) != 0 || info.st_size == 0) {
        why = "nothing on disk";
        return {};
    }
    if (info.st_size > size) {
        why = "the target is longer than the file";
        return {};
    }
    std::string text;
    Ranges ranges;
    if (readSmallFile(pathFor(target), text)) {
        if (!parseResumeRecord(text, url, size, ranges)) {
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
    why = "no control record: continuing at the target's length";
    return {{0, (long long)info.st_size}};
}

void ResumeRecord::keep(const Ranges& ranges) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_kept = ranges;
    m_done = ranges;
    save();
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
    m_unsaved += (long long)size;
    if (m_unsaved >= kSaveBytes || now().tv_sec - m_saved.tv_sec >= kSaveSeconds) save();
}

void ResumeRecord::save() {
    m_unsaved = 0;
    m_saved = now();
    const std::string temporary = m_path + ".new";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool written = fd >= 0 && writeWhole(fd, formatResumeRecord(m_url, m_size, m_done));
    if (fd >= 0 && ::close(fd) != 0) written = false;
    if (written && ::rename(temporary.c_str(), m_path.c_str()) == 0) return;
    const int error = errno;
    if (fd >= 0) ::unlink(temporary.c_str());
    if (m_saveFailed) return;
    m_saveFailed = true;
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpMultiGet: cannot write the control record %s: %s", m_path.c_str(),
                        webChannel::systemText(error).c_str());
}

bool ResumeRecord::startOver() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_startedOver || m_kept.empty() || m_closed) return false;
    m_startedOver = true;
    m_done.clear();
    save();
    return true;
}

void ResumeRecord::flush() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_closed && m_unsaved > 0) save();
}

void ResumeRecord::finish() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_closed = true;
    ::unlink(m_path.c_str());
}

void ResumeRecord::discard() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_closed = true;
    m_discarded = true;
    ::unlink(m_path.c_str());
}

bool ResumeRecord::discarded() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_discarded;
}
