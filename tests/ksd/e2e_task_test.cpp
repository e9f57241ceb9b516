// Tasks through libksintf against a real ksd: programs that run (or cannot)
// with their logs, exit codes and state events; programs run as the user who
// scheduled them; blob tasks; tasks kept across kill -9 with a missed run
// made up once.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "OrvoTaskScheduler.h"
#include "e2e_support.h"
#include "other_user.h"

namespace {

using e2e::readFile;

// The calendar fields `seconds` from now, local or GMT.
struct When {
    int year, month, day, hour, minute, second;
};
When in(int seconds, bool gmt = false) {
    const std::time_t t = std::time(nullptr) + seconds;
    std::tm tm{};
    gmt ? gmtime_r(&t, &tm) : localtime_r(&t, &tm);
    return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

int scheduleIn(int seconds, const std::string& name, const std::string& program, const std::string& params,
               const std::string& log, const std::string& dir = "/", tTaskFrequency freq = cOneTime) {
    const When w = in(seconds);
    return OrvoTSScheduleTask(name.c_str(), program.c_str(), dir.c_str(), params.c_str(), freq, w.month, w.day, w.year,
                              w.hour, w.minute, w.second, log.c_str());
}

int scheduleBlobIn(int seconds, const std::string& name, const std::string& blob, tTaskFrequency freq = cOneTime) {
    const When w = in(seconds, true);
    return OrvoTSScheduleBlobTask(name.c_str(), static_cast<int>(blob.size()), blob.data(), freq, w.month, w.day,
                                  w.year, w.hour, w.minute, w.second);
}

bool reaches(int handle, tTaskState state) {
    return kstest::waitUntil([&] { return OrvoTSTaskState(handle) == state; });
}

// The program tasks as the library lists them.
std::string programList() {
    std::vector<char> buf(1 << 20);
    int size = static_cast<int>(buf.size());
    const int rc = OrvoTSListAllExecTasks(&size, buf.data());
    return rc == 0 ? std::string(buf.data()) : "error " + std::to_string(rc);
}

e2e::EventLog g_events;

class TaskEndToEnd : public e2e::DaemonSuite {
protected:
    // ksd holds a terminal, as when started in the foreground from a root shell, and
    // supplementary groups that a program run for another user must not keep.
    static void SetUpTestSuite() {
        const gid_t groups[] = {0, 4};
        if (::geteuid() == 0) ::setgroups(2, groups);
        terminal_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_GE(terminal_, 0);
        ASSERT_EQ(::grantpt(terminal_) | ::unlockpt(terminal_), 0);
        ksd_ = new kstest::KsdProcess();
        ksd_->useTerminal(::ptsname(terminal_));
        ASSERT_TRUE(ksd_->start()) << ksd_->log();
        ::setenv("KSINTF_CONN_TYPE", ksd_->connType().c_str(), 1);
    }
    static void TearDownTestSuite() {
        DaemonSuite::TearDownTestSuite();
        ::close(terminal_);
    }
    static inline int terminal_ = -1;
    kstest::ScopedTempDir dir_{"kstest-task"};
};

TEST_F(TaskEndToEnd, AProgramRunsWithItsArgumentsLogAndCleanEnvironmentAndReportsEveryState) {
    const std::string log = dir_.path() + "/run.log";
    const int h = scheduleIn(2, "greeter", "/bin/sh",
                             "-c 'echo \"[$1] [$2]\" in $(pwd); echo oops >&2; exit 3' zero \"two  words\" it\\'s", log,
                             dir_.path());
    ASSERT_GT(h, 0);
    const int env = scheduleIn(2, "environment", "env", "", dir_.path() + "/env.log");
    ASSERT_GT(env, h);
    // Keystrokes pushed into the daemon's terminal would run as its user.
    const int tty =
        scheduleIn(2, "terminal", "/bin/sh", "-c '(exec 3<>/dev/tty) 2>/dev/null && echo has a terminal; ulimit -n'",
                   dir_.path() + "/tty.log");
    ASSERT_GE(OrvoTSRegisterForNotification(
                  h, [](int task, tTaskState s) { g_events.add(std::to_string(task).c_str(), static_cast<int>(s)); }),
              0);
    EXPECT_EQ(OrvoTSExitCode(h), -61) << "never ran";
    EXPECT_EQ(OrvoTSScheduledTaskLookup("greeter"), h);
    EXPECT_EQ(scheduleIn(60, "greeter", "/bin/true", "", ""), -17);

    const std::string id = std::to_string(h);
    EXPECT_EQ(g_events.waitFor(2), (e2e::Log{{id, cInProgress}, {id, cCompleted}}));
    ASSERT_TRUE(reaches(h, cCompleted));
    EXPECT_EQ(OrvoTSExitCode(h), 3);
    EXPECT_EQ(readFile(log), "[two  words] [it's] in " + dir_.path() + "\noops\n");
    char when[64];
    int size = sizeof when, freq = -1;
    EXPECT_EQ(OrvoTSScheduledTaskGetNextTime(h, &size, when, &freq), 0);
    EXPECT_EQ(std::string(when), "") << "a one-time task that ran has no next time";

    ASSERT_TRUE(reaches(tty, cCompleted));
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    EXPECT_EQ(readFile(dir_.path() + "/tty.log"), std::to_string(std::min<rlim_t>(files.rlim_cur, 1024)) + "\n")
        << "no terminal, and a login's descriptor limit rather than the daemon's";
    ASSERT_TRUE(reaches(env, cCompleted));
    passwd* pw = ::getpwuid(::getuid());
    EXPECT_NE(readFile(dir_.path() + "/env.log").find("HOME=" + std::string(pw->pw_dir) + "\n"), std::string::npos);
    std::istringstream lines(readFile(dir_.path() + "/env.log"));
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);) names.push_back(line.substr(0, line.find('=')));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"HOME", "LOGNAME", "PATH", "SHELL", "USER"}));
    const std::string listed = programList();
    EXPECT_NE(listed.find(id + "\tgreeter\tcompleted\tonce\t\t"), std::string::npos) << listed;
    EXPECT_NE(listed.find("\t3\t" + std::to_string(::getuid()) + "\t/bin/sh\t"), std::string::npos) << listed;
}

TEST_F(TaskEndToEnd, FailingMissingAndKilledProgramsAndBadDirectoriesEndAsTheyShould) {
    const int fails = scheduleIn(1, "fails", "false", "", "");
    const int missing = scheduleIn(1, "missing", "/no/such/program", "", "");
    const int killed = scheduleIn(1, "killed", "/bin/sh", "-c 'kill -TERM $$'", "");
    const int noDir = scheduleIn(1, "no-dir", "/bin/true", "", "", "/no/such/dir");
    for (int h : {fails, missing, killed, noDir}) ASSERT_GT(h, 0);
    EXPECT_TRUE(reaches(fails, cCompleted));
    EXPECT_EQ(OrvoTSExitCode(fails), 1);
    EXPECT_TRUE(reaches(killed, cCompleted));
    EXPECT_EQ(OrvoTSExitCode(killed), 128 + SIGTERM);
    EXPECT_TRUE(reaches(missing, cExit));
    EXPECT_TRUE(reaches(noDir, cExit));
    EXPECT_EQ(OrvoTSExitCode(missing), -61) << "a program that never started has no exit code";
    EXPECT_EQ(OrvoTSRegisterForNotification(missing, [](int, tTaskState) {}), -9);
}

TEST_F(TaskEndToEnd, AFifoAsLogFileIsAFailedStartWithItsReasonAndTheDaemonStillRestarts) {
    const std::string alone = dir_.path() + "/alone.fifo", read = dir_.path() + "/read.fifo";
    ASSERT_EQ(::mkfifo(alone.c_str(), 0666) | ::mkfifo(read.c_str(), 0666), 0);
    const int reader = ::open(read.c_str(), O_RDONLY | O_NONBLOCK);
    const int blocking = scheduleIn(1, "fifo-alone", "/bin/echo", "x", alone);
    const int opened = scheduleIn(1, "fifo-read", "/bin/echo", "x", read);
    EXPECT_TRUE(reaches(blocking, cExit));
    EXPECT_TRUE(reaches(opened, cExit));
    ::close(reader);
    const std::string listed = programList();
    EXPECT_NE(listed.find("\tfifo-read\texit\t"), std::string::npos) << listed;
    EXPECT_NE(listed.find("\tx\tlog file is not a regular file\n"), std::string::npos) << listed;
    EXPECT_NE(listed.find("\tx\tlog file: "), std::string::npos) << listed;
    // A child stuck in the FIFO with the daemon's descriptors would keep the next ksd from starting.
    ASSERT_TRUE(ksd_->restart()) << ksd_->log();
}

TEST_F(TaskEndToEnd, BlobTasksAreRetrievedWhateverTheBufferRunAndCancelled) {
    std::string blob("\0\x01\xff payload", 11);
    const int h = scheduleBlobIn(1, "blob-one", blob);
    const int later = scheduleBlobIn(3600, "blob-later", "x", cDaily);
    ASSERT_GT(h, 0);
    ASSERT_GT(later, h);
    EXPECT_EQ(scheduleBlobIn(60, "blob-one", "y"), -17);
    // The client checks no date of a blob task: the daemon does.
    EXPECT_EQ(OrvoTSScheduleBlobTask("b", 1, "x", cOneTime, 13, 1, 2100, 0, 0, 0), -22);
    EXPECT_EQ(programList(), "") << "blob tasks are not program tasks";

    std::vector<char> buf(blob.size());
    int size = static_cast<int>(buf.size()) - 1;
    EXPECT_EQ(OrvoTSRetrieveBlobTask(h, &size, buf.data()), -12);
    EXPECT_EQ(size, static_cast<int>(blob.size()));
    ASSERT_EQ(OrvoTSRetrieveBlobTask(h, &size, buf.data()), 0) << "the daemon copes with the reader that stopped early";
    EXPECT_EQ(std::string(buf.data(), buf.size()), blob);
    EXPECT_TRUE(reaches(h, cCompleted)) << "a due blob task passes through its states";
    EXPECT_EQ(OrvoTSExitCode(h), 0);
    EXPECT_EQ(OrvoTSCancelTask(later), 0);
    EXPECT_EQ(OrvoTSCancelTask(later), -2);
    EXPECT_EQ(OrvoTSRetrieveBlobTask(later, &size, buf.data()), -2);
}

TEST_F(TaskEndToEnd, TasksSurviveSigkillAndARunMissedDuringTheDowntimeRunsOnce) {
    const std::string log = dir_.path() + "/missed.log";
    std::ofstream(log) << "before\n";
    const int once = scheduleIn(2, "missed-once", "/bin/sh", "-c 'echo ran'", log);
    const int daily = scheduleIn(3600, "daily", "/bin/true", "", "", "/", cDaily);
    ASSERT_GT(once, 0);
    ASSERT_EQ(ksd_->kill(), 128 + SIGKILL);
    ::sleep(3);
    ASSERT_TRUE(ksd_->start()) << ksd_->log();
    EXPECT_TRUE(reaches(once, cCompleted));
    EXPECT_EQ(readFile(log), "before\nran\n") << "output is appended to the log";
    EXPECT_EQ(OrvoTSScheduledTaskLookup("daily"), daily);
    EXPECT_EQ(OrvoTSTaskState(daily), cWaiting);
    EXPECT_GT(scheduleBlobIn(3600, "after-restart", "z"), daily) << "handles are never reused";
    ASSERT_TRUE(ksd_->restart());
    EXPECT_EQ(OrvoTSExitCode(once), 0);
    EXPECT_EQ(readFile(log), "before\nran\n") << "a finished one-time task does not run again at the next start";
}

// Runs `body` as the user nobody; its int result comes back (-9999 when none did).
int asNobody(const std::function<int()>& body) {
    const std::string out = kstest::runAs(kstest::kOtherUid, [&] { return std::to_string(body()); });
    return out.empty() ? -9999 : std::stoi(out);
}

TEST_F(TaskEndToEnd, AProgramRunsAsTheUserWhoScheduledItAndOthersCannotTouchIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: scheduling as another user";
    ::chmod(dir_.path().c_str(), 0777);
    const std::string log = dir_.path() + "/nobody.log";
    ASSERT_EQ(ksd_->stop(), 0);
    ASSERT_TRUE(ksd_->start({"--max-programs-per-user", "1"})) << ksd_->log();
    const int sleeper = asNobody([&] { return scheduleIn(1, "sleeper-1", "sleep", "2", ""); });
    const int over = asNobody([&] { return scheduleIn(1, "sleeper-2", "sleep", "2", ""); });
    const int h = asNobody([&] { return scheduleIn(5, "as-nobody", "id", "-G", log); });
    EXPECT_TRUE(reaches(over, cExit)) << "a second program of the user at once is skipped";
    EXPECT_TRUE(reaches(sleeper, cCompleted));
    EXPECT_NE(programList().find("\t2\trun skipped: over its user's running programs\n"), std::string::npos)
        << programList();
    const int mine = scheduleIn(3600, "root-task", "/bin/true", "", "");
    ASSERT_GT(h, 0);
    EXPECT_TRUE(reaches(h, cCompleted));
    EXPECT_EQ(readFile(log), "65534\n") << "the user's groups only, none of the daemon's";
    struct stat st {};
    ASSERT_EQ(::stat(log.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u) << "the log file is opened as the task's user";
    EXPECT_EQ(asNobody([&] { return OrvoTSCancelTask(mine); }), -1);
    EXPECT_EQ(asNobody([&] { return static_cast<int>(OrvoTSTaskState(mine)); }), -1);
    EXPECT_EQ(asNobody([&] { return OrvoTSExitCode(h); }), 0) << "its own task";
    EXPECT_EQ(OrvoTSTaskState(mine), cWaiting);
    EXPECT_EQ(OrvoTSCancelTask(h), 0) << "root may cancel any task";
}

}  // namespace
