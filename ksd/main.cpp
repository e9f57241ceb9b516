// ksd: the shared-services daemon. Parses the command line, builds a Daemon
// and serves until SIGTERM or SIGINT.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <asio/signal_set.hpp>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>

#include "OrvoLogging.h"
#include "OrvoProtocol.h"
#include "daemon.h"
#include "log_setup.h"
#include "service_manager.h"
#include "state_dir.h"

namespace {

// Every client holds a descriptor here; take all the kernel allows us.
// Answers the soft limit in force afterwards.
std::size_t raiseDescriptorLimit() {
    rlimit rl{};
    if (::getrlimit(RLIMIT_NOFILE, &rl) != 0) return 1024;
    if (rl.rlim_cur < rl.rlim_max) {
        const rlim_t wanted = rl.rlim_max;
        rl.rlim_cur = wanted;
        if (::setrlimit(RLIMIT_NOFILE, &rl) != 0) ::getrlimit(RLIMIT_NOFILE, &rl);
    }
    return rl.rlim_cur == RLIM_INFINITY ? std::size_t{1} << 20 : static_cast<std::size_t>(rl.rlim_cur);
}

// Detaches from the terminal. The parent exits once the child reports that
// it listens (or failed), so "ksd && client" works.
int daemonize(int& readyFd) {
    int fds[2];
    if (::pipe(fds) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid > 0) {
        ::close(fds[1]);
        char status = 1;
        const bool got = ::read(fds[0], &status, 1) == 1;
        ::_exit(got && status == 0 ? 0 : 1);
    }
    ::close(fds[0]);
    ::setsid();
    if (::fork() > 0) ::_exit(0);
    if (::chdir("/") != 0) return -1;
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        // stderr stays until the daemon is up, so start-up errors are seen.
        if (null > STDERR_FILENO) ::close(null);
    }
    readyFd = fds[1];
    return 0;
}

void reportReady(int& readyFd, bool ok) {
    if (readyFd < 0) return;
    const char status = ok ? 0 : 1;
    [[maybe_unused]] auto n = ::write(readyFd, &status, 1);
    ::close(readyFd);
    readyFd = -1;
    if (ok) {
        const int null = ::open("/dev/null", O_WRONLY);
        if (null >= 0) {
            ::dup2(null, STDERR_FILENO);
            if (null > STDERR_FILENO) ::close(null);
        }
    }
}

volatile std::sig_atomic_t earlyStop = 0;

// A client can connect (and a supervisor send SIGTERM) as soon as the listeners are
// bound, before the loop's own handler exists; such a signal is kept, not fatal.
extern "C" void rememberStop(int signal) { earlyStop = signal; }

}  // namespace

int main(int argc, char** argv) {
    // Until the loop's own handler is in place, a hang-up must not stop a
    // daemon that already listens (clients may see it before it is ready).
    ::signal(SIGHUP, SIG_IGN);
    ::signal(SIGTERM, rememberStop);
    ::signal(SIGINT, rememberStop);
    CLI::App app{"ksd: shared-services daemon (notifications, scheduler, locks, job status)"};
    ksd::DaemonOptions options;
    std::string stateDir;
    std::optional<std::string> logLevel;
    std::optional<int> tcpPort;
    bool foreground = false;
    app.add_option("--pipe", options.pipe, "abstract socket name, or a socket path when it contains '/'")
        ->capture_default_str();
    app.add_option("--tcp-port", tcpPort, "also listen on 127.0.0.1:N")->check(CLI::Range(0, 65535));
    app.add_option("--state-dir", stateDir,
                   "state directory (default $STATE_DIRECTORY, else /var/lib/ksd as root, else ~/.local/state/ksd)");
    app.add_option("--log-level", logLevel,
                   "log threshold: notice (0), error (1), warning (4), info (7), debug (8), trace (9), or a number; "
                   "notices (start, stop) are always logged")
        ->check(CLI::Validator(
            [](std::string& text) { return ksd::parseLogLevel(text) ? std::string() : "not a log level: " + text; },
            "LEVEL"));
    app.add_option_function<long>(
           "--subscription-sweep-ms", [&](long ms) { options.notifier.sweepInterval = std::chrono::milliseconds(ms); },
           "how often idle pipe callback addresses are checked for a listener (0: never; default 60000)")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--foreground", foreground, "stay in the foreground, log to stderr");
    auto* cluster = app.add_option_group("Cluster", "several hosts as one, through NATS (JetStream)");
    std::string clusterUrls;
    std::int64_t leaseMs = options.cluster.lease.count();
    cluster->add_option("--cluster", clusterUrls, "NATS servers, URL[,URL...]; without it ksd serves this host alone");
    cluster->add_option("--cluster-name", options.cluster.name, "prefix of every subject and bucket")
        ->capture_default_str();
    cluster->add_option("--node", options.cluster.node, "this node's name, unique in the cluster (default: host name)");
    cluster->add_option("--cluster-lease-ms", leaseMs, "how long a silent node still counts")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{100}, std::int64_t{3600000}));
    auto* user = cluster->add_option("--cluster-user", options.cluster.user, "NATS user");
    cluster->add_option("--cluster-password", options.cluster.password, "NATS password")->needs(user);
    cluster->add_option("--cluster-creds", options.cluster.credsFile, "NATS credentials file")
        ->check(CLI::ExistingFile)
        ->excludes(user);
    cluster->add_option("--cluster-ca", options.cluster.caFile, "CA file: talk TLS to NATS")->check(CLI::ExistingFile);
    auto& server = options.server;
    auto* limits = app.add_option_group("Limits", "bounds that keep one client or user from harming the others");
    // Most limits are counts or sizes above zero, shown with their default in --help.
    const auto positiveLimit = [limits](const char* name, auto& value, const char* help) {
        limits->add_option(name, value, help)->capture_default_str()->check(CLI::PositiveNumber);
    };
    positiveLimit("--max-connections", server.maxConnections,
                  "connections in all; the last --root-reserve of them are for root (lowered to fit the "
                  "descriptor limit)");
    limits->add_option("--root-reserve", server.rootReserve, "connections kept for root")->capture_default_str();
    positiveLimit("--max-connections-per-user", server.maxConnectionsPerUser,
                  "connections of one user (a TCP client counts for its socket's owner; root is exempt)");
    positiveLimit("--max-pending-bytes", server.maxPendingBytes,
                  "bytes of requests not yet whole, in all (beyond: not read until they complete)");
    positiveLimit("--max-pending-bytes-per-user", server.maxPendingBytesPerUser,
                  "bytes of requests not yet whole, per user (root is exempt)");
    std::int64_t requestTimeoutMs = server.requestTimeout.count();
    limits
        ->add_option("--request-timeout", requestTimeoutMs,
                     "ms within which a begun request must be whole, and a reply taken")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{100}, std::int64_t{3600000}));
    auto& scheduler = options.scheduler;
    positiveLimit("--max-tasks-per-user", scheduler.maxTasksPerUser,
                  "scheduled tasks one user keeps (a TCP client counts for its socket's owner; root is exempt; "
                  "the last 64 cancelled of each user stay readable and count for nothing); "
                  "over it scheduling answers -122");
    positiveLimit("--max-task-bytes-per-user", scheduler.maxTaskBytesPerUser,
                  "bytes of one user's stored tasks, names, paths, parameters and blobs (root is exempt); "
                  "over it scheduling answers -122");
    positiveLimit("--max-programs-per-user", scheduler.maxProgramsPerUser,
                  "task programs of one user running at once; a due run over it is skipped (root is exempt)");
    positiveLimit("--max-programs", scheduler.maxPrograms,
                  "task programs running at once in all, root's included; a due run over it is skipped "
                  "(two descriptors each, kept out of --max-connections)");
    positiveLimit("--max-subscriptions-per-user", options.notifier.maxSubscriptionsPerUser,
                  "subscriptions of one user (root is exempt)");
    positiveLimit("--max-push-bytes-per-user", options.notifier.maxQueuedBytesPerUser,
                  "bytes of notifications queued for one user's subscribers, all addresses together (root "
                  "is exempt; beyond: that user's notifications are dropped and counted)");
    positiveLimit("--max-locks-per-user", options.arbiter.maxLocksPerUser,
                  "locks one user holds at once (in a cluster: holds or waits for, on every node together; root "
                  "is exempt; beyond: EDQUOT)");
    positiveLimit("--max-jobs-per-user", options.jobs.maxJobsPerUser,
                  "live jobs of one user (root is exempt; beyond: -122)");
    positiveLimit("--max-jobs", options.jobs.maxJobs,
                  "live jobs in all; the last --job-root-reserve of them are for root (beyond: -28)");
    limits->add_option("--job-root-reserve", options.jobs.rootReserve, "live jobs kept for root")
        ->capture_default_str();
    app.set_version_flag("--version", std::string("ksd ") + KS_VERSION + " (protocol " +
                                          std::to_string(OrvoNet::Protocol::kProtocolVersion) + ")");
    CLI11_PARSE(app, argc, argv);

    server.requestTimeout = std::chrono::milliseconds(requestTimeoutMs);
    options.cluster.lease = std::chrono::milliseconds(leaseMs);
    for (std::size_t from = 0; !clusterUrls.empty() && from <= clusterUrls.size();) {
        const std::size_t comma = std::min(clusterUrls.find(',', from), clusterUrls.size());
        if (comma > from) options.cluster.servers.push_back(clusterUrls.substr(from, comma - from));
        from = comma + 1;
    }
    // A daemon shows its warnings unless told otherwise: refusals and failed task starts are
    // what an operator looks for first.
    if (logLevel) {
        OrvoSupport::OrvoLogging::getInstance().setLogLevel(*ksd::parseLogLevel(*logLevel));
    } else if (std::getenv("OSUPT_LOG_LEVEL") == nullptr) {
        OrvoSupport::OrvoLogging::getInstance().setLogLevel(ksd::kLogWarning);
    }
    if (tcpPort) options.tcpPort = *tcpPort;
    if (!stateDir.empty())
        options.stateDir = stateDir;
    else
        options.stateDir = ksd::managerStateDirectory().value_or(ksd::defaultStateDir());
    // Detaching changes to "/": relative paths are resolved against the caller's directory first.
    std::error_code ec;
    options.stateDir = std::filesystem::absolute(options.stateDir, ec).lexically_normal();
    if (options.pipe.find('/') != std::string::npos)
        options.pipe = std::filesystem::absolute(options.pipe, ec).lexically_normal().string();
    // Programs start with the limits of a login, not with the daemon's raised ones.
    scheduler.programLimits = ksd::sched::loginLimits();
    ksd::fitToDescriptors(options.server, raiseDescriptorLimit(), 2 * scheduler.maxPrograms);
    // Files the daemon makes (the database and its journal) are its own alone.
    ::umask(077);

    int readyFd = -1;
    if (!foreground && daemonize(readyFd) != 0) {
        std::perror("ksd: cannot detach");
        return 1;
    }
    // With no log file named, a detached ksd logs to syslog and a service's ksd to the
    // journal's stream, each record with its priority; a ksd run by hand to its stderr.
    if (!ksd::logFileNamed()) {
        if (!foreground)
            ksd::logToSyslog();
        else
            ksd::logToJournalStream();
    }
    int stopSignal = 0;
    try {
        ksd::Daemon daemon(std::move(options));
        asio::signal_set signals(daemon.io(), SIGTERM, SIGINT);
        signals.async_wait([&daemon, &stopSignal](const std::error_code& ec, int signal) {
            if (ec) return;
            stopSignal = signal;
            ksd::notifyStopping();
            daemon.stop();
        });
        if (earlyStop != 0) {
            stopSignal = earlyStop;
            daemon.stop();
        }
        // SIGHUP is the rotation signal of daemons; it must never stop this one.
        asio::signal_set hangups(daemon.io(), SIGHUP);
        std::function<void()> awaitHangup = [&hangups, &awaitHangup] {
            hangups.async_wait([&awaitHangup](const std::error_code& ec, int) {
                if (ec) return;
                if (OrvoSupport::OrvoLogging::getInstance().reopenFile())
                    ORVO_LOG(0, "ksd: log file reopened on SIGHUP");
                awaitHangup();
            });
        };
        awaitHangup();
        // A client that vanishes mid-write must not kill the daemon.
        ::signal(SIGPIPE, SIG_IGN);
        reportReady(readyFd, true);
        ksd::notifyReady();
        daemon.run();
        ORVO_LOG(0, "ksd: stopped" << (stopSignal == SIGTERM  ? " on SIGTERM"
                                       : stopSignal == SIGINT ? " on SIGINT"
                                                              : ""));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ksd: %s\n", e.what());
        reportReady(readyFd, false);
        return 1;
    }
    return 0;
}
