#ifndef KSD_SERVICES_JOBSTATUS_JOB_LISTER_H
#define KSD_SERVICES_JOBSTATUS_JOB_LISTER_H

// Pages of the job list ("jobs>ID"), read from the state database on a
// read-only connection of their own and built on a worker thread: the event
// loop never walks the job table, however large. Answers go back through
// the loop, so a Responder is only ever used there.

#include <asio/io_context.hpp>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "protocol/request.h"
#include "store/database.h"
#include "util/work_thread.h"

namespace ksd::jobs {

class JobLister {
public:
    // The database in `stateDir` must exist in WAL mode already. Throws store::StoreError.
    JobLister(asio::io_context& io, const std::filesystem::path& stateDir, std::size_t pageBytes);
    // Stops the worker (the last member); pages not built yet are never answered.
    ~JobLister() = default;
    JobLister(const JobLister&) = delete;
    JobLister& operator=(const JobLister&) = delete;

    // Builds the page after job `after` on the worker and answers it on the loop.
    void answer(std::int64_t after, std::shared_ptr<Responder> responder);
    // The same page, built on the calling thread. Throws store::StoreError.
    std::string page(std::int64_t after);

private:
    struct Pending {
        std::int64_t after;
        std::shared_ptr<Responder> responder;
    };
    void build(Pending& next);

    asio::io_context& io_;
    const std::size_t pageBytes_;
    std::mutex dbMutex_;  // the connection serves the worker and page()
    std::unique_ptr<store::Database> db_;
    WorkThread<Pending> worker_;
};

}  // namespace ksd::jobs

#endif
