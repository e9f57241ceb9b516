// ksctl: the operator's and scripter's command-line client of ksd, built on libksintf's C API.

#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "commands.h"
#include "failure.h"
#include "target.h"

namespace {

using namespace ksctl;

struct Parsed {
    std::optional<std::string> pipe;
    std::optional<int> tcpPort;
    int replyTimeoutMs = 30000;
    GlobalOptions options;
    PublishArgs publish;
    SubscribeArgs subscribe;
    EventsArgs events;
    LockArgs lock;
    JobArgs job;
    TaskArgs task;
};

// CLI11's own range check prints the whole double range in its message.
const CLI::Validator kNonNegativeMs(
    [](std::string& text) {
        return !text.empty() && text[0] == '-' ? std::string("must be 0 or more milliseconds") : std::string();
    },
    "MS>=0");

void addJobCommands(CLI::App& job, Parsed& p) {
    job.require_subcommand(1);
    auto* create = job.add_subcommand("create", "Create a job and print its id (only the number)");
    create->add_option("name", p.job.name, "Job name, unique among live jobs")->required();
    create->add_option("--description,-d", p.job.description, "Free text describing the job");
    create->callback([&p] { p.job.action = JobArgs::Action::Create; });

    auto* lookup = job.add_subcommand("lookup", "Print the id of the job with this name (only the number)");
    lookup->add_option("name", p.job.name, "Job name")->required();
    lookup->callback([&p] { p.job.action = JobArgs::Action::Lookup; });

    const char* const jobHelp = "The job's id, or its name";
    auto* progress = job.add_subcommand("progress", "Print a job's progress, or set it when PERCENT is given");
    progress->add_option("job", p.job.job, jobHelp)->required();
    progress->add_option("percent", p.job.percent, "New progress, 0 to 100");
    progress->callback([&p] { p.job.action = JobArgs::Action::Progress; });

    auto* cancel = job.add_subcommand("cancel", "Cancel a job");
    cancel->add_option("job", p.job.job, jobHelp)->required();
    cancel->callback([&p] { p.job.action = JobArgs::Action::Cancel; });

    auto* remove = job.add_subcommand("delete", "Delete a job");
    remove->add_option("job", p.job.job, jobHelp)->required();
    remove->callback([&p] { p.job.action = JobArgs::Action::Delete; });

    auto* watch = job.add_subcommand(
        "watch", "Follow a job until it completes (exit 0), is cancelled (4) or deleted (5); --json: one object per event");
    watch->add_option("job", p.job.job, jobHelp)->required();
    watch->callback([&p] { p.job.action = JobArgs::Action::Watch; });

    auto* list = job.add_subcommand("list", "List the daemon's jobs");
    list->callback([&p] { p.job.action = JobArgs::Action::List; });
}

void addTaskCommands(CLI::App& task, Parsed& p) {
    task.require_subcommand(1);
    const auto every = CLI::IsMember({"once", "daily", "weekly", "monthly", "boot"});
    auto* schedule = task.add_subcommand(
        "schedule", "Schedule a program (run without a shell) and print its handle (only the number)");
    schedule->add_option("name", p.task.name, "Task name, unique among tasks")->required();
    schedule
        ->add_option("program", p.task.program,
                     "Program path (relative: to this directory), or a name looked up in PATH")
        ->required();
    schedule->add_option("--args,-a", p.task.arguments, "Arguments as one string, split with shell-like quoting");
    schedule->add_option("--dir,-C", p.task.workDir, "Working directory (default /; relative: to this directory)");
    schedule->add_option("--log,-l", p.task.logFile,
                         "Append the program's output to this file (relative: to this directory)");
    schedule->add_option("--at", p.task.at, "First run, local time: 'YYYY-MM-DD HH:MM:SS' (not for boot)");
    schedule->add_option("--every", p.task.every, "once, daily, weekly, monthly or boot")->check(every);
    schedule->callback([&p] { p.task.action = TaskArgs::Action::Schedule; });

    auto* put =
        task.add_subcommand("blob-put", "Store a file's bytes as a blob task and print its handle (only the number)");
    put->add_option("name", p.task.name, "Task name")->required();
    put->add_option("file", p.task.file, "File with the blob ('-': standard input)")->required();
    put->add_option("--at", p.task.at, "Due time in GMT: 'YYYY-MM-DD HH:MM:SS'")->required();
    put->add_option("--every", p.task.every, "once, daily, weekly, monthly or boot")->check(every);
    put->callback([&p] { p.task.action = TaskArgs::Action::BlobPut; });

    const char* const taskHelp = "The task's handle, or its name";
    auto* get = task.add_subcommand("blob-get", "Write a blob task's bytes to standard output or a file");
    get->add_option("task", p.task.task, taskHelp)->required();
    get->add_option("--output,-o", p.task.file, "Write here instead of standard output");
    get->callback([&p] { p.task.action = TaskArgs::Action::BlobGet; });

    auto* list = task.add_subcommand("list", "List your program tasks (root: everyone's)");
    list->add_flag("--blobs", p.task.blobs, "List blob tasks instead");
    list->callback([&p] { p.task.action = TaskArgs::Action::List; });

    auto* show = task.add_subcommand("show", "A task's state, exit code, last and next run");
    show->add_option("task", p.task.task, taskHelp)->required();
    show->callback([&p] { p.task.action = TaskArgs::Action::Show; });

    auto* cancel = task.add_subcommand("cancel", "Cancel a task (a running program is left to finish)");
    cancel->add_option("task", p.task.task, taskHelp)->required();
    cancel->callback([&p] { p.task.action = TaskArgs::Action::Cancel; });
}

}  // namespace

int main(int argc, char** argv) {
    Parsed p;
    CLI::App app{"ksctl: command-line client of the shared-services daemon ksd", "ksctl"};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("ksctl ") + KS_VERSION);
    app.footer(kExitCodeTable);
    auto* pipeOpt = app.add_option("--pipe", p.pipe, "Daemon pipe: abstract name, or socket path when it has a '/'");
    auto* tcpOpt =
        app.add_option("--tcp-port", p.tcpPort, "Reach the daemon over TCP on 127.0.0.1")->check(CLI::Range(1, 65535));
    pipeOpt->excludes(tcpOpt);
    app.add_flag("--json", p.options.json, "Machine-readable output: one JSON value per line");
    app.add_flag("--verbose,-v", p.options.verbose, "Also say in words on stderr what a command that prints an id did");
    auto* replyTimeout =
        app.add_option("--reply-timeout", p.replyTimeoutMs,
                       "How long every call waits for ksd's answer, in ms (default: 30000, or KSINTF_REPLY_TIMEOUT_MS)")
            ->check(CLI::Range(1, 3600000));

    auto* publish = app.add_subcommand("publish", "Publish an event; prints how many subscribers it was queued for");
    publish->add_option("event", p.publish.event, "Event name")->required();
    publish->add_option("--text,-t", p.publish.text, "Text part of the notification");
    publish->add_option("--data-file,-f", p.publish.dataFile, "Binary payload from this file ('-': standard input)");

    auto* subscribe = app.add_subcommand("subscribe", "Print each notification of these events until interrupted");
    subscribe->add_option("events", p.subscribe.events, "Event names")->required();
    subscribe->add_option("--count,-n", p.subscribe.count, "Exit after this many notifications")
        ->check(CLI::PositiveNumber);

    auto* events = app.add_subcommand(
        "events", "Print the daemon's job, lock and task events until interrupted (default: all three kinds)");
    events->add_flag("--jobs", p.events.jobs, "Job events");
    events->add_flag("--locks", p.events.locks, "Lock events");
    events->add_flag("--tasks", p.events.tasks, "Task events (yours; root: everyone's)");
    events->add_option("--count,-n", p.events.count, "Exit after this many events")->check(CLI::PositiveNumber);

    auto* lock =
        app.add_subcommand("lock", "Run a command while holding a named lock: lock NAME [--timeout MS] -- CMD...");
    lock->add_option("name", p.lock.name, "Resource name")->required();
    lock->add_option("--timeout", p.lock.timeoutMs, "Give up after this many ms (0: try once; default: wait)")
        ->check(kNonNegativeMs);
    lock->add_option("command", p.lock.command, "The command and its arguments (run without a shell)")->required();

    auto* job = app.add_subcommand("job", "Create, inspect, update and remove jobs");
    addJobCommands(*job, p);

    auto* task = app.add_subcommand("task", "Schedule, list, inspect and cancel tasks");
    addTaskCommands(*task, p);

    auto* status = app.add_subcommand("status", "Connections, subscriptions, queue drops, locks held and jobs");
    auto* locks = app.add_subcommand("locks", "List the locks held and their waiters");
    auto* subscriptions = app.add_subcommand("subscriptions", "List subscriptions (your own; root sees all): event, address, id, owner");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "ksctl: %s (see ksctl --help)\n", e.what());
        return kExitUsage;
    }

    // The library waits without limit unless told otherwise; a command line never should. The
    // library reads its deadline from the environment at each call.
    if (!*replyTimeout) {
        const char* inherited = std::getenv("KSINTF_REPLY_TIMEOUT_MS");
        char* end = nullptr;
        const long ms = inherited ? std::strtol(inherited, &end, 10) : 0;
        if (inherited && *end == '\0' && ms > 0 && ms <= 3600000) p.replyTimeoutMs = static_cast<int>(ms);
    }
    ::setenv("KSINTF_REPLY_TIMEOUT_MS", std::to_string(p.replyTimeoutMs).c_str(), 1);
    p.options.replyTimeout = std::chrono::milliseconds(p.replyTimeoutMs);
    selectDaemon(p.pipe, p.tcpPort);
    // ksd pushes to a TCP client only at a loopback TCP callback address.
    if (daemonAddress().tcp) ::setenv("OCNET_CALLBACK_TYPE", "socket", 1);

    if (*publish) return runPublish(p.options, p.publish);
    if (*subscribe) return runSubscribe(p.options, p.subscribe);
    if (*events) return runEvents(p.options, p.events);
    if (*lock) return runLock(p.options, p.lock);
    if (*job) return runJob(p.options, p.job);
    if (*task) return runTask(p.options, p.task);
    if (*status) return runStatus(p.options);
    if (*locks) return runLocks(p.options);
    if (*subscriptions) return runSubscriptions(p.options);
    return kExitUsage;
}
