// Programs run as child processes of a test: ksd (on a unique pipe and a fresh
// state directory, kept across restarts) and any other, talked to through pipes.
#ifndef KSTEST_KSD_PROCESS_H
#define KSTEST_KSD_PROCESS_H

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fake_daemon.h"

namespace kstest {

// The build tree: $KS_TEST_BINARY_DIR, else the one this library was configured in.
std::string testBinaryDir();
std::string ksdProgram();
std::string clientHelperProgram();

// One ksd child process. The pipe name and state directory are chosen at
// construction and kept across restarts; the state directory (and ksd's
// stderr log beside it) is removed at destruction, after the child is gone.
class KsdProcess {
public:
    KsdProcess();
    ~KsdProcess();
    KsdProcess(const KsdProcess&) = delete;
    KsdProcess& operator=(const KsdProcess&) = delete;

    // Spawns `ksd --foreground --pipe P --state-dir D [extra...]` and waits
    // (bounded, 20 s) until its pipe accepts. False when it exited or never
    // accepted; the child is then reaped or killed. True if already running.
    bool start(const std::vector<std::string>& extraArgs = {});
    // SIGTERM (SIGKILL) and wait: the exit status (128 + signal when killed), -1 if not running.
    int stop() { return end(SIGTERM); }
    int kill() { return end(SIGKILL); }
    // stop() (or kill() when `hard`), then start() with the same arguments.
    bool restart(bool hard = false);
    bool isRunning();
    // Later starts run ksd in a session of its own with this terminal (a pty's
    // slave path) as its controlling terminal and standard input.
    void useTerminal(const std::string& path) { terminal_ = path; }

    pid_t pid() const { return pid_; }
    const std::string& pipeName() const { return pipe_; }
    std::string connType() const { return "pipe:" + pipe_; }  // for KSINTF_CONN_TYPE
    const std::string& stateDir() const { return stateDir_; }
    // Everything ksd wrote to stderr since its last start.
    std::string log() const;
    // The loopback port of the last start with --tcp-port (0 picks one), from its
    // ready line (logged at --log-level error and above); -1 if none.
    int tcpPort() const;

private:
    int end(int nSignal);

    ScopedTempDir root_;  // holds state/ and ksd.log
    std::string stateDir_;
    std::string logFile_;
    std::string pipe_;
    std::vector<std::string> extraArgs_;
    std::string terminal_;
    pid_t pid_ = -1;
};

// A child process with its stdin and stdout (and, when asked, its stderr) on
// pipes: the test writes lines to it and reads what it prints.
class ChildProcess {
public:
    // `env` entries override or add to this process's environment.
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 const std::map<std::string, std::string>& env = {}, bool captureStderr = false);
    ~ChildProcess();  // closes stdin, then kills and reaps a child still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    // Bounded reads of its stdout, false or empty on end or time-out: one line (without the
    // newline); lines until one starts with `prefix`; until stdout (or stderr) holds `fragment`.
    bool readLine(std::string& line, int nTimeoutMs = 20000);
    std::string waitForLine(const std::string& prefix, int nTimeoutMs = 20000);
    bool waitFor(const std::string& fragment, bool inStderr = false);
    bool writeLine(const std::string& line);
    void signal(int nSignal);
    // Waits for the exit: the exit status (128 + signal when killed by one).
    int wait();
    // Closes its stdin, reads its output to the end, then waits for the exit.
    int finish();
    // What it printed and readLine has not taken; what it printed on stderr.
    const std::string& out() const { return buffer_; }
    const std::string& err() const { return errText_; }

private:
    // One poll of the output pipes: false on time-out, or once both have ended.
    bool pump(int nTimeoutMs);
    // Pumps until `done` holds (true) or nTimeoutMs pass or the output ends (false).
    bool pumpUntil(const std::function<bool()>& done, int nTimeoutMs);

    pid_t pid_ = -1;
    int in_ = -1;   // its stdin (our write end)
    int out_ = -1;  // its stdout (our read end)
    int err_ = -1;  // its stderr when captured
    std::string buffer_;
    std::string errText_;
    int status_ = -1;
};

}  // namespace kstest

#endif
