// NBFrontMatter: reading and writing Markdown front matter (the format is in the header).
#include "interchange/NBFrontMatter.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimeZone>

#include <cmath>

namespace {

constexpr double kLargestExactInteger = 9007199254740992.0; // 2^53

QString unquoted(QString text) {
    text = text.trimmed();
    if (text.size() >= 2 && text.front() == u'\'' && text.back() == u'\'')
        return text.mid(1, text.size() - 2).replace(QLatin1String("''"), QLatin1String("'"));
    if (text.size() >= 2 && text.front() == u'"' && text.back() == u'"')
        return text.mid(1, text.size() - 2);
    return text;
}

// A YAML value on the line of its key: JSON when it parses as JSON, a flow list, or a plain scalar.
QVariant valueFromText(const QString& text) {
    QJsonParseError error;
    const QJsonDocument json = QJsonDocument::fromJson(QByteArray("[") + text.toUtf8() + "]", &error);
    if (error.error == QJsonParseError::NoError && json.isArray() && json.array().size() == 1)
        return NBFrontMatter::propertyListFromJSONValue(json.array().first());
    if (text.startsWith(u'[') && text.endsWith(u']')) {
        QVariantList list;
        for (const QString& item : text.mid(1, text.size() - 2).split(QLatin1Char(','), Qt::SkipEmptyParts))
            list.append(unquoted(item));
        return list;
    }
    QString plain = text;
    if (!plain.startsWith(u'"') && !plain.startsWith(u'\'')) {
        const qsizetype comment = plain.indexOf(QLatin1String(" #"));
        if (comment >= 0)
            plain.truncate(comment);
    }
    return unquoted(plain);
}

} // namespace

bool NBFrontMatter::contains(const QString& key) const {
    for (const auto& entry : entries)
        if (entry.first == key)
            return true;
    return false;
}

QVariant NBFrontMatter::value(const QString& key) const {
    for (const auto& entry : entries)
        if (entry.first == key)
            return entry.second;
    return QVariant();
}

NBFrontMatter NBFrontMatter::frontMatterFromMarkdown(QStringView text) {
    NBFrontMatter result;
    qsizetype position = text.startsWith(QChar(0xFEFF)) ? 1 : 0;
    const auto nextLine = [&](qsizetype& at) -> std::optional<QStringView> {
        if (at >= text.size())
            return std::nullopt;
        const qsizetype newline = text.indexOf(u'\n', at);
        const qsizetype end = newline < 0 ? text.size() : newline;
        QStringView line = text.mid(at, end - at);
        if (line.endsWith(u'\r'))
            line.chop(1);
        at = newline < 0 ? text.size() : newline + 1;
        return line;
    };
    const std::optional<QStringView> first = nextLine(position);
    if (!first || first->trimmed() != QLatin1String("---"))
        return result;
    QList<QStringView> lines;
    bool closed = false;
    while (const std::optional<QStringView> line = nextLine(position)) {
        if (*line == QLatin1String("---") || *line == QLatin1String("...")) {
            closed = true;
            break;
        }
        lines.append(*line);
    }
    if (!closed)
        return result;
    result.present = true;
    result.bodyStart = position;
    QString listKey;
    QVariantList listItems;
    const auto finishList = [&] {
        if (!listKey.isEmpty())
            result.entries.append({listKey, listItems.isEmpty() ? QVariant(QString()) : QVariant(listItems)});
        listKey.clear();
        listItems.clear();
    };
    for (QStringView line : lines) {
        if (line.trimmed().isEmpty() || line.trimmed().startsWith(u'#'))
            continue;
        if (line.front().isSpace() || line.startsWith(u'-')) {
            const QStringView item = line.trimmed();
            if (!listKey.isEmpty() && item.startsWith(u'-'))
                listItems.append(valueFromText(item.mid(1).trimmed().toString()));
            continue;
        }
        finishList();
        const qsizetype colon = line.indexOf(u':');
        if (colon <= 0)
            continue;
        const QString key = unquoted(line.left(colon).toString());
        const QString rest = line.mid(colon + 1).trimmed().toString();
        if (rest.isEmpty())
            listKey = key;
        else
            result.entries.append({key, valueFromText(rest)});
    }
    finishList();
    return result;
}

QString NBFrontMatter::frontMatterString(const QList<QPair<QString, QVariant>>& entries) {
    QString out = QStringLiteral("---\n");
    for (const auto& [key, value] : entries) {
        QJsonArray wrapper{jsonValueFromPropertyList(value)};
        QString json = QString::fromUtf8(QJsonDocument(wrapper).toJson(QJsonDocument::Compact));
        json = json.mid(1, json.size() - 2);
        out += key + QStringLiteral(": ") + json + u'\n';
    }
    out += QStringLiteral("---\n");
    return out;
}

QJsonValue NBFrontMatter::jsonValueFromPropertyList(const QVariant& value) {
    switch (value.metaType().id()) {
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
        return QJsonValue(value.toLongLong());
    case QMetaType::Double:
    case QMetaType::Float:
        return value.toDouble();
    case QMetaType::QDateTime:
        return QJsonObject{{"$date", value.toDateTime().toUTC().toString(Qt::ISODateWithMs)}};
    case QMetaType::QByteArray:
        return QJsonObject{{"$data", QString::fromLatin1(value.toByteArray().toBase64())}};
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        QJsonArray array;
        for (const QVariant& item : value.toList())
            array.append(jsonValueFromPropertyList(item));
        return array;
    }
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry)
            object.insert(entry.key(), jsonValueFromPropertyList(entry.value()));
        return object;
    }
    default:
        if (value.isNull())
            return QJsonValue();
        return value.toString();
    }
}

QVariant NBFrontMatter::propertyListFromJSONValue(const QJsonValue& value) {
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double: {
        const double number = value.toDouble();
        if (std::trunc(number) == number && std::fabs(number) <= kLargestExactInteger)
            return qint64(number);
        return number;
    }
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Array: {
        QVariantList list;
        for (const QJsonValue& item : value.toArray())
            list.append(propertyListFromJSONValue(item));
        return list;
    }
    case QJsonValue::Object: {
        const QJsonObject object = value.toObject();
        if (object.size() == 1 && object.contains(QLatin1String("$date"))) {
            const QDateTime date =
                QDateTime::fromString(object.value(QLatin1String("$date")).toString(), Qt::ISODateWithMs);
            if (date.isValid())
                return date.toUTC();
        }
        if (object.size() == 1 && object.contains(QLatin1String("$data")))
            return QByteArray::fromBase64(object.value(QLatin1String("$data")).toString().toLatin1());
        QVariantMap map;
        for (auto entry = object.begin(); entry != object.end(); ++entry)
            map.insert(entry.key(), propertyListFromJSONValue(entry.value()));
        return map;
    }
    default:
        return QVariant();
    }
}
