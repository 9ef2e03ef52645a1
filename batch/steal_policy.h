// When an idle worker of an adaptive batch takes work from a busy one, and
// how much: small pure functions of measured rates, apart from the
// mechanism that carries them out (work_share.cpp), so that a table of
// numbers can test them.
#ifndef WEBCHANNEL_BATCH_STEAL_POLICY_H
#define WEBCHANNEL_BATCH_STEAL_POLICY_H

#include <algorithm>

namespace steal {

// The smallest part a cut hands to another worker: below it, a request of
// its own costs more than it saves, unless the owner crawls (tailWorthTaking).
constexpr long long kMinPiece = 1LL << 20;
// Below this even a crawling owner keeps its tail.
constexpr long long kMinTail = 64LL << 10;
// A tail goes to a taker that would finish it this many times sooner, and
// at least kTailGainSeconds sooner.
constexpr double kTailFactor = 3.0;
constexpr double kTailGainSeconds = 0.1;
// A rate is known once this many bytes, or this much time, went into it.
constexpr long long kRateMinBytes = 64LL << 10;
constexpr double kRateMinSeconds = 0.2;
// A connection this many times slower than the best other one is replaced
// once its piece ends (its next request goes out on a fresh connection).
constexpr double kLagFactor = 8.0;
// What a connection has in flight when its piece is cut: the owner keeps
// this long a stretch at its rate (at least kInFlightMin) past the bytes it
// claimed, so that what the server already sent is used, not thrown away.
constexpr double kInFlightSeconds = 0.1;
constexpr long long kInFlightMin = 64LL << 10;
// The cost of a fresh request, in seconds, before one was measured.
constexpr double kDefaultSetupSeconds = 0.05;

// Bytes per second of `bytes` over `seconds`; 0 (unknown) when too little
// was seen to tell. A connection that brought nothing for long enough is
// known to crawl: it counts as one byte.
inline double measuredRate(long long bytes, double seconds) {
    if (seconds <= 0 || (bytes < kRateMinBytes && seconds < kRateMinSeconds)) return 0;
    return (double)std::max(bytes, 1LL) / seconds;
}

// How many bytes at the far end of `left` unstarted bytes an idle worker
// takes, so that the owner, going on at `ownerRate`, and the taker, starting
// after `setupSeconds` at `takerRate`, end together. Rates of 0 are unknown:
// then the two are taken as equal and the taker gets the second half.
inline long long balancedTake(long long left, double ownerRate, double takerRate, double setupSeconds) {
    if (left <= 0) return 0;
    if (ownerRate <= 0 || takerRate <= 0) return left / 2;
    // The owner keeps k bytes: k / owner == setup + (left - k) / taker.
    const double keep = ownerRate * (setupSeconds * takerRate + (double)left) / (ownerRate + takerRate);
    const long long kept = std::min(left, std::max(0LL, (long long)keep));
    return left - kept;
}

// Whether `part` bytes, too few for a piece of their own, are still taken
// from an owner at `ownerRate` by a taker at `takerRate`: only when both
// rates are known and the owner would take far longer than a fresh request.
inline bool tailWorthTaking(long long part, double ownerRate, double takerRate, double setupSeconds) {
    if (part < kMinTail || ownerRate <= 0 || takerRate <= 0) return false;
    const double owner = (double)part / ownerRate;
    const double taker = setupSeconds + (double)part / takerRate;
    return owner > kTailFactor * taker && owner - taker > kTailGainSeconds;
}

// Where a piece under way at `rate`, claimed up to `claimed`, may be cut at
// the earliest.
inline long long earliestCut(long long claimed, double rate) {
    return claimed + std::max(kInFlightMin, (long long)(rate * kInFlightSeconds));
}

// Whether a connection measured at `rate` lags so far behind the best rate
// of the other workers that it should be replaced.
inline bool lagging(double rate, double bestOther) {
    return rate > 0 && bestOther > 0 && rate * kLagFactor < bestOther;
}

}  // namespace steal

#endif
