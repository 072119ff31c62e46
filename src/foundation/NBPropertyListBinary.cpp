// The binary property-list codec ("bplist00"). The format, and what the reader checks, are described in
// foundation/NBPropertyList.h.
#include "foundation/NBPropertyListCodecs.h"

#include <QHash>
#include <QtEndian>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>
#include <vector>

namespace {

constexpr char kHeader[] = "bplist00";
constexpr qsizetype kHeaderSize = 8;
constexpr qsizetype kTrailerSize = 32;

// Number of bytes needed to write `value` as an unsigned big-endian number of 1, 2, 4 or 8 bytes.
unsigned widthForUnsigned(quint64 value) {
    if (value <= 0xFF)
        return 1;
    if (value <= 0xFFFF)
        return 2;
    if (value <= 0xFFFFFFFFu)
        return 4;
    return 8;
}

// The smallest of 1..8 bytes that holds `value` (offsets and references may use any width).
unsigned minimalWidth(quint64 value) {
    unsigned width = 1;
    while (width < 8 && (value >> (8 * width)) != 0)
        ++width;
    return width;
}

void appendBigEndian(QByteArray& out, quint64 value, unsigned width) {
    char bytes[8];
    for (unsigned index = 0; index < width; ++index)
        bytes[index] = char((value >> (8 * (width - 1 - index))) & 0xFF);
    out.append(bytes, width);
}

void appendMarker(QByteArray& out, quint8 type, quint64 count) {
    if (count < 15) {
        out.append(char(type | count));
        return;
    }
    out.append(char(type | 0x0F));
    unsigned width = widthForUnsigned(count);
    out.append(char(0x10 | std::countr_zero(width)));
    appendBigEndian(out, count, width);
}

void appendDouble(QByteArray& out, quint8 marker, double value) {
    out.append(char(marker));
    appendBigEndian(out, std::bit_cast<quint64>(value), 8);
}

double secondsSinceReferenceDate(const QDateTime& date) {
    qint64 msecs = date.toMSecsSinceEpoch() - kNBPropertyListReferenceDateMSecs;
    return double(msecs) / 1000.0;
}

// One object of the file being written. Scalars are encoded at once into one buffer (equal ones are
// written once and shared); data keeps its payload shared with the caller's value, so that a large blob is
// copied once, into the output; containers keep a range of the reference list, filled in as their children
// are added, and are written when the reference size is known.
struct Object {
    qsizetype start = 0;  // scalars and data: first byte in the scalar buffer; containers: first reference
    qsizetype length = 0; // bytes in the scalar buffer, or number of references
    QByteArray payload;   // data objects only
    quint8 containerMarker = 0; // 0xA0 or 0xD0 for containers
    quint64 containerCount = 0;
};

// A run of bytes in the scalar buffer, hashed and compared by content, to find equal scalars.
struct Span {
    qsizetype start;
    qsizetype length;
};

struct SpanHash {
    const QByteArray* buffer;
    std::size_t operator()(const Span& span) const {
        return qHash(QByteArrayView(buffer->constData() + span.start, span.length));
    }
};

struct SpanEqual {
    const QByteArray* buffer;
    bool operator()(const Span& a, const Span& b) const {
        return a.length == b.length && std::memcmp(buffer->constData() + a.start,
                                                   buffer->constData() + b.start, std::size_t(a.length)) == 0;
    }
};

class BinaryWriter {
public:
    explicit BinaryWriter(NBPropertyListEncodeFailure* failure)
        : failure_(failure), shared_(16, SpanHash{&scalars_}, SpanEqual{&scalars_}) {
        // Enough for a typical log value without growing.
        objects_.reserve(32);
        scalars_.reserve(1024);
    }

    std::optional<QByteArray> write(const QVariant& value) {
        std::optional<quint64> top = add(value, 0);
        if (!top)
            return std::nullopt;
        return serialise(*top);
    }

private:
    std::optional<quint64> fail(qint64 code, const QString& problem) {
        failure_->code = code;
        failure_->problem = problem;
        return std::nullopt;
    }

    // Takes the scalar encoded in the buffer from `start` on: shares an equal one written before, or makes
    // it a new object.
    quint64 finishScalar(qsizetype start) {
        const Span span{start, scalars_.size() - start};
        auto found = shared_.find(span);
        if (found != shared_.end()) {
            scalars_.truncate(start);
            return found->second;
        }
        const quint64 index = objects_.size();
        objects_.push_back(Object{start, span.length, {}, 0, 0});
        shared_.emplace(span, index);
        return index;
    }

    quint64 addString(const QString& string) {
        const qsizetype start = scalars_.size();
        const QChar* units = string.constData();
        const qsizetype size = string.size();
        const bool ascii = std::all_of(units, units + size, [](QChar unit) { return unit.unicode() < 0x80; });
        appendMarker(scalars_, ascii ? 0x50 : 0x60, quint64(size));
        const qsizetype at = scalars_.size();
        scalars_.resize(at + (ascii ? size : 2 * size));
        char* out = scalars_.data() + at;
        if (ascii) {
            for (qsizetype index = 0; index < size; ++index)
                out[index] = char(units[index].unicode());
        } else {
            qToBigEndian<quint16>(units, size, out);
        }
        return finishScalar(start);
    }

    quint64 addInteger(qint64 value) {
        const qsizetype start = scalars_.size();
        if (value < 0) {
            scalars_.append(char(0x13));
            appendBigEndian(scalars_, quint64(value), 8);
        } else {
            unsigned width = widthForUnsigned(quint64(value));
            scalars_.append(char(0x10 | std::countr_zero(width)));
            appendBigEndian(scalars_, quint64(value), width);
        }
        return finishScalar(start);
    }

    // Makes a container object with room for `references` references, returning its index.
    quint64 addContainer(quint8 marker, qsizetype count, qsizetype references) {
        const quint64 index = objects_.size();
        objects_.push_back(Object{qsizetype(references_.size()), references, {}, marker, quint64(count)});
        references_.resize(references_.size() + std::size_t(references));
        return index;
    }

    std::optional<quint64> add(const QVariant& value, int depth) {
        switch (nbPropertyListKind(value)) {
        case NBPropertyListKind::Unsupported:
            return fail(kNBPropertyListErrorUnsupportedValue,
                        QStringLiteral("is %1, which is not a property-list type")
                            .arg(nbPropertyListTypeDescription(value)));
        case NBPropertyListKind::String:
            return addString(value.toString());
        case NBPropertyListKind::Integer:
            return addInteger(value.toLongLong());
        case NBPropertyListKind::UnsignedInteger: {
            const qsizetype start = scalars_.size();
            scalars_.append(char(0x14));
            appendBigEndian(scalars_, 0, 8);
            appendBigEndian(scalars_, value.toULongLong(), 8);
            return finishScalar(start);
        }
        case NBPropertyListKind::Real: {
            const qsizetype start = scalars_.size();
            appendDouble(scalars_, 0x23, value.toDouble());
            return finishScalar(start);
        }
        case NBPropertyListKind::Boolean: {
            const qsizetype start = scalars_.size();
            scalars_.append(char(value.toBool() ? 0x09 : 0x08));
            return finishScalar(start);
        }
        case NBPropertyListKind::Date: {
            const QDateTime date = value.toDateTime();
            if (!nbPropertyListDateIsWritable(date))
                return fail(kNBPropertyListErrorUnrepresentableValue,
                            QStringLiteral("is %1, which a property list cannot hold")
                                .arg(nbPropertyListTypeDescription(value)));
            const qsizetype start = scalars_.size();
            appendDouble(scalars_, 0x33, secondsSinceReferenceDate(date));
            return finishScalar(start);
        }
        case NBPropertyListKind::Data: {
            // Data is not shared: comparing large blobs would cost more than it saves.
            QByteArray payload = value.toByteArray();
            const qsizetype start = scalars_.size();
            appendMarker(scalars_, 0x40, quint64(payload.size()));
            const quint64 index = objects_.size();
            objects_.push_back(Object{start, scalars_.size() - start, std::move(payload), 0, 0});
            return index;
        }
        case NBPropertyListKind::Array:
        case NBPropertyListKind::StringArray: {
            if (depth >= kNBPropertyListMaximumDepth)
                return tooDeep();
            const QVariantList list = value.toList();
            const quint64 index = addContainer(0xA0, list.size(), list.size());
            for (qsizetype position = 0; position < list.size(); ++position) {
                std::optional<quint64> child = add(list[position], depth + 1);
                if (!child) {
                    failure_->reversedPath << nbPropertyListIndexComponent(position);
                    return std::nullopt;
                }
                references_[std::size_t(objects_[index].start + position)] = *child;
            }
            return index;
        }
        case NBPropertyListKind::Dictionary:
        case NBPropertyListKind::HashDictionary: {
            if (depth >= kNBPropertyListMaximumDepth)
                return tooDeep();
            // A QVariantMap is walked in its own (sorted) order; a QVariantHash is sorted first.
            QVariantMap sortedHash;
            if (value.typeId() == QMetaType::QVariantHash) {
                const QVariantHash hash = value.toHash();
                for (auto entry = hash.begin(); entry != hash.end(); ++entry)
                    sortedHash.insert(entry.key(), entry.value());
            }
            const QVariantMap map = value.typeId() == QMetaType::QVariantMap ? value.toMap() : sortedHash;
            const qsizetype count = map.size();
            const quint64 index = addContainer(0xD0, count, 2 * count);
            qsizetype position = 0;
            for (auto entry = map.begin(); entry != map.end(); ++entry, ++position)
                references_[std::size_t(objects_[index].start + position)] = addString(entry.key());
            position = 0;
            for (auto entry = map.begin(); entry != map.end(); ++entry, ++position) {
                std::optional<quint64> child = add(entry.value(), depth + 1);
                if (!child) {
                    failure_->reversedPath << nbPropertyListKeyComponent(entry.key());
                    return std::nullopt;
                }
                references_[std::size_t(objects_[index].start + count + position)] = *child;
            }
            return index;
        }
        }
        return std::nullopt;
    }

    std::optional<quint64> tooDeep() {
        return fail(
            kNBPropertyListErrorUnrepresentableValue,
            QStringLiteral("is nested more than %1 containers deep").arg(kNBPropertyListMaximumDepth));
    }

    QByteArray serialise(quint64 top) {
        const quint64 count = objects_.size();
        const unsigned referenceSize = minimalWidth(count - 1);
        quint64 payloadBytes = 0;
        for (const Object& object : objects_)
            payloadBytes += quint64(object.payload.size());
        QByteArray out;
        out.reserve(qsizetype(kHeaderSize + quint64(scalars_.size()) + payloadBytes +
                              references_.size() * referenceSize + count * 18 + kTrailerSize));
        out.append(kHeader, kHeaderSize);
        std::vector<quint64> offsets;
        offsets.reserve(count);
        for (const Object& object : objects_) {
            offsets.push_back(quint64(out.size()));
            if (object.containerMarker) {
                appendMarker(out, object.containerMarker, object.containerCount);
                for (qsizetype reference = 0; reference < object.length; ++reference)
                    appendBigEndian(out, references_[std::size_t(object.start + reference)], referenceSize);
            } else {
                out.append(scalars_.constData() + object.start, object.length);
                out.append(object.payload);
            }
        }
        const quint64 tableOffset = quint64(out.size());
        const unsigned offsetSize = minimalWidth(offsets.back());
        for (quint64 offset : offsets)
            appendBigEndian(out, offset, offsetSize);
        out.append(QByteArray(6, '\0')); // five unused bytes and the sort version
        out.append(char(offsetSize));
        out.append(char(referenceSize));
        appendBigEndian(out, count, 8);
        appendBigEndian(out, top, 8);
        appendBigEndian(out, tableOffset, 8);
        return out;
    }

    NBPropertyListEncodeFailure* failure_;
    std::vector<Object> objects_;
    QByteArray scalars_;
    std::vector<quint64> references_;
    std::unordered_map<Span, quint64, SpanHash, SpanEqual> shared_;
};

// Reads a binary property list. Every offset, length and reference is checked against the data before it
// is used; the first problem found becomes the error.
class BinaryReader {
public:
    explicit BinaryReader(const QByteArray& data)
        : bytes_(reinterpret_cast<const uchar*>(data.constData())), size_(quint64(data.size())) {}

    std::optional<QVariant> read(NBError* outError) {
        if (!readTrailer() || !readObject(topObject_, 0)) {
            nbFail(outError, NBError::errorWithObject("NBPropertyList", code_, description(), reason_));
            return std::nullopt;
        }
        return slots_[topObject_].value;
    }

private:
    enum class State : quint8 { Unread, Reading, Done };
    struct Slot {
        QVariant value;
        quint64 unfolded = 0; // values in this object once shared objects are unfolded
        int height = 0;       // containers nested in this object, itself included
        State state = State::Unread;
    };

    QString description() const {
        return code_ == kNBPropertyListErrorUnsupportedContent
                   ? QStringLiteral("The binary property list holds something that is not a property-list "
                                    "value.")
                   : QStringLiteral("The data is not a valid binary property list.");
    }

    bool damaged(const QString& reason) {
        code_ = kNBPropertyListErrorDamagedBinary;
        reason_ = reason;
        return false;
    }

    bool unsupported(const QString& reason) {
        code_ = kNBPropertyListErrorUnsupportedContent;
        reason_ = reason;
        return false;
    }

    // Callers check that [position, position + width) lies inside the data.
    quint64 readUnsigned(quint64 position, unsigned width) const {
        quint64 value = 0;
        for (unsigned index = 0; index < width; ++index)
            value = (value << 8) | bytes_[position + index];
        return value;
    }

    bool readTrailer() {
        if (size_ < quint64(kHeaderSize + kTrailerSize + 2))
            return damaged(QStringLiteral("It is only %1 bytes long.").arg(size_));
        if (std::memcmp(bytes_, kHeader, kHeaderSize) != 0)
            return unsupported(
                QStringLiteral("Its header is \"%1\"; only \"bplist00\" is read.")
                    .arg(QString::fromLatin1(reinterpret_cast<const char*>(bytes_), kHeaderSize)));
        const quint64 trailer = size_ - kTrailerSize;
        offsetSize_ = bytes_[trailer + 6];
        referenceSize_ = bytes_[trailer + 7];
        objectCount_ = readUnsigned(trailer + 8, 8);
        topObject_ = readUnsigned(trailer + 16, 8);
        tableOffset_ = readUnsigned(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8)
            return damaged(QStringLiteral("Its trailer gives %1-byte offsets and %2-byte references.")
                               .arg(offsetSize_)
                               .arg(referenceSize_));
        if (tableOffset_ <= quint64(kHeaderSize) || tableOffset_ >= trailer)
            return damaged(
                QStringLiteral("Its offset table starts at %1, outside the data.").arg(tableOffset_));
        if (objectCount_ == 0 || objectCount_ > (trailer - tableOffset_) / offsetSize_)
            return damaged(
                QStringLiteral("Its trailer counts %1 objects, which do not fit in the offset table.")
                    .arg(objectCount_));
        if (topObject_ >= objectCount_)
            return damaged(QStringLiteral("Its top object %1 is not one of its %2 objects.")
                               .arg(topObject_)
                               .arg(objectCount_));
        slots_.resize(objectCount_);
        return true;
    }

    bool objectOffset(quint64 index, quint64* offset) {
        *offset = readUnsigned(tableOffset_ + index * offsetSize_, offsetSize_);
        if (*offset < quint64(kHeaderSize) || *offset >= tableOffset_)
            return damaged(
                QStringLiteral("Object %1 starts at %2, outside the object area.").arg(index).arg(*offset));
        return true;
    }

    // Reads the count that follows a marker whose low nibble is `low`, moving `position` past it.
    bool readCount(quint64 index, quint8 low, quint64* position, quint64* count) {
        if (low != 0x0F) {
            *count = low;
            return true;
        }
        if (*position >= tableOffset_)
            return damaged(QStringLiteral("The length of object %1 runs past the object area.").arg(index));
        quint8 marker = bytes_[*position];
        unsigned width = 1u << (marker & 0x0F);
        if ((marker & 0xF0) != 0x10 || width > 8)
            return damaged(QStringLiteral("The length of object %1 is not an integer.").arg(index));
        if (width > tableOffset_ - *position - 1)
            return damaged(QStringLiteral("The length of object %1 runs past the object area.").arg(index));
        *count = readUnsigned(*position + 1, width);
        *position += 1 + width;
        return true;
    }

    // True when `count` items of `unit` bytes starting at `position` lie inside the object area.
    bool fits(quint64 position, quint64 count, quint64 unit) const {
        return position <= tableOffset_ && count <= (tableOffset_ - position) / unit;
    }

    bool readObject(quint64 index, int depth) {
        Slot& slot = slots_[index];
        if (slot.state == State::Done) {
            if (depth + slot.height > kNBPropertyListMaximumDepth)
                return tooDeep();
            return true;
        }
        if (slot.state == State::Reading)
            return damaged(QStringLiteral("Object %1 contains itself.").arg(index));
        quint64 position = 0;
        if (!objectOffset(index, &position))
            return false;
        const quint8 marker = bytes_[position++];
        const quint8 type = marker & 0xF0;
        const quint8 low = marker & 0x0F;
        QVariant value;
        switch (type) {
        case 0x00:
            if (marker == 0x08 || marker == 0x09) {
                value = QVariant(marker == 0x09);
                break;
            }
            return unsupported(QStringLiteral("Object %1 is of type 0x%2 (null, fill or URL).")
                                   .arg(index)
                                   .arg(marker, 2, 16, QLatin1Char('0')));
        case 0x10: {
            if (low > 4)
                return damaged(
                    QStringLiteral("Integer object %1 has a size of 2^%2 bytes.").arg(index).arg(low));
            const unsigned width = 1u << low;
            if (!fits(position, width, 1))
                return damaged(QStringLiteral("Integer object %1 runs past the object area.").arg(index));
            if (width < 8) {
                value = QVariant::fromValue(qint64(readUnsigned(position, width)));
            } else if (width == 8) {
                value = QVariant::fromValue(qint64(readUnsigned(position, 8)));
            } else {
                quint64 high = readUnsigned(position, 8);
                quint64 lowBits = readUnsigned(position + 8, 8);
                if (high == 0 && lowBits <= quint64(std::numeric_limits<qint64>::max()))
                    value = QVariant::fromValue(qint64(lowBits));
                else if (high == 0)
                    value = QVariant::fromValue(lowBits);
                else if (high == ~quint64(0) && (lowBits >> 63) != 0)
                    value = QVariant::fromValue(qint64(lowBits));
                else
                    return unsupported(
                        QStringLiteral("Integer object %1 does not fit in 64 bits.").arg(index));
            }
            break;
        }
        case 0x20:
            if (low == 2 && fits(position, 4, 1)) {
                value = QVariant(double(std::bit_cast<float>(quint32(readUnsigned(position, 4)))));
            } else if (low == 3 && fits(position, 8, 1)) {
                value = QVariant(std::bit_cast<double>(readUnsigned(position, 8)));
            } else {
                return damaged(QStringLiteral("Real object %1 is malformed.").arg(index));
            }
            break;
        case 0x30: {
            if (low != 3 || !fits(position, 8, 1))
                return damaged(QStringLiteral("Date object %1 is malformed.").arg(index));
            std::optional<QDateTime> date = dateForSeconds(std::bit_cast<double>(readUnsigned(position, 8)));
            if (!date)
                return damaged(QStringLiteral("Date object %1 is out of range.").arg(index));
            value = QVariant(*date);
            break;
        }
        case 0x40:
        case 0x50:
        case 0x60: {
            quint64 count = 0;
            if (!readCount(index, low, &position, &count))
                return false;
            const quint64 unit = type == 0x60 ? 2 : 1;
            if (!fits(position, count, unit))
                return damaged(QStringLiteral("Object %1 runs past the object area.").arg(index));
            const char* start = reinterpret_cast<const char*>(bytes_ + position);
            if (type == 0x40) {
                value = QVariant(QByteArray(start, qsizetype(count)));
            } else if (type == 0x50) {
                for (quint64 offset = 0; offset < count; ++offset)
                    if (bytes_[position + offset] >= 0x80)
                        return damaged(
                            QStringLiteral("ASCII string object %1 holds a byte above 127.").arg(index));
                value = QVariant(QString::fromLatin1(start, qsizetype(count)));
            } else {
                QString string(qsizetype(count), Qt::Uninitialized);
                qFromBigEndian<quint16>(start, qsizetype(count), string.data());
                value = QVariant(string);
            }
            break;
        }
        case 0xA0:
        case 0xD0: {
            if (!readContainer(index, type, low, position, depth, &value))
                return false;
            break;
        }
        default:
            return unsupported(QStringLiteral("Object %1 is of type 0x%2 (a UID, a set or an unknown type).")
                                   .arg(index)
                                   .arg(marker, 2, 16, QLatin1Char('0')));
        }
        Slot& done = slots_[index]; // readContainer may not resize, but keep the access explicit
        done.value = std::move(value);
        done.state = State::Done;
        if (type != 0xA0 && type != 0xD0)
            done.unfolded = 1;
        return true;
    }

    bool readContainer(quint64 index, quint8 type, quint8 low, quint64 position, int depth, QVariant* value) {
        if (depth + 1 > kNBPropertyListMaximumDepth)
            return tooDeep();
        quint64 count = 0;
        if (!readCount(index, low, &position, &count))
            return false;
        const quint64 references = type == 0xD0 ? 2 * count : count;
        if (count > std::numeric_limits<quint64>::max() / 2 || !fits(position, references, referenceSize_))
            return damaged(QStringLiteral("Object %1 runs past the object area.").arg(index));
        slots_[index].state = State::Reading;
        quint64 unfolded = 1;
        int height = 0;
        auto child = [&](quint64 number, quint64* childIndex) {
            *childIndex = readUnsigned(position + number * referenceSize_, referenceSize_);
            if (*childIndex >= objectCount_)
                return damaged(QStringLiteral("Object %1 refers to object %2, which does not exist.")
                                   .arg(index)
                                   .arg(*childIndex));
            if (!readObject(*childIndex, depth + 1))
                return false;
            const Slot& slot = slots_[*childIndex];
            unfolded += slot.unfolded;
            height = std::max(height, slot.height);
            if (unfolded > kNBPropertyListMaximumUnfoldedObjects)
                return damaged(QStringLiteral("Its shared objects unfold into more than %1 values.")
                                   .arg(kNBPropertyListMaximumUnfoldedObjects));
            return true;
        };
        if (type == 0xA0) {
            QVariantList list;
            list.reserve(qsizetype(count));
            for (quint64 number = 0; number < count; ++number) {
                quint64 childIndex = 0;
                if (!child(number, &childIndex))
                    return false;
                list.append(slots_[childIndex].value);
            }
            *value = QVariant(list);
        } else {
            QVariantMap map;
            for (quint64 number = 0; number < count; ++number) {
                quint64 keyIndex = 0;
                quint64 valueIndex = 0;
                if (!child(number, &keyIndex) || !child(count + number, &valueIndex))
                    return false;
                const QVariant& key = slots_[keyIndex].value;
                if (key.typeId() != QMetaType::QString)
                    return unsupported(
                        QStringLiteral("Dictionary object %1 has a key that is not a string.").arg(index));
                map.insert(key.toString(), slots_[valueIndex].value);
            }
            *value = QVariant(map);
        }
        slots_[index].unfolded = unfolded;
        slots_[index].height = height + 1;
        return true;
    }

    static std::optional<QDateTime> dateForSeconds(double seconds) {
        constexpr double limit = double(kNBPropertyListMaximumDateOffsetMSecs) / 1000.0;
        if (!std::isfinite(seconds) || std::fabs(seconds) > limit)
            return std::nullopt;
        qint64 msecs = std::llround(seconds * 1000.0);
        QDateTime date = QDateTime::fromMSecsSinceEpoch(msecs + kNBPropertyListReferenceDateMSecs, Qt::UTC);
        if (!date.isValid())
            return std::nullopt;
        return date;
    }

    bool tooDeep() {
        return damaged(QStringLiteral("It nests more than %1 containers.").arg(kNBPropertyListMaximumDepth));
    }

    const uchar* bytes_;
    quint64 size_;
    unsigned offsetSize_ = 0;
    unsigned referenceSize_ = 0;
    quint64 objectCount_ = 0;
    quint64 topObject_ = 0;
    quint64 tableOffset_ = 0;
    std::vector<Slot> slots_;
    qint64 code_ = 0;
    QString reason_;
};

} // namespace

std::optional<QByteArray> nbEncodeBinaryPropertyList(const QVariant& value,
                                                     NBPropertyListEncodeFailure* failure) {
    return BinaryWriter(failure).write(value);
}

std::optional<QVariant> nbDecodeBinaryPropertyList(const QByteArray& data, NBError* outError) {
    return BinaryReader(data).read(outError);
}
