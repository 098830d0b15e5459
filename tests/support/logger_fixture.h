#pragma once
// A logger with a data folder of its own, reporting to a console the test
// reads; the clock is the system's. Everything is reset at the end.
#include "log/logger.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

namespace quendral::test {

class LoggerFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        Logger::reset();
        Logger::setDataFolder(dir.path());
        Logger::setConsole(&console);
        Logger::setClock(nullptr);
    }
    void TearDown() override
    {
        Logger::reset();
        Logger::setDataFolder(std::nullopt);
        Logger::setConsole(nullptr);
        Logger::setClock(nullptr);
    }

    [[nodiscard]] std::filesystem::path folder() const { return dir.path() / "QuendralFirmwareUpdater"; }
    [[nodiscard]] std::filesystem::path file() const { return folder() / "log.txt"; }

    TempDir dir;
    std::ostringstream console;
};

} // namespace quendral::test
