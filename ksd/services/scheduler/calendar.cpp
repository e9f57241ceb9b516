#include "services/scheduler/calendar.h"

#include <algorithm>

namespace ksd::sched {

namespace {

constexpr std::int64_t kDay = 86400;

bool isLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int monthLength(int y, int m) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

std::tm fields(int y, int mo, int d, int h, int mi, int s) {
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    return tm;
}

// Days since 1970-01-01 of a civil date, and back; timegm is zone-free.
std::int64_t dayNumber(int y, int m, int d) {
    std::tm tm = fields(y, m, d, 0, 0, 0);
    return static_cast<std::int64_t>(timegm(&tm)) / kDay;
}

struct Date {
    int year, month, day;
};

Date civil(std::int64_t dayNo) {
    const std::time_t t = static_cast<std::time_t>(dayNo * kDay);
    std::tm tm{};
    gmtime_r(&t, &tm);
    return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday};
}

std::tm brokenDown(std::time_t t, Zone zone) {
    std::tm tm{};
    if (zone == Zone::Gmt)
        gmtime_r(&t, &tm);
    else
        localtime_r(&t, &tm);
    return tm;
}

// The local wall clock at `t`, counted as seconds as if it were GMT.
std::int64_t wallSeconds(std::time_t t) {
    std::tm tm = brokenDown(t, Zone::Local);
    return static_cast<std::int64_t>(timegm(&tm));
}

std::time_t at(const Schedule& s, Date d, Zone zone) {
    return resolveWallTime(d.year, d.month, d.day, s.hour, s.minute, s.second, zone);
}

}  // namespace

bool isValidSchedule(const Schedule& s) {
    if (s.frequency == Frequency::BootTime) return true;
    if (s.year < 1970 || s.year > 9999 || s.month < 1 || s.month > 12) return false;
    if (s.day < 1 || s.day > monthLength(s.year, s.month)) return false;
    return s.hour >= 0 && s.hour <= 23 && s.minute >= 0 && s.minute <= 59 && s.second >= 0 && s.second <= 59;
}

std::optional<Frequency> frequencyFrom(std::int64_t value) {
    if (value < 0 || value > static_cast<std::int64_t>(Frequency::BootTime)) return std::nullopt;
    return static_cast<Frequency>(value);
}

const char* frequencyName(Frequency f) {
    switch (f) {
        case Frequency::Daily:
            return "daily";
        case Frequency::Weekly:
            return "weekly";
        case Frequency::Monthly:
            return "monthly";
        case Frequency::OneTime:
            return "once";
        case Frequency::BootTime:
            return "boot";
    }
    return "unknown";
}

std::time_t resolveWallTime(int year, int month, int day, int hour, int minute, int second, Zone zone) {
    std::tm want = fields(year, month, day, hour, minute, second);
    if (zone == Zone::Gmt) return timegm(&want);
    // Each reading of the wall time that maps back to itself is a real instant;
    // in an overlap both do, and the earlier one wins.
    std::optional<std::time_t> best;
    for (int isDst : {0, 1}) {
        std::tm tm = want;
        tm.tm_isdst = isDst;
        const std::time_t t = std::mktime(&tm);
        const std::tm back = brokenDown(t, Zone::Local);
        if (back.tm_year == want.tm_year && back.tm_mon == want.tm_mon && back.tm_mday == want.tm_mday &&
            back.tm_hour == want.tm_hour && back.tm_min == want.tm_min && back.tm_sec == want.tm_sec)
            best = best ? std::min(*best, t) : t;
    }
    if (best) return *best;
    // A gap: the first instant whose wall clock has reached the wanted time.
    // UTC offsets stay within 16 hours, so the answer lies in this window.
    const std::int64_t wall = static_cast<std::int64_t>(timegm(&want));
    std::int64_t lo = wall - 16 * 3600, hi = wall + 16 * 3600;
    while (lo < hi) {
        const std::int64_t mid = lo + (hi - lo) / 2;
        if (wallSeconds(static_cast<std::time_t>(mid)) >= wall)
            hi = mid;
        else
            lo = mid + 1;
    }
    return static_cast<std::time_t>(lo);
}

std::optional<std::time_t> nextRunAfter(const Schedule& s, Zone zone, std::time_t after) {
    const std::int64_t start = dayNumber(s.year, s.month, s.day);
    const std::tm now = brokenDown(after, zone);
    const std::int64_t today = dayNumber(now.tm_year + 1900, now.tm_mon + 1, now.tm_mday);
    switch (s.frequency) {
        case Frequency::OneTime:
        case Frequency::BootTime:
            return std::nullopt;
        case Frequency::Daily:
        case Frequency::Weekly: {
            const std::int64_t step = s.frequency == Frequency::Daily ? 1 : 7;
            // Start a period before today: yesterday's time may still lie ahead in a zone change.
            std::int64_t k = std::max<std::int64_t>(0, (today - 1 - start) / step);
            for (;; ++k) {
                const std::time_t t = at(s, civil(start + k * step), zone);
                if (t > after) return t;
            }
        }
        case Frequency::Monthly: {
            const std::int64_t first = static_cast<std::int64_t>(s.year) * 12 + (s.month - 1);
            const std::int64_t current = static_cast<std::int64_t>(now.tm_year + 1900) * 12 + now.tm_mon;
            for (std::int64_t m = std::max(first, current - 1);; ++m) {
                const int y = static_cast<int>(m / 12), mo = static_cast<int>(m % 12) + 1;
                const std::time_t t = at(s, Date{y, mo, std::min(s.day, monthLength(y, mo))}, zone);
                if (t > after) return t;
            }
        }
    }
    return std::nullopt;
}

std::optional<std::time_t> firstRun(const Schedule& s, Zone zone, std::time_t now) {
    if (s.frequency == Frequency::BootTime) return std::nullopt;
    const std::time_t t = at(s, Date{s.year, s.month, s.day}, zone);
    if (t >= now) return t;
    if (s.frequency == Frequency::OneTime) return now;
    return nextRunAfter(s, zone, now - 1);
}

std::string formatTime(std::time_t t, Zone zone) {
    const std::tm tm = brokenDown(t, zone);
    char text[32];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return std::string(text, n);
}

}  // namespace ksd::sched
