#include "batch/work_share.h"

#include <algorithm>
#include <climits>

#include "batch/steal_policy.h"
#include "channel/atomics.h"

namespace {

// How long an idle worker waits before it looks again at the pieces under
// way: their rates change as they run, and one may become worth taking.
constexpr auto kIdleLook = std::chrono::milliseconds(20);
// Cuts allowed per piece planned and per worker: each cut costs a request,
// and a server slow for everyone must not see a storm of them.
constexpr int kCutsPerPiece = 2;

double seconds(WorkShare::Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

}  // namespace

WorkShare::WorkShare(webChannel& channel, const std::vector<threadData*>& records)
    : m_channel(channel), m_workers(records.size()) {
    size_t pieces = 0;
    for (size_t w = 0; w < records.size(); ++w) {
        for (httpGetJob& job : records[w]->jobs) {
            job.share = this;
            job.claimed = job.start;
            // Finished in an earlier batch: passed through as the driver does
            // without a share, never taken.
            m_workers[w].queue.push_back(&job);
            m_workers[w].queued += weightOf(job);
            ++pieces;
        }
    }
    m_maxCuts = kCutsPerPiece * (int)(pieces + records.size());
}

long long WorkShare::weightOf(const httpGetJob& job) const {
    // Unknown sizes weigh as much as a piece: such a file is never cut, but
    // an idle worker may still take it whole.
    const long long end = atomicLoad(job.end);
    if (end < 0) return steal::kMinPiece;
    return std::max(0LL, end + 1 - job.start);
}

long long WorkShare::tailOf(const httpGetJob& job) const {
    // What its runner has not claimed yet; the runner alone knows its cursor.
    const long long end = atomicLoad(job.end);
    if (end < 0) return 0;
    return std::max(0LL, end + 1 - job.claimed);
}

long long WorkShare::leftOf(const Worker& w) const {
    return w.queued + (w.current != nullptr ? tailOf(*w.current) : 0);
}

double WorkShare::rateOf(const Worker& w, Clock::time_point now) const {
    if (w.current != nullptr && w.measuring) {
        const double rate = steal::measuredRate(w.current->claimed - w.from, seconds(now - w.began));
        if (rate > 0) return rate;
    }
    return w.rate;
}

double WorkShare::bestRate(int except, Clock::time_point now) const {
    double best = 0;
    for (size_t w = 0; w < m_workers.size(); ++w)
        if ((int)w != except) best = std::max(best, rateOf(m_workers[w], now));
    return best;
}

bool WorkShare::cuttable(const httpGetJob& job) const {
    return atomicLoad(job.end) >= 0 && atomicLoad(job.size) > 0 && m_cuts < m_maxCuts &&
           m_wholeFiles.count(job.url) == 0;
}

bool WorkShare::anyUnderWay() const {
    for (const Worker& w : m_workers)
        if (w.current != nullptr) return true;
    return false;
}

bool WorkShare::startable(const httpGetJob& job) const {
    return m_ranged.count(job.url) != 0 || m_wholeFiles.count(job.url) != 0 || m_probing.count(job.url) == 0;
}

WorkShare::httpGetJob* WorkShare::popStartable(Worker& self) {
    for (auto it = self.queue.begin(); it != self.queue.end(); ++it) {
        httpGetJob* job = *it;
        if (!startable(*job)) continue;
        self.queue.erase(it);
        self.queued -= weightOf(*job);
        // Until an answer shows that the server honours ranges, one piece of
        // a file asks at a time: a server that ignores them answers it with
        // the whole file, which then serves every piece.
        if (m_ranged.count(job->url) == 0 && m_wholeFiles.count(job->url) == 0) m_probing.insert(job->url);
        job->claimed = job->start;
        self.current = job;
        self.measuring = false;
        return job;
    }
    return nullptr;
}

WorkShare::httpGetJob* WorkShare::next(int w) {
    std::unique_lock<std::mutex> lock(m_lock);
    Worker& self = m_workers[(size_t)w];
    for (;;) {
        if (m_channel.isCancelled() || self.stopped) return nullptr;
        const Clock::time_point now = Clock::now();
        // The tail of a piece on a crawling connection is taken first,
        // whatever is queued here: it would end last, and hold back its
        // file's digest all along; its owner, cut, goes on over a new one.
        takeTail(w, now);
        if (httpGetJob* job = popStartable(self)) return job;
        // Work queued here waits only for a first answer on its file.
        if (self.queue.empty() && takeFor(w, now)) {
            if (httpGetJob* job = popStartable(self)) return job;
        }
        // Nothing to take now. With nothing under way, and no queue left but
        // those of workers that stopped (which takeFor empties), the batch
        // is over for everyone.
        if (!anyUnderWay()) {
            bool queued = false;
            for (const Worker& other : m_workers) queued = queued || (!other.queue.empty() && !other.stopped);
            if (!queued) return nullptr;
        }
        m_changed.wait_for(lock, kIdleLook);
    }
}

void WorkShare::begin(int w, httpGetJob& job, Clock::time_point sent) {
    std::lock_guard<std::mutex> lock(m_lock);
    Worker& self = m_workers[(size_t)w];
    const Clock::time_point now = Clock::now();
    closeAttempt(self, now);
    self.current = &job;
    job.claimed = job.cursor;
    self.sent = sent;
    self.began = now;
    self.from = job.cursor;
    self.setup = seconds(now - sent);
    self.measuring = true;
}

void WorkShare::closeAttempt(Worker& w, Clock::time_point now) {
    if (!w.measuring || w.current == nullptr) return;
    const double rate = steal::measuredRate(w.current->claimed - w.from, seconds(now - w.began));
    if (rate > 0) w.rate = rate;
    w.measuring = false;
}

long long WorkShare::claim(httpGetJob& job, long long count) {
    std::lock_guard<std::mutex> lock(m_lock);
    const long long end = atomicLoad(job.end);
    const long long limit = end < 0 ? job.bound : std::min(job.bound, end + 1);
    const long long allowed = std::max(0LL, std::min(count, limit - job.cursor));
    job.claimed = job.cursor + allowed;
    return allowed;
}

void WorkShare::rangesHonoured(const httpGetJob& job) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_ranged.insert(job.url).second) return;
        m_probing.erase(job.url);
    }
    m_changed.notify_all();
}

void WorkShare::ended(int w, bool failed) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        Worker& self = m_workers[(size_t)w];
        closeAttempt(self, Clock::now());
        // A piece that ended without telling whether ranges work lets the
        // next one ask.
        if (self.current != nullptr) m_probing.erase(self.current->url);
        self.current = nullptr;
        if (failed) self.stopped = true;
    }
    m_changed.notify_all();
}

bool WorkShare::lagging(int w) {
    std::lock_guard<std::mutex> lock(m_lock);
    const Clock::time_point now = Clock::now();
    return steal::lagging(rateOf(m_workers[(size_t)w], now), bestRate(w, now));
}

WorkShare::httpGetJob* WorkShare::cut(httpGetJob& job, long long at, int thief) {
    // The owner keeps [origin, at), the taker gets [at, end]. The counter
    // grows before the owner can finish: it cannot reach `at` unclaimed.
    const long long end = atomicLoad(job.end), size = atomicLoad(job.size);
    const long long origin = end - size + 1;
    // Built field by field from what nobody changes while the batch runs:
    // the owner changes the rest as it goes (its parameters too, merged with
    // the channel's for each request), so those come from the job list.
    httpGetJob piece;
    piece.url = job.url;
    piece.file = job.file;
    piece.checksum = job.checksum;
    piece.algorithm = job.algorithm;
    const std::vector<httpGetJob>& listed = m_channel.m_httpGetJobs;
    piece.params = job.listed < listed.size() ? listed[job.listed].params : AccessParams();
    piece.observer = job.observer;
    piece.listed = job.listed;
    piece.share = this;
    piece.start = at;
    piece.end = end;
    piece.size = end - at + 1;
    piece.part = job.part + 1;
    piece.cursor = at;
    piece.claimed = at;
    atomicStore(job.size, at - origin);
    atomicStore(job.end, at - 1);
    auto counter = m_channel.m_downloaded.find(job.url);
    if (counter != m_channel.m_downloaded.end()) atomicAdd(counter->second, 1L);
    m_made.push_back(piece);
    m_holders[&m_made.back()] = thief;
    ++m_cuts;
    if (webChannel::logging())
        webChannel::log("VRAXSecureWebChannel::httpMultiGet: thread %d takes bytes %lld-%lld of %s", thief, at, end,
                        job.file.c_str());
    return &m_made.back();
}

void WorkShare::give(int thief, std::vector<httpGetJob*> taken) {
    // Taken from the far end first: the taker runs them in file order.
    Worker& self = m_workers[(size_t)thief];
    for (auto it = taken.rbegin(); it != taken.rend(); ++it) {
        self.queue.push_back(*it);
        self.queued += weightOf(**it);
        auto holder = m_holders.find(*it);
        if (holder != m_holders.end()) holder->second = thief;
    }
}

bool WorkShare::takeFor(int thief, Clock::time_point now) {
    int victim = -1;
    long long most = 0;
    for (size_t v = 0; v < m_workers.size(); ++v) {
        const long long left = (int)v == thief ? 0 : leftOf(m_workers[v]);
        if (left > most) most = left, victim = (int)v;
    }
    if (victim < 0) return false;
    Worker& owner = m_workers[(size_t)victim];
    const Worker& self = m_workers[(size_t)thief];
    const double takerRate = self.rate > 0 ? self.rate : bestRate(victim, now);
    const double setup = self.setup > 0 ? self.setup : steal::kDefaultSetupSeconds;
    // A stopped worker runs nothing more: all that is queued there is up for taking.
    const long long want =
        owner.stopped ? most : steal::balancedTake(most, rateOf(owner, now), takerRate, setup);

    std::vector<httpGetJob*> taken;
    long long got = 0;
    while (!owner.queue.empty() && got < want) {
        httpGetJob* back = owner.queue.back();
        const long long weight = weightOf(*back);
        const long long part = want - got;
        const bool cutBack = cuttable(*back) && part >= steal::kMinPiece && weight - part >= 1;
        // Whole, when it fits; or, when nothing else could be taken, when the
        // owner keeps other work, so that the two share it at all.
        if (got + weight <= want || (taken.empty() && !cutBack && most - weight > 0)) {
            owner.queue.pop_back();
            owner.queued -= weight;
            taken.push_back(back);
            got += weight;
            continue;
        }
        if (cutBack) {
            owner.queued -= part;
            taken.push_back(cut(*back, atomicLoad(back->end) + 1 - part, thief));
            got = want;
        }
        break;
    }
    if (owner.queue.empty() && got < want && owner.current != nullptr && cuttable(*owner.current)) {
        httpGetJob& job = *owner.current;
        const long long part = std::min(want - got, tailOf(job));
        const long long at = std::max(atomicLoad(job.end) + 1 - part, steal::earliestCut(job.claimed, rateOf(owner, now)));
        if (part >= steal::kMinPiece && atomicLoad(job.end) + 1 - at >= steal::kMinPiece)
            taken.push_back(cut(job, at, thief));
    }
    if (taken.empty()) return false;
    give(thief, std::move(taken));
    return true;
}

bool WorkShare::takeTail(int thief, Clock::time_point now) {
    // Nothing worth a piece is left: the tail of the piece that would end
    // last goes to this worker when its connection crawls far behind.
    const Worker& self = m_workers[(size_t)thief];
    const double setup = self.setup > 0 ? self.setup : steal::kDefaultSetupSeconds;
    int victim = -1;
    double latest = 0;
    for (size_t v = 0; v < m_workers.size(); ++v) {
        const Worker& owner = m_workers[v];
        if ((int)v == thief || owner.current == nullptr || !cuttable(*owner.current)) continue;
        const double ownerRate = rateOf(owner, now);
        const double takerRate = self.rate > 0 ? self.rate : bestRate((int)v, now);
        const long long tail = atomicLoad(owner.current->end) + 1 - steal::earliestCut(owner.current->claimed, ownerRate);
        if (!steal::tailWorthTaking(tail, ownerRate, takerRate, setup)) continue;
        const double finish = (double)tail / ownerRate;
        if (finish > latest) latest = finish, victim = (int)v;
    }
    if (victim < 0) return false;
    httpGetJob& job = *m_workers[(size_t)victim].current;
    const long long at = steal::earliestCut(job.claimed, rateOf(m_workers[(size_t)victim], now));
    if (atomicLoad(job.end) + 1 - at < steal::kMinTail) return false;
    Worker& taker = m_workers[(size_t)thief];
    httpGetJob* tail = cut(job, at, thief);
    taker.queue.push_front(tail);
    taker.queued += weightOf(*tail);
    return true;
}

std::vector<WorkShare::httpGetJob*> WorkShare::wholeFile(int w, httpGetJob& job, bool fold) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto registered = m_wholeFiles.emplace(job.url, w);
    m_probing.erase(job.url);
    std::vector<httpGetJob*> pieces;
    if (!fold || (!registered.second && registered.first->second != w)) return pieces;
    // Every piece of the file that is not under way elsewhere is this
    // worker's now; so is the unclaimed part of those that are (their owners
    // stop at what they claimed). Pieces already folded in are found again
    // by their holder: the made ones by their record, the others by the
    // queues they left.
    for (size_t v = 0; v < m_workers.size(); ++v) {
        Worker& other = m_workers[v];
        for (auto it = other.queue.begin(); it != other.queue.end();) {
            if ((*it)->url != job.url || *it == &job) {
                ++it;
                continue;
            }
            other.queued -= weightOf(**it);
            pieces.push_back(*it);
            auto holder = m_holders.find(*it);
            if (holder != m_holders.end()) holder->second = w;
            it = other.queue.erase(it);
        }
        httpGetJob* running = other.current;
        if ((int)v == w || running == nullptr || running->url != job.url) continue;
        const long long end = atomicLoad(running->end);
        const long long origin = end - atomicLoad(running->size) + 1;
        const long long at = std::max(running->claimed, origin + 1);
        if (end >= 0 && at <= end) pieces.push_back(cut(*running, at, w));
    }
    Worker& self = m_workers[(size_t)w];
    self.folded.insert(self.folded.end(), pieces.begin(), pieces.end());
    pieces.clear();
    for (httpGetJob* piece : self.folded)
        if (piece->start <= atomicLoad(piece->end)) pieces.push_back(piece);
    std::sort(pieces.begin(), pieces.end(), [](const httpGetJob* a, const httpGetJob* b) { return a->start < b->start; });
    return pieces;
}

std::vector<WorkShare::httpGetJob*> WorkShare::takeFolded(int w) {
    std::lock_guard<std::mutex> lock(m_lock);
    std::vector<httpGetJob*> folded;
    folded.swap(m_workers[(size_t)w].folded);
    return folded;
}

void WorkShare::requeue(int w, const std::vector<httpGetJob*>& pieces) {
    std::lock_guard<std::mutex> lock(m_lock);
    Worker& self = m_workers[(size_t)w];
    for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) {
        self.queue.push_front(*it);
        self.queued += weightOf(**it);
    }
}

void WorkShare::settle(std::vector<threadData*>& records) {
    std::lock_guard<std::mutex> lock(m_lock);
    for (httpGetJob& piece : m_made) {
        const int holder = m_holders[&piece];
        piece.share = nullptr;
        piece.bound = LLONG_MAX;
        records[(size_t)holder]->jobs.push_back(piece);
    }
    for (threadData* record : records) {
        for (httpGetJob& job : record->jobs) {
            job.share = nullptr;
            job.bound = LLONG_MAX;
        }
    }
    m_made.clear();
    m_holders.clear();
}
