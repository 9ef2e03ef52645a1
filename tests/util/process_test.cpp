// Shell commands and the df questions about partitions.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/util/util_test_helpers.h"
#include "util/process.h"

using namespace utiltest;

namespace {

TEST(Command, ReturnsOutputAndExitCode) {
    int code = -7;
    EXPECT_EQ(get_command_output("printf 'a\\nb\\n'; exit 3", &code, false), "a\nb\n");
    EXPECT_EQ(code, 3);
    EXPECT_EQ(get_command_output("echo ok", nullptr, true), "ok\n");
    // The exit code is the status shifted by eight bits: a command ended by
    // a signal gives 0.
    get_command_output("kill -TERM $$", &code, false);
    EXPECT_EQ(code, 0);
}

TEST(Command, KeepsLongOutputAndCutsPiecesAtNulBytes) {
    const std::string out = get_command_output("head -c 100000 /dev/zero | tr '\\0' x; printf 'a\\0b\\nc'", nullptr, false);
    EXPECT_EQ(out, std::string(100000, 'x') + "ac");
}

TEST(Command, DiscardsTheCommandsErrorsAndGivesStandardErrorBack) {
    OutputCapture err(2);
    EXPECT_EQ(get_command_output("echo noise >&2; echo out", nullptr, false), "out\n");
    std::fputs("after\n", stderr);
    EXPECT_EQ(err.take(), "after\n");
}

// In a child: leave two descriptors free, enough for the saved standard
// error and /dev/null, but not for popen's pipe. Exit code 0 means standard
// error and both descriptors were given back.
[[noreturn]] void command_without_descriptors(const std::string& logPath) {
    logging_state_t* state = nullptr;
    struct stat before, after;
    const struct rlimit limit = {256, 256};
    if (log_init(logPath.c_str(), &state) != 0 || ::fstat(2, &before) != 0 || ::setrlimit(RLIMIT_NOFILE, &limit))
        ::_exit(10);
    int previous = -1, last = -1;
    for (int i = 0, fd; i < 256 && (fd = ::open("/dev/null", O_RDONLY)) >= 0; ++i) previous = last, last = fd;
    if (previous < 0 || ::close(last) != 0 || ::close(previous) != 0) ::_exit(14);
    int code = 5;
    if (!get_command_output("echo never", &code, false).empty() || code != -1) ::_exit(11);
    if (::fstat(2, &after) != 0 || after.st_ino != before.st_ino || after.st_dev != before.st_dev) ::_exit(12);
    ::_exit(::open("/dev/null", O_RDONLY) >= 0 && ::open("/dev/null", O_RDONLY) >= 0 ? 0 : 13);
}

TEST(CommandDeathTest, StartFailureGivesStandardErrorBackAndLogsTheReason) {
    ScratchDir dir;
    EXPECT_EXIT(command_without_descriptors(dir / "log"), ::testing::ExitedWithCode(0), "");
    EXPECT_NE(read_file(dir / "log").find(
                  " - ERROR : get_command_output: cannot execute command 'echo never': Too many open files\n"),
              std::string::npos);
}

TEST(ExecuteArgs, ReturnsTheExitCodeAndLogsTheRawStatus) {
    UtilityLog log;
    EXPECT_EQ(execute_args("exit", "3"), 3);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"execute_args: command exit, arguments 3",
                                                        "execute_args: return code is 768"}));
    // A trailing backslash stays literal unless a blank is appended after it.
    OutputCapture out(1);
    EXPECT_EQ(execute_args("printf '[%s]' abc\\", ""), 0);
    EXPECT_EQ(execute_args("printf '[%s]'", "x y"), 0);
    EXPECT_EQ(out.take(), "[abc\\][x][y]");
}

// Runs in a scratch working directory, so relative paths have known
// ancestors; "rel" is its only entry.
class Partition : public ::testing::Test {
protected:
    void SetUp() override {
        char cwd[PATH_MAX];
        ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
        saved_ = cwd;
        ASSERT_EQ(::chdir(dir_.path.c_str()), 0);
        ASSERT_EQ(::mkdir("rel", 0755), 0);
        ASSERT_TRUE(log_.ok());
    }
    void TearDown() override { ASSERT_EQ(::chdir(saved_.c_str()), 0); }
    std::string command(const std::string& p) const {
        return "getFilePartition: command is 'df \"" + p + "\" | tail -n 1 | awk '{ print $NF }' 2>/dev/null'";
    }
    ScratchDir dir_;
    UtilityLog log_;
    std::string saved_;
};

TEST_F(Partition, MissingPathReportsTheParentsMountPoint) {
    EXPECT_EQ(getFilePartition("/proc/no/such/entry"), "/proc");
    EXPECT_EQ(log_.messages(), (std::vector<std::string>{
                                   command("/proc"),
                                   "getFilePartition: partition for file '/proc/no/such/entry' is '/proc'"}));
}

TEST_F(Partition, RelativePathWithoutExistingAncestorGivesNothing) {
    EXPECT_EQ(getPartitionFreeSpace("no/such/file"), 0);
    EXPECT_EQ(log_.messages(), (std::vector<std::string>{
                                   "getPartitionFreeSpace: command is 'df -P --block-size=1000000 \"\" | "
                                   "tail -n 1 | awk '{print $4}' 2>/dev/null'",
                                   "getPartitionFreeSpace: result is ''"}));
}

TEST_F(Partition, FreeSpaceIsCountedInMillionsOfBytes) {
    struct statvfs fs;
    ASSERT_EQ(::statvfs(".", &fs), 0);
    const long long expected = static_cast<long long>(fs.f_bavail) * fs.f_frsize / 1000000;
    const long long got = getPartitionFreeSpace(dir_ / "not-yet-there.bin");
    EXPECT_GT(got, 0);
    EXPECT_NEAR(got, expected, 500);  // others write to the disk meanwhile; df rounds up
    EXPECT_EQ(log_.messages().at(0), "getPartitionFreeSpace: command is 'df -P --block-size=1000000 \"" +
                                         dir_.path + "\" | tail -n 1 | awk '{print $4}' 2>/dev/null'");
    EXPECT_EQ(log_.messages().at(1), "getPartitionFreeSpace: result is '" + std::to_string(got) + "'");
}

TEST_F(Partition, AncestorWalkEndsOnEveryShapeOfPath) {
    std::string alternating;
    for (int i = 0; i < 50000; ++i) alternating += "a/";
    const std::string root = getFilePartition("/");
    ASSERT_FALSE(root.empty());
    const std::pair<std::string, std::string> cases[] = {  // path, what df is asked about
        {"", ""},
        {"x", ""},
        {"x/", ""},
        {"\\", ""},
        {"\\\\", ""},
        {"a\\b\\", ""},
        {"rel/missing/deeper", "rel/"},  // the first separator is kept, as "/x" gives "/"
        {"////", "////"},
        {"/no-such/\\x", "/"},
        {alternating, ""},
        {std::string(20000, 'n'), ""},
        {std::string(100000, '/'), std::string(PATH_MAX - 1, '/')},
    };
    for (const auto& c : cases) {
        const std::string partition = getFilePartition(c.first);
        EXPECT_EQ(log_.messages().at(log_.messages().size() - 2), command(c.second)) << c.first.size() << " bytes";
        EXPECT_EQ(partition, c.second.empty() ? "" : root);
    }
}

TEST_F(Partition, ShellCharactersInTheNameAreNotRun) {
    const std::string name = "a\"; : > pwned1; \"$(: > pwned2)`: > pwned3`\\";
    ASSERT_EQ(::mkdir(name.c_str(), 0755), 0);
    EXPECT_EQ(getFilePartition(name + "/file"), getFilePartition("."));
    EXPECT_GT(getPartitionFreeSpace(name), 0);
    EXPECT_EQ(list_names("."), (std::vector<std::string>{name, "rel"}));
}

}  // namespace
