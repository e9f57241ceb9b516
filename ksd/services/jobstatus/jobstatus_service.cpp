#include "services/jobstatus/jobstatus_service.h"

#include <cerrno>

#include "OrvoLogging.h"
#include "services/list_page.h"
#include "store/schema.h"
#include "store/store_error.h"

namespace ksd {

namespace {

namespace Codec = OrvoNet::Codec;

constexpr std::chrono::milliseconds kApplyDelay{50};
constexpr const char* kProgressLogName = "job-progress.log";
using jobs::JobEvent;
using jobs::Outcome;

// MAP_JOB: id, count, then `count` app ids; the count is bounded before any
// id is awaited, so a client cannot make the daemon collect an endless list.
FieldPlan mapJobPlan(std::int64_t maxAppIds) {
    return [maxAppIds](const std::vector<Value>& f) -> FieldSpec {
        if (f.size() < 2) return FieldSpec{FieldKind::Long, 0, 0};
        const std::int64_t count = f[1].integer;
        if (count > maxAppIds) return FieldSpec{FieldKind::Invalid, 0, EMSGSIZE};
        const std::uint64_t wanted = count > 0 ? static_cast<std::uint64_t>(count) : 0;
        if (f.size() - 2 < wanted) return FieldSpec{FieldKind::Long, 0, 0};
        return FieldSpec{FieldKind::Done, 0, 0};
    };
}

}  // namespace

JobStatusService::JobStatusService(asio::io_context& io, EventPublisher& events, const std::filesystem::path& stateDir,
                                   jobs::JobLimits limits)
    : io_(io),
      events_(events),
      db_(store::openStateDatabase(stateDir)),
      store_(std::make_unique<jobs::JobStore>(*db_, stateDir / kProgressLogName)),
      book_(std::make_unique<jobs::JobBook>(*store_, limits)),
      lister_(std::make_unique<jobs::JobLister>(io, stateDir, limits.listPageBytes)),
      applyTimer_(io),
      stringPlan_(fixedPlan({FieldKind::String})),
      twoStringPlan_(fixedPlan({FieldKind::String, FieldKind::String})),
      idPlan_(fixedPlan({FieldKind::Long})),
      twoLongPlan_(fixedPlan({FieldKind::Long, FieldKind::Long})),
      emptyPlan_(fixedPlan({})),
      mapPlan_(mapJobPlan(limits.maxAppIds)) {
    ORVO_LOG(5, "ksd: JobStatus: " << static_cast<unsigned long>(book_->size()) << " stored jobs loaded");
}

JobStatusService::~JobStatusService() { applyLogged(); }

void JobStatusService::applyLogged() const {
    try {
        store_->applyLogged();
    } catch (const store::StoreError& e) {
        // Nothing is lost: the changes stay in the log for the next try or start.
        ORVO_LOG(1, "ksd: JobStatus: progress log not applied: " << e.what());
    }
}

void JobStatusService::applySoon() {
    if (applyArmed_ || !store_->hasLogged()) return;
    applyArmed_ = true;
    applyTimer_.expires_after(kApplyDelay);
    applyTimer_.async_wait([this](const std::error_code& ec) {
        if (ec) return;
        applyArmed_ = false;
        applyLogged();
        applySoon();  // again if it failed
    });
}

const FieldPlan* JobStatusService::plan(std::string_view request) const {
    if (request == "TRVX_JS_CREATE") return &twoStringPlan_;
    if (request == "TRVX_JS_LOOKUP") return &stringPlan_;
    if (request == "TRVX_JS_MAP_JOB") return &mapPlan_;
    if (request == "TRVX_JS_DELETE" || request == "TRVX_JS_GET_PROGRESS" || request == "TRVX_JS_CANCEL")
        return &idPlan_;
    if (request == "TRVX_JS_SET_PROGRESS") return &twoLongPlan_;
    if (request == "TRVX_JS_GET_ALL_PROGRESS") return &emptyPlan_;
    return nullptr;
}

void JobStatusService::handle(Request& request) {
    const std::string& r = request.name;
    auto& f = request.fields;
    Responder& responder = *request.responder;

    // Reading needs no identity.
    if (cluster_ && r == "TRVX_JS_LOOKUP") return cluster_->lookup(f[0].text, answerLaterTo(request));
    if (cluster_ && r == "TRVX_JS_GET_PROGRESS") return cluster_->progress(f[0].integer, answerLaterTo(request));
    if (cluster_ && r == "TRVX_JS_GET_ALL_PROGRESS") return cluster_->count(answerLaterTo(request));
    if (r == "TRVX_JS_LOOKUP") return responder.reply(longReply(book_->lookup(f[0].text)));
    if (r == "TRVX_JS_GET_PROGRESS") return responder.reply(longReply(book_->progress(f[0].integer)));
    if (r == "TRVX_JS_GET_ALL_PROGRESS") return responder.reply(longReply(static_cast<std::int64_t>(book_->size())));

    // Changing does: ownership rests on the peer's user id.
    if (!isIdentified(request.peer))
        return responder.fail(EACCES, "a TCP client whose owner is unknown may read jobs but not change them");
    const uid_t uid = request.peer.uid;
    if (r == "TRVX_JS_CREATE") {
        const std::string& description = f[0].text;
        const std::string& jobName = f[1].text;
        const auto& limits = book_->limits();
        if (jobName.size() > limits.maxNameLength)
            return responder.fail(EMSGSIZE, "job name longer than " + std::to_string(limits.maxNameLength) + " bytes");
        if (description.size() > limits.maxDescriptionLength)
            return responder.fail(
                EMSGSIZE, "job description longer than " + std::to_string(limits.maxDescriptionLength) + " bytes");
        if (cluster_) {
            if (jobName.empty() || jobName.find('\0') != std::string::npos) return responder.reply(longReply(-EINVAL));
            return cluster_->create(description, jobName, uid, answerLaterTo(request));
        }
        return answer(responder, book_->create(description, jobName, uid));
    }
    if (r == "TRVX_JS_MAP_JOB") {
        std::vector<std::int64_t> appIds;
        appIds.reserve(f.size() - 2);
        for (std::size_t i = 2; i < f.size(); ++i) appIds.push_back(f[i].integer);
        if (cluster_) return cluster_->mapAppIds(f[0].integer, std::move(appIds), uid, answerLaterTo(request));
        return answer(responder, book_->mapAppIds(f[0].integer, std::move(appIds), uid));
    }
    if (cluster_) {
        const std::int64_t id = f[0].integer;
        if (r == "TRVX_JS_DELETE") return cluster_->remove(id, uid, answerLaterTo(request));
        if (r == "TRVX_JS_CANCEL") return cluster_->cancel(id, uid, answerLaterTo(request));
        if (r == "TRVX_JS_SET_PROGRESS") {
            if (f[1].integer < 0 || f[1].integer > 100) return responder.reply(longReply(-EINVAL));
            return cluster_->setProgress(id, f[1].integer, uid, answerLaterTo(request));
        }
    }
    if (r == "TRVX_JS_DELETE") return answer(responder, book_->remove(f[0].integer, uid));
    if (r == "TRVX_JS_SET_PROGRESS") {
        answer(responder, book_->setProgress(f[0].integer, f[1].integer, uid));
        return applySoon();
    }
    if (r == "TRVX_JS_CANCEL") return answer(responder, book_->cancel(f[0].integer, uid));
    responder.fail(ENOSYS, "JobStatus does not serve " + r);
}

void JobStatusService::answer(Responder& responder, const Outcome& outcome) {
    // The caller hears of its change before subscribers do; both follow the store.
    responder.reply(longReply(outcome.reply));
    publish(outcome);
}

jobs::ClusterJobs::Done JobStatusService::answerLaterTo(const Request& request) {
    return [this, responder = request.responder](Outcome outcome) { answer(*responder, outcome); };
}

void JobStatusService::useCluster(ClusterLink& link) {
    cluster_ = std::make_unique<jobs::ClusterJobs>(io_, link, book_->limits());
}

void JobStatusService::publish(const Outcome& outcome) {
    if (outcome.events.empty()) return;
    // Every client may list every job: every subscriber hears of all of them.
    for (JobEvent e : outcome.events)
        events_.publishEvent(EventFamily::Job, outcome.jobName, static_cast<std::int32_t>(e),
                             EventAudience::everyone());
}

// In a cluster, this node's database holds no job it serves: the count is the cluster's.
std::vector<StatusItem> JobStatusService::status() const {
    if (cluster_) return {};
    return {{"jobs", static_cast<std::int64_t>(book_->size())}};
}

bool JobStatusService::statusLater(std::function<void(std::vector<StatusItem>)> done) {
    if (!cluster_) return false;
    cluster_->count([done = std::move(done)](Outcome outcome) { done({{"cluster_jobs", outcome.reply}}); });
    return true;
}

std::string JobStatusService::query(std::string_view what) const {
    const auto after = pageAfter(what, "jobs");
    if (!after) return std::string();
    applyLogged();  // the page shows every change already answered
    return lister_->page(*after);
}

bool JobStatusService::answerLater(std::string_view what, const PeerInfo& asker,
                                   const std::shared_ptr<Responder>& responder) {
    (void)asker;  // every user may read every job
    const auto after = pageAfter(what, "jobs");
    if (!after) return false;
    if (cluster_) {
        cluster_->page(*after, [responder](std::string json) {
            if (json.empty()) return responder->fail(EAGAIN, "the cluster's job store cannot be reached");
            responder->reply(stringReply(json));
        });
        return true;
    }
    applyLogged();  // the page shows every change already answered
    lister_->answer(*after, responder);
    return true;
}

}  // namespace ksd
