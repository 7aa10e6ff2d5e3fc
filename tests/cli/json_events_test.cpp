// JSON strings of the program's events: any bytes give a valid string,
// nothing a terminal acts on stays raw, and text that is not UTF-8 keeps
// its bytes in a "_hex" field.
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <string_view>

#include "json_events.h"

namespace zvxfer::cli {
namespace {

using namespace std::string_view_literals;

struct Encoding {
    const char *what;
    std::string_view bytes;
    std::string_view json;
    bool valid;
};

TEST(JsonString, EscapesControlsAndReplacesStrayBytes) {
    const Encoding cases[] = {
        {"plain", "report.txt", R"("report.txt")", true},
        {"empty", "", R"("")", true},
        {"quote and backslash", R"(a"b\c)", R"("a\"b\\c")", true},
        {"short escapes", "a\r\n\tb", R"("a\r\n\tb")", true},
        {"NUL, ESC, BEL, DEL", "\0\x1b]0;t\x07\x7f"sv, R"("\u0000\u001b]0;t\u0007\u007f")", true},
        {"C1 CSI as UTF-8",
         "\xc2\x9b"
         "2J",
         R"("\u009b2J")", true},
        {"line and paragraph separators", "a\xe2\x80\xa8z\xe2\x80\xa9", R"("a\u2028z\u2029")",
         true},
        {"accents, CJK, emoji kept", "caf\xc3\xa9 \xe6\x96\x87 \xf0\x9f\x93\x81",
         "\"caf\xc3\xa9 \xe6\x96\x87 \xf0\x9f\x93\x81\"", true},
        {"last code point before C1 ends", "\xc2\xa0", "\"\xc2\xa0\"", true},
        {"raw C1 byte",
         "a\x9b"
         "b",
         "\"a\xef\xbf\xbd"
         "b\"",
         false},
        {"0xff", "\xff", "\"\xef\xbf\xbd\"", false},
        {"overlong slash", "\xc0\xaf", "\"\xef\xbf\xbd\xef\xbf\xbd\"", false},
        {"surrogate", "\xed\xa0\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\"", false},
        {"truncated at the end", "ok\xe2\x82", "\"ok\xef\xbf\xbd\xef\xbf\xbd\"", false},
        {"past U+10FFFF", "\xf4\x90\x80\x80",
         "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\"", false},
    };
    for (const Encoding &c : cases) {
        bool valid = !c.valid;
        EXPECT_EQ(JsonString(c.bytes, &valid), c.json) << c.what;
        EXPECT_EQ(valid, c.valid) << c.what;
    }
}

// The fields after "event" and "time" (whose value depends on the clock).
std::string FieldsOf(const JsonEvent &event) {
    const std::string object = event.Object();
    const std::size_t comma = object.find(',', object.find("\"time\":"));
    return comma == std::string::npos ? std::string() : object.substr(comma + 1);
}

TEST(JsonEvent, WritesEachKindOfValue) {
    JsonEvent event("file_end");
    event.Text("name", "a.bin")
        .Number("result", int32_t{-610})
        .Number("bytes", uint64_t{18446744073709551615u})
        .Real("rate", 1.5)
        .Real("none", std::numeric_limits<double>::infinity())
        .Flag("skipped", false)
        .Null("size");
    EXPECT_TRUE(event.Object().starts_with(R"({"event":"file_end","time":)"));
    EXPECT_EQ(FieldsOf(event), R"("name":"a.bin","result":-610,"bytes":18446744073709551615,)"
                               R"("rate":1.5,"none":null,"skipped":false,"size":null})");
}

TEST(JsonEvent, TextThatIsNotUtf8KeepsItsBytesInHex) {
    JsonEvent good("x");
    good.Text("name", "caf\xc3\xa9");
    EXPECT_EQ(FieldsOf(good), "\"name\":\"caf\xc3\xa9\"}");
    JsonEvent bad("x");
    bad.Text("name", "a\xff\x1b"
                     "b");
    EXPECT_EQ(FieldsOf(bad), "\"name\":\"a\xef\xbf\xbd\\u001bb\",\"name_hex\":\"61ff1b62\"}");
}

} // namespace
} // namespace zvxfer::cli
