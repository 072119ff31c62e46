// `quillon doc`: plumbing for scripting and inspecting experiment and protocol packages.
//
//   quillon doc new <experiment|protocol> <folder> --title <t> --device <id>
//       creates "<UUID>.nbexperiment" or "<UUID>.nbprotocol" in <folder> and prints its path
//   quillon doc append <package> --type <type> --content <markup> [--day <yyyy-mm-dd | n>] --device <id>
//       appends a paragraph of <type> ("step", "section", "normal", "bullet", "number", "code", "note",
//       "warning", "error", "attachment", "table") at the end, or under the calendar day yyyy-mm-dd or the
//       relative day n (made where it belongs when the document does not have it yet); prints its UUID
//   quillon doc show <package>     the document's text dump
//   quillon doc json <package>     {"kind", "metadata", "paragraphs": [{"uuid", "info"}]}, values in the
//                                  JSON form of `quillon store`
//
// `show` and `json` open the package read-only and create nothing in it. Every argument is checked before
// the package is opened for writing, so a command that fails changes nothing; errors go to standard error
// with exit status 1.
#include "cli/DocCommand.h"

#include "cli/StoreCommand.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"

#include <CLI/CLI.hpp>
#include <QDate>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTimeZone>

#include <iostream>

namespace {

[[noreturn]] void failCommand(const QString& message) {
    std::cerr << "quillon doc: " << message.toStdString() << std::endl;
    throw CLI::RuntimeError(1);
}

QString absolutePath(const std::string& path) {
    return QDir::cleanPath(QFileInfo(QString::fromStdString(path)).absoluteFilePath());
}

QString checkedDevice(const std::string& device) {
    const QString deviceIdentifier = QString::fromStdString(device);
    if (!OAKStore::isValidDeviceIdentifier(deviceIdentifier))
        failCommand(QStringLiteral("not a valid device identifier: \"%1\"").arg(deviceIdentifier));
    return deviceIdentifier;
}

// A document package: a folder named *.nbexperiment or *.nbprotocol holding a "devices" folder.
QString checkedPackage(const std::string& argument) {
    const QString path = absolutePath(argument);
    const QString extension = QFileInfo(path).suffix();
    if (!QFileInfo::exists(path))
        failCommand(QStringLiteral("no such package: %1").arg(path));
    if (extension != QLatin1String(kNBExperimentPackageExtension) &&
        extension != QLatin1String(kNBProtocolPackageExtension))
        failCommand(QStringLiteral("not an experiment or protocol package (.%1 or .%2): %3")
                        .arg(QLatin1String(kNBExperimentPackageExtension),
                             QLatin1String(kNBProtocolPackageExtension), path));
    if (!QFileInfo(path + QLatin1Char('/') + QLatin1String(OAKDevicesDirectoryName)).isDir())
        failCommand(QStringLiteral("not a package (no \"%1\" folder): %2")
                        .arg(QLatin1String(OAKDevicesDirectoryName), path));
    return path;
}

std::shared_ptr<NBDocument> open(const QString& path, const QString& deviceIdentifier, bool readOnly) {
    OAKStoreOptions options;
    options.readOnly = readOnly;
    NBError error;
    std::shared_ptr<NBDocument> document =
        NBDocument::openDocumentAtPath(path, deviceIdentifier, options, &error);
    if (!document)
        failCommand(error.localizedDescription());
    return document;
}

NBDay parseDay(const QString& text) {
    static const QRegularExpression calendar(QStringLiteral("^(\\d{4})-(\\d{2})-(\\d{2})$"));
    static const QRegularExpression relative(QStringLiteral("^[+-]?\\d{1,9}$"));
    if (const QRegularExpressionMatch match = calendar.match(text); match.hasMatch()) {
        const QDate date(match.captured(1).toInt(), match.captured(2).toInt(), match.captured(3).toInt());
        if (date.isValid()) {
            const NBDay day = NBDay::calendarDayWithDateInGMTTimeZone(QDateTime(date, QTime(12, 0), Qt::UTC));
            if (!day.isNull())
                return day;
        }
    } else if (relative.match(text).hasMatch()) {
        return NBDay::relativeDayWithInteger(text.toLongLong());
    }
    failCommand(QStringLiteral("not a day (yyyy-mm-dd or a relative day number): \"%1\"").arg(text));
}

NBParagraph paragraphOfType(const QString& type, const QString& content) {
    static const QHash<QString, NBParagraph (*)(const QString&)> makers = {
        {QStringLiteral("section"), &NBParagraph::sectionParagraphWithTitle},
        {QStringLiteral("normal"), &NBParagraph::normalParagraphWithContent},
        {QStringLiteral("code"), &NBParagraph::codeParagraphWithContent},
        {QStringLiteral("note"), &NBParagraph::noteParagraphWithContent},
        {QStringLiteral("warning"), &NBParagraph::warningParagraphWithContent},
        {QStringLiteral("error"), &NBParagraph::errorParagraphWithContent},
    };
    if (const auto maker = makers.constFind(type); maker != makers.constEnd())
        return (*maker)(content);
    if (type == QLatin1String(kNBParagraphTypeStep))
        return NBParagraph::stepParagraphWithTitle(content, QString(), QString());
    if (type == QLatin1String(kNBParagraphTypeBullet))
        return NBParagraph::bulletParagraphWithContent(content, 0);
    if (type == QLatin1String(kNBParagraphTypeNumber))
        return NBParagraph::numberParagraphWithContent(content, 0);
    if (type == QLatin1String(kNBParagraphTypeAttachment))
        return NBParagraph::attachmentParagraphWithContent(content, QString());
    if (type == QLatin1String(kNBParagraphTypeTable)) {
        NBParagraph table = NBParagraph::tableParagraphWithRows({});
        table.setContent(content);
        return table;
    }
    failCommand(QStringLiteral("not a paragraph type that can be appended: \"%1\" (days are made with --day)")
                    .arg(type));
}

void print(const QString& text) {
    std::cout << text.toStdString() << std::endl;
}

void runNew(const std::string& kind, const std::string& folder, const std::string& title,
            const std::string& device) {
    const QString deviceIdentifier = checkedDevice(device);
    const QString folderPath = absolutePath(folder);
    if (QFileInfo::exists(folderPath) && !QFileInfo(folderPath).isDir())
        failCommand(QStringLiteral("not a folder: %1").arg(folderPath));
    NBError error;
    std::shared_ptr<NBDocument> document;
    if (kind == "experiment")
        document = NBExperiment::newExperimentInFolder(folderPath, deviceIdentifier,
                                                       QString::fromStdString(title), &error);
    else if (kind == "protocol")
        document = NBProtocol::newProtocolInFolder(folderPath, deviceIdentifier,
                                                   QString::fromStdString(title), &error);
    else
        failCommand(QStringLiteral("not a kind of document (experiment or protocol): \"%1\"")
                        .arg(QString::fromStdString(kind)));
    if (!document)
        failCommand(error.localizedDescription());
    const QString path = document->storePath();
    document->tearDownNow();
    print(path);
}

void runAppend(const std::string& package, const std::string& type, const std::string& content,
               const std::string& dayText, bool hasDay, const std::string& device) {
    const QString deviceIdentifier = checkedDevice(device);
    const QString path = checkedPackage(package);
    const NBParagraph paragraph =
        paragraphOfType(QString::fromStdString(type), QString::fromStdString(content));
    const NBDay day = hasDay ? parseDay(QString::fromStdString(dayText)) : NBDay();
    std::shared_ptr<NBDocument> document = open(path, deviceIdentifier, false);
    if (hasDay)
        document->appendParagraph(paragraph, day);
    else
        document->appendParagraph(paragraph);
    NBError error;
    const bool saved = document->saveNow(&error);
    document->tearDownNow();
    if (!saved)
        failCommand(error.localizedDescription());
    print(paragraph.uuid());
}

void runShow(const std::string& package) {
    std::shared_ptr<NBDocument> document = open(checkedPackage(package), QString(), true);
    std::cout << document->contentDump().toStdString();
    document->tearDownNow();
}

void runJSON(const std::string& package) {
    std::shared_ptr<NBDocument> document = open(checkedPackage(package), QString(), true);
    QString out = QStringLiteral("{\"kind\":");
    out += document->isExperiment() ? QStringLiteral("\"experiment\"") : QStringLiteral("\"protocol\"");
    out += QStringLiteral(",\"metadata\":") + storeJSONFromPropertyList(document->metadata());
    out += QStringLiteral(",\"paragraphs\":[");
    bool first = true;
    for (const NBParagraph& paragraph : document->paragraphs()) {
        if (!std::exchange(first, false))
            out += QLatin1Char(',');
        out += QStringLiteral("{\"uuid\":") + storeJSONFromPropertyList(paragraph.uuid()) +
               QStringLiteral(",\"info\":") + storeJSONFromPropertyList(paragraph.info()) + QLatin1Char('}');
    }
    print(out + QStringLiteral("]}"));
    document->tearDownNow();
}

} // namespace

void addDocCommand(CLI::App& app) {
    CLI::App* doc =
        app.add_subcommand("doc", "Create, append to and inspect experiment and protocol packages.");
    doc->require_subcommand(1);

    struct Arguments {
        std::string kind, folder, title, device, package, type, content, day;
    };
    auto arguments = std::make_shared<Arguments>();

    CLI::App* create =
        doc->add_subcommand("new", "Create an experiment or a protocol; prints its package path.");
    create->add_option("kind", arguments->kind, "experiment or protocol")->required();
    create->add_option("folder", arguments->folder, "The folder to create the package in")->required();
    create->add_option("--title", arguments->title, "The document's title")->required();
    create->add_option("--device", arguments->device, "The writing device's identifier")->required();
    create->callback(
        [arguments] { runNew(arguments->kind, arguments->folder, arguments->title, arguments->device); });

    CLI::App* append = doc->add_subcommand("append", "Append a paragraph, at the end or under a day.");
    append->add_option("package", arguments->package, "The document package")->required();
    append->add_option("--type", arguments->type, "The paragraph type (step, normal, note, ...)")->required();
    append->add_option("--content", arguments->content, "The content in styled-text markup")->required();
    CLI::Option* day = append->add_option("--day", arguments->day, "yyyy-mm-dd or a relative day number");
    append->add_option("--device", arguments->device, "The writing device's identifier")->required();
    append->callback([arguments, day] {
        runAppend(arguments->package, arguments->type, arguments->content, arguments->day, day->count() > 0,
                  arguments->device);
    });

    CLI::App* show = doc->add_subcommand("show", "Print the document's text dump (read-only).");
    show->add_option("package", arguments->package, "The document package")->required();
    show->callback([arguments] { runShow(arguments->package); });

    CLI::App* json = doc->add_subcommand("json", "Print metadata and paragraphs as JSON (read-only).");
    json->add_option("package", arguments->package, "The document package")->required();
    json->callback([arguments] { runJSON(arguments->package); });
}
