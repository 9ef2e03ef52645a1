// Who fetches which bytes in an adaptive batch.
//
// Each worker runs its own queue front to back. One that runs out takes
// work from the worker with the most bytes left: whole pieces from the far
// end of its queue, then the far part of a piece, queued or under way (how
// much: steal_policy.h). When nothing is left to take that way, the tail of
// a piece whose connection crawls far behind goes to the idle worker. A
// piece under way shrinks safely: its runner claims every block before
// writing it, and a cut never moves the piece's end below what is claimed,
// so each byte has exactly one writer.
//
// A cut makes a new piece of the file (its URL's counter grows by one before
// the owner can finish), so the file is verified only once every byte is in.
// The new pieces live here during the batch and go into the thread lists
// afterwards, where the next batch resumes whatever is left of them.
#ifndef WEBCHANNEL_BATCH_WORK_SHARE_H
#define WEBCHANNEL_BATCH_WORK_SHARE_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "channel/webChannel.h"

class WorkShare {
public:
    using httpGetJob = webChannel::httpGetJob;
    using threadData = webChannel::threadData;
    using Clock = std::chrono::steady_clock;

    WorkShare(webChannel& channel, const std::vector<threadData*>& records);
    WorkShare(const WorkShare&) = delete;
    WorkShare& operator=(const WorkShare&) = delete;

    // The next piece for worker `w`: its own queue's front, else work taken
    // from the others. While other pieces are still under way it may wait
    // (a short, bounded wait each time) for one to become worth taking. Null
    // when nothing is left for it, or the batch was cancelled.
    httpGetJob* next(int w);
    // An attempt of worker `w` starts writing its piece at the piece's
    // cursor; `sent` is when its request went out.
    void begin(int w, httpGetJob& job, Clock::time_point sent);
    // How many of `count` bytes, about to be written at the job's cursor,
    // are still the job's to write.
    long long claim(httpGetJob& job, long long count);
    // A partial answer for a piece of this file came as asked: its other
    // pieces may go out at once.
    void rangesHonoured(const httpGetJob& job);
    // Worker `w`'s piece ended: done, or failed (the worker then stops).
    void ended(int w, bool failed);
    // Whether worker `w`'s connection crawls so far behind the others' that
    // it should not serve another request.
    bool lagging(int w);
    // The first answer to ignore a range turns the file of `job` into one
    // whole-file fetch by worker `w`: every other piece of the file still
    // queued anywhere, and the unclaimed part of every one under way, is
    // handed to `w`. Returns the unfinished pieces `w` writes from that
    // answer besides `job` itself, in file order; none when another worker
    // already fetches the file whole (what is left of `job` is then the
    // little its own worker had claimed).
    // With `fold` false the file is only kept whole (never cut again), its
    // other pieces left where they are.
    std::vector<httpGetJob*> wholeFile(int w, httpGetJob& job, bool fold);
    // The pieces folded into worker `w`'s whole-file fetch, handed back once
    // its piece ended: the worker verifies those that are complete and queues
    // the others again.
    std::vector<httpGetJob*> takeFolded(int w);
    // Puts pieces back at the front of worker `w`'s queue.
    void requeue(int w, const std::vector<httpGetJob*>& pieces);
    // After the workers: each piece made by a cut goes into the list of the
    // worker that held it last.
    void settle(std::vector<threadData*>& records);
    // Pieces cut in two during the batch (each one request more).
    int cuts() const { return m_cuts; }

private:
    struct Worker {
        std::deque<httpGetJob*> queue;  // not started, in order
        long long queued = 0;           // their weight (weightOf)
        httpGetJob* current = nullptr;  // under way
        bool stopped = false;           // failed: takes nothing more
        bool measuring = false;         // an attempt is writing
        Clock::time_point sent, began;  // the attempt's request and first body byte
        long long from = 0;             // where its body began
        double rate = 0;                // the last attempt's, when measured (bytes/s)
        double setup = 0;               // the last request's wait for its head (s)
        // Pieces of a file it fetches whole, written from the same answers
        // as its current piece.
        std::vector<httpGetJob*> folded;
    };

    bool startable(const httpGetJob& job) const;
    httpGetJob* popStartable(Worker& self);
    long long weightOf(const httpGetJob& job) const;
    long long tailOf(const httpGetJob& job) const;
    long long leftOf(const Worker& w) const;
    double rateOf(const Worker& w, Clock::time_point now) const;
    double bestRate(int except, Clock::time_point now) const;
    bool cuttable(const httpGetJob& job) const;
    void closeAttempt(Worker& w, Clock::time_point now);
    bool takeFor(int thief, Clock::time_point now);
    bool takeTail(int thief, Clock::time_point now);
    void give(int thief, std::vector<httpGetJob*> taken);
    httpGetJob* cut(httpGetJob& job, long long at, int thief);
    bool anyUnderWay() const;

    webChannel& m_channel;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Worker> m_workers;
    std::deque<httpGetJob> m_made;                // pieces made by cuts
    std::map<const httpGetJob*, int> m_holders;   // the worker each made piece is with
    std::map<std::string, int> m_wholeFiles;      // URL -> the worker fetching it whole
    std::set<std::string> m_ranged;               // URLs whose server answered a range as asked
    std::set<std::string> m_probing;              // URLs with a first piece out, not answered yet
    int m_cuts = 0;
    int m_maxCuts = 0;
};

#endif
