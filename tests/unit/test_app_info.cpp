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

TEST(AppInfo, ProductVersionIsNoneWithoutVersionId)
{
    TempDir dir;
    const auto file = dir.path() / "os-release";
    std::ofstream(file) << "ID=arch\n";
    EXPECT_EQ(quendral::appinfo::osProductVersion(file.string()), std::nullopt);
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
