// Catalogue files as modules: parsing, lookup by number, cutting to the
// buffer, and names that differ from the files only in case.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "locale_test_env.h"
#include "platform/module.h"

namespace zvxfer {
namespace {

using test::TempDir;

struct ModuleCloser {
    void operator()(plat::Module *m) const { plat::FreeModule(m); }
};
using ModulePtr = std::unique_ptr<plat::Module, ModuleCloser>;

std::string Text(plat::ModuleHandle m, uint32_t number, std::size_t size = 256) {
    std::string buffer(size, '\x7f');
    int n = plat::LoadString(m, number, buffer.data(), size);
    if (n == 0) return "<none>";
    EXPECT_EQ(static_cast<std::size_t>(n), std::strlen(buffer.c_str()));
    return buffer.c_str();
}

TEST(Module, CatalogueLines) {
    TempDir dir;
    test::WriteText(dir.Path() / "cat.nls", "# a comment\t28258\n"
                                            "\n"
                                            "28258\tFile received\r\n"
                                            "28259\t  spaced text with\ttab and trailing blank \n"
                                            "28258\tsecond definition is ignored\n"
                                            "12x\tnot a number\n"
                                            "\tno number\n"
                                            "99 no tab\n"
                                            "7\tÜbertragung\n");
    ModulePtr m(plat::LoadModule((dir / "cat.nls").c_str()));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(Text(m.get(), 28258), "File received");
    EXPECT_EQ(Text(m.get(), 28259), "  spaced text with\ttab and trailing blank ");
    EXPECT_EQ(Text(m.get(), 7), "Übertragung");
    EXPECT_EQ(Text(m.get(), 12), "<none>");
    EXPECT_EQ(Text(m.get(), 99), "<none>");
    EXPECT_EQ(Text(m.get(), 28260), "<none>");
    EXPECT_EQ(Text(nullptr, 28258), "<none>");

    // Cut to the buffer, never inside a UTF-8 sequence ("Ü" is two bytes).
    EXPECT_EQ(Text(m.get(), 28258, 5), "File");
    EXPECT_EQ(Text(m.get(), 7, 2), "<none>");
    EXPECT_EQ(Text(m.get(), 7, 3), "Ü");
    char one[1] = {'x'};
    EXPECT_EQ(plat::LoadString(m.get(), 28258, one, 1), 0);
    EXPECT_EQ(one[0], '\0');
}

TEST(Module, NamesResolvedWithoutRegardToCase) {
    TempDir dir;
    test::WriteText(dir.Path() / "Share" / "ZvXfer" / "zvui32.deu.nls", "1\tdeutsch\n");
    test::WriteText(dir.Path() / "Share" / "ZvXfer" / "zvui32.nls", "1\tplain\n");
    std::string base = dir.Path().string();

    ModulePtr exact(plat::LoadModule((base + "/Share/ZvXfer/zvui32.deu.nls").c_str()));
    ModulePtr lower(plat::LoadModule((base + "/share/zvxfer/zvui32.deu.nls").c_str()));
    ModulePtr upper(plat::LoadModule((base + "/SHARE/./zvxfer/../ZvXfer/ZVUI32.nls").c_str()));
    ASSERT_NE(exact, nullptr);
    ASSERT_NE(lower, nullptr);
    ASSERT_NE(upper, nullptr);
    EXPECT_EQ(Text(lower.get(), 1), "deutsch");
    EXPECT_EQ(Text(upper.get(), 1), "plain");

    EXPECT_EQ(plat::LoadModule((base + "/share/zvxfer/zvui32.fra.nls").c_str()), nullptr);
    EXPECT_EQ(plat::LoadModule((base + "/missing/zvui32.nls").c_str()), nullptr);
    EXPECT_EQ(plat::LoadModule(""), nullptr);
    EXPECT_EQ(plat::LoadModule(nullptr), nullptr);
}

} // namespace
} // namespace zvxfer
