// The send-file list: a small state machine over the name list, the
// directory searches of up to ten folder levels, and the file facts.
#include <climits>
#include <cstring>
#include <new>

#include "core/core.h"
#include "filelist/filelist.h"
#include "platform/dirsearch.h"
#include "platform/file.h"
#include "platform/heap.h"
#include "platform/path.h"

namespace zvxfer {

namespace {

constexpr int kLevels = 10;
constexpr std::size_t kWorkSize = 512;

enum class Step {
    ParseName,
    FirstMatch,
    NextMatch,
    StartSubfolders,
    NextSubfolder,
    CheckSubfolder,
    LevelDone,
    ReturnFile, // leave Next with 1
    ReturnEnd,  // leave Next with 0
};

// The internal state; the public record comes first so that the engines'
// SendFileList pointer leads back here.
struct ListState : SendFileList {
    char *position = nullptr; // next unread character of the name list
    char folder[kListFieldMax + 1] = {};
    char pattern[kListFieldMax + 1] = {};
    int level = 0;
    bool subfolders = false;
    plat::FindHandle searches[kLevels] = {};
    plat::FindData entries[kLevels];
    Step step = Step::ParseName;
    char *work = nullptr; // Next's 512-byte scratch
};

ListState &State(SendFileList *list) {
    return *static_cast<ListState *>(list);
}

bool IsDots(const std::string &name) {
    return name == "." || name == "..";
}

bool IsFile(const plat::FindData &entry) {
    return !IsDots(entry.name) && entry.attributes != plat::kAttrDirectory;
}

// a + b into `out` (capacity `size`); false when it would not fit.
bool Join(char *out, std::size_t size, const char *a, const char *b) {
    const std::size_t la = std::strlen(a), lb = std::strlen(b);
    if (la + lb + 1 > size) return false;
    std::memmove(out, a, la);
    std::memcpy(out + la, b, lb + 1);
    return true;
}

void CloseLevel(ListState &s, int level) {
    plat::FindClose(s.searches[level]);
    s.searches[level] = nullptr;
}

// The facts of the file in Path.  False for a file of 2^31 bytes or more:
// sizes and positions travel in 32 bits, so such a file cannot be carried
// exactly and is passed over like a name that matches nothing.
bool FillFacts(ListState &s, XferRecord *record) {
    const plat::FileFacts facts = plat::FileStat(s.Path);
    if (facts.size > INT32_MAX) {
        s.SearchError = kSearchTooLarge;
        if (record != nullptr) {
            record->FileName = s.Path;
            if (record->Sending) XferStatusMessage(record, 1, MsgTooLargeToSend, s.Path);
        }
        return false;
    }
    // A file that vanished between the search and here reads as empty;
    // opening it will fail and report it.
    s.Size = static_cast<int32_t>(facts.size);
    s.ModTime = static_cast<int32_t>(facts.modTime);
    return true;
}

// A file found by the search: ready to go, or passed over (the search of
// this level goes on) when it is too large.
Step FoundFile(ListState &s, const plat::FindData &entry, XferRecord *record) {
    Join(s.Path, sizeof s.Path, s.folder, entry.name.c_str()); // 255 + 255 always fit
    if (!FillFacts(s, record)) return Step::NextMatch;
    s.SearchError = 0;
    return Step::ReturnFile;
}

Step ParseName(ListState &s, XferRecord *record) {
    char *p = s.position;
    while (*p == '"' || *p == ',') ++p;
    char *name = p;
    while (*p != '\0' && *p != '"') ++p;
    const bool quoted = *p == '"';
    *p = '\0';
    // Only a sending transfer reads on; the string's own NUL is never passed.
    s.position = record != nullptr && record->Sending == 1 && quoted ? p + 1 : p;

    char *slash = plat::LastSeparator(name);
    const char *pattern = slash != nullptr ? slash + 1 : name;
    if (*pattern == '\0') return Step::ReturnEnd;
    const std::size_t folderLength = static_cast<std::size_t>(pattern - name);
    s.level = 0;
    if (folderLength > kListFieldMax || std::strlen(pattern) > kListFieldMax) {
        s.folder[0] = '\0';
        s.pattern[0] = '\0';
        std::strncpy(s.Path, name, sizeof s.Path - 1);
        s.Path[sizeof s.Path - 1] = '\0';
        s.SearchError = kSearchNameTooLong;
        if (record != nullptr) record->FileName = s.Path;
        if (record != nullptr && record->Sending)
            XferStatusMessage(record, 1, MsgNoFileMatches, s.Path);
        return Step::ParseName;
    }
    std::memcpy(s.folder, name, folderLength);
    s.folder[folderLength] = '\0';
    std::strcpy(s.pattern, pattern);
    return Step::FirstMatch;
}

Step FirstMatch(ListState &s, XferRecord *record) {
    plat::FindData entry;
    Join(s.work, kWorkSize, s.folder, s.pattern);
    plat::FindHandle search = plat::FindFirst(s.work, entry);
    bool found = search != nullptr && IsFile(entry);
    while (search != nullptr && !found) {
        if (!plat::FindNext(search, entry)) break;
        found = IsFile(entry);
    }
    if (found) {
        CloseLevel(s, s.level);
        s.searches[s.level] = search;
        s.step = Step::NextMatch;
        return FoundFile(s, entry, record);
    }
    plat::FindClose(search);
    // Only the named folder itself counts: a subfolder without matches is
    // no unmatched name.
    if (s.level == 0) {
        s.SearchError = kSearchNotFound;
        Join(s.Path, sizeof s.Path, s.folder, s.pattern);
        if (record != nullptr) {
            record->FileName = s.Path;
            if (record->Sending) XferStatusMessage(record, 1, MsgNoFileMatches, s.Path);
        }
    }
    return Step::StartSubfolders;
}

Step NextMatch(ListState &s, XferRecord *record) {
    plat::FindData &entry = s.entries[s.level];
    while (plat::FindNext(s.searches[s.level], entry)) {
        if (!IsFile(entry)) continue;
        const Step next = FoundFile(s, entry, record);
        if (next == Step::ReturnFile) return next;
    }
    CloseLevel(s, s.level);
    return Step::StartSubfolders;
}

Step StartSubfolders(ListState &s) {
    if (!s.subfolders || s.level >= kLevels - 1) return Step::LevelDone;
    Join(s.work, kWorkSize, s.folder, "*.*");
    plat::FindHandle search = plat::FindFirst(s.work, s.entries[s.level]);
    if (search == nullptr) return Step::LevelDone;
    CloseLevel(s, s.level);
    s.searches[s.level] = search;
    return Step::CheckSubfolder;
}

Step NextSubfolder(ListState &s) {
    if (plat::FindNext(s.searches[s.level], s.entries[s.level])) return Step::CheckSubfolder;
    CloseLevel(s, s.level);
    return Step::LevelDone;
}

Step CheckSubfolder(ListState &s) {
    const plat::FindData &entry = s.entries[s.level];
    if (IsDots(entry.name) || entry.attributes != plat::kAttrDirectory) return Step::NextSubfolder;
    // folder + name + separator must fit the folder field; a deeper path is
    // passed over.  The subfolder joins with the separator the name uses.
    if (!Join(s.work, kListFieldMax, s.folder, entry.name.c_str())) return Step::NextSubfolder;
    const char separator[2] = {plat::SeparatorOf(s.folder), '\0'};
    Join(s.folder, sizeof s.folder, s.work, separator);
    ++s.level;
    return Step::FirstMatch;
}

Step LevelDone(ListState &s) {
    if (s.level == 0) return Step::ParseName;
    --s.level;
    std::size_t length = std::strlen(s.folder);
    if (length > 0) s.folder[--length] = '\0'; // the final separator
    char *slash = plat::LastSeparator(s.folder);
    if (slash != nullptr)
        slash[1] = '\0';
    else
        s.folder[0] = '\0';
    return Step::NextSubfolder;
}

int32_t ListNext(XferRecord *record, SendFileList *list) {
    ListState &s = State(list);
    s.SearchError = 0;
    s.work = static_cast<char *>(plat::HeapAllocZero(kWorkSize));
    if (s.work == nullptr) {
        s.SearchError = XferErrNoBuffer;
        return 0;
    }
    for (;;) {
        Step next = Step::ReturnEnd;
        switch (s.step) {
        case Step::ParseName:
            next = ParseName(s, record);
            break;
        case Step::FirstMatch:
            next = FirstMatch(s, record);
            break;
        case Step::NextMatch:
            next = NextMatch(s, record);
            break;
        case Step::StartSubfolders:
            next = StartSubfolders(s);
            break;
        case Step::NextSubfolder:
            next = NextSubfolder(s);
            break;
        case Step::CheckSubfolder:
            next = CheckSubfolder(s);
            break;
        case Step::LevelDone:
            next = LevelDone(s);
            break;
        case Step::ReturnFile:
        case Step::ReturnEnd:
            break;
        }
        if (next == Step::ReturnFile || next == Step::ReturnEnd) {
            plat::HeapFreeBlock(s.work);
            s.work = nullptr;
            if (next == Step::ReturnEnd) s.step = Step::ReturnEnd;
            return next == Step::ReturnFile ? 1 : 0;
        }
        s.step = next;
    }
}

int32_t ListDestroy(SendFileList *list) {
    ListState *s = &State(list);
    for (int level = 0; level < kLevels; ++level) CloseLevel(*s, level);
    s->~ListState();
    plat::HeapFreeBlock(s);
    return 0;
}

} // namespace

SendFileList *SendFileListCreate(char *names, bool subfolders) {
    void *memory = plat::HeapAllocZero(sizeof(ListState));
    if (memory == nullptr) return nullptr;
    auto *s = new (memory) ListState();
    s->Next = ListNext;
    s->Destroy = ListDestroy;
    s->position = names;
    s->subfolders = subfolders;
    return s;
}

} // namespace zvxfer
