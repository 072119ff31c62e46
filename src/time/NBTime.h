// NBTime: a length of time (a duration), as a step's "incubate 1 h 30 min" or a timer's elapsed time.
//
// A duration is a whole number of milliseconds, never negative. It is written and read in two forms:
//
// Natural string ("hours:minutes:seconds:milliseconds"), the form the duration detector hands over and the
// form naturalString() writes:
//   - exactly four fields separated by ":"; each field is one or more decimal digits and nothing else (no
//     blanks, no signs); digits of any script count by their value, since the detector's "\d" finds them;
//   - every field is a plain count and may exceed its clock range: "00:90:0:000" is ninety minutes, and
//     the hours field may have any number of digits ("120:00:00:000");
//   - a field of a single digit is allowed ("0", which the detector leaves in a unit it did not find);
//   - anything else (three or five fields, an empty field, a letter, a total beyond what a signed 64-bit
//     count of milliseconds holds) is malformed and reads as no duration (std::nullopt).
//   naturalString() writes hours with at least two digits, minutes and seconds with two and milliseconds
//   with three ("01:30:00:000"), which reads back to the same duration.
//
// Display string, for people (not read back): "H:MM:SS" when the duration has whole hours ("1:30:00"),
// otherwise "M:SS" ("5:00", "0:05"); minutes beyond an hour roll into the hours, and milliseconds are cut
// off (a countdown rounds its remaining time up before showing it, see NBTimer).
#pragma once

#include <QString>
#include <QStringView>

#include <compare>
#include <optional>

class NBTime {
public:
    // The zero duration.
    NBTime() = default;

    // A duration of so many milliseconds; negative counts give the zero duration.
    static NBTime durationWithMilliseconds(qint64 milliseconds);
    // A duration of so many seconds, rounded to the nearest millisecond; negative, infinite or
    // not-a-number intervals, and intervals too long to count in milliseconds, give no duration.
    static std::optional<NBTime> durationWithTimeInterval(double seconds);
    // Reads the natural string form described above; malformed text gives no duration.
    static std::optional<NBTime> durationWithNaturalString(QStringView naturalString);

    qint64 durationInMilliseconds() const { return milliseconds_; }
    // The duration in seconds, the unit countdown timers are built from.
    double durationTimeInterval() const { return static_cast<double>(milliseconds_) / 1000.0; }

    qint64 hours() const { return milliseconds_ / kMillisecondsPerHour; }
    int minutes() const { return static_cast<int>(milliseconds_ / kMillisecondsPerMinute % 60); }
    int seconds() const { return static_cast<int>(milliseconds_ / 1000 % 60); }
    int milliseconds() const { return static_cast<int>(milliseconds_ % 1000); }

    bool isZero() const { return milliseconds_ == 0; }

    // "01:30:00:000": reads back through durationWithNaturalString().
    QString naturalString() const;
    // "1:30:00", "5:00", "0:05".
    QString displayString() const;

    auto operator<=>(const NBTime&) const = default;

    static constexpr qint64 kMillisecondsPerMinute = 60 * 1000;
    static constexpr qint64 kMillisecondsPerHour = 60 * kMillisecondsPerMinute;

private:
    explicit NBTime(qint64 milliseconds) : milliseconds_(milliseconds) {}

    qint64 milliseconds_ = 0;
};
