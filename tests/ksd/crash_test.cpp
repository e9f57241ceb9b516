// ksd killed with SIGKILL at random moments while a client creates and
// updates jobs and takes locks: after each restart every acknowledged write is
// there, no lock is held by a process that is gone, and the database passes
// its integrity check.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include "OrvoJobStatus.h"
#include "OrvoResourceArbitration.h"
#include "fake_daemon.h"
#include "ksd_process.h"
#include "store/database.h"

namespace {

// What the client knows of a job: the progress acknowledged, and one it sent
// whose answer the kill may have swallowed.
struct Known {
    int acknowledged = 0;
    int attempted = 0;
};

TEST(CrashTest, EveryAcknowledgedWriteSurvivesThirtyKills) {
    kstest::KsdProcess ksd;
    ASSERT_TRUE(ksd.start()) << ksd.log();
    kstest::ScopedEnv conn("KSINTF_CONN_TYPE", ksd.connType());
    kstest::ScopedEnv deadline("KSINTF_REPLY_TIMEOUT_MS", "2000");
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);

    for (int round = 0; round < 30; ++round) {
        std::map<int, Known> jobs;
        std::mutex mutex;
        std::atomic<bool> stop{false};
        std::thread writer([&] {
            for (int i = 0; !stop; ++i) {
                const int id = OrvoJSECreateJob("crash", ("crash-" + std::to_string(round) + "-" + std::to_string(i)).c_str());
                if (id <= 0) continue;
                const int progress = 1 + (i * 7) % 99;
                {
                    std::lock_guard<std::mutex> hold(mutex);
                    jobs[id] = Known{0, progress};
                }
                if (OrvoJSESetJobProgress(id, progress) == 0) {
                    std::lock_guard<std::mutex> hold(mutex);
                    jobs[id].acknowledged = progress;
                }
                const long lock = OrvoRAResourceLock(("crash-" + std::to_string(i % 3)).c_str(), 0);
                if (lock > 0) OrvoRAResourceUnlock(lock);
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(5, 60)(rng)));
        ksd.kill();
        stop = true;
        writer.join();
        ksd::store::Database db(ksd.stateDir() + "/ksd.db", ksd::store::Database::ReadOnly{});
        ASSERT_EQ(db.pragma("integrity_check"), "ok") << "round " << round;
        ASSERT_TRUE(ksd.start()) << ksd.log();

        for (const auto& [id, known] : jobs) {
            const int stored = OrvoJSEGetJobProgress(id);
            EXPECT_TRUE(stored == known.acknowledged || stored == known.attempted)
                << "round " << round << ": job " << id << " has " << stored << ", acknowledged "
                << known.acknowledged;
        }
        const std::string locks = kstest::operatorQuery(ksd.connType(), "locks");
        const std::regex pidField("\"pid\":(\\d+)");
        for (auto it = std::sregex_iterator(locks.begin(), locks.end(), pidField); it != std::sregex_iterator(); ++it) {
            const pid_t pid = static_cast<pid_t>(std::stol((*it)[1]));
            EXPECT_EQ(::kill(pid, 0), 0) << "round " << round << ": a lock held by gone pid " << pid << ": " << locks;
        }
    }
}

}  // namespace
