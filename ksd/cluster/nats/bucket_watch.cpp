#include "cluster/nats/bucket_watch.h"

#include <algorithm>
#include <asio/post.hpp>
#include <chrono>

#include "OrvoLogging.h"

namespace ksd::cluster {

namespace {

// How long one wait for an entry lasts: the bound on noticing a stop or a reconnection.
constexpr std::int64_t kWaitMs = 200;

std::uint64_t reconnects(natsConnection* nc) {
    natsStatistics* stats = nullptr;
    std::uint64_t n = 0;
    if (natsStatistics_Create(&stats) != NATS_OK) return 0;
    if (natsConnection_GetStats(nc, stats) == NATS_OK)
        natsStatistics_GetCounts(stats, nullptr, nullptr, nullptr, nullptr, &n);
    natsStatistics_Destroy(stats);
    return n;
}

}  // namespace

BucketWatch::BucketWatch(asio::io_context& io, natsConnection* nc, std::string name, std::chrono::milliseconds silence,
                         std::function<void(ClusterEntry&)> onEntry)
    : io_(io), nc_(nc), name_(std::move(name)), silence_(silence), onEntry_(std::move(onEntry)), thread_([this] {
          loop();
      }) {}

BucketWatch::~BucketWatch() {
    stopping_ = true;
    thread_.join();
}

void BucketWatch::loop() {
    jsCtx* js = nullptr;
    kvStore* kv = nullptr;
    kvWatcher* watcher = nullptr;
    std::uint64_t madeAt = 0;  // the reconnection count when the watcher was made
    auto lastEntry = std::chrono::steady_clock::now();
    auto silence = silence_;
    const auto mark = [&](ClusterEntry::Kind kind) {
        ClusterEntry entry;
        entry.kind = kind;
        asio::post(io_, [onEntry = onEntry_, entry = std::move(entry)]() mutable { onEntry(entry); });
    };
    const auto drop = [&] {
        if (watcher != nullptr) kvWatcher_Destroy(watcher);
        watcher = nullptr;
    };
    while (!stopping_) {
        if (natsConnection_Status(nc_) != NATS_CONN_STATUS_CONNECTED) {
            drop();
            std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs / 2));
            continue;
        }
        if (watcher != nullptr && reconnects(nc_) != madeAt) drop();  // its consumer may be gone with the server
        if (watcher != nullptr && std::chrono::steady_clock::now() - lastEntry > silence) {
            // Or with a server this connection never used. Made again less and less
            // often while nothing comes: a cluster busy electing is not to be pressed.
            drop();
            silence = std::min(silence * 2, silence_ * 16);
        }
        if (watcher == nullptr) {
            if (js == nullptr && natsConnection_JetStream(&js, nc_, nullptr) != NATS_OK) js = nullptr;
            // The bucket is made by the first write to it.
            if (js != nullptr && kv == nullptr && js_KeyValue(&kv, js, name_.c_str()) != NATS_OK) kv = nullptr;
            madeAt = reconnects(nc_);
            lastEntry = std::chrono::steady_clock::now();
            if (kv == nullptr || kvStore_WatchAll(&watcher, kv, nullptr) != NATS_OK) {
                watcher = nullptr;
                std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs / 2));
                continue;
            }
            mark(ClusterEntry::Kind::ReplayBegins);
        }
        kvEntry* e = nullptr;
        const natsStatus s = kvWatcher_Next(&e, watcher, kWaitMs);
        if (s == NATS_TIMEOUT) continue;
        if (s != NATS_OK) {
            ORVO_LOG(4, "ksd: cluster: watch of " << name_ << " lost (" << natsStatus_GetText(s) << "), made again");
            drop();
            continue;
        }
        lastEntry = std::chrono::steady_clock::now();
        silence = silence_;
        if (e == nullptr) {
            mark(ClusterEntry::Kind::ReplayEnds);  // the keys as they were are all in
            continue;
        }
        ClusterEntry entry;
        entry.key = kvEntry_Key(e);
        entry.value.assign(static_cast<const char*>(kvEntry_Value(e)), static_cast<std::size_t>(kvEntry_ValueLen(e)));
        entry.revision = kvEntry_Revision(e);
        entry.deleted = kvEntry_Operation(e) != kvOp_Put;
        kvEntry_Destroy(e);
        asio::post(io_, [onEntry = onEntry_, entry = std::move(entry)]() mutable { onEntry(entry); });
    }
    drop();
    if (kv != nullptr) kvStore_Destroy(kv);
    if (js != nullptr) jsCtx_Destroy(js);
}

}  // namespace ksd::cluster
