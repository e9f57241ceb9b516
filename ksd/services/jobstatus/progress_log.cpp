#include "services/jobstatus/progress_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "OrvoLogging.h"
#include "store/store_error.h"

namespace ksd::jobs {

namespace {

constexpr std::uint32_t kMagic = 0x4b53504cu;  // "KSPL"
constexpr std::size_t kRecordBytes = 32;

// FNV-1a: enough to tell a record from the remains of a torn write.
std::uint32_t checksum(const unsigned char* p, std::size_t n) {
    std::uint32_t h = 2166136261u;
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

// Host byte order: the file never leaves the machine that wrote it.
void encode(const ProgressLog::Record& r, unsigned char* out) {
    std::memcpy(out, &kMagic, 4);
    std::memcpy(out + 8, &r.seq, 8);
    std::memcpy(out + 16, &r.jobId, 8);
    std::memcpy(out + 24, &r.progress, 4);
    std::memcpy(out + 28, &r.state, 4);
    const std::uint32_t sum = checksum(out + 8, kRecordBytes - 8);
    std::memcpy(out + 4, &sum, 4);
}

bool decode(const unsigned char* in, ProgressLog::Record& r) {
    std::uint32_t magic = 0;
    std::uint32_t sum = 0;
    std::memcpy(&magic, in, 4);
    std::memcpy(&sum, in + 4, 4);
    if (magic != kMagic || sum != checksum(in + 8, kRecordBytes - 8)) return false;
    std::memcpy(&r.seq, in + 8, 8);
    std::memcpy(&r.jobId, in + 16, 8);
    std::memcpy(&r.progress, in + 24, 4);
    std::memcpy(&r.state, in + 28, 4);
    return true;
}

store::StoreError ioError(const std::filesystem::path& file, const char* what, int err) {
    return store::StoreError(std::string(what) + " " + file.string() + ": " + std::strerror(err), 0);
}

}  // namespace

ProgressLog::ProgressLog(const std::filesystem::path& file) : file_(file) {
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) throw ioError(file_, "cannot open", errno);
    // Two daemons appending at their own idea of the end would overwrite
    // each other's answered changes: the second one does not start.
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        ::close(fd_);
        fd_ = -1;
        if (err == EWOULDBLOCK)
            throw store::StoreError(file_.string() + " is in use by another ksd on the same state directory", 0);
        throw ioError(file_, "cannot lock", err);
    }
    atOpen_ = readAll();
    // New records go after the last whole one, over any torn tail.
    size_ = atOpen_.size() * kRecordBytes;
}

ProgressLog::~ProgressLog() {
    if (fd_ >= 0) ::close(fd_);
}

std::vector<ProgressLog::Record> ProgressLog::readAll() const {
    std::vector<Record> records;
    unsigned char buf[kRecordBytes * 256];
    std::size_t held = 0;
    off_t offset = 0;
    for (;;) {
        const ssize_t n = ::pread(fd_, buf + held, sizeof buf - held, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw ioError(file_, "cannot read", errno);
        if (n == 0) break;
        offset += n;
        held += static_cast<std::size_t>(n);
        std::size_t used = 0;
        for (; held - used >= kRecordBytes; used += kRecordBytes) {
            Record r;
            if (!decode(buf + used, r)) {
                ORVO_LOG(4, "ksd: JobStatus: " << file_.string() << ": damaged record after "
                                               << static_cast<unsigned long>(records.size()) << ", rest ignored");
                return records;
            }
            records.push_back(r);
        }
        std::memmove(buf, buf + used, held - used);
        held -= used;
    }
    return records;
}

void ProgressLog::append(const Record& r) {
    unsigned char buf[kRecordBytes];
    encode(r, buf);
    ssize_t n;
    do {
        n = ::pwrite(fd_, buf, sizeof buf, static_cast<off_t>(size_));
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(sizeof buf)) {
        size_ += sizeof buf;
        return;
    }
    const int err = n < 0 ? errno : ENOSPC;
    // A partial record would hide every later one from readAll.
    if (n > 0 && ::ftruncate(fd_, static_cast<off_t>(size_)) != 0)
        ORVO_LOG(1, "ksd: JobStatus: cannot cut a torn record from " << file_.string());
    throw ioError(file_, "cannot write", err);
}

void ProgressLog::clear() noexcept {
    if (::ftruncate(fd_, 0) == 0) {
        size_ = 0;
    } else {
        ORVO_LOG(4, "ksd: JobStatus: cannot empty " << file_.string() << ": " << std::strerror(errno));
    }
}

}  // namespace ksd::jobs
