// Registration of the message catalogue: the component key, the localised
// catalogue beside the registered file, and loading once.
#include <gtest/gtest.h>

#include <string>

#include "locale/locale.h"
#include "locale_test_env.h"
#include "platform/module.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using test::ScopedEnv;
using test::TempDir;
using test::TestRegistry;

class RegisterTest : public ::testing::Test {
  protected:
    void SetUp() override { Restart(); }
    void TearDown() override { Restart(); }
    static void Restart() {
        UnregisterXferDLL();
        ResetMessageCache();
    }
};

TEST_F(RegisterTest, LoadsOnceUntilUnregistered) {
    TestRegistry reg;
    reg.Add("HKCR", kComponentKey, "", reg.Dir() / "libzvxfer.so");
    test::WriteText(reg.Dir().Path() / "zvui32.nls", "28258\tfirst version\n");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "first version");

    test::WriteText(reg.Dir().Path() / "zvui32.nls", "28258\tsecond version\n");
    EXPECT_EQ(RegisterXferDLL(), 0); // already loaded: nothing is read
    ResetMessageCache();
    EXPECT_STREQ(MessageText(28258), "first version");

    UnregisterXferDLL();
    ResetMessageCache();
    EXPECT_STREQ(MessageText(28258), "Unable to find string 28258. Internal Error!");
    UnregisterXferDLL(); // nothing held: no effect

    ASSERT_EQ(RegisterXferDLL(), 0);
    ResetMessageCache();
    EXPECT_STREQ(MessageText(28258), "second version");
}

TEST_F(RegisterTest, LocalisedCatalogueBesideTheRegisteredFile) {
    ScopedEnv env;
    TestRegistry reg;
    // The registered file's folder differs in case from the lower-cased
    // localised name; both must still be found.
    reg.Add("HKCR", kComponentKey, "", reg.Dir() / "Zv/Lib/ZvXfer.so");
    reg.Locale("HKLM", "Available UI Languages", "eng deu jpn");
    test::WriteText(reg.Dir().Path() / "Zv/Lib/zvui32.nls", "28258\tplain\n");
    test::WriteText(reg.Dir().Path() / "Zv/Lib/zvui32.deu.nls", "28258\tdeutsch\n");

    test::UseLanguage(env, "de_CH.UTF-8");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "deutsch");

    // Japanese is listed but not installed: the unlocalised catalogue.
    Restart();
    test::UseLanguage(env, "ja_JP.UTF-8");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "plain");

    // A registered name without a folder: nothing beside it can be found.
    Restart();
    TestRegistry bare;
    bare.Add("HKCR", kComponentKey, "", "libzvxfer.so");
    EXPECT_EQ(RegisterXferDLL(), 1);
}

std::string CatalogueText(const std::string &file, uint32_t number) {
    plat::ModuleHandle m =
        plat::LoadModule((test::BuildFolder() + "/share/zvxfer/" + file).c_str());
    char text[256] = "";
    plat::LoadString(m, number, text, sizeof text);
    plat::FreeModule(m);
    return text;
}

TEST_F(RegisterTest, BuildTreeRegistrationFollowsTheLanguage) {
    ScopedEnv env;
    TempDir emptyConfig;
    env.Set("ZVXFER_REGISTRY_DIR", std::nullopt)
        .Set("XDG_CONFIG_HOME", emptyConfig.Path().string());
    std::string german = CatalogueText("zvui32.deu.nls", 28258);
    std::string english = CatalogueText("zvui32.eng.nls", 28258);
    ASSERT_FALSE(german.empty());
    ASSERT_NE(german, english);

    test::UseLanguage(env, "de_DE.UTF-8");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_EQ(MessageText(28258), german);

    Restart();
    test::UseLanguage(env, "en_US.UTF-8");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_EQ(MessageText(28258), english);
}

} // namespace
} // namespace zvxfer
