// SerialRegularExpression on PCRE2 (8-bit code units, UTF mode, JIT where available).
#define PCRE2_CODE_UNIT_WIDTH 8
#include "serial/serial_regular_expression.h"

#include <pcre2.h>

namespace quendral {
namespace {

// Catastrophic patterns must not stall the request-handling queue forever.
constexpr std::uint32_t kMatchLimit = 1'000'000;

struct MatchData {
    pcre2_match_data* data = pcre2_match_data_create(1, nullptr);
    pcre2_match_context* context = [] {
        pcre2_match_context* c = pcre2_match_context_create(nullptr);
        pcre2_set_match_limit(c, kMatchLimit);
        return c;
    }();
    MatchData() = default;
    MatchData(const MatchData&) = delete;
    MatchData& operator=(const MatchData&) = delete;
    ~MatchData()
    {
        pcre2_match_context_free(context);
        pcre2_match_data_free(data);
    }
};

MatchData& threadMatchData()
{
    thread_local MatchData matchData;
    return matchData;
}

} // namespace

struct SerialRegularExpression::Compiled {
    pcre2_code* code = nullptr;
    ~Compiled() { pcre2_code_free(code); }
};

SerialRegularExpression::Ptr SerialRegularExpression::regularExpressionWithPattern(std::string_view pattern,
                                                                                   std::string* errorText)
{
    pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
    pcre2_set_newline(context, PCRE2_NEWLINE_ANY);
    pcre2_set_compile_extra_options(context, PCRE2_EXTRA_ALT_BSUX);
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    // Anchoring is compiled in: the JIT does not honour it as a match option.
    // The start-up shortcuts stay off: PCRE2 10.42 derives them wrongly from a
    // lookahead in front of an optional item ("(?=a)a?a" asks for two
    // characters and a second "a", so "a" would not match), and a partial
    // match skips them, so the two questions below would disagree. Anchored,
    // they would save little anyway: one start, whose first character fails
    // at once.
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                     PCRE2_UTF | PCRE2_UCP | PCRE2_ANCHORED | PCRE2_ALT_BSUX | PCRE2_NO_START_OPTIMIZE,
                                     &errorCode, &errorOffset, context);
    pcre2_compile_context_free(context);
    if (code == nullptr) {
        if (errorText != nullptr) {
            PCRE2_UCHAR buffer[256];
            pcre2_get_error_message(errorCode, buffer, sizeof buffer);
            *errorText =
                std::string(reinterpret_cast<const char*>(buffer)) + " at offset " + std::to_string(errorOffset);
        }
        return nullptr;
    }
    // Without JIT support the interpreter gives the same answers, only slower.
    pcre2_jit_compile(code, PCRE2_JIT_COMPLETE | PCRE2_JIT_PARTIAL_HARD);
    auto compiled = std::make_unique<Compiled>();
    compiled->code = code;
    return Ptr(new SerialRegularExpression(std::string(pattern), std::move(compiled)));
}

SerialRegularExpression::SerialRegularExpression(std::string pattern, std::unique_ptr<Compiled> compiled)
    : _pattern(std::move(pattern)), _compiled(std::move(compiled))
{
}

SerialRegularExpression::~SerialRegularExpression() = default;

bool SerialRegularExpression::hasAnchoredMatch(std::span<const std::uint8_t> text) const
{
    MatchData& match = threadMatchData();
    const int rc = pcre2_match(_compiled->code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0,
                               PCRE2_NO_UTF_CHECK, match.data, match.context);
    return rc >= 0;
}

SerialRegularExpression::Prospect SerialRegularExpression::anchoredProspect(std::span<const std::uint8_t> text) const
{
    // A hard partial match stops at the first path that runs into the end of
    // the text (also at \b, \B, $ and \z there). So "no match" means that no
    // path ever looked at the end: appending text cannot change any of them.
    MatchData& match = threadMatchData();
    const int rc = pcre2_match(_compiled->code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0,
                               PCRE2_NO_UTF_CHECK | PCRE2_PARTIAL_HARD, match.data, match.context);
    if (rc >= 0) {
        return Prospect::Match;
    }
    if (rc == PCRE2_ERROR_NOMATCH) {
        return Prospect::Never;
    }
    return Prospect::Undecided; // partial, or an engine limit: ask again with the full text
}

} // namespace quendral
