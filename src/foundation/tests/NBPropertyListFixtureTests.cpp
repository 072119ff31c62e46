// Tests of the property-list readers against files written by another implementation (the fixtures made by
// fixtures/make_plist_fixtures.py with Python's plistlib), and against damaged data: hand-made broken
// binary property lists, every truncation of valid files, and random corruption.
#include "foundation/NBPropertyList.h"

#include <QDateTime>
#include <QFile>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>

namespace {

QVariant integer(qint64 value) {
    return QVariant::fromValue(value);
}

QDateTime utc(int year, int month, int day, int hour, int minute, int second, int msec = 0) {
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second, msec), Qt::UTC);
}

QByteArray fixture(const char* name) {
    QFile file(QStringLiteral(QUILLON_SOURCE_DIR "/src/foundation/tests/fixtures/") +
               QString::fromUtf8(name));
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

// The value that make_plist_fixtures.py writes.
QVariant fixtureSample() {
    QVariantList integers;
    for (qint64 value : {qint64(0), qint64(1), qint64(255), qint64(256), qint64(65535), qint64(65536),
                         qint64(4294967295), qint64(4294967296), qint64(-1), qint64(-255),
                         std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::max()})
        integers << integer(value);
    integers << QVariant::fromValue(std::numeric_limits<quint64>::max());
    QByteArray allBytes;
    for (int byte = 0; byte < 256; ++byte)
        allBytes.append(char(byte));
    QVariantList many;
    for (int index = 0; index < 300; ++index)
        many << integer(index);
    const QVariantList shared{QStringLiteral("shared"), integer(1), integer(2)};
    return QVariantMap{
        {QStringLiteral("ascii"), QStringLiteral("plain text")},
        {QStringLiteral("unicode"), QStringLiteral("Grüße, α-helix 🧪 ok")},
        {QStringLiteral("empty"), QString()},
        {QStringLiteral("long"), QStringLiteral("a string longer than fifteen characters")},
        {QStringLiteral("integers"), integers},
        {QStringLiteral("reals"),
         QVariantList{0.5, -1e300, 3.141592653589793, 1e-310, std::numeric_limits<double>::infinity(),
                      -std::numeric_limits<double>::infinity()}},
        {QStringLiteral("booleans"), QVariantList{true, false}},
        {QStringLiteral("dates"),
         QVariantList{utc(2001, 1, 1, 0, 0, 0), utc(2024, 2, 29, 13, 45, 7), utc(1900, 5, 17, 12, 34, 56),
                      utc(1066, 10, 14, 9, 0, 0), utc(9999, 12, 31, 23, 59, 59)}},
        {QStringLiteral("data"), QVariantList{QByteArray(), allBytes}},
        {QStringLiteral("empty containers"), QVariantList{QVariantList(), QVariantMap()}},
        {QStringLiteral("nested"),
         QVariantMap{
             {QStringLiteral("inner"),
              QVariantMap{{QStringLiteral("deeper"),
                           QVariantList{integer(1), QVariantList{integer(2), QVariantList{integer(3)}}}}}}}},
        {QStringLiteral("many"), many},
        {QStringLiteral("twice"), QVariantList{shared, shared}},
    };
}

QVariant fixtureBinaryOnly() {
    return QVariantMap{{QStringLiteral("fractional date"), utc(1999, 12, 31, 23, 59, 59, 250)},
                       {QStringLiteral("nan"), std::numeric_limits<double>::quiet_NaN()}};
}

// Builds a binary property list from raw objects, with a trailer that tests may bend.
struct Trailer {
    int offsetSize = 1;
    int referenceSize = 1;
    std::optional<quint64> objectCount;
    quint64 topObject = 0;
    std::optional<quint64> tableOffset;
};

void appendBigEndian(QByteArray& out, quint64 value, int width) {
    for (int index = width - 1; index >= 0; --index)
        out.append(char((value >> (8 * index)) & 0xFF));
}

QByteArray bplist(const std::vector<QByteArray>& objects, const std::function<void(Trailer&)>& bend = {}) {
    Trailer trailer;
    if (bend)
        bend(trailer);
    QByteArray out("bplist00");
    std::vector<quint64> offsets;
    for (const QByteArray& object : objects) {
        offsets.push_back(quint64(out.size()));
        out.append(object);
    }
    const quint64 tableOffset = quint64(out.size());
    for (quint64 offset : offsets)
        appendBigEndian(out, offset, trailer.offsetSize);
    out.append(QByteArray(6, '\0'));
    out.append(char(trailer.offsetSize));
    out.append(char(trailer.referenceSize));
    appendBigEndian(out, trailer.objectCount.value_or(objects.size()), 8);
    appendBigEndian(out, trailer.topObject, 8);
    appendBigEndian(out, trailer.tableOffset.value_or(tableOffset), 8);
    return out;
}

QByteArray bytes(std::initializer_list<int> values) {
    QByteArray out;
    for (int value : values)
        out.append(char(value));
    return out;
}

// Reads damaged data: it must give a value or an error of our domain, never crash or read out of bounds
// (the sanitizer builds check the latter). A value that comes back is a property-list value that can be
// written again.
void expectValueOrError(const QByteArray& data) {
    NBError error;
    std::optional<QVariant> value = propertyListWithData(data, &error);
    if (value) {
        EXPECT_TRUE(isPropertyListValue(*value));
        EXPECT_TRUE(dataWithPropertyList(*value, NBPropertyListFormat::Binary));
    } else {
        EXPECT_EQ(error.domain(), QStringLiteral("NBPropertyList"));
        EXPECT_FALSE(error.localizedDescription().isEmpty());
    }
}

} // namespace

TEST(NBPropertyListFixtures, ReadsWhatPlistlibWrites) {
    // The other direction was checked by hand: plistlib reads our binary and XML files of these values as
    // the same values (`make_plist_fixtures.py --check`).
    struct Case {
        const char* file;
        QVariant expected;
    };
    const Case cases[] = {
        {"plistlib-sample.binary.plist", fixtureSample()},
        {"plistlib-sample.xml.plist", fixtureSample()},
        {"plistlib-binary-only.plist", fixtureBinaryOnly()},
    };
    for (const Case& c : cases) {
        const QByteArray data = fixture(c.file);
        ASSERT_FALSE(data.isEmpty()) << c.file;
        NBError error;
        std::optional<QVariant> value = propertyListWithData(data, &error);
        ASSERT_TRUE(value) << c.file << ": " << error.description().toStdString();
        EXPECT_TRUE(propertyListValuesEqual(*value, c.expected))
            << c.file << " read as " << propertyListDescription(*value).toStdString();
    }
}

TEST(NBPropertyListFixtures, DamagedBinaryPropertyListsAreRefused) {
    struct Case {
        const char* what;
        QByteArray data;
        qint64 code;
    };
    const QByteArray one = bytes({0x10, 0x01});
    QByteArray tooDeep;
    std::vector<QByteArray> nested;
    for (int level = 0; level < 513; ++level) // array i holds array i + 1; the last is empty
        nested.push_back(level < 512 ? bytes({0xA1, 0x00, 0x00}) : bytes({0xA0}));
    for (int level = 0; level < 512; ++level) {
        nested[std::size_t(level)][1] = char((level + 1) >> 8);
        nested[std::size_t(level)][2] = char((level + 1) & 0xFF);
    }
    // 64 arrays, each holding the next one twice: tiny on disk, 2^64 values unfolded.
    std::vector<QByteArray> bomb;
    for (int level = 0; level < 64; ++level)
        bomb.push_back(level < 63 ? bytes({0xA2, level + 1, level + 1}) : bytes({0xA0}));
    const Case cases[] = {
        {"too short", QByteArray("bplist00"), kNBPropertyListErrorDamagedBinary},
        {"other version", bplist({one}).replace(6, 2, "15"), kNBPropertyListErrorUnsupportedContent},
        {"offset size 0", bplist({one}, [](Trailer& t) { t.offsetSize = 0; }),
         kNBPropertyListErrorDamagedBinary},
        {"reference size 9", bplist({one}, [](Trailer& t) { t.referenceSize = 9; }),
         kNBPropertyListErrorDamagedBinary},
        {"no objects", bplist({one}, [](Trailer& t) { t.objectCount = 0; }),
         kNBPropertyListErrorDamagedBinary},
        {"more objects than offsets", bplist({one}, [](Trailer& t) { t.objectCount = 2; }),
         kNBPropertyListErrorDamagedBinary},
        {"huge object count", bplist({one}, [](Trailer& t) { t.objectCount = ~quint64(0); }),
         kNBPropertyListErrorDamagedBinary},
        {"top object out of range", bplist({one}, [](Trailer& t) { t.topObject = 1; }),
         kNBPropertyListErrorDamagedBinary},
        {"table in the header", bplist({one}, [](Trailer& t) { t.tableOffset = 3; }),
         kNBPropertyListErrorDamagedBinary},
        {"table past the end", bplist({one}, [](Trailer& t) { t.tableOffset = 1u << 20; }),
         kNBPropertyListErrorDamagedBinary},
        {"offset into the header", bplist({one}).replace(10, 1, "\x02"), kNBPropertyListErrorDamagedBinary},
        {"offset into the table", bplist({one}).replace(10, 1, "\x0A"), kNBPropertyListErrorDamagedBinary},
        {"integer runs out", bplist({bytes({0x13, 0x01})}), kNBPropertyListErrorDamagedBinary},
        {"integer of 32 bytes", bplist({bytes({0x15, 0x01})}), kNBPropertyListErrorDamagedBinary},
        {"integer beyond 64 bits", bplist({bytes({0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0})}),
         kNBPropertyListErrorUnsupportedContent},
        {"string runs out", bplist({bytes({0x55, 'a', 'b'})}), kNBPropertyListErrorDamagedBinary},
        {"UTF-16 string runs out", bplist({bytes({0x62, 0, 'a', 0})}), kNBPropertyListErrorDamagedBinary},
        {"ASCII string above 127", bplist({bytes({0x51, 0xE9})}), kNBPropertyListErrorDamagedBinary},
        {"length is not an integer", bplist({bytes({0x5F, 0x23, 1})}), kNBPropertyListErrorDamagedBinary},
        {"huge length", bplist({bytes({0x4F, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})}),
         kNBPropertyListErrorDamagedBinary},
        {"negative length", bplist({bytes({0x4F, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0})}),
         kNBPropertyListErrorDamagedBinary},
        {"huge array", bplist({bytes({0xAF, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0, 0})}),
         kNBPropertyListErrorDamagedBinary},
        {"reference out of range", bplist({bytes({0xA1, 0x05})}), kNBPropertyListErrorDamagedBinary},
        {"array holds itself", bplist({bytes({0xA1, 0x00})}), kNBPropertyListErrorDamagedBinary},
        {"cycle through a dictionary",
         bplist({bytes({0xA1, 0x01}), bytes({0xD1, 0x02, 0x00}), bytes({0x51, 'k'})}),
         kNBPropertyListErrorDamagedBinary},
        {"nested too deep",
         bplist(nested,
                [](Trailer& t) {
                    t.offsetSize = 2;
                    t.referenceSize = 2;
                }),
         kNBPropertyListErrorDamagedBinary},
        {"shared containers unfold too far", bplist(bomb), kNBPropertyListErrorDamagedBinary},
        {"date is not a number", bplist({bytes({0x33, 0x7F, 0xF8, 0, 0, 0, 0, 0, 0})}),
         kNBPropertyListErrorDamagedBinary},
        {"date out of range", bplist({bytes({0x33, 0x7F, 0xE0, 0, 0, 0, 0, 0, 0})}),
         kNBPropertyListErrorDamagedBinary},
        {"real of 2 bytes", bplist({bytes({0x21, 0, 0})}), kNBPropertyListErrorDamagedBinary},
        {"key is a number", bplist({bytes({0xD1, 0x01, 0x01}), one}), kNBPropertyListErrorUnsupportedContent},
        {"null", bplist({bytes({0x00})}), kNBPropertyListErrorUnsupportedContent},
        {"UID", bplist({bytes({0x80, 0x01})}), kNBPropertyListErrorUnsupportedContent},
        {"set", bplist({bytes({0xC0})}), kNBPropertyListErrorUnsupportedContent},
    };
    for (const Case& c : cases) {
        NBError error;
        std::optional<QVariant> value = propertyListWithData(c.data, &error);
        EXPECT_FALSE(value) << c.what << " read as "
                            << propertyListDescription(value.value_or(QVariant())).toStdString();
        EXPECT_EQ(error.domain(), QStringLiteral("NBPropertyList")) << c.what;
        EXPECT_EQ(error.code(), c.code) << c.what << ": " << error.description().toStdString();
    }
    // The same shapes within the limits are read: 512 levels, and a container shared a few times.
    std::vector<QByteArray> deepest(nested.begin() + 1, nested.end());
    for (std::size_t level = 0; level + 1 < deepest.size(); ++level) {
        const int next = int(level) + 1;
        deepest[level][1] = char(next >> 8);
        deepest[level][2] = char(next & 0xFF);
    }
    EXPECT_TRUE(propertyListWithData(bplist(deepest, [](Trailer& t) {
        t.offsetSize = 2;
        t.referenceSize = 2;
    })));
    std::optional<QVariant> shared =
        propertyListWithData(bplist({bytes({0xA2, 1, 1}), bytes({0xA1, 2}), one}));
    ASSERT_TRUE(shared);
    EXPECT_TRUE(
        propertyListValuesEqual(*shared, QVariantList{QVariantList{integer(1)}, QVariantList{integer(1)}}));
}

TEST(NBPropertyListFixtures, EveryTruncationGivesAValueOrAnError) {
    QVariantMap ours = fixtureSample().toMap();
    ours.insert(fixtureBinaryOnly().toMap());
    const QByteArray files[] = {fixture("plistlib-sample.binary.plist"), fixture("plistlib-sample.xml.plist"),
                                *dataWithPropertyList(ours, NBPropertyListFormat::Binary)};
    for (const QByteArray& file : files) {
        ASSERT_FALSE(file.isEmpty());
        for (qsizetype length = 0; length < file.size(); ++length) {
            // A binary file loses its trailer when cut, so nothing short of the whole file is read.
            const QByteArray cut = file.left(length);
            NBError error;
            std::optional<QVariant> value = propertyListWithData(cut, &error);
            if (file.startsWith("bplist")) {
                ASSERT_FALSE(value) << length;
            } else if (value) {
                ASSERT_TRUE(isPropertyListValue(*value));
            }
            if (!value) {
                ASSERT_EQ(error.domain(), QStringLiteral("NBPropertyList")) << length;
            }
        }
    }
}

RC_GTEST_PROP(NBPropertyListFixtures, CorruptedFilesGiveAValueOrAnError, ()) {
    static const QByteArray binary = fixture("plistlib-sample.binary.plist");
    static const QByteArray xml = fixture("plistlib-sample.xml.plist");
    RC_PRE(!binary.isEmpty() && !xml.isEmpty());
    const QByteArray& original = *rc::gen::arbitrary<bool>() ? binary : xml;
    QByteArray data = original;
    const auto changes = *rc::gen::container<std::vector<std::pair<std::size_t, unsigned char>>>(
        rc::gen::pair(rc::gen::inRange<std::size_t>(0, std::size_t(original.size())),
                      rc::gen::arbitrary<unsigned char>()));
    // Corruption is most telling in a binary file's trailer and offset table, so half the changes land near
    // the end.
    for (const auto& [position, byte] : changes) {
        const std::size_t at =
            position % 2 == 0 ? position : std::size_t(original.size()) - 1 - position % 64;
        data[qsizetype(at)] = char(byte);
    }
    expectValueOrError(data);
}
