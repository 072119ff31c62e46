// NBDay: calendar and relative days, their stored forms, arithmetic and localised forms (see NBDay.h).
#include "time/NBDay.h"

#include <QHash>
#include <QMutex>
#include <QRegularExpression>

#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/translit.h>

#include <limits>
#include <map>
#include <memory>

namespace {

constexpr int kLargestYear = 0x3FFFFF;
constexpr qint64 kNotFound = std::numeric_limits<qint64>::max();

icu::UnicodeString toUnicode(QStringView text) {
    return icu::UnicodeString(reinterpret_cast<const UChar*>(text.data()), int32_t(text.size()));
}

QString fromUnicode(const icu::UnicodeString& text) {
    return QString(reinterpret_cast<const QChar*>(text.getBuffer()), text.length());
}

// The user's locale for dates: LC_ALL, then LC_TIME, then LANG, as the C library chooses it.
QString currentLocaleName() {
    for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
        QString value = qEnvironmentVariable(variable);
        if (value.isEmpty())
            continue;
        const qsizetype cut = value.indexOf(QRegularExpression(QStringLiteral("[.@]")));
        if (cut >= 0)
            value.truncate(cut);
        if (value.isEmpty() || value == u"C" || value == u"POSIX")
            return QStringLiteral("en_US");
        return value;
    }
    return QStringLiteral("en_US");
}

// ICU formatters are not safe for concurrent use, so every use goes through this lock; they are made once per
// locale and pattern (or style) and kept.
struct Formatters {
    QMutex mutex;
    std::map<QString, std::unique_ptr<icu::DateFormat>> byKey;
    std::map<QString, int> firstWeekdays;
    std::unique_ptr<icu::Transliterator> anyLatin;
    QString defaultEntryFormat = QString::fromLatin1(NBDefaultDateFormatForParsingOfCalendarDay);
};

Formatters& formatters() {
    static Formatters instance;
    return instance;
}

// Makes a formatter in the Gregorian calendar of GMT: days are formatted from and parsed to GMT noon and
// midnight, which gives the same calendar day as the local zone would, whatever that zone is.
std::unique_ptr<icu::DateFormat> adoptGregorianGMT(icu::DateFormat* format, const icu::Locale& locale) {
    std::unique_ptr<icu::DateFormat> owned(format);
    if (!owned)
        return owned;
    UErrorCode status = U_ZERO_ERROR;
    auto* calendar = new icu::GregorianCalendar(icu::TimeZone::getGMT()->clone(), locale, status);
    if (U_FAILURE(status)) {
        delete calendar;
        return nullptr;
    }
    // Proleptic Gregorian, as the rest of NBDay counts days.
    calendar->setGregorianChange(-184303902528000000.0, status);
    owned->adoptCalendar(calendar);
    return owned;
}

// Kind of formatter: "pattern:<pattern>" or "style:<n>"; must be called with the lock held.
icu::DateFormat* formatterLocked(const QString& kind) {
    Formatters& shared = formatters();
    const QString localeName = currentLocaleName();
    const QString key = localeName + u'|' + kind;
    auto found = shared.byKey.find(key);
    if (found != shared.byKey.end())
        return found->second.get();
    const icu::Locale locale(localeName.toUtf8().constData());
    std::unique_ptr<icu::DateFormat> made;
    if (kind.startsWith(u"pattern:")) {
        UErrorCode status = U_ZERO_ERROR;
        auto* format = new icu::SimpleDateFormat(toUnicode(QStringView(kind).mid(8)), locale, status);
        if (U_FAILURE(status))
            delete format;
        else
            made = adoptGregorianGMT(format, locale);
    } else {
        const auto style = icu::DateFormat::EStyle(QStringView(kind).mid(6).toInt());
        made = adoptGregorianGMT(icu::DateFormat::createDateInstance(style, locale), locale);
    }
    icu::DateFormat* result = made.get();
    shared.byKey.emplace(key, std::move(made));
    return result;
}

UDate noonGMT(const QDate& date) {
    return UDate(QDateTime(date, QTime(12, 0), Qt::UTC).toMSecsSinceEpoch());
}

QString formatDay(const QDate& date, const QString& kind) {
    QMutexLocker lock(&formatters().mutex);
    icu::DateFormat* format = formatterLocked(kind);
    if (!format)
        return QString();
    icu::UnicodeString out;
    format->format(noonGMT(date), out);
    return fromUnicode(out);
}

QString mediumPatternWithoutYear() {
    QString pattern;
    {
        QMutexLocker lock(&formatters().mutex);
        auto* medium = dynamic_cast<icu::SimpleDateFormat*>(
            formatterLocked(QStringLiteral("style:%1").arg(int(icu::DateFormat::kMedium))));
        if (!medium)
            return QStringLiteral("MMM d");
        icu::UnicodeString text;
        medium->toPattern(text);
        pattern = fromUnicode(text);
    }
    pattern.remove(QRegularExpression(QStringLiteral("[yYuG]")));
    pattern.replace(QStringLiteral("  "), QStringLiteral(" "));
    qsizetype start = 0;
    qsizetype end = pattern.size();
    auto trimmed = [](QChar character) {
        return character == u' ' || character == u',' || character == u'-';
    };
    while (start < end && trimmed(pattern[start]))
        ++start;
    while (end > start && trimmed(pattern[end - 1]))
        --end;
    return pattern.mid(start, end - start);
}

// Parses the whole text with a pattern into the GMT calendar day it names.
QDate parseWithPattern(QStringView text, const QString& pattern) {
    if (pattern.isEmpty())
        return QDate();
    const QStringView trimmed = text.trimmed();
    QMutexLocker lock(&formatters().mutex);
    icu::DateFormat* format = formatterLocked(QStringLiteral("pattern:") + pattern);
    if (!format)
        return QDate();
    const icu::UnicodeString unicode = toUnicode(trimmed);
    icu::ParsePosition position(0);
    const UDate parsed = format->parse(unicode, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != unicode.length())
        return QDate();
    if (!(parsed > -1e17 && parsed < 1e17))
        return QDate();
    return QDateTime::fromMSecsSinceEpoch(qint64(parsed), Qt::UTC).date();
}

QString transliteratedToLatin(QStringView text) {
    QMutexLocker lock(&formatters().mutex);
    Formatters& shared = formatters();
    if (!shared.anyLatin) {
        UErrorCode status = U_ZERO_ERROR;
        shared.anyLatin.reset(icu::Transliterator::createInstance("Any-Latin", UTRANS_FORWARD, status));
        if (U_FAILURE(status))
            shared.anyLatin.reset();
    }
    if (!shared.anyLatin)
        return text.toString();
    icu::UnicodeString unicode = toUnicode(text);
    shared.anyLatin->transliterate(unicode);
    return fromUnicode(unicode);
}

// Reads an integer the way stored relative days were read: leading white space, an optional sign, then
// ASCII digits up to the first other character; no digits read as 0, overflow saturates.
qint64 leadingInteger(QStringView text) {
    qsizetype position = 0;
    while (position < text.size() && text[position].isSpace())
        ++position;
    bool negative = false;
    if (position < text.size() && (text[position] == u'-' || text[position] == u'+')) {
        negative = text[position] == u'-';
        ++position;
    }
    quint64 magnitude = 0;
    bool overflow = false;
    for (; position < text.size() && text[position] >= u'0' && text[position] <= u'9'; ++position) {
        const quint64 digit = quint64(text[position].unicode() - u'0');
        if (magnitude > (quint64(std::numeric_limits<qint64>::max()) + 1 - digit) / 10)
            overflow = true;
        else
            magnitude = magnitude * 10 + digit;
    }
    if (negative) {
        if (overflow || magnitude > quint64(std::numeric_limits<qint64>::max()) + 1)
            return std::numeric_limits<qint64>::min();
        return qint64(0 - magnitude);
    }
    if (overflow || magnitude > quint64(std::numeric_limits<qint64>::max()))
        return std::numeric_limits<qint64>::max();
    return qint64(magnitude);
}

// Turns year, month and day fields into a date the way a lenient calendar does: months beyond 12 and days
// beyond the month's length carry into the following months and years.
QDate lenientDate(QStringView yearText, QStringView monthText, QStringView dayText) {
    if (yearText.size() > 9 || monthText.size() > 9 || dayText.size() > 9)
        return QDate();
    const qint64 year = yearText.toLongLong();
    const qint64 month = monthText.toLongLong();
    const qint64 day = dayText.toLongLong();
    const qint64 months = year * 12 + month - 1;
    const qint64 normalisedYear = months >= 0 ? months / 12 : (months - 11) / 12;
    const int normalisedMonth = int(months - normalisedYear * 12) + 1;
    if (normalisedYear < 1 || normalisedYear > kLargestYear)
        return QDate();
    return QDate(int(normalisedYear), normalisedMonth, 1).addDays(day - 1);
}

// The fields of a string form, if the text holds exactly one match of the pattern.
QDate dateForPattern(const QRegularExpression& pattern, QStringView text) {
    QRegularExpressionMatchIterator matches = pattern.globalMatch(text);
    if (!matches.hasNext())
        return QDate();
    const QRegularExpressionMatch match = matches.next();
    if (matches.hasNext() || match.lastCapturedIndex() != 3)
        return QDate();
    return lenientDate(match.capturedView(1), match.capturedView(2), match.capturedView(3));
}

const QRegularExpression& currentPattern() {
    static const QRegularExpression pattern(
        QStringLiteral("\\{year:([0-9]+),month:+([0-9]+),day:+([0-9]+)\\}"));
    return pattern;
}

const QRegularExpression& legacyPattern() {
    // The current pattern with every ":" replaced by "[^0-9]+".
    static const QRegularExpression pattern(
        QString(currentPattern().pattern()).replace(QLatin1Char(':'), QStringLiteral("[^0-9]+")));
    return pattern;
}

int gregorianWeekday(const QDate& date) {
    return date.dayOfWeek() % 7 + 1;
}

bool addOverflows(qint64 a, qint64 b, qint64* sum) {
    return __builtin_add_overflow(a, b, sum);
}
bool multiplyOverflows(qint64 a, qint64 b, qint64* product) {
    return __builtin_mul_overflow(a, b, product);
}

qint64 floorDivide(qint64 value, qint64 divisor) {
    const qint64 quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

} // namespace

NBDay NBDay::calendarDay(const QDate& date) {
    NBDay day;
    if (!date.isValid() || date.year() < 1 || date.year() > kLargestYear)
        return day;
    day.kind_ = Kind::Calendar;
    day.year_ = date.year();
    day.month_ = date.month();
    day.day_ = date.day();
    return day;
}

NBDay NBDay::dayWithDateComponents(const NBDayComponents& components) {
    if (!components.day)
        return NBDay();
    if (!components.month)
        return relativeDayWithInteger(*components.day);
    if (!components.year)
        return NBDay();
    const qint64 year = *components.year, month = *components.month, day = *components.day;
    if (year < 1 || year > kLargestYear || month < 1 || month > 12 || day < 1 || day > 31)
        return NBDay();
    const QDate date{int(year), int(month), int(day)};
    return date.isValid() ? calendarDay(date) : NBDay();
}

NBDay NBDay::relativeDayWithInteger(qint64 dayInterval) {
    NBDay day;
    day.kind_ = Kind::Relative;
    day.day_ = dayInterval;
    return day;
}

NBDay NBDay::relativeDayWithString(QStringView string) {
    QString digits;
    for (QChar character : string)
        if (character >= u'0' && character <= u'9')
            digits += character;
    return relativeDayWithInteger(leadingInteger(digits));
}

NBDay NBDay::calendarDayWithDateInLocalTimeZone(const QDateTime& date) {
    return date.isValid() ? calendarDay(date.toLocalTime().date()) : NBDay();
}

NBDay NBDay::calendarDayWithDateInGMTTimeZone(const QDateTime& date) {
    return date.isValid() ? calendarDay(date.toUTC().date()) : NBDay();
}

NBDay NBDay::today() {
    return calendarDay(QDate::currentDate());
}

NBDay NBDay::dayOfCurrentWeekWithWeekdayInGregorianCalendar(int weekday) {
    const NBDay now = today();
    return now.dayByAddingDayInterval(weekday - now.weekDayInGregorianCalendar());
}

int NBDay::firstWeekdayInGregorianCalendar() {
    Formatters& shared = formatters();
    QMutexLocker lock(&shared.mutex);
    const QString localeName = currentLocaleName();
    auto found = shared.firstWeekdays.find(localeName);
    if (found != shared.firstWeekdays.end())
        return found->second;
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(
        icu::TimeZone::getGMT()->clone(), icu::Locale(localeName.toUtf8().constData()), status));
    int first = 1;
    if (U_SUCCESS(status) && calendar) {
        const UCalendarDaysOfWeek day = calendar->getFirstDayOfWeek(status);
        if (U_SUCCESS(status) && day >= UCAL_SUNDAY && day <= UCAL_SATURDAY)
            first = int(day);
    }
    shared.firstWeekdays.emplace(localeName, first);
    return first;
}

NBDay NBDay::calendarDayWithString(QStringView string, const QString& format) {
    return calendarDay(parseWithPattern(string, format));
}

NBDay NBDay::calendarDayWithString(QStringView string) {
    return calendarDayWithString(string, defaultDateFormatForParsingOfCalendarDay());
}

QString NBDay::defaultDateFormatForParsingOfCalendarDay() {
    QMutexLocker lock(&formatters().mutex);
    return formatters().defaultEntryFormat;
}

void NBDay::setDefaultDateFormatForParsingOfCalendarDay(const QString& format) {
    QMutexLocker lock(&formatters().mutex);
    formatters().defaultEntryFormat =
        format.isEmpty() ? QString::fromLatin1(NBDefaultDateFormatForParsingOfCalendarDay) : format;
}

NBDay NBDay::dayWithStringRepresentation(QStringView string) {
    if (!string.endsWith(u'}'))
        return NBDay();
    if (string.startsWith(u"{day:"))
        return relativeDayWithInteger(leadingInteger(string.mid(5, string.size() - 6)));
    QDate date = dateForPattern(currentPattern(), string);
    if (!date.isValid())
        date = dateForPattern(legacyPattern(), string);
    if (!date.isValid()) {
        const QString latin = transliteratedToLatin(string);
        if (latin != string) {
            date = dateForPattern(currentPattern(), latin);
            if (!date.isValid())
                date = dateForPattern(legacyPattern(), latin);
        }
    }
    if (!date.isValid())
        date = parseWithPattern(string, QStringLiteral("{'year:'y,'month:'M,'day:'d}"));
    return calendarDay(date);
}

NBDay NBDay::dayWithIntegerRepresentation(quint64 integer) {
    if (integer == 0)
        return NBDay();
    if (integer & 1) {
        const qint64 magnitude = qint64(integer >> 2);
        return relativeDayWithInteger((integer & 2) ? -magnitude : magnitude);
    }
    const int day = int((integer >> 1) & 31);
    const int month = int((integer >> 6) & 15);
    const int year = int((integer >> 10) & 0x3FFFFF);
    return dayWithDateComponents({year, month, std::nullopt, day});
}

NBDay NBDay::dayWithArchivedPropertyList(const QVariant& archive) {
    const QVariant components = archive.toMap().value(QStringLiteral("dateComponents"));
    if (components.typeId() != QMetaType::QVariantMap)
        return NBDay();
    const QVariantMap fields = components.toMap();
    auto field = [&](const char* name) -> std::optional<qint64> {
        const QVariant value = fields.value(QString::fromLatin1(name));
        bool ok = false;
        const qint64 number = value.toLongLong(&ok);
        if (!value.isValid() || !ok || value.typeId() == QMetaType::QString)
            return std::nullopt;
        return number;
    };
    return dayWithDateComponents({field("year"), field("month"), std::nullopt, field("day")});
}

NBDayComponents NBDay::dateComponents() const {
    switch (kind_) {
    case Kind::Calendar:
        return {year_, month_, std::nullopt, day_};
    case Kind::Relative:
        return {std::nullopt, std::nullopt, std::nullopt, day_};
    default:
        return {};
    }
}

qint64 NBDay::dayInterval() const {
    return kind_ == Kind::Relative ? day_ : kNotFound;
}

QString NBDay::stringRepresentation() const {
    switch (kind_) {
    case Kind::Calendar:
        return QStringLiteral("{year:%1,month:%2,day:%3}").arg(year_).arg(month_).arg(day_);
    case Kind::Relative:
        return QStringLiteral("{day:%1}").arg(day_);
    default:
        return QString();
    }
}

quint64 NBDay::integerRepresentation() const {
    switch (kind_) {
    case Kind::Calendar:
        return ((quint64(day_) * 2) & 126) | ((quint64(month_) & 31) << 6) |
               ((quint64(year_) & 0x7FFFFF) << 10);
    case Kind::Relative: {
        const quint64 magnitude = day_ < 0 ? 0 - quint64(day_) : quint64(day_);
        return (magnitude << 2) | 1 | (day_ < 0 ? 2 : 0);
    }
    default:
        return 0;
    }
}

QVariant NBDay::archivedPropertyList() const {
    if (isNull())
        return QVariant();
    QVariantMap components{{QStringLiteral("day"), day_}};
    if (isCalendarDay()) {
        components.insert(QStringLiteral("month"), qint64(month_));
        components.insert(QStringLiteral("year"), qint64(year_));
    }
    return QVariantMap{{QStringLiteral("dateComponents"), components}};
}

QString NBDay::yearMonthDayISO8601String() const {
    switch (kind_) {
    case Kind::Calendar:
        return QStringLiteral("%1-%2-%3")
            .arg(year_)
            .arg(month_, 2, 10, QLatin1Char('0'))
            .arg(day_, 2, 10, QLatin1Char('0'));
    case Kind::Relative:
        return QString::number(day_);
    default:
        return QString();
    }
}

QString NBDay::description() const {
    return QStringLiteral("<NBDay: 0x%1> %2")
        .arg(reinterpret_cast<quintptr>(this), 0, 16)
        .arg(stringRepresentation());
}

QString NBDay::mediumString() const {
    if (isRelativeDay())
        return QStringLiteral("Day %1").arg(day_);
    return isCalendarDay() ? formatDay(date(), QStringLiteral("style:%1").arg(int(icu::DateFormat::kMedium)))
                           : QString();
}

QString NBDay::mediumStringWithoutYear() const {
    if (isRelativeDay())
        return QStringLiteral("Day %1").arg(day_);
    return isCalendarDay() ? formatDay(date(), QStringLiteral("pattern:") + mediumDateFormatWithoutYear())
                           : QString();
}

QString NBDay::longString() const {
    if (isRelativeDay())
        return QStringLiteral("Day %1").arg(day_);
    return isCalendarDay() ? formatDay(date(), QStringLiteral("style:%1").arg(int(icu::DateFormat::kLong)))
                           : QString();
}

QString NBDay::weekdayString() const {
    return isCalendarDay() ? formatDay(date(), QStringLiteral("pattern:EEEE")) : QString();
}

QString NBDay::mediumDateFormatWithoutYear() {
    return mediumPatternWithoutYear();
}

int NBDay::weekDayInGregorianCalendar() const {
    return isCalendarDay() ? gregorianWeekday(date()) : 0;
}
int NBDay::yearInGregorianCalendar() const {
    return isCalendarDay() ? year_ : 0;
}
int NBDay::monthInGregorianCalendar() const {
    return isCalendarDay() ? month_ : 0;
}
int NBDay::dayInGregorianCalendar() const {
    return isCalendarDay() ? int(day_) : 0;
}
QDate NBDay::date() const {
    return isCalendarDay() ? QDate(year_, month_, int(day_)) : QDate();
}

QDateTime NBDay::dateAtNoonForLocalTimeZone() const {
    return isCalendarDay() ? QDateTime(date(), QTime(12, 0), Qt::LocalTime) : QDateTime();
}

QDateTime NBDay::dateAtNoonForGMTTimeZone() const {
    return isCalendarDay() ? QDateTime(date(), QTime(12, 0), Qt::UTC) : QDateTime();
}

// Calendar arithmetic on the date is what adding to noon in the local Gregorian calendar gives: noon never
// falls into a daylight-saving gap, so the calendar day of the result is the same.
NBDay NBDay::dayByAddingDayInterval(qint64 days) const {
    if (isRelativeDay()) {
        qint64 sum = 0;
        return addOverflows(day_, days, &sum) ? NBDay() : relativeDayWithInteger(sum);
    }
    if (!isCalendarDay() || days > 2000000000LL || days < -2000000000LL)
        return NBDay();
    return calendarDay(date().addDays(days));
}

NBDay NBDay::dayByAddingWeekInterval(qint64 weeks) const {
    qint64 days = 0;
    return multiplyOverflows(weeks, 7, &days) ? NBDay() : dayByAddingDayInterval(days);
}

NBDay NBDay::dayByAddingMonthInterval(qint64 months) const {
    if (isRelativeDay()) {
        qint64 days = 0;
        return multiplyOverflows(months, 30, &days) ? NBDay() : dayByAddingDayInterval(days);
    }
    if (!isCalendarDay() || months > 100000000LL || months < -100000000LL)
        return NBDay();
    return calendarDay(date().addMonths(int(months)));
}

NBDay NBDay::dayByAddingYearInterval(qint64 years) const {
    if (isRelativeDay()) {
        qint64 days = 0;
        return multiplyOverflows(years, 365, &days) ? NBDay() : dayByAddingDayInterval(days);
    }
    if (!isCalendarDay() || years > 10000000LL || years < -10000000LL)
        return NBDay();
    return calendarDay(date().addYears(int(years)));
}

// The weekday is the day's own: taking it from noon GMT in the local calendar would name the next day in
// zones more than 12 hours ahead of GMT (Kiritimati is 14 hours ahead).
NBDay NBDay::firstDayOfSameWeek() const {
    if (!isCalendarDay())
        return NBDay();
    const int weekday = weekDayInGregorianCalendar();
    return dayByAddingDayInterval(-((weekday + 7 - firstWeekdayInGregorianCalendar()) % 7));
}

NBDay NBDay::lastDayOfSameWeek() const {
    return firstDayOfSameWeek().dayByAddingDayInterval(6);
}

std::optional<NBDayComponents> NBDay::componentsSinceDay(unsigned units, const NBDay& day) const {
    if (isRelativeDay() && day.isRelativeDay()) {
        NBDayComponents result;
        qint64 difference = 0;
        if ((units & NBDayUnitDay) && !__builtin_sub_overflow(day_, day.day_, &difference))
            result.day = difference;
        return result;
    }
    if (!isCalendarDay() || !day.isCalendarDay())
        return std::nullopt;
    // Largest unit first, each as many whole units as fit without passing the target, as calendars do.
    const QDate target = date();
    QDate current = day.date();
    const bool forward = current <= target;
    auto passes = [&](const QDate& candidate) { return forward ? candidate > target : candidate < target; };
    NBDayComponents result;
    if (units & NBDayUnitYear) {
        qint64 years = target.year() - current.year();
        if (passes(current.addYears(int(years))))
            years += forward ? -1 : 1;
        current = current.addYears(int(years));
        result.year = years;
    }
    if (units & NBDayUnitMonth) {
        qint64 months =
            (qint64(target.year()) * 12 + target.month()) - (qint64(current.year()) * 12 + current.month());
        if (passes(current.addMonths(int(months))))
            months += forward ? -1 : 1;
        current = current.addMonths(int(months));
        result.month = months;
    }
    if (units & NBDayUnitWeek) {
        const qint64 weeks = current.daysTo(target) / 7;
        current = current.addDays(weeks * 7);
        result.week = weeks;
    }
    if (units & NBDayUnitDay)
        result.day = current.daysTo(target);
    return result;
}

std::optional<qint64> NBDay::dayIntervalSinceDay(const NBDay& day) const {
    const std::optional<NBDayComponents> difference = componentsSinceDay(NBDayUnitDay, day);
    return difference ? difference->day : std::nullopt;
}

bool NBDay::isSameWeekAsDay(const NBDay& day) const {
    if (isRelativeDay() && day.isRelativeDay())
        return floorDivide(day_, 7) == floorDivide(day.day_, 7);
    return isCalendarDayAsWellAsDay(day) && firstDayOfSameWeek() == day.firstDayOfSameWeek();
}

bool NBDay::isSameMonthAsDay(const NBDay& day) const {
    if (isRelativeDay() && day.isRelativeDay())
        return floorDivide(day_, 30) == floorDivide(day.day_, 30);
    return isCalendarDayAsWellAsDay(day) && year_ == day.year_ && month_ == day.month_;
}

bool NBDay::isSameYearAsDay(const NBDay& day) const {
    if (isRelativeDay() && day.isRelativeDay())
        return floorDivide(day_, 365) == floorDivide(day.day_, 365);
    return isCalendarDayAsWellAsDay(day) && year_ == day.year_;
}

bool NBDay::isCalendarDayAsWellAsDay(const NBDay& day) const {
    return isCalendarDay() && day.isCalendarDay();
}

std::weak_ordering NBDay::compare(const NBDay& day) const {
    if (isNull() || day.isNull())
        return isNull() == day.isNull() ? std::weak_ordering::equivalent
                                        : (isNull() ? std::weak_ordering::less : std::weak_ordering::greater);
    if (isRelativeDay() && day.isRelativeDay())
        return day_ <=> day.day_;
    const NBDay left = isRelativeDay() ? today().dayByAddingDayInterval(day_) : *this;
    const NBDay right = day.isRelativeDay() ? today().dayByAddingDayInterval(day.day_) : day;
    if (left.isNull() || right.isNull())
        return left.isNull() == right.isNull()
                   ? std::weak_ordering::equivalent
                   : (left.isNull() ? std::weak_ordering::less : std::weak_ordering::greater);
    const qint64 seconds = left.dateAtNoonForLocalTimeZone().secsTo(right.dateAtNoonForLocalTimeZone());
    if (seconds < 43200 && seconds > -43200)
        return std::weak_ordering::equivalent;
    return seconds > 0 ? std::weak_ordering::less : std::weak_ordering::greater;
}

bool NBDay::operator==(const NBDay& other) const {
    return kind_ == other.kind_ && day_ == other.day_ && month_ == other.month_ && year_ == other.year_;
}

size_t qHash(const NBDay& day, size_t seed) {
    return qHash(day.integerRepresentation(), seed);
}
