// `quillon store`: plumbing for inspecting and scripting store packages.
//
//   quillon store set <package> <key> <json> --device <id>   set one value as device <id> and save
//   quillon store get <package> <key>                          the key's current value (null when absent)
//   quillon store dump <package>                               {key: {"value", "timestamp", "device"}}
//   quillon store changes <package> [--since <timestamp>]     [{"timestamp", "parentTimestamp", "key",
//                                                               "value", "device"}] in ascending order
//   quillon store devices <package>                            {device: most recent timestamp}
//   quillon store merge <destination> <source> --device <id> [--unsafe <id>]...
//                                                              merge another copy of a store into this one
//   quillon store watch <package> --device <id>                one JSON line per change and sync
//                                                              notification, until interrupted
//
// Every command but `set` and `merge` (which writes into the destination only) opens the package read-only:
// nothing inside it is created or changed. Values are printed and read in the JSON form described in
// StoreCommand.h. JSON is written and parsed here rather than with QJsonDocument because QJsonDocument
// reads 1.0 as the integer 1, and a real must stay a real.
#include "cli/StoreCommand.h"

#include "foundation/NBNotificationCenter.h"
#include "foundation/NBPropertyList.h"
#include "foundation/NBTimestamp.h"
#include "store/OAKStore.h"

#include <CLI/CLI.hpp>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTimeZone>

#include <QThread>

#include <atomic>
#include <charconv>
#include <cmath>
#include <csignal>
#include <future>
#include <iostream>

namespace {

// MARK: - Writing JSON

void appendString(QString& out, const QString& text) {
    out += QLatin1Char('"');
    for (const QChar character : text) {
        switch (character.unicode()) {
        case '"':
            out += QLatin1String("\\\"");
            break;
        case '\\':
            out += QLatin1String("\\\\");
            break;
        case '\n':
            out += QLatin1String("\\n");
            break;
        case '\r':
            out += QLatin1String("\\r");
            break;
        case '\t':
            out += QLatin1String("\\t");
            break;
        default:
            if (character.unicode() < 0x20)
                out += QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
            else
                out += character;
        }
    }
    out += QLatin1Char('"');
}

QString realText(double value) {
    if (!std::isfinite(value))
        return QStringLiteral("null");
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    QString text = QString::fromLatin1(buffer, int(result.ptr - buffer));
    if (!text.contains(QLatin1Char('.')) && !text.contains(QLatin1Char('e')))
        text += QLatin1String(".0");
    return text;
}

QString dateText(const QDateTime& date) {
    // QDateTime keeps milliseconds; the form has room for microseconds.
    return date.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzz")) + QStringLiteral("000Z");
}

void appendValue(QString& out, const QVariant& value) {
    switch (value.metaType().id()) {
    case QMetaType::QString:
        appendString(out, value.toString());
        return;
    case QMetaType::Bool:
        out += value.toBool() ? QLatin1String("true") : QLatin1String("false");
        return;
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
        out += QString::number(value.toLongLong());
        return;
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
        out += QString::number(value.toULongLong());
        return;
    case QMetaType::Double:
    case QMetaType::Float:
        out += realText(value.toDouble());
        return;
    case QMetaType::QByteArray:
        out += QLatin1String("{\"$data\":");
        appendString(out, QString::fromLatin1(value.toByteArray().toBase64()));
        out += QLatin1Char('}');
        return;
    case QMetaType::QDateTime:
        out += QLatin1String("{\"$date\":");
        appendString(out, dateText(value.toDateTime()));
        out += QLatin1Char('}');
        return;
    case QMetaType::QVariantList: {
        out += QLatin1Char('[');
        bool first = true;
        for (const QVariant& element : value.toList()) {
            if (!std::exchange(first, false))
                out += QLatin1Char(',');
            appendValue(out, element);
        }
        out += QLatin1Char(']');
        return;
    }
    case QMetaType::QVariantMap: {
        out += QLatin1Char('{');
        const QVariantMap map = value.toMap();
        bool first = true;
        for (auto entry = map.begin(); entry != map.end(); ++entry) {
            if (!std::exchange(first, false))
                out += QLatin1Char(',');
            appendString(out, entry.key());
            out += QLatin1Char(':');
            appendValue(out, entry.value());
        }
        out += QLatin1Char('}');
        return;
    }
    default:
        // Not a property-list value (an undecodable row): nothing to show.
        out += QLatin1String("null");
    }
}

// MARK: - Reading JSON

class JSONReader {
public:
    explicit JSONReader(const QString& text) : text_(text) {}

    std::optional<QVariant> read(QString* outMessage) {
        std::optional<QVariant> value = parseValue();
        skipSpace();
        if (value && position_ != text_.size())
            fail(QStringLiteral("unexpected text after the value"));
        if (!error_.isEmpty()) {
            if (outMessage)
                *outMessage = QStringLiteral("bad JSON value at offset %1: %2").arg(position_).arg(error_);
            return std::nullopt;
        }
        return value;
    }

private:
    std::optional<QVariant> fail(const QString& message) {
        if (error_.isEmpty())
            error_ = message;
        return std::nullopt;
    }
    void skipSpace() {
        while (position_ < text_.size() &&
               (text_[position_] == QLatin1Char(' ') || text_[position_] == QLatin1Char('\n') ||
                text_[position_] == QLatin1Char('\r') || text_[position_] == QLatin1Char('\t')))
            ++position_;
    }
    bool consume(const char* word) {
        const QLatin1String literal(word);
        if (QStringView(text_).mid(position_).startsWith(literal)) {
            position_ += literal.size();
            return true;
        }
        return false;
    }
    std::optional<QVariant> parseValue() {
        if (++depth_ > 512)
            return fail(QStringLiteral("nested too deeply"));
        skipSpace();
        std::optional<QVariant> value;
        if (position_ >= text_.size())
            value = fail(QStringLiteral("a value is missing"));
        else if (consume("true"))
            value = QVariant(true);
        else if (consume("false"))
            value = QVariant(false);
        else if (consume("null"))
            value = fail(QStringLiteral("null is not a value a store can hold"));
        else if (text_[position_] == QLatin1Char('"')) {
            if (std::optional<QString> string = parseString())
                value = QVariant(*string);
        } else if (text_[position_] == QLatin1Char('['))
            value = parseArray();
        else if (text_[position_] == QLatin1Char('{'))
            value = parseObject();
        else
            value = parseNumber();
        --depth_;
        return value;
    }
    std::optional<QString> parseString() {
        ++position_; // the opening quote
        QString string;
        while (position_ < text_.size()) {
            const QChar character = text_[position_++];
            if (character == QLatin1Char('"'))
                return string;
            if (character.unicode() < 0x20) {
                fail(QStringLiteral("control character in a string"));
                return std::nullopt;
            }
            if (character != QLatin1Char('\\')) {
                string += character;
                continue;
            }
            if (position_ >= text_.size())
                break;
            const QChar escape = text_[position_++];
            switch (escape.unicode()) {
            case '"':
            case '\\':
            case '/':
                string += escape;
                break;
            case 'b':
                string += QLatin1Char('\b');
                break;
            case 'f':
                string += QLatin1Char('\f');
                break;
            case 'n':
                string += QLatin1Char('\n');
                break;
            case 'r':
                string += QLatin1Char('\r');
                break;
            case 't':
                string += QLatin1Char('\t');
                break;
            case 'u': {
                bool ok = false;
                const ushort code = text_.mid(position_, 4).toUShort(&ok, 16);
                if (!ok || text_.mid(position_, 4).size() != 4) {
                    fail(QStringLiteral("bad \\u escape"));
                    return std::nullopt;
                }
                position_ += 4;
                string += QChar(code);
                break;
            }
            default:
                fail(QStringLiteral("bad escape"));
                return std::nullopt;
            }
        }
        fail(QStringLiteral("unterminated string"));
        return std::nullopt;
    }
    std::optional<QVariant> parseNumber() {
        static const QRegularExpression pattern(
            QStringLiteral("-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?"));
        const QRegularExpressionMatch match = pattern.match(text_, position_, QRegularExpression::NormalMatch,
                                                            QRegularExpression::AnchorAtOffsetMatchOption);
        if (!match.hasMatch() || match.capturedLength() == 0)
            return fail(QStringLiteral("not a JSON value"));
        const QString literal = match.captured();
        position_ += literal.size();
        bool ok = false;
        if (match.capturedLength(2) == 0 && match.capturedLength(3) == 0) {
            const qint64 integer = literal.toLongLong(&ok);
            if (ok)
                return QVariant(integer);
            return fail(QStringLiteral("integer out of range"));
        }
        const double real = literal.toDouble(&ok);
        if (!ok || !std::isfinite(real))
            return fail(QStringLiteral("number out of range"));
        return QVariant(real);
    }
    // Steps over `character` when it comes next.
    bool consume(char16_t character) {
        if (position_ < text_.size() && text_[position_] == QChar(character)) {
            ++position_;
            return true;
        }
        return false;
    }
    std::optional<QVariant> parseArray() {
        ++position_;
        QVariantList list;
        skipSpace();
        if (consume(u']'))
            return QVariant(list);
        for (;;) {
            std::optional<QVariant> element = parseValue();
            if (!element)
                return std::nullopt;
            list.append(*element);
            skipSpace();
            if (consume(u','))
                continue;
            if (consume(u']'))
                return QVariant(list);
            return fail(QStringLiteral("expected ',' or ']'"));
        }
    }
    std::optional<QVariant> parseObject() {
        ++position_;
        QVariantMap map;
        skipSpace();
        if (consume(u'}'))
            return QVariant(map);
        for (;;) {
            skipSpace();
            if (position_ >= text_.size() || text_[position_] != QLatin1Char('"'))
                return fail(QStringLiteral("expected a string key"));
            const std::optional<QString> key = parseString();
            if (!key)
                return std::nullopt;
            skipSpace();
            if (!consume(u':'))
                return fail(QStringLiteral("expected ':'"));
            std::optional<QVariant> element = parseValue();
            if (!element)
                return std::nullopt;
            map.insert(*key, *element);
            skipSpace();
            if (consume(u','))
                continue;
            if (consume(u'}'))
                return special(map);
            return fail(QStringLiteral("expected ',' or '}'"));
        }
    }
    // {"$data": ...} and {"$date": ...} stand for data and dates.
    std::optional<QVariant> special(const QVariantMap& map) {
        if (map.size() != 1 || map.first().metaType().id() != QMetaType::QString)
            return QVariant(map);
        const QString text = map.first().toString();
        if (map.firstKey() == QLatin1String("$data")) {
            const auto decoded =
                QByteArray::fromBase64Encoding(text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
            if (!decoded)
                return fail(QStringLiteral("\"$data\" is not base64"));
            return QVariant(*decoded);
        }
        if (map.firstKey() == QLatin1String("$date")) {
            static const QRegularExpression pattern(
                QStringLiteral("^(\\d{4}-\\d{2}-\\d{2})[Tt "
                               "](\\d{2}:\\d{2}:\\d{2})(?:\\.(\\d{1,9}))?([Zz]|[+-]\\d{2}:\\d{2})$"));
            const QRegularExpressionMatch match = pattern.match(text);
            QDateTime date;
            if (match.hasMatch()) {
                const QString milliseconds = (match.captured(3) + QStringLiteral("000")).left(3);
                const QString zone = match.captured(4).toUpper() == QLatin1String("Z") ? QStringLiteral("Z")
                                                                                       : match.captured(4);
                date = QDateTime::fromString(match.captured(1) + QLatin1Char('T') + match.captured(2) +
                                                 QLatin1Char('.') + milliseconds + zone,
                                             Qt::ISODateWithMs);
            }
            if (!date.isValid())
                return fail(QStringLiteral("\"$date\" is not an RFC 3339 date"));
            return QVariant(date.toUTC());
        }
        return QVariant(map);
    }

    const QString& text_;
    qsizetype position_ = 0;
    int depth_ = 0;
    QString error_;
};

// MARK: - Commands

// The commands' store keeps every key found in the logs.
class CommandStore : public OAKStore {
public:
    using OAKStore::OAKStore;

protected:
    std::optional<QSet<QString>> relevantKeysForSync() const override { return std::nullopt; }
};

[[noreturn]] void failCommand(const QString& message) {
    std::cerr << "quillon store: " << message.toStdString() << std::endl;
    throw CLI::RuntimeError(1);
}

void print(const QString& json) {
    std::cout << json.toStdString() << std::endl;
}

QString absolutePackagePath(const std::string& path) {
    return QDir::cleanPath(QFileInfo(QString::fromStdString(path)).absoluteFilePath());
}

bool isPackage(const QString& path) {
    return QFileInfo(path + QLatin1Char('/') + QLatin1String(OAKDevicesDirectoryName)).isDir();
}

// The absolute path of an existing package, or the command fails saying what is there instead.
QString existingPackagePath(const std::string& argument) {
    const QString path = absolutePackagePath(argument);
    if (!QFileInfo::exists(path))
        failCommand(QStringLiteral("no such package: %1").arg(path));
    if (!QFileInfo(path).isDir() || !isPackage(path))
        failCommand(QStringLiteral("not a package (no \"%1\" folder): %2")
                        .arg(QLatin1String(OAKDevicesDirectoryName), path));
    return path;
}

// Opens an existing package read-only and loads every key.
std::shared_ptr<CommandStore> openForReading(const std::string& argument) {
    const QString path = existingPackagePath(argument);
    OAKStoreOptions options;
    options.readOnly = true;
    auto store = std::make_shared<CommandStore>(QUrl::fromLocalFile(path), QString(), options);
    store->loadNow();
    if (!store->loaded())
        failCommand(QStringLiteral("could not load the package: %1").arg(path));
    return store;
}

QString object(std::initializer_list<std::pair<const char*, QString>> members) {
    QString out = QStringLiteral("{");
    bool first = true;
    for (const auto& [name, json] : members) {
        if (!std::exchange(first, false))
            out += QLatin1Char(',');
        appendString(out, QString::fromUtf8(name));
        out += QLatin1Char(':') + json;
    }
    return out + QLatin1Char('}');
}

QString stringJSON(const QString& text) {
    QString out;
    appendString(out, text);
    return out;
}

void runSet(const std::string& package, const std::string& key, const std::string& json,
            const std::string& device) {
    QString message;
    const std::optional<QVariant> value = storePropertyListFromJSON(QString::fromStdString(json), &message);
    if (!value)
        failCommand(message);
    const QString deviceIdentifier = QString::fromStdString(device);
    if (!OAKStore::isValidDeviceIdentifier(deviceIdentifier))
        failCommand(QStringLiteral("not a valid device identifier: \"%1\"").arg(deviceIdentifier));
    const QString path = absolutePackagePath(package);
    const QFileInfo info(path);
    if (info.exists() && (!info.isDir() || (!isPackage(path) && !QDir(path).isEmpty())))
        failCommand(QStringLiteral("not a package (no \"%1\" folder): %2")
                        .arg(QLatin1String(OAKDevicesDirectoryName), path));
    auto store = std::make_shared<CommandStore>(QUrl::fromLocalFile(path), deviceIdentifier);
    store->loadNow();
    if (!store->loaded())
        failCommand(QStringLiteral("could not open the package: %1").arg(path));
    store->setPropertyListValue(*value, QString::fromStdString(key));
    NBError error;
    const bool saved = store->saveNow(&error);
    store->tearDownNow();
    if (!saved)
        failCommand(error.description());
}

void runGet(const std::string& package, const std::string& key) {
    auto store = openForReading(package);
    const QVariant value = store->propertyListValueForKey(QString::fromStdString(key));
    print(value.isValid() ? storeJSONFromPropertyList(value) : QStringLiteral("null"));
    store->tearDownNow();
}

void runDump(const std::string& package) {
    auto store = openForReading(package);
    const QVariantMap values = store->allRelevantValues();
    const QHash<QString, NBTimestamp> timestamps = store->mostRecentTimestampsByKey();
    QHash<QString, QString> devices;
    for (const OAKChange& change : store->changesSinceTimestamp(timestampForDistantPast())) {
        if (change.timestamp == timestamps.value(change.key))
            devices.insert(change.key, change.deviceIdentifier);
    }
    QString out = QStringLiteral("{");
    bool first = true;
    for (auto entry = values.begin(); entry != values.end(); ++entry) {
        if (!std::exchange(first, false))
            out += QLatin1Char(',');
        appendString(out, entry.key());
        out += QLatin1Char(':') + object({{"value", storeJSONFromPropertyList(entry.value())},
                                          {"timestamp", QString::number(timestamps.value(entry.key()))},
                                          {"device", stringJSON(devices.value(entry.key()))}});
    }
    print(out + QLatin1Char('}'));
    store->tearDownNow();
}

void runChanges(const std::string& package, const std::string& since) {
    NBTimestamp timestamp = timestampForDistantPast();
    if (!since.empty()) {
        bool ok = false;
        timestamp = QString::fromStdString(since).toLongLong(&ok);
        if (!ok)
            failCommand(QStringLiteral("not a timestamp: %1").arg(QString::fromStdString(since)));
    }
    auto store = openForReading(package);
    QString out = QStringLiteral("[");
    bool first = true;
    for (const OAKChange& change : store->changesSinceTimestamp(timestamp)) {
        if (!std::exchange(first, false))
            out += QLatin1Char(',');
        out += object({{"timestamp", QString::number(change.timestamp)},
                       {"parentTimestamp", change.parentTimestamp ? QString::number(*change.parentTimestamp)
                                                                  : QStringLiteral("null")},
                       {"key", stringJSON(change.key)},
                       {"value", storeJSONFromPropertyList(change.propertyList)},
                       {"device", stringJSON(change.deviceIdentifier)}});
    }
    print(out + QLatin1Char(']'));
    store->tearDownNow();
}

void runDevices(const std::string& package) {
    auto store = openForReading(package);
    QString out = QStringLiteral("{");
    bool first = true;
    for (const auto& [device, timestamp] : store->mostRecentTimestampsByDeviceIdentifier()) {
        if (!std::exchange(first, false))
            out += QLatin1Char(',');
        appendString(out, device);
        out += QLatin1Char(':') + QString::number(timestamp);
    }
    print(out + QLatin1Char('}'));
    store->tearDownNow();
}

void runMerge(const std::string& destinationArgument, const std::string& sourceArgument,
              const std::string& device, const std::vector<std::string>& unsafe) {
    const QString deviceIdentifier = QString::fromStdString(device);
    if (!OAKStore::isValidDeviceIdentifier(deviceIdentifier))
        failCommand(QStringLiteral("not a valid device identifier: \"%1\"").arg(deviceIdentifier));
    for (const std::string& argument : {destinationArgument, sourceArgument})
        existingPackagePath(argument);
    QStringList unsafeDevices;
    for (const std::string& identifier : unsafe)
        unsafeDevices << QString::fromStdString(identifier);
    // The source is only read.
    OAKStoreOptions readOnly;
    readOnly.readOnly = true;
    auto source = std::make_shared<CommandStore>(QUrl::fromLocalFile(absolutePackagePath(sourceArgument)),
                                                 deviceIdentifier, readOnly);
    auto destination = std::make_shared<CommandStore>(
        QUrl::fromLocalFile(absolutePackagePath(destinationArgument)), deviceIdentifier);
    destination->loadNow();
    if (!destination->loaded())
        failCommand(QStringLiteral("could not open the package: %1").arg(destination->storePath()));
    std::promise<std::optional<NBError>> finished;
    destination->mergeStore(source, unsafeDevices,
                            [&finished](const std::optional<NBError>& error) { finished.set_value(error); });
    const std::optional<NBError> error = finished.get_future().get();
    destination->tearDownNow();
    source->tearDownNow();
    if (error)
        failCommand(error->description());
}

std::atomic<bool> interrupted{false};

void runWatch(const std::string& package, const std::string& device) {
    const QString deviceIdentifier = QString::fromStdString(device);
    if (!OAKStore::isValidDeviceIdentifier(deviceIdentifier))
        failCommand(QStringLiteral("not a valid device identifier: \"%1\"").arg(deviceIdentifier));
    const QString path = existingPackagePath(package);
    // Watching only reads: the device's own folder is neither created nor watched.
    OAKStoreOptions options;
    options.readOnly = true;
    auto store = std::make_shared<CommandStore>(QUrl::fromLocalFile(path), deviceIdentifier, options);
    std::mutex outputMutex;
    NBScopedObserver observer(
        NBNotificationCenter::defaultCenter(),
        NBNotificationCenter::defaultCenter().addObserverForName(
            QString(), store.get(), [&outputMutex](const NBNotification& notification) {
                QString line;
                if (notification.name == QLatin1String(OAKStoreDidChangeNotification)) {
                    const QVariantMap values =
                        notification.userInfo.value(QString::fromUtf8(OAKStoreValuesKey)).toMap();
                    const QVariantMap timestamps =
                        notification.userInfo.value(QString::fromUtf8(OAKStoreTimestampsKey)).toMap();
                    line = object({{"notification", stringJSON(notification.name)},
                                   {"values", storeJSONFromPropertyList(values)},
                                   {"timestamps", storeJSONFromPropertyList(timestamps)}});
                } else if (notification.name == QLatin1String(OAKStoreDidSyncNotification) ||
                           notification.name == QLatin1String(OAKStoreDidDeleteNotification)) {
                    line = object({{"notification", stringJSON(notification.name)}});
                } else {
                    return;
                }
                std::lock_guard lock(outputMutex);
                print(line);
            }));
    store->loadNow();
    if (!store->loaded())
        failCommand(QStringLiteral("could not load the package: %1").arg(path));
    std::signal(SIGINT, [](int) { interrupted = true; });
    std::signal(SIGTERM, [](int) { interrupted = true; });
    while (!interrupted && !store->deleted())
        QThread::msleep(50);
    store->tearDownNow();
}

} // namespace

QString storeJSONFromPropertyList(const QVariant& value) {
    QString out;
    appendValue(out, value);
    return out;
}

std::optional<QVariant> storePropertyListFromJSON(const QString& text, QString* outMessage) {
    return JSONReader(text).read(outMessage);
}

void addStoreCommand(CLI::App& app) {
    CLI::App* store = app.add_subcommand("store", "Inspect and script store packages (values as JSON).");
    store->require_subcommand(1);

    struct Arguments {
        std::string package, key, json, device, since;
    };
    auto arguments = std::make_shared<Arguments>();

    CLI::App* set = store->add_subcommand("set", "Set one value as a device and save.");
    set->add_option("package", arguments->package, "The package folder")->required();
    set->add_option("key", arguments->key, "The key")->required();
    set->add_option("json", arguments->json, "The value as JSON")->required();
    set->add_option("--device", arguments->device, "The writing device's identifier")->required();
    set->callback(
        [arguments] { runSet(arguments->package, arguments->key, arguments->json, arguments->device); });

    CLI::App* get = store->add_subcommand("get", "Print a key's current value (null when absent).");
    get->add_option("package", arguments->package, "The package folder")->required();
    get->add_option("key", arguments->key, "The key")->required();
    get->callback([arguments] { runGet(arguments->package, arguments->key); });

    CLI::App* dump = store->add_subcommand("dump", "Print every key with its value, timestamp and device.");
    dump->add_option("package", arguments->package, "The package folder")->required();
    dump->callback([arguments] { runDump(arguments->package); });

    CLI::App* changes =
        store->add_subcommand("changes", "Print the log entries newer than a timestamp, oldest first.");
    changes->add_option("package", arguments->package, "The package folder")->required();
    changes->add_option("--since", arguments->since,
                        "Microseconds since 2001-01-01 UTC (default: everything)");
    changes->callback([arguments] { runChanges(arguments->package, arguments->since); });

    CLI::App* devices = store->add_subcommand("devices", "Print every device's most recent timestamp.");
    devices->add_option("package", arguments->package, "The package folder")->required();
    devices->callback([arguments] { runDevices(arguments->package); });

    auto sources = std::make_shared<std::pair<std::string, std::vector<std::string>>>();
    CLI::App* merge = store->add_subcommand("merge", "Merge another copy of a store into this one.");
    merge->add_option("destination", arguments->package, "The package merged into")->required();
    merge->add_option("source", sources->first, "The other copy (only read)")->required();
    merge->add_option("--device", arguments->device, "The local device's identifier")->required();
    merge->add_option("--unsafe", sources->second, "A device whose history in the copies may differ");
    merge->callback([arguments, sources] {
        runMerge(arguments->package, sources->first, arguments->device, sources->second);
    });

    CLI::App* watch =
        store->add_subcommand("watch", "Print one JSON line per change and sync until interrupted.");
    watch->add_option("package", arguments->package, "The package folder")->required();
    watch->add_option("--device", arguments->device, "The local device, whose own changes are not reported")
        ->required();
    watch->callback([arguments] { runWatch(arguments->package, arguments->device); });
}
