#include "../support/temp_dir.h"
#include "controller/firmware_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

using namespace quendral::firmware;
using quendral::test::TempDir;

namespace {

std::vector<std::uint8_t> bytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

} // namespace

TEST(Base64, DecodesPaddedText)
{
    EXPECT_EQ(decodeBase64("TWFu"), bytes("Man"));
    EXPECT_EQ(decodeBase64("TWE="), bytes("Ma"));
    EXPECT_EQ(decodeBase64("TQ=="), bytes("M"));
    EXPECT_EQ(decodeBase64(""), bytes(""));
    EXPECT_EQ(decodeBase64("OjEwMDAwMDAwMEMrL3w="), bytes(":100000000C+/|"));
}

TEST(Base64, LineBreaksAndStrayCharactersFail)
{
    EXPECT_EQ(decodeBase64("TWFu\nTWFu"), std::nullopt);
    EXPECT_EQ(decodeBase64("TWFuTWFu\n"), std::nullopt);
    EXPECT_EQ(decodeBase64("TW Fu"), std::nullopt);
    EXPECT_EQ(decodeBase64("TW-u"), std::nullopt);
}

TEST(Base64, MisplacedPaddingAndBadLengthsFail)
{
    EXPECT_EQ(decodeBase64("TWF"), std::nullopt);
    EXPECT_EQ(decodeBase64("T=Fu"), std::nullopt);
    EXPECT_EQ(decodeBase64("TQ==TWFu"), std::nullopt);
    EXPECT_EQ(decodeBase64("T==="), std::nullopt);
}

TEST(Md5, IsLowerCaseHex)
{
    EXPECT_EQ(md5Hex(bytes("")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5Hex(bytes("The quick brown fox jumps over the lazy dog")), "9e107d9d372bb6826bd81d3542a419d6");
}

TEST(WriteAtomically, WritesTheFile)
{
    TempDir dir;
    const auto path = dir.path() / "quendral-hexfile.hex";
    ASSERT_TRUE(writeAtomically(path, bytes(":00000001FF\n")));
    EXPECT_EQ(readFile(path), ":00000001FF\n");
    ASSERT_TRUE(writeAtomically(path, bytes("second")));
    EXPECT_EQ(readFile(path), "second");
    // No temporary files are left beside it.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator()), 1);
}

TEST(WriteAtomically, ReplacesAPlantedLinkInsteadOfWritingThroughIt)
{
    TempDir dir;
    const auto victim = dir.path() / "victim.txt";
    std::ofstream(victim) << "precious";
    const auto path = dir.path() / "quendral-hexfile.hex";
    std::filesystem::create_symlink(victim, path);
    ASSERT_TRUE(writeAtomically(path, bytes("firmware")));
    EXPECT_EQ(readFile(victim), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    EXPECT_EQ(readFile(path), "firmware");
}

TEST(WriteAtomically, FailsInAFolderThatDoesNotExist)
{
    TempDir dir;
    EXPECT_FALSE(writeAtomically(dir.path() / "missing" / "file.hex", bytes("x")));
}
