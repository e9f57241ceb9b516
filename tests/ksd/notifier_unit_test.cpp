// The Notifier's parts on their own: the subscription table, callback
// address checks and the JSON text of operator answers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/json_text.h"
#include "services/notifier/callback_address.h"
#include "services/notifier/subscription_table.h"

namespace {

using ksd::AddressCheck;
using ksd::SubscriptionTable;
using Add = SubscriptionTable::AddResult;

TEST(SubscriptionTable, AnotherOwnersKeyIsNeverTakenOverALimit) {
    SubscriptionTable t(1);
    EXPECT_EQ(t.add({"pipe:a", 1}, "ev", 7), Add::Added);
    EXPECT_EQ(t.add({"pipe:b", 2}, "ev", 8), Add::Added);
    EXPECT_EQ(t.add({"pipe:a", 1}, "other", 8), Add::OverLimit) << "the key would be a second one for owner 8";
    EXPECT_EQ(t.find({"pipe:a", 1})->owner, 7u) << "the old subscription stays";
    EXPECT_EQ(t.add({"pipe:b", 2}, "other", 8), Add::Replaced) << "its own key moves, whatever the limit";
}

TEST(CallbackAddress, AcceptsOnlyLocalAddresses) {
    const struct {
        AddressCheck want;
        std::vector<std::string> texts;
    } cases[] = {
        {AddressCheck::Ok,
         {"pipe:ksintf-cb-12-1", "pipe:", "pipe:/run/user/1000/sink.sock", "pipe:" + std::string(107, 'a'),
          "socket:127.0.0.1:4000", "socket:127.200.0.1:4000", "socket::4000", "socket:localhost:4000",
          "socket:[::1]:4000", "socket:::1:4000", "socket:::ffff:127.0.0.1:4000"}},
        {AddressCheck::NotLocal,
         {"socket:::ffff:10.0.0.1:4000", "socket:10.0.0.1:4000", "socket:0.0.0.0:4000", "socket:remote.example:4000"}},
        {AddressCheck::Malformed,
         {"pipe:" + std::string(108, 'a'), "socket:127.0.0.1:0", "socket:127.0.0.1:65536", "socket:127.0.0.1:12x",
          "socket:127.0.0.1:", "socket:4000", "udp:127.0.0.1:0", "PIPE:x", ""}},
    };
    for (const auto& c : cases) {
        for (const auto& text : c.texts) {
            ksd::CallbackAddress a;
            EXPECT_EQ(ksd::parseCallbackAddress(text, a), c.want) << text;
        }
    }
    ksd::CallbackAddress a;
    ASSERT_EQ(ksd::parseCallbackAddress("socket::4000", a), AddressCheck::Ok);
    EXPECT_EQ(a.host.to_string() + ":" + std::to_string(a.port), "127.0.0.1:4000");
}

}  // namespace
