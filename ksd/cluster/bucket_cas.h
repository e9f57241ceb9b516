#ifndef KSD_CLUSTER_BUCKET_CAS_H
#define KSD_CLUSTER_BUCKET_CAS_H

// Read, decide, write back, again while other nodes' writes come first: a
// change to one key that holds when nodes race. rewriteKey() writes over the
// bucket's last revision (nothing at all written since the read), for a key
// whose every value must be seen in turn; rewriteOwnKey() over the key's own
// revision, which others' writes to other keys do not disturb.

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

// `change(value, revision, position)` decides the key's new value from what
// it is (nullopt: left as it is); the write is taken at `position`, the
// bucket's last revision then, and one write only is ever taken at each.
using KeyChange = std::function<std::optional<std::string>(const std::optional<std::string>& value,
                                                           std::uint64_t revision, std::uint64_t position)>;
KeyWritten rewriteKey(ClusterBucket& b, const std::string& key, const KeyChange& change);

// The same over the key's own revision: `position` is the revision the key
// had when read, and one write only is ever taken over each. A key that
// `change` would write while absent is first made as `blank` (a first write
// has no revision to be made over), then read again. Others' writes to
// other keys never make this one try again.
KeyWritten rewriteOwnKey(ClusterBucket& b, const std::string& key, const std::string& blank, const KeyChange& change);

}  // namespace ksd

#endif
