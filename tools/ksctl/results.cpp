#include "results.h"

#include <cerrno>
#include <cstring>

namespace ksctl {
namespace {

struct Entry {
    Domain domain;
    int code;
    const char* words;
};

// Results the daemon gives in each family (its documented answers); anything else falls
// back to the generic words below.
constexpr Entry kDomainWords[] = {
    {Domain::Job, -1, "not your job"},
    {Domain::Job, -2, "no such job"},
    {Domain::Job, -17, "a live job already has that name"},
    {Domain::Job, -22, "progress must be 0 to 100"},
    {Domain::Job, -125, "the job was cancelled"},
    {Domain::JobName, -2, "no job has that name"},
    {Domain::JobName, -17, "a live job already has that name"},
    {Domain::JobName, -22, "a job name must not be empty"},
    {Domain::JobName, -90, "name or description longer than ksd accepts (names: 1024 bytes)"},
    {Domain::Lock, -1, "held by another user"},
    {Domain::Lock, -2, "no such lock handle"},
    {Domain::Lock, -110, "timed out waiting for the lock"},
    {Domain::Task, -1, "month must be 1 to 12"},
    {Domain::Task, -2, "no such task"},
    {Domain::Task, -3, "the month has no such day"},
    {Domain::Task, -4, "year is in the past"},
    {Domain::Task, -5, "hour must be 0 to 23"},
    {Domain::Task, -6, "minute must be 0 to 59"},
    {Domain::Task, -7, "second must be 0 to 59"},
    {Domain::Task, -8, "date is in the past"},
    {Domain::Task, -17, "a task already has that name"},
    {Domain::Task, -22, "invalid task fields"},
    {Domain::Task, -61, "the task has not run yet"},
    {Domain::TaskName, -1, "not your task"},
    {Domain::TaskName, -2, "no task has that name"},
    {Domain::Notify, -2, "reserved event name"},
};

// Generic meanings: the library's own argument codes and the errno values the daemon
// sends as protocol errors.
constexpr Entry kGenericWords[] = {
    {Domain::Generic, -1, "not permitted"},     {Domain::Generic, -2, "not found"},
    {Domain::Generic, -12, "buffer too small"}, {Domain::Generic, -13, "refused by ksd (permission denied)"},
    {Domain::Generic, -14, "bad argument"},     {Domain::Generic, -17, "already exists"},
    {Domain::Generic, -22, "invalid argument"}, {Domain::Generic, -38, "not supported by this ksd"},
    {Domain::Generic, -61, "no data"},          {Domain::Generic, -71, "protocol error"},
    {Domain::Generic, -90, "too large"},        {Domain::Generic, -110, "timed out"},
};

constexpr int kTransportOnly[] = {ECONNREFUSED, ECONNRESET,  EPIPE,         ENOTCONN, ECONNABORTED,
                                  EHOSTUNREACH, ENETUNREACH, EADDRNOTAVAIL, ENOTSOCK, ENETDOWN};
constexpr int kAmbiguous[] = {ENOENT, EACCES, EPERM, ETIMEDOUT, EINVAL, ENAMETOOLONG, ENOTDIR};

template <std::size_t N>
bool contains(const int (&codes)[N], int errnoValue) {
    for (int c : codes) {
        if (c == errnoValue) return true;
    }
    return false;
}

}  // namespace

const char* const kExitCodeTable =
    "Exit codes:\n"
    "  0   success (job watch: the job completed)\n"
    "  1   ksd refused the request (the message says why)\n"
    "  2   bad command line or unreadable input file\n"
    "  3   lock: the time-out passed before the lock was granted\n"
    "  4   job watch: the job was cancelled\n"
    "  5   job watch: the job was deleted\n"
    "  69  ksd could not be reached\n"
    "  75  sent, outcome unknown: ksd did not answer within --reply-timeout\n";

std::string resultWords(Domain domain, int code) {
    for (const auto& e : kDomainWords) {
        if (e.domain == domain && e.code == code) return e.words;
    }
    for (const auto& e : kGenericWords) {
        if (e.code == code) return e.words;
    }
    if (code < 0) return std::strerror(-code);
    return "unexpected result";
}

std::string transportWords(int code) {
    switch (-code) {
        case ECONNREFUSED:
            return "connection refused";
        case ENOENT:
            return "no such socket";
        case EACCES:
            return "permission denied";
        case ECONNRESET:
            return "connection reset";
        case EPIPE:
            return "connection closed";
        case ETIMEDOUT:
            return "no answer within the reply deadline (--reply-timeout)";
        default:
            return code < 0 ? std::strerror(-code) : "unexpected result";
    }
}

bool isTransportFailure(int code) { return code < 0 && contains(kTransportOnly, -code); }

bool mayBeTransportFailure(int code) { return code < 0 && contains(kAmbiguous, -code); }

}  // namespace ksctl
