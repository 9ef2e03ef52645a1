// File-system helpers. None of them throws; each reports by its result.
// Copies go through a temporary beside the target, so a reader never sees a
// half-written file under the target's name.
#include "fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "logging.h"

namespace {

const char kSeparators[] = "/\\";

bool write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Bytes moved per read when copying a file.
constexpr size_t kCopyBlock = 64 * 1024;

// Copies every byte of `in` to `out`; false on any read or write error.
bool copy_contents(int in, int out) {
    std::vector<char> buffer(kCopyBlock);
    for (;;) {
        const ssize_t got = ::read(in, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (got == 0) return true;
        if (!write_all(out, buffer.data(), static_cast<size_t>(got))) return false;
    }
}

// Names in a directory other than "." and "..". They are read in full and
// the directory closed before the caller recurses, so a deep tree does not
// hold one open directory stream per level.
bool list_directory(const std::string& path, std::vector<std::string>& names) {
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) return false;
    for (;;) {
        errno = 0;
        const struct dirent* entry = ::readdir(dir);
        if (entry == nullptr) break;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        names.emplace_back(entry->d_name);
    }
    const bool ok = (errno == 0);
    ::closedir(dir);
    return ok;
}

// Copies the tree `from` into the existing directory `to`. The copy's own
// root (dev/ino in `skip`) is never entered, so copying a directory into one
// of its own sub-directories ends instead of copying its copy forever.
bool copy_tree(const std::string& from, const std::string& to, const struct stat& skip) {
    std::vector<std::string> names;
    if (!list_directory(from, names)) return false;
    bool ok = true;
    for (const std::string& name : names) {
        const std::string source = from + "/" + name;
        const std::string target = to + "/" + name;
        struct stat st;
        if (::lstat(source.c_str(), &st) != 0) {
            ok = false;
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            if (st.st_dev == skip.st_dev && st.st_ino == skip.st_ino) continue;
            if (::mkdir(target.c_str(), 0700) != 0 && errno != EEXIST) {
                ok = false;
                continue;
            }
            if (!folder_exists(target) || !copy_tree(source, target, skip)) ok = false;
            // The source's permissions are applied last, so that a read-only
            // source directory can still be filled.
            if (::chmod(target.c_str(), st.st_mode & 07777) != 0) ok = false;
        } else if (S_ISREG(st.st_mode)) {
            if (file_copy(source, target) != 0) ok = false;
        } else if (S_ISLNK(st.st_mode)) {
            // Links are copied as links, never followed: a link to a parent
            // would otherwise make the walk endless.
            std::vector<char> link(static_cast<size_t>(st.st_size > 0 ? st.st_size : 255) + 1);
            const ssize_t length = ::readlink(source.c_str(), link.data(), link.size());
            if (length < 0 || static_cast<size_t>(length) >= link.size()) {
                ok = false;
                continue;
            }
            const std::string value(link.data(), static_cast<size_t>(length));
            ::unlink(target.c_str());
            if (::symlink(value.c_str(), target.c_str()) != 0) ok = false;
        }
        // Device nodes, FIFOs and sockets are not copied: reading a FIFO
        // could block for ever, and the others have no content to copy.
    }
    return ok;
}

// Removes the entry `name` of the directory open as `parent`. Directories
// are entered through descriptors opened with O_NOFOLLOW, so a symbolic link
// is removed itself and never followed out of the tree.
bool remove_entry(int parent, const char* name) {
    struct stat st;
    if (::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return ::unlinkat(parent, name, 0) == 0 || errno == ENOENT;

    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return false;
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
        ::close(fd);
        return false;
    }
    std::vector<std::string> names;
    for (;;) {
        const struct dirent* entry = ::readdir(dir);
        if (entry == nullptr) break;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        names.emplace_back(entry->d_name);
    }
    bool ok = true;
    for (const std::string& child : names)
        if (!remove_entry(::dirfd(dir), child.c_str())) ok = false;
    ::closedir(dir);
    if (::unlinkat(parent, name, AT_REMOVEDIR) != 0 && errno != ENOENT) ok = false;
    return ok;
}

}  // namespace

std::string get_dirname(const std::string& path) {
    const size_t last = path.find_last_of(kSeparators);
    if (last == std::string::npos) return std::string();
    if (last == path.find_first_of(kSeparators)) return path.substr(0, last + 1);
    return path.substr(0, last);
}

std::string get_basename(const std::string& path) {
    const size_t last = path.find_last_of(kSeparators);
    if (last == std::string::npos) return path;
    return path.substr(last + 1);
}

int folder_create(const std::string& path, unsigned mode) {
    std::string trimmed = path;
    while (!trimmed.empty() && trimmed.back() == '/') trimmed.pop_back();
    if (trimmed.empty()) return (!path.empty() && folder_exists("/")) ? 0 : -1;
    const mode_t dirMode = static_cast<mode_t>(mode);
    for (size_t i = 1; i < trimmed.size(); ++i) {
        // Every step may fail harmlessly (the prefix already exists, or is
        // "." or ".."); only the final state matters.
        if (trimmed[i] == '/' && trimmed[i - 1] != '/') ::mkdir(trimmed.substr(0, i).c_str(), dirMode);
    }
    ::mkdir(trimmed.c_str(), dirMode);
    return folder_exists(trimmed) ? 0 : -1;
}

int folder_copy(const std::string& from, const std::string& to) {
    struct stat source;
    if (::stat(from.c_str(), &source) != 0 || !S_ISDIR(source.st_mode)) return -1;
    const std::string parent = get_dirname(to);
    if (!parent.empty() && !folder_exists(parent) && folder_create(parent, 0755) != 0) return -1;
    if (::mkdir(to.c_str(), 0700) != 0 && errno != EEXIST) return -1;
    struct stat target;
    if (::stat(to.c_str(), &target) != 0 || !S_ISDIR(target.st_mode)) return -1;
    // Copying a directory onto itself would only rewrite every file with
    // its own content.
    if (target.st_dev == source.st_dev && target.st_ino == source.st_ino) return 0;
    bool ok = copy_tree(from, to, target);
    if (::chmod(to.c_str(), source.st_mode & 07777) != 0) ok = false;
    return ok ? 0 : -1;
}

int folder_remove(const std::string& path) {
    struct stat st;
    if (path.empty()) return 0;
    if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT ? 0 : -1;
    // Only a real directory is removed; a file or a link under that name is
    // left alone rather than deleted by surprise.
    if (!S_ISDIR(st.st_mode)) return -1;
    return remove_entry(AT_FDCWD, path.c_str()) ? 0 : -1;
}

int file_copy(const std::string& from, const std::string& to) {
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return -1;
    struct stat st;
    if (::fstat(in, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(in);
        return -1;
    }
    // The temporary lives in the target's directory, so the final rename
    // stays on one file system and replaces the target atomically.
    const size_t last = to.find_last_of('/');
    const std::string directory = (last == std::string::npos) ? std::string() : to.substr(0, last + 1);
    const std::string base = (last == std::string::npos) ? to : to.substr(last + 1);
    std::string temp = directory + "." + base + ".XXXXXX";
    const int out = ::mkostemp(&temp[0], O_CLOEXEC);
    if (out < 0) {
        ::close(in);
        return -1;
    }
    bool ok = copy_contents(in, out);
    ::close(in);
    // The copy gets the source's permission bits, but never its set-user or
    // set-group bits.
    if (ok && ::fchmod(out, st.st_mode & 0777) != 0) ok = false;
    if (ok && ::fsync(out) != 0) ok = false;
    if (::close(out) != 0) ok = false;
    if (ok && ::rename(temp.c_str(), to.c_str()) != 0) ok = false;
    if (!ok) {
        ::unlink(temp.c_str());
        return -1;
    }
    return 0;
}

int file_move(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) == 0) return 0;
    if (errno != EXDEV) return -1;
    // Another file system: copy, and delete the source only once the copy
    // is complete under its final name.
    if (file_copy(from, to) != 0) return -1;
    return ::unlink(from.c_str()) == 0 ? 0 : -1;
}

int remove_file(const std::string& path) {
    // The path is used as given: normalising ".." textually could name a
    // different file than the kernel resolves through symbolic links.
    if (::unlink(path.c_str()) == 0) return 0;
    const int err = errno;
    // ENOTDIR: a component of the path is a file, so the file cannot exist.
    if (err == ENOENT || err == ENOTDIR) return 0;
    error("remove_file: can't delete file \"%s\": %s\n", path.c_str(), std::strerror(err));
    return -1;
}

std::string normalize_path(const std::string& path) {
    if (path.empty()) return std::string();
    std::string unified = path;
    for (char& c : unified)
        if (c == '\\') c = '/';
    const bool absolute = unified[0] == '/';

    std::vector<std::string> segments;
    size_t start = 0;
    while (start <= unified.size()) {
        size_t end = unified.find('/', start);
        if (end == std::string::npos) end = unified.size();
        const std::string segment = unified.substr(start, end - start);
        start = end + 1;
        if (segment.empty() || segment == ".") continue;
        if (segment == "..") {
            if (!segments.empty() && segments.back() != "..") {
                segments.pop_back();
            } else if (!absolute) {
                // A relative path may climb above its start: keep the "..".
                segments.push_back(segment);
            }
            // At the root ".." leads to the root itself and is dropped.
            continue;
        }
        segments.push_back(segment);
    }
    std::string joined;
    for (size_t i = 0; i < segments.size(); ++i) {
        if (i != 0) joined += '/';
        joined += segments[i];
    }
    if (absolute) return "/" + joined;
    return joined.empty() ? std::string(".") : joined;
}

bool file_exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool folder_exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool path_exists(const std::string& path) {
    // lstat: a dangling symbolic link still occupies the name.
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

long long get_file_size(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return static_cast<long long>(st.st_size);
}
