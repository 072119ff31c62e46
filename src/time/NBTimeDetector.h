// NBTimeDetector: finds the first duration written in a paragraph's plain text ("incubate 1 h 30 min",
// "spin 5:00", "denature 30 s"), so that the paragraph can offer a countdown of that length.
//
// The detector is stateless. It tries a fixed, ordered table of 21 regular expressions (ICU syntax,
// case-insensitive) over a prepared copy of the text and fills hours, minutes and seconds from the first
// pattern that supplies each; the units of one duration may come from different patterns ("1 hour and 20
// mins"), and a unit once found is never replaced. Some readings are deliberate and surprise at first: a
// clock text with one colon ("5:30") is minutes and seconds, never hours and minutes; a prime and a double
// prime (5' 30") are minutes and seconds; "1:30:15" is no duration (the three-part clock needs two-digit
// hours); number words are read only in lower case and between blanks ("two hours", not "Two hours").
//
// Speed: before any search, one pass over the prepared text notes which characters follow its runs of
// digits and where those runs begin. A pattern whose unit or separator never follows a number is not
// searched, and a pattern that begins with a run of digits is matched only where a run begins (a plain
// search would retry from every digit of a long run). Both shortcuts give exactly the results of plain
// searches over the whole table; the tests compare the two on random texts.
//
// Both tables are built once, on first use, and are read-only afterwards; every call keeps its matching
// state to itself (each thread matches with its own matchers), so any thread may call the detector.
#pragma once

#include "time/NBTime.h"

#include <QString>

#include <array>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <unicode/uversion.h>

// ICU's classes live in a versioned namespace that "icu" is an alias of.
U_NAMESPACE_BEGIN
class RegexPattern;
U_NAMESPACE_END

// One entry of the pattern table: the compiled expression and the group numbers that hold hours, minutes
// and seconds, in that order. Group number 9 means that the pattern does not supply that unit.
struct NBDurationPattern {
    QString pattern;
    std::shared_ptr<const icu::RegexPattern> regularExpression;
    std::array<int, 3> captureMap;
};

class NBTimeDetector {
public:
    // The group number that stands for "this pattern does not supply that unit".
    static constexpr int kNoGroup = 9;

    // The 21 patterns in the order in which they are tried, compiled once per process.
    static const std::vector<NBDurationPattern>& regularExpressionsAndCaptureMapsForDurationDetection();
    // The number words and the digits that replace them, each between blanks (" two " becomes " 2 ").
    static const std::vector<std::pair<QString, QString>>& replacements();

    // The first duration in a plain text, or none when the text holds no duration.
    static std::optional<NBTime> firstMatchForDurationInString(const QString& string);

    // Compiles patterns case-insensitively, in order. A pattern that does not compile is logged as
    // "error creating regex for pattern '%@': %@" and left out; the rest keep their order. The detector's
    // own table is built with this.
    static std::vector<NBDurationPattern>
    compilePatterns(const std::vector<std::pair<QString, std::array<int, 3>>>& patternsAndCaptureMaps);
    // The detection steps over a given pattern table (the detector passes its own).
    static std::optional<NBTime>
    firstMatchForDurationInString(const QString& string, const std::vector<NBDurationPattern>& patterns);
};
