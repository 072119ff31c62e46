// `quillon library`, `new`, `delete`, `restore` and `sync`: the library from the command line, as JSON.
//
//   quillon library init                 sets the library up (creating it when new); prints its root, device
//                                        identifier, whether it is new, and its buckets
//   quillon library info                 what Info.plist says, the synchronised folders, and which program
//                                        has the library open (read-only: works while another has it open)
//   quillon library add-folder PATH      shares documents through a synchronised folder (created if missing)
//   quillon library remove-folder PATH   stops using a synchronised folder (its files stay)
//   quillon library devices              the device information of every bucket (read-only)
//   quillon new experiment|protocol --title T [--author A] [--folder PATH]
//                                        a new document in the local bucket or the synchronised folder given;
//                                        prints its UUID and package path
//   quillon delete UUID / restore UUID   moves a document to the trash and back
//   quillon sync                         reads every other device's manifest now and waits until the
//                                        services have processed what changed
// Every command takes --library PATH (default: the default library, ~/Documents/Quillon). The writing
// commands run the library's controllers, so they refuse to run while another program has the library open;
// a library that cannot be set up prints the error to standard error and exits with status 1.
#include "cli/LibraryCommand.h"

#include "document/NBDocument.h"
#include "foundation/NBPropertyList.h"
#include "library/NBBucket.h"
#include "library/NBDevice.h"
#include "library/NBDocumentsController.h"
#include "library/NBLibraryLock.h"
#include "library/NBLibraryManager.h"

#include <CLI/CLI.hpp>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>

#include <iostream>

namespace {

[[noreturn]] void failCommand(const QString& message) {
    std::cerr << "quillon: " << message.toStdString() << std::endl;
    throw CLI::RuntimeError(1);
}

void printJSON(const QJsonValue& value) {
    const QByteArray text = value.isObject() ? QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact)
                                             : QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    std::cout << text.toStdString() << std::endl;
}

QString libraryRoot(const std::string& path) {
    if (path.empty())
        return NBLibraryManager::defaultRootPathForDefaultManager();
    return NBLibraryManager::standardizedPath(QString::fromStdString(path));
}

// Runs a library for a writing command: set up, the work, everything finished, torn down.
class OpenLibrary {
public:
    explicit OpenLibrary(const std::string& path) {
        // The library's progress notes are for logs, not for a script reading standard output or error.
        QLoggingCategory::setFilterRules(QStringLiteral("quillon.library.info=false"));
        manager_ = NBLibraryManager::sharedManagerWithRootPath(libraryRoot(path));
        NBError error;
        if (!manager_ || !manager_->setUpWithError(&error)) {
            if (manager_)
                manager_->tearDownWithError();
            failCommand(error.localizedDescription());
        }
    }
    ~OpenLibrary() { close(); }
    void close() {
        if (!manager_)
            return;
        manager_->waitUntilFinished();
        NBError error;
        const bool tornDown = manager_->tearDownWithError(&error);
        manager_.reset();
        if (!tornDown)
            std::cerr << "quillon: " << error.localizedDescription().toStdString() << std::endl;
    }
    NBLibraryManager& operator*() const { return *manager_; }
    NBLibraryManager* operator->() const { return manager_.get(); }

private:
    std::shared_ptr<NBLibraryManager> manager_;
};

QJsonObject bucketJSON(const NBBucket& bucket) {
    return QJsonObject{{QStringLiteral("type"), bucket.bucketType() == kNBBucketTypeLocal
                                                    ? QStringLiteral("local")
                                                    : QStringLiteral("folder")},
                       {QStringLiteral("path"), bucket.absolutePath()},
                       {QStringLiteral("documents"), qint64(bucket.registeredDocumentCount())},
                       {QStringLiteral("devices"), QJsonArray::fromStringList(bucket.deviceIdentifiers())}};
}

QJsonArray bucketsJSON(NBLibraryManager& manager) {
    QJsonArray buckets;
    const auto documents = manager.documentsController();
    for (const auto& bucket : documents->buckets())
        buckets << bucketJSON(*bucket);
    for (const QString& path : documents->unavailableSynchronisedFolderPaths())
        buckets << QJsonObject{{QStringLiteral("type"), QStringLiteral("folder")},
                               {QStringLiteral("path"), path},
                               {QStringLiteral("available"), false}};
    return buckets;
}

QJsonValue jsonFromPropertyList(const QVariant& value) {
    if (value.typeId() == QMetaType::QDateTime)
        return value.toDateTime().toUTC().toString(Qt::ISODate);
    if (value.typeId() == QMetaType::QByteArray)
        return QString::fromLatin1(value.toByteArray().toBase64());
    if (value.typeId() == QMetaType::QVariantList) {
        QJsonArray array;
        for (const QVariant& element : value.toList())
            array << jsonFromPropertyList(element);
        return array;
    }
    if (value.typeId() == QMetaType::QVariantMap) {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry)
            object.insert(entry.key(), jsonFromPropertyList(entry.value()));
        return object;
    }
    return QJsonValue::fromVariant(value);
}

// Info.plist as it is on disk, read without running the library.
QVariantMap readInfo(const QString& root) {
    QFile file(QDir(root).filePath(QStringLiteral("%1/%2").arg(
        QString::fromUtf8(kNBPersistentInfoDirectoryName), QString::fromUtf8(kNBLibraryInfoFileName))));
    if (!file.open(QIODevice::ReadOnly))
        failCommand(QStringLiteral("no library at path %1 (%2)").arg(root, file.errorString()));
    NBError error;
    const std::optional<QVariant> value = propertyListWithData(file.readAll(), &error);
    if (!value || value->typeId() != QMetaType::QVariantMap)
        failCommand(QStringLiteral("the library information file %1 could not be read: %2")
                        .arg(file.fileName(), error.localizedDescription()));
    return value->toMap();
}

QStringList bucketPaths(const QString& root, const QVariantMap& info) {
    QStringList paths{QDir(root).filePath(QStringLiteral("%1/%2").arg(
        QString::fromUtf8(kNBLocalDocumentsDirectoryName), QString::fromUtf8(kNBLocalBucketRelativePath)))};
    for (const QVariant& folder :
         info.value(QString::fromUtf8(kNBLibraryInfoSynchronisedFoldersKey)).toList())
        paths << folder.toString();
    return paths;
}

void runInit(const std::string& library) {
    OpenLibrary manager(library);
    printJSON(QJsonObject{{QStringLiteral("root"), manager->rootPath()},
                          {QStringLiteral("deviceIdentifier"), manager->deviceIdentifier()},
                          {QStringLiteral("isNew"), manager->isNew()},
                          {QStringLiteral("buckets"), bucketsJSON(*manager)}});
}

void runInfo(const std::string& library) {
    const QString root = libraryRoot(library);
    const QVariantMap info = readInfo(root);
    QJsonObject object{{QStringLiteral("root"), root}};
    for (auto entry = info.cbegin(); entry != info.cend(); ++entry)
        object.insert(entry.key().left(1).toLower() + entry.key().mid(1),
                      jsonFromPropertyList(entry.value()));
    const QString holder = NBLibraryLock::holderOfDirectory(
        QDir(root).filePath(QString::fromUtf8(kNBPersistentInfoDirectoryName)));
    object.insert(QStringLiteral("openIn"), holder.isEmpty() ? QJsonValue() : QJsonValue(holder));
    printJSON(object);
}

void runFolder(const std::string& library, const std::string& folder, bool add) {
    OpenLibrary manager(library);
    NBError error;
    const auto documents = manager->documentsController();
    const QString path = QString::fromStdString(folder);
    if (!(add ? documents->addSynchronisedFolder(path, &error)
              : documents->removeSynchronisedFolder(path, &error)))
        failCommand(error.localizedDescription());
    printJSON(QJsonObject{{QStringLiteral("root"), manager->rootPath()},
                          {QStringLiteral("buckets"), bucketsJSON(*manager)}});
}

void runDevices(const std::string& library) {
    const QString root = libraryRoot(library);
    QJsonArray buckets;
    for (const QString& bucketPath : bucketPaths(root, readInfo(root))) {
        QJsonArray devices;
        const QDir infoDirectory(QDir(bucketPath).filePath(QString::fromUtf8(kNBBucketInfoDirectoryName)));
        for (const QString& name :
             infoDirectory.entryList({QStringLiteral("*.plist")}, QDir::Files, QDir::Name))
            if (const auto device = NBDevice::deviceInfoWithContentsOfFile(infoDirectory.filePath(name)))
                devices << jsonFromPropertyList(device->dictionaryRepresentation());
        buckets << QJsonObject{{QStringLiteral("path"), bucketPath}, {QStringLiteral("devices"), devices}};
    }
    printJSON(buckets);
}

void runNew(const std::string& library, const std::string& kind, const std::string& title,
            const std::string& author, const std::string& folder) {
    if (kind != "experiment" && kind != "protocol")
        failCommand(QStringLiteral("not a kind of document (experiment or protocol): \"%1\"")
                        .arg(QString::fromStdString(kind)));
    OpenLibrary manager(library);
    const auto documents = manager->documentsController();
    std::shared_ptr<NBBucket> bucket;
    if (!folder.empty()) {
        bucket = documents->bucketWithAbsolutePath(QString::fromStdString(folder));
        if (!bucket)
            failCommand(
                QStringLiteral("not a synchronised folder of the library: %1 (add it with `quillon library "
                               "add-folder`)")
                    .arg(NBLibraryManager::standardizedPath(QString::fromStdString(folder))));
    }
    NBError error;
    const auto document =
        kind == "experiment"
            ? documents->newExperimentWithTitle(QString::fromStdString(title), QString::fromStdString(author),
                                                bucket, &error)
            : documents->newProtocolWithTitle(QString::fromStdString(title), QString::fromStdString(author),
                                              bucket, &error);
    if (!document)
        failCommand(error.localizedDescription());
    const QString uuid = document->uuid();
    const QString path = document->storePath();
    documents->releasedDocumentWithUUID(uuid);
    manager.close();
    printJSON(QJsonObject{{QStringLiteral("uuid"), uuid},
                          {QStringLiteral("kind"), QString::fromStdString(kind)},
                          {QStringLiteral("path"), path}});
}

void runTrash(const std::string& library, const std::string& uuidText, bool remove) {
    OpenLibrary manager(library);
    const QString uuid = QString::fromStdString(uuidText).toUpper();
    NBError error;
    const auto documents = manager->documentsController();
    if (!(remove ? documents->deleteDocumentWithUUID(uuid, &error)
                 : documents->restoreDocumentWithUUID(uuid, &error)))
        failCommand(error.localizedDescription());
    manager.close();
    printJSON(QJsonObject{{QStringLiteral("uuid"), uuid}, {QStringLiteral("deleted"), remove}});
}

void runSync(const std::string& library) {
    OpenLibrary manager(library);
    manager->documentsController()->syncNow();
    manager->waitUntilFinished();
    QJsonArray trash;
    for (const QString& uuid : manager->documentsController()->trashedDocumentUUIDs())
        trash << uuid;
    printJSON(QJsonObject{{QStringLiteral("root"), manager->rootPath()},
                          {QStringLiteral("buckets"), bucketsJSON(*manager)},
                          {QStringLiteral("trash"), trash}});
}

} // namespace

void addLibraryCommands(CLI::App& app) {
    struct Arguments {
        std::string library, folder, kind, title, author, uuid;
    };
    auto arguments = std::make_shared<Arguments>();
    auto withLibrary = [arguments](CLI::App* command) {
        command->add_option("--library", arguments->library,
                            "The library's root folder (default: ~/Documents/Quillon)");
        return command;
    };

    CLI::App* library =
        app.add_subcommand("library", "Set up and inspect a library and its synchronised folders.");
    library->require_subcommand(1);
    withLibrary(library->add_subcommand("init", "Set the library up, creating it when new."))
        ->callback([arguments] { runInit(arguments->library); });
    withLibrary(library->add_subcommand("info", "Print the library's information (read-only)."))
        ->callback([arguments] { runInfo(arguments->library); });
    CLI::App* add =
        withLibrary(library->add_subcommand("add-folder", "Share documents through a synchronised folder."));
    add->add_option("path", arguments->folder, "The folder")->required();
    add->callback([arguments] { runFolder(arguments->library, arguments->folder, true); });
    CLI::App* remove =
        withLibrary(library->add_subcommand("remove-folder", "Stop using a synchronised folder."));
    remove->add_option("path", arguments->folder, "The folder")->required();
    remove->callback([arguments] { runFolder(arguments->library, arguments->folder, false); });
    withLibrary(library->add_subcommand("devices", "Print the devices of every bucket (read-only)."))
        ->callback([arguments] { runDevices(arguments->library); });

    CLI::App* create =
        withLibrary(app.add_subcommand("new", "Create an experiment or a protocol in the library."));
    create->add_option("kind", arguments->kind, "experiment or protocol")->required();
    create->add_option("--title", arguments->title, "The title")->required();
    create->add_option("--author", arguments->author, "The author (default: the library's owner)");
    create->add_option("--folder", arguments->folder,
                       "A synchronised folder of the library (default: local)");
    create->callback([arguments] {
        runNew(arguments->library, arguments->kind, arguments->title, arguments->author, arguments->folder);
    });
    CLI::App* deleteCommand = withLibrary(app.add_subcommand("delete", "Move a document to the trash."));
    deleteCommand->add_option("uuid", arguments->uuid, "The document's UUID")->required();
    deleteCommand->callback([arguments] { runTrash(arguments->library, arguments->uuid, true); });
    CLI::App* restore = withLibrary(app.add_subcommand("restore", "Take a document out of the trash."));
    restore->add_option("uuid", arguments->uuid, "The document's UUID")->required();
    restore->callback([arguments] { runTrash(arguments->library, arguments->uuid, false); });
    withLibrary(
        app.add_subcommand("sync", "Read the other devices' changes now and update the derived data."))
        ->callback([arguments] { runSync(arguments->library); });
}
