// Property-list values held in QVariant, and their binary ("bplist00") and XML codecs.
//
// A property-list value is one of: QString (string), qint64 (integer; other integer types are accepted on
// input and read back as qint64, or quint64 above the signed range), double (real), bool (boolean),
// QDateTime (date, kept in UTC), QByteArray (data), QVariantList (array) and QVariantMap (dictionary with
// string keys). Values are stored in logs as binary property lists; information files are XML property
// lists. Anything else (a null QVariant, a QUrl, a QPoint...) is not a property-list value: the encoders
// refuse it with an error and encode nothing.
#pragma once

#include "foundation/NBError.h"

#include <QByteArray>
#include <QVariant>

#include <optional>

enum class NBPropertyListFormat { Binary, XML };

// Recursive type check: true when the value and everything inside it are property-list values.
bool isPropertyListValue(const QVariant& value);

// Deep equality of property-list values: integers compare by value whatever their QVariant type, reals by
// value, dates to the millisecond, dictionaries by keys and values, arrays element by element.
bool propertyListValuesEqual(const QVariant& first, const QVariant& second);

std::optional<QByteArray> dataWithPropertyList(const QVariant& value, NBPropertyListFormat format,
                                               NBError* outError = nullptr);
// Reads binary or XML property lists (the format is recognised from the data). Damaged data gives an error.
std::optional<QVariant> propertyListWithData(const QByteArray& data, NBError* outError = nullptr);

// Short human-readable form of a value, for messages and dumps (strings quoted, data abbreviated).
QString propertyListDescription(const QVariant& value);
