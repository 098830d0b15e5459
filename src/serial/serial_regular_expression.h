#pragma once
// A compiled regular expression for packet descriptors, matched the way the
// serial layer has always matched them: on decoded text (code points, not
// bytes), anchored at the first character, not necessarily reaching the end.
//
// The engine is PCRE2 in UTF mode with Unicode properties for \w, \d, \b and
// every Unicode line terminator as a newline, so that ".", "$", "\w", "(?i)",
// look-behind, atomic groups and \uhhhh read as they do in the ICU syntax the
// patterns are written in. A pattern that does not compile yields nullptr.
//
// Matching is thread-safe; each thread keeps its own match data.
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quendral {

class SerialRegularExpression {
public:
    using Ptr = std::shared_ptr<const SerialRegularExpression>;

    // nullptr when the pattern does not compile; `errorText` then says why.
    static Ptr regularExpressionWithPattern(std::string_view pattern, std::string* errorText = nullptr);

    ~SerialRegularExpression();
    SerialRegularExpression(const SerialRegularExpression&) = delete;
    SerialRegularExpression& operator=(const SerialRegularExpression&) = delete;

    [[nodiscard]] const std::string& pattern() const { return _pattern; }

    // True when a match starts at the first character of `text`. The text
    // must be valid UTF-8 (callers check: text that does not decode never
    // matches). A match that runs into the engine's limits counts as none.
    [[nodiscard]] bool hasAnchoredMatch(std::span<const std::uint8_t> text) const;

    // The same question, asked so that the answer also says whether more text
    // could still make a match start here.
    enum class Prospect {
        Match,     // a match starts here (and would with any text appended)
        Never,     // no match starts here, whatever text is appended
        Undecided, // no verdict without a full match; more text may change it
    };
    [[nodiscard]] Prospect anchoredProspect(std::span<const std::uint8_t> text) const;

    struct Compiled;

private:
    SerialRegularExpression(std::string pattern, std::unique_ptr<Compiled> compiled);

    std::string _pattern;
    std::unique_ptr<Compiled> _compiled;
};

} // namespace quendral
