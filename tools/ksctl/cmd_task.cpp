#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "OrvoTaskScheduler.h"
#include "commands.h"
#include "daemon_events.h"
#include "failure.h"
#include "json.h"
#include "operator_query.h"
#include "output.h"

namespace ksctl {
namespace {

void printLine(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

std::string taskSubject(int handle) { return "task " + std::to_string(handle); }

// Outside scheduling, -1 is the daemon's "another user's task", not a bad month.
int taskFailure(const std::string& subject, int code) {
    if (code == -1) return reportError(subject + ": not your task (-1)", kExitRefused);
    return reportFailure(subject, Domain::Task, code);
}

tTaskFrequency frequencyOf(const std::string& every) {
    if (every == "daily") return cDaily;
    if (every == "weekly") return cWeekly;
    if (every == "monthly") return cMonthly;
    if (every == "boot") return cBootTime;
    return cOneTime;
}

struct Fields {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

bool parseWhen(const std::string& text, Fields& f) {
    char end = 0;
    return std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d%c", &f.year, &f.month, &f.day, &f.hour, &f.minute, &f.second,
                       &end) == 6;
}

bool readAll(const std::string& path, std::string& out) {
    if (path == "-") {
        std::ostringstream buffer;
        buffer << std::cin.rdbuf();
        out = buffer.str();
        return !std::cin.bad();
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

int scheduled(const GlobalOptions& options, const TaskArgs& args, int handle) {
    printId(options, handle, "{\"handle\":" + std::to_string(handle) + ",\"name\":" + jsonQuote(args.name) + "}",
            taskSubject(handle) + " scheduled: " + oneLine(args.name));
    return kExitOk;
}

// ksd runs the program elsewhere than here: a relative path means this directory.
std::string absoluteFromHere(const std::string& path) {
    if (path.empty() || path.front() == '/') return path;
    std::error_code error;
    const std::filesystem::path whole = std::filesystem::absolute(path, error);
    return error ? path : whole.lexically_normal().string();
}

// All digits: a handle; otherwise a name, looked up. 0 after reporting a failure in `exitCode`.
int resolveTask(const std::string& text, int& exitCode) {
    if (!text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos)
        return std::stoi(text);
    const int handle = OrvoTSScheduledTaskLookup(text.c_str());
    if (handle > 0) return handle;
    exitCode = reportFailure("task " + text, Domain::TaskName, handle);
    return 0;
}

int schedule(const GlobalOptions& options, const TaskArgs& args) {
    Fields f;
    const tTaskFrequency frequency = frequencyOf(args.every);
    if (frequency != cBootTime && !parseWhen(args.at, f))
        return reportError("--at must be 'YYYY-MM-DD HH:MM:SS' (local time)", kExitUsage);
    // A bare name is looked up in PATH by ksd; anything with a slash is a path.
    const std::string program =
        args.program.find('/') == std::string::npos ? args.program : absoluteFromHere(args.program);
    const std::string workDir = absoluteFromHere(args.workDir);
    const std::string logFile = absoluteFromHere(args.logFile);
    const int handle =
        OrvoTSScheduleTask(args.name.c_str(), program.c_str(), workDir.c_str(), args.arguments.c_str(), frequency,
                           f.month, f.day, f.year, f.hour, f.minute, f.second, logFile.c_str());
    if (handle < 0) return reportFailure("task " + args.name, Domain::Task, handle);
    return scheduled(options, args, handle);
}

int blobPut(const GlobalOptions& options, const TaskArgs& args) {
    Fields f;
    if (!parseWhen(args.at, f)) return reportError("--at must be 'YYYY-MM-DD HH:MM:SS' (GMT)", kExitUsage);
    std::string blob;
    if (!readAll(args.file, blob))
        return reportError("cannot read " + args.file + ": " + std::strerror(errno), kExitUsage);
    if (blob.empty()) return reportError("a blob must not be empty", kExitUsage);
    const int handle =
        OrvoTSScheduleBlobTask(args.name.c_str(), static_cast<int>(blob.size()), blob.data(), frequencyOf(args.every),
                               f.month, f.day, f.year, f.hour, f.minute, f.second);
    if (handle < 0) return reportFailure("task " + args.name, Domain::Task, handle);
    return scheduled(options, args, handle);
}

int blobGet(const TaskArgs& args) {
    int exitCode = kExitOk;
    const int handle = resolveTask(args.task, exitCode);
    if (handle == 0) return exitCode;
    std::vector<char> buf(8192);
    int size = static_cast<int>(buf.size());
    int rc = OrvoTSRetrieveBlobTask(handle, &size, buf.data());
    if (rc == -12) {
        buf.resize(static_cast<std::size_t>(size));
        rc = OrvoTSRetrieveBlobTask(handle, &size, buf.data());
    }
    if (rc < 0) return taskFailure(taskSubject(handle), rc);
    if (args.file.empty() || args.file == "-") {
        std::fwrite(buf.data(), 1, static_cast<std::size_t>(size), stdout);
        return kExitOk;
    }
    std::ofstream out(args.file, std::ios::binary);
    out.write(buf.data(), size);
    if (!out) return reportError("cannot write " + args.file + ": " + std::strerror(errno), kExitUsage);
    return kExitOk;
}

// Read in pages, so that any number of tasks of any size can be listed.
int list(const GlobalOptions& options, const TaskArgs& args) {
    return printQuery(options, args.blobs ? "blob-tasks" : "tasks", JsonValue::Kind::Array,
                      args.blobs ? "no blob tasks" : "no program tasks");
}

// The task's entry in the operator's list (name, program, owner, why its last start failed),
// which the library's calls do not give; nothing when it is not listed.
std::optional<JsonValue> listEntry(const GlobalOptions& options, int handle) {
    for (const char* list : {"tasks>", "blob-tasks>"}) {
        const QueryAnswer answer = queryDaemon(list + std::to_string(handle - 1), options.replyTimeout);
        if (answer.outcome != QueryAnswer::Outcome::Answered) return std::nullopt;
        auto page = parseJson(answer.text);
        if (!page || page->kind != JsonValue::Kind::Array || page->items.empty()) continue;
        const JsonValue* listed = page->items.front().find("handle");
        if (listed && listed->asInt() == handle) return std::move(page->items.front());
    }
    return std::nullopt;
}

int show(const GlobalOptions& options, const TaskArgs& args) {
    int rc = kExitOk;
    const int handle = resolveTask(args.task, rc);
    if (handle == 0) return rc;
    const int state = OrvoTSTaskState(handle);
    const int exitCode = OrvoTSExitCode(handle);
    if (state < -1) return taskFailure(taskSubject(handle), state);
    // State -1 is also cExit; the exit code, never -1 for a real run, tells them apart.
    if (state == -1 && exitCode == -1) return taskFailure(taskSubject(handle), -1);
    char last[64] = "";
    int lastSize = sizeof last;
    OrvoTSExecutionInformation(handle, last, &lastSize);
    char next[64] = "";
    int nextSize = sizeof next, frequency = cOneTime;
    if (OrvoTSScheduledTaskGetNextTime(handle, &nextSize, next, &frequency) != 0) next[0] = '\0';
    const char* const kFrequencies[] = {"daily", "weekly", "monthly", "once", "boot"};
    const std::string freq = frequency >= 0 && frequency <= 4 ? kFrequencies[frequency] : "unknown";
    std::string json = "{\"handle\":" + std::to_string(handle);
    const std::optional<JsonValue> entry = listEntry(options, handle);
    if (const JsonValue* name = entry ? entry->find("name") : nullptr) appendJson(json += ",\"name\":", *name);
    json += ",\"state\":" + jsonQuote(taskStateWord(state)) + ",\"frequency\":" + jsonQuote(freq) +
            ",\"next_run\":" + jsonQuote(next) + ",\"last_run\":" + jsonQuote(last) +
            ",\"exit_code\":" + (exitCode == -61 ? std::string("null") : std::to_string(exitCode));
    // The rest as the list has them; an empty last_failure means the last start did not fail.
    for (const char* key : {"last_failure", "program", "arguments", "work_dir", "log_file", "length", "owner_uid"}) {
        if (const JsonValue* value = entry ? entry->find(key) : nullptr)
            appendJson(json += ",\"" + std::string(key) + "\":", *value);
    }
    json += '}';
    if (options.json) {
        printLine(json);
        return kExitOk;
    }
    std::fputs(renderFields(*parseJson(json)).c_str(), stdout);
    return kExitOk;
}

int cancel(const GlobalOptions& options, const TaskArgs& args) {
    int exitCode = kExitOk;
    const int handle = resolveTask(args.task, exitCode);
    if (handle == 0) return exitCode;
    const int rc = OrvoTSCancelTask(handle);
    if (rc < 0) return taskFailure(taskSubject(handle), rc);
    printLine(options.json ? "{\"handle\":" + std::to_string(handle) + ",\"cancelled\":true}"
                           : taskSubject(handle) + " cancelled");
    return kExitOk;
}

}  // namespace

int runTask(const GlobalOptions& options, const TaskArgs& args) {
    switch (args.action) {
        case TaskArgs::Action::Schedule:
            return schedule(options, args);
        case TaskArgs::Action::BlobPut:
            return blobPut(options, args);
        case TaskArgs::Action::BlobGet:
            return blobGet(args);
        case TaskArgs::Action::List:
            return list(options, args);
        case TaskArgs::Action::Show:
            return show(options, args);
        case TaskArgs::Action::Cancel:
            return cancel(options, args);
    }
    return kExitUsage;
}

}  // namespace ksctl
