#include "cluster/nats/bucket_worker.h"

#include <algorithm>
#include <asio/post.hpp>
#include <cstdlib>

#include "OrvoLogging.h"

namespace ksd::cluster {

namespace {

bool connected(natsConnection* nc) { return natsConnection_Status(nc) == NATS_CONN_STATUS_CONNECTED; }

// The bucket calls, each one round trip; an answer NATS could not give in
// time, or a connection that is down, is Unreachable.
class NatsBucket final : public ClusterBucket {
public:
    NatsBucket(natsConnection* nc, kvStore* kv) : nc_(nc), kv_(kv) {}

    Result get(const std::string& key, std::string& value, std::uint64_t& revision) override {
        if (!ready()) return Result::Unreachable;
        kvEntry* e = nullptr;
        const natsStatus s = kvStore_Get(&e, kv_, key.c_str());
        if (s == NATS_OK) {
            value.assign(static_cast<const char*>(kvEntry_Value(e)), static_cast<std::size_t>(kvEntry_ValueLen(e)));
            revision = kvEntry_Revision(e);
            kvEntry_Destroy(e);
        }
        return map(s, Result::Unreachable);
    }
    Result create(const std::string& key, std::string_view value, std::uint64_t& revision) override {
        if (!ready()) return Result::Unreachable;
        return map(kvStore_Create(&revision, kv_, key.c_str(), value.data(), static_cast<int>(value.size())),
                   Result::Exists);
    }
    Result update(const std::string& key, std::string_view value, std::uint64_t last,
                  std::uint64_t& revision) override {
        if (!ready()) return Result::Unreachable;
        return map(kvStore_Update(&revision, kv_, key.c_str(), value.data(), static_cast<int>(value.size()), last),
                   Result::Conflict);
    }
    Result erase(const std::string& key) override {
        if (!ready()) return Result::Unreachable;
        return map(kvStore_Delete(kv_, key.c_str()), Result::Unreachable);
    }
    Result keys(std::string_view prefix, std::vector<std::string>& out) override {
        if (!ready()) return Result::Unreachable;
        kvKeysList list{};
        const natsStatus s = kvStore_Keys(&list, kv_, nullptr);
        for (int i = 0; s == NATS_OK && i < list.Count; ++i)
            if (std::string_view(list.Keys[i]).starts_with(prefix)) out.emplace_back(list.Keys[i]);
        kvKeysList_Destroy(&list);
        return s == NATS_NOT_FOUND ? Result::Ok : map(s, Result::Unreachable);  // no keys at all
    }

private:
    bool ready() const { return kv_ != nullptr && connected(nc_); }
    Result map(natsStatus s, Result refused) const {
        if (s == NATS_OK) return Result::Ok;
        if (s == NATS_NOT_FOUND) return Result::NotFound;
        if (!connected(nc_) || s == NATS_TIMEOUT || s == NATS_NO_RESPONDERS || s == NATS_INSUFFICIENT_BUFFER ||
            s == NATS_CONNECTION_CLOSED || s == NATS_CONNECTION_DISCONNECTED)
            return Result::Unreachable;
        return refused;
    }

    natsConnection* nc_;
    kvStore* kv_;
};

}  // namespace

BucketWorker::BucketWorker(asio::io_context& io, natsConnection* nc, std::string prefix,
                           std::chrono::milliseconds timeout)
    : io_(io), nc_(nc), prefix_(std::move(prefix)), timeout_(timeout), thread_([this](Task& task) { handle(task); }) {}

BucketWorker::~BucketWorker() {
    thread_.stop();  // before the stores it uses go
    for (auto& [name, kv] : open_) kvStore_Destroy(kv);
    if (js_ != nullptr) jsCtx_Destroy(js_);
}

void BucketWorker::run(const std::string& bucket, ClusterLink::BucketWork work) {
    thread_.push(Task{bucket, std::move(work)});
}

void BucketWorker::handle(Task& task) {
    NatsBucket bucket(nc_, open(task.bucket));
    auto done = task.work(bucket);
    if (done) asio::post(io_, std::move(done));
}

kvStore* BucketWorker::open(const std::string& bucket) {
    if (auto it = open_.find(bucket); it != open_.end()) return it->second;
    if (!connected(nc_)) return nullptr;
    if (js_ == nullptr) {
        jsOptions o;
        jsOptions_Init(&o);
        o.Wait = timeout_.count();
        if (natsConnection_JetStream(&js_, nc_, &o) != NATS_OK) return nullptr;
    }
    const std::string name = prefix_ + "-" + bucket;
    kvStore* kv = nullptr;
    natsStatus s = js_KeyValue(&kv, js_, name.c_str());
    if (s == NATS_NOT_FOUND) {
        // Replicated on three servers, or on all of a smaller cluster.
        char** servers = nullptr;
        int count = 0;
        if (natsConnection_GetServers(nc_, &servers, &count) == NATS_OK) {
            for (int i = 0; i < count; ++i) std::free(servers[i]);
            std::free(servers);
        }
        kvConfig cfg;
        kvConfig_Init(&cfg);
        cfg.Bucket = name.c_str();
        cfg.History = 1;
        cfg.Replicas = std::max(1, std::min(3, count));
        cfg.StorageType = js_FileStorage;
        s = js_CreateKeyValue(&kv, js_, &cfg);
        if (s == NATS_OK) ORVO_LOG(5, "ksd: cluster: bucket " << name << " made, " << cfg.Replicas << " replicas");
    }
    if (s == NATS_OK && !leaderReads(name)) {
        // Opened again: the store learns at opening how it is to read.
        kvStore_Destroy(kv);
        kv = nullptr;
        s = js_KeyValue(&kv, js_, name.c_str());
    }
    if (s != NATS_OK) {
        ORVO_LOG(4, "ksd: cluster: bucket " << name << " not open: " << natsStatus_GetText(s));
        return nullptr;
    }
    open_.emplace(bucket, kv);
    return kv;
}

// A bucket is made to answer reads from any replica, one that has not yet
// caught up too: a job just written could seem absent, a counter behind.
// Every read goes to the stream's leader instead. True when that held already.
bool BucketWorker::leaderReads(const std::string& name) {
    const std::string stream = "KV_" + name;
    jsStreamInfo* si = nullptr;
    if (js_GetStreamInfo(&si, js_, stream.c_str(), nullptr, nullptr) != NATS_OK) return true;
    const bool already = !si->Config->AllowDirect;
    if (!already) {
        si->Config->AllowDirect = false;
        jsStreamInfo* updated = nullptr;
        if (js_UpdateStream(&updated, js_, si->Config, nullptr, nullptr) == NATS_OK) jsStreamInfo_Destroy(updated);
    }
    jsStreamInfo_Destroy(si);
    return already;
}

}  // namespace ksd::cluster
