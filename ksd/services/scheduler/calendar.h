#ifndef KSD_SERVICES_SCHEDULER_CALENDAR_H
#define KSD_SERVICES_SCHEDULER_CALENDAR_H

// When a task runs: its first date and time of day, repeated daily, weekly or
// monthly in local time (the C library's zone, TZ honoured) or in GMT. A wall
// time that does not exist runs at the first valid moment after it; one that
// happens twice runs at its first instance only.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace ksd::sched {

enum class Frequency : std::int32_t { Daily = 0, Weekly = 1, Monthly = 2, OneTime = 3, BootTime = 4 };
enum class Zone { Local, Gmt };

struct Schedule {
    Frequency frequency = Frequency::OneTime;
    int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0;
};

// True when the fields name a real date and time of day (boot tasks: always).
bool isValidSchedule(const Schedule& s);
std::optional<Frequency> frequencyFrom(std::int64_t value);
const char* frequencyName(Frequency f);

// The instant of a wall date and time in `zone` (gap: the first valid moment after).
std::time_t resolveWallTime(int year, int month, int day, int hour, int minute, int second, Zone zone);

// The first run not before `now` (a one-time task already past runs at `now`);
// none for boot tasks, which run at each daemon start instead.
std::optional<std::time_t> firstRun(const Schedule& s, Zone zone, std::time_t now);
// The earliest run strictly after `after`; none once a one-time or boot task has had its run.
std::optional<std::time_t> nextRunAfter(const Schedule& s, Zone zone, std::time_t after);

// "YYYY-MM-DD HH:MM:SS" in `zone`.
std::string formatTime(std::time_t t, Zone zone);

}  // namespace ksd::sched

#endif
