// ksd as a service manager and an operator see it: its state directory and
// addresses, log levels by name, the state directory systemd hands over,
// readiness and stop notifications, signals, start-up errors, and the version
// both programs print.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include "OrvoLogging.h"
#include "daemon_thread.h"
#include "e2e_support.h"
#include "log_setup.h"
#include "push_sink.h"
#include "service_manager.h"
#include "store/store_error.h"

namespace {

namespace fs = std::filesystem;
using e2e::readFile;

TEST(ServiceSetup, LevelNamesAreThresholdsLabelsAndJournalPriorities) {
    // A name as a threshold admits every record labelled with it.
    const std::pair<const char*, int> kThresholds[] = {{"notice", 0}, {"error", 1}, {"Warning", 4}, {"INFO", 7},
                                                       {"debug", 8},  {"trace", 9}, {"0", 0},       {"12", 12}};
    for (const auto& [text, level] : kThresholds) EXPECT_EQ(ksd::parseLogLevel(text), level) << text;
    for (const char* bad : {"", "-1", "warn", "errors", "1x", " 1", "+1"})
        EXPECT_FALSE(ksd::parseLogLevel(bad).has_value()) << "'" << bad << "'";
    const std::tuple<int, std::string, int> kRecords[] = {
        {0, "notice", LOG_NOTICE}, {1, "error", LOG_ERR}, {2, "warning", LOG_WARNING}, {4, "warning", LOG_WARNING},
        {5, "info", LOG_INFO},     {7, "info", LOG_INFO}, {8, "debug", LOG_DEBUG},     {12, "trace", LOG_DEBUG}};
    for (const auto& [level, name, priority] : kRecords) {
        EXPECT_EQ(OrvoSupport::OrvoLogging::levelName(level), name) << level;
        EXPECT_EQ(ksd::syslogPriority(level), priority) << level;
    }
}

bool serves(const std::string& address) { return !kstest::operatorQuery(address, "status").empty(); }

TEST(ServiceSetup, TakesItsStateDirectoryAndAddressesAndLeavesOthersAlone) {
    kstest::ScopedTempDir tmp("kstest-daemon");
    const fs::path state = fs::path(tmp.path()) / "deep" / "state";
    ksd::DaemonOptions o{kstest::uniqueName("kstest-daemon"), -1, state, {}, {}, {}};
    {
        ksd::DaemonThread daemon(o);
        EXPECT_EQ(fs::status(state).permissions() & fs::perms::all, fs::perms::owner_all);
        EXPECT_TRUE(serves("pipe:" + o.pipe));
        ksd::DaemonOptions other = o;
        other.pipe = tmp.path() + "/other.sock";
        EXPECT_THROW(ksd::Daemon second(other), ksd::store::StoreError) << "the state directory is taken";
    }
    // A socket file nobody accepts on, as a killed daemon leaves behind, is replaced.
    o.pipe = tmp.path() + "/ksd.sock";
    kstest::PushSink(kstest::PushSink::Pipe, o.pipe).stop();
    ASSERT_TRUE(fs::is_socket(o.pipe));
    {
        ksd::DaemonThread daemon(o);
        EXPECT_EQ(fs::status(o.pipe).permissions() & fs::perms::all, fs::perms(0666)) << "every local user may connect";
        EXPECT_TRUE(serves("pipe:" + o.pipe));
        o.stateDir = tmp.path() + "/other-state";
        EXPECT_THROW(ksd::Daemon second(o), std::system_error) << "a live socket is kept";
    }
    EXPECT_FALSE(fs::exists(o.pipe)) << "removed at stop";
    o.pipe = tmp.path() + "/plain";
    std::ofstream(o.pipe) << "not a socket";
    EXPECT_THROW(ksd::Daemon onFile(o), std::system_error);
    EXPECT_TRUE(fs::exists(o.pipe)) << "never removes what is not a socket";
}

// A datagram socket standing in for systemd's notification socket.
class NotifySocket {
public:
    NotifySocket() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~NotifySocket() { ::close(fd_); }
    bool bind(const std::string& path) {
        sockaddr_un a;
        return ::bind(fd_, reinterpret_cast<sockaddr*>(&a), OrvoNet::pipeAddress(path, &a)) == 0;
    }
    // The next message, or "" when none comes within a generous bound.
    std::string next() {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 20000) != 1) return "";
        char buf[512];
        const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
    }

private:
    int fd_;
};

#ifdef KSD_HAVE_SYSTEMD
constexpr bool kHaveSystemd = true;  // readiness and stop are reported only then
#else
constexpr bool kHaveSystemd = false;
#endif

TEST(ServiceSetup, UnderAServiceManagerKsdReportsReadyReopensItsLogOnSighupAndStopsOnSigterm) {
    kstest::ScopedTempDir tmp("kstest-unit");
    NotifySocket notify;
    ASSERT_TRUE(notify.bind(tmp.path() + "/notify"));
    const std::string state = tmp.path() + "/state";
    const std::string log = tmp.path() + "/ksd.log";
    const std::string address = "pipe:" + kstest::uniqueName("kstest-unit");
    // Of the manager's colon-separated directories, the first is the daemon's.
    kstest::ChildProcess ksd(kstest::ksdProgram(), {"--foreground", "--pipe", address.substr(5), "--log-level", "error"},
                             {{"STATE_DIRECTORY", state + ":" + tmp.path() + "/second"},
                              {"NOTIFY_SOCKET", tmp.path() + "/notify"},
                              {"OSUPT_LOG_FILE", log}});
    if (kHaveSystemd) {
        ASSERT_EQ(notify.next(), "READY=1");
        EXPECT_TRUE(kstest::WireClient().connect(address)) << "ready means listening";
    }
    ASSERT_TRUE(kstest::waitUntil([&] { return readFile(log).find("ready") != std::string::npos; }));
    EXPECT_TRUE(fs::exists(state + "/ksd.db")) << "the state directory the manager made is used";

    // A hang-up (a closed terminal, a rotation) reopens the log and does not stop the daemon.
    fs::rename(log, log + ".1");
    ksd.signal(SIGHUP);
    EXPECT_TRUE(kstest::waitUntil([&] { return fs::exists(log) && fs::file_size(log) > 0; }));
    EXPECT_TRUE(serves(address));
    // An idle client and one mid-request do not hold the stop up.
    kstest::WireClient idle, half;
    ASSERT_TRUE(idle.connect(address));
    ASSERT_TRUE(half.connect(address));
    ASSERT_TRUE(half.send(kstest::requestWire("Notifier", "TRVX_NN_NOTIFY").bytes()));
    ksd.signal(SIGTERM);
    if (kHaveSystemd) {
        EXPECT_EQ(notify.next(), "STOPPING=1");
    }
    EXPECT_EQ(ksd.wait(), 0);
    EXPECT_TRUE(idle.waitPeerClosed());
    const std::string records = readFile(log);
    EXPECT_NE(records.find("ksd: stopped on SIGTERM"), std::string::npos) << records;
    EXPECT_EQ(records.find("[warning]"), std::string::npos) << "'error' admits notices and errors only:\n" << records;
}

TEST(ServiceSetup, BothProgramsPrintTheProjectVersion) {
    kstest::ChildProcess ksd(kstest::ksdProgram(), {"--version"});
    kstest::ChildProcess ksctl(kstest::testBinaryDir() + "/tools/ksctl/ksctl", {"--version"});
    EXPECT_EQ(std::to_string(ksd.finish()) + " " + ksd.out(), "0 ksd " KS_VERSION " (protocol 1)\n");
    EXPECT_EQ(std::to_string(ksctl.finish()) + " " + ksctl.out(), "0 ksctl " KS_VERSION "\n");
}

TEST(ServiceSetup, TheStateDirectoryIsTheDaemonsAloneAndAnotherUsersIsRefused) {
    kstest::ScopedTempDir tmp("kstest-state");
    const std::string state = tmp.path() + "/state";
    fs::create_directories(state);
    fs::permissions(state, fs::perms::all, fs::perm_options::replace);
    std::ofstream(state + "/left-by-an-older-ksd") << "x";
    fs::permissions(state + "/left-by-an-older-ksd", fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read,
                    fs::perm_options::replace);
    // Its stderr is the journal's stream, as under systemd: each line carries its priority.
    const std::string command = "export JOURNAL_STREAM=$(stat -L -c %d:%i /proc/$$/fd/1); exec " +
                                kstest::ksdProgram() + " --foreground --log-level error --pipe " +
                                kstest::uniqueName("kstest-state") + " --state-dir " + state + " 2>&1";
    {
        kstest::ChildProcess ksd("/bin/sh", {"-c", command});
        ASSERT_TRUE(ksd.waitFor("<5>[notice] ksd: ready"));
        for (const std::string file : {"", "/ksd.db", "/left-by-an-older-ksd"}) {
            const auto perms = fs::status(state + file).permissions();
            EXPECT_EQ(perms & (fs::perms::group_all | fs::perms::others_all), fs::perms::none) << "'" << file << "'";
        }
        ksd.signal(SIGTERM);
        EXPECT_EQ(ksd.wait(), 0);
    }
    if (::geteuid() != 0) GTEST_SKIP() << "not root: cannot give the directory to another user";
    ASSERT_EQ(::chown(state.c_str(), 65534, 65534), 0);
    kstest::ChildProcess refused("/bin/sh", {"-c", command});
    EXPECT_TRUE(refused.waitFor("ksd: state directory " + state + " belongs to uid 65534"));
    EXPECT_EQ(refused.wait(), 1);
}

}  // namespace
