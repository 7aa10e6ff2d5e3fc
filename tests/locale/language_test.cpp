// Choosing the catalogue language from the locale key and the user's UI
// language, and naming the localised catalogue.
#include <gtest/gtest.h>

#include <string>

#include "locale/locale.h"
#include "locale_test_env.h"
#include "platform/uilang.h"

namespace zvxfer {
namespace {

using test::ScopedEnv;
using test::TestRegistry;

std::string ChosenCode(int32_t *result = nullptr) {
    char out[260] = "unchanged";
    int32_t r = GetUILanguageCode(kLocaleKey, out, sizeof out);
    if (result != nullptr) *result = r;
    return r == 0 ? std::string(out) : std::string("error ") + std::to_string(r);
}

TEST(LanguageChoice, UiLanguageMethod) {
    ScopedEnv env;
    {
        TestRegistry reg; // no locale key at all: nothing can be chosen
        test::UseLanguage(env, "de_DE.UTF-8");
        EXPECT_EQ(ChosenCode(), "error 1627");
    }
    {
        TestRegistry reg;
        reg.Locale("HKLM", "Available UI Languages", "eng deu");
        test::UseLanguage(env, "de_DE.UTF-8");
        EXPECT_EQ(ChosenCode(), ".deu");
        test::UseLanguage(env, "C");
        EXPECT_EQ(ChosenCode(), ".eng");
    }
    {
        // Dutch has no code of its own; no global default: the first listed.
        TestRegistry reg;
        reg.Locale("HKLM", "Available UI Languages", "fra\teng");
        test::UseLanguage(env, "nl_NL.UTF-8");
        EXPECT_EQ(ChosenCode(), ".fra");
        reg.Locale("HKLM", "Global Default UI Language", "eng");
        EXPECT_EQ(ChosenCode(), ".eng");
    }
    {
        // "7" and an unreadable method are method 0: the UI language counts,
        // not the configured default.
        TestRegistry reg;
        reg.Locale("HKLM", "Available UI Languages", "eng deu fra");
        reg.Locale("HKLM", "Default UI Language", "fra");
        reg.Locale("HKLM", "Language Search Method", "7");
        test::UseLanguage(env, "de_AT.UTF-8");
        EXPECT_EQ(ChosenCode(), ".deu");
    }
}

TEST(LanguageChoice, ConfiguredDefaultMethod) {
    ScopedEnv env;
    test::UseLanguage(env, "de_DE.UTF-8");
    {
        TestRegistry reg;
        reg.Locale("HKLM", "Language Search Method", "1");
        reg.Locale("HKLM", "Available UI Languages", "eng deu fra");
        reg.Locale("HKLM", "Default UI Language", "fra");
        EXPECT_EQ(ChosenCode(), ".fra");
        // The current user's key wins, and only the first root that has the
        // key is read: its "0" makes it method 0 again.
        reg.Locale("HKCU", "Language Search Method", "0");
        EXPECT_EQ(ChosenCode(), ".deu");
    }
    {
        TestRegistry reg;
        reg.Locale("HKLM", "Language Search Method", "0");
        reg.Locale("HKCU", "Language Search Method", "1");
        reg.Locale("HKCU", "Default UI Language", "fra");
        reg.Locale("HKLM", "Available UI Languages", "eng deu fra");
        EXPECT_EQ(ChosenCode(), ".fra");
    }
    {
        // Default not installed: the global default, then the first listed.
        TestRegistry reg;
        reg.Locale("HKLM", "Language Search Method", "1");
        reg.Locale("HKLM", "Default UI Language", "ita");
        reg.Locale("HKLM", "Available UI Languages", "fra deu");
        reg.Locale("HKLM", "Global Default UI Language", "deu");
        EXPECT_EQ(ChosenCode(), ".deu");
    }
    {
        TestRegistry reg;
        reg.Locale("HKLM", "Language Search Method", "1");
        reg.Locale("HKLM", "Default UI Language", "ita");
        reg.Locale("HKLM", "Available UI Languages", "  fra deu");
        reg.Locale("HKLM", "Global Default UI Language", "jpn");
        EXPECT_EQ(ChosenCode(), ".fra");
    }
    {
        // An already dotted code gets no second dot.
        TestRegistry reg;
        reg.Locale("HKLM", "Language Search Method", "1");
        reg.Locale("HKLM", "Default UI Language", ".jpn");
        reg.Locale("HKLM", "Available UI Languages", "eng .jpn");
        EXPECT_EQ(ChosenCode(), ".jpn");
    }
}

TEST(LanguageChoice, OutputBounds) {
    ScopedEnv env;
    test::UseLanguage(env, "fr_FR.UTF-8");
    TestRegistry reg;
    reg.Locale("HKLM", "Available UI Languages", "eng fra");
    char small[3] = "xx";
    ASSERT_EQ(GetUILanguageCode(kLocaleKey, small, sizeof small), 0);
    EXPECT_STREQ(small, ".f");
    EXPECT_EQ(GetUILanguageCode(kLocaleKey, nullptr, 10), kErrorFunctionFailed);
    EXPECT_EQ(GetUILanguageCode(kLocaleKey, small, 0), kErrorFunctionFailed);
}

TEST(LanguageChoice, CodesFromLanguageIdentifiers) {
    // Only the primary language (low 10 bits) counts.
    EXPECT_STREQ(LanguageCodeFromLangId(0x0C07), "deu");
    EXPECT_STREQ(LanguageCodeFromLangId(0x0816), "prt");
    EXPECT_STREQ(LanguageCodeFromLangId(0x0C0A), "esp");
    EXPECT_STREQ(LanguageCodeFromLangId(0x0413), "NOLANGUAGE");
}

TEST(UiLanguage, FromEnvironment) {
    ScopedEnv env;
    env.Set("LC_ALL", std::nullopt).Set("LC_MESSAGES", std::nullopt).Set("LANG", std::nullopt);
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0409);
    env.Set("LANG", "de_DE.UTF-8");
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0407);
    env.Set("LC_MESSAGES", "fr_CA.UTF-8");
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0C0C);
    env.Set("LC_ALL", ""); // empty: the next variable counts
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0C0C);
    env.Set("LC_ALL", "POSIX");
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0409);
    env.Set("LC_ALL", "C.UTF-8");
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0409);

    // Territory-specific identifiers, and the primary language of the rest.
    env.Set("LC_ALL", "pt_BR");
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0416);
    env.Set("LC_ALL", "zh_TW.Big5");
    EXPECT_EQ(plat::GetUserDefaultUILanguage(), 0x0404);
    env.Set("LC_ALL", "ja_JP.eucJP@x");
    EXPECT_EQ(plat::GetUserDefaultUILanguage() & 0x3FF, 0x11);
    env.Set("LC_ALL", "xx_YY"); // unknown: no language the code table knows
    EXPECT_STREQ(LanguageCodeFromLangId(plat::GetUserDefaultUILanguage()), "NOLANGUAGE");
}

TEST(LocalizedName, LowerCasedWithDottedCode) {
    char out[260];
    ASSERT_EQ(MakeLocalizedName(out, "C:\\App\\ZVUI32.NLS", ".eng", sizeof out), 0);
    EXPECT_STREQ(out, "c:\\app\\zvui32.eng.nls");
    ASSERT_EQ(MakeLocalizedName(out, "/Opt/Zv/ZVUI32.nls", ".deu", sizeof out), 0);
    EXPECT_STREQ(out, "/opt/zv/zvui32.deu.nls");
    // Cut at the first ".nls".
    ASSERT_EQ(MakeLocalizedName(out, "/a.NLS.d/ZVUI32.nls", ".fra", sizeof out), 0);
    EXPECT_STREQ(out, "/a.fra.nls");

    EXPECT_EQ(MakeLocalizedName(out, "/opt/zvui32.dll", ".eng", sizeof out), kErrorFunctionFailed);
    EXPECT_EQ(MakeLocalizedName(nullptr, "x.nls", ".eng", 10), kErrorFunctionFailed);
    EXPECT_EQ(MakeLocalizedName(out, nullptr, ".eng", sizeof out), kErrorFunctionFailed);
    EXPECT_EQ(MakeLocalizedName(out, "x.nls", nullptr, sizeof out), kErrorFunctionFailed);
    char small[10];
    EXPECT_EQ(MakeLocalizedName(small, "zvui32.nls", ".eng", sizeof small), kErrorFunctionFailed);
}

} // namespace
} // namespace zvxfer
