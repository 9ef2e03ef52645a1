// The utility logger: readiness codes, line formats, sharing between
// modules, and die().
#include <cstring>
#include <ctime>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/util/util_test_helpers.h"

using namespace utiltest;

namespace {

class Logger : public ::testing::Test {
protected:
    void SetUp() override { log_disable(); }
    void TearDown() override { log_disable(); }
    ScratchDir dir_;
};

TEST_F(Logger, WritersReportNoFileBeforeInitAndNullFormatFirst) {
    const char* none = nullptr;
    EXPECT_EQ(log_is_ready(), -3);
    EXPECT_EQ(print_log("a"), -3);
    EXPECT_EQ(warn("b"), -3);
    EXPECT_EQ(error("c"), -3);
    EXPECT_EQ(print_log(none), -1);
    EXPECT_EQ(error(none), -1);
}

TEST_F(Logger, LinesCarryTheirPrefixAndAreFlushedAtOnce) {
    UtilityLog log;
    ASSERT_TRUE(log.ok());
    const long t0 = std::time(nullptr);
    ASSERT_EQ(print_log("copied %d of %s", 3, "files"), 0);
    ASSERT_EQ(warn("low disk: %d%%", 5), 0);
    ASSERT_EQ(error("lost %s", "peer"), 0);
    const long t1 = std::time(nullptr);
    // Read while the logger's FILE* is still open: nothing may be buffered.
    const std::string text = log.text();
    EXPECT_EQ(messages_of(text), (std::vector<std::string>{"copied 3 of files", "low disk: 5%", "lost peer"}));
    const char* labels[] = {":", " - WARN : ", " - ERROR : "};  // what follows the seconds
    std::istringstream in(text);
    std::string line;
    for (const char* label : labels) {
        ASSERT_TRUE(std::getline(in, line));
        const size_t digits = line.find_first_not_of("0123456789");
        EXPECT_EQ(line.compare(digits, std::strlen(label), label), 0) << line;
        EXPECT_GE(std::stol(line), t0);
        EXPECT_LE(std::stol(line), t1);
    }
}

TEST_F(Logger, InitWithoutNameFailsAndSaysSo) {
    OutputCapture err(2);
    EXPECT_EQ(log_init(nullptr, nullptr), -1);
    EXPECT_EQ(err.take(), "ERROR: log name is NULL\n");
}

TEST_F(Logger, UnopenablePathStillSucceedsButLeavesTheLoggerOff) {
    const std::string path = dir_ / "missing-dir/util.log";
    logging_state_t* state = nullptr;
    OutputCapture err(2);
    EXPECT_EQ(log_init(path.c_str(), &state), 0);
    EXPECT_EQ(err.take(), "Can't open " + path + "\n");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->file, nullptr);
    EXPECT_EQ(state->ready, 0);
    EXPECT_EQ(print_log("lost"), -3);
}

TEST_F(Logger, AdoptsAnotherModulesLoggerOnlyWhileItHasNone) {
    FILE* theirs = std::fopen((dir_ / "theirs.log").c_str(), "ab");
    ASSERT_NE(theirs, nullptr);
    logging_state_t record = {theirs, 0};
    logging_state_t* handed = &record;
    ASSERT_EQ(log_init(nullptr, &handed), 0);
    EXPECT_EQ(handed, &record);
    EXPECT_EQ(print_log("x"), -2);  // a file, but not marked ready
    log_disable();
    record.ready = 1;
    ASSERT_EQ(log_init(nullptr, &handed), 0);
    EXPECT_EQ(print_log("through theirs"), 0);

    // Now it has a file: a second adoption is refused and turns it off.
    OutputCapture err(2);
    EXPECT_EQ(log_init(nullptr, &handed), -1);
    EXPECT_EQ(err.take(), "ERROR: log name is NULL\n");
    EXPECT_EQ(print_log("dropped"), -3);
    std::fclose(theirs);
    EXPECT_EQ(messages_of(read_file(dir_ / "theirs.log")), std::vector<std::string>{"through theirs"});
}

TEST_F(Logger, ReopeningOrDisablingNeverClosesASharedStream) {
    logging_state_t* state = nullptr;
    ASSERT_EQ(log_init((dir_ / "first.log").c_str(), &state), 0);
    FILE* first = state->file;
    ASSERT_EQ(log_init((dir_ / "second.log").c_str(), &state), 0);
    FILE* second = state->file;
    ASSERT_NE(first, second);
    log_disable();
    // The handed-out pointer is the live record, not a snapshot.
    EXPECT_EQ(state->file, nullptr);
    EXPECT_EQ(state->ready, 0);
    // A module still holding either FILE* can keep writing to it.
    EXPECT_GT(std::fputs("late\n", first), 0);
    EXPECT_EQ(std::fflush(first), 0);
    EXPECT_GT(std::fputs("later\n", second), 0);
    std::fclose(first);
    std::fclose(second);
    EXPECT_EQ(read_file(dir_ / "first.log"), "late\n");
    EXPECT_EQ(read_file(dir_ / "second.log"), "later\n");
}

TEST_F(Logger, DieLogsTheFormattedMessageAndExitsWithTheCode) {
    UtilityLog log;
    ASSERT_TRUE(log.ok());
    EXPECT_EXIT(die(7, "fatal: %s after %d tries", "disk full", 3), ::testing::ExitedWithCode(7),
                "^fatal: disk full after 3 tries\n$");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"fatal: disk full after 3 tries"});
    EXPECT_NE(log.text().find(" - ERROR : fatal"), std::string::npos);
}

TEST_F(Logger, ConcurrentWritersNeverSplitALine) {
    UtilityLog log;
    ASSERT_TRUE(log.ok());
    const std::string body(300, 'x');
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &body, start] {
            start.wait();  // all writers begin together
            for (int i = 0; i < 200; ++i) print_log("%d%s", t, body.c_str());
        });
    go.set_value();
    for (std::thread& thread : threads) thread.join();
    int perThread[4] = {};
    const std::vector<std::string> messages = log.messages();
    ASSERT_EQ(messages.size(), 800u);
    for (const std::string& m : messages) {
        ASSERT_EQ(m.substr(1), body);
        ++perThread[(m[0] - '0') & 3];
    }
    for (int count : perThread) EXPECT_EQ(count, 200);
}

}  // namespace
