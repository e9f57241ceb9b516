// ksctl run as a user runs it, against a real ksd started for each test on its own pipe and
// state directory: output, --json shapes and exit codes.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "fake_daemon.h"
#include "json.h"
#include "ksctl_runner.h"
#include "ksd_process.h"
#include "wait_until.h"

using ksctl::JsonValue;
using namespace kstest;

namespace {

JsonValue parseLine(const std::string& line) {
    auto v = ksctl::parseJson(line);
    EXPECT_TRUE(v) << "not JSON: " << line;
    return v ? *v : JsonValue{};
}

// A member as text (strings bare, others as JSON), "<missing>" when absent.
std::string at(const JsonValue& v, const char* key) {
    const JsonValue* m = v.find(key);
    return !m ? "<missing>" : m->kind == JsonValue::Kind::String ? m->text : toJson(*m);
}

void expectOneErrorLine(const RunResult& r, const std::string& fragment) {
    auto errLines = lines(r.err);
    ASSERT_EQ(errLines.size(), 1u) << r.err;
    EXPECT_EQ(errLines[0].rfind("ksctl: ", 0), 0u) << r.err;
    EXPECT_NE(errLines[0].find(fragment), std::string::npos) << r.err;
}

class KsctlCli : public KsctlTest {
protected:
    RunResult runJson(std::vector<std::string> args) const { return run(std::move(args), true); }
};

}  // namespace

TEST(KsctlUsage, BadCommandLinesExitTwoWithOneLine) {
    const std::vector<std::vector<std::string>> bad = {
        {}, {"frobnicate"}, {"job", "progress"}, {"lock", "printer"}, {"lock", "r", "--timeout", "-1", "--", "true"}, {"subscribe", "demo", "--count", "0"},
        {"--pipe", "a", "--tcp-port", "7000", "status"}, {"--tcp-port", "70000", "status"}};
    for (const auto& args : bad) {
        RunResult r = runKsctl(args);
        EXPECT_EQ(r.exitCode, 2) << testing::PrintToString(args) << r.err;
        expectOneErrorLine(r, "");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(runKsctl({"--help"}).exitCode, 0);
}

TEST(KsctlUnreachable, EveryCommandExitsSixtyNineWithOneLine) {
    const std::string pipe = kstest::uniqueName("kstest-ksctl");
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"status"}, {"subscriptions"}, {"job", "create", "x"}, {"publish", "demo"}, {"subscribe", "demo"}, {"lock", "r", "--", "true"}}) {
        std::vector<std::string> all = {"--pipe", pipe};
        all.insert(all.end(), args.begin(), args.end());
        RunResult r = runKsctl(all);
        EXPECT_EQ(r.exitCode, 69) << args[0] << ": " << r.err;
        expectOneErrorLine(r, "cannot reach ksd at pipe " + pipe + ": connection refused (-111)");
        EXPECT_EQ(r.out, "");
    }
    // A missing socket path fails with -2, the same number as "no such job": still unreachable.
    kstest::ScopedTempDir dir;
    RunResult r = runKsctl({"--pipe", dir.path() + "/missing.sock", "job", "delete", "1"});
    EXPECT_EQ(r.exitCode, 69) << r.err;
    expectOneErrorLine(r, "cannot reach ksd at pipe " + dir.path() + "/missing.sock");
}

TEST_F(KsctlCli, PublishReachesASubscriberAndBothReportInJson) {
    KsctlRun subscriber(cmd({"subscribe", "demo", "other", "--count", "2"}, true));
    kstest::ScopedTempDir dir;
    std::ofstream(dir.path() + "/payload.bin", std::ios::binary) << std::string("\x01\x00\xff\x7f", 4);
    // Once a publish is queued for 1 subscriber, the subscriber (which registers "other" last) is ready.
    RunResult pub;
    ASSERT_TRUE(waitUntil([&] {
        pub = runJson({"publish", "other", "--data-file", dir.path() + "/payload.bin"});
        return pub.exitCode == 0 && at(parseLine(pub.out), "queued") == "1";
    })) << pub.out << pub.err;
    EXPECT_EQ(at(parseLine(runJson({"publish", "demo", "--text", "<hello/>"}).out), "queued"), "1");

    RunResult got = subscriber.wait();
    ASSERT_EQ(got.exitCode, 0) << got.err;
    auto received = lines(got.out);
    ASSERT_EQ(received.size(), 2u) << got.out;
    JsonValue bin = parseLine(received[0]), text = parseLine(received[1]);
    EXPECT_EQ(at(bin, "event") + " " + at(bin, "text") + "|" + at(bin, "size") + "|" + at(bin, "payload_hex"),
              "other |4|0100ff7f");
    EXPECT_EQ(at(text, "event") + " " + at(text, "text") + "|" + at(text, "size"), "demo <hello/>|0");
}

TEST_F(KsctlCli, SubscribePrintsHumanLinesAndUnregistersOnCountOrSignal) {
    KsctlRun once(cmd({"subscribe", "news", "--count", "1"}));
    ASSERT_TRUE(waitUntil([&] { return run({"publish", "news", "--text", "a\nb"}).out == "news: queued for 1 subscriber\n"; }));
    RunResult got = once.wait();
    EXPECT_EQ(got.exitCode, 0) << got.err;
    EXPECT_EQ(got.out.substr(23), " news: text \"a\\nb\", 0 bytes\n") << "after the time it came";
    EXPECT_EQ(run({"publish", "news"}).out, "news: queued for 0 subscribers\n");
    for (int sig : {SIGTERM, SIGINT}) {
        KsctlRun subscriber(cmd({"subscribe", "news"}));
        ASSERT_TRUE(waitUntil([&] { return run({"publish", "news"}).out == "news: queued for 1 subscriber\n"; }));
        const JsonValue subscriptions = parseLine(runJson({"subscriptions"}).out);
        ASSERT_EQ(subscriptions.items.size(), 1u);
        EXPECT_EQ(at(subscriptions.items[0], "event"), "news");
        subscriber.signal(sig);
        RunResult stopped = subscriber.wait();
        EXPECT_EQ(std::to_string(stopped.exitCode) + stopped.err, "0");  // clean exit, nothing on stderr
        EXPECT_EQ(run({"publish", "news"}).out, "news: queued for 0 subscribers\n");
        EXPECT_EQ(run({"subscriptions"}).out, "no subscriptions\n");
    }
}

TEST_F(KsctlCli, LockRunsTheCommandAndPassesItsStatusOn) {
    RunResult ok = run({"lock", "printer", "--", "sh", "-c", "echo held; exit 7"});
    EXPECT_EQ(ok.exitCode, 7) << ok.err;
    EXPECT_EQ(ok.out + ok.err, "held\n");
    EXPECT_EQ(run({"lock", "printer", "--timeout", "0", "--", "sh", "-c", "kill -KILL $$"}).exitCode, 128 + SIGKILL);
    RunResult missing = run({"lock", "printer", "--", "/nonexistent/ksctl-test-program"});
    EXPECT_EQ(missing.exitCode, 127);
    expectOneErrorLine(missing, "cannot run /nonexistent/ksctl-test-program");
}

TEST_F(KsctlCli, LockTimesOutWhileHeldAndIsFreeAfterTheHolderStops) {
    kstest::ScopedTempDir dir;
    const std::string marker = dir.path() + "/holding";
    KsctlRun holder(cmd({"lock", "disk0", "--", "sh", "-c", "touch " + marker + "; exec sleep 600"}));
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(marker); }));

    RunResult tryOnce = run({"lock", "disk0", "--timeout", "0", "--", "echo", "never"});
    EXPECT_EQ(std::to_string(tryOnce.exitCode) + tryOnce.out, "3");
    expectOneErrorLine(tryOnce, "lock disk0: not granted within 0 ms");
    RunResult held = runJson({"locks"});
    EXPECT_EQ(parseLine(held.out).items.size(), 1u) << held.out;
    EXPECT_NE(held.out.find("\"disk0\""), std::string::npos) << held.out;

    // SIGTERM reaches the command through ksctl, which then unlocks.
    holder.signal(SIGTERM);
    EXPECT_EQ(holder.wait().exitCode, 128 + SIGTERM);
    EXPECT_EQ(run({"lock", "disk0", "--timeout", "0", "--", "true"}).exitCode, 0);
    EXPECT_EQ(run({"locks"}).out, "no locks held\n");
}

TEST_F(KsctlCli, JobLifecycleWithJsonOutput) {
    RunResult created = runJson({"job", "create", "backup", "--description", "nightly backup"});
    ASSERT_EQ(created.exitCode, 0) << created.err;
    const std::string idText = at(parseLine(created.out), "id");
    ASSERT_EQ(idText.find_first_not_of("0123456789"), std::string::npos) << created.out;

    RunResult dup = runJson({"job", "create", "backup"});
    EXPECT_EQ(dup.exitCode, 1);
    expectOneErrorLine(dup, "job backup: a live job already has that name (-17)");
    EXPECT_EQ(at(parseLine(runJson({"job", "lookup", "backup"}).out), "id"), idText);
    // Without --json, scripts get the bare number; the sentence is for a person, on stderr.
    EXPECT_EQ(run({"job", "lookup", "backup"}).out, idText + "\n");
    const RunResult verbose = run({"--verbose", "job", "create", "second"});
    EXPECT_EQ(std::to_string(std::stoi(verbose.out)) + "\n", verbose.out);
    EXPECT_EQ(verbose.err, "job " + std::to_string(std::stoi(verbose.out)) + " created: second\n");
    EXPECT_EQ(run({"job", "delete", "second"}).exitCode, 0);
    EXPECT_EQ(at(parseLine(runJson({"job", "progress", idText, "40"}).out), "progress"), "40");
    EXPECT_EQ(run({"job", "progress", idText}).out, "job " + idText + ": 40%\n") << "the read form";

    RunResult listed = runJson({"job", "list"});
    JsonValue jobs = parseLine(listed.out);
    ASSERT_EQ(jobs.items.size(), 1u) << listed.out;
    EXPECT_EQ(at(jobs.items[0], "id") + " " + at(jobs.items[0], "name") + " " + at(jobs.items[0], "progress"),
              idText + " backup 40");
    EXPECT_EQ(lines(run({"job", "list"}).out).size(), 2u);  // header and one job

    EXPECT_EQ(at(parseLine(runJson({"job", "cancel", idText}).out), "cancelled"), "true");
    EXPECT_EQ(run({"job", "delete", idText}).out, "job " + idText + " deleted\n");
    RunResult gone = run({"job", "delete", idText});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.err, "ksctl: job " + idText + ": no such job (-2)\n");
    EXPECT_EQ(run({"job", "list"}).out, "no jobs\n");
}

TEST_F(KsctlCli, JobsByNameWatchedToTheirEndWithMessagesThatSayWhy) {
    ASSERT_EQ(run({"job", "create", "w1"}).exitCode, 0);
    KsctlRun watch(cmd({"job", "watch", "w1"}, true));
    // Once the watcher's subscription is in, every later change reaches it.
    ASSERT_TRUE(waitUntil([&] {
        return kstest::operatorQuery("pipe:" + ksd_.pipeName(), "subscriptions").find("OrvoJSEvent:w1$") !=
               std::string::npos;
    }));
    EXPECT_EQ(run({"job", "progress", "w1", "40"}).exitCode, 0) << "a job named instead of numbered";
    EXPECT_EQ(run({"job", "progress", "w1", "100"}).exitCode, 0);
    RunResult watched = watch.wait();
    EXPECT_EQ(watched.exitCode, 0) << watched.err;
    // How many updates it shows depends on when its first read lands; how it ends does not.
    const auto events = lines(watched.out);
    ASSERT_GE(events.size(), 1u) << watched.out;
    for (const auto& line : events) EXPECT_EQ(at(parseLine(line), "name"), "w1") << line;
    const JsonValue last = parseLine(events.back());
    EXPECT_EQ(at(last, "event") + " " + at(last, "progress") + " " + at(last, "name") + " " +
                  std::to_string(at(last, "time").size()),
              "completed 100 w1 23");

    ASSERT_EQ(run({"job", "create", "w2"}).exitCode, 0);
    KsctlRun cancelled(cmd({"job", "watch", "w2"}));
    ASSERT_TRUE(waitUntil([&] {
        return kstest::operatorQuery("pipe:" + ksd_.pipeName(), "subscriptions").find("OrvoJSEvent:w2$") !=
               std::string::npos;
    }));
    EXPECT_EQ(run({"job", "cancel", "w2"}).exitCode, 0);
    EXPECT_EQ(cancelled.wait().exitCode, 4);
    expectOneErrorLine(run({"job", "progress", "w2", "50"}), "the job was cancelled");
    EXPECT_EQ(run({"job", "watch", "w2"}).exitCode, 4) << "already cancelled";

    expectOneErrorLine(run({"job", "create", ""}), "must not be empty");
    const RunResult tooLong = run({"job", "create", std::string(10000, 'n')});
    expectOneErrorLine(tooLong, "1024 bytes");
    EXPECT_LT(tooLong.err.size(), 300u) << "the name is not echoed back whole";
    expectOneErrorLine(run({"job", "cancel", "nosuch"}), "no job has that name");
}

TEST_F(KsctlCli, ASubscriberHearsAPublicationMadeAfterKsdWasKilledAndRestarted) {
    KsctlRun subscriber(cmd({"subscribe", "after-restart", "--count", "1"}));
    ASSERT_TRUE(waitUntil([&] {
        return kstest::operatorQuery("pipe:" + ksd_.pipeName(), "subscriptions").find("after-restart") !=
               std::string::npos;
    }));
    ASSERT_TRUE(ksd_.restart(/*hard=*/true)) << ksd_.log();
    EXPECT_EQ(run({"publish", "after-restart", "--text", "still here"}).out, "after-restart: queued for 1 subscriber\n");
    RunResult got = subscriber.wait();
    EXPECT_EQ(got.exitCode, 0) << got.err;
    EXPECT_NE(got.out.find("still here"), std::string::npos) << got.out;
}

TEST_F(KsctlCli, StatusCountsWhatTheDaemonHolds) {
    ASSERT_EQ(run({"job", "create", "one"}).exitCode, 0);
    RunResult status = runJson({"status"});
    ASSERT_EQ(status.exitCode, 0) << status.err;
    JsonValue s = parseLine(status.out);
    for (const char* key : {"connections", "subscriptions", "queue_drops", "locks_held", "jobs"})
        EXPECT_TRUE(s.find(key) && s.find(key)->asInt()) << key << " in " << status.out;
    EXPECT_EQ(at(s, "jobs") + " " + at(s, "locks_held"), "1 0");
    EXPECT_EQ(at(s, "connections"), "0") << "the asking client is not counted";
    EXPECT_EQ(at(s, "version") + " " + at(s, "state_dir") + " " + at(s, "pipe"),
              std::string(KS_VERSION) + " " + ksd_.stateDir() + " " + ksd_.pipeName());
    EXPECT_EQ(at(s, "start_time").size(), 19u) << status.out;
    const std::string human = run({"status"}).out;  // name/value lines, not JSON
    EXPECT_TRUE(human.find("locks_held") != std::string::npos && human.find('{') == std::string::npos) << human;
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
    ASSERT_TRUE(watch.waitForOut("progress"));
    ASSERT_EQ(ksd_.stop(), 0);
    ASSERT_TRUE(watch.waitForErr("lost ksd at pipe " + ksd_.pipeName()));
    ASSERT_TRUE(ksd_.start()) << ksd_.log();
    ASSERT_TRUE(watch.waitForErr("is back"));
    EXPECT_EQ(run({"job", "progress", "across", "100"}).exitCode, 0);
    const RunResult watched = watch.wait();
    EXPECT_EQ(watched.exitCode, 0) << watched.err;
    EXPECT_EQ(at(parseLine(lines(watched.out).back()), "event"), "completed") << watched.out;
}

TEST_F(KsctlCli, OverTcpSubscriptionsWorkAndRefusalsSayWhy) {
    ksd_.stop();
    ASSERT_TRUE(ksd_.start({"--tcp-port", "0", "--log-level", "error"}))
        << ksd_.log();  // the ready line names the port
    const std::string port = std::to_string(ksd_.tcpPort());
    EXPECT_EQ(at(parseLine(runJson({"status"}).out), "tcp_port"), port);
    KsctlRun subscriber({"--tcp-port", port, "subscribe", "over-tcp", "--count", "1"});
    ASSERT_TRUE(waitUntil([&] { return run({"publish", "over-tcp"}).out == "over-tcp: queued for 1 subscriber\n"; }));
    const RunResult got = subscriber.wait();
    EXPECT_EQ(got.exitCode, 0) << got.err;
    // Over loopback TCP the client is its socket's owner: it may change what it owns.
    const RunResult created = runKsctl({"--tcp-port", port, "job", "create", "remote"});
    EXPECT_EQ(created.exitCode, 0) << created.err;
}
