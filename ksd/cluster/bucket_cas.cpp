#include "cluster/bucket_cas.h"

namespace ksd {

namespace {

using Result = ClusterBucket::Result;
// Rounds lost to other writers before a write gives up for now.
constexpr int kMaxRounds = 64;

}  // namespace

KeyWritten rewriteKey(ClusterBucket& b, const std::string& key, const std::string& blank, const KeyChange& change) {
    for (int round = 0; round < kMaxRounds; ++round) {
        KeyWritten k;
        std::string value;
        // First over the key as last known here: right, that saves the read;
        // stale, the write is refused. Only what is read is left unwritten.
        const bool guessed = round == 0 && b.known(key, value, k.revision);
        const Result got = guessed ? Result::Ok : b.get(key, value, k.revision);
        if (got != Result::Ok && got != Result::NotFound) return k;
        if (got == Result::Ok) k.value = std::move(value);
        std::optional<std::string> next = change(k.value, k.revision);
        if (!next && guessed) continue;
        if (!next) {
            k.result = Result::Ok;
            return k;
        }
        if (got == Result::NotFound) {
            std::uint64_t made = 0;
            if (const Result r = b.create(key, blank, made); r != Result::Ok && r != Result::Exists)
                return KeyWritten{};
            continue;
        }
        std::uint64_t written = 0;
        const Result r = b.update(key, *next, k.revision, written);
        if (r == Result::Conflict) continue;
        if (r != Result::Ok) return KeyWritten{};
        k.result = Result::Ok;
        k.wrote = true;
        k.value = std::move(*next);
        k.revision = written;
        return k;
    }
    return KeyWritten{};
}

}  // namespace ksd
