#include "../support/temp_dir.h"
#include "platform/app_info.h"
#include "platform/paths.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

using quendral::test::TempDir;

TEST(AppInfo, ProductVersionIsVersionIdOfOsRelease)
{
    TempDir dir;
    const auto file = dir.path() / "os-release";
    std::ofstream(file) << "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\nID=debian\n";
    EXPECT_EQ(quendral::appinfo::osProductVersion(file.string()), "12");
}

// Rolling distributions have no VERSION_ID: Arch names a BUILD_ID, Debian
// testing and sid name neither. Values are quoted as a shell would read them.
TEST(AppInfo, ProductVersionFallsBackToBuildIdThenRolling)
{
    struct Case {
        const char* what;
        const char* osRelease;
        std::string expected;
    };
    const Case cases[] = {
        {"VERSION_ID wins", "BUILD_ID=20240101\nVERSION_ID=13\n", "13"},
        {"Arch", "NAME=\"Arch Linux\"\nID=arch\nBUILD_ID=rolling\n", "rolling"},
        {"quoted BUILD_ID", "ID=gentoo\nBUILD_ID=\"20231102\"\n", "20231102"},
        {"Debian sid", "PRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\nID=debian\n", "rolling"},
        {"empty file", "", "rolling"},
        {"empty values", "VERSION_ID=\"\"\nBUILD_ID=''\n", "rolling"},
        {"empty VERSION_ID", "VERSION_ID=\nBUILD_ID=2024.1\n", "2024.1"},
        {"bare", "VERSION_ID=12\n", "12"},
        {"double quotes", "VERSION_ID=\"12.4\"\n", "12.4"},
        {"single quotes", "VERSION_ID='12.4'\n", "12.4"},
        {"escapes", "BUILD_ID=\"a\\\"b\\\\c\\$d\\`e\"\n", "a\"b\\c$d`e"},
        {"comments and lookalikes", "# VERSION_ID=1\nMY_VERSION_ID=2\nVERSION_ID_LIKE=3\nBUILD_ID=4\n", "4"},
    };
    TempDir dir;
    const auto file = dir.path() / "os-release";
    for (const auto& [what, osRelease, expected] : cases) {
        std::ofstream(file) << osRelease;
        EXPECT_EQ(quendral::appinfo::osProductVersion(file.string()), expected) << what;
    }
}

TEST(AppInfo, ProductVersionIsNoneWhenOsReleaseCannotBeRead)
{
    TempDir dir;
    EXPECT_EQ(quendral::appinfo::osProductVersion((dir.path() / "missing").string()), std::nullopt);
}

TEST(AppInfo, ShortVersionIsTheProjectVersion)
{
    const std::string version = quendral::appinfo::shortVersion();
    EXPECT_FALSE(version.empty());
    EXPECT_NE(version.find('.'), std::string::npos);
}

TEST(Paths, UserDataFolderFollowsXdgDataHomeThenHome)
{
    const char* oldXdg = std::getenv("XDG_DATA_HOME");
    const std::string savedXdg = oldXdg != nullptr ? oldXdg : "";
    const std::string savedHome = std::getenv("HOME") != nullptr ? std::getenv("HOME") : "";
    ::setenv("XDG_DATA_HOME", "/srv/data", 1);
    EXPECT_EQ(quendral::paths::userDataFolder(), std::filesystem::path("/srv/data"));
    ::setenv("XDG_DATA_HOME", "relative/ignored", 1);
    ::setenv("HOME", "/home/owner", 1);
    EXPECT_EQ(quendral::paths::userDataFolder(), std::filesystem::path("/home/owner/.local/share"));
    ::setenv("HOME", savedHome.c_str(), 1);
    if (oldXdg != nullptr) {
        ::setenv("XDG_DATA_HOME", savedXdg.c_str(), 1);
    } else {
        ::unsetenv("XDG_DATA_HOME");
    }
}

TEST(Paths, ResourceFolderOfTheBuildHoldsTheFlashingTools)
{
    const auto folder = quendral::paths::resourceFolder();
    EXPECT_TRUE(std::filesystem::exists(folder / "avrdude")) << folder;
    EXPECT_TRUE(std::filesystem::exists(folder / "bossac")) << folder;
    EXPECT_TRUE(std::filesystem::exists(folder / "avrdude.conf")) << folder;
    quendral::paths::setResourceFolder("/opt/elsewhere");
    EXPECT_EQ(quendral::paths::resourceFolder(), std::filesystem::path("/opt/elsewhere"));
    quendral::paths::setResourceFolder(std::nullopt);
}
