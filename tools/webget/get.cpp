// The single-GET modes: into a file (-o) and to standard output (-O -).
#include <cerrno>
#include <cstring>

#include "webget.h"

namespace webget {

int runGetToFile(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    Clock::time_point start = Clock::now();
    int result = channel->httpGet(url.c_str(), options.output.c_str());
    if (result != wc::kOk) {
        LibraryError error = lastError(channel, result);
        complain("error %d: %s", error.code,
                 explainFailure(error.code, error.reason, url, options.output, true).c_str());
        return kExitFailed;
    }
    if (!options.quiet) {
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        long long size = fileSize(options.output);
        fprintf(stderr, "%s: saved %s to %s in %.2f s\n", gProgram, humanBytes(size > 0 ? size : 0).c_str(),
                options.output.c_str(), seconds);
    }
    return kExitOk;
}

bool writeAll(const char* data, size_t length) {
    return fwrite(data, 1, length, stdout) == length && fflush(stdout) == 0;
}

int runGetToStdout(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    int result = channel->httpGet(url.c_str());
    if (result != wc::kOk) {
        LibraryError error = lastError(channel, result);
        complain("error %d: %s", error.code, explainFailure(error.code, error.reason, url, std::string()).c_str());
        return kExitFailed;
    }
    long long announced = 0;
    const char* response = channel->httpResponse(&announced);
    if (response == nullptr) response = "";
    // The library hands the body out with the head's closing blank line in
    // front of it.
    if (strncmp(response, "\r\n\r\n", 4) == 0) response += 4;
    size_t length = strlen(response);
    if (!writeAll(response, length)) {
        complain("cannot write to standard output: %s", strerror(errno));
        return kExitFailed;
    }
    if (announced > (long long)length && !options.quiet)
        complain("note: printed the first %zu of %lld bytes (the in-memory GET keeps at most its first 4 KiB read); "
                 "use -o FILE for the whole body",
                 length, announced);
    return kExitOk;
}

}  // namespace webget
