// ksctl run as a user runs it (its own process, stdout and stderr captured, exit code collected),
// against a real ksd started for each test on its own pipe and state directory: output, --json
// shapes, exit codes and the man page's examples.

#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "OrvoTaskScheduler.h"
#include "json.h"
#include "ksd_process.h"
#include "wait_until.h"

using namespace kstest;

namespace {

struct RunResult {
    int exitCode = -1;  // 128 + signal when killed by a signal
    std::string out;
    std::string err;
};

// ksctl running in the background: a test can keep `subscribe` running while it acts.
class KsctlRun : public ChildProcess {
public:
    explicit KsctlRun(const std::vector<std::string>& args) : ChildProcess(KSCTL_BINARY, args, {}, true) {}
    RunResult result() {
        const int code = finish();
        return {code, out(), err()};
    }
};

RunResult runKsctl(const std::vector<std::string>& args) { return KsctlRun(args).result(); }

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// A member of the JSON object `json` (or of its first item when it is an array)
// as text: strings bare, other values as JSON; "<missing>" when absent.
std::string member(const std::string& json, const char* key) {
    const auto v = ksctl::parseJson(json);
    if (!v) return "<not json: " + json + ">";
    const bool array = v->kind == ksctl::JsonValue::Kind::Array;
    const ksctl::JsonValue* item = !array ? &*v : v->items.empty() ? nullptr : &v->items[0];
    const ksctl::JsonValue* m = item ? item->find(key) : nullptr;
    return !m ? "<missing>" : m->kind == ksctl::JsonValue::Kind::String ? m->text : ksctl::toJson(*m);
}

class KsctlCli : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ksd_.start()) << ksd_.log(); }
    std::vector<std::string> cmd(std::vector<std::string> args, bool json = false) const {
        args.insert(args.begin(), {"--pipe", ksd_.pipeName()});
        if (json) args.insert(args.begin() + 2, "--json");
        return args;
    }
    RunResult run(std::vector<std::string> args, bool json = false) const {
        return runKsctl(cmd(std::move(args), json));
    }
    // True once ksd lists a subscription whose event holds `event`.
    bool subscribed(const std::string& event) const {
        return waitUntil([&] { return operatorQuery(ksd_.connType(), "subscriptions").find(event) != std::string::npos; });
    }
    KsdProcess ksd_;
};

void expectOneErrorLine(const RunResult& r, const std::string& fragment) {
    auto errLines = lines(r.err);
    ASSERT_EQ(errLines.size(), 1u) << r.err;
    EXPECT_EQ(errLines[0].rfind("ksctl: ", 0), 0u) << r.err;
    EXPECT_NE(errLines[0].find(fragment), std::string::npos) << r.err;
}

// A run as "exit code|stdout|stderr", so that a failed check shows all three.
std::string outcome(const RunResult& r) { return std::to_string(r.exitCode) + "|" + r.out + "|" + r.err; }

// Local time (GMT when `gmt`) `seconds` from now, as --at takes it.
std::string timeIn(int seconds, bool gmt = false) {
    const std::time_t t = std::time(nullptr) + seconds;
    std::tm tm{};
    gmt ? gmtime_r(&t, &tm) : localtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

}  // namespace

// Without a usable command line or a reachable ksd: the exit code, one line on stderr, nothing on stdout.
TEST(KsctlWithoutKsd, BadCommandLinesExitTwoAndAnUnreachableKsdSixtyNine) {
    const auto check = [](const std::vector<std::string>& args, int code, const std::string& fragment) {
        const RunResult r = runKsctl(args);
        EXPECT_EQ(r.exitCode, code) << testing::PrintToString(args) << r.err;
        expectOneErrorLine(r, fragment);
        EXPECT_EQ(r.out, "");
    };
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"job", "progress"}, {"lock", "printer"}, {"lock", "r", "--timeout", "-1", "--", "true"},
             {"subscribe", "demo", "--count", "0"}, {"--pipe", "a", "--tcp-port", "7000", "status"},
             {"--tcp-port", "70000", "status"}, {"task", "schedule", "x", "/bin/true", "--at", "tomorrow"},
             {"task", "schedule", "x", "/bin/true", "--at", timeIn(3600), "--every", "hourly"}})
        check(args, 2, "");
    EXPECT_EQ(runKsctl({"--help"}).exitCode, 0);

    const std::string pipe = kstest::uniqueName("kstest-ksctl");
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"status"}, {"subscriptions"}, {"job", "create", "x"}, {"publish", "demo"}, {"subscribe", "demo"},
             {"lock", "r", "--", "true"}}) {
        std::vector<std::string> all = {"--pipe", pipe};
        all.insert(all.end(), args.begin(), args.end());
        check(all, 69, "cannot reach ksd at pipe " + pipe + ": connection refused (-111)");
    }
    // A missing socket path fails with -2, the same number as "no such job": still unreachable.
    kstest::ScopedTempDir dir;
    const std::string missing = dir.path() + "/missing.sock";
    check({"--pipe", missing, "job", "delete", "1"}, 69, "cannot reach ksd at pipe " + missing);
}

TEST_F(KsctlCli, SubscribePrintsWhatIsPublishedAndUnregistersOnCountOrSignal) {
    KsctlRun json(cmd({"subscribe", "demo", "--count", "1"}, true));
    kstest::ScopedTempDir dir;
    std::ofstream(dir.path() + "/payload.bin", std::ios::binary) << std::string("\x01\x00\xff\x7f", 4);
    RunResult pub;
    ASSERT_TRUE(waitUntil([&] {
        pub = run({"publish", "demo", "--data-file", dir.path() + "/payload.bin"}, true);
        return pub.exitCode == 0 && member(pub.out, "queued") == "1";
    })) << pub.out << pub.err;
    const RunResult got = json.result();
    ASSERT_EQ(got.exitCode, 0) << got.err;
    EXPECT_EQ(member(got.out, "event") + " " + member(got.out, "text") + "|" + member(got.out, "size") + "|" +
                  member(got.out, "payload_hex"),
              "demo |4|0100ff7f");

    for (int sig : {SIGTERM, SIGINT}) {
        KsctlRun subscriber(cmd({"subscribe", "news"}));
        ASSERT_TRUE(waitUntil(
            [&] { return run({"publish", "news", "--text", "a\nb"}).out == "news: queued for 1 subscriber\n"; }));
        EXPECT_TRUE(subscriber.waitFor(" news: text \"a\\nb\", 0 bytes\n")) << subscriber.out();
        subscriber.signal(sig);
        const RunResult stopped = subscriber.result();
        EXPECT_EQ(std::to_string(stopped.exitCode) + stopped.err, "0");  // clean exit, nothing on stderr
        EXPECT_EQ(run({"publish", "news"}).out, "news: queued for 0 subscribers\n");
    }
}

TEST_F(KsctlCli, LockRunsTheCommandPassesItsStatusOnAndTimesOutWhileHeld) {
    EXPECT_EQ(outcome(run({"lock", "printer", "--", "sh", "-c", "echo held; exit 7"})), "7|held\n|");
    EXPECT_EQ(run({"lock", "printer", "--timeout", "0", "--", "sh", "-c", "kill -KILL $$"}).exitCode, 128 + SIGKILL);
    RunResult missing = run({"lock", "printer", "--", "/nonexistent/ksctl-test-program"});
    EXPECT_EQ(missing.exitCode, 127);
    expectOneErrorLine(missing, "cannot run /nonexistent/ksctl-test-program");

    kstest::ScopedTempDir dir;
    const std::string marker = dir.path() + "/holding";
    KsctlRun holder(cmd({"lock", "disk0", "--", "sh", "-c", "touch " + marker + "; exec sleep 600"}));
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(marker); }));
    EXPECT_EQ(outcome(run({"lock", "disk0", "--timeout", "0", "--", "echo", "never"})),
              "3||ksctl: lock disk0: not granted within 0 ms\n");
    // SIGTERM reaches the command through ksctl, which then unlocks.
    holder.signal(SIGTERM);
    EXPECT_EQ(holder.result().exitCode, 128 + SIGTERM);
    EXPECT_EQ(run({"lock", "disk0", "--timeout", "0", "--", "true"}).exitCode, 0);
    EXPECT_EQ(run({"locks"}).out, "no locks held\n");
}

TEST_F(KsctlCli, JobCommandsAndStatusPrintBareNumbersForScriptsAndSentencesOnStderr) {
    RunResult created = run({"job", "create", "backup", "--description", "nightly backup"}, true);
    ASSERT_EQ(created.exitCode, 0) << created.err;
    const std::string id = member(created.out, "id");
    ASSERT_EQ(id.find_first_not_of("0123456789"), std::string::npos) << created.out;
    EXPECT_EQ(run({"job", "lookup", "backup"}).out, id + "\n");
    const RunResult s = run({"status"}, true);
    // The asking client is not among the connections.
    EXPECT_EQ(member(s.out, "jobs") + " " + member(s.out, "locks_held") + " " + member(s.out, "connections") + " " +
                  member(s.out, "version") + " " + member(s.out, "state_dir") + " " + member(s.out, "pipe"),
              "1 0 0 " KS_VERSION " " + ksd_.stateDir() + " " + ksd_.pipeName());
    const std::string human = run({"status"}).out;  // name/value lines, not JSON
    EXPECT_TRUE(human.find("locks_held") != std::string::npos && human.find('{') == std::string::npos) << human;
    const RunResult verbose = run({"--verbose", "job", "create", "second"});
    EXPECT_EQ(verbose.err, "job " + lines(verbose.out).at(0) + " created: second\n");
    EXPECT_EQ(run({"job", "delete", "second"}).exitCode, 0);
    EXPECT_EQ(member(run({"job", "progress", id, "40"}, true).out, "progress"), "40");
    EXPECT_EQ(run({"job", "progress", id}).out, "job " + id + ": 40%\n") << "the read form";
    const std::string listed = run({"job", "list"}, true).out;
    EXPECT_EQ(member(listed, "name") + " " + member(listed, "progress"), "backup 40") << listed;
    EXPECT_EQ(member(run({"job", "cancel", id}, true).out, "cancelled"), "true");
    EXPECT_EQ(run({"job", "delete", id}).out, "job " + id + " deleted\n");
    EXPECT_EQ(outcome(run({"job", "delete", id})), "1||ksctl: job " + id + ": no such job (-2)\n");
    EXPECT_EQ(run({"job", "list"}).out, "no jobs\n");
}

TEST_F(KsctlCli, ACancelledJobEndsItsWatcherAndErrorsSayWhy) {
    ASSERT_EQ(run({"job", "create", "w2"}).exitCode, 0);
    KsctlRun cancelled(cmd({"job", "watch", "w2"}));
    // Once the watcher's subscription is in, every later change reaches it.
    ASSERT_TRUE(subscribed("OrvoJSEvent:w2$"));
    EXPECT_EQ(run({"job", "cancel", "w2"}).exitCode, 0);
    EXPECT_EQ(cancelled.result().exitCode, 4);
    expectOneErrorLine(run({"job", "progress", "w2", "50"}), "the job was cancelled");
    EXPECT_EQ(run({"job", "watch", "w2"}).exitCode, 4) << "already cancelled";

    expectOneErrorLine(run({"job", "create", ""}), "must not be empty");
    const RunResult tooLong = run({"job", "create", std::string(10000, 'n')});
    expectOneErrorLine(tooLong, "1024 bytes");
    EXPECT_LT(tooLong.err.size(), 300u) << "the name is not echoed back whole";
    expectOneErrorLine(run({"job", "cancel", "nosuch"}), "no job has that name");
}

TEST_F(KsctlCli, EveryManPageExampleRunsAsWritten) {
    std::ifstream page(KS_MAN_DIR "/ksctl.1");
    std::vector<std::string> examples;
    bool inExamples = false, inBlock = false;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(".SH", 0) == 0) {
            inExamples = line == ".SH EXAMPLES";
        } else if (inExamples && (line == ".nf" || line == ".fi")) {
            inBlock = line == ".nf";
            if (inBlock) examples.emplace_back();
        } else if (inBlock) {
            for (std::size_t at = 0; (at = line.find('\\', at)) != std::string::npos; ++at)
                line.replace(at, 2, line.compare(at, 2, "\\-") == 0 ? "-" : "\\");  // \- and \e
            examples.back() += line + "\n";
        }
    }
    ASSERT_GE(examples.size(), 5u);
    kstest::ScopedTempDir dir;
    // The files the examples name.
    std::ofstream(dir.path() + "/migrate.sh") << "#!/bin/sh\necho migrated\n";
    std::filesystem::permissions(dir.path() + "/migrate.sh", std::filesystem::perms::owner_all);
    std::ofstream(dir.path() + "/result.bin") << "result";
    const std::string binDir = std::filesystem::path(KSCTL_BINARY).parent_path();
    for (std::size_t i = 0; i < examples.size(); ++i) {
        const std::string script = dir.path() + "/example" + std::to_string(i);
        std::ofstream(script) << examples[i];
        const int status =
            std::system(("cd " + dir.path() + " && PATH=" + binDir + ":$PATH KSINTF_CONN_TYPE=" + ksd_.connType() +
                         " timeout 60 bash -eu " + script + " >" + script + ".out 2>&1")
                            .c_str());
        std::ifstream output(script + ".out");
        EXPECT_EQ(status, 0) << examples[i] << "printed:\n" << output.rdbuf();
    }
}

TEST_F(KsctlCli, AChangeKsdDoesNotAnswerIsSentOnceAndReportedAsOutcomeUnknown) {
    ASSERT_EQ(::kill(ksd_.pid(), SIGSTOP), 0);
    const RunResult flag = run({"--reply-timeout", "1500", "job", "create", "late"});
    RunResult inherited;
    {
        // Without the option, the environment's deadline holds; unset, ksctl still sets one of its own.
        kstest::ScopedEnv deadline("KSINTF_REPLY_TIMEOUT_MS", "1000");
        inherited = run({"task", "cancel", "7"});
    }
    ::kill(ksd_.pid(), SIGCONT);
    EXPECT_EQ(flag.exitCode, 75) << flag.err;
    expectOneErrorLine(flag, "job late: sent, outcome unknown: no answer from ksd at pipe " + ksd_.pipeName() +
                                 " within 1500 ms (-110)");
    EXPECT_EQ(inherited.exitCode, 75) << inherited.err;
    expectOneErrorLine(inherited, "within 1000 ms");
    EXPECT_EQ(run({"job", "lookup", "late"}).exitCode, 0) << "the change was made after all";
}

TEST_F(KsctlCli, JobWatchSaysKsdWentAwayAndGoesOnWhenItIsBack) {
    ASSERT_EQ(run({"job", "create", "across"}).exitCode, 0);
    KsctlRun watch(cmd({"job", "watch", "across"}, true));
    // Its first line comes after its first read: a daemon gone before that is a failed start, not a loss.
    ASSERT_TRUE(watch.waitFor("progress"));
    ASSERT_EQ(ksd_.stop(), 0);
    ASSERT_TRUE(watch.waitFor("lost ksd at pipe " + ksd_.pipeName(), true));
    ASSERT_TRUE(ksd_.start({"--tcp-port", "0", "--log-level", "error"})) << ksd_.log();  // the ready line names the port
    ASSERT_TRUE(watch.waitFor("is back", true));
    // --tcp-port reaches the same ksd over loopback.
    EXPECT_EQ(outcome(runKsctl({"--tcp-port", std::to_string(ksd_.tcpPort()), "job", "lookup", "across"})),
              outcome(run({"job", "lookup", "across"})));
    EXPECT_EQ(run({"job", "progress", "across", "100"}).exitCode, 0);
    const RunResult watched = watch.result();
    EXPECT_EQ(watched.exitCode, 0) << watched.err;
    EXPECT_EQ(member(lines(watched.out).back(), "event"), "completed") << watched.out;
}

// ksctl events: the daemon's job, lock and task events as lines in the order they happened.
TEST_F(KsctlCli, EventsArriveAsJsonLinesInTheOrderTheyHappenedAndAKindFilterShowsOnlyItsKind) {
    const RunResult scheduled = run({"task", "schedule", "later", "/bin/true", "--at", timeIn(3600)}, true);
    ASSERT_EQ(scheduled.exitCode, 0) << scheduled.err;
    const std::string handle = member(scheduled.out, "handle");

    KsctlRun locksOnly(cmd({"events", "--locks", "--count", "1"}));
    ASSERT_TRUE(subscribed("OrvoRAEvent:*"));
    EXPECT_EQ(operatorQuery(ksd_.connType(), "subscriptions").find("OrvoJSEvent"), std::string::npos);
    KsctlRun events(cmd({"events", "--count", "6"}, true));
    ASSERT_TRUE(subscribed("OrvoTSEvent:*"));  // registered last
    ASSERT_EQ(run({"job", "create", "backup"}).exitCode, 0);
    ASSERT_EQ(run({"job", "progress", "backup", "100"}).exitCode, 0);
    ASSERT_EQ(run({"lock", "disk0", "--", "true"}).exitCode, 0);
    ASSERT_EQ(run({"task", "cancel", handle}).exitCode, 0);

    const RunResult locks = locksOnly.result();
    EXPECT_EQ(locks.exitCode, 0) << locks.err;
    EXPECT_EQ(locks.out.substr(23), " lock disk0: locked (1)\n") << "the job's events came first, and are not shown";
    const RunResult got = events.result();
    EXPECT_EQ(std::to_string(got.exitCode) + got.err, "0");
    std::vector<std::string> seen;
    for (const auto& line : lines(got.out)) {
        const std::string subject = member(line, "name") == "<missing>" ? member(line, "handle") : member(line, "name");
        seen.push_back(member(line, "kind") + " " + subject + " " + member(line, "event") + " " + member(line, "code"));
    }
    EXPECT_EQ(seen,
              (std::vector<std::string>{"job backup created 2", "job backup updated 3", "job backup completed 0",
                                        "lock disk0 locked 1", "lock disk0 unlocked 0", "task " + handle + " exit -1"}))
        << got.out;
    EXPECT_EQ(operatorQuery(ksd_.connType(), "subscriptions"), "[]") << "unsubscribed at the end";
}

// ksctl task: a program task and a blob task through every subcommand.
TEST_F(KsctlCli, TaskSubcommandsOnAProgramAndABlobTask) {
    const std::string at = timeIn(3600);
    RunResult r =
        run({"task", "schedule", "nightly", "/bin/echo", "--args", "a 'b c'", "--at", at, "--every", "daily"}, true);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string handle = member(r.out, "handle");
    r = run({"task", "list"}, true);
    EXPECT_EQ(member(r.out, "handle") + "|" + member(r.out, "state") + "|" + member(r.out, "frequency") + "|" +
                  member(r.out, "next_run") + "|" + member(r.out, "arguments") + "|" + member(r.out, "exit_code"),
              handle + "|waiting|daily|" + at + "|a 'b c'|-61");
    r = run({"task", "show", "nightly"}, true);
    EXPECT_EQ(member(r.out, "handle") + "|" + member(r.out, "exit_code"), handle + "|null");
    const std::string owner = std::to_string(::geteuid()) + " (" + ::getpwuid(::geteuid())->pw_name + ")";
    EXPECT_NE(run({"task", "show", handle}).out.find(owner), std::string::npos) << "the owner's name beside the uid";
    EXPECT_EQ(outcome(run({"task", "show", "nosuch"})), "1||ksctl: task nosuch: no task has that name (-2)\n");

    kstest::ScopedTempDir dir;
    std::ofstream(dir.path() + "/blob", std::ios::binary) << std::string("\x00\x01zz", 4);
    r = run({"task", "blob-put", "stash", dir.path() + "/blob", "--at", timeIn(3600, true)});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string blob = lines(r.out).at(0);
    EXPECT_EQ(member(run({"task", "list", "--blobs"}, true).out, "length"), "4");
    EXPECT_EQ(run({"task", "blob-get", "stash"}).out, std::string("\x00\x01zz", 4));
    EXPECT_EQ(run({"task", "cancel", "stash"}).out, "task " + blob + " cancelled\n");
    EXPECT_EQ(run({"task", "list", "--blobs"}).out, "no blob tasks\n");
}

TEST_F(KsctlCli, TaskPathsAreTheCallersDirectoryAndAFailedStartSaysWhy) {
    kstest::ScopedTempDir dir;
    std::ofstream(dir.path() + "/job.sh") << "#!/bin/sh\npwd\n";
    std::filesystem::permissions(dir.path() + "/job.sh", std::filesystem::perms::owner_all);
    std::filesystem::create_directory(dir.path() + "/work");
    const std::string at = timeIn(2);
    const auto here = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    const RunResult r = run({"task", "schedule", "rel", "./job.sh", "--dir", "work", "--log", "out.log", "--at", at});
    const RunResult gone = run({"task", "schedule", "gone", "./missing", "--at", at});
    std::filesystem::current_path(here);
    ASSERT_EQ(r.exitCode + gone.exitCode, 0) << r.err << gone.err;
    std::string ran;
    EXPECT_TRUE(waitUntil([&] {
        std::ifstream log(dir.path() + "/out.log");
        return std::getline(log, ran).good();
    })) << ksd_.log();
    EXPECT_EQ(ran, dir.path() + "/work");
    std::string why;
    EXPECT_TRUE(waitUntil([&] { return (why = member(run({"task", "show", "gone"}, true).out, "last_failure")) != ""; }));
    EXPECT_EQ(why, "exec: No such file or directory");
}

TEST_F(KsctlCli, ATaskListLargerThanOneReplyIsReadInPages) {
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
