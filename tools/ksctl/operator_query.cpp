#include "operator_query.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

#include "OrvoCodec.h"
#include "OrvoException.h"
#include "OrvoProtocol.h"
#include "OrvoStreamConnection.h"
#include "failure.h"
#include "output.h"
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

}  // namespace

QueryAnswer queryDaemon(std::string_view what, std::chrono::milliseconds timeout) {
    // The exchange runs on its own thread so that a daemon that never answers
    // cannot hold ksctl past the time-out; the process ends with it either way.
    auto promise = std::make_shared<std::promise<QueryAnswer>>();
    auto future = promise->get_future();
    std::thread([promise, query = std::string(what)] { promise->set_value(ask(query)); }).detach();
    if (future.wait_for(timeout) != std::future_status::ready) return QueryAnswer{};
    return future.get();
}

QueryAnswer queryEveryPage(std::string_view what, const char* key, std::chrono::milliseconds timeout) {
    std::string merged = "[";
    std::int64_t after = 0;
    for (;;) {
        QueryAnswer page = queryDaemon(std::string(what) + ">" + std::to_string(after), timeout);
        if (page.outcome != QueryAnswer::Outcome::Answered) return page;
        const auto value = parseJson(page.text);
        if (!value || value->kind != JsonValue::Kind::Array) return page;  // the caller says it is not a list
        if (value->items.empty()) break;
        const JsonValue* id = value->items.back().find(key);
        const auto last = id ? id->asInt() : std::nullopt;
        if (!last || *last <= after) return QueryAnswer{QueryAnswer::Outcome::Refused, EPROTO, "a page that does not advance"};
        if (merged.size() > 1) merged.push_back(',');
        merged.append(page.text, 1, page.text.size() - 2);
        after = *last;
    }
    merged.push_back(']');
    return QueryAnswer{QueryAnswer::Outcome::Answered, 0, std::move(merged)};
}

int printQuery(const GlobalOptions& options, const char* what, JsonValue::Kind expected, const char* emptyText) {
    const std::string_view list(what);
    const char* key = list == "jobs" ? "id" : list == "locks" ? "handle" : list == "subscriptions" ? "seq" : nullptr;
    const QueryAnswer answer =
        key ? queryEveryPage(what, key, options.replyTimeout) : queryDaemon(what, options.replyTimeout);
    const std::string subject = std::string(what) + " query";
    switch (answer.outcome) {
        case QueryAnswer::Outcome::Answered:
            break;
        case QueryAnswer::Outcome::Refused:
            return reportError(subject + ": ksd says: " + oneLine(answer.text), kExitRefused);
        case QueryAnswer::Outcome::Unreachable:
            return reportError("cannot reach ksd at " + describeDaemon() + ": " + transportWords(-answer.code) +
                                   " (" + std::to_string(-answer.code) + ")",
                               kExitUnreachable);
        case QueryAnswer::Outcome::NoAnswer:
            return reportError(subject + ": no answer from ksd within " +
                                   std::to_string(options.replyTimeout.count()) + " ms",
                               kExitUnreachable);
    }
    auto value = parseJson(answer.text);
    if (!value || value->kind != expected)
        return reportError(subject + ": ksd's answer is not the expected JSON", kExitRefused);
    std::string text;
    if (options.json) {
        text = toJson(*value) + "\n";
    } else if (value->kind == JsonValue::Kind::Object) {
        text = renderFields(*value);
    } else if (value->items.empty()) {
        text = std::string(emptyText) + "\n";
    } else {
        text = renderTable(*value);
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    return kExitOk;
}

}  // namespace ksctl
