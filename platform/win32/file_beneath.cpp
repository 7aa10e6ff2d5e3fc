// Files created beneath a folder: each folder on the way is held open
// (without delete sharing, so it cannot be renamed or swapped for a link
// until the file is made) and must be a real folder, not a link or
// junction; new files are created exclusively, existing regular files are
// replaced through a temporary file that is renamed over them only when the
// new content is complete.
#include "platform/win32/file_internal.h"

#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/file.h"

namespace zvxfer::plat {

namespace {

constexpr std::size_t kNameMax = 255;              // one component
constexpr std::string_view kTempMark = ".zvxfer-"; // then six random characters
constexpr int kTempTries = 64;

// The file's identity, so that a handle value reused after a foreign close
// is not taken for a replacement.
struct Identity {
    DWORD volume = 0;
    DWORD indexHigh = 0;
    DWORD indexLow = 0;
    bool operator==(const Identity &) const = default;
};

bool IdentityOf(HANDLE file, Identity &out) {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(file, &info)) return false;
    out = {info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow};
    return true;
}

// A handle writing a temporary file that replaces the old file once
// complete.
struct Replacement {
    HANDLE old = INVALID_HANDLE_VALUE; // the old file, held locked until the end
    Identity identity;
};

std::mutex gMutex;
std::unordered_map<HANDLE, Replacement> gPending;

// Closes a handle on every path out of a scope unless released.
class Handle {
  public:
    explicit Handle(HANDLE h = INVALID_HANDLE_VALUE) : h_(h) {}
    Handle(Handle &&other) noexcept : h_(other.Release()) {}
    ~Handle() {
        if (h_ != INVALID_HANDLE_VALUE) ::CloseHandle(h_);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    Handle &operator=(Handle &&other) noexcept {
        if (this != &other) {
            if (h_ != INVALID_HANDLE_VALUE) ::CloseHandle(h_);
            h_ = other.Release();
        }
        return *this;
    }
    HANDLE Get() const { return h_; }
    bool Valid() const { return h_ != INVALID_HANDLE_VALUE; }
    HANDLE Release() {
        const HANDLE h = h_;
        h_ = INVALID_HANDLE_VALUE;
        return h;
    }

  private:
    HANDLE h_;
};

// Reserved device names: "nul", "con.txt" and the like open the device in
// any folder.
bool DeviceName(std::string_view c) {
    std::string stem(c.substr(0, c.find('.')));
    while (!stem.empty() && stem.back() == ' ') stem.pop_back();
    for (char &ch : stem) {
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    }
    if (stem == "con" || stem == "prn" || stem == "aux" || stem == "nul" || stem == "conin$" ||
        stem == "conout$")
        return true;
    return stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) &&
           stem[3] >= '0' && stem[3] <= '9';
}

// A component Windows would not take as one plain name below the folder:
// separators, a drive or stream colon, wildcards and control characters,
// a trailing dot or space (the system drops them, so "..." and ".. " would
// name the folder above), and device names.
bool BadComponent(std::string_view c) {
    if (c.empty() || c == "." || c == ".." || c.size() > kNameMax) return true;
    for (const char ch : c) {
        if (static_cast<unsigned char>(ch) < 0x20 ||
            std::string_view("\\:*?\"<>|").find(ch) != std::string_view::npos)
            return true;
    }
    if (c.back() == '.' || c.back() == ' ') return true;
    return DeviceName(c);
}

bool RealFolder(HANDLE folder) {
    BY_HANDLE_FILE_INFORMATION info{};
    return ::GetFileInformationByHandle(folder, &info) &&
           (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
           (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

// A regular file reached without following a link.
bool RealFile(HANDLE file) {
    BY_HANDLE_FILE_INFORMATION info{};
    return ::GetFileType(file) == FILE_TYPE_DISK && ::GetFileInformationByHandle(file, &info) &&
           (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
}

// The folders on the way, held so that none of them is renamed or replaced
// while the file is made.
using Held = std::vector<Handle>;

// The next subfolder, created when missing; a link, a junction or anything
// that is not a folder fails.
bool EnterFolder(const std::string &path, Held &held) {
    if (!::CreateDirectoryA(path.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
        return false;
    Handle folder(::CreateFileA(
        path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!folder.Valid()) return false;
    if (!RealFolder(folder.Get())) {
        ::SetLastError(ERROR_DIRECTORY);
        return false;
    }
    held.push_back(std::move(folder));
    return true;
}

// The path of the last component of `relative` below `base`, its missing
// subfolders made on the way (none followed through a link) and held;
// false when the name is not acceptable or a folder cannot be entered.
bool PathOfLast(const char *base, const char *relative, std::string &folder, std::string &name,
                Held &held) {
    if (base == nullptr || relative == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    // The whole name is checked before any folder is made for it.
    for (std::string_view rest(relative);;) {
        const std::size_t slash = rest.find('/');
        if (BadComponent(rest.substr(0, slash))) {
            ::SetLastError(ERROR_INVALID_NAME);
            return false;
        }
        if (slash == rest.npos) break;
        rest.remove_prefix(slash + 1);
    }
    folder = base;
    if (!folder.empty() && folder.back() != '\\' && folder.back() != '/') folder += '\\';
    std::string_view rest(relative);
    for (std::size_t slash = rest.find('/'); slash != rest.npos; slash = rest.find('/')) {
        folder += rest.substr(0, slash);
        if (!EnterFolder(folder, held)) return false;
        folder += '\\';
        rest.remove_prefix(slash + 1);
    }
    name.assign(rest);
    return true;
}

std::string TempName(std::string_view finalName, std::mt19937 &random) {
    static constexpr char kChars[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    const std::size_t room = kNameMax - 1 - kTempMark.size() - 6;
    std::string name = ".";
    name += finalName.substr(0, room);
    name += kTempMark;
    std::uniform_int_distribution<std::size_t> pick(0, sizeof kChars - 2);
    for (int i = 0; i < 6; ++i) name += kChars[pick(random)];
    return name;
}

// Ask the system to remove the file when its last handle closes.
void DeleteOnClose(HANDLE file) {
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = TRUE;
    ::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof disposition);
}

// A new file that will replace the regular file `folder` + `name`.
HANDLE CreateReplacement(const std::string &folder, const std::string &name) {
    // Write access to the old file is what overwriting it always needed.
    Handle old(::CreateFileA((folder + name).c_str(), GENERIC_WRITE, kShareAll, nullptr,
                             OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!old.Valid()) return INVALID_HANDLE_VALUE;
    if (!RealFile(old.Get())) {
        ::SetLastError(ERROR_FILE_EXISTS);
        return INVALID_HANDLE_VALUE;
    }
    if (!LockExclusive(old.Get())) return INVALID_HANDLE_VALUE;

    std::random_device seed;
    std::mt19937 random(seed());
    Handle temp;
    for (int i = 0; i < kTempTries && !temp.Valid(); ++i) {
        // DELETE: the handle renames itself over the old file, or removes
        // itself when the transfer is not completed.
        temp =
            Handle(::CreateFileA((folder + TempName(name, random)).c_str(), GENERIC_WRITE | DELETE,
                                 kShareAll, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!temp.Valid() && ::GetLastError() != ERROR_FILE_EXISTS) return INVALID_HANDLE_VALUE;
    }
    Replacement r;
    if (!temp.Valid() || !LockExclusive(temp.Get()) || !IdentityOf(temp.Get(), r.identity)) {
        const DWORD error = ::GetLastError();
        if (temp.Valid()) DeleteOnClose(temp.Get());
        ::SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    r.old = old.Release();
    const HANDLE file = temp.Release();
    std::lock_guard lock(gMutex);
    gPending[file] = r;
    return file;
}

// The replacement a handle writes, taken out of the table; false when the
// handle is none (or its value now belongs to another file).
bool TakePending(HANDLE file, Replacement &out) {
    std::lock_guard lock(gMutex);
    const auto it = gPending.find(file);
    if (it == gPending.end()) return false;
    Identity now;
    const bool same = IdentityOf(file, now) && now == it->second.identity;
    if (same)
        out = it->second;
    else
        ::CloseHandle(it->second.old);
    gPending.erase(it);
    return same;
}

// The full name of the old file a replacement stands for, as the rename
// through a handle wants it: the system's own form ("\??\C:\dir\name"),
// not the "\\?\C:\dir\name" form that the Win32 call answers.
bool OldPath(HANDLE old, std::wstring &out) {
    DWORD size = ::GetFinalPathNameByHandleW(old, nullptr, 0, FILE_NAME_NORMALIZED);
    if (size == 0) return false;
    out.assign(size, L'\0');
    size = ::GetFinalPathNameByHandleW(old, out.data(), size, FILE_NAME_NORMALIZED);
    if (size == 0 || size >= out.size()) return false;
    out.resize(size);
    if (out.starts_with(L"\\\\?\\")) out[1] = L'?';
    return true;
}

} // namespace

XferFile FileCreateBeneath(const char *base, const char *relative) {
    std::string folder, name;
    Held held;
    if (!PathOfLast(base, relative, folder, name, held)) return Fail(XFER_INVALID_FILE);
    // The file itself: created new, or a replacement for a regular file.
    const std::string path = folder + name;
    Handle file(::CreateFileA(path.c_str(), GENERIC_WRITE, kShareAll, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (file.Valid()) {
        if (LockExclusive(file.Get())) return ToFile(file.Release());
        return Fail(XFER_INVALID_FILE);
    }
    const DWORD error = ::GetLastError();
    if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) return Fail(XFER_INVALID_FILE);
    const HANDLE temp = CreateReplacement(folder, name);
    return temp != INVALID_HANDLE_VALUE ? ToFile(temp) : Fail(XFER_INVALID_FILE);
}

XferFile FileAppendBeneath(const char *base, const char *relative) {
    std::string folder, name;
    Held held;
    if (!PathOfLast(base, relative, folder, name, held)) return Fail(XFER_INVALID_FILE);
    Handle file(::CreateFileA((folder + name).c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll,
                              nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file.Valid()) return Fail(XFER_INVALID_FILE);
    if (!RealFile(file.Get())) {
        ::SetLastError(ERROR_FILE_EXISTS);
        return Fail(XFER_INVALID_FILE);
    }
    LARGE_INTEGER none{};
    if (!LockExclusive(file.Get()) || !::SetFilePointerEx(file.Get(), none, nullptr, FILE_END))
        return Fail(XFER_INVALID_FILE);
    return ToFile(file.Release());
}

bool FileCommit(XferFile file) {
    Replacement r;
    const HANDLE temp = ToHandle(file);
    if (!TakePending(temp, r)) return true;
    // The old file's name, then its handle closed: a file that is open
    // cannot be replaced.  The rename goes through the temporary file's own
    // handle, so no other file can be slipped in under its name.
    std::wstring target;
    const bool named = OldPath(r.old, target);
    ::CloseHandle(r.old);
    bool moved = false;
    if (named) {
        const std::size_t bytes = sizeof(FILE_RENAME_INFO) + target.size() * sizeof(wchar_t);
        std::vector<unsigned char> block(bytes, 0);
        auto *rename = reinterpret_cast<FILE_RENAME_INFO *>(block.data());
        rename->ReplaceIfExists = TRUE;
        rename->RootDirectory = nullptr;
        rename->FileNameLength = static_cast<DWORD>(target.size() * sizeof(wchar_t));
        std::copy(target.begin(), target.end(), rename->FileName);
        moved = ::SetFileInformationByHandle(temp, FileRenameInfo, rename,
                                             static_cast<DWORD>(bytes)) != 0;
    }
    if (!moved) {
        tLastError = static_cast<int>(::GetLastError());
        DeleteOnClose(temp);
    }
    return moved;
}

void DropReplacement(HANDLE file) {
    Replacement r;
    if (!TakePending(file, r)) return;
    DeleteOnClose(file);
    ::CloseHandle(r.old);
}

EntryKind FileEntryKind(const char *path) {
    if (path == nullptr || *path == '\0') return EntryKind::Missing;
    const DWORD attributes = ::GetFileAttributesA(path);
    if (attributes == INVALID_FILE_ATTRIBUTES) return EntryKind::Missing;
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return EntryKind::Symlink;
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? EntryKind::Directory : EntryKind::Other;
}

} // namespace zvxfer::plat
