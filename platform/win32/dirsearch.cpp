// Directory search over FindFirstFileA/FindNextFileA.  The folder is read
// entry by entry ("folder\*") and each long name is matched by the
// library's own wildcard rules, without regard to ASCII case: the system's
// matcher would also match the short 8.3 names ("*.htm" finding
// "page.html").
#include "platform/win32/win.h"

#include "platform/dirsearch.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>

namespace zvxfer::plat {

struct FindSearch {
    HANDLE find = INVALID_HANDLE_VALUE; // INVALID for a one-entry lookup
    std::string pattern;                // name part of the search, lower case
};

namespace {

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char &c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

bool HasWildcard(std::string_view text) {
    return text.find_first_of("*?") != text.npos;
}

// Split "folder\pattern" (or with '/') into the folder, with its
// separator, and the name pattern.
void SplitPattern(const char *full, std::string &folder, std::string &name) {
    const std::string_view text(full);
    const std::size_t cut = text.find_last_of("/\\");
    if (cut == text.npos) {
        folder.clear();
        name = text;
    } else {
        folder = text.substr(0, cut + 1);
        name = text.substr(cut + 1);
    }
}

uint32_t Attributes(DWORD system) {
    return (system & FILE_ATTRIBUTE_DIRECTORY) != 0 ? kAttrDirectory : kAttrNormal;
}

// The current entry of the search when it matches, else the next that does.
bool Matching(FindSearch &search, WIN32_FIND_DATAA &entry, bool current, FindData &out) {
    if (!current && !::FindNextFileA(search.find, &entry)) return false;
    do {
        if (WildcardMatch(search.pattern.c_str(), Lower(entry.cFileName).c_str())) {
            out.name = entry.cFileName;
            out.attributes = Attributes(entry.dwFileAttributes);
            return true;
        }
    } while (::FindNextFileA(search.find, &entry));
    return false;
}

} // namespace

FindHandle FindFirst(const char *pattern, FindData &out) {
    if (pattern == nullptr) return nullptr;
    std::string folder, name;
    SplitPattern(pattern, folder, name);
    if (name.empty()) return nullptr;

    if (!HasWildcard(name)) {
        // One named entry: look it up directly instead of reading the folder.
        const DWORD attributes = ::GetFileAttributesA(pattern);
        if (attributes == INVALID_FILE_ATTRIBUTES) return nullptr;
        auto *search = new (std::nothrow) FindSearch{INVALID_HANDLE_VALUE, Lower(name)};
        if (search == nullptr) return nullptr;
        out.name = name;
        out.attributes = Attributes(attributes);
        return search;
    }

    WIN32_FIND_DATAA entry{};
    const HANDLE find = ::FindFirstFileA((folder + "*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return nullptr;
    auto *search = new (std::nothrow) FindSearch{find, Lower(name)};
    if (search == nullptr) {
        ::FindClose(find);
        return nullptr;
    }
    if (!Matching(*search, entry, true, out)) {
        FindClose(search);
        return nullptr;
    }
    return search;
}

bool FindNext(FindHandle search, FindData &out) {
    if (search == nullptr || search->find == INVALID_HANDLE_VALUE) return false;
    WIN32_FIND_DATAA entry{};
    return Matching(*search, entry, false, out);
}

void FindClose(FindHandle search) {
    if (search == nullptr) return;
    if (search->find != INVALID_HANDLE_VALUE) ::FindClose(search->find);
    delete search;
}

} // namespace zvxfer::plat
