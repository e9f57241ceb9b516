#ifndef KSD_SERVICES_SCHEDULER_ARGUMENTS_H
#define KSD_SERVICES_SCHEDULER_ARGUMENTS_H

// Splits a parameter string into arguments as a shell would, with no shell:
// blanks separate, 'single quotes' keep everything, "double quotes" keep all
// but \" \\ \$ \`, and a backslash outside quotes keeps the next character.
// No expansion of any kind. Unbalanced quotes or a trailing backslash: none.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ksd::sched {

std::optional<std::vector<std::string>> splitArguments(std::string_view text);

}  // namespace ksd::sched

#endif
