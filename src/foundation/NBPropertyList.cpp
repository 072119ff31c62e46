// Property-list values: type checks, deep equality, descriptions, and the choice between the binary and
// XML codecs (which live in NBPropertyListBinary.cpp and NBPropertyListXML.cpp).
#include "foundation/NBPropertyList.h"

#include "foundation/NBPropertyListCodecs.h"

#include <QLocale>
#include <QTimeZone>

#include <algorithm>
#include <cmath>
#include <limits>

NBPropertyListKind nbPropertyListKind(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::QString:
        return NBPropertyListKind::String;
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::SChar:
    case QMetaType::UInt:
    case QMetaType::UShort:
    case QMetaType::UChar:
        return NBPropertyListKind::Integer;
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return value.toULongLong() > quint64(std::numeric_limits<qint64>::max())
                   ? NBPropertyListKind::UnsignedInteger
                   : NBPropertyListKind::Integer;
    case QMetaType::Double:
    case QMetaType::Float:
        return NBPropertyListKind::Real;
    case QMetaType::Bool:
        return NBPropertyListKind::Boolean;
    case QMetaType::QDateTime:
        return NBPropertyListKind::Date;
    case QMetaType::QByteArray:
        return NBPropertyListKind::Data;
    case QMetaType::QVariantList:
        return NBPropertyListKind::Array;
    case QMetaType::QStringList:
        return NBPropertyListKind::StringArray;
    case QMetaType::QVariantMap:
        return NBPropertyListKind::Dictionary;
    case QMetaType::QVariantHash:
        return NBPropertyListKind::HashDictionary;
    default:
        return NBPropertyListKind::Unsupported;
    }
}

bool nbPropertyListDateIsWritable(const QDateTime& date) {
    if (!date.isValid())
        return false;
    const qint64 msecs = date.toMSecsSinceEpoch();
    return msecs >= kNBPropertyListReferenceDateMSecs - kNBPropertyListMaximumDateOffsetMSecs &&
           msecs <= kNBPropertyListReferenceDateMSecs + kNBPropertyListMaximumDateOffsetMSecs;
}

QStringList nbPropertyListSortedKeys(const QVariant& dictionary) {
    if (dictionary.typeId() == QMetaType::QVariantMap)
        return dictionary.toMap().keys(); // QMap keeps its keys sorted
    QStringList keys = dictionary.toHash().keys();
    std::sort(keys.begin(), keys.end());
    return keys;
}

QString nbPropertyListTypeDescription(const QVariant& value) {
    if (!value.isValid())
        return QStringLiteral("a null QVariant");
    if (value.typeId() == QMetaType::QDateTime && !value.toDateTime().isValid())
        return QStringLiteral("an invalid QDateTime");
    if (value.typeId() == QMetaType::QDateTime && !nbPropertyListDateIsWritable(value.toDateTime()))
        return QStringLiteral("a QDateTime too far from the year 2001");
    QString name = QString::fromLatin1(value.typeName());
    bool vowel = !name.isEmpty() && QStringLiteral("aeiouAEIOU").contains(name.front());
    return (vowel ? QStringLiteral("an ") : QStringLiteral("a ")) + name;
}

QString nbPropertyListKeyComponent(const QString& key) {
    return QStringLiteral("key '%1'").arg(key);
}

QString nbPropertyListIndexComponent(qsizetype index) {
    return QStringLiteral("index %1").arg(index);
}

NBError nbPropertyListValueError(const NBPropertyListEncodeFailure& failure) {
    QString where;
    if (failure.reversedPath.isEmpty()) {
        where = QStringLiteral("top-level value");
    } else {
        QStringList path(failure.reversedPath.crbegin(), failure.reversedPath.crend());
        where = QStringLiteral("value at ") + path.join(QStringLiteral(" / "));
    }
    return NBError::errorWithObject("NBPropertyList", failure.code,
                                    QStringLiteral("The %1 %2.").arg(where, failure.problem));
}

namespace {

// The type check behind isPropertyListValue: the same rules as the binary writer, without building output.
bool isValueAtDepth(const QVariant& value, int depth) {
    switch (nbPropertyListKind(value)) {
    case NBPropertyListKind::Unsupported:
        return false;
    case NBPropertyListKind::Date:
        return nbPropertyListDateIsWritable(value.toDateTime());
    case NBPropertyListKind::Array: {
        if (depth >= kNBPropertyListMaximumDepth)
            return false;
        const QVariantList list = value.toList();
        return std::all_of(list.begin(), list.end(),
                           [depth](const QVariant& item) { return isValueAtDepth(item, depth + 1); });
    }
    case NBPropertyListKind::StringArray:
    case NBPropertyListKind::Dictionary:
    case NBPropertyListKind::HashDictionary:
        if (depth >= kNBPropertyListMaximumDepth)
            return false;
        if (value.typeId() == QMetaType::QVariantMap) {
            const QVariantMap map = value.toMap();
            return std::all_of(map.begin(), map.end(),
                               [depth](const QVariant& item) { return isValueAtDepth(item, depth + 1); });
        }
        if (value.typeId() == QMetaType::QVariantHash) {
            const QVariantHash hash = value.toHash();
            return std::all_of(hash.begin(), hash.end(),
                               [depth](const QVariant& item) { return isValueAtDepth(item, depth + 1); });
        }
        return true; // a QStringList holds only strings
    default:
        return true;
    }
}

bool isArrayKind(NBPropertyListKind kind) {
    return kind == NBPropertyListKind::Array || kind == NBPropertyListKind::StringArray;
}

bool isDictionaryKind(NBPropertyListKind kind) {
    return kind == NBPropertyListKind::Dictionary || kind == NBPropertyListKind::HashDictionary;
}

bool isIntegerKind(NBPropertyListKind kind) {
    return kind == NBPropertyListKind::Integer || kind == NBPropertyListKind::UnsignedInteger;
}

bool valuesEqualAtDepth(const QVariant& first, const QVariant& second, int depth) {
    NBPropertyListKind firstKind = nbPropertyListKind(first);
    NBPropertyListKind secondKind = nbPropertyListKind(second);
    if (firstKind == NBPropertyListKind::Unsupported || secondKind == NBPropertyListKind::Unsupported)
        return first == second;
    if (isIntegerKind(firstKind) && isIntegerKind(secondKind)) {
        if (firstKind != secondKind)
            return false; // one is above the signed range, the other is not
        return firstKind == NBPropertyListKind::Integer ? first.toLongLong() == second.toLongLong()
                                                        : first.toULongLong() == second.toULongLong();
    }
    if (isArrayKind(firstKind) && isArrayKind(secondKind)) {
        if (depth >= kNBPropertyListMaximumDepth)
            return false;
        const QVariantList a = first.toList();
        const QVariantList b = second.toList();
        if (a.size() != b.size())
            return false;
        for (qsizetype index = 0; index < a.size(); ++index)
            if (!valuesEqualAtDepth(a[index], b[index], depth + 1))
                return false;
        return true;
    }
    if (isDictionaryKind(firstKind) && isDictionaryKind(secondKind)) {
        if (depth >= kNBPropertyListMaximumDepth)
            return false;
        const QVariantMap a = first.toMap();
        const QVariantMap b = second.toMap();
        if (a.size() != b.size())
            return false;
        for (auto entry = a.begin(), other = b.begin(); entry != a.end(); ++entry, ++other)
            if (entry.key() != other.key() || !valuesEqualAtDepth(entry.value(), other.value(), depth + 1))
                return false;
        return true;
    }
    if (firstKind != secondKind)
        return false;
    switch (firstKind) {
    case NBPropertyListKind::String:
        return first.toString() == second.toString();
    case NBPropertyListKind::Real: {
        double a = first.toDouble();
        double b = second.toDouble();
        return a == b || (std::isnan(a) && std::isnan(b));
    }
    case NBPropertyListKind::Boolean:
        return first.toBool() == second.toBool();
    case NBPropertyListKind::Date: {
        QDateTime a = first.toDateTime();
        QDateTime b = second.toDateTime();
        if (!a.isValid() || !b.isValid())
            return a.isValid() == b.isValid();
        return a.toMSecsSinceEpoch() == b.toMSecsSinceEpoch();
    }
    case NBPropertyListKind::Data:
        return first.toByteArray() == second.toByteArray();
    default:
        return false;
    }
}

QString quoted(const QString& text) {
    QString result = QStringLiteral("\"");
    for (QChar c : text) {
        switch (c.unicode()) {
        case '"':
            result += QStringLiteral("\\\"");
            break;
        case '\\':
            result += QStringLiteral("\\\\");
            break;
        case '\n':
            result += QStringLiteral("\\n");
            break;
        case '\r':
            result += QStringLiteral("\\r");
            break;
        case '\t':
            result += QStringLiteral("\\t");
            break;
        default:
            if (c.unicode() < 0x20)
                result += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
            else
                result += c;
        }
    }
    return result + QLatin1Char('"');
}

QString describeReal(double value) {
    if (std::isnan(value))
        return QStringLiteral("nan");
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("inf") : QStringLiteral("-inf");
    return QString::number(value, 'g', QLocale::FloatingPointShortest);
}

QString describeAtDepth(const QVariant& value, int depth) {
    constexpr qsizetype shownDataBytes = 16;
    switch (nbPropertyListKind(value)) {
    case NBPropertyListKind::Unsupported:
        return QStringLiteral("<%1>").arg(nbPropertyListTypeDescription(value));
    case NBPropertyListKind::String:
        return quoted(value.toString());
    case NBPropertyListKind::Integer:
        return QString::number(value.toLongLong());
    case NBPropertyListKind::UnsignedInteger:
        return QString::number(value.toULongLong());
    case NBPropertyListKind::Real:
        return describeReal(value.toDouble());
    case NBPropertyListKind::Boolean:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case NBPropertyListKind::Date: {
        QDateTime date = value.toDateTime();
        if (!date.isValid())
            return QStringLiteral("<an invalid QDateTime>");
        return date.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzzZ"));
    }
    case NBPropertyListKind::Data: {
        QByteArray data = value.toByteArray();
        QString hex = QString::fromLatin1(data.left(shownDataBytes).toHex(' '));
        if (data.size() > shownDataBytes)
            hex += QStringLiteral(" ...");
        return QStringLiteral("<%1 (%2 bytes)>").arg(hex).arg(data.size());
    }
    case NBPropertyListKind::Array:
    case NBPropertyListKind::StringArray: {
        if (depth >= kNBPropertyListMaximumDepth)
            return QStringLiteral("[...]");
        QStringList parts;
        for (const QVariant& item : value.toList())
            parts << describeAtDepth(item, depth + 1);
        return QStringLiteral("[") + parts.join(QStringLiteral(", ")) + QStringLiteral("]");
    }
    case NBPropertyListKind::Dictionary:
    case NBPropertyListKind::HashDictionary: {
        if (depth >= kNBPropertyListMaximumDepth)
            return QStringLiteral("{...}");
        QStringList parts;
        const QVariantMap map = value.toMap();
        for (auto entry = map.begin(); entry != map.end(); ++entry)
            parts << quoted(entry.key()) + QStringLiteral(": ") + describeAtDepth(entry.value(), depth + 1);
        return QStringLiteral("{") + parts.join(QStringLiteral(", ")) + QStringLiteral("}");
    }
    }
    return QString();
}

NBError unknownFormatError(const QString& reason) {
    return NBError::errorWithObject("NBPropertyList", kNBPropertyListErrorUnknownFormat,
                                    QStringLiteral("The data is not a property list."), reason);
}

} // namespace

bool isPropertyListValue(const QVariant& value) {
    return isValueAtDepth(value, 0);
}

bool propertyListValuesEqual(const QVariant& first, const QVariant& second) {
    return valuesEqualAtDepth(first, second, 0);
}

std::optional<QByteArray> dataWithPropertyList(const QVariant& value, NBPropertyListFormat format,
                                               NBError* outError) {
    NBPropertyListEncodeFailure failure;
    std::optional<QByteArray> data = format == NBPropertyListFormat::Binary
                                         ? nbEncodeBinaryPropertyList(value, &failure)
                                         : nbEncodeXMLPropertyList(value, &failure);
    if (!data)
        nbFail(outError, nbPropertyListValueError(failure));
    return data;
}

std::optional<QVariant> propertyListWithData(const QByteArray& data, NBError* outError) {
    return propertyListWithData(data, nullptr, outError);
}

std::optional<QVariant> propertyListWithData(const QByteArray& data, NBPropertyListFormat* outFormat,
                                             NBError* outError) {
    if (data.isEmpty()) {
        nbFail(outError, unknownFormatError(QStringLiteral("The data is empty.")));
        return std::nullopt;
    }
    if (data.startsWith("bplist")) {
        if (outFormat)
            *outFormat = NBPropertyListFormat::Binary;
        return nbDecodeBinaryPropertyList(data, outError);
    }
    // XML starts with '<' after an optional byte-order mark and white space; UTF-16 XML starts with its
    // byte-order mark.
    qsizetype start = data.startsWith("\xEF\xBB\xBF") ? 3 : 0;
    while (start < data.size() &&
           (data[start] == ' ' || data[start] == '\t' || data[start] == '\n' || data[start] == '\r'))
        ++start;
    bool utf16 = data.startsWith("\xFE\xFF") || data.startsWith("\xFF\xFE");
    if (utf16 || (start < data.size() && data[start] == '<')) {
        if (outFormat)
            *outFormat = NBPropertyListFormat::XML;
        return nbDecodeXMLPropertyList(data, outError);
    }
    nbFail(outError, unknownFormatError(QStringLiteral("It starts with neither \"bplist\" nor an XML tag.")));
    return std::nullopt;
}

QString propertyListDescription(const QVariant& value) {
    return describeAtDepth(value, 0);
}
