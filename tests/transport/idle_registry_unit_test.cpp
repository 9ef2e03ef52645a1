// Idle connections: which go first and how many (the policy), and the registry that closes them for their owners.
#include <gtest/gtest.h>

#include <map>

#include "transport/idle_registry.h"

namespace {

const char kOwnerA = 'A', kOwnerB = 'B';  // two pools, told apart by address

TEST(IdlePolicy, TheLeastRecentlyUsedGoFirstAmongTheOwnersOwnAndTheCountsFollowTheirRules) {
    const std::map<char, IdleMark> idle = {
        {'a', {&kOwnerA, 5}}, {'b', {&kOwnerB, 1}}, {'c', {&kOwnerA, 3}}, {'d', {&kOwnerA, 9}}, {'e', {&kOwnerB, 4}}};
    const std::tuple<const void*, size_t, std::string> rows[] = {
        {nullptr, 2, "bc"}, {&kOwnerA, 2, "ca"}, {&kOwnerB, 5, "be"}, {&kOwnerA, 0, ""}, {nullptr, 9, "bcead"},
    };
    for (const auto& [owner, count, expected] : rows) {
        const std::vector<char> chosen = leastRecentlyUsed(idle, owner, count);
        EXPECT_EQ(std::string(chosen.begin(), chosen.end()), expected) << count;
    }
    const std::tuple<size_t, long, size_t> capped[] = {{5, -1, 0}, {5, 5, 0}, {5, 2, 3}, {5, 0, 5}, {0, 0, 0}};
    for (const auto& [held, cap, closed] : capped) EXPECT_EQ(beyondCap(held, cap), closed) << held << " " << cap;
    const std::pair<size_t, size_t> relief[] = {{0, 0}, {1, 1}, {7, 1}, {8, 2}, {1600, 400}};
    for (const auto& [held, closed] : relief) EXPECT_EQ(reliefCount(held), closed) << held;
    const std::pair<const char*, long> caps[] = {{"0", 0},   {"16", 16},         {"4294967295", 4294967295L},
                                                 {"", -1},   {"-1", -1},         {"2x", -1},
                                                 {" 3", -1}, {"12345678901", -1}};
    for (const auto& [text, cap] : caps) EXPECT_EQ(idleCapFrom(text), cap) << text;
}

// Connections a..e, parked and taken by two pools: relief and the cap close the least recently used idle ones
// (never one in use), and the owner of one closed while parked finds it gone.
TEST(IdleRegistry, ClosesOnlyParkedConnectionsOldestFirstAndTheirOwnerSeesThemGone) {
    std::vector<webChannel::connection> records;
    for (const char* name : {"a", "b", "c", "d", "e"}) records.emplace_back(0, name, "80", false);
    auto *a = &records[0], *b = &records[1], *c = &records[2], *d = &records[3], *e = &records[4];
    std::string closed;
    IdleRegistry registry([&](webChannel::connection* conn) { closed += conn->host; });

    for (auto* conn : {a, b, c, d})
        EXPECT_TRUE(registry.park(conn, conn == b || conn == d ? &kOwnerB : &kOwnerA, -1).empty());
    EXPECT_TRUE(registry.take(a));  // in use again: not idle
    EXPECT_EQ(registry.relieve(), 1u);
    EXPECT_EQ(closed, "b");
    EXPECT_FALSE(registry.take(b)) << "closed while parked";
    EXPECT_TRUE(registry.take(c)) << "still open";
    registry.park(c, &kOwnerA, -1);
    registry.park(a, &kOwnerA, -1);
    // Owner A holds c (older) and a; a third beyond a cap of 1 closes the two oldest, for A to drop.
    EXPECT_EQ(registry.park(e, &kOwnerA, 1), (std::vector<webChannel::connection*>{c, a}));
    EXPECT_EQ(closed, "bca");
    registry.forget(d);  // freed by its owner: nothing left of it
    EXPECT_EQ(registry.relieve(), 1u);
    EXPECT_EQ(closed, "bcae");
    EXPECT_EQ(registry.relieve(), 0u) << "nothing idle";
}

}  // namespace
