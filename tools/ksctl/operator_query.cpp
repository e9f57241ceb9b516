#include "operator_query.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoProtocol.h"
#include "OrvoStreamConnection.h"
#include "failure.h"
#include "output.h"
#include "page_skim.h"
#include "results.h"
#include "target.h"

namespace ksctl {
namespace {

using OrvoSupport::OrvoException;
using OrvoSupport::OrvoString;

constexpr const char* kOperatorService = "KsdOperator";
constexpr const char* kQueryRequest = "KSD_OP_QUERY";

std::unique_ptr<OrvoNet::OrvoStreamConnection> openConnection() {
    const DaemonAddress address = daemonAddress();
    if (address.tcp) return std::make_unique<OrvoNet::OrvoSocketConnection>(address.host, address.port, true, false);
    return std::make_unique<OrvoNet::OrvoPipeConnection>(address.pipe);
}

QueryAnswer ask(const std::string& what) {
    QueryAnswer answer;
    auto connection = openConnection();
    OrvoString error;
    if (int code = connection->establishImpl(error); code != 0) {
        answer.outcome = QueryAnswer::Outcome::Unreachable;
        answer.code = code;
        answer.text = error;
        return answer;
    }
    try {
        connection->transfer(static_cast<short>(OrvoNet::Protocol::kProtocolVersion));
        connection->transfer(static_cast<short>(OrvoNet::Protocol::kMagic));
        connection->transfer(OrvoString(kOperatorService));
        connection->transfer(OrvoString(kQueryRequest));
        connection->transfer(what);
        answer.text = connection->receiveString();
        connection->receiveShort();
        connection->receiveShort();
        answer.outcome = QueryAnswer::Outcome::Answered;
    } catch (OrvoException& e) {
        // An error value carries the daemon's reason; a lost connection only an errno.
        const bool sentByDaemon = e.getCode() == EINVAL || e.getCode() == ENOSYS;
        answer.outcome = sentByDaemon ? QueryAnswer::Outcome::Refused : QueryAnswer::Outcome::Unreachable;
        answer.code = e.getCode();
        answer.text = e.getMessage();
    }
    return answer;
}

// An exchange under way on its own thread, so that a daemon that never
// answers cannot hold ksctl past the time-out; the process ends with it either way.
class PendingQuery {
public:
    explicit PendingQuery(std::string what) {
        auto promise = std::make_shared<std::promise<QueryAnswer>>();
        answer_ = promise->get_future();
        std::thread([promise, query = std::move(what)] { promise->set_value(ask(query)); }).detach();
    }

    QueryAnswer await(std::chrono::milliseconds timeout) {
        if (answer_.wait_for(timeout) != std::future_status::ready) return QueryAnswer{};
        return answer_.get();
    }

private:
    std::future<QueryAnswer> answer_;
};

std::string pageQuery(std::string_view what, std::int64_t after) {
    return std::string(what) + ">" + std::to_string(after);
}

}  // namespace

QueryAnswer queryDaemon(std::string_view what, std::chrono::milliseconds timeout) {
    return PendingQuery(std::string(what)).await(timeout);
}

QueryAnswer queryEveryPage(std::string_view what, const char* key, std::chrono::milliseconds timeout,
                           const PageSink& sink) {
    std::int64_t after = 0;
    std::optional<PendingQuery> next(std::in_place, pageQuery(what, after));
    for (;;) {
        QueryAnswer page = next->await(timeout);
        next.reset();
        if (page.outcome != QueryAnswer::Outcome::Answered) return page;
        // ksd builds the next page while this one is read; the parse below has the last word on its key.
        const auto guess = skimLastKey(page.text, key);
        if (guess && *guess > after) next.emplace(pageQuery(what, *guess));
        auto value = parseJson(page.text);
        if (!value || value->kind != JsonValue::Kind::Array)
            return QueryAnswer{QueryAnswer::Outcome::Malformed, 0, "not a JSON array"};
        if (value->items.empty()) return QueryAnswer{QueryAnswer::Outcome::Answered, 0, {}};
        const JsonValue* id = value->items.back().find(key);
        const auto last = id ? id->asInt() : std::nullopt;
        if (!last || *last <= after)
            return QueryAnswer{QueryAnswer::Outcome::Refused, EPROTO, "a page that does not advance"};
        if (!next || guess != last) next.emplace(pageQuery(what, *last));
        after = *last;
        sink(*value);
    }
}

namespace {

// The words and exit code for a query that got no usable answer.
int reportFailure(const GlobalOptions& options, const std::string& subject, const QueryAnswer& answer) {
    switch (answer.outcome) {
        case QueryAnswer::Outcome::Answered:
        case QueryAnswer::Outcome::Malformed:
            break;
        case QueryAnswer::Outcome::Refused:
            return reportError(subject + ": ksd says: " + oneLine(answer.text), kExitRefused);
        case QueryAnswer::Outcome::Unreachable:
            // A refused listener is named by its uid: the operator sees who holds the name.
            return reportError("cannot reach ksd at " + describeDaemon() + ": " + transportWords(-answer.code) + " (" +
                                   std::to_string(-answer.code) + ")" +
                                   (answer.code == EACCES ? ": " + oneLine(answer.text) : std::string()),
                               kExitUnreachable);
        case QueryAnswer::Outcome::NoAnswer:
            return reportError(
                subject + ": no answer from ksd within " + std::to_string(options.replyTimeout.count()) + " ms",
                kExitOutcomeUnknown);
    }
    return reportError(subject + ": ksd's answer is not the expected JSON", kExitRefused);
}

int printText(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    return kExitOk;
}

int printList(const GlobalOptions& options, const char* what, const char* key, const char* emptyText) {
    // Each page goes straight into the output form, so the whole list is never held as parsed JSON.
    std::string json = "[";
    TableBuilder table;
    bool any = false;
    const QueryAnswer answer = queryEveryPage(what, key, options.replyTimeout, [&](JsonValue& page) {
        any = true;
        for (const JsonValue& item : page.items) {
            if (!options.json) {
                table.add(item);
                continue;
            }
            if (json.size() > 1) json += ',';
            appendJson(json, item);
        }
    });
    if (answer.outcome != QueryAnswer::Outcome::Answered)
        return reportFailure(options, std::string(what) + " query", answer);
    if (options.json) return printText(json += "]\n");
    if (!any) return printText(std::string(emptyText) + "\n");
    return printText(table.render());
}

}  // namespace

int printQuery(const GlobalOptions& options, const char* what, JsonValue::Kind expected, const char* emptyText) {
    const std::string_view list(what);
    const char* key = list == "jobs"                                               ? "id"
                      : list == "locks" || list == "tasks" || list == "blob-tasks" ? "handle"
                      : list == "subscriptions"                                    ? "seq"
                                                                                   : nullptr;
    if (key && expected == JsonValue::Kind::Array) return printList(options, what, key, emptyText);
    QueryAnswer answer = queryDaemon(what, options.replyTimeout);
    const std::string subject = std::string(what) + " query";
    if (answer.outcome != QueryAnswer::Outcome::Answered) return reportFailure(options, subject, answer);
    auto value = parseJson(answer.text);
    if (!value || value->kind != expected) {
        answer.outcome = QueryAnswer::Outcome::Malformed;
        return reportFailure(options, subject, answer);
    }
    if (options.json) return printText(toJson(*value) + "\n");
    if (value->kind == JsonValue::Kind::Object) return printText(renderFields(*value));
    if (value->items.empty()) return printText(std::string(emptyText) + "\n");
    return printText(renderTable(*value));
}

}  // namespace ksctl
