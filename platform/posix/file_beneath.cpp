// Files created beneath a folder handle: subfolders opened one at a time
// with O_NOFOLLOW, new files created exclusively, existing regular files
// replaced through a temporary file that is renamed over them only when the
// new content is complete.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

#include "platform/file.h"
#include "platform/posix/file_internal.h"
#include "platform/posix/native_path.h"

namespace zvxfer::plat {

namespace {

constexpr std::size_t kNameMax = 255;              // one component
constexpr std::string_view kTempMark = ".zvxfer-"; // then six random characters
constexpr int kTempTries = 64;

// A handle writing a temporary file that replaces `finalName` once complete.
struct Replacement {
    int folder = -1; // the folder both names live in
    int old = -1;    // the old file, held locked until the end
    std::string tempName;
    std::string finalName;
    dev_t device = 0; // the temporary file's identity, so that a handle
    ino_t inode = 0;  // number reused after a foreign close is not taken for it
    mode_t mode = 0;  // the old file's permissions, given to the new one
};

std::mutex gMutex;
std::unordered_map<int, Replacement> gPending;

// Closes a descriptor on every path out of a scope unless released.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.Release()) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd &operator=(Fd &&other) noexcept {
        if (this != &other) {
            if (fd_ >= 0) close(fd_);
            fd_ = other.Release();
        }
        return *this;
    }
    int Get() const { return fd_; }
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

bool BadComponent(std::string_view c) {
    return c.empty() || c == "." || c == ".." || c.size() > kNameMax;
}

// The next subfolder below `folder`, created when missing; a symlink or
// anything that is not a folder fails the open.
int EnterFolder(int folder, const std::string &name) {
    if (mkdirat(folder, name.c_str(), 0777) != 0 && errno != EEXIST) return -1;
    return openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool Lock(int fd) {
    return flock(fd, LOCK_EX | LOCK_NB) == 0;
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

// A new file that will replace the regular file `name` in `folder`.
int CreateReplacement(Fd folder, const std::string &name) {
    // Write access to the old file is what overwriting it always needed;
    // O_NONBLOCK keeps a FIFO put there in the meantime from blocking.
    Fd old(openat(folder.Get(), name.c_str(),
                  O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat oldFacts {};
    if (old.Get() < 0 || fstat(old.Get(), &oldFacts) != 0) return -1;
    if (!S_ISREG(oldFacts.st_mode)) {
        errno = EEXIST;
        return -1;
    }
    if (!Lock(old.Get())) return -1;

    std::random_device seed;
    std::mt19937 random(seed());
    Fd temp;
    std::string tempName;
    for (int i = 0; i < kTempTries && temp.Get() < 0; ++i) {
        tempName = TempName(name, random);
        temp = Fd(openat(folder.Get(), tempName.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (temp.Get() < 0 && errno != EEXIST) return -1;
    }
    struct stat tempFacts {};
    if (temp.Get() < 0 || !Lock(temp.Get()) || fstat(temp.Get(), &tempFacts) != 0) {
        const int error = errno;
        if (temp.Get() >= 0) unlinkat(folder.Get(), tempName.c_str(), 0);
        errno = error;
        return -1;
    }
    Replacement r;
    r.folder = folder.Release();
    r.old = old.Release();
    r.tempName = std::move(tempName);
    r.finalName = name;
    r.device = tempFacts.st_dev;
    r.inode = tempFacts.st_ino;
    r.mode = oldFacts.st_mode & 0777;
    const int fd = temp.Release();
    std::lock_guard lock(gMutex);
    gPending[fd] = std::move(r);
    return fd;
}

// The replacement a handle writes, taken out of the table; false when the
// handle is none (or its number now belongs to another file).
bool TakePending(int fd, Replacement &out) {
    std::lock_guard lock(gMutex);
    const auto it = gPending.find(fd);
    if (it == gPending.end()) return false;
    struct stat st {};
    const bool same =
        fstat(fd, &st) == 0 && st.st_dev == it->second.device && st.st_ino == it->second.inode;
    if (same)
        out = std::move(it->second);
    else {
        close(it->second.folder);
        close(it->second.old);
    }
    gPending.erase(it);
    return same;
}

void Release(Replacement &r) {
    close(r.old);
    close(r.folder);
}

// The folder that holds the last component of `relative` below `base`,
// its missing subfolders made on the way (none followed through a link),
// and that last component; -1 when the name is not acceptable or a folder
// cannot be entered.
int FolderOfLast(const char *baseText, const char *relativeText, std::string &name) {
    if (baseText == nullptr || relativeText == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const std::string base = NativePath(baseText), relative = NativePath(relativeText);
    // The whole name is checked before any folder is made for it.
    for (std::string_view rest(relative);;) {
        const std::size_t slash = rest.find('/');
        if (BadComponent(rest.substr(0, slash))) {
            errno = EINVAL;
            return -1;
        }
        if (slash == rest.npos) break;
        rest.remove_prefix(slash + 1);
    }
    Fd folder(open(!base.empty() ? base.c_str() : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.Get() < 0) return -1;
    std::string_view rest(relative);
    for (std::size_t slash = rest.find('/'); slash != rest.npos; slash = rest.find('/')) {
        folder = Fd(EnterFolder(folder.Get(), std::string(rest.substr(0, slash))));
        if (folder.Get() < 0) return -1;
        rest.remove_prefix(slash + 1);
    }
    name.assign(rest);
    return folder.Release();
}

} // namespace

XferFile FileCreateBeneath(const char *base, const char *relative) {
    std::string name;
    Fd folder(FolderOfLast(base, relative, name));
    if (folder.Get() < 0) return Fail(XFER_INVALID_FILE);
    // The file itself: created new, or a replacement for a regular file.
    const int fd = openat(folder.Get(), name.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd >= 0) {
        if (Lock(fd)) return fd;
        tLastError = errno;
        close(fd);
        return XFER_INVALID_FILE;
    }
    if (errno != EEXIST) return Fail(XFER_INVALID_FILE);
    struct stat st {};
    if (fstatat(folder.Get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode)) {
        errno = EEXIST;
        return Fail(XFER_INVALID_FILE);
    }
    const int temp = CreateReplacement(std::move(folder), name);
    return temp >= 0 ? temp : Fail(XFER_INVALID_FILE);
}

XferFile FileAppendBeneath(const char *base, const char *relative) {
    std::string name;
    Fd folder(FolderOfLast(base, relative, name));
    if (folder.Get() < 0) return Fail(XFER_INVALID_FILE);
    // O_NONBLOCK keeps a FIFO in the way from blocking until it is refused.
    Fd file(openat(folder.Get(), name.c_str(),
                   O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    struct stat facts {};
    if (file.Get() < 0 || fstat(file.Get(), &facts) != 0) return Fail(XFER_INVALID_FILE);
    if (!S_ISREG(facts.st_mode)) {
        errno = EEXIST;
        return Fail(XFER_INVALID_FILE);
    }
    const int flags = fcntl(file.Get(), F_GETFL);
    if (flags < 0 || fcntl(file.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0 || !Lock(file.Get()) ||
        lseek(file.Get(), 0, SEEK_END) < 0)
        return Fail(XFER_INVALID_FILE);
    return file.Release();
}

bool FileCommit(XferFile file) {
    Replacement r;
    if (!TakePending(static_cast<int>(file), r)) return true;
    const int fd = static_cast<int>(file);
    const bool moved = fchmod(fd, r.mode) == 0 &&
                       renameat(r.folder, r.tempName.c_str(), r.folder, r.finalName.c_str()) == 0;
    if (!moved) {
        tLastError = errno;
        unlinkat(r.folder, r.tempName.c_str(), 0);
    }
    Release(r);
    return moved;
}

void DropReplacement(int fd) {
    Replacement r;
    if (!TakePending(fd, r)) return;
    unlinkat(r.folder, r.tempName.c_str(), 0);
    Release(r);
}

EntryKind FileEntryKind(const char *path) {
    struct stat st {};
    if (path == nullptr || *path == '\0' || lstat(NativePath(path).c_str(), &st) != 0)
        return EntryKind::Missing;
    if (S_ISLNK(st.st_mode)) return EntryKind::Symlink;
    return S_ISDIR(st.st_mode) ? EntryKind::Directory : EntryKind::Other;
}

} // namespace zvxfer::plat
