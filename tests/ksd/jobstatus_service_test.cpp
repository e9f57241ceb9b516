// The JobStatus service as the request layer drives it: the
// requests with their replies, who may change what, and the events in order.
#include <gtest/gtest.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include "service_test_fakes.h"
#include "fake_daemon.h"
#include "services/jobstatus/jobstatus_service.h"

namespace {

using namespace ksdtest;

const ksd::PeerInfo kAlicePeer = unixPeer(10, 1000);
const ksd::PeerInfo kBobPeer = unixPeer(20, 1001);

class JobStatus : public ::testing::Test {
protected:
    auto call(const std::string& request, Fields fields, const ksd::PeerInfo& peer = kAlicePeer) {
        return handle(*service_, request, std::move(fields), peer);
    }
    kstest::ScopedTempDir dir_{"kstest-jobstatus"};
    asio::io_context io_;
    RecordingPublisher events_;
    std::unique_ptr<ksd::JobStatusService> service_ = std::make_unique<ksd::JobStatusService>(
        io_, events_, dir_.path(), ksd::jobs::JobLimits{.maxNameLength = 8, .maxDescriptionLength = 16, .maxAppIds = 4, .listPageBytes = 1});
};

// The life cycle itself runs end to end (JobEndToEnd); here, each limit's edge.
TEST_F(JobStatus, NamesDescriptionsAndAppIdsAreTakenUpToTheirLimitsAndNoFurther) {
    for (const auto& tooLong : {Fields{str("d"), str("123456789")}, Fields{str(std::string(17, 'd')), str("n")}})
        EXPECT_EQ(call("TRVX_JS_CREATE", tooLong)->failCode, EMSGSIZE);
    EXPECT_EQ(call("TRVX_JS_CREATE", {str("d"), str("")})->value(), -EINVAL);
    EXPECT_EQ(call("TRVX_JS_CREATE", {str(std::string(16, 'd')), str("12345678")})->value(), 1);
    // The count of app ids is bounded as it arrives, before any id is awaited.
    const ksd::FieldPlan& map = *service_->plan("TRVX_JS_MAP_JOB");
    EXPECT_EQ(map({lng(1), lng(4)}).kind, ksd::FieldKind::Long) << "exactly the most";
    EXPECT_EQ(map({lng(1), lng(5)}).errorCode, EMSGSIZE);
    EXPECT_EQ(call("TRVX_JS_MAP_JOB", {lng(1), lng(4), lng(11), lng(12), lng(13), lng(14)})->value(), 0);
    EXPECT_EQ(events_.events, (std::vector<PublishedEvent>{{"OrvoJSEvent:12345678$", "12345678", 2}}))
        << "created; a mapping is no progress";
}

TEST_F(JobStatus, OtherUsersAndTcpClientsMayReadButNotChange) {
    ASSERT_EQ(call("TRVX_JS_CREATE", {str("d"), str("mine")})->value(), 1);
    for (const auto& [request, fields] : std::vector<std::pair<const char*, Fields>>{
             {"TRVX_JS_SET_PROGRESS", {lng(1), lng(9)}}, {"TRVX_JS_CANCEL", {lng(1)}}, {"TRVX_JS_DELETE", {lng(1)}},
             {"TRVX_JS_MAP_JOB", {lng(1), lng(0)}}}) {
        EXPECT_EQ(call(request, fields, kBobPeer)->value(), -EPERM) << request;
        EXPECT_EQ(call(request, fields, tcpPeer())->failCode, EACCES) << request;
        EXPECT_EQ(call(request, fields, tcpPeerOf(1001))->value(), -EPERM) << "Bob over TCP: " << request;
    }
    EXPECT_EQ(call("TRVX_JS_CREATE", {str("d"), str("tcp")}, tcpPeer())->failCode, EACCES);
    EXPECT_EQ(call("TRVX_JS_SET_PROGRESS", {lng(1), lng(5)}, unixPeer(30, 0))->value(), 0) << "root may";
    EXPECT_EQ(call("TRVX_JS_GET_PROGRESS", {lng(1)}, kBobPeer)->value(), 5);
    EXPECT_EQ(call("TRVX_JS_LOOKUP", {str("mine")}, tcpPeer())->value(), 1);
    EXPECT_EQ(call("TRVX_JS_DELETE", {lng(1)}, tcpPeerOf(1000))->value(), 0) << "Alice over TCP";
    EXPECT_EQ(events_.events.size(), 3u) << "created, root's update, deleted; nothing refused was announced";
}

TEST_F(JobStatus, JobListPagesAreReadFromTheStoreOneJobAtLeastEachAndAnsweredOnTheLoop) {
    for (const char* name : {"a", "b", "c"}) ASSERT_GT(call("TRVX_JS_CREATE", {str("tab\there"), str(name)})->value(), 0);
    ASSERT_EQ(call("TRVX_JS_DELETE", {lng(2)})->value(), 0);
    ASSERT_EQ(call("TRVX_JS_MAP_JOB", {lng(3), lng(2), lng(11), lng(-12)})->value(), 0);
    ASSERT_EQ(call("TRVX_JS_SET_PROGRESS", {lng(3), lng(100)})->value(), 0);
    EXPECT_EQ(service_->query("jobs").find("\"id\":3"), std::string::npos) << "one job a page";
    EXPECT_EQ(service_->query("jobs>1"),
              "[{\"id\":3,\"name\":\"c\",\"description\":\"tab\\there\",\"progress\":100,\"state\":\"completed\","
              "\"owner_uid\":1000,\"app_ids\":[11,-12]}]");
    EXPECT_EQ(service_->query("jobs>3"), "[]");
    for (const char* bad : {"jobs>", "jobs>-1", "jobs>1a", "jobsx"}) EXPECT_EQ(service_->query(bad), "") << bad;

    // Only the loop's thread may use a responder: one answered from the reader's would race here.
    auto responder = std::make_shared<FakeResponder>();
    EXPECT_FALSE(service_->answerLater("locks", kAlicePeer, responder));
    ASSERT_TRUE(service_->answerLater("jobs>1", kAlicePeer, responder));
    // Other handlers (the service's own timers) may come first under load.
    auto guard = asio::make_work_guard(io_);
    const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!responder->answered() && io_.run_one_until(bound) > 0) continue;
    EXPECT_EQ(responder->thread, std::this_thread::get_id()) << "answered through the loop";
    EXPECT_EQ(responder->replied, ksd::stringReply(service_->query("jobs>1")));
}

}  // namespace
