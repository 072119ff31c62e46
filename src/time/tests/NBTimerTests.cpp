// Tests of durations and paragraph timers: the natural and display forms of a duration, timers run on an
// injected clock, their stored form in a paragraph's info, and the editor's countdown action.
#include "time/NBTimer.h"

#include <gtest/gtest.h>

namespace {

const QDateTime kStart = QDateTime(QDate(2026, 3, 14), QTime(9, 0), Qt::UTC);

QDateTime after(qint64 seconds) {
    return kStart.addMSecs(seconds * 1000);
}

TEST(NBTimeTests, ReadsNaturalStrings) {
    const struct {
        const char* text;
        qint64 expectedMilliseconds; // -1: malformed
    } cases[] = {
        {"01:30:00:000", 5400000},     {"0:90:0:000", 5400000}, {"120:0:0:000", 432000000},
        {"00:00:05:250", 5250},        {"0:0:0:000", 0},        {"1:30:00", -1},
        {"1:30:00:000:0", -1},         {"1::00:000", -1},       {" 1:30:00:000", -1},
        {"1:30:0x:000", -1},           {"-1:30:00:000", -1},    {"", -1},
        {"2562047788016:0:0:000", -1}, // more hours than 64 bits of milliseconds hold
        {"٠١:٣٠:٠٠:٠٠٠", 5400000},
    };
    for (const auto& testCase : cases) {
        const auto duration = NBTime::durationWithNaturalString(QString::fromUtf8(testCase.text));
        EXPECT_EQ(duration ? duration->durationInMilliseconds() : -1, testCase.expectedMilliseconds)
            << testCase.text;
    }
}

TEST(NBTimeTests, WritesNaturalAndDisplayStrings) {
    const struct {
        qint64 milliseconds;
        const char* natural;
        const char* display;
    } cases[] = {
        {5400000, "01:30:00:000", "1:30:00"},
        {300000, "00:05:00:000", "5:00"},
        {5999, "00:00:05:999", "0:05"},
        {0, "00:00:00:000", "0:00"},
        {360000000, "100:00:00:000", "100:00:00"},
    };
    for (const auto& testCase : cases) {
        const NBTime duration = NBTime::durationWithMilliseconds(testCase.milliseconds);
        EXPECT_EQ(duration.naturalString(), QString::fromLatin1(testCase.natural));
        EXPECT_EQ(duration.displayString(), QString::fromLatin1(testCase.display));
        EXPECT_EQ(NBTime::durationWithNaturalString(duration.naturalString()), duration);
    }
    EXPECT_EQ(NBTime::durationWithTimeInterval(90.0)->durationInMilliseconds(), 90000);
    EXPECT_FALSE(NBTime::durationWithTimeInterval(-1.0));
    EXPECT_FALSE(NBTime::durationWithTimeInterval(1e300));
}

TEST(NBTimerTests, CountdownPausedAndResumedKeepsItsRemainingTime) {
    NBTimer timer = NBTimer::countdownTimerWithDuration(90.0);
    EXPECT_EQ(timer.state(), NBTimerState::Idle);
    EXPECT_EQ(timer.displayString(kStart), QStringLiteral("1:30"));
    EXPECT_FALSE(timer.pause(kStart));

    ASSERT_TRUE(timer.start(kStart));
    EXPECT_EQ(timer.displayString(kStart.addMSecs(500)), QStringLiteral("1:30"));
    ASSERT_TRUE(timer.pause(after(30)));
    EXPECT_EQ(timer.state(), NBTimerState::Paused);
    // A paused timer does not count, however long it waits.
    EXPECT_EQ(timer.remainingTime(after(3600))->durationInMilliseconds(), 60000);
    ASSERT_TRUE(timer.resume(after(3600)));
    EXPECT_EQ(timer.displayString(after(3600)), QStringLiteral("1:00"));
    EXPECT_EQ(timer.remainingTime(after(3620))->durationInMilliseconds(), 40000);
    EXPECT_FALSE(timer.isExpired(after(3659)));
    EXPECT_TRUE(timer.isExpired(after(3660)));
    EXPECT_EQ(timer.displayString(after(3700)), QStringLiteral("0:00"));
    EXPECT_EQ(timer.elapsedTime(after(3700)).durationInMilliseconds(), 130000);

    ASSERT_TRUE(timer.stop(after(3700)));
    EXPECT_EQ(timer.elapsedTime(after(9000)).durationInMilliseconds(), 130000);
    EXPECT_FALSE(timer.resume(after(9000)));
    // Starting a stopped timer begins again from the whole duration.
    ASSERT_TRUE(timer.start(after(9000)));
    EXPECT_EQ(timer.remainingTime(after(9010))->durationInMilliseconds(), 80000);
    ASSERT_TRUE(timer.reset());
    EXPECT_EQ(timer, NBTimer::countdownTimerWithDuration(90.0));
}

TEST(NBTimerTests, ReadsStoredTimers) {
    const QDateTime later = after(100);
    const struct {
        const char* name;
        QVariantMap info;
        std::optional<NBTimerState> expectedState; // none: no timer
        qint64 expectedElapsedMilliseconds;
    } cases[] = {
        {"no timer keys", {{"content", "spin"}}, std::nullopt, 0},
        {"idle stopwatch", {{"timerElapsed", qint64(0)}}, NBTimerState::Idle, 0},
        {"running", {{"timerElapsed", qint64(5000)}, {"timerStart", kStart}}, NBTimerState::Running, 105000},
        {"paused", {{"timerElapsed", qint64(5000)}, {"timerStop", kStart}}, NBTimerState::Paused, 5000},
        {"elapsed alone", {{"timerElapsed", qint64(5000)}}, NBTimerState::Paused, 5000},
        {"stopped",
         {{"timerElapsed", qint64(5000)}, {"timerStart", kStart}, {"timerStop", after(20)}},
         NBTimerState::Stopped,
         25000},
        {"started later by a clock ahead", {{"timerStart", after(500)}}, NBTimerState::Running, 0},
        {"whole real", {{"timerElapsed", 5000.0}}, NBTimerState::Paused, 5000},
        {"fractional real", {{"timerElapsed", 5000.5}}, std::nullopt, 0},
        {"negative elapsed", {{"timerElapsed", qint64(-1)}}, std::nullopt, 0},
        {"negative duration", {{"timerDuration", qint64(-1)}}, std::nullopt, 0},
        {"date as text", {{"timerStart", "2026-03-14"}}, std::nullopt, 0},
        {"invalid date", {{"timerStart", QDateTime()}}, std::nullopt, 0},
        {"appearance as number", {{"timerAppearance", qint64(2)}}, std::nullopt, 0},
        {"unknown appearance", {{"timerAppearance", "hologram"}}, NBTimerState::Idle, 0},
    };
    for (const auto& testCase : cases) {
        const std::optional<NBTimer> timer = NBTimer::timerWithInfo(testCase.info);
        ASSERT_EQ(timer.has_value(), testCase.expectedState.has_value()) << testCase.name;
        if (!timer)
            continue;
        EXPECT_EQ(timer->state(), *testCase.expectedState) << testCase.name;
        EXPECT_EQ(timer->elapsedTime(later).durationInMilliseconds(), testCase.expectedElapsedMilliseconds)
            << testCase.name;
        EXPECT_EQ(NBTimer::timerWithInfo(timer->info()), timer) << testCase.name;
    }
}

TEST(NBTimerTests, SetsACountdownOnlyOnParagraphsThatCarryTimers) {
    const QVariantMap runningStopwatch = {{QStringLiteral("content"), QStringLiteral("Incubate 1 h 30 min")},
                                          {QStringLiteral("timerElapsed"), qint64(2000)},
                                          {QStringLiteral("timerStart"), kStart}};
    const struct {
        const char* type;
        const char* text;
        qint64 expectedErrorCode; // 0: a countdown is set
    } cases[] = {
        {"normal", "Incubate 1 h 30 min", 0},
        {"bullet", "Incubate 1 h 30 min", 0},
        {"number", "Incubate 1 h 30 min", 0},
        {"code", "Incubate 1 h 30 min", 0},
        {"normal", "Incubate until it looks done", NBTimer::kErrorNoDurationInText},
        {"step", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
        {"section", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
        {"day", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
        {"note", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
        {"warning", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
        {"table", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
        {"attachment", "Incubate 1 h 30 min", NBTimer::kErrorParagraphCannotCarryTimer},
    };
    for (const auto& testCase : cases) {
        QVariantMap info = runningStopwatch;
        info.insert(QStringLiteral("type"), QString::fromLatin1(testCase.type));
        const QVariantMap before = info;
        NBError error;
        const std::optional<NBTimer> timer = NBTimer::setCountdownTimerForDurationInParagraph(
            QString::fromLatin1(testCase.type), info, QString::fromLatin1(testCase.text), &error);
        if (testCase.expectedErrorCode != 0) {
            EXPECT_FALSE(timer) << testCase.type;
            EXPECT_EQ(error.domain(), QStringLiteral("NBTimer"));
            EXPECT_EQ(error.code(), testCase.expectedErrorCode) << testCase.type;
            EXPECT_EQ(info, before) << testCase.type;
            continue;
        }
        ASSERT_TRUE(timer) << testCase.type;
        EXPECT_EQ(NBTimer::timerWithInfo(info), timer);
        EXPECT_EQ(timer->state(), NBTimerState::Idle);
        EXPECT_EQ(timer->duration()->durationInMilliseconds(), 5400000);
        EXPECT_FALSE(info.contains(QStringLiteral("timerStart")));
        EXPECT_EQ(info.value(QStringLiteral("content")), before.value(QStringLiteral("content")));
    }
}

} // namespace
