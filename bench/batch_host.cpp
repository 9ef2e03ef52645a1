// The library alone, without webget: a host that runs one batch from a
// manifest of "URL NAME SIZE DIGEST ALGORITHM" lines into a directory, with
// eight workers and no progress callback, and exits 0 when every file was
// verified. scripts/bench.sh runs it beside webget to show what the
// command-line host adds; scripts/bench-uneven.sh runs it with and without
// the adaptive mode.
//
//   build/bench/batch_host MANIFEST DIR
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "VRAXSecureWebChannel.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s MANIFEST DIR\n", argv[0]);
        return 2;
    }
    std::ifstream manifest(argv[1]);
    if (!manifest) {
        std::fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[1]);
        return 2;
    }
    VRAXSecureWebChannel* channel = VRAXSecureWebChannelCreate();
    if (channel->init(8) != 0) return 2;
    // As webget does: large files in file order, so that digests follow;
    // BATCH_HOST_SHARES keeps the default plan, BATCH_HOST_ADAPTIVE adds the
    // adaptive mode.
    if (std::getenv("BATCH_HOST_SHARES") == nullptr) channel->setParam(3024, "", true);
    if (std::getenv("BATCH_HOST_ADAPTIVE") != nullptr) channel->setParam(3025, "", true);
    int jobs = 0;
    for (std::string line; std::getline(manifest, line);) {
        std::istringstream fields(line);
        std::string url, name, digest, algorithm;
        long long size = 0;
        if (!(fields >> url >> name >> size)) continue;
        fields >> digest >> algorithm;
        const std::string target = std::string(argv[2]) + "/" + name;
        const int added = channel->addJob(url.c_str(), target.c_str(), size, digest.empty() ? nullptr : digest.c_str(),
                                          algorithm.empty() ? nullptr : algorithm.c_str());
        if (added != 0 && added != 3001) {
            std::fprintf(stderr, "%s: addJob %s: %d\n", argv[0], url.c_str(), added);
            return 1;
        }
        jobs += added == 0;
    }
    const int pending = channel->httpMultiGet(true);
    int verified = 0;
    while (channel->getNextDownloadedFile() >= 0) ++verified;
    const int code = channel->getErrorCode(nullptr, 0);
    VRAXSecureWebChannelDestroy(channel);
    if (pending != 0 || verified != jobs) {
        std::fprintf(stderr, "%s: %d pending, %d of %d verified, error %d\n", argv[0], pending, verified, jobs, code);
        return 1;
    }
    return 0;
}
