// Shares of one manifest for cooperating processes (--shard I/N): every
// process computes the same plan from the same list and keeps its share.
// Pure functions over the jobs' sizes and names, kept in this header so that
// the unit tests can use them without the program.
#ifndef WEBGET_SHARD_H
#define WEBGET_SHARD_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace webget {

// More shares than this is surely a typo.
constexpr unsigned long kMaxShares = 1000000;

// "I/N" with 0 <= I < N; false when malformed or out of range.
inline bool parseShard(const std::string& text, unsigned long& index, unsigned long& count) {
    const size_t slash = text.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == text.size()) return false;
    if (text.find_first_not_of("0123456789/") != std::string::npos || text.find('/', slash + 1) != std::string::npos)
        return false;
    if (slash > 7 || text.size() - slash - 1 > 7) return false;  // beyond kMaxShares either way
    index = std::strtoul(text.substr(0, slash).c_str(), nullptr, 10);
    count = std::strtoul(text.substr(slash + 1).c_str(), nullptr, 10);
    return count >= 1 && count <= kMaxShares && index < count;
}

// FNV-1a, 64 bits: stable across runs, machines and builds, unlike std::hash.
inline uint64_t fnv1a64(const std::string& text) {
    uint64_t hash = 14695981039346656037ull;
    for (char c : text) {
        hash ^= (unsigned char)c;
        hash *= 1099511628211ull;
    }
    return hash;
}

// The share of every job. With every size known the shares are balanced by
// bytes: jobs by size, largest first (ties by name), each to the share
// holding the fewest bytes so far (ties to the lowest index); then no share
// is further than one largest job from the mean. Otherwise a job's share
// follows from the hash of its name alone.
inline std::vector<unsigned long> planShares(const std::vector<long long>& sizes,
                                             const std::vector<std::string>& names, unsigned long count) {
    std::vector<unsigned long> share(sizes.size(), 0);
    if (count == 0 || names.size() != sizes.size()) return share;
    const bool allSized = std::all_of(sizes.begin(), sizes.end(), [](long long size) { return size > 0; });
    if (!allSized) {
        for (size_t i = 0; i < names.size(); ++i) share[i] = (unsigned long)(fnv1a64(names[i]) % count);
        return share;
    }
    std::vector<size_t> order(sizes.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        return sizes[a] != sizes[b] ? sizes[a] > sizes[b] : names[a] < names[b];
    });
    std::vector<long long> load(std::min<size_t>(count, sizes.size() + 1), 0);
    for (size_t job : order) {
        // Shares beyond the number of jobs would stay empty anyway.
        const size_t lightest = (size_t)(std::min_element(load.begin(), load.end()) - load.begin());
        share[job] = lightest;
        load[lightest] += sizes[job];
    }
    return share;
}

}  // namespace webget

#endif
