// NBTimeDetector: the pattern and number-word tables and the first-duration search (see NBTimeDetector.h).
#include "document/NBTimeDetector.h"

#include "foundation/NBLogging.h"

#include <QLoggingCategory>

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

// The document module's messages. The category keeps the module's name, so one logging rule covers the
// detector and the rest of the module.
Q_LOGGING_CATEGORY(lcTimeDetector, "quillon.document")

namespace {

using PatternSpecification = std::pair<QString, std::array<int, 3>>;

constexpr int kNone = NBTimeDetector::kNoGroup;

// The patterns in the order in which they are tried, with the groups holding hours, minutes and seconds.
// The order matters: a unit is taken from the first pattern that supplies it, so the precise forms (a
// three-part clock, "1 h 30 min") come before the loose ones ("(\d+)\s*se" catches "seconds" last).
const std::vector<PatternSpecification>& patternSpecifications() {
    static const std::vector<PatternSpecification> specifications = {
        {QStringLiteral("(\\d\\d):(\\d\\d):(\\d\\d)"), {1, 2, 3}},
        {QStringLiteral("(\\d\\d?)\\s*h\\s*(\\d\\d?)\\s*min"), {1, 2, kNone}},
        {QStringLiteral("(\\d\\d?)\\s*h\\s*(\\d\\d?)\\s*m\\s"), {1, 2, kNone}},
        {QStringLiteral("(\\d\\d?)\\s*hours?\\s*(\\d\\d?)\\s*min"), {1, 2, kNone}},
        {QStringLiteral("(\\d\\d?)\\s*hours?\\s*(\\d\\d?)\\s*m\\s"), {1, 2, kNone}},
        {QStringLiteral("(\\d\\d?)\\s*hrs?\\s*(\\d\\d?)\\s*min"), {1, 2, kNone}},
        {QStringLiteral("(\\d\\d?)\\s*hrs?\\s*(\\d\\d?)\\s*m\\s"), {1, 2, kNone}},
        // One colon is minutes and seconds ("spin 5:30"), never hours and minutes.
        {QStringLiteral("\\s(\\d\\d?):(\\d\\d)\\s"), {kNone, 1, 2}},
        // A prime and a double prime are minutes and seconds.
        {QStringLiteral("\\s(\\d\\d?)'\\s*(\\d\\d?)\"?\\s"), {kNone, 1, 2}},
        {QStringLiteral("(\\d+)\\s*hours?"), {1, kNone, kNone}},
        {QStringLiteral("(\\d+)\\s*hrs?\\s"), {1, kNone, kNone}},
        {QStringLiteral("(\\d+)\\s*h\\s"), {1, kNone, kNone}},
        {QStringLiteral("(\\d+)\\s*h\\."), {1, kNone, kNone}},
        {QStringLiteral("(\\d+)\\s*minutes?"), {kNone, 1, kNone}},
        {QStringLiteral("(\\d+)\\s*mins?"), {kNone, 1, kNone}},
        {QStringLiteral("(\\d+)\\s*m\\s"), {kNone, 1, kNone}},
        {QStringLiteral("(\\d+)\\s*'\\s"), {kNone, 1, kNone}},
        {QStringLiteral("(\\d+)\\s*secs?\\s"), {kNone, kNone, 1}},
        {QStringLiteral("(\\d+)\\s*s\\s"), {kNone, kNone, 1}},
        {QStringLiteral("(\\d+)\\s*\"\\s"), {kNone, kNone, 1}},
        {QStringLiteral("(\\d+)\\s*se"), {kNone, kNone, 1}},
    };
    return specifications;
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

// Every pattern of the table needs a decimal digit, so a text without one holds no duration; checking
// that first spares the 21 searches on most paragraphs. "\d" is the Unicode decimal digit property, which
// u_isdigit() tests.
bool containsDecimalDigit(const QString& text) {
    const qsizetype length = text.size();
    const QChar* characters = text.constData();
    for (qsizetype index = 0; index < length; ++index) {
        const char16_t unit = characters[index].unicode();
        if (unit < 0x80) {
            if (unit >= u'0' && unit <= u'9')
                return true;
            continue;
        }
        UChar32 codePoint = unit;
        if (QChar::isHighSurrogate(unit) && index + 1 < length && characters[index + 1].isLowSurrogate()) {
            codePoint = static_cast<UChar32>(QChar::surrogateToUcs4(unit, characters[index + 1].unicode()));
            ++index;
        }
        if (u_isdigit(codePoint))
            return true;
    }
    return false;
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
std::vector<std::unique_ptr<icu::RegexMatcher>>&
matchersOfThisThread(const std::vector<NBDurationPattern>& table) {
    thread_local std::vector<std::unique_ptr<icu::RegexMatcher>> matchers;
    if (matchers.size() != table.size()) {
        matchers.clear();
        for (const NBDurationPattern& entry : table) {
            UErrorCode status = U_ZERO_ERROR;
            std::unique_ptr<icu::RegexMatcher> matcher(entry.regularExpression->matcher(status));
            if (U_FAILURE(status))
                matcher.reset();
            matchers.push_back(std::move(matcher));
        }
    }
    return matchers;
}

} // namespace

const std::vector<NBDurationPattern>& NBTimeDetector::regularExpressionsAndCaptureMapsForDurationDetection() {
    // Never destroyed: threads may still be searching while the process exits.
    static const std::vector<NBDurationPattern>* const table =
        new std::vector<NBDurationPattern>(compilePatterns(patternSpecifications()));
    return *table;
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
    const bool isDetectorTable = &patterns == &regularExpressionsAndCaptureMapsForDurationDetection();
    if (isDetectorTable && !containsDecimalDigit(text))
        return std::nullopt;

    const icu::UnicodeString input = unicodeStringAliasing(text);
    // Matchers of a table other than the detector's own (tests build their own) live for this call only.
    std::vector<std::unique_ptr<icu::RegexMatcher>> callMatchers;
    std::vector<std::unique_ptr<icu::RegexMatcher>>& matchers =
        isDetectorTable ? matchersOfThisThread(patterns) : callMatchers;
    if (!isDetectorTable) {
        for (const NBDurationPattern& entry : patterns) {
            UErrorCode status = U_ZERO_ERROR;
            std::unique_ptr<icu::RegexMatcher> matcher(entry.regularExpression->matcher(status));
            if (U_FAILURE(status))
                matcher.reset();
            callMatchers.push_back(std::move(matcher));
        }
    }

    std::array<QString, 3> slots = {QStringLiteral("0"), QStringLiteral("0"), QStringLiteral("0")};
    std::array<bool, 3> filled = {false, false, false};
    int filledCount = 0;
    for (size_t patternIndex = 0; patternIndex < patterns.size() && filledCount < 3; ++patternIndex) {
        icu::RegexMatcher* matcher = matchers[patternIndex].get();
        if (!matcher)
            continue;
        UErrorCode status = U_ZERO_ERROR;
        matcher->reset(input);
        if (!matcher->find(status) || U_FAILURE(status))
            continue;
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
