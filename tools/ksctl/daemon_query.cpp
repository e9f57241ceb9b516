#include "daemon_query.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>

#include "OrvoNotificationNetwork.h"
#include "failure.h"
#include "inbox.h"
#include "output.h"

namespace ksctl {
namespace {

std::string nextToken() {
    static std::atomic<unsigned> counter{0};
    return std::to_string(::getpid()) + "-" + std::to_string(++counter);
}

// Waits until a notification for `event` arrives or the deadline passes.
bool awaitReply(const std::string& event, std::chrono::steady_clock::time_point deadline, std::string& text) {
    Inbox& inbox = Inbox::instance();
    for (;;) {
        for (auto& n : inbox.takeAll()) {
            if (n.event == event) {
                text = std::move(n.text);
                return true;
            }
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{inbox.fd(), POLLIN, 0};
        int rc = ::poll(&p, 1, static_cast<int>(left.count()) + 1);
        if (rc < 0 && errno != EINTR) return false;
    }
}

}  // namespace

QueryAnswer queryDaemon(std::string_view what, std::chrono::milliseconds timeout) {
    QueryAnswer answer;
    const std::string token = nextToken();
    const std::string replyEvent = "KsdReply:" + token + "$";

    int handle = OrvoNNRegisterForNotification(replyEvent.c_str(), &Inbox::deliver, &Inbox::instance());
    if (handle < 0) {
        answer.outcome = QueryAnswer::Outcome::CallFailed;
        answer.code = handle;
        return answer;
    }

    const std::string query(what);
    OrvoNNNotification request{};
    request.m_pszData = query.c_str();
    request.m_pData = const_cast<char*>(token.data());
    request.m_nDataLength = static_cast<long>(token.size());
    int queued = OrvoNNNotify("KsdQuery", &request);
    auto deadline = std::chrono::steady_clock::now() + timeout;

    if (queued < 0) {
        answer.outcome = QueryAnswer::Outcome::CallFailed;
        answer.code = queued;
    } else if (queued == 0) {
        answer.outcome = QueryAnswer::Outcome::NotTaken;
    } else if (awaitReply(replyEvent, deadline, answer.json)) {
        answer.outcome = QueryAnswer::Outcome::Answered;
    } else {
        answer.outcome = QueryAnswer::Outcome::NoAnswer;
    }
    OrvoNNUnregisterForNotification(handle);
    return answer;
}

int reportQueryFailure(std::string_view what, const QueryAnswer& answer, std::chrono::milliseconds timeout) {
    const std::string subject = std::string(what) + " query";
    switch (answer.outcome) {
        case QueryAnswer::Outcome::CallFailed:
            return reportFailure(subject, Domain::Query, answer.code);
        case QueryAnswer::Outcome::NotTaken:
            return reportError(subject + ": ksd does not answer operator queries", kExitRefused);
        case QueryAnswer::Outcome::NoAnswer:
            return reportError(subject + ": no answer from ksd within " + std::to_string(timeout.count()) + " ms",
                               kExitUnreachable);
        case QueryAnswer::Outcome::Answered:
            break;
    }
    return kExitOk;
}

int printQuery(const GlobalOptions& options, const char* what, JsonValue::Kind expected, const char* emptyText) {
    QueryAnswer answer = queryDaemon(what, options.replyTimeout);
    if (answer.outcome != QueryAnswer::Outcome::Answered) return reportQueryFailure(what, answer, options.replyTimeout);
    auto value = parseJson(answer.json);
    // The daemon answers a query it cannot serve with {"error": "..."}.
    const JsonValue* error = value ? value->find("error") : nullptr;
    if (error && error->kind == JsonValue::Kind::String && value->members.size() == 1) {
        return reportError(std::string(what) + " query: ksd says: " + oneLine(error->text), kExitRefused);
    }
    if (!value || value->kind != expected) {
        return reportError(std::string(what) + " query: ksd's answer is not the expected JSON", kExitRefused);
    }
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
