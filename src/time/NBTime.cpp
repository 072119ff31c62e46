// NBTime: reading and writing durations (the natural string and display forms are described in NBTime.h).
#include "time/NBTime.h"

#include <QChar>

#include <cmath>
#include <limits>

namespace {

// Checked arithmetic: a field of twenty digits must read as malformed, not wrap around.
bool multiplyChecked(qint64 value, qint64 factor, qint64& result) {
    return !__builtin_mul_overflow(value, factor, &result);
}

bool addChecked(qint64 value, qint64 addend, qint64& result) {
    return !__builtin_add_overflow(value, addend, &result);
}

// Reads one field of the natural string: one or more decimal digits of any script, nothing else.
std::optional<qint64> readField(QStringView field) {
    if (field.isEmpty())
        return std::nullopt;
    qint64 value = 0;
    for (qsizetype index = 0; index < field.size(); ++index) {
        char32_t codePoint = field[index].unicode();
        if (field[index].isHighSurrogate() && index + 1 < field.size() && field[index + 1].isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(field[index], field[index + 1]);
            ++index;
        }
        // Only decimal digits count: a superscript two or a Roman numeral is not part of a clock text.
        if (QChar::category(codePoint) != QChar::Number_DecimalDigit)
            return std::nullopt;
        const int digit = QChar::digitValue(codePoint);
        if (digit < 0 || !multiplyChecked(value, 10, value) || !addChecked(value, digit, value))
            return std::nullopt;
    }
    return value;
}

QString twoDigits(qint64 value) {
    return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0'));
}

} // namespace

NBTime NBTime::durationWithMilliseconds(qint64 milliseconds) {
    return NBTime(milliseconds < 0 ? 0 : milliseconds);
}

std::optional<NBTime> NBTime::durationWithTimeInterval(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0)
        return std::nullopt;
    const double milliseconds = std::round(seconds * 1000.0);
    // 2^63 is exactly representable as a double; anything at or above it does not fit.
    if (milliseconds >= 9223372036854775808.0)
        return std::nullopt;
    return NBTime(static_cast<qint64>(milliseconds));
}

std::optional<NBTime> NBTime::durationWithNaturalString(QStringView naturalString) {
    static constexpr qint64 unitMilliseconds[4] = {kMillisecondsPerHour, kMillisecondsPerMinute, 1000, 1};
    qint64 total = 0;
    int fieldIndex = 0;
    for (QStringView field : naturalString.tokenize(u':')) {
        if (fieldIndex >= 4)
            return std::nullopt;
        const std::optional<qint64> value = readField(field);
        qint64 fieldMilliseconds = 0;
        if (!value || !multiplyChecked(*value, unitMilliseconds[fieldIndex], fieldMilliseconds) ||
            !addChecked(total, fieldMilliseconds, total))
            return std::nullopt;
        ++fieldIndex;
    }
    if (fieldIndex != 4)
        return std::nullopt;
    return NBTime(total);
}

QString NBTime::naturalString() const {
    return QStringLiteral("%1:%2:%3:%4")
        .arg(twoDigits(hours()), twoDigits(minutes()), twoDigits(seconds()))
        .arg(milliseconds(), 3, 10, QLatin1Char('0'));
}

QString NBTime::displayString() const {
    if (hours() > 0)
        return QStringLiteral("%1:%2:%3")
            .arg(QString::number(hours()), twoDigits(minutes()), twoDigits(seconds()));
    return QStringLiteral("%1:%2").arg(QString::number(minutes()), twoDigits(seconds()));
}
