// -c -o FILE: continue a file as users of the usual tools expect, through a
// one-job batch of the library with the continue parameter (3022) set on the
// channel. The file continued is webget's own interrupted download,
// FILE.part, when there is one, else FILE itself: by its control record, or
// at its end. What the library would have to start over in place (a FILE
// longer than the server's, or one with holes and no record) is fetched
// again whole into FILE.part instead, so FILE is never emptied; a FILE as
// long as the server's is taken as complete.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "continue_plan.h"
#include "webget.h"

namespace webget {
namespace {

// Whether some range of the file before its end was never written.
bool hasHoles(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info;
    const bool holes = fstat(fd, &info) == 0 && lseek(fd, 0, SEEK_HOLE) < info.st_size;
    close(fd);
    return holes;
}

void cancelOnInterrupt(bool& cancel, int, long long, long long, int, void*) {
    if (gInterrupted.load()) cancel = true;
}

// Adds the one job; returns the library's result, with the size the probe
// found in `size` when `size` was 0.
int addTheJob(VRAXSecureWebChannel* channel, const Options& options, const std::string& target, long long& size) {
    const std::string& url = options.urls[0];
    const bool originForm = chooseRequestForm(channel, options, url);
    const bool probing = size == 0;
    int result = channel->addJob(url.c_str(), target.c_str(), size, nullptr, nullptr);
    if (result != wc::kOk) return result;
    if (originForm) channel->setParam(wc::kParamRelativeTarget, "", false);
    if (probing) channel->httpResponse(&size);
    return result;
}

// Runs the batch; true when the file came out finished and verified.
bool runTheJob(VRAXSecureWebChannel* channel) {
    channel->setHandler(cancelOnInterrupt, nullptr);
    const int pending = channel->httpMultiGet(true);
    channel->setHandler(nullptr, nullptr);
    bool finished = false;
    for (int guard = 0, index; guard < 2 && (index = channel->getNextDownloadedFile()) >= 0; ++guard)
        finished = finished || index == 0;
    return pending == 0 && finished;
}

// The failure of the batch in words; the library's message ends with the
// target it concerns, which the explanation names again.
void reportFailure(VRAXSecureWebChannel* channel, const std::string& url, const std::string& target) {
    LibraryError error = lastError(channel, gInterrupted.load() ? wc::kCancelled : wc::kInvalidArgument);
    const std::string tail = ": " + target;
    std::string reason = error.reason;
    if (reason.size() > tail.size() && reason.compare(reason.size() - tail.size(), tail.size(), tail) == 0)
        reason.resize(reason.size() - tail.size());
    complain("error %d: %s", error.code, explainFailure(error.code, reason, url, target).c_str());
}

}  // namespace

int runContinueToFile(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    const std::string& file = options.output;
    const Clock::time_point start = Clock::now();
    const Landing landing = landingFor(file);
    if (landing.place.empty()) {
        complain("%s is not a regular file and cannot be continued; writing it from the start", file.c_str());
        return runGetToFile(channel, options);
    }
    // webget's own interrupted download, or FILE itself when it holds bytes.
    const bool own = pathExists(landing.path) || fileSize(landing.place) <= 0;
    std::string target = own ? landing.path : landing.place;
    FileFacts facts;
    facts.length = fileSize(target);
    facts.record = pathExists(recordOf(target));
    facts.holes = !own && !facts.record && hasHoles(target);

    int result = addTheJob(channel, options, target, facts.size);
    if (result != wc::kOk) {
        LibraryError error = lastError(channel, result);
        const bool probeFailed = result == wc::kInvalidArgument;
        complain("error %d: %s%s", error.code, explainFailure(error.code, error.reason, url, target, true).c_str(),
                 probeFailed ? " (size probe failed)" : "");
        return kExitFailed;
    }
    if (!own) {
        const ContinueVerdict verdict = continueVerdict(facts);
        const bool note = verdict == ContinueVerdict::kLonger || verdict == ContinueVerdict::kHoles;
        if (note || !options.quiet) complain("%s", continueMessage(verdict, file, facts).c_str());
        if (verdict != ContinueVerdict::kContinue) channel->removeJob(url.c_str());
        if (verdict == ContinueVerdict::kComplete) return kExitOk;
        if (note) {
            target = landing.path;
            result = addTheJob(channel, options, target, facts.size);
        }
    } else if (facts.length > 0 && !options.quiet) {
        complain("continuing the download in %s", target.c_str());
    }
    if (result != wc::kOk) {
        LibraryError error = lastError(channel, result);
        complain("error %d: %s", error.code, explainFailure(error.code, error.reason, url, target, true).c_str());
        return kExitFailed;
    }

    if (!runTheJob(channel)) {
        reportFailure(channel, url, target);
        if (target == landing.path) dropIfEmpty(landing);
        if (fileSize(target) > 0) complain("%s keeps what was fetched: the same command continues it", target.c_str());
        return gInterrupted.load() ? kExitInterrupted : kExitFailed;
    }
    if (target == landing.path && !install(landing)) {
        complain("error %d: %s", wc::kFileWrite, explainInstallFailure(file, landing, errno).c_str());
        return kExitFailed;
    }
    if (!options.quiet) {
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        fprintf(stderr, "%s: saved %s to %s in %.2f s\n", gProgram, humanBytes((double)facts.size).c_str(),
                file.c_str(), seconds);
    }
    return kExitOk;
}

}  // namespace webget
