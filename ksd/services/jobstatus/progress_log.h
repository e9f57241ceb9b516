#ifndef KSD_SERVICES_JOBSTATUS_PROGRESS_LOG_H
#define KSD_SERVICES_JOBSTATUS_PROGRESS_LOG_H

// An append-only file of job progress changes not yet applied to the
// database: one write() per change, so a progress reply costs one system call
// instead of a transaction. Like the database's own log it survives the
// daemon being killed; a torn record at the end is ignored when read.

#include <cstdint>
#include <filesystem>
#include <utility>
#include <vector>

namespace ksd::jobs {

class ProgressLog {
public:
    struct Record {
        std::int64_t seq = 0;  // increasing; tells applied records from new ones
        std::int64_t jobId = 0;
        std::int32_t progress = 0;
        std::int32_t state = 0;
    };

    // Opens or creates `file` (mode 0600) and holds it exclusively while
    // open. Throws store::StoreError, also when another process holds it.
    explicit ProgressLog(const std::filesystem::path& file);
    ~ProgressLog();
    ProgressLog(const ProgressLog&) = delete;
    ProgressLog& operator=(const ProgressLog&) = delete;

    // The whole records the file held when opened, in file order, up to the
    // first torn or damaged one; handed over once.
    std::vector<Record> takeRecordsAtOpen() { return std::move(atOpen_); }
    // Writes `r` after the last whole record. Throws store::StoreError; a
    // failed write leaves no part of `r` behind.
    void append(const Record& r);
    // Empties the file once its records are in the database; a failure is
    // harmless (the records are recognised as applied by their seq).
    void clear() noexcept;

private:
    std::vector<Record> readAll() const;

    std::filesystem::path file_;
    int fd_ = -1;
    std::uint64_t size_ = 0;  // bytes of whole records
    std::vector<Record> atOpen_;
};

}  // namespace ksd::jobs

#endif
