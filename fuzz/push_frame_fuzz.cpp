// libFuzzer target for the library's reader of pushed callback frames: the
// input goes, as the daemon would send it, over a Unix connection to the
// process's callback sink, whose thread splits it into frames and runs the
// registered callback of each frame's id: one of every family (notification,
// job, lock, task). A model of the frame and payload formats, written here
// on its own, says which callbacks must run and with what; the sink and the
// callbacks must do exactly that, and nothing when a frame is malformed.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "JobStatusCallback.h"
#include "KSIntfLibrary.h"
#include "NotificationNetworkCallback.h"
#include "OrvoCodec.h"
#include "OrvoStreamConnection.h"
#include "ResourceArbitrationCallback.h"
#include "TaskSchedulerCallback.h"

namespace {

namespace Codec = OrvoNet::Codec;

[[noreturn]] void fault(const char* what) {
    std::fprintf(stderr, "push_frame_fuzz: %s\n", what);
    std::abort();
}
void check(bool ok, const char* what) {
    if (!ok) fault(what);
}

// What a user function was called with.
enum class Family { notification, job, lock, task };
struct Delivery {
    Family family;
    std::string name;  // event name, job text or resource name
    std::string text;  // a notification's XML text
    std::string data;  // a notification's payload
    std::int64_t code = 0;
    std::int64_t handle = 0;
    bool operator==(const Delivery& o) const {
        return family == o.family && name == o.name && text == o.text && data == o.data && code == o.code &&
               handle == o.handle;
    }
};

std::mutex g_mutex;
std::vector<Delivery> g_seen;  // filled on the sink's thread
const char kResource[] = "fuzz-resource";

void seen(Delivery d) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_seen.push_back(std::move(d));
}

void onNotification(const char* pszEvent, OrvoNNNotification* p) {
    seen({Family::notification, pszEvent, p->m_pszData,
          std::string(static_cast<const char*>(p->m_pData), static_cast<std::size_t>(p->m_nDataLength)), 0, 0});
}
void onJob(const char* pszText, tOrvoJSEEvent event) { seen({Family::job, pszText, {}, {}, event, 0}); }
void onLock(const char* pszResource, int nCode) { seen({Family::lock, pszResource, {}, {}, nCode, 0}); }
void onTask(int hTask, tTaskState state) { seen({Family::task, {}, {}, {}, state, hTask}); }

// The callbacks' ids, in the order the seed corpus uses: 1 notification,
// 2 job, 3 lock, 4 task.
constexpr int kFirstId = 1;

struct Sink {
    std::string address;  // the sink's abstract Unix name
    Sink() {
        KSInterface::KSIntfLibrary& lib = KSInterface::KSIntfLibrary::getInstance();
        auto* nn = new KSInterface::NotificationNetworkCallback("fuzz-event");
        nn->setCallback(onNotification, nullptr);
        auto* job = new KSInterface::JobStatusCallback("fuzz-job");
        job->setCallback(onJob);
        auto* lock = new KSInterface::ResourceArbitrationCallback(kResource);
        lock->setCallback(onLock);
        auto* task = new KSInterface::TaskSchedulerCallback(0);
        task->setCallback(onTask);
        const OrvoNet::OrvoNotificationCallbackSP all[] = {
            OrvoNet::OrvoNotificationCallbackSP(nn), OrvoNet::OrvoNotificationCallbackSP(job),
            OrvoNet::OrvoNotificationCallbackSP(lock), OrvoNet::OrvoNotificationCallbackSP(task)};
        for (int i = 0; i < 4; ++i) {
            check(all[i]->getId() == kFirstId + i, "callback ids are not the ones the corpus uses");
            check(lib.getCallbackContainer().add(all[i]), "callback id taken");
        }
        const std::string sAddress = lib.getCallbackAddress();
        check(sAddress.rfind("pipe:", 0) == 0, "the sink does not listen on a pipe");
        address = sAddress.substr(5);
    }
};

Sink& sink() {
    static Sink s;
    return s;
}

// Sends the bytes as one push connection and waits until the sink has closed
// it, which it does only after dispatching everything it read.
void push(const std::uint8_t* data, std::size_t size) {
    sockaddr_un addr;
    const unsigned nLen = OrvoNet::pipeAddress(sink().address, &addr);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(fd >= 0, "socket failed");
    check(::connect(fd, reinterpret_cast<sockaddr*>(&addr), nLen) == 0, "cannot reach the sink");
    for (std::size_t at = 0; at < size;) {
        const ssize_t n = ::send(fd, data + at, size - at, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // the sink closed on a malformed frame
        at += static_cast<std::size_t>(n);
    }
    ::shutdown(fd, SHUT_WR);
    char buf[256];
    for (;;) {
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        fault("the sink wrote to a push connection");
    }
    ::close(fd);
}

// The payload formats, read with the codec alone.
struct PayloadReader {
    const std::string& p;
    std::size_t at = 0;
    bool next(char tag, Codec::Value& v) {
        std::size_t used = 0;
        int error = 0;
        if (Codec::decode(p.data() + at, p.size() - at, v, used, error) != Codec::Result::good || v.tag != tag)
            return false;
        at += used;
        return true;
    }
};

std::string cText(const std::string& s) { return s.substr(0, s.find('\0')); }

// The delivery one payload makes, or false when the callback must refuse it.
bool expected(int nId, const std::string& payload, Delivery& d) {
    PayloadReader r{payload};
    Codec::Value a, b, c, n;
    switch (nId - kFirstId) {
        case 0: {
            if (!r.next(Codec::kTagString, a) || !r.next(Codec::kTagString, b) || !r.next(Codec::kTagString, c) ||
                !r.next(Codec::kTagLong, n))
                return false;
            if (n.integer < 0 || static_cast<std::uint64_t>(n.integer) > payload.size() - r.at) return false;
            d = {Family::notification,
                 cText(b.text),
                 cText(c.text),
                 payload.substr(r.at, static_cast<std::size_t>(n.integer)),
                 0,
                 0};
            return true;
        }
        case 1:
            if (!r.next(Codec::kTagShort, a) || !r.next(Codec::kTagShort, b) || !r.next(Codec::kTagString, c))
                return false;
            d = {Family::job, cText(c.text), {}, {}, b.integer, 0};
            return true;
        case 2:
            if (!r.next(Codec::kTagShort, a) || !r.next(Codec::kTagShort, b) || !r.next(Codec::kTagString, c))
                return false;
            d = {Family::lock, kResource, {}, {}, b.integer, 0};
            return true;
        default:
            if (!r.next(Codec::kTagShort, a) || !r.next(Codec::kTagShort, b) || !r.next(Codec::kTagLong, c))
                return false;
            d = {Family::task, {}, {}, {}, b.integer, static_cast<std::int32_t>(c.integer)};
            return true;
    }
}

// Frames are (tagged int id, tagged int length, length raw bytes); reading
// stops at the first malformed header or at the end of the bytes.
void model(const std::uint8_t* data, std::size_t size, long& nDispatched, std::vector<Delivery>& deliveries) {
    std::size_t at = 0;
    auto readInt = [&](std::int32_t& v) {
        if (size - at < 5 || data[at] != static_cast<std::uint8_t>(Codec::kTagInt)) return false;
        v = static_cast<std::int32_t>(Codec::loadBE32(reinterpret_cast<const char*>(data) + at + 1));
        at += 5;
        return true;
    };
    for (;;) {
        std::int32_t nId = 0, nLength = 0;
        if (!readInt(nId) || !readInt(nLength)) return;
        if (nLength < 0 || static_cast<std::uint32_t>(nLength) > Codec::kMaxPushPayload) return;
        if (size - at < static_cast<std::size_t>(nLength)) return;
        const std::string payload(reinterpret_cast<const char*>(data) + at, static_cast<std::size_t>(nLength));
        at += static_cast<std::size_t>(nLength);
        if (nId < kFirstId || nId >= kFirstId + 4) continue;  // no callback: dropped, not counted
        ++nDispatched;
        Delivery d{};
        if (expected(nId, payload, d)) deliveries.push_back(d);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sink();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KSInterface::KSIntfLibrary& lib = KSInterface::KSIntfLibrary::getInstance();
    const long nBefore = lib.framesDispatched();
    push(data, size);
    long nExpected = 0;
    std::vector<Delivery> want;
    model(data, size, nExpected, want);
    std::vector<Delivery> got;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        got.swap(g_seen);
    }
    check(lib.framesDispatched() - nBefore == nExpected, "the sink dispatched another number of frames");
    check(got == want, "the callbacks were called with other values");
    return 0;
}
