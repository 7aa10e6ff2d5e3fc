// Directory search over POSIX directories (opendir/readdir), with the
// Windows wildcard rules applied to each entry name.
#include "platform/dirsearch.h"
#include "platform/posix/native_path.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <new>
#include <string_view>

namespace zvxfer::plat {

struct FindSearch {
    DIR *dir = nullptr;  // null for a one-entry lookup
    std::string pattern; // name part of the search
};

namespace {

bool HasWildcard(std::string_view text) {
    return text.find_first_of("*?") != text.npos;
}

uint32_t AttributesAt(int dirFd, const char *name) {
    struct stat st {};
    if (fstatat(dirFd, name, &st, 0) == 0 && S_ISDIR(st.st_mode)) return kAttrDirectory;
    return kAttrNormal;
}

// Split "folder/pattern" into the folder to open and the name pattern.
void SplitPattern(const char *full, std::string &folder, std::string &name) {
    const char *slash = std::strrchr(full, '/');
    if (slash == nullptr) {
        folder = ".";
        name = full;
    } else {
        folder.assign(full, static_cast<std::size_t>(slash - full) + 1);
        name = slash + 1;
    }
}

bool ReadMatch(FindSearch &search, FindData &out) {
    while (dirent *entry = readdir(search.dir)) {
        if (!WildcardMatch(search.pattern.c_str(), entry->d_name)) continue;
        out.name = entry->d_name;
        out.attributes = AttributesAt(dirfd(search.dir), entry->d_name);
        return true;
    }
    return false;
}

} // namespace

FindHandle FindFirst(const char *patternText, FindData &out) {
    if (patternText == nullptr) return nullptr;
    const std::string native = NativePath(patternText);
    const char *pattern = native.c_str();
    std::string folder, name;
    SplitPattern(pattern, folder, name);
    if (name.empty()) return nullptr;

    if (!HasWildcard(name)) {
        // One named entry: look it up directly instead of reading the folder.
        struct stat st {};
        if (stat(pattern, &st) != 0) return nullptr;
        auto *search = new (std::nothrow) FindSearch{nullptr, name};
        if (search == nullptr) return nullptr;
        out.name = name;
        out.attributes = S_ISDIR(st.st_mode) ? kAttrDirectory : kAttrNormal;
        return search;
    }

    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr) return nullptr;
    auto *search = new (std::nothrow) FindSearch{dir, name};
    if (search == nullptr) {
        closedir(dir);
        return nullptr;
    }
    if (!ReadMatch(*search, out)) {
        FindClose(search);
        return nullptr;
    }
    return search;
}

bool FindNext(FindHandle search, FindData &out) {
    if (search == nullptr || search->dir == nullptr) return false;
    return ReadMatch(*search, out);
}

void FindClose(FindHandle search) {
    if (search == nullptr) return;
    if (search->dir != nullptr) closedir(search->dir);
    delete search;
}

} // namespace zvxfer::plat
