// ksctl's parts without a real ksd: the JSON reader/writer, the human renderings and
// lists read in pages (the skim that asks for the next page early, the page walk
// against a scripted daemon, the table built a page at a time).

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <tuple>

#include "daemon_events.h"
#include "fake_daemon.h"
#include "json.h"
#include "operator_query.h"
#include "output.h"
#include "page_skim.h"
#include "results.h"

using namespace ksctl;

TEST(KsctlJson, ReadsDaemonAnswersExactly) {
    auto v = parseJson(R"( {"n": -1, "big": 9007199254740993, "f": 0.5e1, "ok": true, "none": null,
                           "jobs": [{"name": "b\u00e9\"x\\\ud83d\ude00", "apps": []}]} )");
    ASSERT_TRUE(v);
    EXPECT_EQ(v->members[0].name, "n");  // document order is kept
    EXPECT_EQ(v->find("n")->asInt(), -1);
    EXPECT_EQ(v->find("big")->asInt(), 9007199254740993LL);  // 2^53 + 1: lost by a double
    EXPECT_EQ(v->find("f")->asInt(), std::nullopt);
    EXPECT_TRUE(v->find("ok")->boolean && v->find("none")->kind == JsonValue::Kind::Null);
    EXPECT_EQ(v->find("jobs")->items.at(0).find("name")->text, "b\xC3\xA9\"x\\\xF0\x9F\x98\x80");
    EXPECT_EQ(parseJson("9223372036854775808")->asInt(), std::nullopt);  // out of int64 range
    EXPECT_EQ(toJson(*parseJson(R"({"a":[1,"x",{"b":null}],"c":false})")), R"({"a":[1,"x",{"b":null}],"c":false})");
}

TEST(KsctlJson, RejectsMalformedInput) {
    for (const char* text : {"", "{", "[1,]", "{\"a\":1,}", "01", "1.", "1e", "tru", "\"abc", "\"a\nb\"", "\"\\x\"",
                             "\"\\ud800\"", "\"\\udc00\"", "[1] 2", "{1:2}", "\"\\u12g4\""})
        EXPECT_FALSE(parseJson(text)) << text;
    EXPECT_FALSE(parseJson(std::string(10000, '[') + std::string(10000, ']')));  // too deep
    EXPECT_TRUE(parseJson(std::string(100, '[') + std::string(100, ']')));
}

TEST(KsctlJson, QuotingAlwaysYieldsJsonThatReadsBack) {
    for (const std::string& s : {std::string("quote\" back\\slash\t\n\r"), std::string("nul\0x\x01\x7f", 7)})
        EXPECT_EQ(parseJson(jsonQuote(s))->text, s);
    // Bytes that are not UTF-8 (a lone continuation, an overlong '/', a cut sequence) become U+FFFD.
    EXPECT_EQ(parseJson(jsonQuote("a\x80" "b\xC0\xAF" "c\xE2\x82"))->text,
              "a\xEF\xBF\xBD" "b\xEF\xBF\xBD\xEF\xBF\xBD" "c\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(KsctlOutput, PreviewsAndLines) {
    struct Case { std::string in; std::size_t limit; bool printable, truncated; std::string shown; };
    // Escapes, cut-off UTF-8 and C1 controls are not shown as text; a cut never splits a character.
    const Case cases[] = {{"hello\tworld\n", 64, true, false, "hello\tworld\n"}, {"ab\xC3\xA9z", 3, true, true, "ab"},
                          {std::string("\x01\x00\xff", 3), 64, false, false, "01 00 ff"},
                          {std::string(100, '\x02'), 2, false, true, "02 02"}, {"e\x1b[", 64, false, false, "65 1b 5b"},
                          {"b\xC3", 64, false, false, "62 c3"}, {"c\xC2\x9B", 64, false, false, "63 c2 9b"}};
    for (const Case& c : cases) {
        PayloadPreview p = previewPayload(c.in, c.limit);
        EXPECT_EQ(std::tie(p.printable, p.truncated, p.shown), std::tie(c.printable, c.truncated, c.shown)) << c.in;
    }
    EXPECT_EQ(oneLine("a\nb\tc\\d\x01\x7f <x/>"), "a\\nb\\tc\\\\d\\x01\\x7f <x/>");
}

TEST(KsctlOutput, FieldsAlignAndShowAUidsName) {
    EXPECT_EQ(renderFields(*parseJson(R"({"connections":2,"by_service":{"a":1},"name":"k\nsd","owner_uid":0})")),
              "connections  2\nby_service   {\"a\":1}\nname         k\\nsd\nowner_uid    0 (root)\n");
}

TEST(KsctlDaemonEvents, LinesNameTheKindAndMeaningAndSkipWhatIsNotADaemonEvent) {
    auto code = [](std::int32_t c) { return std::string(reinterpret_cast<const char*>(&c), sizeof c); };
    // Stamped with the time ksctl received them.
    const std::string at = timeText({});
    EXPECT_EQ(formatDaemonEvent({"OrvoRAEvent:*", "tape\n1", code(-1)}, false),
              at + " lock tape\\n1: holder-ended (-1)");
    EXPECT_EQ(formatDaemonEvent({"OrvoJSEvent:*", "short", "\x02"}, false), std::nullopt) << "payload under 4 bytes";
    EXPECT_EQ(formatDaemonEvent({"OrvoTSEvent:*", "x1", code(0)}, true), std::nullopt) << "no number, no JSON";
    EXPECT_EQ(formatDaemonEvent({"OrvoJSEvent:b$", "b", code(2)}, false), std::nullopt);
}

TEST(KsctlPageSkim, FindsTheLastItemsKeyPastStringsAndNesting) {
    const std::pair<const char*, std::optional<std::int64_t>> cases[] = {
        {R"( [ {"id" : 1} , { "name" : "x" , "id" : 42 } ] )", 42},
        // Strings that look like structure or like the key itself.
        {R"([{"id":1,"name":"],{\"id\":99}"},{"name":"a\\","id":7,"d":"\"id\":8"}])", 7},
        // The key inside a nested member is not the item's.
        {R"([{"meta":{"id":3,"ids":[4,{"id":5}]},"id":9}])", 9},
        {R"([{"id":1},{"meta":{"id":3}}])", std::nullopt},
        {R"([{"id":1},{"id":2)", std::nullopt},  // cut short
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
