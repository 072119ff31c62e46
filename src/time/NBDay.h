// NBDay: the day of a day paragraph, either a calendar day (year, month and day in the proleptic Gregorian
// calendar, with no time and no time zone) or a relative day (a signed day number counted from a start not
// yet fixed, as in protocols: "day 0", "day 3").
//
// Forms a day is kept and exchanged in:
//   String form ("dayRep" of day paragraphs): "{year:2024,month:3,day:7}" (plain decimal numbers, no leading
//   zeros) or "{day:-3}". The reader also accepts older forms: any run of non-digits between a label and its
//   number, labels and digits in other scripts (transliterated to Latin first, so Arabic-Indic or Devanagari
//   digits read as digits), and whatever ICU's lenient parser makes of "{'year:'y,'month:'M,'day:'d}".
//   Integer form (also the hash), an unsigned 64-bit word: relative day d is (|d| << 2) | 1, | 2 when d < 0;
//   a calendar day is ((day * 2) & 126) | ((month & 31) << 6) | ((year & 0x7FFFFF) << 10). The reader takes
//   5 bits of day, 4 of month and 22 of year: narrower than the writer, which is harmless for real dates and
//   kept because stored integers were written that way. 0 is "no day".
//   Archived form: a property-list dictionary {"dateComponents": {"year", "month", "day"}} (integers; a
//   relative day has only "day").
//   ISO form: "2024-03-07" (year unpadded); a relative day gives its number ("-3").
// Calendar days keep years 1 to 4194303 (what the integer form can read back); anything else is no day.
//
// A null NBDay (default-constructed) is "no day": what every reader and constructor returns for input it
// cannot read, and what relative days give where only calendar days make sense.
//
// Localised forms use ICU with the user's locale taken from LC_ALL, then LC_TIME, then LANG ("C" and "POSIX"
// count as en_US), looked up on every call so that a changed environment takes effect; formatters are made
// once per locale and shared under a lock. Days are immutable and may be shared between threads.
#pragma once

#include <QDateTime>
#include <QString>
#include <QVariant>

#include <compare>
#include <optional>

// The date pattern in which users type days, unless the application sets another one.
inline constexpr const char* NBDefaultDateFormatForParsingOfCalendarDay = "M/d/y";

// Calendar fields of a day, or of the difference between two days (only there is `week` used).
struct NBDayComponents {
    std::optional<qint64> year;
    std::optional<qint64> month;
    std::optional<qint64> week;
    std::optional<qint64> day;
    bool operator==(const NBDayComponents&) const = default;
};

// The units componentsSinceDay() can be asked for.
enum NBDayUnit : unsigned { NBDayUnitYear = 1, NBDayUnitMonth = 2, NBDayUnitWeek = 4, NBDayUnitDay = 8 };

class NBDay {
public:
    NBDay() = default;

    // Construction; each gives a null day for input it cannot read.
    static NBDay dayWithDateComponents(const NBDayComponents& components);
    static NBDay relativeDayWithInteger(qint64 dayInterval);
    // Keeps only the decimal digits, so "-3" gives day 3: relative days typed by users are never negative.
    static NBDay relativeDayWithString(QStringView string);
    static NBDay calendarDayWithDateInLocalTimeZone(const QDateTime& date);
    static NBDay calendarDayWithDateInGMTTimeZone(const QDateTime& date);
    static NBDay today();
    // Today plus (weekday - today's weekday) days; weekdays are numbered 1 = Sunday to 7 = Saturday.
    static NBDay dayOfCurrentWeekWithWeekdayInGregorianCalendar(int weekday);
    // The first day of the week in the user's locale (1 = Sunday ... 7 = Saturday).
    static int firstWeekdayInGregorianCalendar();
    // Parses the whole text (surrounding white space allowed) with an ICU date pattern in the user's locale.
    static NBDay calendarDayWithString(QStringView string, const QString& format);
    // ... with the default entry pattern.
    static NBDay calendarDayWithString(QStringView string);
    static QString defaultDateFormatForParsingOfCalendarDay();
    static void setDefaultDateFormatForParsingOfCalendarDay(const QString& format);
    static NBDay dayWithStringRepresentation(QStringView string);
    static NBDay dayWithIntegerRepresentation(quint64 integer);
    static NBDay dayWithArchivedPropertyList(const QVariant& archive);

    bool isNull() const { return kind_ == Kind::None; }
    bool isCalendarDay() const { return kind_ == Kind::Calendar; }
    bool isRelativeDay() const { return kind_ == Kind::Relative; }
    NBDayComponents dateComponents() const;
    // The day number of a relative day; the largest qint64 ("not found") otherwise.
    qint64 dayInterval() const;

    QString stringRepresentation() const;
    quint64 integerRepresentation() const;
    QVariant archivedPropertyList() const;
    QString yearMonthDayISO8601String() const;
    QString description() const;

    // Localised forms ("Mar 7, 2024", "Mar 7", "March 7, 2024", "Thursday" in en_US). A relative day gives
    // "Day 3" for the date forms and "" for the weekday.
    QString mediumString() const;
    QString mediumStringWithoutYear() const;
    QString longString() const;
    QString weekdayString() const;
    // The locale's medium pattern with its year fields removed (the pattern mediumStringWithoutYear uses).
    static QString mediumDateFormatWithoutYear();

    // Calendar fields (0 for relative days); the weekday is numbered 1 = Sunday to 7 = Saturday.
    int weekDayInGregorianCalendar() const;
    int yearInGregorianCalendar() const;
    int monthInGregorianCalendar() const;
    int dayInGregorianCalendar() const;
    // The calendar day as a QDate (null for relative days).
    QDate date() const;

    // 12:00 of a calendar day in the local time zone, or in GMT; invalid for relative days.
    QDateTime dateAtNoonForLocalTimeZone() const;
    QDateTime dateAtNoonForGMTTimeZone() const;

    // Arithmetic: calendar days use calendar arithmetic (adding a month to January 31 gives the last day of
    // February); relative days add n, 7n, 30n and 365n days. Results outside the kept range are null.
    NBDay dayByAddingDayInterval(qint64 days) const;
    NBDay dayByAddingWeekInterval(qint64 weeks) const;
    NBDay dayByAddingMonthInterval(qint64 months) const;
    NBDay dayByAddingYearInterval(qint64 years) const;
    NBDay nextDay() const { return dayByAddingDayInterval(1); }
    NBDay previousDay() const { return dayByAddingDayInterval(-1); }
    // The first and last days of the day's week, with the locale's first weekday (null for relative days).
    NBDay firstDayOfSameWeek() const;
    NBDay lastDayOfSameWeek() const;

    // The calendar difference from `day` to this one in the asked units (a mask of NBDayUnit), largest unit
    // first; for two relative days only the day difference; nothing for one of each or a null day.
    std::optional<NBDayComponents> componentsSinceDay(unsigned units, const NBDay& day) const;
    std::optional<qint64> dayIntervalSinceDay(const NBDay& day) const;
    // Calendar days compare by calendar; relative days by weeks of 7, months of 30 and years of 365 days.
    bool isSameWeekAsDay(const NBDay& day) const;
    bool isSameMonthAsDay(const NBDay& day) const;
    bool isSameYearAsDay(const NBDay& day) const;
    bool isCalendarDayAsWellAsDay(const NBDay& day) const;

    // Relative days by number; a relative day against a calendar day counts from today; calendar days whose
    // noons lie less than 12 hours apart are the same. A null day orders before every other day.
    std::weak_ordering compare(const NBDay& day) const;
    bool operator==(const NBDay& other) const;
    bool operator!=(const NBDay& other) const { return !(*this == other); }

private:
    enum class Kind : quint8 { None, Calendar, Relative };
    static NBDay calendarDay(const QDate& date);

    Kind kind_ = Kind::None;
    int year_ = 0;
    int month_ = 0;
    qint64 day_ = 0;
};

size_t qHash(const NBDay& day, size_t seed = 0);
