// The batch mode: offer the jobs to the library, run the batch with the
// progress display, then say what failed and sum up.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "webget.h"

namespace webget {
namespace {

// Jobs named one by one when a batch leaves files undone; the rest are counted.
constexpr int kListedUndone = 10;

// Names the jobs that were not completed without being blamed, the first
// few of them: a batch that could not reach its server would list them all.
void listNotCompleted(const std::vector<Job>& jobs, const std::vector<int>& failed, const std::set<int>& blamed) {
    int listed = 0, more = 0;
    for (int index : failed) {
        if (blamed.count(index) != 0) continue;
        if (listed == kListedUndone) {
            ++more;
            continue;
        }
        ++listed;
        complain("not completed: %s -> %s", jobs[index].url.c_str(), jobs[index].target.c_str());
    }
    if (more > 0) complain("not completed: %d more", more);
}

// Whether the target already holds the job's digest. The library compares
// digests exactly as given, and writes lower-case ones.
bool holdsDigest(VRAXSecureWebChannel* channel, const Job& job) {
    if (job.digest.empty() || !job.landing.present) return false;
    return channel->isValid(job.target.c_str(), lowered(job.digest).c_str(), lowered(job.algorithm).c_str()) == 1;
}

// The file a failure concerns: the file written for a file error, the
// target otherwise.
const std::string& failingFile(const Job& job, int code) {
    return code == wc::kFileWrite ? job.landing.path : job.target;
}

void countUpToDate(const Options& options, BatchState& state, const Job& job, Outcome& outcome) {
    ++state.upToDate;
    outcome = {wc::kAlreadyPresent, true, true, fileSize(job.target)};
    if (!options.quiet) fprintf(state.results, "up to date %s\n", job.target.c_str());
}

// Offers the jobs to the library until an interrupt; those it accepts go to
// `jobs`, in addJob order: its job indexes. Returns how many were offered.
size_t offerJobs(VRAXSecureWebChannel* channel, const Options& options, std::vector<Job>& wanted,
                 std::vector<Job>& jobs, BatchState& state) {
    size_t considered = 0;
    for (; considered < wanted.size() && !gInterrupted.load(); ++considered) {
        Job& job = wanted[considered];
        Outcome& outcome = state.outcomes[considered];
        // The library would compare the file it writes, PLACE.part: the
        // target itself is compared here.
        job.landing = landingFor(job.target);
        if (holdsDigest(channel, job)) {
            countUpToDate(options, state, job, outcome);
            continue;
        }
        const bool originForm = chooseRequestForm(channel, options, job.url);
        int result = channel->addJob(job.url.c_str(), job.landing.path.c_str(), job.size,
                                     job.digest.empty() ? nullptr : job.digest.c_str(),
                                     job.algorithm.empty() ? nullptr : job.algorithm.c_str());
        // A run stopped between verifying a file and renaming it left the
        // whole file in PLACE.part.
        if (result == wc::kAlreadyPresent && install(job.landing)) {
            countUpToDate(options, state, job, outcome);
            continue;
        }
        if (result == wc::kAlreadyPresent) {
            ++state.refused;
            outcome = {wc::kFileWrite, false, false, job.size};
            complain("error %d: %s", wc::kFileWrite, explainInstallFailure(job.target, job.landing, errno).c_str());
            continue;
        }
        if (result < 0) {
            // Policy: a refused job is reported and the batch goes on with
            // the others; the exit status still says it failed. A job that
            // needed the size probe and is refused as an invalid argument
            // was refused because the probe failed; the library then holds
            // the probe's own failure.
            ++state.refused;
            const bool probeFailed = result == wc::kInvalidArgument && job.size == 0 && !options.unknownSize;
            LibraryError error = lastError(channel, result);
            outcome = {error.code, false, false, job.size};
            complain("error %d: %s%s", error.code,
                     explainFailure(error.code, error.reason, job.url, failingFile(job, error.code), true).c_str(),
                     probeFailed ? " (size probe failed)" : "");
            continue;
        }
        // A job's request reads the form from the job's own parameters.
        if (originForm) channel->setParam(wc::kParamRelativeTarget, "", false);
        if (job.size == 0 && !options.unknownSize) {
            // The probe leaves the announced length as the last response's.
            long long probed = 0;
            channel->httpResponse(&probed);
            if (probed > 0) job.size = probed;
        }
        // Without -c the library still keeps the control record of every
        // file, so that what this run leaves in PLACE.part a later run can
        // continue. Also a small file's: the tail of a crawling connection
        // may be taken from it, which leaves holes, and on a file system that
        // does not report holes (NFSv3, for one) only a record tells them
        // from zeros the server sent.
        if (!options.resume && !job.landing.place.empty()) channel->setParam(wc::kParamContinue, "1", false);
        state.knownTotal += job.size;
        outcome.size = job.size;
        state.listedAs.push_back(considered);
        jobs.push_back(job);
    }
    fflush(state.results);
    return considered;
}

// Runs the batch and hands the finished files out. Returns the library's
// account of the batch's first failure (code 0: none).
LibraryError runJobs(VRAXSecureWebChannel* channel, BatchState& state) {
    const std::vector<Job>& jobs = *state.jobs;
    LibraryError error;
    if (jobs.empty() || gInterrupted.load()) {
        if (gInterrupted.load()) error.code = wc::kCancelled;
        return error;
    }
    channel->setHandler(onProgress, &state);
    int pending = channel->httpMultiGet(true);
    channel->setHandler(nullptr, nullptr);
    error = lastError(channel, wc::kOk);
    std::lock_guard<std::mutex> guard(state.lock);
    if (pending < 0) {
        // The batch did not run at all.
        error.code = pending;
        pending = (int)jobs.size();
    }
    collectFinished(state);
    if (pending == 0) state.shownDone = state.total();
    drawProgress(state, true);
    return error;
}

// The failed job a library message ends with (": TARGET"), or -1; `reason`
// receives the message without it.
int jobOfMessage(const std::vector<Job>& jobs, const std::vector<int>& failed, const std::string& message,
                 std::string& reason) {
    for (int index : failed) {
        const std::string tail = ": " + jobs[index].landing.path;
        if (message.size() > tail.size() && message.compare(message.size() - tail.size(), tail.size(), tail) == 0) {
            reason = message.substr(0, message.size() - tail.size());
            return index;
        }
    }
    reason = message;
    return -1;
}

// Says which jobs were not handed out. The job the library's first failure
// concerns gets its code and cause; every other job not handed out failed
// on its own (blamed by the progress reports), was stopped with its worker,
// or was never reached. Returns the job given the first failure, or -1.
int reportFailures(const BatchState& state, const std::vector<int>& failed, const LibraryError& error) {
    const std::vector<Job>& jobs = *state.jobs;
    std::string reason;
    int named = jobOfMessage(jobs, failed, error.reason, reason);
    for (size_t i = 0; named < 0 && i < failed.size(); ++i)
        if (state.blamed.count(failed[i]) != 0) named = failed[i];
    if (named < 0) {
        complain("error %d: %s; %zu file(s) not completed:", error.code,
                 reason.empty() ? wc::resultText(error.code) : reason.c_str(), failed.size());
        listNotCompleted(jobs, failed, state.blamed);
        return -1;
    }
    const Job& job = jobs[named];
    complain("error %d: %s", error.code,
             explainFailure(error.code, reason, job.url, failingFile(job, error.code)).c_str());
    for (int index : failed)
        if (index != named && state.blamed.count(index) != 0)
            complain("failed: %s -> %s", jobs[index].url.c_str(), jobs[index].target.c_str());
    std::set<int> reported = state.blamed;
    reported.insert(named);
    listNotCompleted(jobs, failed, reported);
    return named;
}

// The outcomes of the jobs the library ran. The library keeps the code of
// its first failure only: the job it names gets that code, others that
// failed on their own the code of a failure with no more specific code, and
// those stopped with their worker or never reached that of a cancel.
void settleOutcomes(BatchState& state, int named, const LibraryError& error) {
    for (size_t i = 0; i < state.listedAs.size(); ++i) {
        Outcome& outcome = state.outcomes[state.listedAs[i]];
        if (state.notInstalled.count((int)i) != 0) {
            outcome.result = wc::kFileWrite;
        } else if (state.handedOut[i]) {
            long long size = fileSize((*state.jobs)[i].target);
            outcome = {wc::kOk, true, false, size >= 0 ? size : outcome.size};
        } else if ((int)i == named) {
            outcome.result = error.code;
        } else {
            outcome.result = state.blamed.count((int)i) != 0 ? wc::kInvalidArgument : wc::kCancelled;
        }
    }
}

}  // namespace

int runBatch(VRAXSecureWebChannel* channel, const Options& options, std::vector<Job> wanted) {
    BatchState state;
    state.channel = channel;
    state.quiet = options.quiet;
    state.terminal = isatty(2) != 0;
    if (options.json) state.results = stderr;
    state.resultsTerminal = isatty(fileno(state.results)) != 0;
    state.start = Clock::now();
    if (options.directoryGiven && mkdirs(options.directory) != 0) {
        complain("cannot create the directory %s: %s", options.directory.c_str(), strerror(errno));
        return kExitUsage;
    }
    std::vector<Job> jobs;
    jobs.reserve(wanted.size());
    state.jobs = &jobs;
    state.outcomes.assign(wanted.size(), Outcome());
    size_t considered = offerJobs(channel, options, wanted, jobs, state);
    state.handedOut.assign(jobs.size(), 0);

    LibraryError error = runJobs(channel, state);
    double seconds = std::chrono::duration<double>(Clock::now() - state.start).count();
    std::vector<int> failed;
    int named = -1;
    for (size_t i = 0; i < jobs.size(); ++i) {
        if (state.handedOut[i]) continue;
        failed.push_back((int)i);
        dropIfEmpty(jobs[i].landing);
    }
    if (!failed.empty()) {
        if (error.code == wc::kOk) {
            error.code = gInterrupted.load() ? wc::kCancelled : wc::kInvalidArgument;
            if (!gInterrupted.load()) error.reason = "no cause reported by the library";
        }
        named = reportFailures(state, failed, error);
    }
    settleOutcomes(state, named, error);

    // Jobs never offered to the library because of an interrupt.
    int notStarted = (int)(wanted.size() - considered);
    if (notStarted > 0) complain("interrupted: %d job(s) not started", notStarted);
    int failures = (int)failed.size() + (int)state.notInstalled.size() + state.refused + notStarted;
    if (!options.quiet) {
        double rate = seconds > 0 ? state.handedBytes / seconds : 0;
        fprintf(stderr, "%s: %d downloaded, %d up to date, %d failed; %s in %.2f s (%s/s)%s\n", gProgram,
                state.handedCount, state.upToDate, failures, humanBytes((double)state.handedBytes).c_str(), seconds,
                humanBytes(rate).c_str(), failures == 0 ? "; all verified" : "");
    }
    if (options.json) printJson(wanted, state.outcomes, {state.handedCount, state.upToDate, failures,
                                                         state.handedBytes, seconds});
    // A cancel only stops transfers still in progress; when the interrupt
    // came too late to stop anything, the batch simply succeeded.
    if (failures == 0) return kExitOk;
    return gInterrupted.load() ? kExitInterrupted : kExitFailed;
}

}  // namespace webget
