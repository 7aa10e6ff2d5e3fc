// A temporary folder tree for file-system tests, removed with everything in
// it when the object goes.
#pragma once
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>

namespace zvxfer::test {

class TempTree {
  public:
    // A new folder under the system's temporary folder: a random name that
    // create_directory makes only when nothing of that name exists yet.
    TempTree() {
        static std::atomic<unsigned> counter{0};
        std::error_code error;
        const std::filesystem::path base = std::filesystem::temp_directory_path(error);
        std::mt19937_64 random(
            std::random_device{}() ^
            static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
            counter.fetch_add(1));
        for (int attempt = 0; attempt < 100 && root_.empty(); ++attempt) {
            const std::string name = "zvxfer-" + std::to_string(random() % 1000000000000ull);
            if (std::filesystem::create_directory(base / name, error))
                root_ = (base / name).generic_string();
        }
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
