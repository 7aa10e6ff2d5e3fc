// The local name a receiver writes to for a name from the other side, and
// where such a name is opened: below the port's receive folder, always.
#include <cstdio>
#include <string>
#include <string_view>

#include "core/core.h"
#include "core/protocol.h"
#include "platform/file.h"
#include "platform/path.h"

namespace zvxfer {

namespace {

constexpr std::size_t kPathLimit = 255;

// A final name that would name no file or a folder of its own.
void FixFinalName(std::string &name) {
    const std::size_t slash = name.rfind('/');
    const std::size_t start = slash == name.npos ? 0 : slash + 1;
    const std::string_view last = std::string_view(name).substr(start);
    if (last.empty())
        name.replace(start, name.npos, "unnamed");
    else if (last == ".")
        name.replace(start, name.npos, "_");
    else if (last == "..")
        name.replace(start, name.npos, "__");
}

} // namespace

std::string MapReceivedName(std::string_view received, bool fullPath, std::size_t room) {
    std::string text(received.substr(0, received.find('\0')));
    for (char &c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) c = '_';
    }

    std::string name;
    if (!fullPath) {
        // A last component that starts with a drive ("x\C:evil") would
        // name that drive's current folder on Windows: the drive goes.
        std::string_view bare = BareName(text.c_str());
        if (plat::StartsWithDrive(bare)) bare.remove_prefix(2);
        name = bare;
    } else {
        bool first = true;
        for (std::size_t at = 0; at <= text.size();) {
            std::size_t end = at;
            while (end < text.size() && !plat::IsPathSeparator(text[end])) ++end;
            std::string_view part = std::string_view(text).substr(at, end - at);
            if (first && plat::StartsWithDrive(part)) part.remove_prefix(2);
            first = false;
            if (!part.empty() && part != "." && part != "..") {
                if (!name.empty()) name += '/';
                name += part;
            }
            at = end + 1;
        }
    }
    FixFinalName(name);

    if (name.size() > room) {
        // Cut, never inside a UTF-8 sequence; the cut may end on a '/' or
        // leave "." or ".." as the final name.
        std::size_t cut = room;
        while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
        name.resize(cut);
        while (!name.empty() && name.back() == '/') name.pop_back();
        if (!name.empty()) FixFinalName(name);
    }
    return name;
}

void XferReceivedName(XferRecord *r, const char *received, char *out, const char *strippedLabel) {
    constexpr std::size_t kLimit = kPathLimit + 1; // with the terminator
    const char *folder = r->Port && r->Port->ReceiveFolder ? r->Port->ReceiveFolder : "";
    const std::size_t folderLength = std::string_view(folder).size();
    const std::size_t room = folderLength < kPathLimit ? kPathLimit - folderLength : 0;
    const std::string_view name = received ? received : "";

    if (!r->StripPath) {
        std::snprintf(out, kLimit, "%s%s", folder, MapReceivedName(name, true, room).c_str());
    } else if (folder[0] == 0 || plat::FileStat(folder).isDirectory) {
        // An empty folder is the current one.
        const std::string bare = MapReceivedName(name, false, room);
        XferStatus(r, 0, "%s%s", strippedLabel, bare.c_str());
        std::snprintf(out, kLimit, "%s%s", folder, bare.c_str());
    } else {
        std::snprintf(out, kLimit, "%s", folder);
    }
    XferStatus(r, 0, "Complete Path %s", out);
}

bool XferReceivePlace(const XferRecord *r, const char *name, std::string &base, std::string &rest) {
    if (name == nullptr) return false;
    const std::string_view whole(name);
    std::string_view folder;
    if (r != nullptr && ProtocolOf(r->Protocol).namesFromLine) {
        folder = r->Port && r->Port->ReceiveFolder ? r->Port->ReceiveFolder : "";
        if (!whole.starts_with(folder)) return false;
    } else {
        folder = whole; // the host named the file: its own folder part is the base
    }
    const std::size_t slash = plat::LastSeparator(folder);
    const std::size_t baseLength = slash == folder.npos ? 0 : slash + 1;
    base.assign(whole.substr(0, baseLength));
    rest.assign(whole.substr(baseLength));

    if (rest.empty() || plat::IsPathSeparator(rest.front()) || plat::IsPathSeparator(rest.back()))
        return false;
    for (std::size_t at = 0; at <= rest.size();) {
        std::size_t end = rest.find_first_of("/\\", at);
        if (end == rest.npos) end = rest.size();
        const std::string_view part = std::string_view(rest).substr(at, end - at);
        if (part.empty() || part == "." || part == "..") return false;
        at = end + 1;
    }
    return true;
}

} // namespace zvxfer
