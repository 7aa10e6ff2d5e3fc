// The file-backed registry and the root flags of ReadRegistryString.
#include <gtest/gtest.h>

#include <string>

#include "locale/locale.h"
#include "locale_test_env.h"
#include "platform/registry.h"

namespace zvxfer {
namespace {

using plat::RegRoot;
using test::ScopedEnv;
using test::TempDir;
using test::TestRegistry;

std::string Query(RegRoot root, const char *key, const char *name, int32_t *result = nullptr) {
    plat::RegKeyHandle handle = nullptr;
    int32_t r = plat::RegOpenKey(root, key, handle);
    char buffer[64] = "";
    if (r == 0) {
        r = plat::RegQueryString(handle, name, buffer, sizeof buffer);
        plat::RegCloseKey(handle);
    }
    if (result != nullptr) *result = r;
    return r == 0 ? std::string(buffer) : "error " + std::to_string(r);
}

TEST(Registry, FileFormatAndMatching) {
    TestRegistry reg;
    test::WriteText(reg.Dir().Path() / "machine",
                    "# comment line\tHKLM\tA\tB\tC\n"
                    "\n"
                    "HKLM\tSoftware\\Zv\\Sub\tName\tfirst\r\n"
                    "HKLM\tSoftware\\Zv\\Sub\tname\tsecond\n"
                    "HKLM\tSoftware\\Zv\\Sub\t\tdefault value\twith tab\n"
                    "HKLM\tbroken line without enough fields\n"
                    "HKCR\tCLSID\\{ABC}\\InprocServer32\t\t/opt/zv/lib/libzv.so\n");
    EXPECT_EQ(Query(RegRoot::LocalMachine, "SOFTWARE\\zv\\SUB", "NAME"), "first");
    EXPECT_EQ(Query(RegRoot::LocalMachine, "Software\\Zv\\Sub", ""), "default value\twith tab");
    EXPECT_EQ(Query(RegRoot::LocalMachine, "Software\\Zv\\Sub", nullptr),
              "default value\twith tab");
    EXPECT_EQ(Query(RegRoot::ClassesRoot, "clsid\\{abc}\\inprocserver32", ""),
              "/opt/zv/lib/libzv.so");
    // A parent key opens; its values are its own only.
    EXPECT_EQ(Query(RegRoot::LocalMachine, "Software\\Zv", "Name"), "error 2");
    plat::RegKeyHandle handle = nullptr;
    EXPECT_EQ(plat::RegOpenKey(RegRoot::LocalMachine, "Software\\Zv", handle), 0);
    plat::RegCloseKey(handle);
    // Keys that only share a prefix, other roots, missing keys.
    EXPECT_EQ(plat::RegOpenKey(RegRoot::LocalMachine, "Software\\Z", handle),
              plat::kErrorFileNotFound);
    EXPECT_EQ(plat::RegOpenKey(RegRoot::CurrentUser, "Software\\Zv\\Sub", handle),
              plat::kErrorFileNotFound);
    EXPECT_EQ(handle, nullptr);

    plat::RegOpenKey(RegRoot::LocalMachine, "Software\\Zv\\Sub", handle);
    char small[5] = "xxxx";
    EXPECT_EQ(plat::RegQueryString(handle, "Name", small, sizeof small), plat::kErrorMoreData);
    char exact[6];
    EXPECT_EQ(plat::RegQueryString(handle, "Name", exact, sizeof exact), 0);
    EXPECT_STREQ(exact, "first");
    plat::RegCloseKey(handle);
}

TEST(Registry, DefaultFileLocations) {
    ScopedEnv env;
    TempDir config;
    env.Set("ZVXFER_REGISTRY_DIR", std::nullopt).Set("XDG_CONFIG_HOME", config.Path().string());
    test::WriteText(config.Path() / "zvxfer" / "registry", "HKCU\tSoftware\\Zv\tWho\txdg\n");
    EXPECT_EQ(Query(RegRoot::CurrentUser, "Software\\Zv", "Who"), "xdg");

    TempDir home;
    env.Set("XDG_CONFIG_HOME", std::nullopt).Set("HOME", home.Path().string());
    EXPECT_EQ(Query(RegRoot::CurrentUser, "Software\\Zv", "Who"), "error 2");
    test::WriteText(home.Path() / ".config" / "zvxfer" / "registry",
                    "HKCU\tSoftware\\Zv\tWho\thome\n");
    EXPECT_EQ(Query(RegRoot::CurrentUser, "Software\\Zv", "Who"), "home");
}

TEST(ReadRegistryString, RootFlags) {
    TestRegistry reg;
    reg.Add("HKCU", "Software\\Both", "V", "user");
    reg.Add("HKLM", "Software\\Both", "V", "machine");
    reg.Add("HKLM", "Software\\Both", "MachineOnly", "m");
    reg.Add("HKLM", "Software\\Machine", "V", "machine");
    reg.Add("HKCU", "Software\\User", "V", "user");

    auto read = [](const char *key, const char *name, uint32_t flags) {
        char buffer[32] = "";
        int32_t r = ReadRegistryString(key, name, buffer, sizeof buffer, flags);
        return r == 0 ? std::string(buffer) : "error " + std::to_string(r);
    };
    EXPECT_EQ(read("Software\\Both", "V", 0), "user");
    EXPECT_EQ(read("Software\\Both", "V", kRegCurrentUserOnly), "user");
    EXPECT_EQ(read("Software\\Both", "V", kRegLocalMachineOnly), "machine");
    EXPECT_EQ(read("Software\\Both", "V", kRegLocalMachineFirst), "machine");
    // The current-user bit wins over the others.
    EXPECT_EQ(read("Software\\Both", "V", kRegCurrentUserOnly | kRegLocalMachineOnly), "user");
    EXPECT_EQ(read("Software\\Both", "V", kRegLocalMachineOnly | kRegLocalMachineFirst), "machine");
    // The second root is tried only when the key is missing under the first.
    EXPECT_EQ(read("Software\\Both", "MachineOnly", 0), "error 2");
    EXPECT_EQ(read("Software\\Machine", "V", 0), "machine");
    EXPECT_EQ(read("Software\\User", "V", kRegLocalMachineFirst), "user");
    EXPECT_EQ(read("Software\\User", "V", kRegLocalMachineOnly), "error 2");
    EXPECT_EQ(read("Software\\Machine", "V", kRegCurrentUserOnly), "error 2");
}

} // namespace
} // namespace zvxfer
