// ksctl events against a real ksd: the daemon's job, lock and task events as
// JSON lines in the order they happened, the kind filters, the end on a
// signal, and the family names closed to publishers.
#include <gtest/gtest.h>
#include <signal.h>

#include <ctime>
#include <string>
#include <vector>

#include "fake_daemon.h"
#include "json.h"
#include "ksctl_runner.h"
#include "ksd_process.h"
#include "wait_until.h"

using namespace kstest;

namespace {

std::string inOneHour() {
    const std::time_t t = std::time(nullptr) + 3600;
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

// "kind subject event code" of one --json line, or what was wrong with it.
std::string summary(const std::string& line) {
    const auto v = ksctl::parseJson(line);
    if (!v || v->kind != ksctl::JsonValue::Kind::Object) return "<not a JSON object: " + line + ">";
    std::string out;
    for (const char* key : {"kind", "name", "handle", "event", "code"}) {
        const ksctl::JsonValue* m = v->find(key);
        if (m) out += (out.empty() ? "" : " ") + (m->kind == ksctl::JsonValue::Kind::String ? m->text : toJson(*m));
    }
    return out;
}

class KsctlEvents : public KsctlTest {
protected:
    std::string subscriptions() const { return operatorQuery(ksd_.connType(), "subscriptions"); }
    // True once the subscriptions list shows `event`.
    bool subscribed(const std::string& event) const {
        return waitUntil([&] { return subscriptions().find("\"event\":\"" + event + "\"") != std::string::npos; });
    }
};

TEST_F(KsctlEvents, JobLockAndTaskEventsArriveAsJsonLinesInTheOrderTheyHappened) {
    const RunResult scheduled = run({"task", "schedule", "later", "/bin/true", "--at", inOneHour()}, true);
    ASSERT_EQ(scheduled.exitCode, 0) << scheduled.err;
    const auto reply = ksctl::parseJson(scheduled.out);
    ASSERT_TRUE(reply && reply->find("handle")) << scheduled.out;
    const std::string handle = toJson(*reply->find("handle"));

    KsctlRun events(cmd({"events", "--count", "6"}, true));
    ASSERT_TRUE(subscribed("OrvoTSEvent:*")) << subscriptions();  // registered last
    ASSERT_EQ(run({"job", "create", "backup"}).exitCode, 0);
    ASSERT_EQ(run({"job", "progress", "backup", "100"}).exitCode, 0);
    ASSERT_EQ(run({"lock", "disk0", "--", "true"}).exitCode, 0);
    ASSERT_EQ(run({"task", "cancel", handle}).exitCode, 0);

    const RunResult got = events.wait();
    EXPECT_EQ(std::to_string(got.exitCode) + got.err, "0");
    std::vector<std::string> seen;
    for (const auto& line : lines(got.out)) seen.push_back(summary(line));
    EXPECT_EQ(seen,
              (std::vector<std::string>{"job backup created 2", "job backup updated 3", "job backup completed 0",
                                        "lock disk0 locked 1", "lock disk0 unlocked 0", "task " + handle + " exit -1"}))
        << got.out;
    EXPECT_EQ(subscriptions(), "[]") << "unsubscribed at the end";
}

TEST_F(KsctlEvents, AKindFilterShowsOnlyThatKindAndASignalEndsCleanly) {
    KsctlRun locksOnly(cmd({"events", "--locks", "--count", "1"}));
    ASSERT_TRUE(subscribed("OrvoRAEvent:*"));
    EXPECT_EQ(subscriptions().find("OrvoJSEvent"), std::string::npos) << subscriptions();
    ASSERT_EQ(run({"job", "create", "quiet"}).exitCode, 0);
    ASSERT_EQ(run({"lock", "printer", "--", "true"}).exitCode, 0);
    const RunResult got = locksOnly.wait();
    EXPECT_EQ(got.exitCode, 0) << got.err;
    EXPECT_EQ(got.out.substr(23), " lock printer: locked (1)\n") << "the job's event came first, and is not shown";

    for (int sig : {SIGTERM, SIGINT}) {
        KsctlRun all(cmd({"events"}));
        ASSERT_TRUE(subscribed("OrvoTSEvent:*"));
        all.signal(sig);
        const RunResult stopped = all.wait();
        EXPECT_EQ(std::to_string(stopped.exitCode) + stopped.err + stopped.out, "0");
        EXPECT_EQ(subscriptions(), "[]");
    }
}

TEST_F(KsctlEvents, NoClientMayPublishUnderAFamilyName) {
    for (const std::string family : {"OrvoJSEvent:*", "OrvoRAEvent:*", "OrvoTSEvent:*"}) {
        const RunResult r = run({"publish", family, "--text", "forged"});
        EXPECT_EQ(r.exitCode, 1) << family << r.out;
        EXPECT_NE(r.err.find("permission denied"), std::string::npos) << r.err;
    }
}

}  // namespace
