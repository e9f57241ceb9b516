// Lists read in pages: the skim that asks for the next page early, the page
// walk against a scripted daemon, and the table built a page at a time.

#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "fake_daemon.h"
#include "json.h"
#include "operator_query.h"
#include "output.h"
#include "page_skim.h"

using namespace ksctl;

TEST(KsctlPageSkim, FindsTheLastItemsKeyPastStringsAndNesting) {
    const std::pair<const char*, std::optional<std::int64_t>> cases[] = {
        {R"([{"id":1},{"id":2}])", 2},
        {R"( [ {"id" : 1} , { "name" : "x" , "id" : 42 } ] )", 42},
        // Strings that look like structure or like the key itself.
        {R"([{"id":1,"name":"],{\"id\":99}"},{"name":"a\\","id":7,"d":"\"id\":8"}])", 7},
        {R"([{"id":5,"d":"{\"id\":6},{\"id\":7}"}])", 5},
        {R"([{"id":1,"d":"\"},{\"id\":2"}])", 1},
        // The key inside a nested member is not the item's.
        {R"([{"meta":{"id":3,"ids":[4,{"id":5}]},"id":9}])", 9},
        {R"([{"id":1},{"meta":{"id":3}}])", std::nullopt},
        {R"([{"id":-4}])", -4},
        {R"([{"id":1.5}])", std::nullopt},
        {R"([{"id":"7"}])", std::nullopt},
        {R"([{"idx":7}])", std::nullopt},
        {"[]", std::nullopt},
        {R"([1,2])", std::nullopt},
        {R"({"id":1})", std::nullopt},
        {R"([{"id":1},{"id":2)", std::nullopt},  // cut short
        {R"([{"name":"never closed)", std::nullopt},
    };
    for (const auto& [page, key] : cases) EXPECT_EQ(skimLastKey(page, "id"), key) << page;
    EXPECT_EQ(skimLastKey(R"([{"seq":3,"id":1}])", "seq"), 3);
}

namespace {

// Makes `daemon` answer "jobs>N" from a table of pages, "[]" past them, and starts it.
bool servePages(kstest::FakeDaemon& daemon, std::map<std::string, std::string> pages) {
    daemon.expect({.fn =
                       [pages](const kstest::Request& r) {
                           const auto page = pages.find(r.text(0));
                           return kstest::Wire().addString(page == pages.end() ? "[]" : page->second).bytes();
                       },
                   .persistent = true});
    return daemon.start();
}

struct Walk {
    QueryAnswer answer;
    std::vector<std::string> items;  // every item received, as JSON
};

Walk walk(const kstest::FakeDaemon& daemon) {
    kstest::ScopedEnv env("KSINTF_CONN_TYPE", daemon.connType());
    Walk w;
    w.answer = queryEveryPage("jobs", "id", std::chrono::seconds(5), [&](JsonValue& page) {
        for (const auto& item : page.items) w.items.push_back(toJson(item));
    });
    return w;
}

}  // namespace

TEST(KsctlPages, EveryPageOnceInOrderEvenWhenTheSkimIsMisled) {
    // The last item of the first page names its key with an escape, which the
    // skim cannot see, and carries a raw "id" after it: the parse says 7, so
    // the walk goes on after 7, not after 3.
    kstest::FakeDaemon daemon;
    ASSERT_TRUE(servePages(daemon, {{"jobs>0", R"([{"id":1,"d":"x"},{"\u0069d":7,"id":3}])"},
                                    {"jobs>3", R"([{"id":4,"d":"wrong page"}])"},
                                    {"jobs>7", R"([ {"id":8,"d":"],\"id\":99"} ])"}}));
    const Walk w = walk(daemon);
    ASSERT_EQ(w.answer.outcome, QueryAnswer::Outcome::Answered) << w.answer.text;
    EXPECT_EQ(w.items,
              (std::vector<std::string>{R"({"id":1,"d":"x"})", R"({"id":7,"id":3})", R"({"id":8,"d":"],\"id\":99"})"}));
    // The early ask after 3 is dropped, not waited for; it may still arrive.
    std::vector<std::string> used;
    for (const auto& r : daemon.requests())
        if (r.text(0) != "jobs>3") used.push_back(r.text(0));
    EXPECT_EQ(used, (std::vector<std::string>{"jobs>0", "jobs>7", "jobs>8"}));
    daemon.waitForRequests(4);  // the dropped ask has read the address before the environment goes back
}

TEST(KsctlPages, APageThatIsNotAnAdvancingArrayStopsTheWalk) {
    const std::pair<std::string, QueryAnswer::Outcome> cases[] = {
        {R"([{"id":1},{"id":1}])", QueryAnswer::Outcome::Refused},  // ends on the key it was asked after
        {R"([{"id":2},{"name":"no key"}])", QueryAnswer::Outcome::Refused},
        {R"({"id":2})", QueryAnswer::Outcome::Malformed},
        {R"([{"id":2},{"id":3},])", QueryAnswer::Outcome::Malformed},
    };
    for (const auto& [second, outcome] : cases) {
        kstest::FakeDaemon daemon;
        ASSERT_TRUE(servePages(daemon, {{"jobs>0", R"([{"id":1}])"}, {"jobs>1", second}}));
        const Walk w = walk(daemon);
        EXPECT_EQ(w.answer.outcome, outcome) << second;
        EXPECT_EQ(w.answer.code, outcome == QueryAnswer::Outcome::Refused ? EPROTO : 0) << second;
        EXPECT_EQ(w.items, std::vector<std::string>{R"({"id":1})"}) << "the bad page is not handed on: " << second;
        daemon.waitForRequests(2);
    }
}

TEST(KsctlOutput, ATableBuiltPageByPageMatchesTheWholeList) {
    const auto list = parseJson(R"([{"id":1,"name":"a\tb\\c"},{"id":2,"id":333333,"value":"v"},"scalar",
                                   {"name":"caf\u00e9\u00e9\u00e9","": ""},{"id":12345,"z":0}])");
    ASSERT_TRUE(list);
    TableBuilder table;
    for (const auto& item : list->items) table.add(item);
    const std::string expected =
        "id     name     value      z\n"
        "1      a\\tb\\\\c  -       -  -\n"
        "2      -        v       -  -\n"  // a repeated key shows, and is measured by, its first value
        "-      -        scalar  -  -\n"
        "-      caf\xC3\xA9\xC3\xA9\xC3\xA9   -          -\n"
        "12345  -        -       -  0\n";
    EXPECT_EQ(table.render(), expected);
    EXPECT_EQ(renderTable(*list), expected);
    EXPECT_EQ(TableBuilder().render(), "");
}
