// Checking and expanding the names given to `zvxfer send`.
#include "names.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "i18n.h"

namespace zvxfer::cli {

namespace {

// The library's list keeps a folder part and a pattern in 256 bytes each
// and the whole name in 512, each with its terminating NUL.
constexpr std::size_t kFolderRoom = 255;
constexpr std::size_t kPatternRoom = 255;
constexpr std::size_t kPathRoom = 511;
constexpr int kSubfolderLevels = 9;

bool HasWildcard(std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos;
}

// Folder part (up to and including the last '/') and the rest.
std::pair<std::string, std::string> Split(const std::string &name) {
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos) return {"", name};
    return {name.substr(0, slash + 1), name.substr(slash + 1)};
}

std::string Reason(int error) {
    return std::strerror(error);
}

// Empty when the file can be sent, otherwise why not.
std::string Unsendable(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return Reason(errno);
    if (S_ISDIR(st.st_mode)) return _("is a folder");
    if (!S_ISREG(st.st_mode)) return _("is not a regular file");
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return Reason(errno);
    close(fd);
    const auto [folder, base] = Split(path);
    if (folder.size() > kFolderRoom || base.size() > kPatternRoom || path.size() > kPathRoom)
        return _("the name is too long to be sent");
    return {};
}

// The entries of `folder` ("" is the current one) in name order.
std::vector<std::string> Entries(const std::string &folder) {
    std::vector<std::string> names;
    DIR *dir = opendir(folder.empty() ? "." : folder.c_str());
    if (!dir) return names;
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

bool IsFolder(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Every entry of `folder` matching `pattern` that is not a folder, then
// with `levels` left the same in each subfolder.
void Expand(const std::string &folder, const std::string &pattern, int levels,
            std::vector<std::string> &out) {
    const std::vector<std::string> entries = Entries(folder);
    for (const std::string &name : entries)
        if (MatchesPattern(pattern, name) && !IsFolder(folder + name)) out.push_back(folder + name);
    if (levels == 0) return;
    for (const std::string &name : entries)
        if (IsFolder(folder + name)) Expand(folder + name + "/", pattern, levels - 1, out);
}

} // namespace

bool MatchesPattern(std::string_view pattern, std::string_view name) {
    if (!name.empty() && name[0] == '.' && !pattern.empty() && pattern[0] != '.') return false;
    // Greedy with one back-track point: the last '*' seen.
    std::size_t p = 0, n = 0, starP = std::string_view::npos, starN = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++p;
            ++n;
        } else if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starN = n;
        } else if (starP != std::string_view::npos) {
            p = starP + 1;
            n = ++starN;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

CheckedNames CheckSendNames(const std::vector<std::string> &names, bool subfolders) {
    CheckedNames result;
    const auto problem = [&result](const std::string &name, const std::string &why) {
        result.problems.push_back(fmt::format("{}: {}", name, why));
    };
    for (const std::string &name : names) {
        struct stat st {};
        if (name.empty()) {
            problem(name, Reason(ENOENT));
            continue;
        }
        if (lstat(name.c_str(), &st) == 0) {
            const std::string why = Unsendable(name);
            if (why.empty())
                result.files.push_back(name);
            else
                problem(name, why);
            continue;
        }
        const int missing = errno;
        const auto [folder, pattern] = Split(name);
        if (!HasWildcard(pattern)) {
            problem(name, Reason(missing));
            continue;
        }
        std::vector<std::string> matches;
        Expand(folder, pattern, subfolders ? kSubfolderLevels : 0, matches);
        if (matches.empty()) {
            problem(name, _("no file matches"));
            continue;
        }
        for (const std::string &match : matches) {
            const std::string why = Unsendable(match);
            if (why.empty())
                result.files.push_back(match);
            else
                problem(match, why);
        }
    }
    return result;
}

ExactNames::~ExactNames() {
    for (const std::string &link : links_) unlink(link.c_str());
    for (auto it = folders_.rbegin(); it != folders_.rend(); ++it) rmdir(it->c_str());
}

bool ExactNames::Build(const std::vector<std::string> &files, bool keepFolders,
                       std::string &error) {
    namespace fs = std::filesystem;
    names_.clear();
    for (const std::string &file : files) {
        const auto [folder, base] = Split(file);
        if (!HasWildcard(base)) {
            names_.push_back(file);
            continue;
        }
        if (keepFolders) {
            error = fmt::format(F_("{}: a name holding '*' or '?' cannot travel with its folder"),
                                file);
            return false;
        }
        if (root_.empty()) {
            std::string pattern = (fs::temp_directory_path() / "zvxfer-exact-XXXXXX").string();
            if (!mkdtemp(pattern.data())) {
                error = fmt::format(F_("cannot make a private folder: {}"), Reason(errno));
                return false;
            }
            root_ = pattern;
            folders_.push_back(root_);
        }
        const std::string own = fmt::format("{}/{}", root_, folders_.size());
        std::error_code ec;
        const fs::path target = fs::absolute(file, ec);
        if (ec || mkdir(own.c_str(), 0700) != 0) {
            error = fmt::format(F_("cannot make a private folder: {}"), Reason(errno));
            return false;
        }
        folders_.push_back(own);
        const std::string link = own + "/" + base;
        if (symlink(target.c_str(), link.c_str()) != 0) {
            error = fmt::format(F_("{}: cannot link to it: {}"), file, Reason(errno));
            return false;
        }
        links_.push_back(link);
        names_.push_back(link);
    }
    return true;
}

} // namespace zvxfer::cli
