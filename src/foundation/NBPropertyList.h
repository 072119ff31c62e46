// Property-list values held in QVariant, and their binary ("bplist00") and XML codecs.
//
// A property-list value is one of: QString (string), qint64 (integer; other integer types are accepted on
// input and read back as qint64, or quint64 above the signed range), double (real), bool (boolean),
// QDateTime (date, kept in UTC), QByteArray (data), QVariantList (array) and QVariantMap (dictionary with
// string keys). Values are stored in logs as binary property lists; information files are XML property
// lists. Anything else (a null QVariant, a QUrl, a QPoint...) is not a property-list value: the encoders
// refuse it with an error and encode nothing. Every function here is reentrant: call it from any thread.
//
// Also accepted on input, for convenience: float (written as a double), QStringList (an array of strings)
// and QVariantHash (a dictionary, written with its keys sorted). They are read back as double, QVariantList
// and QVariantMap. An invalid QDateTime is refused, and so are containers nested deeper than
// kNBPropertyListMaximumDepth, because readers refuse them too.
//
// Binary property list ("bplist00"), as written and read here (all numbers big-endian):
//   header   8 bytes "bplist00"
//   objects  each starts with a marker byte: high nibble the type, low nibble a count or size.
//            0x08 false, 0x09 true;
//            0x1n integer of 2^n bytes (n = 0..3: 1, 2, 4 bytes unsigned, 8 bytes signed two's complement,
//                 so negative integers are always 8 bytes; n = 4: 16 bytes, written only for values above
//                 the signed 64-bit range, high 8 bytes zero);
//            0x22 real as a 4-byte float (read only), 0x23 real as an 8-byte double;
//            0x33 date: 8-byte double, seconds since 2001-01-01 00:00:00 UTC;
//            0x4n data, 0x5n ASCII string (n bytes), 0x6n UTF-16 string (n UTF-16 units, 2n bytes,
//                 characters outside the BMP as surrogate pairs), 0xAn array (n object references),
//                 0xDn dictionary (n key references, then n value references; keys are strings).
//            A count of 15 or more is written as low nibble 0xF followed by an integer object (0x1n).
//   offset table  one offset per object, each `offsetSize` bytes, from the start of the file.
//   trailer  32 bytes: 5 unused, sort version, offsetSize (1..8), objectRefSize (1..8), then 8-byte
//            object count, top object index and offset-table offset.
// The writer shares equal strings, numbers, booleans and dates (one object, several references); it never
// shares data or containers. Strings made only of ASCII characters are written as ASCII strings, others as
// UTF-16. The reader checks everything before it uses it: the header, trailer sizes, that the offset
// table and every object lie inside the data, that references name existing objects, lengths, that
// dictionary keys are strings, and that no object contains itself. Shared objects are decoded once. A file
// nested deeper than kNBPropertyListMaximumDepth containers, or whose shared containers would unfold into
// more than kNBPropertyListMaximumUnfoldedObjects values, is refused. Objects that are not property-list
// values (null, sets, UIDs, URLs, integers beyond 64 bits) are refused with their own error code. In both
// formats a dictionary key given twice keeps its last value.
//
// XML property list: the usual `<?xml version="1.0" encoding="UTF-8"?>`, the Apple DOCTYPE and
// `<plist version="1.0">` holding one value: <dict> (alternating <key> and value), <array>, <string>,
// <integer> (decimal; the reader also takes 0x hexadecimal), <real> (shortest decimal form that reads back
// exactly; "nan", "inf" and "-inf", and the reader also takes "+infinity" and "-infinity"), <true/>,
// <false/>, <date> (UTC, "yyyy-MM-ddTHH:mm:ssZ", whole seconds: the fraction of a second is dropped on
// writing, because other readers (Python's plistlib, the platform's own) refuse it; our reader takes any
// number of fractional digits written by others, and years outside 1..9999 are written with more
// digits or a minus sign, counted as QDate counts them, without a year zero) and <data> (base64). XML
// cannot hold some characters (most control characters, U+FFFE, U+FFFF, unpaired surrogates): strings
// holding them are refused by the XML writer (the binary format holds them). Carriage returns are written as
// "&#13;" so that they read back as they were. The reader also takes a bare value
// without the plist element, comments, and documents in any encoding QXmlStreamReader knows (UTF-16 with
// a byte-order mark, say); it expands no external entities, and internal ones only up to Qt's limit.
//
// Dates are kept to the millisecond (QDateTime's precision; the binary double would hold microseconds near
// 2001) and within about 285 000 years of 2001; both writers refuse dates beyond, and both readers too.
#pragma once

#include "foundation/NBError.h"

#include <QByteArray>
#include <QVariant>

#include <optional>

enum class NBPropertyListFormat { Binary, XML };

// Error codes of the "NBPropertyList" domain.
// A value, or something inside it, is not a property-list value (a QUrl, a null QVariant, ...).
inline constexpr qint64 kNBPropertyListErrorUnsupportedValue = 10;
// A property-list value that the requested format cannot hold (an invalid date, a string with characters
// that XML cannot carry, containers nested too deep).
inline constexpr qint64 kNBPropertyListErrorUnrepresentableValue = 20;
// The data is neither a binary nor an XML property list (empty, or another format).
inline constexpr qint64 kNBPropertyListErrorUnknownFormat = 30;
// A damaged binary property list: bad header or trailer, offsets or references out of range, truncation,
// reference cycles, too deep nesting.
inline constexpr qint64 kNBPropertyListErrorDamagedBinary = 40;
// A damaged XML property list: not well-formed XML, unknown elements, malformed numbers, dates or base64.
inline constexpr qint64 kNBPropertyListErrorDamagedXML = 50;
// A well-formed property list holding objects that are not property-list values here (null, sets, UIDs,
// URLs, integers beyond 64 bits, non-string dictionary keys).
inline constexpr qint64 kNBPropertyListErrorUnsupportedContent = 60;

// Containers may be nested this deep (a top-level array holding an array is 2 deep); deeper values are
// refused by the writers and the readers, so that no reader or writer exhausts the stack.
inline constexpr int kNBPropertyListMaximumDepth = 512;
// A binary property list may share containers; the reader refuses files whose value, unfolded, would count
// more values than this (a few hundred bytes could otherwise stand for billions of values).
inline constexpr quint64 kNBPropertyListMaximumUnfoldedObjects = quint64(1) << 24;

// Recursive type check: true when the value and everything inside it are property-list values (and the
// value can be written as a binary property list: dates valid, nesting within kNBPropertyListMaximumDepth).
bool isPropertyListValue(const QVariant& value);

// Deep equality of property-list values: integers compare by value whatever their QVariant type, reals by
// value, dates to the millisecond, dictionaries by keys and values, arrays element by element.
// An integer never equals a real or a boolean (they are written differently); two NaN reals are equal, so
// that every value equals what it reads back as. Values that are not property-list values compare with
// QVariant's own equality.
bool propertyListValuesEqual(const QVariant& first, const QVariant& second);

std::optional<QByteArray> dataWithPropertyList(const QVariant& value, NBPropertyListFormat format,
                                               NBError* outError = nullptr);
// Reads binary or XML property lists (the format is recognised from the data). Damaged data gives an error.
std::optional<QVariant> propertyListWithData(const QByteArray& data, NBError* outError = nullptr);
// The same, telling which format the data was in.
std::optional<QVariant> propertyListWithData(const QByteArray& data, NBPropertyListFormat* outFormat,
                                             NBError* outError);

// Short human-readable form of a value, for messages and dumps (strings quoted, data abbreviated).
QString propertyListDescription(const QVariant& value);
