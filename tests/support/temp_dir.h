#pragma once
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace quendral::test {

// A fresh folder under /tmp, removed with everything in it at scope end.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "quendral-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        _path = pattern;
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return _path; }

private:
    std::filesystem::path _path;
};

} // namespace quendral::test
