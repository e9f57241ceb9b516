// The notification network: the callback object reading pushed notifications
// from memory; the entry points' own refusals; at wire level the fields of
// register, unregister and notify, failures turned into minus the code with
// their level-4 lines, the shared publishing connection across a daemon
// restart, and pushed notifications reaching the subscriber.
#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "NotificationNetworkCallback.h"
#include "OrvoException.h"
#include "OrvoNotificationNetwork.h"
#include "OrvoPayloadConnection.h"
#include "fake_daemon.h"
#include "frame_test_util.h"

using KSInterface::KSIntfLibrary;
using kstest::Field;
using kstest::Wire;

namespace {

// Subscriber deliveries as "<event>|<xml>|<payload, or null>|<length>" with
// their contexts, made on any thread, awaited by the test (the bound only
// stops a broken build from hanging).
std::mutex g_mutex;
std::condition_variable g_cond;
std::vector<std::string> g_deliveries;
std::vector<void*> g_contexts;

void subscriber(const char* pszEventName, OrvoNNNotification* pN) {
    const char* pData = static_cast<const char*>(pN->m_pData);
    const std::string sData = pData ? std::string(pData, static_cast<std::size_t>(pN->m_nDataLength)) : "null";
    std::lock_guard<std::mutex> guard(g_mutex);
    g_deliveries.push_back(std::string(pszEventName) + "|" + pN->m_pszData + "|" + sData + "|" +
                           std::to_string(pN->m_nDataLength));
    g_contexts.push_back(pN->m_pContext);
    g_cond.notify_all();
}

std::vector<std::string> deliveries(std::size_t n) {
    std::unique_lock<std::mutex> lock(g_mutex);
    g_cond.wait_for(lock, std::chrono::seconds(10), [n] { return g_deliveries.size() >= n; });
    return g_deliveries;
}

// What a publisher sends and the daemon pushes: sender, event, xml, length, bytes.
std::string notification(const std::string& sEvent, const std::string& sXml, const std::string& sData, long nLength) {
    return Wire().addString("udp:127.0.0.1:0").addString(sEvent).addString(sXml).addLong(nLength).addRaw(sData);
}

// The script of one request; the daemon answers with an error value when
// nError is set, or closes after nCutReply bytes of the reply or after
// nCutFields fields.
kstest::Script script(const std::string& sRequest, std::string sReply, int nError = 0, long nCutReply = -1,
                      int nCutFields = -1) {
    std::vector<Field> fields = {Field::String(), Field::Int()};  // unregister: address, id
    if (sRequest == "TRVX_NN_REGISTER") fields.insert(fields.begin(), Field::String());
    if (sRequest == "TRVX_NN_NOTIFY")
        fields = {Field::String(), Field::String(), Field::String(), Field::Long(), Field::RawFrom(3)};
    return {.service = "Notifier",
            .request = sRequest,
            .fields = fields,
            .reply = std::move(sReply),
            .errorCode = nError,
            .errorMessage = "not yours",
            .closeAfterFields = nCutFields,
            .closeAfterReplyBytes = nCutReply};
}

// A recorded request as text: header, then "s:"/"r:" texts and "n:" integers.
std::string texts(const kstest::Request& r) {
    std::string s = std::to_string(r.version) + " " + std::to_string(r.magic) + " " + r.service + " " + r.request;
    for (const auto& v : r.values)
        s += v.kind == kstest::Kind::String ? " s:" + v.text
             : v.kind == kstest::Kind::Raw  ? " r:" + v.text
                                            : " n:" + std::to_string(v.integer);
    return s;
}

// Level-4 lines "<function>: exception connecting to server: message = |...|,
// error code = <code>, returning code = <-code>".
int failureLines(const frametest::LogCapture& log, const std::string& sFunction, int nCode) {
    const std::string sEnd =
        "|, error code = " + std::to_string(nCode) + ", returning code = " + std::to_string(-nCode);
    int n = 0;
    for (const auto& [nLevel, s] : log.startingWith(sFunction + ": exception connecting to server: message = |"))
        n += nLevel == 4 && s.ends_with(sEnd);
    return n;
}

class NNTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_deliveries.clear();
        g_contexts.clear();
    }
    void TearDown() override {
        KSIntfLibrary::deleteSharedLibraryConnection();
        KSIntfLibrary::deleteInstance();
    }
    bool holdsCallback(int nId) { return KSIntfLibrary::getInstance().getCallbackContainer().lookup(nId); }
    kstest::FakeDaemon m_daemon;
    kstest::ScopedEnv m_env{"KSINTF_CONN_TYPE", m_daemon.connType()};
    OrvoNNNotification m_plain{"<a/>", nullptr, 0, nullptr};
};

}  // namespace

// Each notification is read whole (also without a subscriber function),
// handed over with the context and kept, payload included, until the next
// replaces it; a cut, mistyped or impossible one throws and calls nobody.
TEST_F(NNTest, CallbackReadsEachNotificationWholeAndKeepsTheLast) {
    OrvoNet::OrvoNotificationCallbackSP sp(new KSInterface::NotificationNetworkCallback("ev"));
    auto& callback = static_cast<KSInterface::NotificationNetworkCallback&>(*sp);
    int context = 0;
    const std::string sBinary("\x01\0\xff", 3);
    auto* pPayload = new OrvoNet::OrvoPayloadConnection(notification("zero", "<0/>", "12345", 5) +
                                                        notification("one", "<a b='1'/>", sBinary, 3) +
                                                        notification("two", "<2/>", "de", 2) + "next");
    OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> conn(pPayload);
    callback.doCallback(conn);
    callback.setCallback(subscriber, &context);
    callback.doCallback(conn);
    callback.doCallback(conn);
    EXPECT_EQ(pPayload->remaining(), 4u);
    EXPECT_EQ(deliveries(2), (std::vector<std::string>{"one|<a b='1'/>|" + sBinary + "|3", "two|<2/>|de|2"}));
    EXPECT_EQ(g_contexts, (std::vector<void*>{&context, &context}));
    EXPECT_EQ(callback.getEventName() + callback.getXmlData() + std::to_string(callback.getProducerDataLen()),
              "two<2/>2");
    EXPECT_EQ(std::string(static_cast<const char*>(callback.getProducerData()), 2), "de");
    std::string sWrongTag = notification("e", "<x/>", "", 0);
    sWrongTag[0] = 'i';
    for (const std::string& s : {notification("e", "<x/>", "", 0).substr(0, 20), sWrongTag,
                                 notification("e", "<x/>", "", -1), notification("e", "<x/>", "", 1L << 40),
                                 notification("e", "<x/>", "ab", 5)}) {  // announces more than it holds
        OrvoSupport::OrvoSmartPointer<OrvoNet::OrvoConnection> broken(new OrvoNet::OrvoPayloadConnection(s));
        EXPECT_THROW(callback.doCallback(broken), OrvoSupport::OrvoException);
    }
    EXPECT_EQ(g_deliveries.size(), 2u);
}

// Reserved prefixes are refused before any connection is tried (nothing
// listens, so a connection attempt would give -111); null texts raise the
// standard logic error and give the publication lock back.
TEST_F(NNTest, EntryPointsRefuseReservedNamesAndNullTexts) {
    for (const char* pszName : {"OrvoRAEvent", "OrvoJSEvent:x$", "OrvoTSEventABC", "OrvoRAEvent:disk0$"})
        EXPECT_EQ(OrvoNNRegisterForNotification(pszName, subscriber, nullptr), -2) << pszName;
    for (const char* pszName : {"OrvoRAEven", "orvoRAEvent", "OrvoTSEven:", "xOrvoJSEvent"})
        EXPECT_EQ(OrvoNNRegisterForNotification(pszName, subscriber, nullptr), -ECONNREFUSED) << pszName;
    EXPECT_EQ(_OrvoNNRegisterForNotification("OrvoRAEvent:disk0$", subscriber, nullptr), -ECONNREFUSED);
    OrvoNNNotification n{nullptr, nullptr, 0, nullptr};
    EXPECT_THROW(OrvoNNRegisterForNotification(nullptr, subscriber, nullptr), std::logic_error);
    EXPECT_THROW(_OrvoNNRegisterForNotification(nullptr, subscriber, nullptr), std::logic_error);
    EXPECT_THROW(OrvoNNNotify("event", &n), std::logic_error);
    EXPECT_THROW(OrvoNNNotify(nullptr, &m_plain), std::logic_error);
    int rc = 0;
    std::thread([&] { rc = OrvoNNNotify("event", &m_plain); }).join();
    EXPECT_EQ(rc, -ECONNREFUSED);
}

// Register and unregister send their fields on connections of their own; the
// daemon's statuses come back unchanged, and a refused unregistration or
// registration keeps its callback. The internal entry point takes reserved
// names to the daemon. While registered, pushes reach the subscriber.
TEST_F(NNTest, RegisterAndUnregisterSendTheirFieldsAndPassStatusesThrough) {
    const std::pair<const char*, int> replies[] = {
        {"TRVX_NN_REGISTER", 0}, {"TRVX_NN_UNREGISTER", 3}, {"TRVX_NN_UNREGISTER", 0}, {"TRVX_NN_REGISTER", -6}};
    for (auto [pszRequest, nReply] : replies) m_daemon.expect(script(pszRequest, Wire().addInt(nReply)));
    ASSERT_TRUE(m_daemon.start());
    int context = 0;
    const int handle = OrvoNNRegisterForNotification("nn.event", subscriber, &context);
    ASSERT_GT(handle, 0);
    // Pushed notifications reach the subscriber through the sink; a
    // zero-length payload comes with a non-null buffer.
    const std::string sAddress = KSIntfLibrary::getInstance().getCallbackAddress(), sBinary("\0\1\xff", 3);
    ASSERT_TRUE(m_daemon.push(sAddress, handle, notification("nn.pushed", "<n v='1'/>", sBinary, 3)));
    ASSERT_TRUE(m_daemon.push(sAddress, handle, notification("nn.pushed", "", "", 0)));
    EXPECT_EQ(deliveries(2), (std::vector<std::string>{"nn.pushed|<n v='1'/>|" + sBinary + "|3", "nn.pushed|||0"}));
    EXPECT_EQ(g_contexts, (std::vector<void*>{&context, &context}));
    EXPECT_EQ(OrvoNNUnregisterForNotification(handle), 3);
    EXPECT_TRUE(holdsCallback(handle));
    EXPECT_EQ(OrvoNNUnregisterForNotification(handle), 0);
    EXPECT_FALSE(holdsCallback(handle));
    EXPECT_EQ(_OrvoNNRegisterForNotification("OrvoJSEvent:job$", subscriber, nullptr), -6);
    EXPECT_TRUE(holdsCallback(handle + 1));
    const std::string sTail = " s:" + sAddress + " n:" + std::to_string(handle);
    EXPECT_EQ(texts(m_daemon.request(0)), "1 7777 Notifier TRVX_NN_REGISTER s:nn.event" + sTail);
    EXPECT_EQ(texts(m_daemon.request(2)), "1 7777 Notifier TRVX_NN_UNREGISTER" + sTail);
    EXPECT_EQ(m_daemon.request(3).text(0), "OrvoJSEvent:job$");
    EXPECT_TRUE(m_daemon.waitForClientClosed(4));  // each call closed its own connection
}

// Notify sends its fields on the shared connection, one request after the
// other; the long reply is narrowed. The shared connection survives a restart.
TEST_F(NNTest, NotifySendsItsFieldsOnTheSharedConnection) {
    m_daemon.expect(script("TRVX_NN_NOTIFY", Wire().addLong((1L << 32) + 5)));
    m_daemon.expect(script("TRVX_NN_NOTIFY", Wire().addLong(-1)));
    ASSERT_TRUE(m_daemon.start());
    char data[] = {'a', '\0', 'c'};
    OrvoNNNotification n{"<x a='1'/>", data, 3, nullptr}, empty{"", nullptr, 0, nullptr};
    EXPECT_EQ(OrvoNNNotify("nn.event", &n), 5);
    EXPECT_EQ(OrvoNNNotify("other", &empty), -1);
    const std::string sHeader = "1 7777 Notifier TRVX_NN_NOTIFY s:udp:127.0.0.1:0";
    EXPECT_EQ(texts(m_daemon.request(0)), sHeader + " s:nn.event s:<x a='1'/> n:3 r:" + std::string(data, 3));
    EXPECT_EQ(texts(m_daemon.request(1)), sHeader + " s:other s: n:0 r:");
    EXPECT_EQ(m_daemon.request(1).connection, m_daemon.request(0).connection);
    m_daemon.stop();
    m_daemon.expect(script("TRVX_NN_NOTIFY", Wire().addLong(2)));
    ASSERT_TRUE(m_daemon.start());
    EXPECT_EQ(OrvoNNNotify("after", &m_plain), 2);
    EXPECT_EQ(m_daemon.request(2).text(1), "after");
}

// With the daemon down every call returns minus the code and logs its level-4
// line. An error value from the daemon gives minus its code (with its message
// in the line); a connection closed mid-reply or mid-request gives
// -ECONNRESET. The publication lock is released each time: a publish from
// another thread goes through at the end.
TEST_F(NNTest, FailuresGiveMinusTheCodeAndLevel4Lines) {
    frametest::LogCapture log;
    EXPECT_EQ(OrvoNNRegisterForNotification("nn.event", subscriber, nullptr), -ECONNREFUSED);
    EXPECT_EQ(OrvoNNUnregisterForNotification(1), -ECONNREFUSED);
    EXPECT_EQ(OrvoNNNotify("nn.event", &m_plain), -ECONNREFUSED);
    for (const char* pszFunction :
         {"_OrvoNNRegisterForNotification", "OrvoNNUnregisterForNotification", "OrvoNNNotify"})
        EXPECT_EQ(failureLines(log, pszFunction, ECONNREFUSED), 1) << pszFunction;
    EXPECT_EQ(log.startingWith("OrvoNNRegisterForNotification: handle=").size(), 0u);
    for (const auto& s : {script("TRVX_NN_NOTIFY", "", EACCES), script("TRVX_NN_REGISTER", "", ENOSYS),
                          script("TRVX_NN_UNREGISTER", "", EPROTO), script("TRVX_NN_NOTIFY", Wire().addLong(7), 0, 4),
                          script("TRVX_NN_REGISTER", Wire().addInt(0), 0, 2),
                          script("TRVX_NN_UNREGISTER", "", 0, -1, 2), script("TRVX_NN_NOTIFY", Wire().addLong(11))})
        m_daemon.expect(s);
    ASSERT_TRUE(m_daemon.start());
    for (int nCode : {EACCES, ECONNRESET}) {
        // The daemon closes after an error value; a request must not race that close.
        KSIntfLibrary::deleteSharedLibraryConnection();
        EXPECT_EQ(OrvoNNNotify("nn.event", &m_plain), -nCode);
        EXPECT_EQ(OrvoNNRegisterForNotification("nn.event", subscriber, nullptr), nCode == EACCES ? -ENOSYS : -nCode);
        EXPECT_EQ(OrvoNNUnregisterForNotification(4), nCode == EACCES ? -EPROTO : -nCode);
    }
    const std::string sNotYours =
        "OrvoNNNotify: exception connecting to server: message = |not yours|, error code = " + std::to_string(EACCES) +
        ", returning code = -" + std::to_string(EACCES);
    EXPECT_EQ(log.startingWith(sNotYours), (frametest::Records{{4, sNotYours}}));
    EXPECT_EQ(failureLines(log, "OrvoNNNotify", ECONNRESET), 1);
    int rc = 0;  // the lock released and the shared connection usable again, from another thread
    std::thread([&] { rc = OrvoNNNotify("again", &m_plain); }).join();
    EXPECT_EQ(rc, 11);
}

// An error value ends the exchange on the client side at once: the next
// publication opens a fresh connection and succeeds on its first try, even
// while the daemon has not closed the old one yet (it holds it open here).
TEST_F(NNTest, AnErrorValueLetsTheNextRequestSucceedAtOnce) {
    kstest::Script refused = script("TRVX_NN_NOTIFY", Wire().addError(EACCES, "not yours").bytes());
    refused.trailer = false;
    m_daemon.expect(refused);
    m_daemon.expect(script("TRVX_NN_NOTIFY", Wire().addLong(3)));
    ASSERT_TRUE(m_daemon.start());
    EXPECT_EQ(OrvoNNNotify("first", &m_plain), -EACCES);
    EXPECT_EQ(OrvoNNNotify("second", &m_plain), 3);
    ASSERT_EQ(m_daemon.requestCount(), 2u);
    EXPECT_NE(m_daemon.request(1).connection, m_daemon.request(0).connection);
}
