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

// The file a symbolic link points to, or the path itself.
std::string resolved(const std::string& path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return path;
    char real[PATH_MAX];
    return realpath(path.c_str(), real) != nullptr ? std::string(real) : path;
}

}  // namespace

Landing landingFor(const std::string& target) {
    const std::string place = resolved(target);
    struct stat info;
    if (stat(place.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) return {target, std::string()};
    return {place + kPartSuffix, place};
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
