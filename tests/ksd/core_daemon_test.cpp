// The daemon as a whole: its state directory and addresses, and the ksd
// program started and stopped as an operator would.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "core_test_util.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "store/store_error.h"

namespace {

namespace fs = std::filesystem;

TEST(CoreDaemon, TakesItsStateDirectoryAndAddressesAndLeavesOthersAlone) {
    kstest::ScopedTempDir tmp("kstest-daemon");
    const fs::path state = fs::path(tmp.path()) / "deep" / "state";
    {
        ksdtest::TestServer daemon([&](ksd::DaemonOptions& o) { o.stateDir = state; });
        EXPECT_EQ(fs::status(state).permissions() & fs::perms::all, fs::perms::owner_all);
        EXPECT_TRUE(ksdtest::echoWorks(daemon.address()));
        ksd::DaemonOptions other = daemon.daemon().options();
        other.stateDir = tmp.path() + "/other-state";
        EXPECT_THROW(ksd::Daemon second(other), std::system_error) << "the pipe is taken";
        other = daemon.daemon().options();
        other.pipe = tmp.path() + "/other.sock";
        EXPECT_THROW(ksd::Daemon second(other), ksd::store::StoreError) << "the state directory is taken";
    }
    // A socket file nobody accepts on, as a killed daemon leaves behind, is replaced.
    ksd::DaemonOptions o{tmp.path() + "/ksd.sock", -1, tmp.path(), {}, {}, {}};
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", o.pipe.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ::close(fd);
    {
        ksdtest::TestServer daemon([&](ksd::DaemonOptions& d) { d.pipe = o.pipe; });
        EXPECT_EQ(fs::status(o.pipe).permissions() & fs::perms::all, fs::perms(0666)) << "every local user may connect";
        EXPECT_TRUE(ksdtest::echoWorks(daemon.address()));
        EXPECT_THROW(ksd::Daemon second(o), std::system_error) << "a live socket is kept";
    }
    EXPECT_FALSE(fs::exists(o.pipe)) << "removed at stop";
    o.pipe = tmp.path() + "/plain";
    std::ofstream(o.pipe) << "not a socket";
    EXPECT_THROW(ksd::Daemon onFile(o), std::system_error);
    EXPECT_TRUE(fs::exists(o.pipe)) << "never removes what is not a socket";
}

TEST(CoreDaemon, TheProgramLogsReadyServesSurvivesSighupAndExitsZeroOnSigterm) {
    kstest::KsdProcess ksd;
    ASSERT_TRUE(ksd.start({"--log-level", "1"})) << ksd.log();
    EXPECT_TRUE(ksdtest::waitUntil([&] { return ksd.log().find("ready") != std::string::npos; })) << ksd.log();
    // A hang-up (a closed terminal, a rotation) must not stop the daemon.
    ASSERT_EQ(::kill(ksd.pid(), SIGHUP), 0);
    EXPECT_TRUE(ksdtest::call(ksd.connType(), ksdtest::notifyRequest("nobody", "", "")).ok);
    EXPECT_TRUE(ksd.isRunning());
    EXPECT_TRUE(fs::is_directory(ksd.stateDir()));
    // An idle client and one mid-request do not hold the stop up.
    kstest::WireClient idle, half;
    ASSERT_TRUE(idle.connect(ksd.connType()));
    ASSERT_TRUE(half.connect(ksd.connType()));
    ASSERT_TRUE(half.send(ksdtest::requestWire("Notifier", "TRVX_NN_NOTIFY").bytes()));
    EXPECT_EQ(ksd.stop(), 0);
    EXPECT_TRUE(idle.waitPeerClosed());
}

TEST(CoreDaemon, SighupReopensTheLogFileAfterARotation) {
    const fs::path dir = fs::temp_directory_path() / ("ksd-rotate-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const std::string file = (dir / "ksd.log").string();
    kstest::ScopedEnv logFile("OSUPT_LOG_FILE", file);
    kstest::KsdProcess ksd;
    ASSERT_TRUE(ksd.start({"--log-level", "1"})) << ksd.log();
    std::string text;
    const auto read = [&] {
        std::ifstream in(file);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        return text;
    };
    ASSERT_TRUE(ksdtest::waitUntil([&] { return read().find("ready") != std::string::npos; })) << text;
    fs::rename(file, file + ".1");
    ASSERT_EQ(::kill(ksd.pid(), SIGHUP), 0);
    EXPECT_TRUE(ksdtest::waitUntil([&] { return fs::exists(file) && fs::file_size(file) > 0; }));
    EXPECT_TRUE(ksd.isRunning());
    EXPECT_EQ(ksd.stop(), 0);
    EXPECT_NE(read().find("stopped on SIGTERM"), std::string::npos) << text;
    fs::remove_all(dir);
}

}  // namespace
