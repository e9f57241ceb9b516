#include "services/scheduler/arguments.h"

namespace ksd::sched {

std::optional<std::vector<std::string>> splitArguments(std::string_view text) {
    std::vector<std::string> args;
    std::string current;
    bool inWord = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ' ' || c == '\t' || c == '\n') {
            if (inWord) args.push_back(std::move(current)), current.clear(), inWord = false;
            continue;
        }
        inWord = true;
        if (c == '\\') {
            if (++i == text.size()) return std::nullopt;
            current.push_back(text[i]);
        } else if (c == '\'') {
            const std::size_t end = text.find('\'', i + 1);
            if (end == std::string_view::npos) return std::nullopt;
            current.append(text.substr(i + 1, end - i - 1));
            i = end;
        } else if (c == '"') {
            for (++i;; ++i) {
                if (i == text.size()) return std::nullopt;
                if (text[i] == '"') break;
                if (text[i] == '\\' && i + 1 < text.size() &&
                    std::string_view("\"\\$`").find(text[i + 1]) != std::string_view::npos)
                    ++i;
                current.push_back(text[i]);
            }
        } else {
            current.push_back(c);
        }
    }
    if (inWord) args.push_back(std::move(current));
    return args;
}

}  // namespace ksd::sched
