// Received names and files: the mapping of a name from the line to a name
// below the receive folder, where the default opener places it, and whole
// YMODEM and XMODEM receives from a scripted sender into a folder that
// holds links to elsewhere, under each existing-file policy.  (Replacing an
// old file only with a complete one, and a partial file without the
// sender's time, are checked end to end by the hostile far end.)
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/core.h"
#include "core/crc16.h"
#include "fake_clock.h"
#include "link_files.h"
#include "system_files.h"
#include "temp_tree.h"
#include "test_host.h"

namespace zvxfer {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
constexpr uint8_t EOT = 0x04;

TEST(ReceivedName, NeverAbsoluteNeverClimbingNoControlBytesAndCut) {
    using namespace std::string_literals;
    struct Case {
        std::string received;
        bool fullPath;
        std::size_t room;
        std::string mapped;
    } cases[] = {
        {"report.txt", false, 255, "report.txt"},
        {"/tmp/x", false, 255, "x"},
        {"../../x", false, 255, "x"},
        {"C:\\d\\x", false, 255, "x"},
        {"dir/sub\\mixed", false, 255, "mixed"},
        {"a\\b:c", false, 255, "c"}, // a last component's drive goes
        {"x\\C:..\\..\\evil", false, 255, "evil"},
        {"x/D:evil", false, 255, "evil"},
        {"x\\z:", false, 255, "unnamed"},
        {"x\\1:y", false, 255, "1:y"}, // a drive is a letter
        {"x\\ab:y", false, 255, "ab:y"},
        {"A:FILE.TXT", false, 255, "FILE.TXT"},
        {"dir/", false, 255, "unnamed"},
        {"", false, 255, "unnamed"},
        {".", false, 255, "_"},
        {"a/..", false, 255, "__"},
        {"a\x01"
         "b\x1f\x7f",
         false, 255, "a_b__"},
        {"x\0/etc/passwd"s, false, 255, "x"}, // a NUL ends the name
        {"\xc3\xa9t\xc3\xa9", false, 255, "\xc3\xa9t\xc3\xa9"},
        {"/tmp/x", true, 255, "tmp/x"},
        {"../../x", true, 255, "x"},
        {"C:\\d\\x", true, 255, "d/x"},
        {"c:rel\\x", true, 255, "rel/x"},
        {"1:x/C:y", true, 255, "1:x/C:y"}, // a drive is a letter, first only
        {"a/./b//c\\", true, 255, "a/b/c"},
        {"a/b/..", true, 255, "a/b"},
        {"/", true, 255, "unnamed"},
        {"..", true, 255, "unnamed"},
        {"a\n/b\x7f", true, 255, "a_/b_"},
        {"abcdef", false, 3, "abc"},
        {"ab/cd", true, 3, "ab"},                   // the cut ends on a separator
        {"x/...", true, 4, "x/__"},                 // or leaves ".." as the final name
        {"x/.a", true, 3, "x/_"},                   // or "."
        {"\xc3\xa9\xc3\xa9", false, 3, "\xc3\xa9"}, // never inside a character
        {"abc", false, 0, ""},
    };
    for (const Case &c : cases)
        EXPECT_EQ(MapReceivedName(c.received, c.fullPath, c.room), c.mapped)
            << c.received << (c.fullPath ? " full" : " bare") << " room " << c.room;
}

TEST(ReceivedName, TheOpenerPlacesLineNamesBelowTheFolderAndHostNamesInTheirOwn) {
    struct Case {
        int8_t protocol;
        const char *folder, *name;
        bool ok;
        const char *base, *rest;
    } cases[] = {
        {Ymodem, "/r/in/", "/r/in/x", true, "/r/in/", "x"},
        {Zmodem, "/r/in/", "/r/in/a/b", true, "/r/in/", "a/b"},
        {Kermit, "/r/in", "/r/inreport", true, "/r/", "inreport"}, // the folder text is a prefix
        {CompuServeBPlus, "", "x", true, "", "x"},
        {YmodemG, "/r/in/", "/etc/x", false, "", ""}, // not below the folder
        {Ymodem, "/r/in/", "/r/in/../x", false, "", ""},
        {Zmodem, "/r/in/", "/r/in/", false, "", ""},
        {Zmodem, "/r/in/", "/r/in/a//b", false, "", ""},
        {Xmodem, "/r/in/", "/etc/x", true, "/etc/", "x"}, // the host chose it
        {Xmodem1K, "/r/in/", "x.bin", true, "", "x.bin"},
        {Ascii, "", "/etc/", false, "", ""},
        {Xmodem, "", "/etc/..", false, "", ""},
        // '\' separates as '/' does, in the folder text and in the name.
        {Ymodem, "C:\\r\\in\\", "C:\\r\\in\\x", true, "C:\\r\\in\\", "x"},
        {Zmodem, "C:\\r\\in\\", "C:\\r\\in\\a/b", true, "C:\\r\\in\\", "a/b"},
        {Kermit, "C:\\r/in", "C:\\r/inx", true, "C:\\r/", "inx"},
        {Zmodem, "r\\in\\", "r\\in\\a\\..\\b", false, "", ""},
        {Zmodem, "r\\in\\", "r\\in\\a\\\\b", false, "", ""},
        {Zmodem, "r/in/", "r/in/\\x", false, "", ""},
        {Zmodem, "r/in/", "r/in/x\\", false, "", ""},
        {Xmodem, "", "C:\\dl\\x.bin", true, "C:\\dl\\", "x.bin"},
    };
    XferPort port{};
    XferRecord record{};
    record.Port = &port;
    for (const Case &c : cases) {
        port.ReceiveFolder = c.folder;
        record.Protocol = c.protocol;
        std::string base = "?", rest = "?";
        const bool ok = XferReceivePlace(&record, c.name, base, rest);
        EXPECT_EQ(ok, c.ok) << c.name;
        if (ok && c.ok) {
            EXPECT_EQ(base + "|" + rest, std::string(c.base) + "|" + c.rest) << c.name;
        }
    }
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Block(uint8_t number, Bytes data) {
    data.resize(128, 0);
    const uint16_t c = Crc16Block(128, 0, data.data());
    return Cat({{1, number, static_cast<uint8_t>(~number)},
                data,
                {static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c)}});
}

const Bytes kData = {'n', 'e', 'w', ' ', 'd', 'a', 't', 'a'};

// A YMODEM sender's bytes for one file named `name` of 200 bytes (two
// blocks), the whole batch.
Bytes Batch(const std::string &name) {
    const std::string info = name + '\0' + "200 13727410000 0";
    return Cat({Block(0, Bytes(info.begin(), info.end())),
                Block(1, kData),
                Block(2, kData),
                {EOT},
                Block(0, {})});
}

using test::FileText;

std::vector<std::string> Tree(const std::string &root) {
    std::vector<std::string> names;
    for (const auto &e : fs::recursive_directory_iterator(root))
        names.push_back(fs::relative(e.path(), root).generic_string());
    std::sort(names.begin(), names.end());
    return names;
}

class Receive : public ::testing::Test {
  protected:
    void SetUp() override {
        outside_.File("target.txt", "outside");
        in_ = tree_.Dir("in") + "/";
    }
    // Links in the receive folder to a missing file, a file and a folder
    // outside it; false when this system makes no symbolic links for us.
    bool MakeLinks() {
        if (!test::MakeSymlink(outside_.Path("nothing.txt"), in_ + "dangling")) return false;
        fs::create_symlink(outside_.Path("target.txt"), in_ + "tofile");
        fs::create_symlink(outside_.Folder(), in_ + "linkdir");
        return true;
    }
    ~Receive() override {
        if (port_) port_->Ops.PortClose(port_);
    }
    int32_t RunYmodem(const Bytes &peer, int32_t policy, bool fullPath = false) {
        Open(policy);
        host_.Receive(peer);
        return YmodemReceiveWithOptions(port_, nullptr, nullptr,
                                        fullPath ? XferOptFullPath : XferOptEnd, XferOptEnd);
    }
    int32_t RunXmodem(std::string name, int32_t policy) {
        Open(policy);
        host_.Receive(Cat({Block(1, kData), {EOT}}));
        return XmodemReceiveWithOptions(port_, name.data(), nullptr, nullptr, XferOptEnd);
    }
    // The outside tree as it was made: nothing written through a link.
    bool OutsideUntouched() const {
        return Tree(outside_.Folder()) == std::vector<std::string>{"target.txt"} &&
               FileText(outside_.Path("target.txt")) == "outside";
    }

    test::FakeClock clock_{test::FakeClock::Scaled{1000}};
    test::TempTree tree_, outside_;
    std::string in_;
    test::TestHost host_;
    XferPort *port_ = nullptr;

  private:
    void Open(int32_t policy) {
        if (port_) port_->Ops.PortClose(port_);
        host_.ClearWritten();
        port_ = PortOpen(0, host_.Window(), in_.c_str(), policy);
        ASSERT_NE(port_, nullptr);
    }
};

// A link in the folder named like the incoming file: overwrite refuses,
// rename takes the next free name, skip skips; the link and what it points
// to stay as they were.  The same for XMODEM's host-named file, and for a
// linked subfolder of a full-path name.
TEST_F(Receive, LinksInTheWayAreNeverFollowed) {
    struct Case {
        const char *name;
        int32_t policy;
        int32_t result;
        const char *written; // null: nothing
    } cases[] = {
        {"dangling", XFER_EXISTING_OVERWRITE, XferErrOpenFile, nullptr},
        {"tofile", XFER_EXISTING_OVERWRITE, XferErrOpenFile, nullptr},
        {"dangling", XFER_EXISTING_RENAME, 1, "dangling(1)"},
        {"tofile", XFER_EXISTING_RENAME, 1, "tofile(1)"},
        {"linkdir", XFER_EXISTING_RENAME, 1, "linkdir(1)"}, // a link to a folder counts
        {"dangling", XFER_EXISTING_SKIP, 1, nullptr},
        {"tofile", XFER_EXISTING_SKIP, 1, nullptr},
    };
    if (!MakeLinks()) GTEST_SKIP() << "this system makes no symbolic links for this process";
    const std::vector<std::string> before = Tree(in_);
    for (const Case &c : cases) {
        for (const bool host : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + " policy " + std::to_string(c.policy) +
                         (host ? " xmodem" : " ymodem"));
            const int32_t result =
                host ? RunXmodem(in_ + c.name, c.policy) : RunYmodem(Batch(c.name), c.policy);
            EXPECT_EQ(result, c.result);
            EXPECT_TRUE(OutsideUntouched());
            std::vector<std::string> expected = before;
            if (c.written) {
                expected.push_back(c.written);
                std::sort(expected.begin(), expected.end());
                EXPECT_EQ(FileText(in_ + c.written).substr(0, kData.size()),
                          std::string(kData.begin(), kData.end()));
            }
            EXPECT_EQ(Tree(in_), expected);
            if (c.written) fs::remove(in_ + c.written);
        }
    }
    for (const int32_t policy : {XFER_EXISTING_OVERWRITE, XFER_EXISTING_RENAME}) {
        EXPECT_EQ(RunYmodem(Batch("linkdir/x"), policy, true), XferErrOpenFile);
        EXPECT_TRUE(OutsideUntouched());
        EXPECT_EQ(Tree(in_), before);
    }
}

// A receive folder written with '\' (as a Windows host writes it) takes
// the files, and names with drives, '\' and ".." from the line stay in it.
TEST_F(Receive, AFolderWrittenWithBackslashesKeepsLineNamesInside) {
    in_.back() = '\\';
    const std::string inside = tree_.Path("in") + "/";
    const std::vector<std::string> before = Tree(tree_.Folder());
    struct Case {
        const char *sent;
        bool fullPath;
        const char *landed; // below in/
    } cases[] = {
        {"C:\\..\\..\\escape.txt", false, "escape.txt"},
        {"x\\D:drive.txt", false, "drive.txt"},
        {"..\\..\\up.txt", true, "up.txt"},
        {"C:\\win\\sub/f.txt", true, "win/sub/f.txt"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.sent);
        EXPECT_EQ(RunYmodem(Batch(c.sent), XFER_EXISTING_RENAME, c.fullPath), 1);
        EXPECT_EQ(FileText(inside + c.landed).substr(0, kData.size()),
                  std::string(kData.begin(), kData.end()));
        std::vector<std::string> expected = before;
        for (std::string path = std::string("in/") + c.landed; path != "in";
             path = fs::path(path).parent_path().string())
            expected.push_back(path);
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(Tree(tree_.Folder()), expected);
        fs::remove_all(inside + (c.fullPath ? fs::path(c.landed).begin()->string() : c.landed));
    }
    EXPECT_TRUE(OutsideUntouched());
}

} // namespace
} // namespace zvxfer
