// Tests of days: stored forms, reading old forms, arithmetic, comparison, and forms that depend on the time
// zone and locale.
#include "time/NBDay.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <ctime>

namespace {

// Sets an environment variable (and the C library's idea of the time zone) for one scope.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const QByteArray& value)
        : name_(name), hadValue_(qEnvironmentVariableIsSet(name)), previous_(qgetenv(name)) {
        qputenv(name, value);
        tzset();
    }
    ~ScopedEnvironment() {
        if (hadValue_)
            qputenv(name_, previous_);
        else
            qunsetenv(name_);
        tzset();
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    const char* name_;
    bool hadValue_;
    QByteArray previous_;
};

struct TimeZone {
    const char* name;
    int offsetOnMarch7; // seconds east of GMT on 2024-03-07, to check that the zone is really in force
};
const TimeZone kTimeZones[] = {{"Pacific/Kiritimati", 14 * 3600},
                               {"America/Los_Angeles", -8 * 3600},
                               {"UTC", 0},
                               {"Pacific/Pago_Pago", -11 * 3600}};

NBDay calendar(int year, int month, int day) {
    return NBDay::dayWithDateComponents({year, month, {}, day});
}

TEST(NBDay, StringAndIntegerFormsTable) {
    struct Case {
        NBDay day;
        QString string;
        quint64 integer;
        QString iso;
    };
    const Case cases[] = {
        {calendar(2024, 3, 7), "{year:2024,month:3,day:7}", (7 * 2) | (3 << 6) | (2024ULL << 10),
         "2024-03-07"},
        {calendar(1, 12, 31), "{year:1,month:12,day:31}", 62 | (12 << 6) | (1ULL << 10), "1-12-31"},
        {NBDay::relativeDayWithInteger(-3), "{day:-3}", 15, "-3"},
        {NBDay::relativeDayWithInteger(2), "{day:2}", 9, "2"},
        {NBDay::relativeDayWithInteger(0), "{day:0}", 1, "0"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.string.toStdString());
        EXPECT_EQ(testCase.day.stringRepresentation(), testCase.string);
        EXPECT_EQ(testCase.day.integerRepresentation(), testCase.integer);
        EXPECT_EQ(qHash(testCase.day), qHash(testCase.integer));
        EXPECT_EQ(testCase.day.yearMonthDayISO8601String(), testCase.iso);
        EXPECT_EQ(NBDay::dayWithStringRepresentation(testCase.string), testCase.day);
        EXPECT_EQ(NBDay::dayWithIntegerRepresentation(testCase.integer), testCase.day);
        EXPECT_EQ(NBDay::dayWithArchivedPropertyList(testCase.day.archivedPropertyList()), testCase.day);
    }
    EXPECT_TRUE(NBDay::dayWithIntegerRepresentation(0).isNull());
    EXPECT_EQ(NBDay().integerRepresentation(), 0u);
    EXPECT_EQ(calendar(2024, 3, 7).dayInterval(), std::numeric_limits<qint64>::max());
    EXPECT_TRUE(calendar(2023, 2, 29).isNull());
    EXPECT_TRUE(NBDay::dayWithArchivedPropertyList(QVariantMap{{"dateComponents", "x"}}).isNull());
    EXPECT_TRUE(NBDay().description().endsWith("> "));
    EXPECT_TRUE(calendar(2024, 3, 7).description().startsWith("<NBDay: 0x"));
}

TEST(NBDay, ReadsStringFormsTable) {
    struct Case {
        QString text;
        NBDay expected;
    };
    const NBDay march7 = calendar(2024, 3, 7);
    const Case cases[] = {
        {"{year:2024,month:3,day:7}", march7},
        {"{year:2024,month::3,day:::7}", march7},
        {"{year:02024,month:03,day:07}", march7},
        {"prefix {year:2024,month:3,day:7}", march7},
        // Months and days beyond their length carry over, as a lenient calendar does.
        {"{year:2023,month:14,day:7}", calendar(2024, 2, 7)},
        {"{year:2024,month:2,day:30}", calendar(2024, 3, 1)},
        // Older forms: any non-digits between label and number, other scripts, other digits.
        {"{year = 2024,month = 3,day = 7}", march7},
        {"{year:٢٠٢٤,month:٣,day:٧}", march7},
        {"{year:२०२४,month:३,day:७}", march7},
        {"{day:-3}", NBDay::relativeDayWithInteger(-3)},
        {"{day: 12x}", NBDay::relativeDayWithInteger(12)},
        {"{day:abc}", NBDay::relativeDayWithInteger(0)},
        {"{day:}", NBDay::relativeDayWithInteger(0)},
        {"{day:99999999999999999999999}", NBDay::relativeDayWithInteger(std::numeric_limits<qint64>::max())},
        {"{year:2024,month:3,day:7", NBDay()},
        {"{year:2024,month:3,day:7}{year:2024,month:3,day:7}", NBDay()},
        {"{year:0,month:3,day:7}", NBDay()},
        {"{year:99999999999,month:3,day:7}", NBDay()},
        {"", NBDay()},
        {"}", NBDay()},
        {"{month:3}", NBDay()},
    };
    for (const Case& testCase : cases)
        EXPECT_EQ(NBDay::dayWithStringRepresentation(testCase.text), testCase.expected)
            << testCase.text.toStdString();
    EXPECT_EQ(NBDay::relativeDayWithString(u"-3"), NBDay::relativeDayWithInteger(3));
    EXPECT_EQ(NBDay::relativeDayWithString(u"day 1-2"), NBDay::relativeDayWithInteger(12));
    // The reader takes fewer bits than the writer: a year beyond 22 bits does not come back.
    EXPECT_EQ(
        NBDay::dayWithIntegerRepresentation(calendar(2024, 3, 7).integerRepresentation() | (1ULL << 32)),
        calendar(2024, 3, 7));
}

TEST(NBDay, ArithmeticTable) {
    const NBDay day = calendar(2024, 1, 31);
    EXPECT_EQ(day.dayByAddingDayInterval(1), calendar(2024, 2, 1));
    EXPECT_EQ(day.dayByAddingWeekInterval(-1), calendar(2024, 1, 24));
    EXPECT_EQ(day.dayByAddingMonthInterval(1), calendar(2024, 2, 29));
    EXPECT_EQ(day.dayByAddingYearInterval(1).dayByAddingMonthInterval(1), calendar(2025, 2, 28));
    EXPECT_EQ(calendar(2024, 2, 29).dayByAddingYearInterval(1), calendar(2025, 2, 28));
    EXPECT_EQ(calendar(2024, 3, 1).previousDay(), calendar(2024, 2, 29));
    const NBDay five = NBDay::relativeDayWithInteger(5);
    EXPECT_EQ(five.dayByAddingMonthInterval(1), NBDay::relativeDayWithInteger(35));
    EXPECT_EQ(five.dayByAddingYearInterval(-1), NBDay::relativeDayWithInteger(-360));
    EXPECT_EQ(five.dayByAddingWeekInterval(2), NBDay::relativeDayWithInteger(19));
    EXPECT_EQ(five.nextDay(), NBDay::relativeDayWithInteger(6));
    EXPECT_TRUE(NBDay::relativeDayWithInteger(std::numeric_limits<qint64>::max()).nextDay().isNull());
    EXPECT_TRUE(calendar(1, 1, 1).previousDay().isNull());
    EXPECT_TRUE(five.firstDayOfSameWeek().isNull());
    EXPECT_FALSE(five.dateAtNoonForGMTTimeZone().isValid());

    const auto difference =
        calendar(2024, 3, 7)
            .componentsSinceDay(NBDayUnitYear | NBDayUnitMonth | NBDayUnitDay, calendar(2022, 1, 31));
    ASSERT_TRUE(difference);
    EXPECT_EQ(*difference, (NBDayComponents{2, 1, {}, 7}));
    const auto backwards =
        calendar(2022, 1, 31)
            .componentsSinceDay(NBDayUnitMonth | NBDayUnitWeek | NBDayUnitDay, calendar(2024, 3, 7));
    ASSERT_TRUE(backwards);
    EXPECT_EQ(*backwards, (NBDayComponents{{}, -25, -1, -0}));
    EXPECT_EQ(calendar(2024, 3, 7).dayIntervalSinceDay(calendar(2023, 3, 7)), 366);
    EXPECT_EQ(five.dayIntervalSinceDay(NBDay::relativeDayWithInteger(-2)), 7);
    EXPECT_EQ(five.componentsSinceDay(NBDayUnitMonth, NBDay::relativeDayWithInteger(-2)), NBDayComponents{});
    EXPECT_FALSE(five.dayIntervalSinceDay(calendar(2024, 3, 7)));

    EXPECT_TRUE(calendar(2024, 3, 7).isSameMonthAsDay(calendar(2024, 3, 31)));
    EXPECT_FALSE(calendar(2024, 3, 7).isSameMonthAsDay(calendar(2023, 3, 7)));
    EXPECT_TRUE(calendar(2024, 3, 7).isSameYearAsDay(calendar(2024, 12, 31)));
    EXPECT_FALSE(five.isSameWeekAsDay(NBDay::relativeDayWithInteger(7)));
    EXPECT_TRUE(NBDay::relativeDayWithInteger(-1).isSameWeekAsDay(NBDay::relativeDayWithInteger(-7)));
    EXPECT_FALSE(five.isCalendarDayAsWellAsDay(calendar(2024, 3, 7)));
}

TEST(NBDay, ComparisonTable) {
    const NBDay today = NBDay::today();
    EXPECT_EQ(today.compare(NBDay::relativeDayWithInteger(0)), std::weak_ordering::equivalent);
    EXPECT_EQ(today.compare(NBDay::relativeDayWithInteger(1)), std::weak_ordering::less);
    EXPECT_EQ(NBDay::relativeDayWithInteger(-1).compare(today), std::weak_ordering::less);
    EXPECT_EQ(NBDay::relativeDayWithInteger(-1).compare(NBDay::relativeDayWithInteger(-2)),
              std::weak_ordering::greater);
    EXPECT_EQ(NBDay().compare(NBDay::relativeDayWithInteger(-2)), std::weak_ordering::less);
    EXPECT_EQ(calendar(2024, 3, 7).compare(calendar(2024, 3, 8)), std::weak_ordering::less);
    EXPECT_EQ(NBDay::dayOfCurrentWeekWithWeekdayInGregorianCalendar(today.weekDayInGregorianCalendar()),
              today);
    EXPECT_EQ(NBDay::dayOfCurrentWeekWithWeekdayInGregorianCalendar(1).weekDayInGregorianCalendar(), 1);
}

// Across a daylight-saving change the noons of neighbouring days are 23 or 25 hours apart: still ordered.
TEST(NBDay, ComparisonAgreesWithAdditionInEveryTimeZone) {
    for (const TimeZone& zone : kTimeZones) {
        ScopedEnvironment timeZone("TZ", zone.name);
        for (const NBDay& start : {calendar(2024, 3, 9), calendar(2024, 11, 2), calendar(2023, 12, 31)}) {
            for (int offset = -3; offset <= 3; ++offset) {
                const NBDay other = start.dayByAddingDayInterval(offset);
                EXPECT_EQ(start.compare(other), 0 <=> offset) << zone.name << " " << offset;
                EXPECT_EQ(other.dayIntervalSinceDay(start), offset);
            }
        }
    }
}

TEST(NBDay, SameDaysInEveryTimeZone) {
    for (const TimeZone& zone : kTimeZones) {
        ScopedEnvironment timeZone("TZ", zone.name);
        SCOPED_TRACE(zone.name);
        ASSERT_EQ(QDateTime(QDate(2024, 3, 7), QTime(12, 0), Qt::LocalTime).offsetFromUtc(),
                  zone.offsetOnMarch7);
        const NBDay day = NBDay::dayWithStringRepresentation(u"{year:2024,month:3,day:7}");
        EXPECT_EQ(day, calendar(2024, 3, 7));
        EXPECT_EQ(day.stringRepresentation(), "{year:2024,month:3,day:7}");
        EXPECT_EQ(NBDay::dayWithStringRepresentation(u"{year:2024,month:3,day:7}x}"), day);
        EXPECT_EQ(NBDay::calendarDayWithString(u"3/7/2024"), day);
        EXPECT_EQ(NBDay::calendarDayWithString(u" 3/7/24 "), day);
        EXPECT_EQ(NBDay::calendarDayWithString(u"2024-03-07", "yyyy-MM-dd"), day);
        EXPECT_TRUE(NBDay::calendarDayWithString(u"3/7").isNull());
        EXPECT_TRUE(NBDay::calendarDayWithString(u"3/7/2024 extra").isNull());
        EXPECT_EQ(NBDay::calendarDayWithDateInLocalTimeZone(day.dateAtNoonForLocalTimeZone()), day);
        EXPECT_EQ(NBDay::calendarDayWithDateInGMTTimeZone(day.dateAtNoonForGMTTimeZone()), day);
        EXPECT_EQ(day.dateAtNoonForLocalTimeZone().toLocalTime().time(), QTime(12, 0));
        EXPECT_EQ(day.dateAtNoonForGMTTimeZone().toUTC(),
                  QDateTime(QDate(2024, 3, 7), QTime(12, 0), Qt::UTC));
        // Late in the GMT day it is already the next day in Kiritimati and still the same one in Los Angeles.
        const QDateTime late(QDate(2024, 3, 7), QTime(23, 0), Qt::UTC);
        EXPECT_EQ(NBDay::calendarDayWithDateInGMTTimeZone(late), day);
        EXPECT_EQ(NBDay::calendarDayWithDateInLocalTimeZone(late),
                  NBDay::dayWithDateComponents({late.toLocalTime().date().year(),
                                                late.toLocalTime().date().month(),
                                                {},
                                                late.toLocalTime().date().day()}));
        // Thursday 2024-03-07; en_US weeks start on Sunday.
        ScopedEnvironment locale("LC_ALL", "en_US.UTF-8");
        EXPECT_EQ(day.weekDayInGregorianCalendar(), 5);
        EXPECT_EQ(day.firstDayOfSameWeek(), calendar(2024, 3, 3));
        EXPECT_EQ(day.lastDayOfSameWeek(), calendar(2024, 3, 9));
        EXPECT_TRUE(day.isSameWeekAsDay(calendar(2024, 3, 3)));
        EXPECT_FALSE(day.isSameWeekAsDay(calendar(2024, 3, 10)));
    }
}

TEST(NBDay, LocalisedFormsTable) {
    struct Case {
        const char* locale;
        QString medium, mediumWithoutYear, longForm, weekday;
        int firstWeekday;
        NBDay weekStart;
    };
    const Case cases[] = {
        {"en_US.UTF-8", "Mar 7, 2024", "Mar 7", "March 7, 2024", "Thursday", 1, calendar(2024, 3, 3)},
        {"C", "Mar 7, 2024", "Mar 7", "March 7, 2024", "Thursday", 1, calendar(2024, 3, 3)},
        {"fr_FR.UTF-8", "7 mars 2024", "7 mars", "7 mars 2024", "jeudi", 2, calendar(2024, 3, 4)},
        {"de_DE.UTF-8@euro", "07.03.2024", "07.03.", "7. März 2024", "Donnerstag", 2, calendar(2024, 3, 4)},
        {"ja_JP.UTF-8", "2024/03/07", "/03/07", "2024年3月7日", "木曜日", 1, calendar(2024, 3, 3)},
    };
    const NBDay day = calendar(2024, 3, 7);
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.locale);
        ScopedEnvironment locale("LC_ALL", testCase.locale);
        EXPECT_EQ(day.mediumString(), testCase.medium);
        EXPECT_EQ(day.mediumStringWithoutYear(), testCase.mediumWithoutYear);
        EXPECT_EQ(day.longString(), testCase.longForm);
        EXPECT_EQ(day.weekdayString(), testCase.weekday);
        EXPECT_EQ(NBDay::firstWeekdayInGregorianCalendar(), testCase.firstWeekday);
        EXPECT_EQ(day.firstDayOfSameWeek(), testCase.weekStart);
    }
    // LC_ALL wins over LC_TIME, which wins over LANG.
    ScopedEnvironment all("LC_ALL", "");
    ScopedEnvironment time("LC_TIME", "de_DE");
    ScopedEnvironment language("LANG", "fr_FR");
    EXPECT_EQ(day.weekdayString(), "Donnerstag");
    EXPECT_EQ(NBDay::relativeDayWithInteger(3).longString(), "Day 3");
}

RC_GTEST_PROP(NBDay, FormsRoundTrip, (int year, int month, int day, qint64 anyRelative)) {
    // The integer form keeps 62 bits of a relative day's number.
    const qint64 relative = anyRelative % (qint64(1) << 61);
    const QDate date =
        QDate(1, 1, 1).addDays(std::abs(year % 3000000) + std::abs(month % 40) + std::abs(day % 31));
    const NBDay calendarDay = NBDay::dayWithDateComponents({date.year(), date.month(), {}, date.day()});
    RC_ASSERT(!calendarDay.isNull());
    for (const NBDay& sample : {calendarDay, NBDay::relativeDayWithInteger(relative)}) {
        RC_ASSERT(NBDay::dayWithStringRepresentation(sample.stringRepresentation()) == sample);
        RC_ASSERT(NBDay::dayWithIntegerRepresentation(sample.integerRepresentation()) == sample);
        RC_ASSERT(NBDay::dayWithArchivedPropertyList(sample.archivedPropertyList()) == sample);
    }
    const int offset = *rc::gen::inRange(-400, 400);
    const NBDay moved = calendarDay.dayByAddingDayInterval(offset);
    if (!moved.isNull()) {
        RC_ASSERT(calendarDay.compare(moved) == (0 <=> offset));
        RC_ASSERT(moved.dayIntervalSinceDay(calendarDay) == offset);
    }
}

RC_GTEST_PROP(NBDay, ReadersAcceptAnyText, (const std::string& bytes, std::uint64_t integer)) {
    const QString text = QString::fromUtf8(bytes.data(), qsizetype(bytes.size())) +
                         *rc::gen::element<QString>("", "2024,month:3,day:7", "٢٠٢٤,month:٣,day:٧",
                                                    "99999999999,month:1,day:1", "1,month:99,day:999");
    for (const QString& candidate : {text, text + "}", "{year:" + text + "}", "{day:" + text + "}"}) {
        const NBDay day = NBDay::dayWithStringRepresentation(candidate);
        if (!day.isNull())
            RC_ASSERT(NBDay::dayWithStringRepresentation(day.stringRepresentation()) == day);
        const NBDay typed = NBDay::calendarDayWithString(candidate);
        RC_ASSERT((typed.isNull() || typed.isCalendarDay()));
    }
    const NBDay fromInteger = NBDay::dayWithIntegerRepresentation(integer);
    if (fromInteger.isCalendarDay())
        RC_ASSERT(NBDay::dayWithIntegerRepresentation(fromInteger.integerRepresentation()) == fromInteger);
}

} // namespace
