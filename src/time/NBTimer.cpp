// NBTimer: countdowns and stopwatches computed from wall-clock dates, and their stored form in a
// paragraph's info (described in NBTimer.h).
#include "time/NBTimer.h"

#include "foundation/NBLogging.h"
#include "time/NBTimeDetector.h"

#include <QMetaType>

#include <array>
#include <cmath>
#include <limits>

namespace {

constexpr std::array<const char*, 5> kTimerKeys = {kNBTimerStartKey, kNBTimerStopKey, kNBTimerDurationKey,
                                                   kNBTimerElapsedKey, kNBTimerAppearanceKey};

struct AppearanceName {
    NBTimerAppearance appearance;
    const char* name;
};

constexpr std::array<AppearanceName, 3> kAppearanceNames = {{
    {NBTimerAppearance::Clock, "clock"},
    {NBTimerAppearance::Progress, "progress"},
    {NBTimerAppearance::Compact, "compact"},
}};

QString nameForAppearance(NBTimerAppearance appearance) {
    for (const AppearanceName& entry : kAppearanceNames) {
        if (entry.appearance == appearance)
            return QString::fromLatin1(entry.name);
    }
    return QStringLiteral("clock");
}

NBTimerAppearance appearanceForName(const QString& name) {
    for (const AppearanceName& entry : kAppearanceNames) {
        if (name == QLatin1String(entry.name))
            return entry.appearance;
    }
    return NBTimerAppearance::Clock;
}

// Outcome of reading one key: absent, present and readable, or present and damaged.
enum class ReadResult { Absent, Valid, Invalid };

// A non-negative count of milliseconds. Property-list integers arrive as qint64, but other writers may
// have used smaller integer types or whole reals.
ReadResult readMilliseconds(const QVariantMap& info, const char* key, qint64& result) {
    const auto found = info.constFind(QLatin1String(key));
    if (found == info.constEnd())
        return ReadResult::Absent;
    const QVariant& value = *found;
    switch (value.metaType().id()) {
    case QMetaType::LongLong:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::Short:
        result = value.toLongLong();
        return result >= 0 ? ReadResult::Valid : ReadResult::Invalid;
    case QMetaType::ULongLong:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::UShort: {
        const quint64 unsignedValue = value.toULongLong();
        if (unsignedValue > static_cast<quint64>(std::numeric_limits<qint64>::max()))
            return ReadResult::Invalid;
        result = static_cast<qint64>(unsignedValue);
        return ReadResult::Valid;
    }
    case QMetaType::Double: {
        const double real = value.toDouble();
        if (!std::isfinite(real) || real < 0 || real >= 9223372036854775808.0 || std::trunc(real) != real)
            return ReadResult::Invalid;
        result = static_cast<qint64>(real);
        return ReadResult::Valid;
    }
    default:
        return ReadResult::Invalid;
    }
}

ReadResult readDate(const QVariantMap& info, const char* key, QDateTime& result) {
    const auto found = info.constFind(QLatin1String(key));
    if (found == info.constEnd())
        return ReadResult::Absent;
    if (found->metaType().id() != QMetaType::QDateTime)
        return ReadResult::Invalid;
    result = found->toDateTime();
    if (!result.isValid())
        return ReadResult::Invalid;
    result = result.toUTC();
    return ReadResult::Valid;
}

qint64 saturatingAdd(qint64 value, qint64 addend) {
    qint64 sum = 0;
    if (__builtin_add_overflow(value, addend, &sum))
        return std::numeric_limits<qint64>::max();
    return sum;
}

// Milliseconds from one date to a later one; a stretch that runs backwards (clocks of two devices that
// disagree) counts as zero.
qint64 millisecondsBetween(const QDateTime& from, const QDateTime& to) {
    const qint64 milliseconds = from.msecsTo(to);
    return milliseconds > 0 ? milliseconds : 0;
}

} // namespace

NBTimer NBTimer::countdownTimerWithDuration(double durationTimeInterval) {
    return countdownTimerWithDuration(
        NBTime::durationWithTimeInterval(durationTimeInterval).value_or(NBTime()));
}

NBTimer NBTimer::countdownTimerWithDuration(NBTime duration) {
    NBTimer timer;
    timer.duration_ = duration;
    return timer;
}

NBTimer NBTimer::stopwatchTimer() {
    return NBTimer();
}

std::optional<NBTimer> NBTimer::timerWithInfo(const QVariantMap& paragraphInfo) {
    bool hasTimerKey = false;
    for (const char* key : kTimerKeys)
        hasTimerKey = hasTimerKey || paragraphInfo.contains(QLatin1String(key));
    if (!hasTimerKey)
        return std::nullopt;

    NBTimer timer;
    qint64 milliseconds = 0;
    switch (readMilliseconds(paragraphInfo, kNBTimerDurationKey, milliseconds)) {
    case ReadResult::Invalid:
        return std::nullopt;
    case ReadResult::Valid:
        timer.duration_ = NBTime::durationWithMilliseconds(milliseconds);
        break;
    case ReadResult::Absent:
        break;
    }
    milliseconds = 0;
    if (readMilliseconds(paragraphInfo, kNBTimerElapsedKey, milliseconds) == ReadResult::Invalid)
        return std::nullopt;
    timer.elapsedBeforeStart_ = NBTime::durationWithMilliseconds(milliseconds);
    if (readDate(paragraphInfo, kNBTimerStartKey, timer.startDate_) == ReadResult::Invalid ||
        readDate(paragraphInfo, kNBTimerStopKey, timer.stopDate_) == ReadResult::Invalid)
        return std::nullopt;
    const auto appearance = paragraphInfo.constFind(QLatin1String(kNBTimerAppearanceKey));
    if (appearance != paragraphInfo.constEnd()) {
        if (appearance->metaType().id() != QMetaType::QString)
            return std::nullopt;
        timer.appearance_ = appearanceForName(appearance->toString());
    }
    return timer;
}

QVariantMap NBTimer::info() const {
    QVariantMap result;
    if (duration_)
        result.insert(QLatin1String(kNBTimerDurationKey), duration_->durationInMilliseconds());
    result.insert(QLatin1String(kNBTimerElapsedKey), elapsedBeforeStart_.durationInMilliseconds());
    if (startDate_.isValid())
        result.insert(QLatin1String(kNBTimerStartKey), startDate_);
    if (stopDate_.isValid())
        result.insert(QLatin1String(kNBTimerStopKey), stopDate_);
    result.insert(QLatin1String(kNBTimerAppearanceKey), nameForAppearance(appearance_));
    return result;
}

void NBTimer::writeToInfo(QVariantMap& paragraphInfo) const {
    removeFromInfo(paragraphInfo);
    paragraphInfo.insert(info());
}

void NBTimer::removeFromInfo(QVariantMap& paragraphInfo) {
    for (const char* key : kTimerKeys)
        paragraphInfo.remove(QLatin1String(key));
}

bool NBTimer::paragraphTypeCanCarryTimer(const QString& paragraphType) {
    return paragraphType == QLatin1String("normal") || paragraphType == QLatin1String("bullet") ||
           paragraphType == QLatin1String("number") || paragraphType == QLatin1String("code");
}

std::optional<NBTimer> NBTimer::setCountdownTimerForDurationInParagraph(const QString& paragraphType,
                                                                        QVariantMap& paragraphInfo,
                                                                        const QString& plainText,
                                                                        NBError* outError) {
    if (!paragraphTypeCanCarryTimer(paragraphType)) {
        nbFail(outError,
               NBError::errorWithObject(
                   "NBTimer", kErrorParagraphCannotCarryTimer,
                   QStringLiteral("This paragraph cannot carry a timer."),
                   nbFormat("Timers go on normal, bulleted, numbered and code paragraphs; this is a \"%@\" "
                            "paragraph.",
                            paragraphType),
                   QStringLiteral("Write the duration in a normal paragraph and put the timer there."),
                   nullptr));
        return std::nullopt;
    }
    const std::optional<NBTime> duration = NBTimeDetector::firstMatchForDurationInString(plainText);
    if (!duration) {
        nbFail(outError, NBError::errorWithObject(
                             "NBTimer", kErrorNoDurationInText,
                             QStringLiteral("This paragraph does not say how long it takes."),
                             nbFormat("No duration was found in \"%@\".", plainText),
                             QStringLiteral("Write the duration into the paragraph, for example \"incubate "
                                            "1 h 30 min\" or \"spin 5:00\"."),
                             nullptr));
        return std::nullopt;
    }
    const NBTimer timer = countdownTimerWithDuration(duration->durationTimeInterval());
    timer.writeToInfo(paragraphInfo);
    return timer;
}

NBTimerState NBTimer::state() const {
    if (startDate_.isValid())
        return stopDate_.isValid() ? NBTimerState::Stopped : NBTimerState::Running;
    if (stopDate_.isValid() || !elapsedBeforeStart_.isZero())
        return NBTimerState::Paused;
    return NBTimerState::Idle;
}

bool NBTimer::start(const QDateTime& now) {
    switch (state()) {
    case NBTimerState::Running:
        return false;
    case NBTimerState::Paused:
        return resume(now);
    case NBTimerState::Stopped:
    case NBTimerState::Idle:
        elapsedBeforeStart_ = NBTime();
        startDate_ = now.toUTC();
        stopDate_ = QDateTime();
        return true;
    }
    return false;
}

bool NBTimer::pause(const QDateTime& now) {
    if (state() != NBTimerState::Running)
        return false;
    const QDateTime nowUTC = now.toUTC();
    elapsedBeforeStart_ = NBTime::durationWithMilliseconds(
        saturatingAdd(elapsedBeforeStart_.durationInMilliseconds(), millisecondsBetween(startDate_, nowUTC)));
    startDate_ = QDateTime();
    stopDate_ = nowUTC;
    return true;
}

bool NBTimer::resume(const QDateTime& now) {
    if (state() != NBTimerState::Paused)
        return false;
    startDate_ = now.toUTC();
    stopDate_ = QDateTime();
    return true;
}

bool NBTimer::stop(const QDateTime& now) {
    switch (state()) {
    case NBTimerState::Idle:
    case NBTimerState::Stopped:
        return false;
    case NBTimerState::Running:
        stopDate_ = now.toUTC();
        // A stop dated before the run began (the other device's clock was ahead) still ends the run, with
        // that stretch counted as zero by elapsedTime().
        return true;
    case NBTimerState::Paused:
        // Both dates mark a stopped timer; an empty run adds nothing to what was counted before the pause.
        startDate_ = now.toUTC();
        stopDate_ = startDate_;
        return true;
    }
    return false;
}

bool NBTimer::reset() {
    if (state() == NBTimerState::Idle)
        return false;
    elapsedBeforeStart_ = NBTime();
    startDate_ = QDateTime();
    stopDate_ = QDateTime();
    return true;
}

NBTime NBTimer::elapsedTime(const QDateTime& now) const {
    qint64 milliseconds = elapsedBeforeStart_.durationInMilliseconds();
    if (startDate_.isValid())
        milliseconds = saturatingAdd(milliseconds,
                                     millisecondsBetween(startDate_, stopDate_.isValid() ? stopDate_ : now));
    return NBTime::durationWithMilliseconds(milliseconds);
}

std::optional<NBTime> NBTimer::remainingTime(const QDateTime& now) const {
    if (!duration_)
        return std::nullopt;
    const qint64 remaining = duration_->durationInMilliseconds() - elapsedTime(now).durationInMilliseconds();
    return NBTime::durationWithMilliseconds(remaining);
}

bool NBTimer::isExpired(const QDateTime& now) const {
    return duration_ && elapsedTime(now) >= *duration_;
}

QString NBTimer::displayString(const QDateTime& now) const {
    if (!duration_)
        return elapsedTime(now).displayString();
    const qint64 remaining = remainingTime(now)->durationInMilliseconds();
    const qint64 wholeSeconds = remaining / 1000 + (remaining % 1000 != 0 ? 1 : 0);
    return NBTime::durationWithMilliseconds(wholeSeconds * 1000).displayString();
}

bool NBTimer::operator==(const NBTimer& other) const {
    return duration_ == other.duration_ && elapsedBeforeStart_ == other.elapsedBeforeStart_ &&
           startDate_ == other.startDate_ && stopDate_ == other.stopDate_ && appearance_ == other.appearance_;
}
