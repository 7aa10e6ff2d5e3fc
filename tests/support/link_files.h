// What the link-pair tests share: random file contents, reading a received
// file back, and the outcomes a failed transfer may end with.
#pragma once
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace zvxfer::test {

using FileBytes = std::vector<char>;

inline FileBytes RandomBytes(std::size_t n, uint64_t seed) {
    std::mt19937_64 random(seed);
    FileBytes data(n);
    for (char &c : data) c = static_cast<char>(random());
    return data;
}

inline FileBytes ReadFileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return FileBytes(std::istreambuf_iterator<char>(in), {});
}
inline std::string FileText(const std::string &path) {
    const FileBytes bytes = ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

// A transfer code (-601..-623), a lost line (-1), a time-out (-8) or a full
// port (-9): the defined ways a run on a bad line may end.
inline bool DefinedFailure(int32_t code) {
    return (code <= -601 && code >= -623) || code == -1 || code == -8 || code == -9;
}

} // namespace zvxfer::test
