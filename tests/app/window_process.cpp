// The window binary as a user starts it: the two options it answers itself
// without opening a window.
#include "platform/app_info.h"
#include "support/shell_command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

using quendral::test::runShellCommand;
using quendral::test::ShellResult;
using quendral::test::TempDir;

namespace {

// A window that ignored the option would run until closed: the time limit ends it.
ShellResult runWindow(const std::string& arguments)
{
    const char* window = std::getenv("QUENDRAL_WINDOW");
    EXPECT_NE(window, nullptr);
    const TempDir data;
    return runShellCommand("env QT_QPA_PLATFORM=offscreen XDG_DATA_HOME=" + data.path().string() + " timeout 10 " +
                           (window != nullptr ? window : "false") + " " + arguments + " 2>&1");
}

} // namespace

TEST(WindowProcess, VersionPrintsNameAndVersionAndExitsZero)
{
    const auto result = runWindow("--version");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "quendral-firmware-updater " + quendral::appinfo::shortVersion() + "\n");
}

TEST(WindowProcess, HelpPrintsUsageAndExitsZero)
{
    const auto result = runWindow("--help");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output.rfind("Usage: quendral-firmware-updater [QT-OPTIONS]\n", 0), 0U) << result.output;
    EXPECT_NE(result.output.find("--version"), std::string::npos) << result.output;
}

// Qt's own options stay Qt's: one in front does not hide ours.
TEST(WindowProcess, VersionAfterAQtOptionIsStillAnswered)
{
    const auto result = runWindow("-platform offscreen --version");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "quendral-firmware-updater " + quendral::appinfo::shortVersion() + "\n");
}
