#pragma once
// A fresh folder under /tmp for one test, removed with everything in it when
// the object goes; and reading a file back whole.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace tobrin::test {

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class TemporaryFolder {
public:
    TemporaryFolder() {
        char name[] = "/tmp/tobrin-test-XXXXXX";
        if (!::mkdtemp(name)) throw std::runtime_error("no temporary folder");
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& relative) const { return path_ / relative; }

private:
    std::filesystem::path path_;
};

} // namespace tobrin::test
