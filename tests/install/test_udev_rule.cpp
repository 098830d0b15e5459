// The udev rule the package ships: the logged-in user gets every port of a
// board the updater knows, in its boot loader too, ModemManager keeps away
// from them, and no other device is touched. The identities are read from
// the board table itself, so a board added there without its rule fails here.
#include "flashing/board_table.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace quendral;

namespace {

// One `KEY{attribute}OP"value"` of a rule line.
struct RuleItem {
    std::string key;
    std::string op;
    std::string value;
};

using RuleLine = std::vector<RuleItem>;

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    const auto last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

// Splits at the commas outside quotes; an item that does not parse keeps its
// whole text as the key and an empty operator, which no check accepts.
RuleLine parseLine(const std::string& line)
{
    std::vector<std::string> parts(1);
    bool quoted = false;
    for (const char c : line) {
        if (c == '"') {
            quoted = !quoted;
        }
        if (c == ',' && !quoted) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    RuleLine items;
    for (const auto& raw : parts) {
        const std::string part = trimmed(raw);
        const auto op = part.find_first_of("=!+-:");
        const auto quote = part.find('"');
        if (op == std::string::npos || quote == std::string::npos || quote < op || part.back() != '"') {
            items.push_back({part, "", ""});
            continue;
        }
        items.push_back(
            {part.substr(0, op), part.substr(op, quote - op), part.substr(quote + 1, part.size() - quote - 2)});
    }
    return items;
}

std::vector<std::pair<int, RuleLine>> ruleLines()
{
    const char* source = std::getenv("QUENDRAL_TEST_SOURCE_DIR");
    EXPECT_NE(source, nullptr);
    std::ifstream in(std::filesystem::path(source != nullptr ? source : "") / "resources" / "udev" /
                     "70-quendral-controllers.rules");
    EXPECT_TRUE(in.good());
    std::vector<std::pair<int, RuleLine>> lines;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        line = trimmed(line);
        if (!line.empty() && line.front() != '#') {
            lines.emplace_back(number, parseLine(line));
        }
    }
    return lines;
}

const RuleItem* find(const RuleLine& line, const std::string& key, const std::string& op)
{
    for (const auto& item : line) {
        if (item.key == key && item.op == op) {
            return &item;
        }
    }
    return nullptr;
}

bool isMatch(const RuleItem& item)
{
    return item.op == "==" || item.op == "!=";
}

std::string hex4(std::uint16_t value)
{
    std::ostringstream text;
    text << std::hex << std::setw(4) << std::setfill('0') << value;
    return text.str();
}

} // namespace

TEST(UdevRule, NamesExactlyTheBoardTablesIdentities)
{
    std::set<std::pair<std::string, std::string>> table;
    for (const auto& row : BoardTable::rows()) {
        table.emplace(hex4(row.vendorId), hex4(row.productId));
    }
    std::set<std::pair<std::string, std::string>> rule;
    for (const auto& [number, line] : ruleLines()) {
        const auto* vendor = find(line, "ATTRS{idVendor}", "==");
        const auto* product = find(line, "ATTRS{idProduct}", "==");
        if (vendor != nullptr || product != nullptr) {
            ASSERT_TRUE(vendor != nullptr && product != nullptr) << "line " << number << " names half an identity";
            EXPECT_TRUE(rule.emplace(vendor->value, product->value).second) << "line " << number << " repeats one";
        }
    }
    EXPECT_EQ(rule, table);
}

// Whatever the rule changes, it changes for a known board's tty only, and it
// changes just two things: the seat's user may open it, ModemManager leaves it.
TEST(UdevRule, GivesEachKnownBoardToTheSeatsUserKeepsModemManagerAwayAndDoesNothingElse)
{
    const std::set<std::string> expectedChanges = {"TAG+=uaccess", "ENV{ID_MM_DEVICE_IGNORE}=1"};
    int boardLines = 0;
    for (const auto& [number, line] : ruleLines()) {
        SCOPED_TRACE("line " + std::to_string(number));
        std::set<std::string> changes;
        bool jumpsOrLabels = false;
        for (const auto& item : line) {
            EXPECT_FALSE(item.op.empty()) << "not a rule item: " << item.key;
            if (item.key == "GOTO" || item.key == "LABEL") {
                jumpsOrLabels = true;
            } else if (!isMatch(item)) {
                changes.insert(item.key + item.op + item.value);
            }
        }
        if (changes.empty()) {
            EXPECT_TRUE(jumpsOrLabels) << "a line that neither changes nor jumps";
            continue;
        }
        ++boardLines;
        EXPECT_FALSE(jumpsOrLabels);
        EXPECT_EQ(changes, expectedChanges);
        const auto* subsystem = find(line, "SUBSYSTEM", "==");
        ASSERT_NE(subsystem, nullptr) << "a change that is not limited to serial ports";
        EXPECT_EQ(subsystem->value, "tty");
        EXPECT_NE(find(line, "ATTRS{idVendor}", "=="), nullptr) << "a change for any vendor's device";
        EXPECT_NE(find(line, "ATTRS{idProduct}", "=="), nullptr) << "a change for any of a vendor's devices";
    }
    EXPECT_EQ(boardLines, static_cast<int>(BoardTable::rows().size()));
}
