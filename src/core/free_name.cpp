// Existence checks (links count, whatever they point to) and the free-name rule used when a
// received file would overwrite an existing one (existing-file policy 1).
#include <cstring>
#include <string>

#include "core/core.h"
#include "platform/dirsearch.h"
#include "platform/file.h"
#include "platform/path.h"

namespace zvxfer {

bool XferFileExists(const char *name) {
    if (name == nullptr || *name == '\0') return false;
    // The search follows links: a link in the way counts whatever it points
    // to (or when it points nowhere), so that nothing is written through it.
    const plat::EntryKind kind = plat::FileEntryKind(name);
    if (kind == plat::EntryKind::Symlink || kind == plat::EntryKind::Other) return true;
    plat::FindData entry;
    plat::FindHandle search = plat::FindFirst(name, entry);
    bool found = false;
    for (bool more = search != nullptr; more && !found; more = plat::FindNext(search, entry))
        found = entry.attributes != plat::kAttrDirectory;
    plat::FindClose(search);
    return found;
}

namespace {

// Raise the one-character counter by one character code.  The counter
// never becomes ':' (past '9' there is no free name), a path separator, or
// anything beyond '~'.
bool RaiseCounter(char &counter) {
    const char next = static_cast<char>(counter + 1);
    if (counter == '9' || next == '/' || next == '\\' || counter >= '~' || counter < ' ')
        return false;
    counter = next;
    return true;
}

} // namespace

// The local name's folder part ends at its last '/' or '\'; the rest is
// the file part that gets the counter.
bool XferFreeName(char *name, std::size_t size) {
    if (name == nullptr) return false;
    const std::string_view whole(name);
    const std::size_t slash = plat::LastSeparator(whole);
    const std::size_t fileStart = slash == whole.npos ? 0 : slash + 1;
    const std::string folder(whole.substr(0, fileStart));
    std::string file(whole.substr(fileStart));
    while (!file.empty() && file.back() == '.') file.pop_back();

    std::string stem = file, extension;
    if (const std::size_t dot = file.rfind('.'); dot != file.npos) {
        stem = file.substr(0, dot);
        extension = file.substr(dot); // with its dot
    }
    const std::size_t n = stem.size();
    if (n < 3 || stem[n - 3] != '(' || stem[n - 1] != ')') stem += "(1)";
    const std::size_t counter = folder.size() + stem.size() - 2;

    std::string candidate = folder + stem + extension;
    while (XferFileExists(candidate.c_str())) {
        if (!RaiseCounter(candidate[counter])) return false;
    }
    if (candidate.size() + 1 > size) return false;
    std::memcpy(name, candidate.c_str(), candidate.size() + 1);
    return true;
}

} // namespace zvxfer
