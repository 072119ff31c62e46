// Internal pieces shared by the property-list value functions and the binary and XML codecs.
//
// Not for use outside the foundation module: other modules go through foundation/NBPropertyList.h.
#pragma once

#include "foundation/NBPropertyList.h"

#include <QDateTime>
#include <QStringList>

// What a QVariant holds, as far as property lists are concerned.
enum class NBPropertyListKind {
    Unsupported,     // not a property-list value
    String,          // QString
    Integer,         // any signed or unsigned integer type within the signed 64-bit range
    UnsignedInteger, // an unsigned integer above the signed 64-bit range
    Real,            // double or float
    Boolean,         // bool
    Date,            // QDateTime (possibly invalid: the encoders check)
    Data,            // QByteArray
    Array,           // QVariantList
    StringArray,     // QStringList
    Dictionary,      // QVariantMap
    HashDictionary,  // QVariantHash
};

NBPropertyListKind nbPropertyListKind(const QVariant& value);

// Milliseconds between the Unix epoch and 2001-01-01 00:00:00 UTC, the reference date of property lists.
inline constexpr qint64 kNBPropertyListReferenceDateMSecs = 978307200000;

// Dates are kept within this many milliseconds (about 285 000 years) of the reference date: the writers
// refuse dates beyond, and the readers too, so that whatever is read can be written again.
inline constexpr qint64 kNBPropertyListMaximumDateOffsetMSecs = 9'000'000'000'000'000;

// True when the date is valid and within the range above.
bool nbPropertyListDateIsWritable(const QDateTime& date);

// The keys of a dictionary value (QVariantMap or QVariantHash) in sorted order, so that both kinds of
// dictionary are written alike.
QStringList nbPropertyListSortedKeys(const QVariant& dictionary);

// Describes the QVariant type of a value for messages: "a QUrl", "a null QVariant", "an invalid QDateTime".
QString nbPropertyListTypeDescription(const QVariant& value);

// Builds errors about a value found at a path inside the value being written. The path is collected
// innermost first while the writers unwind; nbPropertyListValueError turns it into "value at key 'a' /
// index 3" (or "top-level value") followed by `problem`.
struct NBPropertyListEncodeFailure {
    qint64 code = 0;
    QString problem;          // "is a QUrl, which is not a property-list type"
    QStringList reversedPath; // innermost component first: "index 3", "key 'a'"
};
NBError nbPropertyListValueError(const NBPropertyListEncodeFailure& failure);
QString nbPropertyListKeyComponent(const QString& key);
QString nbPropertyListIndexComponent(qsizetype index);

// The codecs. The encoders check every value; on failure they fill `failure` and return nothing.
std::optional<QByteArray> nbEncodeBinaryPropertyList(const QVariant& value,
                                                     NBPropertyListEncodeFailure* failure);
std::optional<QByteArray> nbEncodeXMLPropertyList(const QVariant& value,
                                                  NBPropertyListEncodeFailure* failure);
std::optional<QVariant> nbDecodeBinaryPropertyList(const QByteArray& data, NBError* outError);
std::optional<QVariant> nbDecodeXMLPropertyList(const QByteArray& data, NBError* outError);
