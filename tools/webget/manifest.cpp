// Batch jobs: from a manifest or from URLs, and their target directories.
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <unordered_set>

#include "checksum_file.h"
#include "webget.h"

namespace webget {
namespace {

// A manifest longer than this is not read further.
constexpr int kMaxManifestLines = 10000000;
// Fields read per line: one more than a job has, to tell "too many".
constexpr size_t kMaxFields = 6;
// Directory levels created at most for one target directory.
constexpr int kMaxPathDepth = 4096;

bool isHex(const std::string& text) {
    if (text.empty()) return false;
    for (char c : text)
        if (!isxdigit((unsigned char)c)) return false;
    return true;
}

// One manifest line's fields as a job. Returns -1 to go on, or an exit status.
int parseJob(const Options& options, const std::vector<std::string>& words, const std::string& where, Job& job) {
    auto bad = [&](const std::string& why) {
        complain("%s: %s", where.c_str(), why.c_str());
        return (int)kExitUsage;
    };
    if (words.size() < 2) return bad("expected 'URL TARGET [SIZE [DIGEST [ALGORITHM]]]'");
    if (words.size() > 5) return bad("too many fields (a '#' starts a comment)");
    job.url = words[0];
    job.target = joinPath(options.directory, words[1]);
    job.name = words[1];
    job.origin = where;
    if (words.size() >= 3 && !parseInt(words[2], 0, LLONG_MAX, job.size)) return bad("bad size '" + words[2] + "'");
    if (words.size() >= 4 && words[3] != "-") {
        if (!isHex(words[3])) return bad("bad digest '" + words[3] + "' (hexadecimal expected)");
        job.digest = words[3];
        job.algorithm = words.size() >= 5 ? words[4] : algorithmForLength(job.digest.size());
        if (job.algorithm.empty()) return bad("cannot tell the digest's algorithm from its length; name it");
    } else if (words.size() >= 5) {
        return bad("an algorithm without a digest");
    }
    return -1;
}

}  // namespace

std::string joinPath(const std::string& directory, const std::string& name) {
    if (directory.empty() || (!name.empty() && name[0] == '/')) return name;
    if (directory.back() == '/') return directory + name;
    return directory + "/" + name;
}

std::string urlBasename(const std::string& url) {
    std::string rest = url;
    size_t scheme = rest.find("://");
    if (scheme != std::string::npos) rest = rest.substr(scheme + 3);
    size_t cut = rest.find_first_of("?#");
    if (cut != std::string::npos) rest = rest.substr(0, cut);
    size_t slash = rest.find('/');
    if (slash == std::string::npos) return "index.html";
    std::string path = rest.substr(slash);
    std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") return "index.html";
    return name;
}

int readManifest(const Options& options, std::vector<Job>& jobs) {
    std::ifstream file;
    std::istream* in = &std::cin;
    if (options.manifest != "-") {
        file.open(options.manifest);
        if (!file) {
            complain("cannot read the manifest %s: %s", options.manifest.c_str(), strerror(errno));
            return kExitUsage;
        }
        in = &file;
    }
    std::string line;
    int number = 0;
    while (number < kMaxManifestLines && std::getline(*in, line)) {
        ++number;
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string word; words.size() < kMaxFields && fields >> word;) words.push_back(word);
        if (words.empty()) continue;
        Job job;
        int status = parseJob(options, words, options.manifest + ":" + std::to_string(number), job);
        if (status >= 0) return status;
        jobs.push_back(job);
    }
    if (in->bad()) {
        complain("error reading the manifest %s", options.manifest.c_str());
        return kExitUsage;
    }
    if (jobs.empty()) complain("%s lists no jobs", options.manifest.c_str());
    return -1;
}

// The library knows a job by its URL: a second job with the same URL would be
// merged into the first.
int checkDuplicates(const std::vector<Job>& jobs) {
    std::unordered_set<std::string> urls, targets;
    for (const Job& job : jobs) {
        if (!urls.insert(job.url).second) {
            complain("%s: the URL %s is listed twice", job.origin.c_str(), job.url.c_str());
            return kExitUsage;
        }
        if (!targets.insert(job.target).second) {
            complain("%s: the target %s is listed twice", job.origin.c_str(), job.target.c_str());
            return kExitUsage;
        }
    }
    return -1;
}

int mkdirs(const std::string& directory) {
    if (directory.empty()) return 0;
    std::string path;
    size_t position = 0;
    for (int guard = 0; guard < kMaxPathDepth && position != std::string::npos; ++guard) {
        position = directory.find('/', position + 1);
        path = directory.substr(0, position);
        if (!path.empty() && mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return -1;
    }
    struct stat info;
    return stat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode) ? 0 : -1;
}

}  // namespace webget
