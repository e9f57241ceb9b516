#include "server/status_report.h"

#include <unistd.h>

#include "protocol/json_text.h"

namespace ksd {

std::string answerOperatorQuery(std::string_view query, const Registry& registry, std::size_t connections) {
    if (query == "status") {
        // Appended piece by piece: GCC 12 misreads `":" + std::to_string(...)`
        // as an overlapping copy at -O3 and -Werror=restrict stops the build.
        std::string out = "{\"connections\":";
        out += std::to_string(connections);
        out += ",\"pid\":";
        out += std::to_string(::getpid());
        for (const auto& service : registry.services()) {
            for (const StatusItem& item : service->status()) {
                out.push_back(',');
                appendJsonString(out, item.name);
                out.push_back(':');
                out += std::to_string(item.value);
            }
        }
        out.push_back('}');
        return out;
    }
    for (const auto& service : registry.services()) {
        std::string answer = service->query(query);
        if (!answer.empty()) return answer;
    }
    return {};
}

}  // namespace ksd
