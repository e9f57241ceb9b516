#include "cluster/nats/bucket_worker.h"

#include <algorithm>
#include <asio/post.hpp>
#include <charconv>
#include <cstdlib>
#include <thread>

#include "OrvoLogging.h"

namespace ksd::cluster {

namespace {

// Keys a worker remembers per bucket; past that it starts over.
constexpr std::size_t kMaxKnownKeys = 4096;

bool connected(natsConnection* nc) { return natsConnection_Status(nc) == NATS_CONN_STATUS_CONNECTED; }

// The bucket calls, each one round trip; an answer NATS could not give in
// time, or a connection that is down, is Unreachable.
class NatsBucket final : public ClusterBucket {
public:
    NatsBucket(natsConnection* nc, jsCtx* js, kvStore* kv, const std::string& name, AckInbox& acks,
               BucketMemory& memory)
        : nc_(nc),
          js_(js),
          kv_(kv),
          stream_("KV_" + name),
          subjects_("$KV." + name + "."),
          acks_(acks),
          memory_(memory) {}

    bool known(const std::string& key, std::string& value, std::uint64_t& revision) const override {
        const auto it = memory_.keys.find(key);
        if (it == memory_.keys.end()) return false;
        value = it->second.value;
        revision = it->second.revision;
        return true;
    }

    Result get(const std::string& key, std::string& value, std::uint64_t& revision) override {
        if (!ready()) return Result::Unreachable;
        kvEntry* e = nullptr;
        const natsStatus s = kvStore_Get(&e, kv_, key.c_str());
        if (s == NATS_OK) {
            value.assign(static_cast<const char*>(kvEntry_Value(e)), static_cast<std::size_t>(kvEntry_ValueLen(e)));
            revision = kvEntry_Revision(e);
            kvEntry_Destroy(e);
            remember(key, value, revision);
        } else {
            memory_.keys.erase(key);
        }
        return map(s, Result::Unreachable);
    }
    // A deleted key is created over its deletion marker, at the marker's revision.
    Result create(const std::string& key, std::string_view value, std::uint64_t& revision) override {
        std::uint64_t last = 0;
        for (int round = 0; round < 2; ++round) {
            const Result r = update(key, value, last, revision);
            if (r != Result::Conflict && r != Result::Exists) return r;
            std::string ignored;
            std::uint64_t there = 0;
            if (revision == 0 || get(key, ignored, there) != Result::NotFound) return Result::Exists;
            last = revision;
        }
        return Result::Exists;
    }
    Result update(const std::string& key, std::string_view value, std::uint64_t last,
                  std::uint64_t& revision) override {
        std::vector<Write> w{{key, std::string(value), last}};
        write(w);
        revision = w[0].revision;
        return w[0].result;
    }
    Result erase(const std::string& key) override {
        if (!ready()) return Result::Unreachable;
        return map(kvStore_Delete(kv_, key.c_str()), Result::Unreachable);
    }
    // A listing is served by whichever replica its consumer sits on, one
    // that may not have every write the leader acknowledged yet: it is made
    // again until it reaches the leader's last revision as of the call.
    Result keys(std::string_view prefix, std::vector<std::string>& out) override {
        std::uint64_t last = 0;
        if (const Result r = lastRevision(last); r != Result::Ok) return r;
        const auto deadline = std::chrono::steady_clock::now() + acks_.timeout;
        for (;;) {
            std::vector<std::string> found;
            std::uint64_t reached = 0;
            if (const Result r = list(prefix, found, reached, deadline); r != Result::Ok) return r;
            if (reached >= last) {
                out.insert(out.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
                return Result::Ok;
            }
            if (std::chrono::steady_clock::now() >= deadline) return Result::Unreachable;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    Result lastRevision(std::uint64_t& revision) override {
        if (!ready()) return Result::Unreachable;
        jsStreamInfo* si = nullptr;
        const natsStatus s = js_GetStreamInfo(&si, js_, stream_.c_str(), nullptr, nullptr);
        if (s != NATS_OK) return map(s, Result::Unreachable);
        revision = si->State.LastSeq;
        jsStreamInfo_Destroy(si);
        return Result::Ok;
    }

    // Each write is a publish on the key's subject that the stream takes only
    // at the expected revision; the stream's acknowledgements come back on
    // this worker's inbox.
    void write(std::vector<Write>& writes) override {
        for (Write& w : writes) w.result = Result::Unreachable;
        if (!ready() || writes.empty()) return;
        const std::uint64_t first = acks_.next;
        acks_.next += writes.size();
        std::size_t waiting = 0;
        for (std::size_t i = 0; i < writes.size(); ++i) {
            const Write& w = writes[i];
            const std::string subject = subjects_ + w.key;
            const std::string reply = acks_.prefix + std::to_string(first + i);
            natsMsg* msg = nullptr;
            if (natsMsg_Create(&msg, subject.c_str(), reply.c_str(), w.value.data(),
                               static_cast<int>(w.value.size())) != NATS_OK)
                continue;
            const std::string last = std::to_string(w.last);
            // The stream checks a key's revision against what it has applied, not
            // against writes still being replicated: two updates racing at one
            // revision could both be taken. Named after that revision, the second
            // is a duplicate the stream drops. (Revisions never repeat, but 0 does
            // once a key is deleted; racing creates are refused without a name.)
            const std::string id = w.key + "@" + last;
            if (natsMsgHeader_Set(msg, "Nats-Expected-Last-Subject-Sequence", last.c_str()) == NATS_OK &&
                (w.last == 0 || natsMsgHeader_Set(msg, "Nats-Msg-Id", id.c_str()) == NATS_OK) &&
                (!w.erase || natsMsgHeader_Set(msg, "KV-Operation", "DEL") == NATS_OK) &&
                natsConnection_PublishMsg(nc_, msg) == NATS_OK)
                ++waiting;
            natsMsg_Destroy(msg);
        }
        const auto deadline = std::chrono::steady_clock::now() + acks_.timeout;
        while (waiting > 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            natsMsg* msg = nullptr;
            if (left.count() <= 0 || natsSubscription_NextMsg(&msg, acks_.sub, left.count()) != NATS_OK) return;
            const std::string_view subject = natsMsg_GetSubject(msg);
            std::uint64_t n = 0;
            const std::string_view token = subject.substr(subject.rfind('.') + 1);
            std::from_chars(token.data(), token.data() + token.size(), n);
            // An answer to an earlier batch that gave up waiting is no answer here.
            if (n >= first && n - first < writes.size()) {
                Write& w = writes[n - first];
                w.result = acknowledged(
                    std::string_view(natsMsg_GetData(msg), static_cast<std::size_t>(natsMsg_GetDataLength(msg))),
                    w.last == 0 ? Result::Exists : Result::Conflict, w.revision);
                if (w.result == Result::Ok && !w.erase)
                    remember(w.key, w.value, w.revision);
                else
                    memory_.keys.erase(w.key);
                --waiting;
            }
            natsMsg_Destroy(msg);
        }
    }

private:
    // The live keys under `prefix` as one replica has them, and the last
    // revision it holds (that of the bucket's last write, deletions included).
    Result list(std::string_view prefix, std::vector<std::string>& out, std::uint64_t& reached,
                std::chrono::steady_clock::time_point deadline) {
        kvWatchOptions o;
        kvWatchOptions_Init(&o);
        o.MetaOnly = true;
        kvWatcher* w = nullptr;
        natsStatus s = kvStore_WatchAll(&w, kv_, &o);
        while (s == NATS_OK) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            kvEntry* e = nullptr;
            s = left.count() > 0 ? kvWatcher_Next(&e, w, left.count()) : NATS_TIMEOUT;
            if (s != NATS_OK || e == nullptr) break;  // null: every key as it was has come
            reached = std::max(reached, kvEntry_Revision(e));
            if (kvEntry_Operation(e) == kvOp_Put && std::string_view(kvEntry_Key(e)).starts_with(prefix))
                out.emplace_back(kvEntry_Key(e));
            kvEntry_Destroy(e);
        }
        if (w != nullptr) kvWatcher_Destroy(w);
        return map(s, Result::Unreachable);
    }
    // {"stream":..,"seq":N}, {"stream":..,"seq":N,"duplicate": true} for a write
    // named like one taken before, or {"error":{..,"err_code":10071,"description":
    // "wrong last sequence: N"}} for a revision that did not match (N: the one
    // there is); no body at all when no server answered.
    static Result acknowledged(std::string_view body, Result refused, std::uint64_t& revision) {
        constexpr std::string_view kSeq = "\"seq\":", kThere = "wrong last sequence: ", kDuplicate = "\"duplicate\":";
        if (const auto at = body.find(kDuplicate); at != std::string_view::npos) {
            std::string_view flag = body.substr(at + kDuplicate.size());
            flag.remove_prefix(std::min(flag.find_first_not_of(' '), flag.size()));
            // Another node's write at the same revision came first.
            if (flag.starts_with("true")) {
                revision = 0;
                return refused;
            }
        }
        if (body.find("\"error\"") != std::string_view::npos) {
            if (body.find("\"err_code\":10071") != std::string_view::npos) {
                if (const auto at = body.find(kThere); at != std::string_view::npos)
                    std::from_chars(body.data() + at + kThere.size(), body.data() + body.size(), revision);
                return refused;
            }
            ORVO_LOG(4, "ksd: cluster: write refused: " << std::string(body));
            return Result::Unreachable;
        }
        const auto at = body.find(kSeq);
        if (at == std::string_view::npos) return Result::Unreachable;
        const char* from = body.data() + at + kSeq.size();
        return std::from_chars(from, body.data() + body.size(), revision).ec == std::errc() ? Result::Ok
                                                                                            : Result::Unreachable;
    }
    bool ready() const { return kv_ != nullptr && connected(nc_); }
    void remember(const std::string& key, const std::string& value, std::uint64_t revision) {
        if (memory_.keys.size() >= kMaxKnownKeys) memory_.keys.clear();
        memory_.keys[key] = {value, revision};
    }
    Result map(natsStatus s, Result refused) const {
        if (s == NATS_OK) return Result::Ok;
        if (s == NATS_NOT_FOUND) return Result::NotFound;
        if (!connected(nc_) || s == NATS_TIMEOUT || s == NATS_NO_RESPONDERS || s == NATS_INSUFFICIENT_BUFFER ||
            s == NATS_CONNECTION_CLOSED || s == NATS_CONNECTION_DISCONNECTED)
            return Result::Unreachable;
        return refused;
    }

    natsConnection* nc_;
    jsCtx* js_;
    kvStore* kv_;
    const std::string stream_;    // "KV_<bucket>"
    const std::string subjects_;  // "$KV.<bucket>."
    AckInbox& acks_;
    BucketMemory& memory_;
};

}  // namespace

BucketWorker::BucketWorker(asio::io_context& io, natsConnection* nc, std::string prefix,
                           std::chrono::milliseconds timeout)
    : io_(io), nc_(nc), prefix_(std::move(prefix)), timeout_(timeout), thread_([this](Task& task) { handle(task); }) {
    acks_.timeout = timeout;
}

BucketWorker::~BucketWorker() {
    thread_.stop();  // before the stores it uses go
    if (acks_.sub != nullptr) natsSubscription_Destroy(acks_.sub);
    for (auto& [name, kv] : open_) kvStore_Destroy(kv);
    if (js_ != nullptr) jsCtx_Destroy(js_);
}

void BucketWorker::run(const std::string& bucket, ClusterLink::BucketWork work) {
    thread_.push(Task{bucket, std::move(work)});
}

void BucketWorker::handle(Task& task) {
    if (acks_.sub == nullptr && connected(nc_)) {
        natsInbox* inbox = nullptr;
        if (natsInbox_Create(&inbox) == NATS_OK) {
            acks_.prefix = std::string(inbox) + ".";
            natsInbox_Destroy(inbox);
            const std::string all = acks_.prefix + "*";
            if (natsConnection_SubscribeSync(&acks_.sub, nc_, all.c_str()) != NATS_OK) acks_.sub = nullptr;
        }
    }
    kvStore* kv = acks_.sub != nullptr ? open(task.bucket) : nullptr;
    NatsBucket bucket(nc_, js_, kv, prefix_ + "-" + task.bucket, acks_, memory_[task.bucket]);
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
