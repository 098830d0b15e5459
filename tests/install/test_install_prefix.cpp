// `cmake --install` into a prefix of our own, then the installed command line
// run from there: it must take its flashing tools from that prefix, not from
// the build tree, and the tools there must be the system's.
#include "support/shell_command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

using quendral::test::runShellCommand;
using quendral::test::TempDir;

namespace {

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    return value != nullptr ? value : "";
}

std::string contentsOf(const std::filesystem::path& file)
{
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

TEST(InstallPrefix, InstalledCommandLineTakesItsToolsFromItsOwnPrefix)
{
    TempDir dir;
    const auto prefix = std::filesystem::canonical(dir.path()) / "prefix";
    const auto install =
        runShellCommand(environment("QUENDRAL_CMAKE") + " --install " + environment("QUENDRAL_TEST_BUILD_DIR") +
                        " --prefix " + prefix.string() + " 2>&1");
    ASSERT_EQ(install.exitCode, 0) << install.output;

    const auto resources = prefix / "share" / "quendral-firmware-updater";
    std::error_code ec;
    EXPECT_EQ(std::filesystem::read_symlink(resources / "avrdude", ec), "/usr/bin/avrdude") << ec.message();
    EXPECT_EQ(std::filesystem::read_symlink(resources / "bossac", ec), "/usr/bin/bossac") << ec.message();
    EXPECT_EQ(std::filesystem::read_symlink(resources / "avrdude.conf", ec), "/etc/avrdude.conf") << ec.message();

    // A flash to a port that is not there stops before any tool runs; the log
    // has already named the folder the tools would come from.
    const auto data = dir.path() / "data";
    std::filesystem::create_directories(data);
    const auto run =
        runShellCommand("env XDG_DATA_HOME=" + data.string() + " " + (prefix / "bin" / "quendral-cli").string() +
                        " flash " + (dir.path() / "firmware.hex").string() + " -p ttyQUENDRALNONE 2>&1");
    EXPECT_EQ(run.exitCode, 1) << run.output;
    const auto log = contentsOf(data / "QuendralFirmwareUpdater" / "log.txt");
    EXPECT_NE(log.find("Flashing tools from " + resources.string() + "\n"), std::string::npos) << log;
}

// The intermediate firmware is the maker's file, named when the package is
// made; a tree configured without one installs none (the package's file list
// is checked in tests/package).
TEST(InstallPrefix, TheIntermediateFirmwareTheMakerNamesGoesIntoTheResourceFolder)
{
    TempDir dir;
    const auto firmware = dir.path() / "makers-intermediate.hex";
    std::ofstream(firmware) << ":0400000001020304F2\n:00000001FF\n";
    const auto tree = dir.path() / "tree";
    const auto configure = runShellCommand(
        environment("QUENDRAL_CMAKE") + " -S " + environment("QUENDRAL_TEST_SOURCE_DIR") + " -B " + tree.string() +
        " -DQUENDRAL_BUILD_GUI=OFF -DQUENDRAL_INTERMEDIATE_FIRMWARE_DUE=" + firmware.string() + " 2>&1");
    ASSERT_EQ(configure.exitCode, 0) << configure.output;

    const auto prefix = dir.path() / "prefix";
    const auto install = runShellCommand(environment("QUENDRAL_CMAKE") + " --install " + tree.string() +
                                         " --component resource-folder --prefix " + prefix.string() + " 2>&1");
    ASSERT_EQ(install.exitCode, 0) << install.output;
    const auto installed = prefix / "share" / "quendral-firmware-updater" / "intermediate_due.hex";
    EXPECT_EQ(contentsOf(installed), contentsOf(firmware));
    EXPECT_EQ(std::filesystem::read_symlink(installed.parent_path() / "bossac"), "/usr/bin/bossac");
}

TEST(InstallPrefix, AnIntermediateFirmwareThatIsNotThereStopsTheConfiguration)
{
    TempDir dir;
    const auto configure = runShellCommand(
        environment("QUENDRAL_CMAKE") + " -S " + environment("QUENDRAL_TEST_SOURCE_DIR") + " -B " +
        (dir.path() / "tree").string() + " -DQUENDRAL_BUILD_GUI=OFF -DQUENDRAL_INTERMEDIATE_FIRMWARE_DUE=" +
        (dir.path() / "missing.hex").string() + " 2>&1");
    EXPECT_NE(configure.exitCode, 0) << configure.output;
    EXPECT_NE(configure.output.find("QUENDRAL_INTERMEDIATE_FIRMWARE_DUE: no such file"), std::string::npos)
        << configure.output;
}
