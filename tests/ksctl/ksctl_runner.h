#ifndef KSCTL_TEST_RUNNER_H
#define KSCTL_TEST_RUNNER_H

// Runs the built ksctl as a user would: its own process, stdout and stderr captured, exit code
// collected; and a real ksd for each test, on its own pipe and state directory, to point it at.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "json.h"
#include "ksd_process.h"
#include "wait_until.h"

namespace kstest {

struct RunResult {
    int exitCode = -1;  // 128 + signal when killed by a signal
    std::string out;
    std::string err;
};

// ksctl running in the background: a test can keep `subscribe` running while it acts.
class KsctlRun : public ChildProcess {
public:
    explicit KsctlRun(const std::vector<std::string>& args) : ChildProcess(KSCTL_BINARY, args, {}, true) {}
    // Reads both streams to their end and reaps the process.
    RunResult result() {
        const int code = finish();
        return {code, out(), err()};
    }
};

inline RunResult runKsctl(const std::vector<std::string>& args) { return KsctlRun(args).result(); }

// The lines of `text` (without their newlines).
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// A member of the JSON object `json` (or of its item `index` when it is an
// array) as text: strings bare, other values as JSON; "<missing>" when absent.
inline std::string member(const std::string& json, const char* key, std::size_t index = 0) {
    const auto v = ksctl::parseJson(json);
    if (!v) return "<not json: " + json + ">";
    const ksctl::JsonValue* item =
        v->kind == ksctl::JsonValue::Kind::Array ? (index < v->items.size() ? &v->items[index] : nullptr) : &*v;
    const ksctl::JsonValue* m = item ? item->find(key) : nullptr;
    return !m ? "<missing>" : m->kind == ksctl::JsonValue::Kind::String ? m->text : ksctl::toJson(*m);
}

class KsctlTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ksd_.start()) << ksd_.log(); }
    std::vector<std::string> cmd(std::vector<std::string> args, bool json = false) const {
        args.insert(args.begin(), {"--pipe", ksd_.pipeName()});
        if (json) args.insert(args.begin() + 2, "--json");
        return args;
    }
    RunResult run(std::vector<std::string> args, bool json = false) const {
        return runKsctl(cmd(std::move(args), json));
    }
    // True once ksd lists a subscription whose event holds `event`.
    bool subscribed(const std::string& event) const {
        return waitUntil([&] { return operatorQuery(ksd_.connType(), "subscriptions").find(event) != std::string::npos; });
    }
    KsdProcess ksd_;
};

}  // namespace kstest

#endif
