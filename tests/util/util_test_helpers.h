// Shared by the utility tests: scratch directories, whole-file I/O, capture
// of a standard descriptor, and a utility log opened per test.
#ifndef WEBCHANNEL_TESTS_UTIL_TEST_HELPERS_H
#define WEBCHANNEL_TESTS_UTIL_TEST_HELPERS_H

#include <dirent.h>
#include <ftw.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "util/logging.h"

namespace utiltest {

inline int remove_one(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

// A fresh directory under /tmp. It is removed without the library's help,
// so a broken folder_remove can neither litter nor hide its own failure.
struct ScratchDir {
    std::string path;
    ScratchDir() {
        char templ[] = "/tmp/webchannel-util-XXXXXX";
        if (::mkdtemp(templ) != nullptr) path = templ;
    }
    ~ScratchDir() {
        if (!path.empty()) ::nftw(path.c_str(), remove_one, 16, FTW_DEPTH | FTW_PHYS);
    }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline bool write_file(const std::string& path, const std::string& content) {
    return static_cast<bool>(std::ofstream(path, std::ios::binary) << content);
}

// Sorted names in a directory, without "." and "..".
inline std::vector<std::string> list_names(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    for (const struct dirent* e = d ? ::readdir(d) : nullptr; e != nullptr; e = ::readdir(d))
        if (std::string(".") != e->d_name && std::string("..") != e->d_name) names.push_back(e->d_name);
    if (d) ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// Points descriptor 1 or 2 at an unlinked temporary file while it lives;
// take() returns everything written since the last take(). Captured
// standard output is no terminal, so the console width is 80.
class OutputCapture {
public:
    explicit OutputCapture(int target) : target_(target) {
        std::fflush(nullptr);
        char templ[] = "/tmp/webchannel-capture-XXXXXX";
        fd_ = ::mkstemp(templ);
        ::unlink(templ);
        saved_ = ::dup(target_);
        ::dup2(fd_, target_);
    }
    ~OutputCapture() {
        std::fflush(nullptr);
        ::dup2(saved_, target_);
        ::close(saved_);
        ::close(fd_);
    }
    std::string take() {
        std::fflush(nullptr);
        std::string text(4096, '\0'), all;
        for (ssize_t got; (got = ::pread(fd_, &text[0], text.size(), taken_)) > 0; taken_ += got)
            all.append(text, 0, static_cast<size_t>(got));
        return all;
    }

private:
    int target_, fd_, saved_;
    off_t taken_ = 0;
};

// The messages of a log's lines, each checked against its kind's prefix:
// "<s>:<ms> : " for print_log, "<s> - WARN : " and "<s> - ERROR : ".
// (Parsed by hand: a regex would recurse per byte on very long lines.)
inline std::vector<std::string> messages_of(const std::string& text) {
    std::vector<std::string> found;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) {
        const size_t n = l.find_first_not_of("0123456789");
        std::string message = "<bad line> " + l;
        if (n != 0 && n != std::string::npos) {
            if (l.compare(n, 10, " - WARN : ") == 0)
                message = l.substr(n + 10);
            else if (l.compare(n, 11, " - ERROR : ") == 0)
                message = l.substr(n + 11);
            else if (l.size() >= n + 7 && l[n] == ':' && l.find_first_not_of("0123456789", n + 1) == n + 4 &&
                     l.compare(n + 4, 3, " : ") == 0)
                message = l.substr(n + 7);
        }
        found.push_back(message);
    }
    return found;
}

// The utility log on a scratch file; detached and closed afterwards
// (log_init never closes a file by itself).
class UtilityLog {
public:
    UtilityLog() {
        logging_state_t* state = nullptr;
        if (log_init(path().c_str(), &state) == 0 && state != nullptr) file_ = state->file;
    }
    ~UtilityLog() {
        log_disable();
        if (file_ != nullptr) std::fclose(file_);
    }
    bool ok() const { return file_ != nullptr; }
    std::string path() const { return dir_ / "util.log"; }
    std::string text() const { return read_file(path()); }
    std::vector<std::string> messages() const { return messages_of(text()); }

private:
    ScratchDir dir_;
    FILE* file_ = nullptr;
};

}  // namespace utiltest

#endif
