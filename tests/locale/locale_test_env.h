// Test helpers for the locale tests: environment variables set for one test,
// temporary folders, registry files written into them, and catalogue files.
#pragma once
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace zvxfer::test {

// Sets (or, with nullopt, removes) environment variables and puts the old
// values back when it goes.
class ScopedEnv {
  public:
    ScopedEnv &Set(const char *name, std::optional<std::string> value) {
        const char *old = std::getenv(name);
        saved_.emplace_back(name, old != nullptr ? std::optional<std::string>(old) : std::nullopt);
        Apply(name, value);
        return *this;
    }
    ~ScopedEnv() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
            Apply(it->first.c_str(), it->second);
    }

  private:
    static void Apply(const char *name, const std::optional<std::string> &value) {
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "zvxfer-locale-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path &Path() const { return path_; }
    std::string operator/(const std::string &name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

inline void WriteText(const std::filesystem::path &file, const std::string &text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

// A registry of its own for one test: <dir>/user and <dir>/machine, selected
// through ZVXFER_REGISTRY_DIR while the object lives.
class TestRegistry {
  public:
    TestRegistry() { env_.Set("ZVXFER_REGISTRY_DIR", dir_.Path().string()); }
    // Lines of "ROOT\tkey\tname\tdata"; HKCU goes to the user file, the rest
    // to the machine file.
    void Add(const std::string &root, const std::string &key, const std::string &name,
             const std::string &data) {
        std::string &text = root == "HKCU" ? user_ : machine_;
        text += root + "\t" + key + "\t" + name + "\t" + data + "\n";
        WriteText(dir_.Path() / "user", user_);
        WriteText(dir_.Path() / "machine", machine_);
    }
    void Locale(const std::string &root, const std::string &name, const std::string &data) {
        Add(root, "Software\\Marrowind\\Tessera\\15.00\\Locale", name, data);
    }
    const TempDir &Dir() const { return dir_; }

  private:
    TempDir dir_;
    ScopedEnv env_;
    std::string user_, machine_;
};

// The interface language as the environment gives it.
inline void UseLanguage(ScopedEnv &env, const char *lang) {
    env.Set("LC_ALL", std::nullopt).Set("LC_MESSAGES", std::nullopt).Set("LANG", std::string(lang));
}

// The build folder that holds share/zvxfer and etc/zvxfer.
inline std::string BuildFolder() {
    if (const char *dir = std::getenv("ZVXFER_BINARY_DIR")) return dir;
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string path(exe, n > 0 ? static_cast<std::size_t>(n) : 0);
    return path.substr(0, path.rfind('/')) + "/..";
}

// The folder of the catalogue sources (the build's copies when unknown).
inline std::string CatalogueFolder() {
    if (const char *dir = std::getenv("ZVXFER_SOURCE_DIR")) return std::string(dir) + "/catalogues";
    return BuildFolder() + "/share/zvxfer";
}

} // namespace zvxfer::test
