#include <optional>
#include <string>

#include "OrvoNotificationNetwork.h"
#include "commands.h"
#include "inbox.h"
#include "json.h"
#include "listen_loop.h"
#include "output.h"

namespace ksctl {
namespace {

// Enough to recognise a payload on a terminal; scripts asking --json get more.
constexpr std::size_t kHumanPreview = 64;
constexpr std::size_t kJsonPreview = 4096;

std::string formatNotification(const Notification& n, bool json) {
    PayloadPreview preview = previewPayload(n.payload, json ? kJsonPreview : kHumanPreview);
    std::string line;
    if (json) {
        line = "{\"time\":\"" + timeText(n.received) + "\",\"event\":" + jsonQuote(n.event) +
               ",\"text\":" + jsonQuote(n.text) + ",\"size\":" + std::to_string(n.payload.size()) + ",";
        if (preview.printable) {
            line += "\"payload\":" + jsonQuote(preview.shown);
        } else {
            std::string hex = preview.shown;
            std::erase(hex, ' ');
            line += "\"payload_hex\":" + jsonQuote(hex);
        }
        line += std::string(",\"truncated\":") + (preview.truncated ? "true" : "false") + "}";
        return line;
    }
    line = timeText(n.received) + " " + oneLine(n.event) + ": text \"" + oneLine(n.text) + "\", " +
           std::to_string(n.payload.size()) + " byte" + (n.payload.size() == 1 ? "" : "s");
    if (!n.payload.empty()) {
        line += preview.printable ? ": " + oneLine(preview.shown) : " (hex): " + preview.shown;
        if (preview.truncated) line += " ...";
    }
    return line;
}

}  // namespace

int runSubscribe(const GlobalOptions& options, const SubscribeArgs& args) {
    ListenPlan plan;
    plan.events = args.events;
    plan.subscribe = [](const std::string& event) {
        return OrvoNNRegisterForNotification(event.c_str(), &Inbox::deliver, &Inbox::instance());
    };
    plan.format = [json = options.json](const Notification& n) { return formatNotification(n, json); };
    plan.count = args.count;
    return listenUntilStopped(plan);
}

}  // namespace ksctl
