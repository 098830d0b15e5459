#pragma once
// A log file of its own for one test: the logger writes into a fresh folder
// and says nothing on the console; everything is reset at scope end.
#include "log/logger.h"
#include "temp_dir.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace quendral::test {

class ScopedLog {
public:
    ScopedLog()
    {
        Logger::reset();
        Logger::setConsole(nullptr);
        Logger::setDataFolder(_dir.path());
        Logger::initLogPath();
    }
    ~ScopedLog()
    {
        Logger::reset();
        Logger::setDataFolder(std::nullopt);
        Logger::setConsole(&std::cout);
    }
    ScopedLog(const ScopedLog&) = delete;
    ScopedLog& operator=(const ScopedLog&) = delete;

    [[nodiscard]] std::string text() const
    {
        std::ifstream in(Logger::getLogPath(), std::ios::binary);
        std::stringstream content;
        content << in.rdbuf();
        return content.str();
    }
    [[nodiscard]] bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

private:
    TempDir _dir;
};

} // namespace quendral::test
