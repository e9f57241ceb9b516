#include "services/scheduler/task_store.h"

namespace ksd::sched {

namespace {

void bindOptional(store::Statement& s, int index, const std::optional<std::int64_t>& v) {
    if (v)
        s.bind(index, *v);
    else
        s.bindNull(index);
}

std::optional<std::int64_t> optionalColumn(const store::Statement& s, int index) {
    if (s.columnIsNull(index)) return std::nullopt;
    return s.columnInt(index);
}

}  // namespace

const char* stateName(TaskState s) {
    switch (s) {
        case TaskState::InProgress:
            return "in-progress";
        case TaskState::Completed:
            return "completed";
        case TaskState::Waiting:
            return "waiting";
        case TaskState::Exit:
            return "exit";
    }
    return "unknown";
}

TaskStore::TaskStore(store::Database& db) : db_(db) {
    // Kept beside the service rather than in the shared migration list: the
    // table is the scheduler's alone, and IF NOT EXISTS makes this idempotent.
    store::Transaction t(db_);
    db_.exec(
        "CREATE TABLE IF NOT EXISTS counters (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"
        "INSERT OR IGNORE INTO counters(name, value) VALUES ('last_task_handle', 0);"
        "CREATE TABLE IF NOT EXISTS scheduler_tasks ("
        "  handle INTEGER PRIMARY KEY, name TEXT NOT NULL, kind INTEGER NOT NULL,"
        "  owner_is_unix INTEGER NOT NULL, owner_uid INTEGER NOT NULL,"
        "  program TEXT NOT NULL, work_dir TEXT NOT NULL, parameters TEXT NOT NULL, log_file TEXT NOT NULL,"
        "  blob BLOB NOT NULL, frequency INTEGER NOT NULL, year INTEGER NOT NULL, month INTEGER NOT NULL,"
        "  day INTEGER NOT NULL, hour INTEGER NOT NULL, minute INTEGER NOT NULL, second INTEGER NOT NULL,"
        "  state INTEGER NOT NULL, exit_code INTEGER, last_run INTEGER, next_due INTEGER,"
        "  cancelled INTEGER NOT NULL DEFAULT 0);");
    auto& has = db_.cached("SELECT COUNT(*) FROM pragma_table_info('scheduler_tasks') WHERE name = 'last_failure'");
    const bool hasFailure = has.step() && has.columnInt(0) != 0;
    has.reset();
    if (!hasFailure) db_.exec("ALTER TABLE scheduler_tasks ADD COLUMN last_failure TEXT NOT NULL DEFAULT ''");
    t.commit();
}

std::vector<Task> TaskStore::loadAll() {
    auto& s = db_.cached(
        "SELECT handle, name, kind, owner_is_unix, owner_uid, program, work_dir, parameters, log_file, length(blob),"
        " frequency, year, month, day, hour, minute, second, state, exit_code, last_run, next_due, cancelled,"
        " last_failure"
        " FROM scheduler_tasks ORDER BY handle");
    std::vector<Task> tasks;
    while (s.step()) {
        Task t;
        t.handle = s.columnInt(0);
        t.name = s.columnText(1);
        t.kind = static_cast<TaskKind>(s.columnInt(2));
        t.ownerKnown = s.columnInt(3) != 0;
        t.owner = static_cast<uid_t>(s.columnInt(4));
        t.program = s.columnText(5);
        t.workDir = s.columnText(6);
        t.parameters = s.columnText(7);
        t.logFile = s.columnText(8);
        t.blobSize = static_cast<std::size_t>(s.columnInt(9));
        t.schedule = Schedule{static_cast<Frequency>(s.columnInt(10)), static_cast<int>(s.columnInt(11)),
                              static_cast<int>(s.columnInt(12)),       static_cast<int>(s.columnInt(13)),
                              static_cast<int>(s.columnInt(14)),       static_cast<int>(s.columnInt(15)),
                              static_cast<int>(s.columnInt(16))};
        t.state = static_cast<TaskState>(s.columnInt(17));
        t.exitCode = optionalColumn(s, 18);
        if (auto v = optionalColumn(s, 19)) t.lastRun = static_cast<std::time_t>(*v);
        if (auto v = optionalColumn(s, 20)) t.nextDue = static_cast<std::time_t>(*v);
        t.cancelled = s.columnInt(21) != 0;
        t.lastFailure = s.columnText(22);
        tasks.push_back(std::move(t));
    }
    s.reset();
    return tasks;
}

void TaskStore::erase(std::int64_t handle) {
    db_.cached("DELETE FROM scheduler_tasks WHERE handle = ?1").bind(1, handle).run();
}

std::int64_t TaskStore::lastHandle() {
    auto& s = db_.cached("SELECT value FROM counters WHERE name = 'last_task_handle'");
    const std::int64_t h = s.step() ? s.columnInt(0) : 0;
    s.reset();
    return h;
}

std::string TaskStore::blob(std::int64_t handle) {
    auto& s = db_.cached("SELECT blob FROM scheduler_tasks WHERE handle = ?1");
    s.bind(1, handle);
    std::string bytes = s.step() ? s.columnText(0) : std::string();
    s.reset();
    return bytes;
}

std::int64_t TaskStore::insert(Task& task, std::string_view blob) {
    store::Transaction t(db_);
    db_.cached("UPDATE counters SET value = value + 1 WHERE name = 'last_task_handle'").run();
    const std::int64_t handle = lastHandle();
    const Schedule& c = task.schedule;
    db_.cached(
           "INSERT INTO scheduler_tasks(handle, name, kind, owner_is_unix, owner_uid, program, work_dir,"
           " parameters, log_file, blob, frequency, year, month, day, hour, minute, second, state)"
           " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17, ?18)")
        .bind(1, handle)
        .bind(2, std::string_view(task.name))
        .bind(3, static_cast<std::int64_t>(task.kind))
        .bind(4, std::int64_t{task.ownerKnown ? 1 : 0})
        .bind(5, static_cast<std::int64_t>(task.owner))
        .bind(6, std::string_view(task.program))
        .bind(7, std::string_view(task.workDir))
        .bind(8, std::string_view(task.parameters))
        .bind(9, std::string_view(task.logFile))
        .bind(10, blob.data() != nullptr ? blob : std::string_view(""))  // a null pointer would bind NULL
        .bind(11, static_cast<std::int64_t>(c.frequency))
        .bind(12, std::int64_t{c.year})
        .bind(13, std::int64_t{c.month})
        .bind(14, std::int64_t{c.day})
        .bind(15, std::int64_t{c.hour})
        .bind(16, std::int64_t{c.minute})
        .bind(17, std::int64_t{c.second})
        .bind(18, static_cast<std::int64_t>(task.state))
        .run();
    t.commit();
    task.handle = handle;
    return handle;
}

void TaskStore::update(const Task& task) {
    auto& s = db_.cached(
        "UPDATE scheduler_tasks SET state = ?2, exit_code = ?3, last_run = ?4, next_due = ?5, cancelled = ?6,"
        " blob = CASE WHEN ?6 THEN x'' ELSE blob END, program = CASE WHEN ?6 THEN '' ELSE program END,"
        " work_dir = CASE WHEN ?6 THEN '' ELSE work_dir END, parameters = CASE WHEN ?6 THEN '' ELSE parameters END,"
        " log_file = CASE WHEN ?6 THEN '' ELSE log_file END, last_failure = ?7 WHERE handle = ?1");
    s.bind(1, task.handle).bind(2, static_cast<std::int64_t>(task.state));
    bindOptional(s, 3, task.exitCode);
    bindOptional(s, 4, task.lastRun ? std::optional<std::int64_t>(*task.lastRun) : std::nullopt);
    bindOptional(s, 5, task.nextDue ? std::optional<std::int64_t>(*task.nextDue) : std::nullopt);
    s.bind(6, std::int64_t{task.cancelled ? 1 : 0}).bind(7, std::string_view(task.lastFailure));
    s.run();
}

}  // namespace ksd::sched
