// The state database and the job book over it: schema versions, WAL,
// persistence across reopening, ids never reused, and the rules of every
// job operation with the events each one causes (who may call each request
// is the service's test).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "fake_daemon.h"
#include "services/jobstatus/job_book.h"
#include "services/jobstatus/job_store.h"
#include "store/schema.h"
#include "store/store_error.h"

namespace {

namespace fs = std::filesystem;
using ksd::jobs::JobEvent;
using ksd::jobs::JobState;
using ksd::store::Database;
using Events = std::vector<JobEvent>;

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;

// A book over a database in a directory of its own, reopened at will as a
// restarted daemon would.
class Jobs : public ::testing::Test {
protected:
    Jobs() { reopen(); }
    void reopen() {
        book_.reset(), store_.reset(), db_.reset();
        // A short busy wait: one test holds the write lock from another connection.
        db_ = ksd::store::openStateDatabase(dir_.path(), ksd::store::Durability::Normal, std::chrono::milliseconds(20));
        store_ = std::make_unique<ksd::jobs::JobStore>(*db_, logged_ ? logFile() : fs::path());
        book_ = std::make_unique<ksd::jobs::JobBook>(*store_, ksd::jobs::JobLimits{});
    }
    fs::path logFile() const { return fs::path(dir_.path()) / "progress.log"; }
    bool logged_ = false;
    kstest::ScopedTempDir dir_{"kstest-jobs"};
    std::shared_ptr<Database> db_;
    std::unique_ptr<ksd::jobs::JobStore> store_;
    std::unique_ptr<ksd::jobs::JobBook> book_;
};

TEST(StateDatabase, IsCreatedAtTheLatestSchemaInWalModeAndRefusesANewerOne) {
    kstest::ScopedTempDir dir("kstest-db");
    {
        auto db = ksd::store::openStateDatabase(dir.path());
        EXPECT_EQ(db->userVersion(), ksd::store::latestSchemaVersion());
        EXPECT_EQ(db->pragma("journal_mode"), "wal");
        EXPECT_EQ(db->pragma("synchronous"), "1") << "NORMAL";
        db->setUserVersion(ksd::store::latestSchemaVersion() + 1);
    }
    EXPECT_THROW(ksd::store::openStateDatabase(dir.path()), ksd::store::StoreError) << "written by a newer daemon";
}

TEST_F(Jobs, IdsAreFreshNamesUniqueAndNeitherIsLostOrReusedAcrossReopening) {
    EXPECT_EQ(book_->create("d1", "one", kAlice).events, Events{JobEvent::Created});
    EXPECT_EQ(book_->create("other", "one", kBob).reply, -EEXIST);
    EXPECT_EQ(book_->create("x", std::string("a\0b", 3), kBob).reply, -EINVAL);
    ASSERT_EQ(book_->create("", "two", kBob).reply, 2) << "an empty description is fine";
    ASSERT_EQ(book_->create("d3", "three", kBob).reply, 3);
    ASSERT_EQ(book_->setProgress(1, 40, kAlice).reply, 0);
    const std::vector<std::int64_t> apps = {7, -8, 2147483647, -2147483648LL};
    ASSERT_EQ(book_->mapAppIds(1, apps, kAlice).reply, 0);
    ASSERT_EQ(book_->cancel(2, kBob).reply, 0);
    ASSERT_EQ(book_->remove(3, kBob).reply, 0);  // the highest id is gone before the restart
    ASSERT_EQ(book_->create("d4", "four", kBob).reply, 4);
    ASSERT_EQ(book_->setProgress(4, 100, kBob).reply, 0);

    reopen();
    ASSERT_EQ(book_->size(), 3u);
    EXPECT_EQ(book_->find(4)->state, JobState::Completed) << "a finished job stays finished";
    const auto* one = book_->find(1);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(std::tie(one->name, one->description, one->progress, one->owner, one->appIds, one->state),
              std::make_tuple("one", "d1", 40, kAlice, apps, JobState::Running));
    EXPECT_EQ(std::make_pair(book_->lookup("two"), book_->find(2)->state), std::make_pair(std::int64_t{2}, JobState::Cancelled));
    EXPECT_EQ(book_->create("d", "three", kAlice).reply, 5) << "the name is free again, the id is never reused";
}

TEST_F(Jobs, ChangesAreBoundedOwnedAndAnnounced) {
    ASSERT_EQ(book_->create("d", "job", kAlice).reply, 1);
    for (auto [id, value, who, reply] : std::vector<std::tuple<std::int64_t, std::int64_t, uid_t, int>>{
             {1, -1, kAlice, -EINVAL}, {1, 101, kAlice, -EINVAL}, {1, 4294967346LL, kAlice, -EINVAL},
             {9, 10, kAlice, -ENOENT}, {1, 10, kBob, -EPERM}})
        EXPECT_EQ(book_->setProgress(id, value, who).reply, reply) << value;
    EXPECT_EQ(book_->progress(1), 0) << "refused changes change nothing";

    EXPECT_EQ(book_->setProgress(1, 30, kAlice).events, Events{JobEvent::Updated});
    EXPECT_TRUE(book_->setProgress(1, 30, kAlice).events.empty()) << "no change, no event";
    EXPECT_EQ(book_->setProgress(1, 60, 0).events, Events{JobEvent::Updated}) << "root may";
    EXPECT_EQ(book_->setProgress(1, 100, kAlice).events, (Events{JobEvent::Updated, JobEvent::Completed}));
    EXPECT_EQ(book_->find(1)->state, JobState::Completed);
    EXPECT_EQ(book_->setProgress(1, 90, kAlice).events, Events{JobEvent::Updated});
    EXPECT_EQ(book_->find(1)->state, JobState::Running) << "back below 100 it runs again";
    ASSERT_EQ(book_->mapAppIds(1, {3, 4}, kAlice).reply, 0);
    EXPECT_EQ(book_->mapAppIds(1, {}, kAlice).events, Events{});
    EXPECT_TRUE(book_->find(1)->appIds.empty()) << "a new mapping replaces the old one";
    EXPECT_EQ(book_->cancel(1, kAlice).events, Events{JobEvent::Cancelled});
    EXPECT_EQ(book_->cancel(1, kAlice).events, Events{}) << "cancelled once";
    EXPECT_EQ(book_->setProgress(1, 50, kAlice).reply, -ECANCELED) << "the worker learns of the cancel";
    auto removed = book_->remove(1, 0);
    EXPECT_EQ(std::tie(removed.reply, removed.jobName, removed.events), std::make_tuple(0, "job", Events{JobEvent::Exit}));
}

TEST_F(Jobs, AFailedWriteChangesNothingAndSaysSo) {
    ASSERT_EQ(book_->create("d", "job", kAlice).reply, 1);
    // Another connection holds the write lock past our busy time-out.
    Database other(fs::path(dir_.path()) / ksd::store::kDatabaseFileName);
    ksd::store::Transaction hold(other);
    EXPECT_EQ(book_->create("d", "blocked", kAlice).reply, -EIO);
    EXPECT_EQ(book_->setProgress(1, 50, kAlice).reply, -EIO);
    EXPECT_EQ(book_->remove(1, kAlice).reply, -EIO);
    EXPECT_EQ(book_->lookup("blocked"), -ENOENT);
    EXPECT_EQ(book_->progress(1), 0);
}

// Progress goes to a log first; a daemon killed before applying it to the
// database finds it again at the next start.
class LoggedJobs : public Jobs {
protected:
    LoggedJobs() {
        logged_ = true;
        reopen();
    }
};

TEST_F(LoggedJobs, ProgressNotYetAppliedSurvivesARestartAndATornRecordAtTheEnd) {
    ASSERT_EQ(book_->create("d", "job", kAlice).reply, 1);
    ASSERT_EQ(book_->create("d", "other", kAlice).reply, 2);
    ASSERT_EQ(book_->setProgress(1, 40, kAlice).reply, 0);
    ASSERT_EQ(book_->setProgress(2, 100, kAlice).reply, 0);
    ASSERT_TRUE(store_->hasLogged());
    // The remains of a write cut short by a crash.
    std::ofstream(logFile(), std::ios::app | std::ios::binary) << std::string(13, '\x7f');
    reopen();
    EXPECT_EQ(book_->progress(1), 40);
    EXPECT_EQ(book_->find(2)->state, JobState::Completed);
    EXPECT_FALSE(store_->hasLogged()) << "applied at the start";
    // Records written after a start that replayed the log are told from the replayed ones.
    for (const int progress : {60, 70}) {
        ASSERT_EQ(book_->setProgress(1, progress, kAlice).reply, 0);
        reopen();
        EXPECT_EQ(book_->progress(1), progress);
    }
}

TEST_F(LoggedJobs, ASecondWriterOfTheSameLogIsRefused) {
    EXPECT_THROW(ksd::jobs::JobStore(*db_, logFile()), ksd::store::StoreError);
    store_.reset();
    book_.reset();
    EXPECT_NO_THROW(ksd::jobs::JobStore(*db_, logFile())) << "free again once the first is gone";
}

TEST_F(LoggedJobs, ALaterChangeIsNeverUndoneByReplayingOlderProgress) {
    ASSERT_EQ(book_->create("d", "job", kAlice).reply, 1);
    ASSERT_EQ(book_->setProgress(1, 40, kAlice).reply, 0);
    const fs::path copy = fs::path(dir_.path()) / "copy.log";
    fs::copy_file(logFile(), copy);
    ASSERT_EQ(book_->cancel(1, kAlice).reply, 0);
    // As if the daemon died after the database took the log's records but
    // before the log was emptied.
    fs::copy_file(copy, logFile(), fs::copy_options::overwrite_existing);
    reopen();
    EXPECT_EQ(book_->find(1)->state, JobState::Cancelled);
    EXPECT_EQ(book_->progress(1), 40);
    ASSERT_EQ(book_->create("d", "two", kAlice).reply, 2);
    ASSERT_EQ(book_->setProgress(2, 30, kAlice).reply, 0);
    ASSERT_EQ(book_->remove(1, kAlice).reply, 0);
    reopen();
    EXPECT_EQ(std::make_pair(book_->size(), book_->progress(2)), std::make_pair(std::size_t{1}, std::int64_t{30}));
}

// One user fills its own quota, not the table; the last places are root's.
TEST_F(Jobs, PerUserQuotaAndARootReserveInTheLiveJobCap) {
    const ksd::jobs::JobLimits limits{.maxJobs = 4, .maxJobsPerUser = 2, .rootReserve = 1};
    auto small = std::make_unique<ksd::jobs::JobBook>(*store_, limits);
    ASSERT_EQ(small->create("d", "a1", kAlice).reply, 1);
    ASSERT_EQ(small->create("d", "a2", kAlice).reply, 2);
    EXPECT_EQ(small->create("d", "a3", kAlice).reply, -EDQUOT);
    ASSERT_EQ(small->create("d", "b1", kBob).reply, 3);
    EXPECT_EQ(small->create("d", "b2", kBob).reply, -ENOSPC) << "the last place is root's";
    ASSERT_EQ(small->create("d", "r1", 0).reply, 4);
    EXPECT_EQ(small->create("d", "r2", 0).reply, -ENOSPC);
    ASSERT_EQ(small->remove(1, kAlice).reply, 0);
    ASSERT_EQ(small->remove(4, 0).reply, 0);
    small = std::make_unique<ksd::jobs::JobBook>(*store_, limits);
    EXPECT_EQ(small->create("d", "a3", kAlice).reply, 5);
    EXPECT_EQ(small->create("d", "a4", kAlice).reply, -EDQUOT) << "counts restored with the jobs";
    EXPECT_EQ(small->create("d", "b2", kBob).reply, -ENOSPC);
}

}  // namespace
