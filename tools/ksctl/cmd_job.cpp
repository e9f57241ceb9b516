#include <unistd.h>

#include <cstdio>
#include <string>

#include "OrvoJobStatus.h"
#include "commands.h"
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

std::string jobSubject(int id) { return "job " + std::to_string(id); }

bool allDigits(const std::string& text) {
    return !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
}

int create(const GlobalOptions& options, const JobArgs& args) {
    int id = OrvoJSECreateJob(args.description.c_str(), args.name.c_str());
    if (id < 0) return reportFailure("job " + args.name, Domain::JobName, id);
    printId(options, id, "{\"id\":" + std::to_string(id) + ",\"name\":" + jsonQuote(args.name) + "}",
            "job " + std::to_string(id) + " created: " + oneLine(args.name));
    return kExitOk;
}

int lookup(const GlobalOptions& options, const JobArgs& args) {
    int id = OrvoJSELookupJob(args.name.c_str());
    if (id < 0) return reportFailure("job " + args.name, Domain::JobName, id);
    printId(options, id, "{\"id\":" + std::to_string(id) + ",\"name\":" + jsonQuote(args.name) + "}",
            oneLine(args.name) + ": job " + std::to_string(id));
    return kExitOk;
}

int progress(const GlobalOptions& options, const JobArgs& args) {
    int exitCode = kExitOk;
    const auto job = resolveJob(args.job, exitCode);
    if (!job) return exitCode;
    int percent = 0;
    if (args.percent) {
        int rc = OrvoJSESetJobProgress(job->id, *args.percent);
        if (rc < 0) return reportFailure(jobSubject(job->id), Domain::Job, rc);
        percent = *args.percent;
    } else {
        percent = OrvoJSEGetJobProgress(job->id);
        if (percent < 0) return reportFailure(jobSubject(job->id), Domain::Job, percent);
    }
    printLine(options.json ? "{\"id\":" + std::to_string(job->id) + ",\"progress\":" + std::to_string(percent) + "}"
                           : jobSubject(job->id) + ": " + std::to_string(percent) + "%");
    return kExitOk;
}

int finish(const GlobalOptions& options, const JobArgs& args) {
    int exitCode = kExitOk;
    const auto job = resolveJob(args.job, exitCode);
    if (!job) return exitCode;
    bool cancel = args.action == JobArgs::Action::Cancel;
    int rc = cancel ? OrvoJSECancelJob(job->id) : OrvoJSEDeleteJob(job->id);
    if (rc < 0) return reportFailure(jobSubject(job->id), Domain::Job, rc);
    const char* done = cancel ? "cancelled" : "deleted";
    printLine(options.json ? "{\"id\":" + std::to_string(job->id) + ",\"" + done + "\":true}"
                           : jobSubject(job->id) + " " + done);
    return kExitOk;
}

int list(const GlobalOptions& options) { return printQuery(options, "jobs", JsonValue::Kind::Array, "no jobs"); }

}  // namespace

void printId(const GlobalOptions& options, long long id, const std::string& json, const std::string& sentence) {
    if (options.json) {
        printLine(json);
        return;
    }
    printLine(std::to_string(id));
    std::fflush(stdout);
    if (options.verbose || ::isatty(STDOUT_FILENO)) std::fprintf(stderr, "%s\n", sentence.c_str());
}

std::optional<JobRef> resolveJob(const std::string& text, int& exitCode) {
    if (allDigits(text)) return JobRef{std::stoi(text), {}};
    const int id = OrvoJSELookupJob(text.c_str());
    if (id < 0) {
        exitCode = reportFailure("job " + text, Domain::JobName, id);
        return std::nullopt;
    }
    return JobRef{id, text};
}

int runJob(const GlobalOptions& options, const JobArgs& args) {
    switch (args.action) {
        case JobArgs::Action::Create:
            return create(options, args);
        case JobArgs::Action::Lookup:
            return lookup(options, args);
        case JobArgs::Action::Progress:
            return progress(options, args);
        case JobArgs::Action::Cancel:
        case JobArgs::Action::Delete:
            return finish(options, args);
        case JobArgs::Action::List:
            return list(options);
        case JobArgs::Action::Watch:
            return runJobWatch(options, args);
    }
    return kExitUsage;
}

}  // namespace ksctl
