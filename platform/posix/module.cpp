// Message catalogues: a text file of "number<TAB>text" lines read into a
// table.  Names that do not exist as given are resolved one path component
// at a time without regard to case, because the localised names are built by
// lower-casing a whole path.
#include "platform/module.h"
#include "platform/posix/native_path.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zvxfer::plat {

struct Module {
    std::vector<std::pair<uint32_t, std::string>> texts; // sorted by number
};

namespace {

bool Exists(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

bool SameTextIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
               return lower(static_cast<unsigned char>(x)) == lower(static_cast<unsigned char>(y));
           });
}

// The entry of `folder` whose name equals `name` without regard to case.
std::string FindEntry(const std::string &folder, std::string_view name) {
    DIR *dir = opendir(folder.empty() ? "/" : folder.c_str());
    if (dir == nullptr) return {};
    std::string found;
    while (dirent *entry = readdir(dir)) {
        if (SameTextIgnoringCase(entry->d_name, name)) {
            found = entry->d_name;
            break;
        }
    }
    closedir(dir);
    return found;
}

// The existing path that matches `path` component by component, or "".
std::string ResolveIgnoringCase(std::string_view path) {
    std::string resolved = path.starts_with('/') ? "" : ".";
    while (!path.empty()) {
        auto slash = path.find('/');
        std::string_view part = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view{} : path.substr(slash + 1);
        if (part.empty() || part == ".") continue;
        std::string exact = resolved + "/" + std::string(part);
        if (part == ".." || Exists(exact)) {
            resolved = exact;
            continue;
        }
        std::string entry = FindEntry(resolved, part);
        if (entry.empty()) return {};
        resolved += "/" + entry;
    }
    return resolved;
}

// One "number<TAB>text" line; false for comments, blanks and malformed lines.
bool ParseLine(std::string &line, uint32_t &number, std::string &text) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') return false;
    auto tab = line.find('\t');
    if (tab == 0 || tab == std::string::npos) return false;
    char *end = nullptr;
    unsigned long value = std::strtoul(line.c_str(), &end, 10);
    if (end != line.c_str() + tab || value > UINT32_MAX) return false;
    number = static_cast<uint32_t>(value);
    text = line.substr(tab + 1);
    return true;
}

// Number of bytes of `text` that fit in `room` without splitting a UTF-8
// sequence.
std::size_t CutAtCharacter(std::string_view text, std::size_t room) {
    if (text.size() <= room) return text.size();
    std::size_t cut = room;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return cut;
}

} // namespace

ModuleHandle LoadModule(const char *pathText) {
    if (pathText == nullptr || *pathText == '\0') return nullptr;
    const std::string path = NativePath(pathText);
    std::ifstream in(path);
    if (!in) {
        std::string resolved = ResolveIgnoringCase(path);
        if (resolved.empty()) return nullptr;
        in.open(resolved);
        if (!in) return nullptr;
    }
    auto module = new Module;
    std::string line, text;
    uint32_t number = 0;
    while (std::getline(in, line)) {
        if (ParseLine(line, number, text)) module->texts.emplace_back(number, std::move(text));
    }
    // Sorted, and the first line of a number wins over later ones.
    std::stable_sort(module->texts.begin(), module->texts.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    return module;
}

void FreeModule(ModuleHandle module) {
    delete module;
}

int LoadString(ModuleHandle module, uint32_t number, char *buffer, std::size_t size) {
    if (buffer == nullptr || size == 0) return 0;
    buffer[0] = '\0';
    if (module == nullptr) return 0;
    auto it = std::lower_bound(module->texts.begin(), module->texts.end(), number,
                               [](const auto &entry, uint32_t n) { return entry.first < n; });
    if (it == module->texts.end() || it->first != number) return 0;
    std::size_t n = CutAtCharacter(it->second, size - 1);
    std::memcpy(buffer, it->second.data(), n);
    buffer[n] = '\0';
    return static_cast<int>(n);
}

} // namespace zvxfer::plat
