// webget's entry: parse the command line, gather the jobs, load the library,
// and run one mode.
#include <cstdarg>
#include <memory>

#include "descriptors.h"
#include "shard.h"
#include "webget.h"

namespace webget {

const char* gProgram = "webget";

void complain(const char* format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    fprintf(stderr, "%s: %s\n", gProgram, text);
}

std::string describe(int code) {
    return std::to_string(code) + " (" + wc::resultText(code) + ")";
}

}  // namespace webget

using namespace webget;

namespace {

// The batch's jobs: from the manifest, or one per URL argument into the
// directory. Returns -1 to go on, or an exit status.
int gatherJobs(Options& options, std::vector<Job>& jobs) {
    if (!options.manifest.empty()) return readManifest(options, jobs);
    if (!options.directoryGiven) options.directory = ".";
    for (size_t i = 0; i < options.urls.size(); ++i) {
        Job job;
        job.url = options.urls[i];
        job.name = urlBasename(job.url);
        job.target = joinPath(options.directory, job.name);
        job.origin = "argument " + std::to_string(i + 1);
        jobs.push_back(job);
    }
    return -1;
}

// Keeps this process's share of the jobs (--shard I/N). Every process
// plans from the whole list, so the shares agree without talking.
void keepShare(const Options& options, std::vector<Job>& jobs) {
    if (options.shardCount <= 1) return;
    std::vector<long long> sizes;
    std::vector<std::string> names;
    for (const Job& job : jobs) {
        sizes.push_back(job.size);
        names.push_back(job.name);
    }
    const std::vector<unsigned long> share = planShares(sizes, names, options.shardCount);
    std::vector<Job> kept;
    for (size_t i = 0; i < jobs.size(); ++i)
        if (share[i] == options.shardIndex) kept.push_back(jobs[i]);
    jobs.swap(kept);
}

}  // namespace

int main(int argc, char** argv) {
    raiseDescriptorLimit();
    Options options;
    int status = parseCommandLine(argc, argv, options);
    if (status >= 0) return status;

    std::vector<Job> jobs;
    bool batch = options.output.empty() && !options.toStdout && !options.post;
    if (batch && (status = gatherJobs(options, jobs)) >= 0) return status;
    if (batch && (status = checkDuplicates(jobs)) >= 0) return status;
    // Before the shares: every process must see the same digests and stop
    // on the same disagreement.
    if (batch && (status = applyChecksumFiles(options, jobs)) >= 0) return status;
    keepShare(options, jobs);

    Library library;
    if (!loadLibrary(options, library)) return kExitUsage;

    // In a batch (-c -o runs one too), signals are taken by the watcher from
    // here on, before the library starts any thread. Single requests keep
    // the default action: there is nothing to cancel cleanly.
    const bool continuing = !options.output.empty() && options.resume;
    std::unique_ptr<SignalGuard> signals;
    if (batch || continuing) signals = std::make_unique<SignalGuard>();
    {
        ChannelHandle handle(library);
        if (handle.channel == nullptr) {
            complain("the library did not create a channel");
            return kExitUsage;
        }
        status = configureChannel(handle.channel, options);
        if (status < 0) {
            // An empty batch still owes its (empty) JSON account.
            if (batch) status = jobs.empty() && !options.json ? kExitOk : runBatch(handle.channel, options, jobs);
            else if (options.toStdout) status = runGetToStdout(handle.channel, options);
            else if (options.post) status = runPost(handle.channel, options);
            else if (continuing) status = runContinueToFile(handle.channel, options);
            else status = runGetToFile(handle.channel, options);
        }
    }
    fflush(stdout);
    // The library stays loaded until exit: its threads and OpenSSL's exit
    // handlers may still refer to it.
    return status;
}
