// NBTimeDetector: the pattern and number-word tables and the first-duration search (see NBTimeDetector.h).
#include "time/NBTimeDetector.h"

#include "foundation/NBLogging.h"

#include <QLoggingCategory>

#include <limits>

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

// The document module's messages. The category keeps the module's name, so one logging rule covers the
// detector and the rest of the module.
Q_LOGGING_CATEGORY(lcTimeDetector, "quillon.document")

namespace {

using PatternDefinition = std::pair<QString, std::array<int, 3>>;

constexpr int kNone = NBTimeDetector::kNoGroup;

// The characters that can follow the first run of digits of a pattern's match (after optional blanks),
// one bit each. Every pattern begins with a group of digits (after at most one blank) that must be
// followed by its unit or its separator, so a text in which no run of digits is followed by that
// character cannot match the pattern, and the search for it is skipped.
enum DigitFollower : unsigned {
    kFollowerH = 1u << 0,
    kFollowerM = 1u << 1,
    kFollowerS = 1u << 2,
    kFollowerColon = 1u << 3,
    kFollowerPrime = 1u << 4,
    kFollowerDoublePrime = 1u << 5,
};

struct DetectorPattern {
    const char16_t* pattern;
    std::array<int, 3> captureMap;
    unsigned digitFollower;
};

// The patterns in the order in which they are tried, with the groups holding hours, minutes and seconds.
// The order matters: a unit is taken from the first pattern that supplies it, so the precise forms (a
// three-part clock, "1 h 30 min") come before the loose ones ("(\d+)\s*se" catches "seconds" last).
constexpr DetectorPattern kDetectorPatterns[] = {
    {u"(\\d\\d):(\\d\\d):(\\d\\d)", {1, 2, 3}, kFollowerColon},
    {u"(\\d\\d?)\\s*h\\s*(\\d\\d?)\\s*min", {1, 2, kNone}, kFollowerH},
    {u"(\\d\\d?)\\s*h\\s*(\\d\\d?)\\s*m\\s", {1, 2, kNone}, kFollowerH},
    {u"(\\d\\d?)\\s*hours?\\s*(\\d\\d?)\\s*min", {1, 2, kNone}, kFollowerH},
    {u"(\\d\\d?)\\s*hours?\\s*(\\d\\d?)\\s*m\\s", {1, 2, kNone}, kFollowerH},
    {u"(\\d\\d?)\\s*hrs?\\s*(\\d\\d?)\\s*min", {1, 2, kNone}, kFollowerH},
    {u"(\\d\\d?)\\s*hrs?\\s*(\\d\\d?)\\s*m\\s", {1, 2, kNone}, kFollowerH},
    // One colon is minutes and seconds ("spin 5:30"), never hours and minutes.
    {u"\\s(\\d\\d?):(\\d\\d)\\s", {kNone, 1, 2}, kFollowerColon},
    // A prime and a double prime are minutes and seconds.
    {u"\\s(\\d\\d?)'\\s*(\\d\\d?)\"?\\s", {kNone, 1, 2}, kFollowerPrime},
    {u"(\\d+)\\s*hours?", {1, kNone, kNone}, kFollowerH},
    {u"(\\d+)\\s*hrs?\\s", {1, kNone, kNone}, kFollowerH},
    {u"(\\d+)\\s*h\\s", {1, kNone, kNone}, kFollowerH},
    {u"(\\d+)\\s*h\\.", {1, kNone, kNone}, kFollowerH},
    {u"(\\d+)\\s*minutes?", {kNone, 1, kNone}, kFollowerM},
    {u"(\\d+)\\s*mins?", {kNone, 1, kNone}, kFollowerM},
    {u"(\\d+)\\s*m\\s", {kNone, 1, kNone}, kFollowerM},
    {u"(\\d+)\\s*'\\s", {kNone, 1, kNone}, kFollowerPrime},
    {u"(\\d+)\\s*secs?\\s", {kNone, kNone, 1}, kFollowerS},
    {u"(\\d+)\\s*s\\s", {kNone, kNone, 1}, kFollowerS},
    {u"(\\d+)\\s*\"\\s", {kNone, kNone, 1}, kFollowerDoublePrime},
    {u"(\\d+)\\s*se", {kNone, kNone, 1}, kFollowerS},
};

std::vector<PatternDefinition> patternDefinitions() {
    std::vector<PatternDefinition> definitions;
    for (const DetectorPattern& entry : kDetectorPatterns)
        definitions.emplace_back(QString::fromUtf16(entry.pattern), entry.captureMap);
    return definitions;
}

icu::UnicodeString unicodeStringAliasing(const QString& string) {
    // A read-only alias: the matchers read the QString's own UTF-16 buffer, so the offsets they report are
    // QString offsets.
    return icu::UnicodeString(false, reinterpret_cast<const char16_t*>(string.constData()),
                              static_cast<int32_t>(string.size()));
}

QString describeCompileError(UErrorCode status, const UParseError& parseError) {
    QString description = QString::fromLatin1(u_errorName(status));
    if (parseError.offset >= 0)
        description += QStringLiteral(" at offset %1").arg(parseError.offset);
    return description;
}

// What may follow a match's first run of digits, by the bits of DigitFollower, for one character: a
// character matches a letter of a pattern when its case folding begins with that letter ("ſ" and "ß" fold
// to "s"), and no character other than themselves matches ":", "'" or the double prime.
unsigned followerBitsForCodePoint(UChar32 codePoint) {
    const auto bitsForAscii = [](UChar32 character) -> unsigned {
        switch (character) {
        case u'h':
        case u'H':
            return kFollowerH;
        case u'm':
        case u'M':
            return kFollowerM;
        case u's':
        case u'S':
            return kFollowerS;
        case u':':
            return kFollowerColon;
        case u'\'':
            return kFollowerPrime;
        case u'"':
            return kFollowerDoublePrime;
        default:
            return 0;
        }
    };
    if (codePoint < 0x80)
        return bitsForAscii(codePoint);
    icu::UnicodeString folded(codePoint);
    folded.foldCase();
    return bitsForAscii(u_foldCase(codePoint, U_FOLD_CASE_DEFAULT)) | bitsForAscii(folded.char32At(0));
}

// True for every character that "\s" matches, and for a few more (the ASCII controls and the separators),
// so that the scan below never stops earlier than a match could go on.
bool isBlankForScan(UChar32 codePoint) {
    if (codePoint < 0x80)
        return codePoint == u' ' || (codePoint >= 0x09 && codePoint <= 0x0D);
    return u_isUWhiteSpace(codePoint) || (U_GET_GC_MASK(codePoint) & U_GC_Z_MASK) != 0 || codePoint == 0x85;
}

bool isDecimalDigit(UChar32 codePoint) {
    // "\d" is the Unicode decimal digit property, which u_isdigit() tests.
    return codePoint < 0x80 ? (codePoint >= u'0' && codePoint <= u'9') : u_isdigit(codePoint);
}

UChar32 codePointAt(const QChar* characters, qsizetype length, qsizetype index, qsizetype& next) {
    const char16_t unit = characters[index].unicode();
    if (QChar::isHighSurrogate(unit) && index + 1 < length && characters[index + 1].isLowSurrogate()) {
        next = index + 2;
        return static_cast<UChar32>(QChar::surrogateToUcs4(unit, characters[index + 1].unicode()));
    }
    next = index + 1;
    return unit;
}

// What a scan of the prepared text finds out before any search: the characters (as DigitFollower bits)
// that follow some run of digits, after optional blanks (none when the text holds no digit, since every
// pattern needs one), and where each run of digits begins.
struct DigitScan {
    unsigned followers = 0;
    std::vector<int32_t> runStarts;
};

DigitScan scanDigits(const QString& text) {
    DigitScan scan;
    const QChar* characters = text.constData();
    const qsizetype length = text.size();
    bool inDigits = false;
    qsizetype next = 0;
    for (qsizetype index = 0; index < length; index = next) {
        const UChar32 codePoint = codePointAt(characters, length, index, next);
        if (isDecimalDigit(codePoint)) {
            if (!inDigits)
                scan.runStarts.push_back(static_cast<int32_t>(index));
            inDigits = true;
            continue;
        }
        if (!inDigits)
            continue;
        inDigits = false;
        qsizetype followingNext = 0;
        for (qsizetype following = index; following < length; following = followingNext) {
            const UChar32 followingCodePoint = codePointAt(characters, length, following, followingNext);
            scan.followers |= followerBitsForCodePoint(followingCodePoint);
            if (!isBlankForScan(followingCodePoint))
                break;
        }
    }
    return scan;
}

// Steps 1 to 3 of the search: blanks around the text and around ",", "(" and ")", then the number words.
QString preparedText(const QString& string) {
    QString text;
    text.reserve(string.size() + 16);
    text.append(QLatin1Char(' '));
    for (const QChar character : string) {
        if (character == u',' || character == u'(' || character == u')') {
            text.append(QLatin1Char(' '));
            text.append(character);
            text.append(QLatin1Char(' '));
        } else {
            text.append(character);
        }
    }
    text.append(QLatin1Char(' '));
    // Replacing is exact and case-sensitive; each word is replaced over the result of the previous one,
    // left to right without overlaps, so in " one one " only the first "one" has its own blanks.
    for (const auto& [word, digits] : NBTimeDetector::replacements()) {
        if (text.contains(word))
            text.replace(word, digits);
    }
    return text;
}

// Matchers hold per-search state, so they are never shared between threads. Creating one costs more than
// a search over a paragraph, so each thread keeps one matcher per pattern of the detector's own table and
// resets it for every text.
using Matchers = std::vector<std::unique_ptr<icu::RegexMatcher>>;

Matchers matchersForTable(const std::vector<NBDurationPattern>& table) {
    Matchers matchers;
    for (const NBDurationPattern& entry : table) {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::RegexMatcher> matcher(entry.regularExpression->matcher(status));
        if (U_FAILURE(status))
            matcher.reset();
        matchers.push_back(std::move(matcher));
    }
    return matchers;
}

Matchers& matchersOfThisThread(const std::vector<NBDurationPattern>& detectorPatterns) {
    thread_local Matchers matchers = matchersForTable(detectorPatterns);
    return matchers;
}

// The detector's own table, and for each of its entries the DigitFollower bits its matches need.
struct DetectorTable {
    std::vector<NBDurationPattern> patterns;
    std::vector<unsigned> digitFollowers;
    // Patterns that begin with "(\\d+)": a match of one of them can only begin where a run of digits
    // begins. Were a match to begin inside a run, the whole run would match as well and begin earlier;
    // so the first match is found by trying the runs' beginnings in order. A plain search would also try
    // every digit inside a run, and on a run of thousands of digits its retries grow with the square of
    // the run's length.
    std::vector<bool> beginsWithDigitRun;
};

const DetectorTable& detectorTable() {
    // Never destroyed: threads may still be searching while the process exits.
    static const DetectorTable* const table = [] {
        auto* built = new DetectorTable{NBTimeDetector::compilePatterns(patternDefinitions()), {}, {}};
        for (const NBDurationPattern& entry : built->patterns) {
            unsigned followers = 0;
            for (const DetectorPattern& definition : kDetectorPatterns) {
                if (entry.pattern == QStringView(definition.pattern))
                    followers = definition.digitFollower;
            }
            if (followers == 0)
                nbRaiseAssertion(lcTimeDetector(),
                                 nbFormat("no digit follower for pattern '%@'", entry.pattern));
            built->digitFollowers.push_back(followers);
            built->beginsWithDigitRun.push_back(entry.pattern.startsWith(QLatin1String("(\\d+)")));
        }
        return built;
    }();
    return *table;
}

} // namespace

const std::vector<NBDurationPattern>& NBTimeDetector::regularExpressionsAndCaptureMapsForDurationDetection() {
    return detectorTable().patterns;
}

const std::vector<std::pair<QString, QString>>& NBTimeDetector::replacements() {
    static const std::vector<std::pair<QString, QString>>* const table =
        new std::vector<std::pair<QString, QString>>{
            {QStringLiteral(" one "), QStringLiteral(" 1 ")},
            {QStringLiteral(" two "), QStringLiteral(" 2 ")},
            {QStringLiteral(" three "), QStringLiteral(" 3 ")},
            {QStringLiteral(" four "), QStringLiteral(" 4 ")},
            {QStringLiteral(" five "), QStringLiteral(" 5 ")},
            {QStringLiteral(" six "), QStringLiteral(" 6 ")},
            {QStringLiteral(" seven "), QStringLiteral(" 7 ")},
            {QStringLiteral(" eight "), QStringLiteral(" 8 ")},
            {QStringLiteral(" nine "), QStringLiteral(" 9 ")},
            {QStringLiteral(" ten "), QStringLiteral(" 10 ")},
        };
    return *table;
}

std::vector<NBDurationPattern> NBTimeDetector::compilePatterns(
    const std::vector<std::pair<QString, std::array<int, 3>>>& patternsAndCaptureMaps) {
    std::vector<NBDurationPattern> table;
    table.reserve(patternsAndCaptureMaps.size());
    for (const auto& [pattern, captureMap] : patternsAndCaptureMaps) {
        UErrorCode status = U_ZERO_ERROR;
        UParseError parseError{};
        std::shared_ptr<const icu::RegexPattern> compiled(icu::RegexPattern::compile(
            unicodeStringAliasing(pattern), UREGEX_CASE_INSENSITIVE, parseError, status));
        if (U_FAILURE(status) || !compiled) {
            qCWarning(lcTimeDetector).noquote()
                << nbFormat("error creating regex for pattern '%@': %@", pattern,
                            describeCompileError(status, parseError));
            continue;
        }
        table.push_back(NBDurationPattern{pattern, std::move(compiled), captureMap});
    }
    return table;
}

std::optional<NBTime> NBTimeDetector::firstMatchForDurationInString(const QString& string) {
    return firstMatchForDurationInString(string, regularExpressionsAndCaptureMapsForDurationDetection());
}

std::optional<NBTime>
NBTimeDetector::firstMatchForDurationInString(const QString& string,
                                              const std::vector<NBDurationPattern>& patterns) {
    const QString text = preparedText(string);
    // ICU counts positions in 32 bits.
    if (text.size() > std::numeric_limits<int32_t>::max())
        return std::nullopt;
    const DetectorTable& ownTable = detectorTable();
    const bool isDetectorTable = &patterns == &ownTable.patterns;
    // For the detector's own table, patterns whose first digits cannot be followed by what they need are
    // not searched, and a text without digits is not searched at all.
    DigitScan scan;
    if (isDetectorTable) {
        scan = scanDigits(text);
        if (scan.followers == 0)
            return std::nullopt;
    }

    const icu::UnicodeString input = unicodeStringAliasing(text);
    // Matchers of a table other than the detector's own (tests build their own) live for this call only.
    Matchers callMatchers;
    if (!isDetectorTable)
        callMatchers = matchersForTable(patterns);
    Matchers& matchers = isDetectorTable ? matchersOfThisThread(patterns) : callMatchers;
    // The first match of a pattern: a plain search, or for the detector's patterns that begin with a run of
    // digits, an anchored match at each run's beginning in turn (see DetectorTable).
    const auto findFirstMatch = [&](size_t patternIndex, icu::RegexMatcher& matcher) {
        UErrorCode status = U_ZERO_ERROR;
        if (!isDetectorTable || !ownTable.beginsWithDigitRun[patternIndex]) {
            matcher.reset(input);
            return matcher.find(status) && U_SUCCESS(status);
        }
        matcher.reset(input);
        for (const int32_t runStart : scan.runStarts) {
            if (matcher.lookingAt(runStart, status) && U_SUCCESS(status))
                return true;
            status = U_ZERO_ERROR;
        }
        return false;
    };

    std::array<QString, 3> slots = {QStringLiteral("0"), QStringLiteral("0"), QStringLiteral("0")};
    std::array<bool, 3> filled = {false, false, false};
    int filledCount = 0;
    for (size_t patternIndex = 0; patternIndex < patterns.size() && filledCount < 3; ++patternIndex) {
        icu::RegexMatcher* matcher = matchers[patternIndex].get();
        if (!matcher || (isDetectorTable && (ownTable.digitFollowers[patternIndex] & scan.followers) == 0))
            continue;
        if (!findFirstMatch(patternIndex, *matcher))
            continue;
        UErrorCode status = U_ZERO_ERROR;
        const int groupCount = matcher->groupCount();
        for (size_t slot = 0; slot < 3; ++slot) {
            if (filled[slot])
                continue;
            const int group = patterns[patternIndex].captureMap[slot];
            if (group < 0 || group > groupCount)
                continue;
            const int32_t start = matcher->start(group, status);
            const int32_t end = matcher->end(group, status);
            if (U_FAILURE(status) || start < 0 || end < start)
                continue;
            QString value = text.mid(start, end - start);
            if (value.size() == 1)
                value.prepend(QLatin1Char('0'));
            slots[slot] = value;
            filled[slot] = true;
            ++filledCount;
        }
    }
    // The thread's matchers still refer to this call's text; each is reset to the next text before it
    // searches again, and resetting reads nothing of the old one.
    if (filledCount == 0)
        return std::nullopt;

    const QString naturalString = slots[0] + u':' + slots[1] + u':' + slots[2] + QStringLiteral(":000");
    std::optional<NBTime> duration = NBTime::durationWithNaturalString(naturalString);
    if (!duration) {
        qCWarning(lcTimeDetector).noquote() << nbFormat(
            "error creating time with regex match result '%@' and string: %@", naturalString, string);
    }
    return duration;
}
