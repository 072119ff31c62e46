// Tests of the duration detector: real protocol sentences with the duration each must give, the messages it
// logs, and its behaviour on arbitrary text and on several threads.
#include "foundation/testing/NBMessageCapture.h"
#include "time/NBTimeDetector.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <thread>

namespace {

constexpr qint64 kNoDuration = -1;

constexpr qint64 hms(qint64 hours, qint64 minutes, qint64 seconds) {
    return ((hours * 60 + minutes) * 60 + seconds) * 1000;
}

struct DetectionCase {
    const char* text;
    qint64 expectedMilliseconds;
};

// Every expected value is worked out from the detection rules: the patterns are tried in order, each unit
// is taken from the first pattern that supplies it, and units from different patterns add up.
const DetectionCase kDetectionCases[] = {
    {"spin 10 min at 4 °C", hms(0, 10, 0)},
    {"incubate o/n", kNoDuration},
    {"overnight", kNoDuration},
    {"Incubate overnight at 4 °C", kNoDuration},
    // The first "min" wins; the repeat count is not multiplied.
    {"2 x 5 min washes", hms(0, 5, 0)},
    {"denature 95 °C 30 s", hms(0, 0, 30)},
    {"1 h 30 min", hms(1, 30, 0)},
    {"Incubate 1 h 30 min at 37 °C", hms(1, 30, 0)},
    {"90 min", hms(0, 90, 0)},
    // One colon is minutes and seconds, whatever it looks like.
    {"Centrifuge 5:30 at 4 C", hms(0, 5, 30)},
    {"Wait 1:30", hms(0, 1, 30)},
    {"Incubate until 12:00", hms(0, 12, 0)},
    {"Dilute 1:10 in water", hms(0, 1, 10)},
    // Number words only in lower case.
    {"incubate two hours", hms(2, 0, 0)},
    {"Two hours", kNoDuration},
    {"Boil for ten minutes", hms(0, 10, 0)},
    {"Boil for Ten minutes", kNoDuration},
    {"Incubate for one hour", hms(1, 0, 0)},
    // The three-part clock needs two-digit hours, and one colon needs blanks around it.
    {"12:30:15", hms(12, 30, 15)},
    {"Incubate 02:00:00 at 37 °C", hms(2, 0, 0)},
    {"1:30:15", kNoDuration},
    {"Incubate 2:00:00 at 37 °C", kNoDuration},
    {"3 hrs", hms(3, 0, 0)},
    {"Block 1 hr at RT", hms(1, 0, 0)},
    {"5 seconds", hms(0, 0, 5)},
    {"5 sec", hms(0, 0, 5)},
    {"Spin 30 sec at max speed", hms(0, 0, 30)},
    {"Incubate 90 s", hms(0, 0, 90)},
    {"Spin at 13,000 x g for 10 min", hms(0, 10, 0)},
    {"Spin 13 000 g 20 min 4 °C", hms(0, 20, 0)},
    {"Centrifuge at 4000 rpm for 15 min", hms(0, 15, 0)},
    {"Run the gel at 120 V for 45 min", hms(0, 45, 0)},
    {"Run gel 1 h at 100 V", hms(1, 0, 0)},
    {"Transfer at 100 V for 1 h.", hms(1, 0, 0)},
    {"Incubate for 2h at RT", hms(2, 0, 0)},
    {"Incubate 37 °C 1h", hms(1, 0, 0)},
    {"Incubate 16 h at 16 °C (overnight)", hms(16, 0, 0)},
    // "1.5 h": the digit before the point is not followed by "h", the one after it is.
    {"Incubate 1.5 h at 37 °C", hms(5, 0, 0)},
    {"Wash 3 x 10 min in PBS", hms(0, 10, 0)},
    {"Wash three times for 5 minutes", hms(0, 5, 0)},
    {"Wash 5 times", kNoDuration},
    {"Dry for 15 m at RT", hms(0, 15, 0)},
    {"1h30m", hms(1, 30, 0)},
    {"Incubate 1 hour and 20 mins", hms(1, 20, 0)},
    {"Incubate 2 hours 15 min", hms(2, 15, 0)},
    {"Incubate 1 hr 45 min at 37 C", hms(1, 45, 0)},
    {"Incubate 5 hours 30 m at RT", hms(5, 30, 0)},
    {"Spin 2 hrs 10 m", hms(2, 10, 0)},
    {"Spin 5 min 30 sec", hms(0, 5, 30)},
    // Units from different sentences add up: the minutes of one PCR stage and the seconds of another.
    {"PCR: 35 cycles of 95 °C 30 s, 55 °C 30 s, 72 °C 1 min", hms(0, 1, 30)},
    {"PCR: 98 °C 10 s, 60 °C 15 s, 72 °C 30 s", hms(0, 0, 10)},
    {"Digest 3 hours at 37 °C, then heat-inactivate 20 min at 65 °C", hms(3, 20, 0)},
    {"Incubate 2 min, then 1 hour", hms(1, 2, 0)},
    // "3 seconds" is only found by the last pattern, "2 sec" by an earlier one.
    {"Incubate 3 seconds then 2 sec", hms(0, 0, 2)},
    {"Sonicate 10 s on, 10 s off, 6 cycles", hms(0, 0, 10)},
    {"Extend 72 °C 1 min/kb", hms(0, 1, 0)},
    {"Anneal at 58 °C for 30 sec", hms(0, 0, 30)},
    {"step 3: spin 5 min", hms(0, 5, 0)},
    // Primes are minutes, double primes seconds.
    {"Incubate 5' at RT", hms(0, 5, 0)},
    {"Spin 2' 30\" at 4 °C", hms(0, 2, 30)},
    {"Vortex 10\"", hms(0, 0, 10)},
    {"Load 5 µl per lane; run 30' at 100 V", hms(0, 30, 0)},
    {"Elute in 50 µl water", kNoDuration},
    {"Add 500 ml buffer", kNoDuration},
    {"Add 2 µl of 10 mM dNTPs", kNoDuration},
    {"Samples were stored at -80 °C", kNoDuration},
    {"Seed 2 x 10^5 cells", kNoDuration},
    {"Fix cells in 4% PFA for 15 min", hms(0, 15, 0)},
    {"Wait 100 hours", hms(100, 0, 0)},
    {"Überstand abnehmen, 10 min zentrifugieren", hms(0, 10, 0)},
    // Digits of other scripts are digits too.
    {"Spin ٥ min", hms(0, 5, 0)},
    {"Spin ５ min", hms(0, 5, 0)},
    {"", kNoDuration},
};

QString describe(const std::optional<NBTime>& duration) {
    return duration ? QString::number(duration->durationInMilliseconds()) : QStringLiteral("none");
}

TEST(NBTimeDetectorTests, FindsTheFirstDurationOfProtocolSentences) {
    ASSERT_EQ(NBTimeDetector::regularExpressionsAndCaptureMapsForDurationDetection().size(), 21u);
    // Text before the sentence that holds no digit, accented or not, changes nothing.
    const QStringList prefixes = {QString(), QStringLiteral("🧪 "), QStringLiteral("Étape à réaliser : "),
                                  QStringLiteral("👩‍🔬🔬 顕微鏡 ")};
    for (const DetectionCase& detectionCase : kDetectionCases) {
        for (const QString& prefix : prefixes) {
            const QString text = prefix + QString::fromUtf8(detectionCase.text);
            const std::optional<NBTime> duration = NBTimeDetector::firstMatchForDurationInString(text);
            const qint64 found = duration ? duration->durationInMilliseconds() : kNoDuration;
            EXPECT_EQ(found, detectionCase.expectedMilliseconds) << text.toStdString();
        }
    }
}

TEST(NBTimeDetectorTests, LogsADurationItCannotCount) {
    NBMessageCapture capture;
    EXPECT_FALSE(
        NBTimeDetector::firstMatchForDurationInString(QStringLiteral("Wait 99999999999999999999 hours")));
    EXPECT_EQ(capture.texts(), QStringList{QStringLiteral("error creating time with regex match result "
                                                          "'99999999999999999999:0:0:000' and string: Wait "
                                                          "99999999999999999999 hours")});
}

TEST(NBTimeDetectorTests, LeavesOutAPatternThatDoesNotCompile) {
    NBMessageCapture capture;
    const std::vector<NBDurationPattern> patterns = NBTimeDetector::compilePatterns({
        {QStringLiteral("(\\d+)\\s*min("), {9, 1, 9}},
        {QStringLiteral("(\\d+)\\s*s\\s"), {9, 9, 1}},
    });
    ASSERT_EQ(patterns.size(), 1u);
    EXPECT_EQ(patterns[0].pattern, QStringLiteral("(\\d+)\\s*s\\s"));
    ASSERT_EQ(capture.texts().size(), 1);
    EXPECT_TRUE(capture.texts()[0].startsWith(
        QStringLiteral("error creating regex for pattern '(\\d+)\\s*min(': U_REGEX_MISMATCHED_PAREN")))
        << capture.texts()[0].toStdString();
    // The table that is left still works.
    EXPECT_EQ(
        describe(NBTimeDetector::firstMatchForDurationInString(QStringLiteral("spin 5 min 20 s"), patterns)),
        QString::number(hms(0, 0, 20)));
}

// Searching from every digit of a long run made each search take time growing with the square of the
// run's length (minutes for this text); the test program's time limit catches a return of that.
TEST(NBTimeDetectorTests, LongRunOfDigitsIsSearchedOnce) {
    const QString text = QString(200'000, QLatin1Char('7')) + QStringLiteral("hx, then spin 5 min");
    EXPECT_EQ(describe(NBTimeDetector::firstMatchForDurationInString(text)), QString::number(hms(0, 5, 0)));
}

TEST(NBTimeDetectorTests, ThreadsDetectAtTheSameTime) {
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (size_t threadIndex = 0; threadIndex < mismatches.size(); ++threadIndex) {
        threads.emplace_back([threadIndex, &mismatches] {
            for (int round = 0; round < 50; ++round) {
                for (const DetectionCase& detectionCase : kDetectionCases) {
                    const auto duration =
                        NBTimeDetector::firstMatchForDurationInString(QString::fromUtf8(detectionCase.text));
                    if ((duration ? duration->durationInMilliseconds() : kNoDuration) !=
                        detectionCase.expectedMilliseconds)
                        ++mismatches[threadIndex];
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

// Texts made of the pieces the patterns care about (numbers, units, separators, number words, and
// characters that fold to a unit's letter or count as blanks or digits), so that random texts do hold
// durations.
rc::Gen<QString> durationLikeText() {
    static const QStringList pieces =
        QStringLiteral(
            "5|12|0|300|٥|𝟓| | "
            "|\t|\u00a0|\u2009|h|H|hours|hour|hr|hrs|min|MIN|minutes|m|s|S|sec|secs|seconds|se|'|\"|"
            ":|.|,|(|)|two|Ten| ten |x|ſ|ß|ẖ|é|🧪|at|°C")
            .split(u'|');
    return rc::gen::map(
        rc::gen::container<std::vector<qsizetype>>(rc::gen::inRange<qsizetype>(0, pieces.size())),
        [](const std::vector<qsizetype>& indices) {
            QString text;
            for (qsizetype index : indices)
                text.append(pieces[index]);
            return text;
        });
}

// The detector skips texts without a digit and reuses its matchers; a freshly compiled copy of its table
// does neither, so both must agree on every text.
RC_GTEST_PROP(NBTimeDetectorTests, AgreesWithAFreshCopyOfItsTableOnArbitraryText, ()) {
    static const std::vector<NBDurationPattern> freshCopy = [] {
        std::vector<std::pair<QString, std::array<int, 3>>> definitions;
        for (const NBDurationPattern& entry :
             NBTimeDetector::regularExpressionsAndCaptureMapsForDurationDetection())
            definitions.emplace_back(entry.pattern, entry.captureMap);
        return NBTimeDetector::compilePatterns(definitions);
    }();
    const auto units = *rc::gen::container<std::vector<char16_t>>(rc::gen::arbitrary<char16_t>());
    const QString arbitrary(reinterpret_cast<const QChar*>(units.data()),
                            static_cast<qsizetype>(units.size()));
    const QString likely = *durationLikeText();
    for (const QString& text : {arbitrary, likely, likely + arbitrary}) {
        RC_ASSERT(describe(NBTimeDetector::firstMatchForDurationInString(text)) ==
                  describe(NBTimeDetector::firstMatchForDurationInString(text, freshCopy)));
    }
}

} // namespace
