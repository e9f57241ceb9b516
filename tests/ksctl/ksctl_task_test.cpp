// ksctl task against a real ksd: a program task and a blob task through
// every subcommand, the list's columns in --json, and the exit codes of
// refusals and of bad command lines.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "OrvoTaskScheduler.h"
#include "fake_daemon.h"
#include "json.h"
#include "ksctl_runner.h"
#include "ksd_process.h"
#include "wait_until.h"

using namespace kstest;

namespace {

std::string inOneHour(bool gmt) {
    const std::time_t t = std::time(nullptr) + 3600;
    std::tm tm{};
    gmt ? gmtime_r(&t, &tm) : localtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

class KsctlTask : public KsctlTest {
protected:
    ScopedTempDir dir_{"kstest-ksctl-task"};
};

TEST_F(KsctlTask, EverySubcommandOnAProgramAndABlobTask) {
    const std::string at = inOneHour(false);
    RunResult r =
        run({"task", "schedule", "nightly", "/bin/echo", "--args", "a 'b c'", "--at", at, "--every", "daily"}, true);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string handle = member(r.out, 0, "handle");
    EXPECT_EQ(member(r.out, 0, "name"), "nightly");

    r = run({"task", "list"}, true);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(member(r.out, 0, "handle"), handle);
    EXPECT_EQ(member(r.out, 0, "state") + "|" + member(r.out, 0, "frequency") + "|" + member(r.out, 0, "next_run") +
                  "|" + member(r.out, 0, "program") + "|" + member(r.out, 0, "arguments") + "|" +
                  member(r.out, 0, "exit_code"),
              "waiting|daily|" + at + "|/bin/echo|a 'b c'|-61");
    r = run({"task", "show", "nightly"}, true);
    EXPECT_EQ(member(r.out, 0, "handle") + "|" + member(r.out, 0, "next_run") + "|" + member(r.out, 0, "exit_code") +
                  "|" + member(r.out, 0, "name") + "|" + member(r.out, 0, "program") + "|" +
                  member(r.out, 0, "owner_uid"),
              handle + "|" + at + "|null|nightly|/bin/echo|" + std::to_string(::geteuid()));
    r = run({"task", "schedule", "plain", "/bin/true", "--at", at});
    EXPECT_TRUE(r.out.size() > 1 && r.out.find_first_not_of("0123456789") == r.out.size() - 1)
        << "a bare handle: " << r.out;
    r = run({"task", "show", "nosuch"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "ksctl: task nosuch: no task has that name (-2)\n");
    const std::string owner = std::to_string(::geteuid()) + " (" + ::getpwuid(::geteuid())->pw_name + ")";
    EXPECT_NE(run({"task", "show", handle}).out.find(owner), std::string::npos) << "the owner's name beside the uid";

    std::ofstream(dir_.path() + "/blob", std::ios::binary) << std::string("\x00\x01zz", 4);
    r = run({"task", "blob-put", "stash", dir_.path() + "/blob", "--at", inOneHour(true)}, true);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string blob = member(r.out, 0, "handle");
    EXPECT_EQ(member(run({"task", "list", "--blobs"}, true).out, 0, "length"), "4");
    r = run({"task", "blob-get", "stash"});
    EXPECT_EQ(r.out, std::string("\x00\x01zz", 4));

    EXPECT_EQ(run({"task", "cancel", "stash"}).out, "task " + blob + " cancelled\n");
    r = run({"task", "cancel", blob});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("no such task (-2)"), std::string::npos) << r.err;
    r = run({"task", "schedule", "nightly", "/bin/true", "--at", at});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("(-17)"), std::string::npos) << r.err;
    EXPECT_EQ(run({"task", "schedule", "x", "/bin/true", "--at", "tomorrow"}).exitCode, 2);
    EXPECT_EQ(run({"task", "schedule", "x", "/bin/true", "--at", at, "--every", "hourly"}).exitCode, 2);
    EXPECT_EQ(run({"task", "list", "--blobs"}).out, "no blob tasks\n");
}

TEST_F(KsctlTask, RelativePathsAreTheCallersDirectory) {
    std::ofstream(dir_.path() + "/job.sh") << "#!/bin/sh\npwd\n";
    std::filesystem::permissions(dir_.path() + "/job.sh", std::filesystem::perms::owner_all);
    std::filesystem::create_directory(dir_.path() + "/work");
    const std::time_t soon = std::time(nullptr) + 2;
    std::tm tm{};
    localtime_r(&soon, &tm);
    char at[32];
    std::strftime(at, sizeof at, "%Y-%m-%d %H:%M:%S", &tm);
    const auto here = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    const RunResult r = run({"task", "schedule", "rel", "./job.sh", "--dir", "work", "--log", "out.log", "--at", at});
    const RunResult gone = run({"task", "schedule", "gone", "./missing", "--at", at});
    std::filesystem::current_path(here);
    ASSERT_EQ(r.exitCode + gone.exitCode, 0) << r.err << gone.err;
    EXPECT_EQ(member(run({"task", "list"}, true).out, 0, "program"), dir_.path() + "/job.sh");
    std::string ran;
    EXPECT_TRUE(waitUntil([&] {
        std::ifstream log(dir_.path() + "/out.log");
        return std::getline(log, ran).good();
    })) << ksd_.log();
    EXPECT_EQ(ran, dir_.path() + "/work");
    std::string why;  // a start that failed says why to its owner
    EXPECT_TRUE(waitUntil([&] {
        return (why = member(run({"task", "show", "gone"}, true).out, 0, "last_failure")) != "";
    }));
    EXPECT_EQ(why, "exec: No such file or directory");
}

TEST_F(KsctlTask, AListLargerThanOneReplyIsReadInPages) {
    // The only test here that talks to ksd through the library in this process.
    ::setenv("KSINTF_CONN_TYPE", ksd_.connType().c_str(), 1);
    const std::time_t t = std::time(nullptr) + 3600;
    std::tm w{};
    localtime_r(&t, &w);
    const std::string params(128 * 1024 - 8, 'p');
    constexpr int kTasks = 130;  // 17 MB of parameters: more than one reply's 16 MiB
    for (int i = 0; i < kTasks; ++i)
        ASSERT_GT(OrvoTSScheduleTask(("big" + std::to_string(i)).c_str(), "/bin/true", "/", params.c_str(), cDaily,
                                     w.tm_mon + 1, w.tm_mday, w.tm_year + 1900, w.tm_hour, w.tm_min, w.tm_sec, ""),
                  0);
    const RunResult r = run({"task", "list"}, true);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto listed = ksctl::parseJson(r.out);
    ASSERT_TRUE(listed);
    EXPECT_EQ(listed->items.size(), std::size_t{kTasks});
}

}  // namespace
