// The XML property-list codec, over QXmlStreamWriter and QXmlStreamReader. The format is described in
// foundation/NBPropertyList.h.
#include "foundation/NBPropertyListCodecs.h"

#include <QLocale>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cmath>
#include <limits>

namespace {

const QByteArray kPrologue = QByteArrayLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                               "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                                               "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                                               "<plist version=\"1.0\">\n");

// The first character of `text` that XML 1.0 cannot hold, or -1 when there is none.
qsizetype firstCharacterNotInXML(const QString& text) {
    const qsizetype size = text.size();
    for (qsizetype index = 0; index < size; ++index) {
        const char16_t unit = text[index].unicode();
        if (unit < 0x20) {
            if (unit != '\t' && unit != '\n' && unit != '\r')
                return index;
        } else if (unit == 0xFFFE || unit == 0xFFFF) {
            return index;
        } else if (QChar::isHighSurrogate(unit)) {
            if (index + 1 >= size || !QChar::isLowSurrogate(text[index + 1].unicode()))
                return index;
            ++index;
        } else if (QChar::isLowSurrogate(unit)) {
            return index;
        }
    }
    return -1;
}

QString formatReal(double value) {
    if (std::isnan(value))
        return QStringLiteral("nan");
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("inf") : QStringLiteral("-inf");
    return QString::number(value, 'g', QLocale::FloatingPointShortest);
}

QString formatDate(const QDateTime& date) {
    const QDateTime utc = date.toUTC();
    const QDate day = utc.date();
    const QTime time = utc.time();
    const int year = day.year();
    QString text =
        (year < 0 ? QStringLiteral("-") : QString()) + QStringLiteral("%1-%2-%3T%4:%5:%6")
                                                           .arg(std::abs(year), 4, 10, QLatin1Char('0'))
                                                           .arg(day.month(), 2, 10, QLatin1Char('0'))
                                                           .arg(day.day(), 2, 10, QLatin1Char('0'))
                                                           .arg(time.hour(), 2, 10, QLatin1Char('0'))
                                                           .arg(time.minute(), 2, 10, QLatin1Char('0'))
                                                           .arg(time.second(), 2, 10, QLatin1Char('0'));
    // Whole seconds only, as every XML property-list reader expects: plistlib and the platform's own
    // reader refuse a fraction, and information files must stay readable by other tools. The reader still
    // accepts fractions written by others.
    return text + QLatin1Char('Z');
}

class XMLWriter {
public:
    explicit XMLWriter(NBPropertyListEncodeFailure* failure) : failure_(failure), writer_(&body_) {}

    std::optional<QByteArray> write(const QVariant& value) {
        // The value is written on its own and then wrapped, so that it starts at the left margin inside
        // <plist> as other writers lay it out.
        writer_.setAutoFormatting(true);
        writer_.setAutoFormattingIndent(-1); // one tab per level
        if (!writeValue(value, 0))
            return std::nullopt;
        writer_.writeEndDocument();                 // closes an empty element left open at the top level
        const QByteArray trimmed = body_.trimmed(); // the writer starts and ends with line breaks
        QByteArray document = kPrologue;
        document.reserve(kPrologue.size() + trimmed.size() + 10);
        document.append(trimmed);
        document.append("\n</plist>\n");
        return document;
    }

private:
    bool fail(qint64 code, const QString& problem) {
        failure_->code = code;
        failure_->problem = problem;
        return false;
    }

    bool checkText(const QString& text, const QString& what) {
        qsizetype bad = firstCharacterNotInXML(text);
        if (bad < 0)
            return true;
        return fail(kNBPropertyListErrorUnrepresentableValue,
                    QStringLiteral("is %1 holding the character U+%2, which an XML property list cannot hold")
                        .arg(what)
                        .arg(uint(text[bad].unicode()), 4, 16, QLatin1Char('0')));
    }

    // Writes text so that it reads back unchanged: XML readers turn a bare carriage return into a line
    // feed, so carriage returns go out as character references.
    void writeTextElement(const QString& name, const QString& text) {
        if (!text.contains(QLatin1Char('\r'))) {
            writer_.writeTextElement(name, text);
            return;
        }
        writer_.writeStartElement(name);
        const QStringList pieces = text.split(QLatin1Char('\r'));
        for (qsizetype index = 0; index < pieces.size(); ++index) {
            if (index > 0)
                writer_.writeEntityReference(QStringLiteral("#13"));
            if (!pieces[index].isEmpty())
                writer_.writeCharacters(pieces[index]);
        }
        writer_.writeEndElement();
    }

    bool writeValue(const QVariant& value, int depth) {
        switch (nbPropertyListKind(value)) {
        case NBPropertyListKind::Unsupported:
            return fail(kNBPropertyListErrorUnsupportedValue,
                        QStringLiteral("is %1, which is not a property-list type")
                            .arg(nbPropertyListTypeDescription(value)));
        case NBPropertyListKind::String: {
            const QString string = value.toString();
            if (!checkText(string, QStringLiteral("a string")))
                return false;
            writeTextElement(QStringLiteral("string"), string);
            return true;
        }
        case NBPropertyListKind::Integer:
            writer_.writeTextElement(QStringLiteral("integer"), QString::number(value.toLongLong()));
            return true;
        case NBPropertyListKind::UnsignedInteger:
            writer_.writeTextElement(QStringLiteral("integer"), QString::number(value.toULongLong()));
            return true;
        case NBPropertyListKind::Real:
            writer_.writeTextElement(QStringLiteral("real"), formatReal(value.toDouble()));
            return true;
        case NBPropertyListKind::Boolean:
            writer_.writeEmptyElement(value.toBool() ? QStringLiteral("true") : QStringLiteral("false"));
            return true;
        case NBPropertyListKind::Date: {
            const QDateTime date = value.toDateTime();
            if (!nbPropertyListDateIsWritable(date))
                return fail(kNBPropertyListErrorUnrepresentableValue,
                            QStringLiteral("is %1, which a property list cannot hold")
                                .arg(nbPropertyListTypeDescription(value)));
            writer_.writeTextElement(QStringLiteral("date"), formatDate(date));
            return true;
        }
        case NBPropertyListKind::Data:
            writer_.writeTextElement(QStringLiteral("data"),
                                     QString::fromLatin1(value.toByteArray().toBase64()));
            return true;
        case NBPropertyListKind::Array:
        case NBPropertyListKind::StringArray: {
            if (depth >= kNBPropertyListMaximumDepth)
                return tooDeep();
            const QVariantList list = value.toList();
            if (list.isEmpty()) {
                writer_.writeEmptyElement(QStringLiteral("array"));
                return true;
            }
            writer_.writeStartElement(QStringLiteral("array"));
            for (qsizetype index = 0; index < list.size(); ++index) {
                if (!writeValue(list[index], depth + 1)) {
                    failure_->reversedPath << nbPropertyListIndexComponent(index);
                    return false;
                }
            }
            writer_.writeEndElement();
            return true;
        }
        case NBPropertyListKind::Dictionary:
        case NBPropertyListKind::HashDictionary: {
            if (depth >= kNBPropertyListMaximumDepth)
                return tooDeep();
            const bool isMap = value.typeId() == QMetaType::QVariantMap;
            const QVariantMap map = isMap ? value.toMap() : QVariantMap();
            const QVariantHash hash = isMap ? QVariantHash() : value.toHash();
            const QStringList keys = nbPropertyListSortedKeys(value);
            if (keys.isEmpty()) {
                writer_.writeEmptyElement(QStringLiteral("dict"));
                return true;
            }
            writer_.writeStartElement(QStringLiteral("dict"));
            for (const QString& key : keys) {
                if (!checkText(key, QStringLiteral("a key"))) {
                    failure_->reversedPath << nbPropertyListKeyComponent(key);
                    return false;
                }
                writeTextElement(QStringLiteral("key"), key);
                if (!writeValue(isMap ? map.value(key) : hash.value(key), depth + 1)) {
                    failure_->reversedPath << nbPropertyListKeyComponent(key);
                    return false;
                }
            }
            writer_.writeEndElement();
            return true;
        }
        }
        return false;
    }

    bool tooDeep() {
        return fail(
            kNBPropertyListErrorUnrepresentableValue,
            QStringLiteral("is nested more than %1 containers deep").arg(kNBPropertyListMaximumDepth));
    }

    NBPropertyListEncodeFailure* failure_;
    QByteArray body_;
    QXmlStreamWriter writer_;
};

// Parses "[-]yyyy-MM-ddTHH:mm:ss[.fraction]Z" (the year has four or more digits).
std::optional<QDateTime> parseDate(const QString& text) {
    qsizetype position = 0;
    const qsizetype size = text.size();
    auto number = [&](qsizetype minimumDigits, qsizetype maximumDigits) -> std::optional<qint64> {
        qint64 value = 0;
        qsizetype digits = 0;
        while (position < size && digits < maximumDigits && text[position].isDigit() &&
               text[position].unicode() < 0x80) {
            value = value * 10 + (text[position].unicode() - '0');
            ++position;
            ++digits;
        }
        if (digits < minimumDigits)
            return std::nullopt;
        return value;
    };
    auto expect = [&](char c) {
        if (position < size && text[position] == QLatin1Char(c)) {
            ++position;
            return true;
        }
        return false;
    };
    const bool negative = expect('-');
    std::optional<qint64> year = number(4, 9);
    if (!year || !expect('-'))
        return std::nullopt;
    std::optional<qint64> month = number(2, 2);
    if (!month || !expect('-'))
        return std::nullopt;
    std::optional<qint64> day = number(2, 2);
    if (!day || !expect('T'))
        return std::nullopt;
    std::optional<qint64> hour = number(2, 2);
    if (!hour || !expect(':'))
        return std::nullopt;
    std::optional<qint64> minute = number(2, 2);
    if (!minute || !expect(':'))
        return std::nullopt;
    std::optional<qint64> second = number(2, 2);
    if (!second)
        return std::nullopt;
    qint64 msecs = 0;
    if (expect('.')) {
        const qsizetype start = position;
        std::optional<qint64> fraction = number(1, 3);
        if (!fraction)
            return std::nullopt;
        for (qsizetype digits = position - start; digits < 3; ++digits)
            *fraction *= 10;
        msecs = *fraction;
        // Digits beyond the millisecond round to the nearest one.
        if (position < size && text[position].isDigit() && text[position].unicode() >= '5' &&
            text[position].unicode() <= '9')
            msecs += 1;
        while (position < size && text[position].isDigit() && text[position].unicode() < 0x80)
            ++position;
    }
    if (!expect('Z') || position != size)
        return std::nullopt;
    const QDate date{int(negative ? -*year : *year), int(*month), int(*day)};
    const QTime time{int(*hour), int(*minute), int(*second)};
    if (!date.isValid() || !time.isValid())
        return std::nullopt;
    const QDateTime result = QDateTime(date, time, Qt::UTC).addMSecs(msecs);
    if (!nbPropertyListDateIsWritable(result))
        return std::nullopt;
    return result;
}

std::optional<QVariant> parseInteger(const QString& text) {
    QString digits = text.trimmed();
    bool negative = digits.startsWith(QLatin1Char('-'));
    QStringView body = QStringView(digits).mid(negative || digits.startsWith(QLatin1Char('+')) ? 1 : 0);
    int base = 10;
    if (body.startsWith(QLatin1String("0x")) || body.startsWith(QLatin1String("0X"))) {
        base = 16;
        body = body.mid(2);
    }
    if (body.isEmpty() || !std::all_of(body.begin(), body.end(), [base](QChar c) {
            return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                   (base == 16 && ((c >= QLatin1Char('a') && c <= QLatin1Char('f')) ||
                                   (c >= QLatin1Char('A') && c <= QLatin1Char('F'))));
        }))
        return std::nullopt;
    bool ok = false;
    const quint64 magnitude = body.toULongLong(&ok, base);
    if (!ok)
        return std::nullopt;
    constexpr quint64 signedMax = quint64(std::numeric_limits<qint64>::max());
    if (negative) {
        if (magnitude > signedMax + 1)
            return std::nullopt;
        return QVariant::fromValue(magnitude == signedMax + 1 ? std::numeric_limits<qint64>::min()
                                                              : -qint64(magnitude));
    }
    if (magnitude > signedMax)
        return QVariant::fromValue(magnitude);
    return QVariant::fromValue(qint64(magnitude));
}

std::optional<double> parseReal(const QString& text) {
    const QString trimmed = text.trimmed();
    const QString lower = trimmed.toLower();
    if (lower == QLatin1String("nan"))
        return std::numeric_limits<double>::quiet_NaN();
    if (lower == QLatin1String("inf") || lower == QLatin1String("+inf") ||
        lower == QLatin1String("infinity") || lower == QLatin1String("+infinity"))
        return std::numeric_limits<double>::infinity();
    if (lower == QLatin1String("-inf") || lower == QLatin1String("-infinity"))
        return -std::numeric_limits<double>::infinity();
    bool ok = false;
    const double value = QLocale::c().toDouble(trimmed, &ok);
    if (!ok || !std::isfinite(value))
        return std::nullopt;
    return value;
}

class XMLReader {
public:
    explicit XMLReader(const QByteArray& data) : reader_(data) {}

    std::optional<QVariant> read(NBError* outError) {
        std::optional<QVariant> value = readDocument();
        if (!value) {
            nbFail(outError, NBError::errorWithObject("NBPropertyList", code_, description(), reason_));
            return std::nullopt;
        }
        return value;
    }

private:
    QString description() const {
        return code_ == kNBPropertyListErrorUnsupportedContent
                   ? QStringLiteral(
                         "The XML property list holds something that is not a property-list value.")
                   : QStringLiteral("The data is not a valid XML property list.");
    }

    std::nullopt_t damaged(const QString& reason) {
        if (code_ == 0) {
            code_ = kNBPropertyListErrorDamagedXML;
            reason_ = reader_.hasError()
                          ? QStringLiteral("%1 (line %2, column %3)")
                                .arg(reader_.errorString())
                                .arg(reader_.lineNumber())
                                .arg(reader_.columnNumber())
                          : QStringLiteral("%1 (line %2)").arg(reason).arg(reader_.lineNumber());
        }
        return std::nullopt;
    }

    // Moves to the next start or end element, refusing text other than white space between elements.
    bool nextElement() {
        while (!reader_.atEnd()) {
            switch (reader_.readNext()) {
            case QXmlStreamReader::StartElement:
            case QXmlStreamReader::EndElement:
                return true;
            case QXmlStreamReader::Characters:
                if (!reader_.isWhitespace()) {
                    damaged(QStringLiteral("Unexpected text \"%1\"").arg(reader_.text().left(40)));
                    return false;
                }
                break;
            case QXmlStreamReader::Invalid:
                damaged(QString());
                return false;
            default:
                break; // comments, processing instructions, the DTD
            }
        }
        damaged(QStringLiteral("The document ends early"));
        return false;
    }

    std::optional<QVariant> readDocument() {
        if (!nextElement() || !reader_.isStartElement())
            return damaged(QStringLiteral("There is no root element"));
        std::optional<QVariant> value;
        if (reader_.name() == QLatin1String("plist")) {
            if (!nextElement())
                return std::nullopt;
            if (!reader_.isStartElement())
                return damaged(QStringLiteral("The plist element is empty"));
            value = readValue(0);
            if (!value)
                return std::nullopt;
            if (!nextElement())
                return std::nullopt;
            if (!reader_.isEndElement())
                return damaged(QStringLiteral("The plist element holds more than one value"));
        } else {
            value = readValue(0); // a bare value without the plist element
            if (!value)
                return std::nullopt;
        }
        // The rest of the document must be well-formed too.
        while (!reader_.atEnd()) {
            QXmlStreamReader::TokenType token = reader_.readNext();
            if (token == QXmlStreamReader::StartElement ||
                (token == QXmlStreamReader::Characters && !reader_.isWhitespace()))
                return damaged(QStringLiteral("Content follows the property list"));
        }
        if (reader_.hasError())
            return damaged(QString());
        return value;
    }

    std::optional<QString> readText() {
        QString text = reader_.readElementText(QXmlStreamReader::ErrorOnUnexpectedElement);
        if (reader_.hasError())
            return damaged(QString());
        return text;
    }

    // Reads the value whose start element is the current token, leaving the reader on its end element.
    std::optional<QVariant> readValue(int depth) {
        const QStringView name = reader_.name();
        if (name == QLatin1String("dict") || name == QLatin1String("array")) {
            if (depth >= kNBPropertyListMaximumDepth)
                return damaged(
                    QStringLiteral("It nests more than %1 containers").arg(kNBPropertyListMaximumDepth));
            return name == QLatin1String("dict") ? readDictionary(depth) : readArray(depth);
        }
        if (name == QLatin1String("true") || name == QLatin1String("false")) {
            const bool value = name == QLatin1String("true");
            if (!nextElement())
                return std::nullopt;
            if (!reader_.isEndElement())
                return damaged(QStringLiteral("A boolean element holds an element"));
            return QVariant(value);
        }
        const QString elementName = name.toString();
        std::optional<QString> text = readText();
        if (!text)
            return std::nullopt;
        if (elementName == QLatin1String("string"))
            return QVariant(*text);
        if (elementName == QLatin1String("integer")) {
            std::optional<QVariant> value = parseInteger(*text);
            if (!value)
                return damaged(QStringLiteral("\"%1\" is not a 64-bit integer").arg(text->left(40)));
            return value;
        }
        if (elementName == QLatin1String("real")) {
            std::optional<double> value = parseReal(*text);
            if (!value)
                return damaged(QStringLiteral("\"%1\" is not a real number").arg(text->left(40)));
            return QVariant(*value);
        }
        if (elementName == QLatin1String("date")) {
            std::optional<QDateTime> value = parseDate(text->trimmed());
            if (!value)
                return damaged(QStringLiteral("\"%1\" is not a date").arg(text->left(40)));
            return QVariant(*value);
        }
        if (elementName == QLatin1String("data")) {
            // Base64 text may be broken into lines and indented; anything else must be base64.
            QByteArray base64;
            base64.reserve(text->size());
            for (QChar c : *text) {
                if (c.unicode() >= 0x80)
                    return damaged(QStringLiteral("A data element is not valid base64"));
                if (c != QLatin1Char(' ') && c != QLatin1Char('\t') && c != QLatin1Char('\n') &&
                    c != QLatin1Char('\r'))
                    base64.append(char(c.unicode()));
            }
            QByteArray::FromBase64Result decoded =
                QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors);
            if (!decoded)
                return damaged(QStringLiteral("A data element is not valid base64"));
            return QVariant(*decoded);
        }
        if (code_ == 0) {
            code_ = kNBPropertyListErrorUnsupportedContent;
            reason_ = QStringLiteral("It holds a <%1> element (line %2).")
                          .arg(elementName)
                          .arg(reader_.lineNumber());
        }
        return std::nullopt;
    }

    std::optional<QVariant> readArray(int depth) {
        QVariantList list;
        while (true) {
            if (!nextElement())
                return std::nullopt;
            if (reader_.isEndElement())
                return QVariant(list);
            std::optional<QVariant> item = readValue(depth + 1);
            if (!item)
                return std::nullopt;
            list.append(*item);
        }
    }

    std::optional<QVariant> readDictionary(int depth) {
        QVariantMap map;
        while (true) {
            if (!nextElement())
                return std::nullopt;
            if (reader_.isEndElement())
                return QVariant(map);
            if (reader_.name() != QLatin1String("key"))
                return damaged(
                    QStringLiteral("A dictionary holds <%1> where a key belongs").arg(reader_.name()));
            std::optional<QString> key = readText();
            if (!key)
                return std::nullopt;
            if (!nextElement())
                return std::nullopt;
            if (!reader_.isStartElement())
                return damaged(QStringLiteral("The key \"%1\" has no value").arg(key->left(40)));
            std::optional<QVariant> value = readValue(depth + 1);
            if (!value)
                return std::nullopt;
            map.insert(*key, *value);
        }
    }

    QXmlStreamReader reader_;
    qint64 code_ = 0;
    QString reason_;
};

} // namespace

std::optional<QByteArray> nbEncodeXMLPropertyList(const QVariant& value,
                                                  NBPropertyListEncodeFailure* failure) {
    return XMLWriter(failure).write(value);
}

std::optional<QVariant> nbDecodeXMLPropertyList(const QByteArray& data, NBError* outError) {
    return XMLReader(data).read(outError);
}
