// Where a download lands until it is complete: PLACE.part beside the file it
// will replace, renamed over it once the library hands it out finished and
// verified. A failed or interrupted run therefore never empties or
// half-overwrites the user's file; what it leaves in PLACE.part, with the
// library's control record beside it, a run with -c continues.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "webget.h"

namespace webget {
namespace {

constexpr char kPartSuffix[] = ".part";

}  // namespace

// One lstat for the common case, a target that is not there yet or is a
// regular file: a batch of thousands of small files pays it per file before
// its first request.
Landing landingFor(const std::string& target) {
    struct stat info;
    if (lstat(target.c_str(), &info) != 0) return {target + kPartSuffix, target, false};
    std::string place = target;
    if (S_ISLNK(info.st_mode)) {
        char real[PATH_MAX];
        if (realpath(target.c_str(), real) != nullptr) place = real;
        if (stat(place.c_str(), &info) != 0) return {place + kPartSuffix, place, true};  // dangling
    }
    if (!S_ISREG(info.st_mode)) return {target, std::string(), true};
    return {place + kPartSuffix, place, true};
}

std::string recordOf(const std::string& path) {
    return path + ".resume";  // the library's name for it
}

bool pathExists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

bool install(const Landing& landing) {
    return landing.place.empty() || rename(landing.path.c_str(), landing.place.c_str()) == 0;
}

void dropIfEmpty(const Landing& landing) {
    struct stat info;
    if (landing.place.empty() || stat(landing.path.c_str(), &info) != 0 || info.st_size != 0) return;
    unlink(landing.path.c_str());
    unlink(recordOf(landing.path).c_str());
}

}  // namespace webget
