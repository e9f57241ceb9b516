#ifndef KSD_CLUSTER_BUCKET_CAS_H
#define KSD_CLUSTER_BUCKET_CAS_H

// Read, decide, write back over the key's revision, again while other
// nodes' writes to the key come first: a change to one key that holds when
// nodes race (one write only is ever taken over each revision).

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "cluster/cluster_link.h"

namespace ksd {

// What rewriteKey() did: when Ok, `value` and `revision` are the key's as the
// bucket now has them (no value: absent), whether or not this call wrote.
struct KeyWritten {
    ClusterBucket::Result result = ClusterBucket::Result::Unreachable;
    bool wrote = false;
    std::optional<std::string> value;
    std::uint64_t revision = 0;
};

// `change(value, revision)` decides the key's new value from what it is at
// `revision` (nullopt: left as it is); the write is made over that revision.
// A key that `change` would write while absent is first made as `blank` (a
// first write has no revision to be made over), then read again. Others'
// writes to other keys never make this one try again.
using KeyChange =
    std::function<std::optional<std::string>(const std::optional<std::string>& value, std::uint64_t revision)>;
KeyWritten rewriteKey(ClusterBucket& b, const std::string& key, const std::string& blank, const KeyChange& change);

}  // namespace ksd

#endif
