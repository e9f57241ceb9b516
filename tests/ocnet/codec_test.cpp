// The wire codec: exact bytes of every value kind, and a decoder that never
// over-reads, never waits for a body whose length is already wrong, and
// reports incomplete input as indeterminate at every cut.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "OrvoCodec.h"

namespace Codec = OrvoNet::Codec;

namespace {

std::string bytes(std::initializer_list<int> list) {
    std::string s;
    for (int b : list) s.push_back(static_cast<char>(b));
    return s;
}

std::string encode(const std::function<void(std::string&)>& put) {
    std::string s;
    put(s);
    return s;
}

// "good <consumed>", "bad <errno>" or "indeterminate" (which must consume nothing).
std::string decode(const std::string& s, Codec::Value& v, std::uint32_t maxString = Codec::kMaxStringLength) {
    std::size_t consumed = 0;
    int error = 0;
    switch (Codec::decode(s.data(), s.size(), v, consumed, error, maxString)) {
        case Codec::Result::good:
            return "good " + std::to_string(consumed);
        case Codec::Result::bad:
            return "bad " + std::to_string(error);
        default:
            return consumed == 0 ? "indeterminate" : "consumed " + std::to_string(consumed);
    }
}

}  // namespace

// Each case: what an appender writes, its exact bytes, and what decodes back.
TEST(Codec, EveryKindHasExactBytesRoundTripsAndIsIndeterminateWhenCut) {
    using S = std::string&;
    const std::string s300(300, 'q');
    const struct {
        std::string encoded, expected;
        std::int64_t integer;
        std::string text;
    } cases[] = {
        {encode([](S s) { Codec::putShort(s, -32767); }), bytes({'h', 0x80, 1}), -32767, ""},
        {encode([](S s) { Codec::putInt(s, -256); }), bytes({'i', 0xff, 0xff, 0xff, 0}), -256, ""},
        {encode([](S s) { Codec::putLong(s, 0x0102030405060708LL); }), bytes({'l', 1, 2, 3, 4, 5, 6, 7, 8}),
         0x0102030405060708LL, ""},
        {encode([](S s) { Codec::putLong(s, INT64_MIN); }), bytes({'l', 0x80, 0, 0, 0, 0, 0, 0, 0}), INT64_MIN, ""},
        {encode([](S s) { Codec::putBool(s, true); }), bytes({'b', 1}), 1, ""},
        {encode([](S s) { Codec::putString(s, std::string("x\0y", 3)); }), bytes({'s', 0, 0, 0, 3, 'x', 0, 'y'}), 0,
         std::string("x\0y", 3)},
        {encode([](S s) { Codec::putString(s, ""); }), bytes({'s', 0, 0, 0, 0}), 0, ""},
        {encode([&](S s) { Codec::putString(s, s300); }), bytes({'s', 0, 0, 1, 44}) + s300, 0, s300},
        {encode([](S s) { Codec::putError(s, -5, "no"); }), bytes({'E', 0xff, 0xff, 0xff, 0xfb, 0, 0, 0, 2, 'n', 'o'}),
         -5, "no"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.expected));
        EXPECT_EQ(c.encoded, c.expected);
        Codec::Value v;
        // The bytes of a following value must not be touched.
        EXPECT_EQ(decode(c.expected + bytes({'i', 0, 0}), v), "good " + std::to_string(c.expected.size()));
        EXPECT_EQ(v.tag, c.expected[0]);
        EXPECT_EQ(v.integer, c.integer);
        EXPECT_EQ(v.text, c.text);
        for (std::size_t cut = 0; cut < c.expected.size(); ++cut)
            EXPECT_EQ(decode(c.expected.substr(0, cut), v), "indeterminate") << "cut at " << cut;
    }
}

TEST(Codec, BadValuesFailAsSoonAsTheyAreKnownToBeBad) {
    Codec::Value v;
    const std::string sProto = "bad " + std::to_string(EPROTO), sSize = "bad " + std::to_string(EMSGSIZE);
    for (int tag = 0; tag < 256; ++tag) {
        // Even a lone tag byte is enough to know it is wrong.
        if (std::string("hilbsE").find(static_cast<char>(tag)) == std::string::npos) {
            EXPECT_EQ(decode(bytes({tag}), v), sProto) << tag;
        }
    }
    EXPECT_EQ(decode(bytes({'b', 2}), v), sProto);
    EXPECT_EQ(decode(bytes({'b', 0xff}), v), sProto);
    // Only tag and length are present: a decoder that waited for the body
    // would answer indeterminate instead.
    EXPECT_EQ(decode(bytes({'s', 0xff, 0xff, 0xff, 0xff}), v), sSize);
    EXPECT_EQ(decode(bytes({'s', 0x80, 0, 0, 0}), v), sSize);
    EXPECT_EQ(decode(bytes({'s', 0x01, 0, 0, 0x01}), v), sSize);  // 16 MiB + 1
    EXPECT_EQ(decode(bytes({'E', 0, 0, 0, 1, 0xff, 0xff, 0xff, 0xf0}), v), sSize);
    // The limit is inclusive and adjustable.
    EXPECT_EQ(decode(bytes({'s', 0x01, 0, 0, 0}), v), "indeterminate");
    EXPECT_EQ(decode(bytes({'s', 0, 0, 0, 5}) + "12345", v, 5), "good 10");
    EXPECT_EQ(decode(bytes({'s', 0, 0, 0, 5}), v, 4), sSize);
}
