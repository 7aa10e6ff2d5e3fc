// The registry files, the language choice, catalogue files (the shipped ones
// too), message texts in the chosen language with their fallback,
// registration, and the debug log.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "locale/locale.h"
#include "locale/message_args.h"
#include "platform/debugout.h"
#include "platform/localtime.h"
#include "platform/module.h"
#include "platform/registry.h"
#include "platform/uilang.h"
#include "temp_tree.h"
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

// A registry of its own (<dir>/user for HKCU, <dir>/machine for the rest),
// selected through ZVXFER_REGISTRY_DIR while the object lives.
struct TestRegistry {
    test::TempTree dir;
    ScopedEnv env;
    std::string user, machine;
    TestRegistry() { env.Set("ZVXFER_REGISTRY_DIR", dir.Folder().c_str()); }
    // One "ROOT\tkey\tname\tdata" line: HKCU to the user file, the rest to the machine file.
    void Add(const std::string &line) {
        (line.starts_with("HKCU") ? user : machine) += line + "\n";
        dir.File("user", user);
        dir.File("machine", machine);
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
            Add(v.substr(0, 4) + "\t" + kLocaleKey + "\t" + names.at(v.substr(5, eq - 5)) + "\t" +
                v.substr(eq + 1));
        }
    }
};

TEST(Registry, FilesRootsAndMatching) {
    TestRegistry reg;
    reg.dir.File("user", "HKCU\tBOTH\tV\tuser\nHKCU\tParent\\Child\tV\tchild\n");
    reg.dir.File("machine", "# comment\tHKLM\tBoth\tV\tcomment\n\n"
                            "HKLM\tBoth\tV\tmachine\r\n"
                            "HKLM\tboth\tv\tsecond\n"
                            "HKLM\tBoth\t\tdefault\twith tab\n"
                            "HKLM\tParent\tV\tparent\n"
                            "HKLM\tPar\tV\tpar\n");
    struct {
        const char *key, *name;
        uint32_t flags;
        const char *want;
    } cases[] = {
        {"both", "v", 0, "user"}, // names match without regard to case
        {"Both", "V", kRegLocalMachineOnly, "machine"},
        {"Both", "V", kRegLocalMachineFirst, "machine"},
        {"Both", nullptr, kRegLocalMachineOnly, "default\twith tab"},
        {"Parent\\Child", "V", kRegLocalMachineFirst, "child"},
        {"Parent\\Child", "V", kRegLocalMachineOnly, "error 2"},
        {"Parent", "V", 0, "error 2"}, // a parent of a named key opens: the first root that has it
        {"Par", "V", 0, "par"},        // a mere prefix does not
    };
    for (auto &c : cases) {
        char buffer[32] = "";
        int32_t r = ReadRegistryString(c.key, c.name, buffer, sizeof buffer, c.flags);
        EXPECT_EQ(r == 0 ? std::string(buffer) : "error " + std::to_string(r), c.want)
            << c.key << " " << (c.name ? c.name : "") << " " << c.flags;
    }
    char small[8];
    EXPECT_EQ(ReadRegistryString("Both", "V", small, 7, kRegLocalMachineOnly),
              plat::kErrorMoreData);
    EXPECT_EQ(ReadRegistryString("Both", "V", small, 8, kRegLocalMachineOnly), 0);
    // Without ZVXFER_REGISTRY_DIR the user's file is under the config folder.
    reg.env.Set("ZVXFER_REGISTRY_DIR", nullptr).Set("HOME", reg.dir.Folder().c_str());
    reg.dir.File(".config/zvxfer/registry", "HKCU\tS\tWho\thome\n");
    reg.dir.File("xdg/zvxfer/registry", "HKCU\tS\tWho\txdg\n");
    for (const char *xdg : {"", "xdg"}) {
        reg.env.Set("XDG_CONFIG_HOME", *xdg ? reg.dir.Path(xdg).c_str() : nullptr);
        EXPECT_EQ(ReadRegistryString("S", "Who", small, sizeof small, 0), 0);
        EXPECT_STREQ(small, *xdg ? "xdg" : "home");
    }
}

TEST(LanguageChoice, FromTheLocaleKeyAndTheUserLanguage) {
    const char *cases[][3] = {
        // values of the locale key, the user's environment, the code chosen
        {"", "LANG=de_DE", "error 1627"},
        {"HKLM avail=deu eng", "", ".eng"},
        {"HKLM avail=eng deu fra", "LC_ALL= LC_MESSAGES=fr_CA LANG=de_DE", ".fra"},
        {"HKLM avail=deu fra eng", "LC_ALL=POSIX LC_MESSAGES=fr_CA", ".eng"},
        {"HKLM avail=eng esp jpn", "LC_ALL=es_ES", ".esp"},
        {"HKLM avail=eng esp jpn", "LANG=ja_JP.eucJP@x", ".jpn"},
        {"HKLM avail=fra\teng", "LANG=nl_NL", ".fra"}, // not listed, no global default: the first
        {"HKLM avail=eng deu fra|HKLM default=fra|HKLM method=7", "LANG=de_AT", ".deu"}, // method 0
        {"HKLM avail=eng deu fra|HKLM default=fra|HKLM method=1", "LANG=de_DE", ".fra"},
        {"HKLM avail=eng deu fra|HKLM default=fra|HKLM method=1|HKCU method=0", "LANG=de", ".deu"},
        {"HKLM avail=eng deu fra|HKLM method=0|HKCU method=1|HKCU default=fra", "LANG=de", ".fra"},
        {"HKLM avail=fra deu|HKLM default=ita|HKLM method=1|HKLM global=deu", "LANG=de", ".deu"},
        {"HKLM avail=  fra deu|HKLM default=ita|HKLM method=1|HKLM global=jpn", "LANG=de", ".fra"},
        {"HKLM avail=eng .jpn|HKLM default=.jpn|HKLM method=1", "LANG=de", ".jpn"}, // no second dot
    };
    for (auto &c : cases) {
        SCOPED_TRACE(std::string(c[0]) + " " + c[1]);
        TestRegistry reg;
        reg.Locale(c[0]);
        UseLanguage(reg.env, nullptr);
        std::istringstream in(c[1]);
        for (std::string v; in >> v;)
            reg.env.Set(v.substr(0, v.find('=')).c_str(), v.c_str() + v.find('=') + 1);
        char out[260] = "unchanged";
        int32_t r = GetUILanguageCode(kLocaleKey, out, sizeof out);
        EXPECT_EQ(r == 0 ? std::string(out) : "error " + std::to_string(r), c[2]);
    }
}

TEST(LanguageChoice, LocalizedNameIsLowerCasedWithTheCodeBeforeNls) {
    char out[16] = "";
    ASSERT_EQ(MakeLocalizedName(out, "/A.NLS.d/Z.nls", ".deu", sizeof out), 0);
    EXPECT_STREQ(out, "/a.deu.nls"); // cut at the first ".nls"
    // A name cut short would name another file: refused.
    EXPECT_EQ(MakeLocalizedName(out, "zvui32.nls", ".eng", 14), kErrorFunctionFailed);
}

TEST(Catalogues, EveryLanguageHasEveryMessageWithItsArguments) {
    // Supported conversions as length and letter; the unsupported ones as '?'.
    EXPECT_EQ(FormatConversions("%-3d, %+5.3ld%% %lld%hhx%zu%c%s"), "dldlldhhxzucs");
    EXPECT_EQ(FormatConversions("%*d %1$s %n, ends in %"), "????");

    const char *source = std::getenv("ZVXFER_SOURCE_DIR");
    ASSERT_NE(source, nullptr) << "run through ctest";
    fs::path folder = fs::path(source) / "catalogues";
    // The four shipped files must be there; any other language added is checked too.
    std::set<std::string> names{"zvui32.nls", "zvui32.eng.nls", "zvui32.deu.nls", "zvui32.fra.nls"};
    for (const auto &entry : fs::directory_iterator(folder))
        if (entry.path().extension() == ".nls") names.insert(entry.path().filename().string());
    plat::ModuleHandle english = plat::LoadModule((folder / "zvui32.eng.nls").c_str());
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        // No text for a number the library has no message for (a mistyped
        // number, or a message taken out of the table but left here).
        std::ifstream lines(folder / name);
        int numbered = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.empty() || line[0] == '#') continue;
            ++numbered;
            int32_t number = std::atoi(line.substr(0, line.find('\t')).c_str());
            EXPECT_NE(ExpectedConversions(number), nullptr) << "text for no message: " << line;
        }
        EXPECT_EQ(numbered, static_cast<int>(kMessageArguments.size()));
        plat::ModuleHandle m = plat::LoadModule((folder / name).c_str());
        for (const MessageArguments &message : kMessageArguments) {
            SCOPED_TRACE(message.name);
            char text[400] = "", eng[400] = "";
            int length = plat::LoadString(m, message.number, text, sizeof text);
            EXPECT_EQ(FormatConversions(text), message.conversions) << text;
            EXPECT_TRUE(length > 0 && length <= 255) << message.number;
            plat::LoadString(english, message.number, eng, sizeof eng);
            // The unlocalised catalogue is the English one.
            EXPECT_TRUE(name != "zvui32.nls" || std::string(text) == eng) << text << " " << eng;
        }
        plat::FreeModule(m);
    }
    plat::FreeModule(english);
}

TEST(MessageTable, EachNumberIsWrittenOnceInTheLibrary) {
    // The library names its messages; a number written anywhere but the
    // table could drift from it.  Count every number of the table as it
    // appears in the library's code and comments (digit runs, whole).
    const char *source = std::getenv("ZVXFER_SOURCE_DIR");
    ASSERT_NE(source, nullptr) << "run through ctest";
    std::map<int32_t, std::vector<std::string>> seen;
    for (const MessageArguments &message : kMessageArguments) seen[message.number];
    const std::regex number("(?:^|[^A-Za-z_0-9])([0-9]{5})(?![0-9])"); // whole five-digit runs
    int files = 0;
    for (const auto &entry : fs::recursive_directory_iterator(fs::path(source) / "src")) {
        const std::string extension = entry.path().extension().string();
        if (extension != ".h" && extension != ".cpp") continue;
        ++files;
        std::ifstream in(entry.path());
        const std::string where = fs::relative(entry.path(), source).string();
        int lineNumber = 0;
        for (std::string line; std::getline(in, line);) {
            ++lineNumber;
            for (std::sregex_iterator m(line.begin(), line.end(), number), end; m != end; ++m) {
                auto it = seen.find(std::stoi((*m)[1]));
                if (it != seen.end())
                    it->second.push_back(where + ":" + std::to_string(lineNumber));
            }
        }
    }
    EXPECT_GT(files, 50) << "the library's sources were not found";
    for (const auto &[number, places] : seen) {
        std::string all;
        for (const std::string &place : places) all += " " + place;
        EXPECT_TRUE(places.size() == 1 && places[0].starts_with("src/locale/messages.h:"))
            << number << " is written at" << (all.empty() ? " no place" : all);
    }
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
        reg_.Add("HKCR\t" + std::string(kComponentKey) + "\t\t" +
                 reg_.dir.Path("Zv/Lib/ZvXfer.so"));
    }
    void TearDown() override { Restart(); }
    static void Restart() {
        UnregisterXferDLL();
        ResetMessageCache();
    }
    // Write the unlocalised catalogue and load it again (the cache keeps its texts).
    void Catalogue(const std::string &lines) {
        reg_.dir.File("Zv/Lib/zvui32.nls", lines);
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
    Catalogue("# a comment\t2\n\n"
              "1\tB1\r\n"
              "1\tsecond definition is ignored\n"
              "2\tB2\n3\tB3\n4\tB4\n"
              "5x\tnot a number\n"
              "28285\tblock %s\n" // the library passes one long: counts as missing
              "28286\t  CRC error %ld \n"
              "28258\tdone 100%\n" // a lone '%' is no valid text
              "28259\tdone 100%%\n"
              "7\tnot a library message %s\n");
    EXPECT_STREQ(MessageText(2), "A2");
    EXPECT_STREQ(MessageText(4), "B4"); // takes the slot of 1
    EXPECT_STREQ(first, "B4");
    EXPECT_STREQ(MessageText(1), "B1");
    EXPECT_STREQ(MessageText(28286), "  CRC error %ld ");
    EXPECT_STREQ(MessageText(28259), "done 100%%");
    for (int missing : {28285, 28258, 7, 5}) EXPECT_EQ(MessageText(missing), Fallback(missing));
    // A missing number is looked up again each time, never served from a slot.
    Catalogue("5\tB5\n");
    EXPECT_STREQ(MessageText(5), "B5");
    EXPECT_EQ(MessageText(-1), Fallback(-1)); // not the text of a slot marked missing
    char small[2];
    MessageTextCopy(5, small, sizeof small); // cut to the buffer
    EXPECT_STREQ(small, "B");
}

// The host's copy of a catalogue text: the text, or -1 when the catalogue
// has none (never the fallback text a status line would show).
TEST_F(MessageTextTest, HostCopyTellsAMissingTextFromAPresentOne) {
    Catalogue("28263\tcancelled\n28285\tblock %s\n7\tseven\n");
    char text[64] = "untouched";
    EXPECT_EQ(ZvMessageText(28263, text, sizeof text), 9);
    EXPECT_STREQ(text, "cancelled");
    char small[4];
    EXPECT_EQ(ZvMessageText(28263, small, sizeof small), 3);
    EXPECT_STREQ(small, "can");
    for (int32_t missing : {28285, 28264, 0, -1}) {
        std::snprintf(text, sizeof text, "untouched");
        EXPECT_EQ(ZvMessageText(missing, text, sizeof text), -1) << missing;
        EXPECT_STREQ(text, "") << missing;
    }
    // After a missing lookup marked a slot, a present number is still found.
    EXPECT_EQ(ZvMessageText(7, text, sizeof text), 5);
    EXPECT_STREQ(text, "seven");
    EXPECT_EQ(ZvMessageText(7, nullptr, 8), -1);
    EXPECT_EQ(ZvMessageText(7, text, 0), -1);
}

TEST_F(MessageTextTest, CopiesFromSeveralThreadsNeverMix) {
    Catalogue("1\ttext 1\n2\ttext 2\n3\ttext 3\n4\ttext 4\n5\ttext 5\n");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &wrong] {
            for (int i = 0, n = 1 + t; i < 20000; ++i, n = 1 + (n + 2) % 5) {
                char copy[16];
                MessageTextCopy(n, copy, sizeof copy);
                wrong += std::string(copy) != "text " + std::to_string(n);
            }
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(MessageTextTest, RegistrationLoadsOnceInTheUsersLanguage) {
    reg_.Locale("HKLM avail=eng deu jpn");
    reg_.dir.File("Zv/Lib/zvui32.deu.nls", "28258\tdeutsch\n");
    // Registered, but no catalogue in the folder: failure, and every number has a text.
    UseLanguage(reg_.env, "ja_JP.UTF-8");
    EXPECT_EQ(RegisterXferDLL(), 1);
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    // Japanese is listed but not installed: the unlocalised catalogue.
    Catalogue("28258\tplain\n");
    EXPECT_STREQ(MessageText(28258), "plain");
    // The folder differs in case from the lower-cased localised name.
    Restart();
    UseLanguage(reg_.env, "de_CH.UTF-8");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "deutsch");
    // Loaded once: registering again reads nothing until unregistered.
    reg_.dir.File("Zv/Lib/zvui32.deu.nls", "28258\tneu\n");
    EXPECT_EQ(RegisterXferDLL(), 0);
    ResetMessageCache();
    EXPECT_STREQ(MessageText(28258), "deutsch");
    Restart();
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_STREQ(MessageText(28258), "neu");
    Restart();
    TestRegistry empty; // not registered at all: nothing is loaded, and that is no failure
    EXPECT_EQ(RegisterXferDLL(), 0);
}

// The registered component path is cut at its last '\' or '/', whichever
// comes last, as a Windows registry writes it with '\'.
TEST_F(MessageTextTest, TheRegisteredPathIsCutAtItsLastSeparatorOfEitherKind) {
    reg_.Locale("HKLM avail=deu");
    UseLanguage(reg_.env, "de_DE.UTF-8");
    const std::string root = reg_.dir.Folder();
    struct Case {
        std::string registered;
        const char *folder; // where the catalogue lies
    } cases[] = {
        {root + "Zv\\Win\\ZvXfer.dll", "Zv/Win"},
        {root + "Zv/Mixed\\ZvXfer.dll", "Zv/Mixed"},
        {root + "Zv\\Mixed/Sub/ZvXfer.dll", "Zv/Mixed/Sub"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.registered);
        reg_.dir.File(std::string(c.folder) + "/zvui32.deu.nls",
                      std::string("28258\t") + c.folder + "\n");
        TestRegistry registry;
        registry.Locale("HKLM avail=deu");
        registry.Add("HKCR\t" + std::string(kComponentKey) + "\t\t" + c.registered);
        Restart();
        ASSERT_EQ(RegisterXferDLL(), 0);
        EXPECT_STREQ(MessageText(28258), c.folder);
    }
}

TEST(DebugLog, StampedTextToTheSinkOrTheNamedFile) {
    static std::vector<std::string> lines;
    lines.clear();
    ZvSetDebugOutput([](const char *text) { lines.emplace_back(text); });
    plat::SetLocalTimeSource([] { return plat::TimeOfDay{9, 5, 3, 7}; });
    std::string longest(23997, 'k');
    DebugLog(42, "%s %d %ld %c\n", "rpacket", -3, 123456789L, 'Y');
    DebugLog(0, "%s", longest.c_str()); // no line end added
    EXPECT_TRUE(lines == (std::vector<std::string>{"09:05:03.007 rpacket -3 123456789 Y\n",
                                                   "09:05:03.007 " + longest}))
        << lines.size() << " lines, the first: " << (lines.empty() ? "" : lines[0]);
    EXPECT_DEATH(DebugLog(0, "%sk", longest.c_str()), "String passed to DebugPrintf is too long!");
    // Without a sink the text goes to the file ZVXFER_DEBUG names, if any.
    ZvSetDebugOutput(nullptr);
    ScopedEnv env;
    test::TempTree dir;
    env.Set("ZVXFER_DEBUG", dir.Path("log").c_str());
    DebugLog(0, "kept\n");
    plat::SetLocalTimeSource(nullptr);
    std::ostringstream text;
    text << std::ifstream(dir.Path("log")).rdbuf();
    EXPECT_EQ(text.str(), "09:05:03.007 kept\n");
}

} // namespace
} // namespace zvxfer
