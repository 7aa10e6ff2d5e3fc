// The registry files, the language choice, catalogue files (the shipped ones
// too), message texts in the chosen language with their fallback,
// registration, and the debug log.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "locale/locale.h"
#include "locale/message_args.h"
#include "platform/debugout.h"
#include "platform/localtime.h"
#include "platform/registry.h"
#include "platform/uilang.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

namespace fs = std::filesystem;

// Environment variables set (nullptr: removed) for one scope.
struct ScopedEnv {
    std::vector<std::pair<std::string, std::optional<std::string>>> saved;
    ScopedEnv &Set(const char *name, const char *value) {
        const char *old = std::getenv(name);
        saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        value ? setenv(name, value, 1) : unsetenv(name);
        return *this;
    }
    ~ScopedEnv() {
        for (auto it = saved.rbegin(); it != saved.rend(); ++it)
            it->second ? setenv(it->first.c_str(), it->second->c_str(), 1)
                       : unsetenv(it->first.c_str());
    }
};

void UseLanguage(ScopedEnv &env, const char *lang) {
    env.Set("LC_ALL", nullptr).Set("LC_MESSAGES", nullptr).Set("LANG", lang);
}

struct TempDir {
    std::string path;
    TempDir() {
        path = (fs::temp_directory_path() / "zvxfer-locale-XXXXXX").string();
        EXPECT_NE(mkdtemp(path.data()), nullptr);
    }
    ~TempDir() { fs::remove_all(path); }
    std::string operator/(const std::string &name) const { return path + "/" + name; }
};

void WriteText(const fs::path &file, const std::string &text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

// A registry of its own (<dir>/user for HKCU, <dir>/machine for the rest),
// selected through ZVXFER_REGISTRY_DIR while the object lives.
struct TestRegistry {
    TempDir dir;
    ScopedEnv env;
    std::string user, machine;
    TestRegistry() { env.Set("ZVXFER_REGISTRY_DIR", dir.path.c_str()); }
    void Add(const std::string &root, const std::string &key, const std::string &name,
             const std::string &data) {
        (root == "HKCU" ? user : machine) += root + "\t" + key + "\t" + name + "\t" + data + "\n";
        WriteText(dir / "user", user);
        WriteText(dir / "machine", machine);
    }
    // "HKLM avail=eng deu|HKCU method=1": values of the locale key.
    void Locale(const std::string &values) {
        static const std::map<std::string, std::string> names{
            {"avail", "Available UI Languages"},
            {"method", "Language Search Method"},
            {"default", "Default UI Language"},
            {"global", "Global Default UI Language"}};
        std::istringstream in(values);
        for (std::string v; std::getline(in, v, '|');) {
            auto eq = v.find('=');
            Add(v.substr(0, 4), kLocaleKey, names.at(v.substr(5, eq - 5)), v.substr(eq + 1));
        }
    }
};

TEST(Registry, FilesRootsAndMatching) {
    TestRegistry reg;
    WriteText(reg.dir / "user", "HKCU\tBOTH\tV\tuser\n"
                                "HKCU\tUser\tV\tuser\n"
                                "HKCU\tParent\\Child\tV\tchild\n");
    WriteText(reg.dir / "machine", "# comment\tHKLM\tBoth\tV\tcomment\n\n"
                                   "HKLM\tBoth\tV\tmachine\r\n"
                                   "HKLM\tboth\tv\tsecond\n"
                                   "HKLM\tBoth\tMachineOnly\tm\n"
                                   "HKLM\tBoth\t\tdefault\twith tab\n"
                                   "HKLM\tMachine\tV\tmachine\n"
                                   "HKLM\tParent\tV\tparent\n"
                                   "HKLM\tPar\tV\tpar\n");
    const uint32_t cuOnly = kRegCurrentUserOnly, lmOnly = kRegLocalMachineOnly;
    struct {
        const char *key, *name;
        uint32_t flags;
        const char *want;
    } cases[] = {
        {"both", "v", 0, "user"}, // names match without regard to case
        {"Both", "V", lmOnly, "machine"},
        {"Both", "V", kRegLocalMachineFirst, "machine"},
        {"Both", "V", cuOnly | lmOnly, "user"},
        {"Both", nullptr, lmOnly, "default\twith tab"},
        {"Both", "MachineOnly", 0, "error 2"}, // only the first root that has the key is read
        {"Machine", "V", 0, "machine"},
        {"Machine", "V", cuOnly, "error 2"},
        {"User", "V", kRegLocalMachineFirst, "user"},
        {"User", "V", lmOnly, "error 2"},
        {"Parent", "V", 0, "error 2"}, // a parent of a named key opens, with no values
        {"Par", "V", 0, "par"},        // a mere prefix does not
    };
    for (auto &c : cases) {
        char buffer[32] = "";
        int32_t r = ReadRegistryString(c.key, c.name, buffer, sizeof buffer, c.flags);
        EXPECT_EQ(r == 0 ? std::string(buffer) : "error " + std::to_string(r), c.want)
            << c.key << " " << (c.name ? c.name : "") << " " << c.flags;
    }
    char small[8];
    EXPECT_EQ(ReadRegistryString("Both", "V", small, 7, lmOnly), plat::kErrorMoreData);
    EXPECT_EQ(ReadRegistryString("Both", "V", small, 8, lmOnly), 0);

    // Without ZVXFER_REGISTRY_DIR the user's file is under the config folder.
    ScopedEnv env;
    TempDir config, home;
    env.Set("ZVXFER_REGISTRY_DIR", nullptr).Set("XDG_CONFIG_HOME", config.path.c_str());
    WriteText(config / "zvxfer/registry", "HKCU\tS\tWho\txdg\n");
    EXPECT_EQ(ReadRegistryString("S", "Who", small, sizeof small, cuOnly), 0);
    EXPECT_STREQ(small, "xdg");
    env.Set("XDG_CONFIG_HOME", nullptr).Set("HOME", home.path.c_str());
    WriteText(home / ".config/zvxfer/registry", "HKCU\tS\tWho\thome\n");
    EXPECT_EQ(ReadRegistryString("S", "Who", small, sizeof small, cuOnly), 0);
    EXPECT_STREQ(small, "home");
}

TEST(LanguageChoice, FromTheLocaleKeyAndTheUserLanguage) {
    const char *cases[][3] = {
        {"", "de_DE", "error 1627"},
        {"HKLM avail=eng deu", "de_DE", ".deu"},
        {"HKLM avail=fra\teng", "nl_NL", ".fra"}, // not listed, no global default: the first
        {"HKLM avail=fra\teng|HKLM global=eng", "nl_NL", ".eng"},
        {"HKLM avail=eng deu fra|HKLM default=fra|HKLM method=7", "de_AT", ".deu"}, // method 0
        {"HKLM avail=eng deu fra|HKLM default=fra|HKLM method=1", "de_DE", ".fra"},
        {"HKLM avail=eng deu fra|HKLM default=fra|HKLM method=1|HKCU method=0", "de_DE", ".deu"},
        {"HKLM avail=eng deu fra|HKLM method=0|HKCU method=1|HKCU default=fra", "de_DE", ".fra"},
        {"HKLM avail=fra deu|HKLM default=ita|HKLM method=1|HKLM global=deu", "de_DE", ".deu"},
        {"HKLM avail=  fra deu|HKLM default=ita|HKLM method=1|HKLM global=jpn", "de_DE", ".fra"},
        {"HKLM avail=eng .jpn|HKLM default=.jpn|HKLM method=1", "de_DE", ".jpn"}, // no second dot
    };
    ScopedEnv env;
    for (auto &c : cases) {
        SCOPED_TRACE(std::string(c[0]) + " " + c[1]);
        TestRegistry reg;
        reg.Locale(c[0]);
        UseLanguage(env, c[1]);
        char out[260] = "unchanged";
        int32_t r = GetUILanguageCode(kLocaleKey, out, sizeof out);
        EXPECT_EQ(r == 0 ? std::string(out) : "error " + std::to_string(r), c[2]);
    }
    TestRegistry reg;
    reg.Locale("HKLM avail=eng fra");
    UseLanguage(env, "fr_FR.UTF-8");
    char small[3] = "xx";
    ASSERT_EQ(GetUILanguageCode(kLocaleKey, small, sizeof small), 0);
    EXPECT_STREQ(small, ".f");
    EXPECT_EQ(GetUILanguageCode(kLocaleKey, small, 0), kErrorFunctionFailed);
}

TEST(LanguageChoice, UserLanguageFromTheEnvironment) {
    const char *cases[][4] = {
        // LC_ALL, LC_MESSAGES, LANG, the language code of the identifier
        {nullptr, nullptr, nullptr, "eng"},        {nullptr, nullptr, "de_DE.UTF-8", "deu"},
        {"", "fr_CA.UTF-8", "de_DE.UTF-8", "fra"}, // an empty variable does not count
        {"POSIX", "fr_CA.UTF-8", nullptr, "eng"},  {"pt_BR", nullptr, nullptr, "prt"},
        {"es_ES", nullptr, nullptr, "esp"},        {"ja_JP.eucJP@x", nullptr, nullptr, "jpn"},
        {"nl_NL", nullptr, nullptr, "NOLANGUAGE"},
    };
    ScopedEnv env;
    for (auto &c : cases) {
        env.Set("LC_ALL", c[0]).Set("LC_MESSAGES", c[1]).Set("LANG", c[2]);
        EXPECT_STREQ(LanguageCodeFromLangId(plat::GetUserDefaultUILanguage()), c[3]);
    }
}

TEST(LanguageChoice, LocalizedNameIsLowerCasedWithTheCodeBeforeNls) {
    char out[16] = "";
    ASSERT_EQ(MakeLocalizedName(out, "/A.NLS.d/ZVUI32.nls", ".deu", sizeof out), 0);
    EXPECT_STREQ(out, "/a.deu.nls"); // cut at the first ".nls"
    EXPECT_EQ(MakeLocalizedName(out, "ZVUI32.NLS", ".eng", 15), 0);
    EXPECT_STREQ(out, "zvui32.eng.nls");
    // A name cut short would name another file: refused.
    EXPECT_EQ(MakeLocalizedName(out, "zvui32.nls", ".eng", 14), kErrorFunctionFailed);
    EXPECT_EQ(MakeLocalizedName(out, "/opt/zvui32.dll", ".eng", sizeof out), kErrorFunctionFailed);
}

TEST(Catalogues, EveryLanguageHasEveryMessageWithItsArguments) {
    const char *cases[][2] = {{"%-3d, %+5.3ld%%", "dld"},
                              {"%lld %hhx %zu%c%s", "lldhhxzucs"},
                              {"width %*d", "?"},
                              {"%1$s", "?"},
                              {"%n", "?"},
                              {"ends in %", "?"}};
    for (auto &c : cases) EXPECT_EQ(FormatConversions(c[0]), c[1]) << c[0];

    const char *source = std::getenv("ZVXFER_SOURCE_DIR");
    ASSERT_NE(source, nullptr) << "run through ctest";
    fs::path folder = fs::path(source) / "catalogues";
    // The four shipped files must be there; any other language added is checked too.
    std::set<std::string> names{"zvui32.nls", "zvui32.eng.nls", "zvui32.deu.nls", "zvui32.fra.nls"};
    for (const auto &entry : fs::directory_iterator(folder))
        if (entry.path().extension() == ".nls") names.insert(entry.path().filename().string());
    std::map<std::string, std::map<int32_t, std::string>> all;
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        std::ifstream in(folder / name);
        EXPECT_TRUE(in);
        auto &texts = all[name];
        for (std::string line; std::getline(in, line);) {
            auto tab = line.find('\t');
            if (line.empty() || line[0] == '#' || tab == std::string::npos) continue;
            int32_t number = std::stoi(line.substr(0, tab));
            EXPECT_NE(ExpectedConversions(number), nullptr) << "unused number " << number;
            EXPECT_TRUE(texts.emplace(number, line.substr(tab + 1)).second) << "repeats " << line;
        }
        for (const MessageArguments &message : kMessageArguments) {
            const std::string &text = texts[message.number];
            EXPECT_EQ(FormatConversions(text), message.conversions)
                << message.number << " " << text;
            EXPECT_TRUE(!text.empty() && text.size() <= 255) << message.number;
        }
    }
    EXPECT_EQ(all["zvui32.nls"], all["zvui32.eng.nls"]); // the unlocalised one is English
}

std::string Fallback(int number) {
    return "Unable to find string " + std::to_string(number) + ". Internal Error!";
}

// Each test starts with no catalogue and an empty text cache, and gets a
// registry whose component key names a file in a temporary folder.
class MessageTextTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Restart();
        reg_.Add("HKCR", kComponentKey, "", reg_.dir / "Zv/Lib/ZvXfer.so");
    }
    void TearDown() override { Restart(); }
    static void Restart() {
        UnregisterXferDLL();
        ResetMessageCache();
    }
    // Write the unlocalised catalogue and load it again (the cache keeps its texts).
    void Catalogue(const std::string &lines) {
        WriteText(reg_.dir / "Zv/Lib/zvui32.nls", lines);
        UnregisterXferDLL();
        ASSERT_EQ(RegisterXferDLL(), 0);
    }
    TestRegistry reg_;
};

TEST_F(MessageTextTest, TextsStayValidForTwoFurtherLookups) {
    Catalogue("1\tA1\n2\tA2\n3\tA3\n4\tA4\n");
    const char *first = MessageText(1);
    EXPECT_STREQ(MessageText(2), "A2");
    EXPECT_STREQ(MessageText(3), "A3");
    EXPECT_STREQ(first, "A1");
    // Cached numbers keep their texts; only a new lookup reads the new catalogue.
    Catalogue("1\tB1\n2\tB2\n3\tB3\n4\tB4\n");
    EXPECT_STREQ(MessageText(2), "A2");
    EXPECT_STREQ(MessageText(4), "B4"); // takes the slot of 1
    EXPECT_STREQ(first, "B4");
    EXPECT_STREQ(MessageText(3), "A3");
    EXPECT_STREQ(MessageText(1), "B1");
    // A missing number is looked up again each time, never served from a slot.
    EXPECT_EQ(MessageText(99), Fallback(99));
    Catalogue("99\tB99\n");
    EXPECT_STREQ(MessageText(99), "B99");
    EXPECT_EQ(MessageText(-1), Fallback(-1)); // not the text of a slot marked missing
}

TEST_F(MessageTextTest, CatalogueLinesAndTextsThatDoNotFitTheirArguments) {
    Catalogue("# a comment\t28260\n\n"
              "28285\tblock %s\n" // the library passes one long
              "28286\tCRC error %ld\r\n"
              "28286\tsecond definition is ignored\n"
              "28258\tdone 100%\n" // a lone '%' is no valid text
              "28259\t  done 100%% \n"
              "28260x\tnot a number %s\n"
              "5\tnot a library message %s\n");
    EXPECT_EQ(MessageText(28285), Fallback(28285));
    EXPECT_STREQ(MessageText(28286), "CRC error %ld");
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    EXPECT_STREQ(MessageText(28259), "  done 100%% ");
    EXPECT_EQ(MessageText(28260), Fallback(28260));
    EXPECT_EQ(MessageText(5), Fallback(5));
}

TEST_F(MessageTextTest, CopiesFromSeveralThreadsNeverMix) {
    Catalogue("1\ttext 1\n2\ttext 2\n3\ttext 3\n4\ttext 4\n5\ttext 5\n");
    char small[5];
    MessageTextCopy(1, small, sizeof small);
    EXPECT_STREQ(small, "text");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &wrong] {
            for (int i = 0, n = 1 + t; i < 2000; ++i, n = 1 + (n + 2) % 5) {
                char copy[16];
                MessageTextCopy(n, copy, sizeof copy);
                wrong += std::string(copy) != "text " + std::to_string(n);
            }
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(MessageTextTest, RegistrationLoadsOnceInTheUsersLanguage) {
    ScopedEnv env;
    reg_.Locale("HKLM avail=eng deu jpn");
    WriteText(reg_.dir / "Zv/Lib/zvui32.deu.nls", "28258\tdeutsch\n");
    // Registered, but no catalogue in the folder: failure, and every number has a text.
    UseLanguage(env, "ja_JP.UTF-8");
    EXPECT_EQ(RegisterXferDLL(), 1);
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    // Japanese is listed but not installed: the unlocalised catalogue.
    Catalogue("28258\tplain\n");
    EXPECT_STREQ(MessageText(28258), "plain");
    // The folder differs in case from the lower-cased localised name.
    Restart();
    UseLanguage(env, "de_CH.UTF-8");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "deutsch");
    // Loaded once: registering again reads nothing until unregistered.
    WriteText(reg_.dir / "Zv/Lib/zvui32.deu.nls", "28258\tneu\n");
    EXPECT_EQ(RegisterXferDLL(), 0);
    ResetMessageCache();
    EXPECT_STREQ(MessageText(28258), "deutsch");
    Restart();
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "neu");
    // A registered name without a folder: nothing beside it can be found.
    Restart();
    TestRegistry bare;
    bare.Add("HKCR", kComponentKey, "", "libzvxfer.so");
    EXPECT_EQ(RegisterXferDLL(), 1);
    TestRegistry empty; // not registered at all: nothing is loaded, and that is no failure
    EXPECT_EQ(RegisterXferDLL(), 0);
}

std::vector<std::string> gLines;

TEST(DebugLog, StampedTextToTheSinkOrTheNamedFile) {
    ZvSetDebugOutput([](const char *text) { gLines.emplace_back(text); });
    plat::SetLocalTimeSource([] { return plat::TimeOfDay{9, 5, 3, 7}; });
    std::string longest(23997, 'k');
    DebugLog(0, "seof\n");
    DebugLog(42, "%s %d %ld %c", "rpacket", -3, 123456789L, 'Y');
    DebugLog(0, "%s", longest.c_str());
    plat::SetLocalTimeSource(nullptr);
    ZvSetDebugOutput(nullptr);
    ASSERT_EQ(gLines.size(), 3u);
    EXPECT_EQ(gLines[0], "09:05:03.007 seof\n");
    EXPECT_EQ(gLines[1], "09:05:03.007 rpacket -3 123456789 Y"); // no line end added
    EXPECT_EQ(gLines[2], "09:05:03.007 " + longest);
    EXPECT_DEATH(DebugLog(0, "%s", (longest + "k").c_str()),
                 "String passed to DebugPrintf is too long!");

    // Without a sink the text goes to the file ZVXFER_DEBUG names, if any.
    ScopedEnv env;
    TempDir dir;
    for (const char *name : {"", "one.log", "one.log", "two.log", ""}) {
        env.Set("ZVXFER_DEBUG", *name ? (dir / name).c_str() : nullptr);
        plat::OutputDebugString((std::string(name) + "\n").c_str());
    }
    std::ostringstream text;
    text << std::ifstream(dir / "one.log").rdbuf() << std::ifstream(dir / "two.log").rdbuf();
    EXPECT_EQ(text.str(), "one.log\none.log\ntwo.log\n");
}

} // namespace
} // namespace zvxfer
