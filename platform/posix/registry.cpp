// File-backed stand-in for the registry: reads the per-user and machine-wide
// registry files (see registry.h) each time a key is opened.  Key paths and
// value names are compared without regard to ASCII case.
#include "platform/registry.h"

#include <dlfcn.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

// The registry file an installation of the configured prefix writes
// (<sysconfdir>/zvxfer/registry); the build passes it in.
#ifndef ZVXFER_INSTALLED_REGISTRY
#define ZVXFER_INSTALLED_REGISTRY ""
#endif

namespace zvxfer::plat {

namespace {
constexpr const char *kInstalledRegistry = ZVXFER_INSTALLED_REGISTRY;
} // namespace

struct RegKey {
    // (value name, data) of one key, first definition first.
    std::vector<std::pair<std::string, std::string>> values;
};

namespace {

bool SameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        unsigned char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x += 'a' - 'A';
        if (y >= 'A' && y <= 'Z') y += 'a' - 'A';
        if (x != y) return false;
    }
    return true;
}

std::string_view TrimSeparators(std::string_view path) {
    while (!path.empty() && path.front() == '\\') path.remove_prefix(1);
    while (!path.empty() && path.back() == '\\') path.remove_suffix(1);
    return path;
}

// A key opens when it is named by a line or is a parent of a named key.
bool KeyMatches(std::string_view lineKey, std::string_view wanted, bool &exact) {
    lineKey = TrimSeparators(lineKey);
    exact = SameText(lineKey, wanted);
    if (exact) return true;
    return wanted.empty() || (lineKey.size() > wanted.size() && lineKey[wanted.size()] == '\\' &&
                              SameText(lineKey.substr(0, wanted.size()), wanted));
}

const char *RootName(RegRoot root) {
    switch (root) {
    case RegRoot::ClassesRoot:
        return "HKCR";
    case RegRoot::CurrentUser:
        return "HKCU";
    case RegRoot::LocalMachine:
        return "HKLM";
    }
    return "";
}

// The folder of the file holding this code: the shared library, or the
// executable when the library is linked statically.
std::string OwnCodeFolder() {
    Dl_info self{};
    if (dladdr(reinterpret_cast<void *>(&OwnCodeFolder), &self) == 0) return {};
    std::string path;
    Dl_info mainProgram{};
    auto phdr = reinterpret_cast<void *>(getauxval(AT_PHDR));
    bool inExecutable = phdr != nullptr && dladdr(phdr, &mainProgram) != 0 &&
                        mainProgram.dli_fbase == self.dli_fbase;
    if (!inExecutable && self.dli_fname != nullptr && std::strchr(self.dli_fname, '/')) {
        path = self.dli_fname;
    } else {
        char buffer[4096];
        ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
        if (n <= 0) return {};
        path.assign(buffer, static_cast<std::size_t>(n));
    }
    auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string EnvText(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

// The files that may hold values of `root`, the one read first first.
std::vector<std::string> FilesFor(RegRoot root) {
    bool user = root != RegRoot::LocalMachine;   // HKCU, and per-user classes
    bool machine = root != RegRoot::CurrentUser; // HKLM, and machine-wide classes
    std::vector<std::string> files;
    if (std::string dir = EnvText("ZVXFER_REGISTRY_DIR"); !dir.empty()) {
        if (user) files.push_back(dir + "/user");
        if (machine) files.push_back(dir + "/machine");
        return files;
    }
    if (user) {
        if (std::string xdg = EnvText("XDG_CONFIG_HOME"); !xdg.empty())
            files.push_back(xdg + "/zvxfer/registry");
        else if (std::string home = EnvText("HOME"); !home.empty())
            files.push_back(home + "/.config/zvxfer/registry");
    }
    if (machine) {
        // The installation's own registration first: it names this library's
        // catalogues even when another copy is registered system-wide.
        if (std::string own = OwnCodeFolder(); !own.empty())
            files.push_back(own + "/../etc/zvxfer/registry");
        // Then the registration of the prefix the library was built for: a
        // program linked with the static library lives anywhere, so the
        // folder of its code says nothing about where the catalogues are.
        for (const char *file : {kInstalledRegistry, "/etc/zvxfer/registry"}) {
            if (file[0] != '\0' && std::find(files.begin(), files.end(), file) == files.end())
                files.push_back(file);
        }
    }
    return files;
}

// Append the values of `key` found in one file; true when the key exists.
bool ReadFile(const std::string &file, RegRoot root, std::string_view key, RegKey &out) {
    std::ifstream in(file);
    std::string line;
    bool found = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        auto t1 = line.find('\t');
        auto t2 = t1 == std::string::npos ? t1 : line.find('\t', t1 + 1);
        auto t3 = t2 == std::string::npos ? t2 : line.find('\t', t2 + 1);
        if (t3 == std::string::npos) continue;
        if (!SameText(std::string_view(line).substr(0, t1), RootName(root))) continue;
        bool exact = false;
        if (!KeyMatches(std::string_view(line).substr(t1 + 1, t2 - t1 - 1), key, exact)) continue;
        found = true;
        if (exact) out.values.emplace_back(line.substr(t2 + 1, t3 - t2 - 1), line.substr(t3 + 1));
    }
    return found;
}

} // namespace

int32_t RegOpenKey(RegRoot root, const char *path, RegKeyHandle &out) {
    out = nullptr;
    std::string_view key = TrimSeparators(path != nullptr ? path : "");
    auto opened = new RegKey;
    bool found = false;
    for (const std::string &file : FilesFor(root)) found |= ReadFile(file, root, key, *opened);
    if (!found) {
        delete opened;
        return kErrorFileNotFound;
    }
    out = opened;
    return kErrorSuccess;
}

int32_t RegQueryString(RegKeyHandle key, const char *name, char *buffer, std::size_t size) {
    if (key == nullptr) return kErrorFileNotFound;
    std::string_view wanted = name != nullptr ? name : "";
    for (const auto &[valueName, data] : key->values) {
        if (!SameText(valueName, wanted)) continue;
        if (buffer == nullptr || data.size() + 1 > size) {
            if (buffer != nullptr && size > 0) buffer[0] = '\0';
            return kErrorMoreData;
        }
        std::memcpy(buffer, data.c_str(), data.size() + 1);
        return kErrorSuccess;
    }
    return kErrorFileNotFound;
}

void RegCloseKey(RegKeyHandle key) {
    delete key;
}

} // namespace zvxfer::plat
