// A temporary folder tree for file-system tests, removed with everything in
// it when the object goes.
#pragma once
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace zvxfer::test {

class TempTree {
  public:
    TempTree() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zvxfer-XXXXXX").string();
        root_ = mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~TempTree() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    TempTree(const TempTree &) = delete;
    TempTree &operator=(const TempTree &) = delete;

    // Root folder with a trailing '/'.
    std::string Folder() const { return root_ + "/"; }
    std::string Path(const std::string &relative) const { return root_ + "/" + relative; }

    // Create a file (and its folders) holding `content`.
    std::string File(const std::string &relative, const std::string &content = "x") const {
        const std::string path = Path(relative);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    std::string Dir(const std::string &relative) const {
        std::filesystem::create_directories(Path(relative));
        return Path(relative);
    }

  private:
    std::string root_;
};

} // namespace zvxfer::test
