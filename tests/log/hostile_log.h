#pragma once
// A log file of its own for the log tests: the logger writes into a fresh
// folder and reports to a console the test reads.
#include "log/logger.h"
#include "support/logger_fixture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace quendral::test {

inline constexpr std::size_t kEntryLimit = 4096;
inline constexpr std::size_t kFileLimit = 1024 * 1024;
inline const std::string kCutMark = "\xE2\x80\xA6 (cut, ";

inline std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The bytes this process has asked the kernel to read and to write so far.
inline std::pair<long long, long long> ioCounters()
{
    std::ifstream io("/proc/self/io");
    long long read = -1;
    long long written = -1;
    for (std::string key; io >> key;) {
        long long value = 0;
        io >> value;
        if (key == "rchar:") {
            read = value;
        } else if (key == "wchar:") {
            written = value;
        }
    }
    return {read, written};
}

inline bool isValidUtf8(const std::string& text)
{
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        if (length == 0 || i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

// "[yyyy-MM-dd HH:mm:ss] " followed by `message`.
inline std::regex entry(const std::string& message)
{
    return std::regex(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\] )" + message);
}

// The logger with a data folder of its own whose application folder exists.
class HostileLog : public LoggerFixture {
protected:
    void SetUp() override
    {
        LoggerFixture::SetUp();
        std::filesystem::create_directories(folder());
    }
};

} // namespace quendral::test
