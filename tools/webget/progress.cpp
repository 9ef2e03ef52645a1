// The progress display of a batch: a live bar on a terminal, a plain line
// every 2 s otherwise; and handing finished files out as they come.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "webget.h"

namespace webget {
namespace {

// Redraw intervals in seconds: live bar, plain lines.
constexpr double kBarInterval = 0.1;
constexpr double kLineInterval = 2.0;
// The rate is measured over this many seconds.
constexpr double kRateWindow = 5.0;
constexpr int kDefaultColumns = 80;
constexpr int kBarWidth = 30;

std::string humanDuration(double seconds) {
    if (seconds < 0 || seconds > 359999) return "--:--";
    long s = (long)(seconds + 0.5);
    char text[32];
    if (s >= 3600) snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

int terminalColumns() {
    struct winsize size;
    if (ioctl(2, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
    return kDefaultColumns;
}

void clearBar(BatchState& state) {
    if (state.barVisible) {
        fputs("\r\033[K", stderr);
        fflush(stderr);
        state.barVisible = false;
    }
}

double rateOf(BatchState& state, double now, long long done) {
    state.samples.emplace_back(now, done);
    // The rate over the last five seconds follows changes without jitter.
    while (state.samples.size() > 2 && now - state.samples.front().first > kRateWindow) state.samples.pop_front();
    double span = now - state.samples.front().first;
    long long bytes = done - state.samples.front().second;
    if (span >= 0.5 && bytes >= 0) return bytes / span;
    return now > 0.2 ? done / now : 0.0;
}

// What one progress line says.
struct Figures {
    long long total = 0;
    long long done = 0;
    double rate = 0;
    double fraction = 0;
    char percent[16] = "";
    std::string eta = "--:--";
    std::string files;
};

Figures figuresOf(BatchState& state, double elapsed, bool final) {
    Figures f;
    f.total = state.total();
    f.done = state.shownDone;
    f.rate = rateOf(state, elapsed, f.done);
    // The closing line shows the average over the whole batch.
    if (final) f.rate = elapsed > 0 ? f.done / elapsed : 0.0;
    if (f.total > 0) {
        f.fraction = (double)f.done / (double)f.total;
        if (f.fraction > 1) f.fraction = 1;
        snprintf(f.percent, sizeof f.percent, "%5.1f%%", f.fraction * 100.0);
        if (f.rate > 1) f.eta = humanDuration((double)(f.total - f.done) / f.rate);
    }
    int filesDone = state.handedCount + state.upToDate;
    int failed = (int)state.blamed.size() + (int)state.notInstalled.size() + state.refused;
    f.files = "files " + std::to_string(filesDone) + "/" + std::to_string(state.fileCount());
    if (failed > 0) f.files += ", " + std::to_string(failed) + " failed";
    return f;
}

// The live bar's line, cut to the terminal's width.
std::string barLine(BatchState& state, const Figures& f) {
    auto compose = [&](const std::string& doneText, const std::string& rateText, const std::string& etaText) {
        std::string text = std::string(" ") + f.percent + " " + doneText;
        if (f.total > 0) text += "/" + humanBytes((double)f.total);
        return text + " " + rateText + "/s ETA " + etaText + " " + f.files;
    };
    std::string info = compose(humanBytes((double)f.done), humanBytes(f.rate), f.eta);
    int columns = terminalColumns() - 1;
    // The bar keeps one width for the whole batch: room is left for the
    // widest numbers the line can show.
    if (state.widestInfo == 0)
        state.widestInfo = (int)compose(humanBytes(f.total > 0 ? (double)f.total : 1e12), "1023.9 MiB", "99:59").size();
    if ((int)info.size() > state.widestInfo) state.widestInfo = (int)info.size();
    int barWidth = kBarWidth;
    if (columns - state.widestInfo - 2 < barWidth) barWidth = columns - state.widestInfo - 2;
    std::string line;
    if (barWidth >= 8) {
        int filled = (int)(f.fraction * barWidth);
        line = "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
    }
    line += info;
    if ((int)line.size() > columns) line.resize(columns);
    return line;
}

}  // namespace

std::string humanBytes(double bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024.0 && unit < 4) {
        bytes /= 1024.0;
        ++unit;
    }
    char text[32];
    if (unit == 0) snprintf(text, sizeof text, "%.0f %s", bytes, kUnits[unit]);
    else snprintf(text, sizeof text, "%.1f %s", bytes, kUnits[unit]);
    return text;
}

long long fileSize(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? (long long)info.st_size : -1;
}

void collectFinished(BatchState& state) {
    const size_t count = state.jobs->size();
    for (size_t guard = 0; guard <= count; ++guard) {
        int index = state.channel->getNextDownloadedFile();
        if (index < 0 || (size_t)index >= count) break;
        if (state.handedOut[index]) continue;
        state.handedOut[index] = 1;
        const Job& job = (*state.jobs)[index];
        if (!install(job.landing)) {
            const int error = errno;
            state.notInstalled.insert(index);
            if (state.terminal) clearBar(state);
            complain("error %d: %s", wc::kFileWrite, explainInstallFailure(job.target, job.landing, error).c_str());
            continue;
        }
        ++state.handedCount;
        long long size = fileSize(job.target);
        state.handedBytes += size > 0 ? size : job.size;
        if (!state.quiet) {
            if (state.resultsTerminal) clearBar(state);
            fprintf(state.results, "downloaded %s\n", job.target.c_str());
        }
    }
    fflush(state.results);
}

void drawProgress(BatchState& state, bool final) {
    if (state.quiet) return;
    Clock::time_point now = Clock::now();
    double sinceDraw = std::chrono::duration<double>(now - state.lastDraw).count();
    double interval = state.terminal ? kBarInterval : kLineInterval;
    if (!final && state.drawnOnce && sinceDraw < interval) return;
    if (!final && !state.terminal && std::chrono::duration<double>(now - state.start).count() < interval) return;
    state.lastDraw = now;
    state.drawnOnce = true;
    Figures f = figuresOf(state, std::chrono::duration<double>(now - state.start).count(), final);
    if (state.terminal) {
        fprintf(stderr, "\r\033[K%s", barLine(state, f).c_str());
        if (final) fputc('\n', stderr);
        state.barVisible = !final;
        fflush(stderr);
    } else if (!final) {
        std::string amounts =
            humanBytes((double)f.done) + (f.total > 0 ? " / " + humanBytes((double)f.total) : std::string());
        fprintf(stderr, "%s: %s%s%s, %s/s, ETA %s, %s\n", gProgram, f.percent, *f.percent ? " " : "", amounts.c_str(),
                humanBytes(f.rate).c_str(), f.eta.c_str(), f.files.c_str());
        fflush(stderr);
    }
}

// Runs on the workers, possibly several at once: everything below is under
// the state's lock.
void onProgress(bool& cancel, int finished, long long bytesDone, long long bytesTotal, int jobIndex, void* user) {
    (void)finished;  // counted by handing files out instead
    BatchState& state = *static_cast<BatchState*>(user);
    if (gInterrupted.load()) cancel = true;
    std::lock_guard<std::mutex> guard(state.lock);
    if (jobIndex >= 0 && (size_t)jobIndex < state.jobs->size()) state.blamed.insert(jobIndex);
    collectFinished(state);
    // Reports between the library's 256 KiB steps carry no byte counts.
    if (bytesDone != 0 || bytesTotal != 0) {
        if (bytesTotal > state.reportedTotal) state.reportedTotal = bytesTotal;
        state.pendingDone = bytesDone;
    }
    long long done = state.handedBytes + state.pendingDone;
    long long total = state.total();
    if (total > 0 && done > total) done = total;
    // A file finishing between the library's count and the hand-out is
    // briefly counted twice or not at all; the display never goes back.
    if (done > state.shownDone) state.shownDone = done;
    drawProgress(state, false);
}

}  // namespace webget
