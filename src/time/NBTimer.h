// NBTimer: the timer a scientist runs on a paragraph, either a countdown from a duration ("incubate 1 h")
// or a stopwatch, and the five keys of a paragraph's info that hold it.
//
// A timer keeps no ticking state: elapsed and remaining time are computed from wall-clock dates, so a
// running timer goes on counting while the application is closed, and the document opened on another
// device shows the same time. Every operation that depends on the clock takes "now" as an argument
// (defaulting to the current time), so callers and tests decide what the time is.
//
// Stored form (keys of the paragraph's info; every value is a property-list value):
//   "timerDuration"   integer, milliseconds: the length of a countdown. Absent for a stopwatch.
//   "timerElapsed"    integer, milliseconds: time counted before the current run (see "timerStart");
//                     always written, 0 for a timer that has not run.
//   "timerStart"      date (UTC): when the current run began (the latest start or resume).
//   "timerStop"       date (UTC): when the timer last stopped counting (paused or stopped).
//   "timerAppearance" string: how the timer is shown, "clock" (digits), "progress" (digits with a bar
//                     filling up as time passes) or "compact" (a small badge); always written.
// The state follows from which dates are present:
//   neither date    idle (reset, or never started); a positive "timerElapsed" alone reads as paused
//   "timerStart"    running: elapsed = "timerElapsed" + (now - "timerStart")
//   "timerStop"     paused: elapsed = "timerElapsed"
//   both dates      stopped for good: elapsed = "timerElapsed" + ("timerStop" - "timerStart")
// A run measured across two devices whose clocks disagree never counts backwards: a negative stretch
// counts as zero.
// Reading: when none of the five keys is present the paragraph has no timer. A present key holding a
// value of the wrong type, a negative count or an invalid date makes the timer unreadable (no timer). An
// appearance this version does not know reads as "clock", so a newer version's timers still run.
// Integers written as reals (by another tool) are accepted when they are whole numbers.
#pragma once

#include "foundation/NBError.h"
#include "time/NBTime.h"

#include <QDateTime>
#include <QString>
#include <QVariantMap>

#include <optional>

inline constexpr const char* kNBTimerStartKey = "timerStart";
inline constexpr const char* kNBTimerStopKey = "timerStop";
inline constexpr const char* kNBTimerDurationKey = "timerDuration";
inline constexpr const char* kNBTimerElapsedKey = "timerElapsed";
inline constexpr const char* kNBTimerAppearanceKey = "timerAppearance";

enum class NBTimerState { Idle, Running, Paused, Stopped };

enum class NBTimerAppearance { Clock, Progress, Compact };

class NBTimer {
public:
    // Error codes of the timer operations that can fail (domain "NBTimer").
    static constexpr qint64 kErrorParagraphCannotCarryTimer = 10;
    static constexpr qint64 kErrorNoDurationInText = 20;

    // A new, idle countdown of the given length (a duration in seconds, as NBTime::durationTimeInterval
    // gives); a negative or unusable length gives a zero-length countdown.
    static NBTimer countdownTimerWithDuration(double durationTimeInterval);
    static NBTimer countdownTimerWithDuration(NBTime duration);
    // A new, idle stopwatch.
    static NBTimer stopwatchTimer();

    // Rebuilds the timer stored in a paragraph's info (see the stored form above); no timer when the info
    // holds none or holds one that cannot be read.
    static std::optional<NBTimer> timerWithInfo(const QVariantMap& paragraphInfo);
    // The timer's own keys, as they are stored.
    QVariantMap info() const;
    // Stores the timer in a paragraph's info: removes the five timer keys, then adds info().
    void writeToInfo(QVariantMap& paragraphInfo) const;
    // Removes the five timer keys from a paragraph's info.
    static void removeFromInfo(QVariantMap& paragraphInfo);

    // Only normal, bullet, numbered and code paragraphs carry timers.
    static bool paragraphTypeCanCarryTimer(const QString& paragraphType);

    // What the editor does when the user asks for a countdown on a paragraph: finds the first duration in
    // the paragraph's plain text and stores a new, idle countdown of that length in its info, replacing
    // any timer it had. Refuses (and leaves the info unchanged) a paragraph type that cannot carry a timer
    // and a text without a duration.
    static std::optional<NBTimer> setCountdownTimerForDurationInParagraph(const QString& paragraphType,
                                                                          QVariantMap& paragraphInfo,
                                                                          const QString& plainText,
                                                                          NBError* outError = nullptr);

    bool isCountdown() const { return duration_.has_value(); }
    // The countdown's length; none for a stopwatch.
    std::optional<NBTime> duration() const { return duration_; }
    NBTimerAppearance appearance() const { return appearance_; }
    void setAppearance(NBTimerAppearance appearance) { appearance_ = appearance; }

    NBTimerState state() const;
    bool isRunning() const { return state() == NBTimerState::Running; }

    // Control. Each does nothing in a state where it makes no sense (pausing an idle timer, resuming a
    // running one) and returns whether it changed the timer.
    // start: an idle timer begins counting; a stopped one begins again from zero; a paused one resumes.
    bool start(const QDateTime& now = QDateTime::currentDateTimeUtc());
    bool pause(const QDateTime& now = QDateTime::currentDateTimeUtc());
    bool resume(const QDateTime& now = QDateTime::currentDateTimeUtc());
    // Stops for good: the elapsed time is kept for the record; only start or reset leave this state.
    bool stop(const QDateTime& now = QDateTime::currentDateTimeUtc());
    // Back to idle with nothing elapsed; the duration and appearance stay.
    bool reset();

    // Time counted so far (it keeps growing past a countdown's end: overtime).
    NBTime elapsedTime(const QDateTime& now = QDateTime::currentDateTimeUtc()) const;
    // Time left of a countdown, never below zero; none for a stopwatch.
    std::optional<NBTime> remainingTime(const QDateTime& now = QDateTime::currentDateTimeUtc()) const;
    // True when a countdown has counted its whole duration.
    bool isExpired(const QDateTime& now = QDateTime::currentDateTimeUtc()) const;
    // What the timer shows: a countdown's remaining time rounded up to the whole second (so it shows
    // "0:00" only once it is over, and "1:30" for its whole first second), a stopwatch's elapsed time.
    QString displayString(const QDateTime& now = QDateTime::currentDateTimeUtc()) const;

    // Dates as stored (null when absent).
    const QDateTime& startDate() const { return startDate_; }
    const QDateTime& stopDate() const { return stopDate_; }

    bool operator==(const NBTimer& other) const;

private:
    NBTimer() = default;

    std::optional<NBTime> duration_;
    NBTime elapsedBeforeStart_;
    QDateTime startDate_;
    QDateTime stopDate_;
    NBTimerAppearance appearance_ = NBTimerAppearance::Clock;
};
