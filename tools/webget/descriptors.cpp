// The descriptor limit of the webget process.
#include "descriptors.h"

#include <sys/resource.h>

namespace webget {

void raiseDescriptorLimit() {
    // A batch over many hosts holds a connection per host and worker, and
    // the usual soft limit (1024) is far below what systems allow.
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

unsigned long long descriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    return (unsigned long long)limit.rlim_cur;
}

}  // namespace webget
