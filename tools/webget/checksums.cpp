// Digests from checksum files (--checksums): they fill in the jobs that have
// none, and any disagreement with a digest already known stops webget before
// anything is downloaded, since one of the two is wrong and a download could
// only fail its verification or, worse, pass the wrong one.
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>

#include "checksum_file.h"
#include "webget.h"

namespace webget {
namespace {

// "./a/b" and "a/b" name the same file; checksum tools write either.
std::string withoutDot(const std::string& name) {
    std::string out = name;
    for (int guard = 0; guard < 64 && out.compare(0, 2, "./") == 0; ++guard) out.erase(0, 2);
    return out;
}

std::string lastComponent(const std::string& name) {
    const size_t slash = name.rfind('/');
    return slash == std::string::npos ? name : name.substr(slash + 1);
}

// The jobs by the name of their target relative to -d DIR, and by their last
// path component where no other job shares it.
struct JobIndex {
    std::map<std::string, size_t> byName;
    std::map<std::string, size_t> byLast;

    explicit JobIndex(const std::vector<Job>& jobs) {
        std::map<std::string, int> lastCount;
        for (const Job& job : jobs) ++lastCount[lastComponent(withoutDot(job.name))];
        for (size_t i = 0; i < jobs.size(); ++i) {
            const std::string name = withoutDot(jobs[i].name);
            byName.emplace(name, i);
            if (lastCount[lastComponent(name)] == 1) byLast.emplace(lastComponent(name), i);
        }
    }

    // The job a checksum line names, or -1.
    long find(const std::string& entryName) const {
        const std::string name = withoutDot(entryName);
        auto found = byName.find(name);
        if (found != byName.end()) return (long)found->second;
        found = byLast.find(name);
        return found != byLast.end() ? (long)found->second : -1;
    }
};

}  // namespace

std::string lowered(std::string text) {
    for (char& c : text) c = (char)tolower((unsigned char)c);
    return text;
}

int applyChecksumFiles(const Options& options, std::vector<Job>& jobs) {
    const JobIndex index(jobs);
    // Where each job's digest came from, for messages: its manifest line
    // unless a checksum file gave it.
    std::vector<std::string> source(jobs.size());
    for (size_t i = 0; i < jobs.size(); ++i) source[i] = jobs[i].origin;
    for (const std::string& path : options.checksumFiles) {
        std::string text, why;
        if (!readWholeFile(path, text)) {
            complain("cannot read the checksum file %s: %s", path.c_str(), strerror(errno));
            return kExitUsage;
        }
        std::vector<ChecksumEntry> entries;
        int badLine = 0;
        if (!parseChecksums(text, entries, badLine, why)) {
            complain("%s:%d: %s", path.c_str(), badLine, why.c_str());
            return kExitUsage;
        }
        for (const ChecksumEntry& entry : entries) {
            const long found = index.find(entry.name);
            if (found < 0) continue;  // checksum files often list more than is fetched
            Job& job = jobs[(size_t)found];
            const std::string where = path + ":" + std::to_string(entry.line);
            if (job.digest.empty()) {
                job.digest = entry.digest;
                job.algorithm = entry.algorithm;
                source[(size_t)found] = where;
            } else if (lowered(job.algorithm) == entry.algorithm && lowered(job.digest) != entry.digest) {
                complain("%s: the %s digest of %s is %s, but %s gives %s", source[(size_t)found].c_str(),
                         entry.algorithm.c_str(), job.target.c_str(), job.digest.c_str(), where.c_str(),
                         entry.digest.c_str());
                return kExitUsage;
            }
            // A digest by another algorithm cannot be compared: the first one known stays.
        }
    }
    return -1;
}

}  // namespace webget
