#include "services/jobstatus/job_lister.h"

#include <asio/post.hpp>
#include <cerrno>

#include "OrvoLogging.h"
#include "json/json_text.h"
#include "services/jobstatus/job.h"
#include "services/jobstatus/job_store.h"
#include "store/schema.h"

namespace ksd::jobs {

JobLister::JobLister(asio::io_context& io, const std::filesystem::path& stateDir, std::size_t pageBytes)
    : io_(io),
      pageBytes_(pageBytes),
      db_(std::make_unique<store::Database>(stateDir / store::kDatabaseFileName, store::Database::ReadOnly{})),
      worker_([this](Pending& next) { build(next); }) {}

void JobLister::answer(std::int64_t after, std::shared_ptr<Responder> responder) {
    worker_.push(Pending{after, std::move(responder)});
}

void JobLister::build(Pending& next) {
    // The responder moves into the handler: it is used, and let go, on the loop only.
    try {
        std::string json = page(next.after);
        asio::post(io_, [responder = std::move(next.responder), json = std::move(json)] {
            responder->reply(stringReply(json));
        });
    } catch (const std::exception& e) {
        ORVO_LOG(1, "ksd: JobStatus: job list page after " << next.after << " not read: " << e.what());
        asio::post(io_, [responder = std::move(next.responder)] { responder->fail(EIO, "internal error"); });
    }
}

std::string JobLister::page(std::int64_t after) {
    std::lock_guard lock(dbMutex_);
    auto& s = db_->cached(
        "SELECT id, name, description, progress, state, owner_uid, app_ids FROM jobs WHERE id > ?1 ORDER BY id");
    s.bind(1, after);
    std::string out = "[";
    // A read transaction lasts until the statement is reset; an open one
    // would keep the writer's log from being checkpointed.
    struct ResetAtExit {
        store::Statement& s;
        ~ResetAtExit() {
            try {
                s.reset();
            } catch (...) {
            }
        }
    } resetAtExit{s};
    // Every page but the last holds at least one job, so that the pages advance.
    while ((out.size() == 1 || out.size() < pageBytes_) && s.step()) {
        if (out.size() > 1) out.push_back(',');
        out += "{\"id\":" + std::to_string(s.columnInt(0)) + ",\"name\":";
        jsontext::appendString(out, s.columnText(1));
        out += ",\"description\":";
        jsontext::appendString(out, s.columnText(2));
        out += ",\"progress\":" + std::to_string(s.columnInt(3)) + ",\"state\":";
        jsontext::appendString(out, stateName(static_cast<JobState>(s.columnInt(4))));
        out += ",\"owner_uid\":" + std::to_string(s.columnInt(5)) + ",\"app_ids\":[";
        const std::vector<std::int64_t> appIds = JobStore::decodeAppIds(s.columnText(6));
        for (std::size_t i = 0; i < appIds.size(); ++i) {
            if (i != 0) out.push_back(',');
            out += std::to_string(appIds[i]);
        }
        out += "]}";
    }
    out.push_back(']');
    return out;
}

}  // namespace ksd::jobs
