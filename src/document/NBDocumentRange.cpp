// NBDocumentRange: construction and the property-list archive of a document selection.
#include "document/NBDocumentRange.h"

namespace {

const QString kStartParagraphUUIDKey = QStringLiteral("startParagraphUUID");
const QString kStartIndexKey = QStringLiteral("startIndex");
const QString kEndParagraphUUIDKey = QStringLiteral("endParagraphUUID");
const QString kEndIndexKey = QStringLiteral("endIndex");
const QString kRowRangeKey = QStringLiteral("rowRange");
const QString kColRangeKey = QStringLiteral("colRange");
const QString kEditedCellSelectedRangeKey = QStringLiteral("editedCellSelectedRange");
const QString kLocationKey = QStringLiteral("location");
const QString kLengthKey = QStringLiteral("length");

bool isInteger(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return true;
    default:
        return false;
    }
}

std::optional<qsizetype> nonNegativeInteger(const QVariantMap& map, const QString& key) {
    const QVariant value = map.value(key);
    if (!isInteger(value))
        return std::nullopt;
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    if (!ok || number < 0)
        return std::nullopt;
    return qsizetype(number);
}

std::optional<QString> string(const QVariantMap& map, const QString& key) {
    const QVariant value = map.value(key);
    if (value.typeId() != QMetaType::QString)
        return std::nullopt;
    return value.toString();
}

QVariantMap rangePropertyList(NBTextRange range) {
    return QVariantMap{{kLocationKey, qint64(range.location)}, {kLengthKey, qint64(range.length)}};
}

std::optional<NBTextRange> range(const QVariantMap& map, const QString& key) {
    const QVariant value = map.value(key);
    if (value.typeId() != QMetaType::QVariantMap)
        return std::nullopt;
    const QVariantMap fields = value.toMap();
    std::optional<qsizetype> location = nonNegativeInteger(fields, kLocationKey);
    std::optional<qsizetype> length = nonNegativeInteger(fields, kLengthKey);
    if (!location || !length)
        return std::nullopt;
    return NBTextRange{*location, *length};
}

} // namespace

NBDocumentRange NBDocumentRange::documentRangeWithStartParagraphUUID(const QString& startParagraphUUID,
                                                                     qsizetype startIndex,
                                                                     const QString& endParagraphUUID,
                                                                     qsizetype endIndex) {
    NBDocumentRange range;
    range.startParagraphUUID_ = startParagraphUUID;
    range.startIndex_ = startIndex;
    range.endParagraphUUID_ = endParagraphUUID;
    range.endIndex_ = endIndex;
    return range;
}

NBDocumentRange NBDocumentRange::documentRangeWithTableParagraphUUID(const QString& tableParagraphUUID,
                                                                     NBTextRange rowRange,
                                                                     NBTextRange colRange,
                                                                     NBTextRange editedCellSelectedRange) {
    NBDocumentRange range =
        documentRangeWithStartParagraphUUID(tableParagraphUUID, editedCellSelectedRange.location,
                                            tableParagraphUUID, editedCellSelectedRange.end());
    range.rowRange_ = rowRange;
    range.colRange_ = colRange;
    range.editedCellSelectedRange_ = editedCellSelectedRange;
    return range;
}

QVariantMap NBDocumentRange::propertyList() const {
    QVariantMap map{{kStartParagraphUUIDKey, startParagraphUUID_},
                    {kStartIndexKey, qint64(startIndex_)},
                    {kEndParagraphUUIDKey, endParagraphUUID_},
                    {kEndIndexKey, qint64(endIndex_)}};
    if (rowRange_)
        map.insert(kRowRangeKey, rangePropertyList(*rowRange_));
    if (colRange_)
        map.insert(kColRangeKey, rangePropertyList(*colRange_));
    if (editedCellSelectedRange_)
        map.insert(kEditedCellSelectedRangeKey, rangePropertyList(*editedCellSelectedRange_));
    return map;
}

std::optional<NBDocumentRange> NBDocumentRange::documentRangeWithPropertyList(const QVariant& propertyList) {
    if (propertyList.typeId() != QMetaType::QVariantMap)
        return std::nullopt;
    const QVariantMap map = propertyList.toMap();
    std::optional<QString> start = string(map, kStartParagraphUUIDKey);
    std::optional<QString> end = string(map, kEndParagraphUUIDKey);
    std::optional<qsizetype> startIndex = nonNegativeInteger(map, kStartIndexKey);
    std::optional<qsizetype> endIndex = nonNegativeInteger(map, kEndIndexKey);
    if (!start || !end || !startIndex || !endIndex)
        return std::nullopt;
    NBDocumentRange result = documentRangeWithStartParagraphUUID(*start, *startIndex, *end, *endIndex);
    // The three table fields come together or not at all.
    const bool hasTableFields =
        map.contains(kRowRangeKey) || map.contains(kColRangeKey) || map.contains(kEditedCellSelectedRangeKey);
    if (hasTableFields) {
        result.rowRange_ = range(map, kRowRangeKey);
        result.colRange_ = range(map, kColRangeKey);
        result.editedCellSelectedRange_ = range(map, kEditedCellSelectedRangeKey);
        if (!result.rowRange_ || !result.colRange_ || !result.editedCellSelectedRange_)
            return std::nullopt;
    }
    return result;
}
