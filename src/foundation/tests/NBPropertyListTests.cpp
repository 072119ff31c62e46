// Tests of property-list values and their binary and XML codecs: round trips of random values, the
// values each format must keep exactly, refusal of values that are not property lists, and the XML reader's
// handling of the forms other writers use.
#include "foundation/NBPropertyList.h"

#include <QDateTime>
#include <QPoint>
#include <QTimeZone>
#include <QUrl>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cmath>
#include <limits>

void showValue(const QVariant& value, std::ostream& os) {
    os << propertyListDescription(value).toStdString();
}

namespace {

constexpr qint64 kInt64Min = std::numeric_limits<qint64>::min();
constexpr qint64 kInt64Max = std::numeric_limits<qint64>::max();

QVariant integer(qint64 value) {
    return QVariant::fromValue(value);
}

QDateTime utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int msec = 0) {
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second, msec), Qt::UTC);
}

std::optional<QVariant> roundTrip(const QVariant& value, NBPropertyListFormat format,
                                  NBError* error = nullptr) {
    std::optional<QByteArray> data = dataWithPropertyList(value, format, error);
    if (!data)
        return std::nullopt;
    return propertyListWithData(*data, error);
}

// Strings from all over Unicode: ASCII, accented Latin, Greek, CJK, characters outside the BMP and, when the
// format can hold them, control characters and unpaired surrogates.
rc::Gen<QString> genString(bool xmlSafe) {
    rc::Gen<char32_t> ascii = rc::gen::inRange<char32_t>(0x20, 0x7F);
    rc::Gen<char32_t> wide = rc::gen::element<char32_t>(U'é', U'ß', U'α', U'Ω', U'中', U'\u2028', U'\uFFFD',
                                                        U'🧪', U'\U0010FFFD', U'\t', U'\n', U'\r');
    rc::Gen<char32_t> hard = rc::gen::element<char32_t>(0x00, 0x01, 0x1F, 0xFFFE, 0xFFFF, 0xD800, 0xDFFF);
    rc::Gen<char32_t> character = xmlSafe
                                      ? rc::gen::weightedOneOf<char32_t>({{6, ascii}, {3, wide}})
                                      : rc::gen::weightedOneOf<char32_t>({{6, ascii}, {3, wide}, {1, hard}});
    return rc::gen::map(rc::gen::container<std::vector<char32_t>>(character),
                        [](const std::vector<char32_t>& units) {
                            QString string;
                            for (char32_t unit : units) {
                                if (unit >= 0xD800 && unit <= 0xDFFF)
                                    string += QChar(char16_t(unit)); // an unpaired surrogate, on purpose
                                else
                                    string += QString::fromUcs4(&unit, 1);
                            }
                            return string;
                        });
}

rc::Gen<QVariant> genScalar(bool xmlSafe) {
    // Milliseconds since 1970 from the year 1 to the year 9999.
    constexpr qint64 firstMSecs = -62135596800000;
    constexpr qint64 lastMSecs = 253402300799999;
    return rc::gen::oneOf(
        rc::gen::map(genString(xmlSafe), [](QString s) { return QVariant(s); }),
        rc::gen::map(rc::gen::arbitrary<qint64>(), [](qint64 v) { return integer(v); }),
        rc::gen::map(rc::gen::elementOf(
                         std::vector<qint64>{kInt64Min, kInt64Max, -1, 0, 255, 256, 65536, -4294967296}),
                     [](qint64 v) { return integer(v); }),
        rc::gen::map(rc::gen::arbitrary<int>(), [](int v) { return QVariant(v); }),
        rc::gen::map(rc::gen::elementOf(std::vector<quint64>{std::numeric_limits<quint64>::max(),
                                                             quint64(kInt64Max) + 1, 7}),
                     [](quint64 v) { return QVariant::fromValue(v); }),
        rc::gen::map(rc::gen::arbitrary<double>(), [](double v) { return QVariant(v); }),
        rc::gen::map(rc::gen::elementOf(std::vector<double>{std::nan(""), HUGE_VAL, -HUGE_VAL, -0.0, 5e-324,
                                                            1.7976931348623157e308}),
                     [](double v) { return QVariant(v); }),
        rc::gen::map(rc::gen::arbitrary<bool>(), [](bool v) { return QVariant(v); }),
        rc::gen::map(rc::gen::inRange(firstMSecs, lastMSecs),
                     [xmlSafe](qint64 ms) {
                         // XML keeps whole seconds only.
                         if (xmlSafe)
                             ms -= ((ms % 1000) + 1000) % 1000;
                         return QVariant(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC));
                     }),
        rc::gen::map(rc::gen::container<std::string>(rc::gen::arbitrary<char>()),
                     [](const std::string& bytes) {
                         return QVariant(QByteArray(bytes.data(), qsizetype(bytes.size())));
                     }));
}

rc::Gen<QVariant> genValue(int depth, bool xmlSafe) {
    if (depth == 0)
        return genScalar(xmlSafe);
    rc::Gen<QVariant> child = genValue(depth - 1, xmlSafe);
    rc::Gen<int> count = rc::gen::inRange(0, 6);
    return rc::gen::weightedOneOf<QVariant>(
        {{3, genScalar(xmlSafe)},
         {1, rc::gen::mapcat(count,
                             [child](int n) {
                                 return rc::gen::map(rc::gen::container<std::vector<QVariant>>(n, child),
                                                     [](const std::vector<QVariant>& items) {
                                                         return QVariant(
                                                             QVariantList(items.begin(), items.end()));
                                                     });
                             })},
         {1, rc::gen::mapcat(count, [child, xmlSafe](int n) {
              return rc::gen::map(rc::gen::container<std::vector<std::pair<QString, QVariant>>>(
                                      n, rc::gen::pair(genString(xmlSafe), child)),
                                  [](const std::vector<std::pair<QString, QVariant>>& entries) {
                                      QVariantMap map;
                                      for (const auto& [key, value] : entries)
                                          map.insert(key, value);
                                      return QVariant(map);
                                  });
          })}});
}

// What XML gives back for a value: dates lose their fraction of a second, everything else is kept.
QVariant withWholeSecondDates(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::QDateTime: {
        const QDateTime date = value.toDateTime();
        return QVariant(date.addMSecs(-date.time().msec()));
    }
    case QMetaType::QVariantList: {
        QVariantList list;
        for (const QVariant& item : value.toList())
            list.append(withWholeSecondDates(item));
        return QVariant(list);
    }
    case QMetaType::QVariantMap: {
        QVariantMap map = value.toMap();
        for (auto iterator = map.begin(); iterator != map.end(); ++iterator)
            iterator.value() = withWholeSecondDates(iterator.value());
        return QVariant(map);
    }
    default:
        return value;
    }
}

// What a reader gives back is made only of the property-list types: integers as qint64 (or quint64 above
// its range), reals as double, arrays and dictionaries as QVariantList and QVariantMap, whatever types the
// value was written from.
bool readBackTypesOnly(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        return std::all_of(list.begin(), list.end(), readBackTypesOnly);
    }
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        return std::all_of(map.begin(), map.end(), readBackTypesOnly);
    }
    case QMetaType::QString:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Bool:
    case QMetaType::QDateTime:
    case QMetaType::QByteArray:
        return true;
    default:
        return false;
    }
}

} // namespace

RC_GTEST_PROP(NBPropertyList, BinaryRoundTripKeepsEveryValue, ()) {
    const QVariant value = *genValue(3, false);
    NBError error;
    std::optional<QVariant> back = roundTrip(value, NBPropertyListFormat::Binary, &error);
    RC_ASSERT(back.has_value());
    RC_ASSERT(propertyListValuesEqual(value, *back));
    RC_ASSERT(readBackTypesOnly(*back));
    RC_ASSERT(isPropertyListValue(*back));
}

RC_GTEST_PROP(NBPropertyList, XMLRoundTripKeepsEveryValue, ()) {
    const QVariant value = *genValue(3, true);
    NBError error;
    std::optional<QVariant> back = roundTrip(value, NBPropertyListFormat::XML, &error);
    RC_ASSERT(back.has_value());
    RC_ASSERT(propertyListValuesEqual(value, *back));
    RC_ASSERT(readBackTypesOnly(*back));
}

TEST(NBPropertyList, BothFormatsKeepTheValuesAtTheEdgesAndReadThemBackAsPropertyListTypes) {
    QVariantList kept = {
        QString(),
        QString(15, 'x'),
        QString(70000, 'y'),
        QStringLiteral("🧪 non-BMP"),
        QStringLiteral("line\r\nbreaks\rand\ttabs  "),
        QByteArray(),
        QByteArray(300, '\xff'),
        QVariantList(),
        QVariantMap(),
        QVariantMap{{QString(), QString()}, {QStringLiteral("ü"), QVariantList{QVariantMap()}}},
        QVariant::fromValue(std::numeric_limits<quint64>::max())};
    for (qint64 value : {kInt64Min, kInt64Max, qint64(-1), qint64(0), qint64(255), qint64(256), qint64(65535),
                         qint64(65536), qint64(4294967295), qint64(4294967296)})
        kept << integer(value);
    for (double value : {std::numeric_limits<double>::denorm_min(), -0.0, 0.1, HUGE_VAL, std::nan("")})
        kept << value;
    for (const QDateTime& date :
         {utc(2001, 1, 1), utc(2000, 12, 31, 23, 59, 59, 250), utc(1932, 12, 31, 23, 59, 59, 999),
          utc(1, 1, 1), utc(9999, 12, 31, 23, 59, 59, 1), utc(2070, 1, 1, 0, 0, 0, 5), utc(-4713, 11, 24, 12),
          utc(20000, 6, 1)})
        kept << date;
    // Other integer, real and container types, and what they read back as.
    const std::vector<std::pair<QVariant, QVariant>> converted = {
        {QVariant(42), integer(42)},
        {QVariant(uint(4000000000u)), integer(4000000000)},
        {QVariant(short(-3)), integer(-3)},
        {QVariant(0.5f), QVariant(0.5)},
        {QVariant(QStringList{QStringLiteral("x")}), QVariantList{QStringLiteral("x")}},
        {QVariant(QVariantHash{{QStringLiteral("b"), QVariant(uint(7))}, {QStringLiteral("a"), 1}}),
         QVariantMap{{QStringLiteral("a"), integer(1)}, {QStringLiteral("b"), integer(7)}}},
    };
    std::vector<std::pair<QVariant, QVariant>> values = converted;
    for (const QVariant& value : kept)
        values.emplace_back(value, value);
    for (NBPropertyListFormat format : {NBPropertyListFormat::Binary, NBPropertyListFormat::XML}) {
        const auto expectedFor = [format](const QVariant& value) {
            return format == NBPropertyListFormat::XML ? withWholeSecondDates(value) : value;
        };
        QVariantList all;
        for (const auto& [value, readBack] : values) {
            NBError error;
            std::optional<QVariant> back = roundTrip(value, format, &error);
            ASSERT_TRUE(back) << propertyListDescription(value).toStdString() << ": "
                              << error.description().toStdString();
            const QVariant expected = expectedFor(readBack);
            EXPECT_TRUE(propertyListValuesEqual(expected, *back) && readBackTypesOnly(*back))
                << (format == NBPropertyListFormat::XML ? "XML " : "binary ")
                << propertyListDescription(value).toStdString() << " read back as "
                << propertyListDescription(*back).toStdString() << " of type " << back->typeName();
            all.append(value);
        }
        // A list of all of them, so that references and offsets need more than one byte.
        for (int index = 0; index < 300; ++index)
            all.append(integer(index * 1000));
        std::optional<QVariant> back = roundTrip(all, format);
        ASSERT_TRUE(back);
        EXPECT_TRUE(propertyListValuesEqual(expectedFor(all), *back));
    }
}

TEST(NBPropertyList, EqualityComparesByPropertyListValue) {
    struct Case {
        QVariant first, second;
        bool equal;
    };
    const QDateTime date = utc(2020, 5, 1, 10, 0, 0, 123);
    const Case cases[] = {
        {QVariant(3), integer(3), true},
        {QVariant(uint(3)), QVariant(qulonglong(3)), true},
        {QVariant(-1), QVariant::fromValue(std::numeric_limits<quint64>::max()), false},
        {QVariant(3), QVariant(3.0), false},
        {QVariant(1), QVariant(true), false},
        {QVariant(std::nan("")), QVariant(std::nan("")), true},
        {QVariant(0.5f), QVariant(0.5), true},
        {QVariant(0.1), QVariant(0.2), false},
        {QVariant(date), QVariant(date.toTimeZone(QTimeZone(3600))), true},
        {QVariant(date), QVariant(date.addMSecs(1)), false},
        {QVariant(QStringLiteral("a")), QVariant(QByteArray("a")), false},
        {QVariant(QStringList{QStringLiteral("a")}), QVariant(QVariantList{QStringLiteral("a")}), true},
        {QVariant(QVariantList{1, 2}), QVariant(QVariantList{2, 1}), false},
        {QVariant(QVariantMap{{QStringLiteral("k"), 1}}),
         QVariant(QVariantHash{{QStringLiteral("k"), integer(1)}}), true},
        {QVariant(QVariantMap{{QStringLiteral("k"), 1}}), QVariant(QVariantMap{{QStringLiteral("j"), 1}}),
         false},
        {QVariant(QVariantMap{{QStringLiteral("k"), 1}}), QVariant(QVariantMap{{QStringLiteral("k"), 2}}),
         false},
        {QVariant(QVariantMap()), QVariant(QVariantList()), false},
        {QVariant(QUrl(QStringLiteral("a:b"))), QVariant(QUrl(QStringLiteral("a:b"))), true},
        {QVariant(), QVariant(QString()), false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(propertyListValuesEqual(c.first, c.second), c.equal)
            << propertyListDescription(c.first).toStdString() << " vs "
            << propertyListDescription(c.second).toStdString();
        EXPECT_EQ(propertyListValuesEqual(c.second, c.first), c.equal);
    }
}

TEST(NBPropertyList, ValuesThatAreNotPropertyListsAreRefusedWithWhereAndWhat) {
    struct Case {
        QVariant value;
        qint64 code;
        QString description;
    };
    QVariant deep = QVariantList();
    for (int level = 0; level < kNBPropertyListMaximumDepth; ++level)
        deep = QVariantList{deep};
    const Case cases[] = {
        {QVariant(), kNBPropertyListErrorUnsupportedValue,
         QStringLiteral("The top-level value is a null QVariant, which is not a property-list type.")},
        {QVariantMap{
             {QStringLiteral("a"), QVariantList{1, 2, 3, QUrl(QStringLiteral("https://example.org"))}}},
         kNBPropertyListErrorUnsupportedValue,
         QStringLiteral("The value at key 'a' / index 3 is a QUrl, which is not a property-list type.")},
        {QVariantList{QVariantMap{{QStringLiteral("p"), QPoint(1, 2)}}}, kNBPropertyListErrorUnsupportedValue,
         QStringLiteral("The value at index 0 / key 'p' is a QPoint, which is not a property-list type.")},
        {QVariantMap{{QStringLiteral("when"), QDateTime()}}, kNBPropertyListErrorUnrepresentableValue,
         QStringLiteral(
             "The value at key 'when' is an invalid QDateTime, which a property list cannot hold.")},
        {QVariantList{QDateTime(QDate(1000000, 1, 1), QTime(0, 0), Qt::UTC)},
         kNBPropertyListErrorUnrepresentableValue,
         QStringLiteral(
             "The value at index 0 is a QDateTime too far from the year 2001, which a property list "
             "cannot hold.")},
        {deep, kNBPropertyListErrorUnrepresentableValue, QString()},
    };
    for (NBPropertyListFormat format : {NBPropertyListFormat::Binary, NBPropertyListFormat::XML}) {
        for (const Case& c : cases) {
            NBError error;
            EXPECT_FALSE(dataWithPropertyList(c.value, format, &error));
            EXPECT_FALSE(isPropertyListValue(c.value));
            EXPECT_EQ(error.domain(), QStringLiteral("NBPropertyList"));
            EXPECT_EQ(error.code(), c.code);
            if (!c.description.isEmpty()) {
                EXPECT_EQ(error.localizedDescription(), c.description);
            }
        }
    }
    // One level less is still a property list.
    EXPECT_TRUE(isPropertyListValue(deep.toList().first()));
    EXPECT_TRUE(roundTrip(deep.toList().first(), NBPropertyListFormat::Binary));
    EXPECT_TRUE(roundTrip(deep.toList().first(), NBPropertyListFormat::XML));
}

TEST(NBPropertyList, XMLRefusesCharactersThatXMLCannotHold) {
    const QString bad[] = {QStringLiteral("bell\a"), QString(QChar(0xFFFE)),
                           QString(QChar(0xD800)) + QLatin1Char('x'), QString(QChar(0xDC00))};
    for (const QString& string : bad) {
        NBError error;
        EXPECT_FALSE(dataWithPropertyList(QVariantMap{{QStringLiteral("k"), string}},
                                          NBPropertyListFormat::XML, &error));
        EXPECT_EQ(error.code(), kNBPropertyListErrorUnrepresentableValue);
        EXPECT_TRUE(error.localizedDescription().startsWith(
            QStringLiteral("The value at key 'k' is a string holding")))
            << error.localizedDescription().toStdString();
        NBError keyError;
        EXPECT_FALSE(dataWithPropertyList(QVariantMap{{string, 1}}, NBPropertyListFormat::XML, &keyError));
        EXPECT_EQ(keyError.code(), kNBPropertyListErrorUnrepresentableValue);
        // The binary format holds them.
        std::optional<QVariant> back = roundTrip(string, NBPropertyListFormat::Binary);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->toString(), string);
    }
}

TEST(NBPropertyList, XMLReaderTakesTheFormsOtherWritersUse) {
    struct Case {
        const char* body;
        QVariant expected;
    };
    const Case cases[] = {
        {"<integer>0x1F</integer>", integer(31)},
        {"<integer> -42 </integer>", integer(-42)},
        {"<integer>-9223372036854775808</integer>", integer(kInt64Min)},
        {"<integer>18446744073709551615</integer>", QVariant::fromValue(std::numeric_limits<quint64>::max())},
        {"<real>1</real>", QVariant(1.0)},
        {"<real>+infinity</real>", QVariant(std::numeric_limits<double>::infinity())},
        {"<real>-infinity</real>", QVariant(-std::numeric_limits<double>::infinity())},
        {"<real>NaN</real>", QVariant(std::nan(""))},
        {"<date>2024-02-29T13:45:07Z</date>", QVariant(utc(2024, 2, 29, 13, 45, 7))},
        {"<date>1999-12-31T23:59:59.25Z</date>", QVariant(utc(1999, 12, 31, 23, 59, 59, 250))},
        {"<date>1999-12-31T23:59:59.1236Z</date>", QVariant(utc(1999, 12, 31, 23, 59, 59, 124))},
        {"<date>1999-12-31T23:59:59.9999Z</date>", QVariant(utc(2000, 1, 1))},
        {"<data>\n\tAAEC\n\t/w==\n</data>", QVariant(QByteArray("\x00\x01\x02\xff", 4))},
        {"<data></data>", QVariant(QByteArray())},
        {"<string>a &amp; &lt;b&gt; &#13;&#x1F9EA;</string>", QVariant(QStringLiteral("a & <b> \r🧪"))},
        {"<string><![CDATA[<raw>]]></string>", QVariant(QStringLiteral("<raw>"))},
        {"<string/>", QVariant(QString())},
        {"<array/>", QVariant(QVariantList())},
        {"<dict><!-- comment --><key>k</key><true/><key>k</key><false/></dict>",
         QVariant(QVariantMap{{QStringLiteral("k"), false}})},
    };
    for (const Case& c : cases) {
        for (bool wrapped : {true, false}) {
            QByteArray xml =
                wrapped ? QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">") +
                              c.body + "</plist>\n"
                        : QByteArray(c.body);
            NBError error;
            std::optional<QVariant> value = propertyListWithData(xml, &error);
            ASSERT_TRUE(value) << c.body << ": " << error.description().toStdString();
            EXPECT_TRUE(propertyListValuesEqual(*value, c.expected))
                << c.body << " read as " << propertyListDescription(*value).toStdString();
        }
    }
    // UTF-16 documents, as some editors save them.
    QString utf16Text = QStringLiteral("<plist version=\"1.0\"><string>Grüße</string></plist>");
    QByteArray utf16("\xFF\xFE");
    utf16.append(reinterpret_cast<const char*>(utf16Text.utf16()), utf16Text.size() * 2);
    std::optional<QVariant> value = propertyListWithData(utf16);
    ASSERT_TRUE(value);
    EXPECT_EQ(value->toString(), QStringLiteral("Grüße"));
}

TEST(NBPropertyList, XMLReaderRefusesMalformedDocuments) {
    struct Case {
        const char* xml;
        qint64 code;
    };
    const Case cases[] = {
        {"<plist><integer>12a</integer></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><integer>-9223372036854775809</integer></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><integer>18446744073709551616</integer></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><integer></integer></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><real>one</real></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><date>2024-02-30T00:00:00Z</date></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><date>2024-02-01T00:00:00</date></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><date>0000-01-01T00:00:00Z</date></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><date>999999999-01-01T00:00:00Z</date></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><data>AA*=</data></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><dict><key>a</key></dict></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><dict><string>a</string><true/></dict></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><array>text<true/></array></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><string>a<b/></string></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><true>yes</true></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><true/><false/></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><array><true/></plist>", kNBPropertyListErrorDamagedXML},
        {"<plist><true/></plist><plist/>", kNBPropertyListErrorDamagedXML},
        {"<plist><true/></plist>junk", kNBPropertyListErrorDamagedXML},
        {"<plist><array>", kNBPropertyListErrorDamagedXML},
        {"<plist><set/></plist>", kNBPropertyListErrorUnsupportedContent},
        {"<plist><uid>1</uid></plist>", kNBPropertyListErrorUnsupportedContent},
        {"", kNBPropertyListErrorUnknownFormat},
        {"{ a = b; }", kNBPropertyListErrorUnknownFormat},
    };
    for (const Case& c : cases) {
        NBError error;
        EXPECT_FALSE(propertyListWithData(QByteArray(c.xml), &error)) << c.xml;
        EXPECT_EQ(error.domain(), QStringLiteral("NBPropertyList"));
        EXPECT_EQ(error.code(), c.code) << c.xml << ": " << error.description().toStdString();
    }
    // Entities that expand into billions of characters are refused, not expanded.
    QByteArray laughs = "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY l0 \"ha\">";
    for (int level = 1; level < 10; ++level)
        laughs += QStringLiteral("<!ENTITY l%1 \"%2\">")
                      .arg(level)
                      .arg(QStringLiteral("&l%1;").arg(level - 1).repeated(10))
                      .toUtf8();
    laughs += "]><plist><string>&l9;</string></plist>";
    NBError laughsError;
    EXPECT_FALSE(propertyListWithData(laughs, &laughsError));
    EXPECT_EQ(laughsError.code(), kNBPropertyListErrorDamagedXML);
    // Nesting beyond the limit is refused without exhausting the stack.
    QByteArray deep = QByteArray("<plist>") + QByteArray("<array>").repeated(100000);
    NBError error;
    EXPECT_FALSE(propertyListWithData(deep, &error));
    EXPECT_EQ(error.code(), kNBPropertyListErrorDamagedXML);
}

TEST(NBPropertyList, XMLWriterWritesTheStandardDocument) {
    const QVariantMap value{{QStringLiteral("name"), QStringLiteral("R&D <lab>")},
                            {QStringLiteral("count"), integer(-3)},
                            {QStringLiteral("when"), utc(2021, 3, 4, 5, 6, 7)},
                            {QStringLiteral("precise"), utc(1901, 1, 2, 3, 4, 5, 60)},
                            {QStringLiteral("ok"), true},
                            {QStringLiteral("ratio"), 0.1},
                            {QStringLiteral("raw"), QByteArray("hi")},
                            {QStringLiteral("list"), QVariantList()}};
    std::optional<QByteArray> data = dataWithPropertyList(value, NBPropertyListFormat::XML);
    ASSERT_TRUE(data);
    const QString xml = QString::fromUtf8(*data);
    const char* expectedPieces[] = {
        ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>\n"),
        "<dict>\n\t<key>count</key>\n\t<integer>-3</integer>\n",
        "<array/>",
        "<key>name</key>\n\t<string>R&amp;D &lt;lab&gt;</string>",
        "<true/>",
        "<date>1901-01-02T03:04:05Z</date>",
        "<real>0.1</real>",
        "<data>aGk=</data>",
        "<date>2021-03-04T05:06:07Z</date>",
        "</dict>\n</plist>\n"};
    for (const char* piece : expectedPieces)
        EXPECT_TRUE(xml.contains(QString::fromUtf8(piece))) << piece << "\nin:\n" << xml.toStdString();
}

TEST(NBPropertyList, DescriptionsAreShortAndReadable) {
    struct Case {
        QVariant value;
        const char* description;
    };
    const Case cases[] = {
        {QVariantMap{{QStringLiteral("type"), QStringLiteral("say \"hi\"\n")},
                     {QStringLiteral("n"), integer(-2)}},
         R"({"n": -2, "type": "say \"hi\"\n"})"},
        {QVariantList{true, 2.5, std::nan("")}, "[true, 2.5, nan]"},
        {QVariant(QByteArray(40, '\x01')),
         "<01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 ... (40 bytes)>"},
        {QVariant(utc(1999, 1, 2, 3, 4, 5, 6)), "1999-01-02T03:04:05.006Z"},
        {QVariantList{QUrl(), QVariant()}, "[<a QUrl>, <a null QVariant>]"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(propertyListDescription(c.value), QString::fromUtf8(c.description));
}
