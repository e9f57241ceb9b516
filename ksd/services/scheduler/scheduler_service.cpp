#include "services/scheduler/scheduler_service.h"

#include <unistd.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "OrvoLogging.h"
#include "json/json_text.h"
#include "services/list_page.h"
#include "services/scheduler/arguments.h"
#include "store/schema.h"

namespace ksd {

namespace {

namespace Codec = OrvoNet::Codec;
using sched::Task;
using sched::TaskKind;
using sched::TaskState;

constexpr std::int64_t kNeverRan = -ENODATA;  // -61
// Wake at least this often, so that a change of the system clock delays a run by no more.
constexpr std::time_t kMaxSleep = 60;
// The longest the loop spends starting due tasks before it serves others.
constexpr auto kSlice = std::chrono::milliseconds(10);

bool fitsInt(std::int64_t v) { return v >= INT_MIN && v <= INT_MAX; }

// A name shows in tab-separated lists one per line: no control characters.
bool isPrintableName(const std::string& s) {
    return !s.empty() &&
           std::none_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::string listField(std::string s) {
    std::replace_if(
        s.begin(), s.end(), [](char c) { return c == '\t' || c == '\n' || c == '\r'; }, ' ');
    return s;
}

// One line of the library's lists: handle, name, state, frequency, next run,
// last run, then exit code, owner, program, parameters, last failed start
// (programs) or length, owner (blobs).
std::string listLine(const Task& t) {
    std::string text = std::to_string(t.handle);
    text += '\t' + t.name + '\t' + sched::stateName(t.state) + '\t' + sched::frequencyName(t.schedule.frequency);
    text += '\t' + (t.nextDue ? sched::formatTime(*t.nextDue, t.zone()) : std::string());
    text += '\t' + (t.lastRun ? sched::formatTime(*t.lastRun, sched::Zone::Local) : std::string());
    if (t.kind == TaskKind::Program) {
        text += '\t' + std::to_string(t.exitCode.value_or(kNeverRan)) + '\t' + std::to_string(t.owner);
        text += '\t' + listField(t.program) + '\t' + listField(t.parameters) + '\t' + listField(t.lastFailure);
    } else {
        text += '\t' + std::to_string(t.blobSize) + '\t' + (t.ownerKnown ? std::to_string(t.owner) : "tcp");
    }
    return text + '\n';
}

// Owner rules: root reads and cancels any task; a user, over Unix or TCP,
// only its own; a TCP client of unknown owner only reads what such a client
// stored before they were refused (changes are refused it in handle()).
bool mayTouch(const PeerInfo& peer, const Task& task) {
    if (isRoot(peer)) return true;
    if (!isIdentified(peer) || !task.ownerKnown) return isIdentified(peer) == task.ownerKnown;
    return peer.uid == task.owner;
}

// Whose quota a task counts against: its owner's uid, -1 for nobody.
std::int64_t ownerKey(const Task& task) { return task.ownerKnown ? static_cast<std::int64_t>(task.owner) : -1; }

// TRVX_TS_SCHEDULE_BLOB: name, length, the raw bytes, then seven ints. The
// length is judged before a byte of the blob is awaited.
FieldPlan blobPlan(std::uint32_t maxBlob) {
    return [maxBlob](const std::vector<Value>& f) -> FieldSpec {
        if (f.empty()) return FieldSpec{FieldKind::String, 0, 0};
        if (f.size() == 1) return FieldSpec{FieldKind::Int, 0, 0};
        if (f.size() == 2) {
            const std::int64_t n = f[1].integer;
            if (n <= 0) return FieldSpec{FieldKind::Invalid, 0, EINVAL};
            if (n > maxBlob) return FieldSpec{FieldKind::Invalid, 0, EMSGSIZE};
            return FieldSpec{FieldKind::Raw, static_cast<std::uint64_t>(n), 0};
        }
        if (f.size() < 10) return FieldSpec{FieldKind::Int, 0, 0};
        return FieldSpec{FieldKind::Done, 0, 0};
    };
}

}  // namespace

SchedulerService::SchedulerService(asio::io_context& io, EventPublisher& events, const std::filesystem::path& stateDir,
                                   SchedulerLimits limits, Clock clock)
    : events_(events),
      clock_(clock ? std::move(clock) : [] { return std::time(nullptr); }),
      limits_(limits),
      db_(store::openStateDatabase(stateDir)),
      store_(std::make_unique<sched::TaskStore>(*db_)),
      timer_(io),
      runner_(io, limits.programLimits, limits.execHelper),
      schedulePlan_(fixedPlan({FieldKind::String, FieldKind::String, FieldKind::String, FieldKind::String,
                               FieldKind::Long, FieldKind::Long, FieldKind::Long, FieldKind::Long, FieldKind::Long,
                               FieldKind::Long, FieldKind::Long, FieldKind::String})),
      blobPlan_(blobPlan(limits.maxBlobBytes)),
      namePlan_(fixedPlan({FieldKind::String})),
      handlePlan_(fixedPlan({FieldKind::Long})),
      infoPlan_(fixedPlan({FieldKind::Long, FieldKind::Long})),
      emptyPlan_(fixedPlan({})) {
    const std::time_t now = clock_();
    std::size_t missed = 0;
    for (Task& t : store_->loadAll()) {
        const std::int64_t h = t.handle;
        if (t.cancelled) {
            const std::int64_t owner = ownerKey(t);
            tasks_.emplace(h, std::move(t));
            keepCancelled(owner, h);
            continue;
        }
        const bool boot = t.schedule.frequency == sched::Frequency::BootTime;
        if (t.state == TaskState::InProgress) {
            // Its run was cut short by the daemon's end; the program is not adopted.
            t.state = t.nextDue || boot ? TaskState::Waiting : TaskState::Completed;
            save(t);
        }
        std::optional<std::time_t> due = t.nextDue;
        t.nextDue.reset();
        if (boot) due = now;
        if (due && *due < now) ++missed;
        byName_.emplace(t.name, h);
        account(t, +1);
        Task& kept = tasks_.emplace(h, std::move(t)).first->second;
        setDue(kept, due);
    }
    ORVO_LOG(5, "ksd: Scheduler: " << static_cast<unsigned long>(byName_.size()) << " stored tasks loaded, "
                                   << static_cast<unsigned long>(missed) << " due or missed run now");
    arm();
}

SchedulerService::~SchedulerService() {
    alive_.reset();
    timer_.cancel();
}

const FieldPlan* SchedulerService::plan(std::string_view request) const {
    if (request == "TRVX_TS_SCHEDULE") return &schedulePlan_;
    if (request == "TRVX_TS_SCHEDULE_BLOB") return &blobPlan_;
    if (request == "TRVX_TS_SCHEDULED_TASK_LOOKUP") return &namePlan_;
    if (request == "TRVX_TS_CANCEL" || request == "TRVX_TS_TASK_STATE" || request == "TRVX_TS_EXIT_CODE" ||
        request == "TRVX_TS_GET_NEXT_TIME" || request == "TRVX_TS_RETRIEVE_BLOB")
        return &handlePlan_;
    if (request == "TRVX_TS_EXECUTION_INFO") return &infoPlan_;
    if (request == "TRVX_TS_LIST_EXEC" || request == "TRVX_TS_LIST_BLOB") return &emptyPlan_;
    return nullptr;
}

Task* SchedulerService::visible(const PeerInfo& peer, std::int64_t handle, std::int64_t& error) {
    auto it = tasks_.find(handle);
    if (it == tasks_.end()) {
        error = -ENOENT;
        return nullptr;
    }
    if (!mayTouch(peer, it->second)) {
        error = -EPERM;
        return nullptr;
    }
    error = 0;
    return &it->second;
}

void SchedulerService::handle(Request& request) {
    const std::string& r = request.name;
    const auto& f = request.fields;
    Responder& responder = *request.responder;
    if (r == "TRVX_TS_SCHEDULE") return schedule(request);
    if ((r == "TRVX_TS_SCHEDULE_BLOB" || r == "TRVX_TS_CANCEL") && !isIdentified(request.peer))
        return responder.fail(EACCES, "a TCP client whose owner is unknown may read tasks but not change them");
    if (r == "TRVX_TS_SCHEDULE_BLOB") return scheduleBlob(request);
    if (r == "TRVX_TS_LIST_EXEC") return list(request, TaskKind::Program);
    if (r == "TRVX_TS_LIST_BLOB") return list(request, TaskKind::Blob);
    if (r == "TRVX_TS_SCHEDULED_TASK_LOOKUP") {
        auto it = byName_.find(f[0].text);
        if (it == byName_.end()) return responder.reply(longReply(-ENOENT));
        return responder.reply(longReply(mayTouch(request.peer, tasks_.at(it->second)) ? it->second : -EPERM));
    }

    std::int64_t error = 0;
    Task* task = visible(request.peer, f[0].integer, error);
    if (r == "TRVX_TS_EXECUTION_INFO") {
        // The status follows only when the text fits the caller's buffer, as the client reads it.
        const std::string text = task && task->lastRun ? sched::formatTime(*task->lastRun, sched::Zone::Local) : "";
        std::string out;
        Codec::putString(out, text);
        if (f[1].integer > static_cast<std::int64_t>(text.size())) Codec::putLong(out, error);
        return responder.reply(std::move(out));
    }
    if (r == "TRVX_TS_TASK_STATE")
        return responder.reply(longReply(task ? static_cast<std::int64_t>(task->state) : error));
    if (r == "TRVX_TS_EXIT_CODE") return responder.reply(longReply(task ? task->exitCode.value_or(kNeverRan) : error));
    if (r == "TRVX_TS_GET_NEXT_TIME") {
        if (!task) return responder.reply(longReply(error));
        std::string out = longReply(0);
        Codec::putString(out, task->nextDue ? sched::formatTime(*task->nextDue, task->zone()) : "");
        Codec::putInt(out, static_cast<std::int32_t>(task->schedule.frequency));
        return responder.reply(std::move(out));
    }
    if (task && task->cancelled) task = nullptr, error = -ENOENT;
    if (r == "TRVX_TS_RETRIEVE_BLOB") {
        if (task && task->kind != TaskKind::Blob) task = nullptr, error = -EINVAL;
        if (!task) return responder.reply(longReply(error));
        // A client with too small a buffer stops reading after the length; the
        // rest is dropped with its connection.
        std::string out = longReply(0);
        const std::string blob = store_->blob(task->handle);
        Codec::putInt(out, static_cast<std::int32_t>(blob.size()));
        out += blob;
        return responder.reply(std::move(out));
    }
    if (r == "TRVX_TS_CANCEL") {
        if (!task) return responder.reply(longReply(error));
        // A running program is left to finish; its end no longer changes the state.
        account(*task, -1);
        task->cancelled = true;
        task->blobSize = 0;
        for (std::string* field : {&task->program, &task->workDir, &task->parameters, &task->logFile})
            std::string().swap(*field);
        byName_.erase(task->name);
        setDue(*task, std::nullopt);
        task->state = TaskState::Exit;
        save(*task);
        responder.reply(longReply(0));
        setState(*task, TaskState::Exit);
        keepCancelled(ownerKey(*task), task->handle);
        return arm();
    }
    responder.fail(ENOSYS, "Scheduler does not serve " + r);
}

void SchedulerService::schedule(Request& request) {
    const auto& f = request.fields;
    Responder& responder = *request.responder;
    if (!request.peer.isUnix) return responder.fail(EACCES, "a TCP client may not schedule programs");
    if (f[0].text.size() > limits_.maxNameLength)
        return responder.fail(EMSGSIZE, "task name longer than " + std::to_string(limits_.maxNameLength) + " bytes");
    Task t;
    t.name = f[0].text;
    t.program = f[1].text;
    t.workDir = f[2].text;
    t.parameters = f[3].text;
    t.logFile = f[11].text;
    t.owner = request.peer.uid;
    const auto frequency = sched::frequencyFrom(f[4].integer);
    bool valid = frequency && isPrintableName(t.name) && !t.program.empty() &&
                 t.program.find('\0') == std::string::npos && sched::splitArguments(t.parameters).has_value();
    for (int i = 5; i <= 10; ++i) valid = valid && (fitsInt(f[i].integer) || frequency == sched::Frequency::BootTime);
    if (valid) {
        auto field = [&](int i) { return fitsInt(f[i].integer) ? static_cast<int>(f[i].integer) : 0; };
        t.schedule = sched::Schedule{*frequency, field(7), field(5), field(6), field(8), field(9), field(10)};
        valid = sched::isValidSchedule(t.schedule);
    }
    if (!valid) return responder.reply(longReply(-EINVAL));
    // Without root the daemon cannot become another user: it runs only its own user's programs.
    if (::geteuid() != 0 && request.peer.uid != ::geteuid()) return responder.reply(longReply(-EPERM));
    if (t.program.size() > limits_.maxPathLength || t.workDir.size() > limits_.maxPathLength ||
        t.logFile.size() > limits_.maxPathLength)
        return responder.reply(longReply(-ENAMETOOLONG));
    if (t.parameters.size() > limits_.maxParametersLength) return responder.reply(longReply(-E2BIG));
    if (byName_.count(t.name) != 0) return responder.reply(longReply(-EEXIST));
    responder.reply(longReply(add(std::move(t))));
    arm();
}

void SchedulerService::scheduleBlob(Request& request) {
    const auto& f = request.fields;
    Responder& responder = *request.responder;
    if (f[0].text.size() > limits_.maxNameLength)
        return responder.fail(EMSGSIZE, "task name longer than " + std::to_string(limits_.maxNameLength) + " bytes");
    Task t;
    t.kind = TaskKind::Blob;
    t.name = f[0].text;
    t.blobSize = f[2].text.size();
    t.owner = request.peer.uid;  // handle() let only identified clients through
    const auto frequency = sched::frequencyFrom(f[3].integer);
    // The client checks none of these fields.
    if (!frequency || !isPrintableName(t.name)) return responder.reply(longReply(-EINVAL));
    auto field = [&](int i) { return static_cast<int>(f[i].integer); };
    t.schedule = sched::Schedule{*frequency, field(6), field(4), field(5), field(7), field(8), field(9)};
    if (!sched::isValidSchedule(t.schedule)) return responder.reply(longReply(-EINVAL));
    if (byName_.count(t.name) != 0) return responder.reply(longReply(-EEXIST));
    responder.reply(longReply(add(std::move(t), f[2].text)));
    arm();
}

void SchedulerService::account(const Task& task, int sign) {
    Usage& u = usage_[ownerKey(task)];
    u.tasks += sign;
    u.bytes += sign * static_cast<std::int64_t>(task.storedBytes());
}

std::int64_t SchedulerService::add(Task task, std::string_view blob) {
    if (task.owner != 0) {
        const Usage& u = usage_[ownerKey(task)];
        if (u.tasks >= limits_.maxTasksPerUser || u.bytes + task.storedBytes() > limits_.maxTaskBytesPerUser) {
            ORVO_LOG(4, "ksd: Scheduler: task quota of uid " << static_cast<unsigned long>(task.owner) << " reached ("
                                                             << static_cast<unsigned long>(u.tasks) << " tasks, "
                                                             << static_cast<unsigned long>(u.bytes)
                                                             << " bytes): " << task.name.c_str() << " refused");
            return -EDQUOT;
        }
    }
    task.state = TaskState::Waiting;
    const std::int64_t h = store_->insert(task, blob);
    account(task, +1);
    const std::optional<std::time_t> due = sched::firstRun(task.schedule, task.zone(), clock_());
    byName_.emplace(task.name, h);
    Task& kept = tasks_.emplace(h, std::move(task)).first->second;
    setDue(kept, due);
    if (due) save(kept);
    setState(kept, TaskState::Waiting);
    return h;
}

void SchedulerService::list(Request& request, TaskKind kind) {
    // The reply is one string: the tasks that fit it (the paged operator list has them all).
    std::string text, line;
    for (const auto& [h, t] : tasks_) {
        if (t.cancelled || t.kind != kind || !mayTouch(request.peer, t)) continue;
        line = listLine(t);
        if (text.size() + line.size() > Codec::kMaxStringLength) break;
        text += line;
    }
    std::string out = longReply(0);
    Codec::putString(out, text);
    request.responder->reply(std::move(out));
}

std::string SchedulerService::queryFor(std::string_view what, const PeerInfo& asker) const {
    const bool blobs = pageAfter(what, "blob-tasks").has_value();
    const auto after = blobs ? pageAfter(what, "blob-tasks") : pageAfter(what, "tasks");
    if (!after) return {};
    const TaskKind kind = blobs ? TaskKind::Blob : TaskKind::Program;
    std::string out = "[";
    // At least one task per page, so that the pages advance.
    for (auto it = tasks_.upper_bound(*after); it != tasks_.end() && (out.size() == 1 || out.size() < kListPageBytes);
         ++it) {
        const Task& t = it->second;
        if (t.cancelled || t.kind != kind || !mayTouch(asker, t)) continue;
        if (out.size() > 1) out.push_back(',');
        // Appended piece by piece: chains of temporaries trip GCC 12's -Wrestrict in Release.
        auto member = [&out](const char* key, const std::string& text) {
            out += ",\"";
            out += key;
            out += "\":";
            jsontext::appendString(out, text);
        };
        auto number = [&out](const char* key, const std::string& digits) {
            out += ",\"";
            out += key;
            out += "\":";
            out += digits;
        };
        out += "{\"handle\":";
        out += std::to_string(t.handle);
        member("name", t.name);
        member("state", sched::stateName(t.state));
        member("frequency", sched::frequencyName(t.schedule.frequency));
        member("next_run", t.nextDue ? sched::formatTime(*t.nextDue, t.zone()) : std::string());
        member("last_run", t.lastRun ? sched::formatTime(*t.lastRun, sched::Zone::Local) : std::string());
        if (blobs) {
            number("length", std::to_string(t.blobSize));
            if (t.ownerKnown)
                number("owner_uid", std::to_string(t.owner));
            else
                member("owner_uid", "tcp");
        } else {
            number("exit_code", std::to_string(t.exitCode.value_or(kNeverRan)));
            number("owner_uid", std::to_string(t.owner));
            member("program", t.program);
            member("arguments", t.parameters);
            member("work_dir", t.workDir);
            member("log_file", t.logFile);
            member("last_failure", t.lastFailure);
        }
        out.push_back('}');
    }
    out.push_back(']');
    return out;
}

void SchedulerService::setDue(Task& task, std::optional<std::time_t> due) {
    if (task.nextDue) due_.erase({*task.nextDue, task.handle});
    task.nextDue = due;
    if (due) due_.emplace(*due, task.handle);
}

void SchedulerService::arm() {
    if (due_.empty()) {
        // Also forgets the expiry, so that the next arm() waits again.
        timer_.expires_at(std::chrono::system_clock::time_point::min());
        return;
    }
    const std::time_t wake = std::min(due_.begin()->first, clock_() + kMaxSleep);
    const auto at = std::chrono::system_clock::from_time_t(wake);
    if (timer_.expiry() == at) return;  // already set for it: scheduling a later task costs no timer change
    timer_.expires_at(at);
    std::weak_ptr<char> alive = alive_;
    timer_.async_wait([this, alive](const std::error_code& ec) {
        if (ec || alive.expired()) return;
        onTimer();
    });
}

void SchedulerService::onTimer() {
    // Many tasks due at once start in short slices, so that other requests
    // are served between them.
    const std::time_t now = clock_();
    const auto sliceEnd = std::chrono::steady_clock::now() + kSlice;
    while (!due_.empty() && due_.begin()->first <= now && std::chrono::steady_clock::now() < sliceEnd) {
        Task& task = tasks_.at(due_.begin()->second);
        setDue(task, std::nullopt);
        run(task, now);
    }
    if (!due_.empty() && due_.begin()->first <= now) {
        std::weak_ptr<char> alive = alive_;
        asio::post(timer_.get_executor(), [this, alive] {
            if (!alive.expired()) onTimer();
        });
        return;
    }
    timer_.expires_at(std::chrono::system_clock::time_point::min());  // forces arm() to set a new wait
    arm();
}

void SchedulerService::run(Task& task, std::time_t now) {
    // Whatever was missed, the next run is the first one after now.
    const std::optional<std::time_t> next = sched::nextRunAfter(task.schedule, task.zone(), now);
    const char* skip = nullptr;
    if (task.running())
        skip = "still running at its next time";
    else if (task.kind == TaskKind::Program && runner_.running() >= limits_.maxPrograms)
        skip = "over the daemon's running programs";
    else if (task.kind == TaskKind::Program && task.owner != 0 && runningBy_[task.owner] >= limits_.maxProgramsPerUser)
        skip = "over its user's running programs";
    if (skip != nullptr) {
        ++skipped_;
        ORVO_LOG(4, "ksd: Scheduler: task " << task.handle << " (" << task.name.c_str() << ", uid "
                                            << static_cast<unsigned long>(task.owner) << ") " << skip
                                            << ": run skipped");
        setDue(task, next);
        // A run that will not come again ends the task as a start that failed.
        if (!next && task.schedule.frequency != sched::Frequency::BootTime && !task.running())
            return failedStart(task, std::string("run skipped: ") + skip);
        save(task);
        return;
    }
    ++runs_;
    task.lastRun = now;
    setDue(task, next);
    if (task.kind == TaskKind::Blob) {
        setState(task, TaskState::InProgress);
        task.exitCode = 0;
        setState(task, TaskState::Completed);
        afterRun(task);
        return;
    }
    sched::RunSpec spec{task.program, sched::splitArguments(task.parameters).value_or(std::vector<std::string>{}),
                        task.workDir, task.logFile, task.owner};
    std::string failure;
    std::weak_ptr<char> alive = alive_;
    const std::int64_t h = task.handle;
    const uid_t owner = task.owner;
    const pid_t pid = runner_.start(
        spec,
        [this, alive, h, owner](const sched::RunResult& result) {
            if (!alive.expired()) programEnded(h, owner, result);
        },
        failure);
    if (pid < 0) return failedStart(task, failure);
    task.pid = pid;
    ++runningBy_[task.owner];
    ORVO_LOG(9, "ksd: Scheduler: task " << h << " started as pid " << static_cast<int>(pid));
    setState(task, TaskState::InProgress);
    save(task);
}

void SchedulerService::programEnded(std::int64_t handle, uid_t owner, const sched::RunResult& result) {
    if (--runningBy_[owner] == 0) runningBy_.erase(owner);
    auto it = tasks_.find(handle);
    if (it == tasks_.end()) return;  // cancelled and forgotten while it ran
    Task& task = it->second;
    task.pid = -1;
    if (!result.started)
        return failedStart(task, result.error != 0 ? result.stage + ": " + std::strerror(result.error) : result.stage);
    task.exitCode = result.exitCode;
    if (task.cancelled) return save(task);
    setState(task, TaskState::Completed);
    afterRun(task);
}

void SchedulerService::failedStart(Task& task, const std::string& reason) {
    ORVO_LOG(4, "ksd: Scheduler: task " << task.handle << " (" << task.name.c_str() << ", uid "
                                        << static_cast<unsigned long>(task.owner) << ") could not start "
                                        << task.program.c_str() << ": " << reason.c_str());
    task.lastFailure = reason;
    if (!task.cancelled) setState(task, TaskState::Exit);
    save(task);
}

void SchedulerService::afterRun(Task& task) {
    // A recurring task (boot tasks: at the next daemon start) waits again.
    if (!task.cancelled && (task.nextDue || task.schedule.frequency == sched::Frequency::BootTime))
        setState(task, TaskState::Waiting);
    save(task);
}

void SchedulerService::setState(Task& task, TaskState state) {
    task.state = state;
    // Only those who may read the task's state hear of it among all tasks.
    events_.publishEvent(EventFamily::Task, std::to_string(task.handle), static_cast<std::int32_t>(state),
                         EventAudience::ownerAndRoot(task.ownerKnown ? task.owner : static_cast<uid_t>(-1)));
}

void SchedulerService::save(const Task& task) { store_->update(task); }

void SchedulerService::keepCancelled(std::int64_t owner, std::int64_t handle) {
    // A cancelled task answers for itself (state exit, exit code, times) only
    // until its owner has cancelled enough later ones: cancelling in a loop
    // must not grow the store.
    std::deque<std::int64_t>& kept = cancelledBy_[owner];
    kept.push_back(handle);
    while (kept.size() > limits_.cancelledKeptPerUser) {
        store_->erase(kept.front());
        tasks_.erase(kept.front());
        kept.pop_front();
    }
}

std::vector<StatusItem> SchedulerService::status() const {
    return {{"tasks", static_cast<std::int64_t>(byName_.size())},
            {"tasks_due", static_cast<std::int64_t>(due_.size())},
            {"tasks_running", static_cast<std::int64_t>(runner_.running())},
            {"task_runs", runs_},
            {"task_runs_skipped", skipped_}};
}

}  // namespace ksd
