#include "services/operator/operator_service.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "OrvoProtocol.h"
#include "json/json_text.h"

namespace ksd {

namespace {
// Query names are short words; a longer one is refused before it is read.
constexpr std::size_t kMaxQueryLength = 64;

void appendItems(std::string& out, const std::vector<StatusItem>& items) {
    for (const StatusItem& item : items) {
        out.push_back(',');
        jsontext::appendString(out, item.name);
        out.push_back(':');
        if (item.text)
            jsontext::appendString(out, *item.text);
        else
            out += std::to_string(item.value);
    }
}
}  // namespace

OperatorService::OperatorService(const Registry& registry, DaemonStatus daemonStatus)
    : registry_(registry),
      daemonStatus_(std::move(daemonStatus)),
      queryPlan_(fixedPlan({FieldKind::String})),
      startTime_(std::time(nullptr)) {}

const FieldPlan* OperatorService::plan(std::string_view request) const {
    return request == kQuery ? &queryPlan_ : nullptr;
}

void OperatorService::handle(Request& request) {
    const std::string& query = request.fields[0].text;
    if (query.size() > kMaxQueryLength) return request.responder->fail(EINVAL, "query name too long");
    for (const auto& service : registry_.services())
        if (service->answerLater(query, request.peer, request.responder)) return;
    if (query == "status") return answerStatus(request);
    std::string json = answer(query, &request.peer);
    if (json.empty()) return request.responder->fail(EINVAL, "unknown query '" + query + "'");
    request.responder->reply(stringReply(json));
}

// The counters at hand now, those of other hosts once they all came.
void OperatorService::answerStatus(Request& request) {
    struct Gathered {
        std::string json;
        std::shared_ptr<Responder> responder;
        std::size_t waiting = 1;
        void done() {
            if (--waiting != 0) return;
            json.push_back('}');
            responder->reply(stringReply(json));
        }
    };
    auto gathered = std::make_shared<Gathered>();
    gathered->json = answer("status", &request.peer);
    gathered->json.pop_back();
    gathered->responder = request.responder;
    for (const auto& service : registry_.services()) {
        ++gathered->waiting;
        if (!service->statusLater([gathered](std::vector<StatusItem> items) {
                appendItems(gathered->json, items);
                gathered->done();
            }))
            --gathered->waiting;
    }
    gathered->done();
}

std::string OperatorService::answer(std::string_view query, const PeerInfo* asker) const {
    const bool askedOverAConnection = asker != nullptr;
    if (query == "status") {
        // Appended piece by piece: GCC 12 misreads `":" + std::to_string(...)`
        // as an overlapping copy at -O3 and -Werror=restrict stops the build.
        std::string out = "{\"version\":";
        jsontext::appendString(out, KSD_VERSION);
        out += ",\"protocol\":";
        out += std::to_string(OrvoNet::Protocol::kProtocolVersion);
        out += ",\"pid\":";
        out += std::to_string(::getpid());
        char started[32] = "";
        std::tm local{};
        if (localtime_r(&startTime_, &local)) std::strftime(started, sizeof started, "%F %T", &local);
        out += ",\"start_time\":";
        jsontext::appendString(out, started);
        out += ",\"uptime_s\":";
        out += std::to_string(std::time(nullptr) - startTime_);
        if (daemonStatus_) {
            std::vector<StatusItem> items = daemonStatus_();
            // The asking client is not one of the connections it asks about.
            for (StatusItem& item : items)
                if (item.name == "connections" && askedOverAConnection && item.value > 0) --item.value;
            appendItems(out, items);
        }
        for (const auto& service : registry_.services()) appendItems(out, service->status());
        out.push_back('}');
        return out;
    }
    for (const auto& service : registry_.services()) {
        std::string json = asker ? service->queryFor(query, *asker) : service->query(query);
        if (!json.empty()) return json;
    }
    return {};
}

}  // namespace ksd
