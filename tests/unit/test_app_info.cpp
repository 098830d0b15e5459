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

namespace {

std::optional<std::string> productVersionOf(const TempDir& dir, const std::string& osRelease)
{
    const auto file = dir.path() / "os-release";
    std::ofstream(file) << osRelease;
    return quendral::appinfo::osProductVersion(file.string());
}

} // namespace

TEST(AppInfo, ProductVersionPrefersVersionIdOverBuildId)
{
    TempDir dir;
    EXPECT_EQ(productVersionOf(dir, "BUILD_ID=20240101\nVERSION_ID=13\n"), "13");
}

// Arch Linux: no VERSION_ID, BUILD_ID=rolling.
TEST(AppInfo, ProductVersionFallsBackToBuildIdWithoutVersionId)
{
    TempDir dir;
    EXPECT_EQ(productVersionOf(dir, "NAME=\"Arch Linux\"\nID=arch\nBUILD_ID=rolling\n"), "rolling");
    EXPECT_EQ(productVersionOf(dir, "ID=gentoo\nBUILD_ID=\"20231102\"\n"), "20231102");
}

// Debian testing and sid name neither.
TEST(AppInfo, ProductVersionIsRollingWithoutVersionIdAndBuildId)
{
    TempDir dir;
    EXPECT_EQ(productVersionOf(dir, "PRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\nID=debian\n"), "rolling");
    EXPECT_EQ(productVersionOf(dir, ""), "rolling");
}

TEST(AppInfo, EmptyVersionIdCountsAsAbsent)
{
    TempDir dir;
    EXPECT_EQ(productVersionOf(dir, "VERSION_ID=\"\"\nBUILD_ID=''\n"), "rolling");
    EXPECT_EQ(productVersionOf(dir, "VERSION_ID=\nBUILD_ID=2024.1\n"), "2024.1");
}

// Shell-style quoting: double or single quotes, backslash escapes inside double quotes.
TEST(AppInfo, ProductVersionUnquotesAsOsReleaseAllows)
{
    TempDir dir;
    EXPECT_EQ(productVersionOf(dir, "VERSION_ID=12\n"), "12");
    EXPECT_EQ(productVersionOf(dir, "VERSION_ID=\"12.4\"\n"), "12.4");
    EXPECT_EQ(productVersionOf(dir, "VERSION_ID='12.4'\n"), "12.4");
    EXPECT_EQ(productVersionOf(dir, "BUILD_ID=\"a\\\"b\\\\c\\$d\\`e\"\n"), "a\"b\\c$d`e");
}

TEST(AppInfo, ProductVersionSkipsCommentsAndLookalikeKeys)
{
    TempDir dir;
    EXPECT_EQ(productVersionOf(dir, "# VERSION_ID=1\nMY_VERSION_ID=2\nVERSION_ID_LIKE=3\nBUILD_ID=4\n"), "4");
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
