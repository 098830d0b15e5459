// The visible form of peer text: every control character escaped, line ends
// kept, text in pieces judged as if whole, and a second pass changing nothing.
#include "log/visible_text.h"

#include <gtest/gtest.h>

#include <string>

using quendral::visibleText;
using quendral::VisibleTextStream;

namespace {

// True when a terminal shows `text` as it reads: printable ASCII, line feeds,
// tabs, carriage returns only before a line feed, and UTF-8 characters other
// than C1 controls.
bool isHarmless(const std::string& text)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '\r') {
            if (i + 1 >= text.size() || text[i + 1] != '\n') {
                return false;
            }
        } else if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F) {
            return false;
        } else if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) <= 0x9F) {
            return false;
        }
    }
    return true;
}

std::string fedInPieces(const std::string& text, std::size_t pieceLength)
{
    VisibleTextStream stream;
    std::string out;
    for (std::size_t i = 0; i < text.size(); i += pieceLength) {
        out += stream.feed(std::string_view(text).substr(i, pieceLength));
    }
    return out + stream.finish();
}

} // namespace

TEST(HostileVisibleText, EachControlCharacterHasAVisibleForm)
{
    EXPECT_EQ(visibleText(std::string("a\0b", 3)), R"(a\0b)");
    EXPECT_EQ(visibleText("\x1b[2J\x07\x08\x7f"), R"(\x1b[2J\x07\x08\x7f)");
    EXPECT_EQ(visibleText("over\rwrite"), R"(over\rwrite)");
    EXPECT_EQ(visibleText("end\r"), R"(end\r)");
    EXPECT_EQ(visibleText("\xc2\x9b"
                          "31m"),
              R"(\u009b31m)");
    EXPECT_EQ(visibleText("\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80"), R"(\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80)");
}

TEST(HostileVisibleText, LineEndsTabsAndCharactersStay)
{
    const std::string text = "line one\r\nline two\n\tindented \xc3\xa9\xe2\x80\xa6\xf0\x9f\x99\x82 \\x1b\n";
    EXPECT_EQ(visibleText(text), text);
}

TEST(HostileVisibleText, EveryPairOfBytesBecomesHarmlessAndASecondPassChangesNothing)
{
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string text{static_cast<char>(first), static_cast<char>(second)};
            const std::string visible = visibleText(text);
            ASSERT_TRUE(isHarmless(visible)) << first << " " << second;
            ASSERT_EQ(visibleText(visible), visible) << first << " " << second;
        }
    }
}

TEST(HostileVisibleText, TextInPiecesIsShownAsTextWhole)
{
    // Every kind of byte, the NUL included (so the length comes from the array).
    constexpr char kMixed[] = "CID:\x1b]0;t\x07 ok\r\n\xc3\xa9t\xc3\xa9\r\rx\xe2\x80\xa6\xff\0";
    const std::string text = std::string(kMixed, sizeof kMixed - 1) + "\r";
    for (std::size_t length = 1; length <= text.size(); ++length) {
        EXPECT_EQ(fedInPieces(text, length), visibleText(text)) << "pieces of " << length;
    }
}

TEST(HostileVisibleText, ALimitNeverSplitsAnEscapeOrACharacter)
{
    std::string out;
    EXPECT_EQ(quendral::appendVisibleText(out,
                                          "ab\x1b"
                                          "cd",
                                          5),
              2U);
    EXPECT_EQ(out, "ab");
    out.clear();
    EXPECT_EQ(quendral::appendVisibleText(out, "ab\xc3\xa9", 3), 2U);
    EXPECT_EQ(out, "ab");
    out.clear();
    EXPECT_EQ(quendral::appendVisibleText(out,
                                          "ab\x1b"
                                          "cd",
                                          6),
              3U);
    EXPECT_EQ(out, R"(ab\x1b)");
}
