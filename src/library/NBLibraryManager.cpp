// The library manager: the cache of managers, set-up and tear-down, Info.plist, owner and built-in
// protocols.
#include "library/NBLibraryManager.h"

#include "document/NBProtocol.h"
#include "foundation/NBLogging.h"
#include "foundation/NBNotificationCenter.h"
#include "foundation/NBPropertyList.h"
#include "library/NBBucket.h"
#include "library/NBDocumentsController.h"
#include "library/NBFileKeeper.h"
#include "library/NBHardLinkController.h"
#include "library/NBLibraryLock.h"
#include "library/NBLibraryLogging.h"
#include "library/NBMarkdownImporter.h"
#include "library/NBRevisionController.h"
#include "library/NBSearchController.h"
#include "library/NBThumbnailController.h"
#include "library/NBTimerController.h"
#include "library/NBUIDatabaseController.h"
#include "library/NBUIStateController.h"
#include "library/NBiCloudController.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUuid>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct ManagerCache {
    std::shared_ptr<OAKDispatchQueue> queue = OAKDispatchQueue::dispatchQueueWithLabel(
        OAKDispatchQueue::labelByPrependingBundleIdentifierToString(QStringLiteral("NBManagerCacheQueue")));
    QHash<QString, std::shared_ptr<NBLibraryManager>> managers;
    std::shared_ptr<NBLibraryManager> defaultManager;
};

ManagerCache& managerCache() {
    // Never destroyed: managers may still be torn down from static destructors at exit.
    static ManagerCache* cache = new ManagerCache();
    return *cache;
}

std::mutex& resourcesMutex() {
    static std::mutex mutex;
    return mutex;
}

QString& resourcesOverride() {
    static QString path;
    return path;
}

const char* const kManagerDomain = "NBLibraryManager";

// A one-shot result that a waiter may give up on: whoever finishes later finds the state still alive.
template <typename Value> struct Waiting {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<Value> value;
    void set(Value newValue) {
        std::lock_guard lock(mutex);
        value = std::move(newValue);
        changed.notify_all();
    }
    std::optional<Value> waitFor(double seconds) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return value.has_value(); });
        return value;
    }
};

} // namespace

// MARK: - The cache

QString NBLibraryManager::standardizedPath(const QString& path) {
    if (path.isEmpty())
        return QString();
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

NBLibraryManager::NBLibraryManager(ConstructionToken, const QString& rootPath)
    : rootPath_(rootPath), managerQueue_(OAKDispatchQueue::dispatchQueueWithLabel(
                               OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
                                   nbFormat("NBLibraryManager.%@", QFileInfo(rootPath).fileName())))),
      fileKeeper_(std::make_shared<NBLocalFileKeeper>()) {}

NBLibraryManager::~NBLibraryManager() = default;

std::shared_ptr<NBLibraryManager> NBLibraryManager::sharedManagerWithRootPath(const QString& path) {
    const QString standardized = standardizedPath(path);
    if (standardized.isEmpty())
        return nullptr;
    std::shared_ptr<NBLibraryManager> manager;
    ManagerCache& cache = managerCache();
    cache.queue->dispatchSynchronously([&] {
        manager = cache.managers.value(standardized);
        if (!manager) {
            manager = std::make_shared<NBLibraryManager>(ConstructionToken(), standardized);
            cache.managers.insert(standardized, manager);
        }
    });
    return manager;
}

std::shared_ptr<NBLibraryManager> NBLibraryManager::cachedManagerWithRootPath(const QString& path) {
    const QString standardized = standardizedPath(path);
    std::shared_ptr<NBLibraryManager> manager;
    ManagerCache& cache = managerCache();
    cache.queue->dispatchSynchronously([&] { manager = cache.managers.value(standardized); });
    return manager;
}

void NBLibraryManager::unregisterSharedManager(const std::shared_ptr<NBLibraryManager>& manager) {
    if (!manager)
        return;
    ManagerCache& cache = managerCache();
    cache.queue->dispatchSynchronously([&] {
        const QString key = standardizedPath(manager->rootPath());
        if (cache.managers.value(key) == manager)
            cache.managers.remove(key);
    });
}

QString NBLibraryManager::defaultRootPathForDefaultManager() {
    // XDG's documents folder (XDG_DOCUMENTS_DIR, usually ~/Documents).
    return QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation))
        .filePath(QString::fromUtf8(kNBLibraryName));
}

std::shared_ptr<NBLibraryManager> NBLibraryManager::defaultManager() {
    return defaultManagerWithRootPath(defaultRootPathForDefaultManager());
}

std::shared_ptr<NBLibraryManager> NBLibraryManager::defaultManagerWithRootPath(const QString& path) {
    ManagerCache& cache = managerCache();
    std::shared_ptr<NBLibraryManager> existing;
    cache.queue->dispatchSynchronously([&] { existing = cache.defaultManager; });
    if (existing && existing->defaultPath_ != path) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("ERROR: cannot create default library manager with library root "
                        "path '%@' because it was previously created with path '%@'",
                        path, existing->defaultPath_);
        return nullptr;
    }
    std::shared_ptr<NBLibraryManager> manager = sharedManagerWithRootPath(path);
    if (!manager)
        return nullptr;
    cache.queue->dispatchSynchronously([&] {
        if (cache.defaultManager && cache.defaultManager->defaultPath_ != path) {
            manager = nullptr; // another caller made a different default meanwhile
            return;
        }
        // After a tear-down the cache holds a new manager for the same path, which becomes the default.
        manager->defaultPath_ = path;
        cache.defaultManager = manager;
    });
    return manager;
}

std::shared_ptr<NBLibraryManager> NBLibraryManager::cachedDefaultManager() {
    ManagerCache& cache = managerCache();
    std::shared_ptr<NBLibraryManager> manager;
    cache.queue->dispatchSynchronously([&] { manager = cache.defaultManager; });
    return manager;
}

// MARK: - State

QString NBLibraryManager::deviceIdentifier() const {
    std::lock_guard lock(stateMutex_);
    return deviceIdentifier_;
}

bool NBLibraryManager::isSetUp() const {
    std::lock_guard lock(stateMutex_);
    return isSetUp_;
}

std::optional<NBError> NBLibraryManager::setupError() const {
    std::lock_guard lock(stateMutex_);
    return setupError_;
}

bool NBLibraryManager::isNew() const {
    std::lock_guard lock(stateMutex_);
    return isNew_;
}

void NBLibraryManager::setTimings(const NBLibraryTimings& timings) {
    std::lock_guard lock(stateMutex_);
    timings_ = timings;
}

NBLibraryTimings NBLibraryManager::timings() const {
    std::lock_guard lock(stateMutex_);
    return timings_;
}

void NBLibraryManager::setAdditionalServicesFactory(NBAdditionalServicesFactory factory) {
    std::lock_guard lock(stateMutex_);
    additionalServicesFactory_ = std::move(factory);
}

void NBLibraryManager::setResourcesDirectory(const QString& path) {
    std::lock_guard lock(resourcesMutex());
    resourcesOverride() = path;
}

QString NBLibraryManager::resourcesDirectory() {
    {
        std::lock_guard lock(resourcesMutex());
        if (!resourcesOverride().isEmpty())
            return resourcesOverride();
    }
    // Installed programs keep their resources in <prefix>/share/quillon beside <prefix>/bin.
    if (!QCoreApplication::instance())
        return QString();
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/quillon"));
}

bool NBLibraryManager::checkManagerQueue(const char* method) const {
    if (managerQueue_->isInCurrentQueueStack())
        return true;
    nbRaiseAssertion(lcLibrary(), nbFormat("%@:%@ should only be called from within the manager queue",
                                           className(), QString::fromUtf8(method)));
    return false;
}

// MARK: - Set-up

void NBLibraryManager::setUpWithCompletionHandler(NBErrorHandler completionHandler) {
    managerQueue_->dispatchAsynchronously([self = shared_from_this(), completionHandler] {
        const std::optional<NBError> error = self->_setUpOrReturnError();
        if (completionHandler)
            OAKDispatchQueue::globalDispatchQueue()->dispatchAsynchronously(
                [completionHandler, error] { completionHandler(error); });
    });
}

bool NBLibraryManager::setUpWithError(NBError* outError) {
    std::optional<NBError> error;
    managerQueue_->dispatchSynchronously([&] { error = _setUpOrReturnError(); });
    if (error)
        return nbFail(outError, *error);
    return true;
}

std::optional<NBError> NBLibraryManager::_setUpOrReturnError() {
    if (!checkManagerQueue("_setUpOrReturnError"))
        return std::nullopt;
    {
        std::lock_guard lock(stateMutex_);
        if (isSetUp_)
            return setupError_;
    }
    std::optional<NBError> error = setUpPaths();
    if (!error)
        error = setUpControllers();
    if (!error) {
        setUpBuiltInProtocols();
        {
            std::lock_guard lock(stateMutex_);
            isSetUp_ = true;
        }
        for (const QString& name : subcontrollerPropertyNames())
            if (const auto controller = subcontrollersByPropertyNames().value(name))
                controller->awakeFromLibrarySetUp();
        for (const auto& service : additionalServices_)
            service->awakeFromLibrarySetUp();
        qCInfo(lcLibrary).noquote() << nbFormat(
            "Quillon Library ready with device identifier '%@' and path '%@'", deviceIdentifier(), rootPath_);
        OAKDispatchQueue::mainDispatchQueue()->dispatchAsynchronously([self = shared_from_this()] {
            NBNotificationCenter::defaultCenter().postNotificationName(
                QString::fromUtf8(NBLibaryIsReadyNotification), self.get());
        });
        return std::nullopt;
    }
    const NBError wrapped = NBError::errorWithObject(
        kManagerDomain, error->code(),
        nbFormat("Could not set up the Quillon library at path %@ because of error: %@", rootPath_,
                 error->localizedDescription()),
        QString(), QString(), &*error);
    qCWarning(lcLibrary).noquote() << wrapped.localizedDescription();
    std::lock_guard lock(stateMutex_);
    isSetUp_ = true;
    setupError_ = wrapped;
    return wrapped;
}

std::optional<NBError> NBLibraryManager::createDirectory(const QString& path,
                                                         const QString& description) const {
    if (path.isEmpty())
        return NBError::errorWithObject(
            kManagerDomain, kNBLibraryManagerErrorNilDirectoryPath,
            nbFormat("The directory for %@ cannot be created with a nil path", description));
    const QFileInfo info(path);
    if (info.exists() && !info.isDir())
        return NBError::errorWithObject(
            kManagerDomain, kNBLibraryManagerErrorNotADirectory,
            nbFormat("The directory for %@ already exists but is not a directory at path '%@'", description,
                     path));
    if (info.isDir())
        return std::nullopt;
    // Made one level at a time so that the file system's own error for the level that failed is returned.
    QStringList missing;
    for (QString level = path; !level.isEmpty() && !QFileInfo(level).exists();
         level = QFileInfo(level).path()) {
        missing.prepend(level);
        if (level == QFileInfo(level).path())
            break;
    }
    for (const QString& level : missing) {
        if (::mkdir(QFile::encodeName(level).constData(), 0755) != 0 && errno != EEXIST) {
            const int errorNumber = errno;
            return NBError::errorWithObject("NBFileSystem", errorNumber,
                                            nbFormat("Could not create the folder at path '%@': %@", level,
                                                     QString::fromLocal8Bit(std::strerror(errorNumber))));
        }
    }
    if (!QFileInfo(path).isDir())
        return NBError::errorWithObject(
            kManagerDomain, kNBLibraryManagerErrorCreateDirectory,
            nbFormat("The directory for %@ could not be created at path '%@'", description, path));
    return std::nullopt;
}

bool NBLibraryManager::writeInfo(const QVariantMap& info, NBError* outError) const {
    NBError error;
    const std::optional<QByteArray> data = dataWithPropertyList(info, NBPropertyListFormat::XML, &error);
    if (!data)
        return nbFail(outError, error);
    QSaveFile file(infoPlistPath());
    if (!file.open(QIODevice::WriteOnly) || file.write(*data) != data->size() || !file.commit())
        return nbFail(outError, NBError::errorWithObject("NBFileSystem", 0, file.errorString()));
    return true;
}

QStringList NBLibraryManager::stringList(const QVariant& value) {
    QStringList list;
    for (const QVariant& element : value.toList())
        if (element.typeId() == QMetaType::QString)
            list << element.toString();
    return list;
}

QStringList NBLibraryManager::collectBuiltInProtocolUUIDs() const {
    QStringList uuids;
    const QDir directory(
        QDir(resourcesDirectory()).filePath(QString::fromUtf8(kNBBuiltInProtocolsDirectoryName)));
    if (resourcesDirectory().isEmpty() || !directory.exists())
        return uuids;
    for (const QFileInfo& file : directory.entryInfoList(QDir::Files, QDir::Name))
        if (file.suffix() == QLatin1String(kNBBuiltInProtocolExtension))
            uuids << file.completeBaseName();
    return uuids;
}

std::optional<NBError> NBLibraryManager::setUpPaths() {
    if (auto error = createDirectory(rootPath_, QStringLiteral("the library")))
        return error;
    if (auto error = createDirectory(persistentInfoDirectory(), QStringLiteral("persistent info")))
        return error;
    const QStringList builtIn = collectBuiltInProtocolUUIDs();
    const QString infoPath = infoPlistPath();
    const QFileInfo info(infoPath);
    QVariantMap cachedInfo;
    QStringList builtInUUIDs;
    bool isNew = false;
    if (!info.exists() && !info.isSymLink()) {
        isNew = true;
        cachedInfo = {
            {QString::fromUtf8(kNBLibraryInfoDeviceIdentifierKey),
             QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()},
            {QString::fromUtf8(kNBLibraryInfoCreationDateKey), QDateTime::currentDateTimeUtc()},
            {QString::fromUtf8(kNBLibraryInfoBuiltInProtocolUUIDsKey), QVariant(builtIn).toList()},
        };
        NBError error;
        if (!writeInfo(cachedInfo, &error))
            return NBError::errorWithObject(kManagerDomain, kNBLibraryManagerErrorSaveInfo,
                                            QStringLiteral("Info.plist could not be saved to disk"),
                                            error.localizedDescription(), QString(), &error);
        builtInUUIDs = builtIn;
    } else if (info.isDir()) {
        return NBError::errorWithObject(kManagerDomain, kNBLibraryManagerErrorInfoIsDirectory,
                                        QStringLiteral("The Info.plist path is a directory"));
    } else {
        QFile file(infoPath);
        NBError error;
        std::optional<QVariant> value;
        if (file.open(QIODevice::ReadOnly))
            value = propertyListWithData(file.readAll(), &error);
        else
            error = NBError::errorWithObject("NBFileSystem", 0, file.errorString());
        if (!value || value->typeId() != QMetaType::QVariantMap)
            return NBError::errorWithObject(kManagerDomain, kNBLibraryManagerErrorReadInfo,
                                            QStringLiteral("Info.plist could not be read"),
                                            error.localizedDescription(), QString(),
                                            error.isNull() ? nullptr : &error);
        cachedInfo = value->toMap();
        const QVariant identifier = cachedInfo.value(QString::fromUtf8(kNBLibraryInfoDeviceIdentifierKey));
        if (identifier.typeId() != QMetaType::QString ||
            !OAKStore::isValidDeviceIdentifier(identifier.toString()))
            return NBError::errorWithObject(
                kManagerDomain, kNBLibraryManagerErrorNoDeviceIdentifier,
                QStringLiteral("Info.plist did not contain a valid device identifier"));
        builtInUUIDs = stringList(cachedInfo.value(QString::fromUtf8(kNBLibraryInfoBuiltInProtocolUUIDsKey)));
        const qsizetype known = builtInUUIDs.size();
        for (const QString& uuid : builtIn)
            if (!builtInUUIDs.contains(uuid))
                builtInUUIDs << uuid;
        if (builtInUUIDs.size() != known) {
            cachedInfo.insert(QString::fromUtf8(kNBLibraryInfoBuiltInProtocolUUIDsKey),
                              QVariant(builtInUUIDs).toList());
            NBError writeError;
            if (!writeInfo(cachedInfo, &writeError))
                qCWarning(lcLibrary).noquote()
                    << nbFormat("ERROR: could not save Info.plist at path '%@' with content:\n%@", infoPath,
                                propertyListDescription(cachedInfo));
        }
    }
    NBError lockError;
    std::unique_ptr<NBLibraryLock> lock =
        NBLibraryLock::lockDirectory(persistentInfoDirectory(), rootPath_, &lockError);
    if (!lock)
        return lockError;
    if (auto error = createDirectory(localDocumentsDirectory(), QStringLiteral("local document")))
        return error;
    if (auto error = createDirectory(derivedInfoDirectory(), QStringLiteral("derived info")))
        return error;
    cachedInfo_ = cachedInfo;
    builtInProtocolUUIDs_ = builtInUUIDs;
    lock_ = std::move(lock);
    std::lock_guard stateLock(stateMutex_);
    isNew_ = isNew;
    deviceIdentifier_ = cachedInfo.value(QString::fromUtf8(kNBLibraryInfoDeviceIdentifierKey)).toString();
    return std::nullopt;
}

std::optional<NBError> NBLibraryManager::setUpControllers() {
    const auto self = shared_from_this();
    QMap<QString, std::shared_ptr<NBAbstractController>> controllers{
        {QStringLiteral("documentsController"),
         NBAbstractController::controllerWithLibraryManager<NBDocumentsController>(self)},
        {QStringLiteral("revisionController"),
         NBAbstractController::controllerWithLibraryManager<NBRevisionController>(self)},
        {QStringLiteral("uiDatabaseController"),
         NBAbstractController::controllerWithLibraryManager<NBUIDatabaseController>(self)},
        {QStringLiteral("searchController"),
         NBAbstractController::controllerWithLibraryManager<NBSearchController>(self)},
        {QStringLiteral("thumbnailController"),
         NBAbstractController::controllerWithLibraryManager<NBThumbnailController>(self)},
        {QStringLiteral("iCloudController"),
         NBAbstractController::controllerWithLibraryManager<NBiCloudController>(self)},
        {QStringLiteral("hardLinkController"),
         NBAbstractController::controllerWithLibraryManager<NBHardLinkController>(self)},
        {QStringLiteral("uiStateController"),
         NBAbstractController::controllerWithLibraryManager<NBUIStateController>(self)},
        {QStringLiteral("timerController"),
         NBAbstractController::controllerWithLibraryManager<NBTimerController>(self)},
    };
    NBAdditionalServicesFactory factory;
    {
        std::lock_guard lock(stateMutex_);
        subcontrollers_ = controllers;
        factory = additionalServicesFactory_;
    }
    additionalServices_ = factory ? factory(self) : std::vector<std::shared_ptr<NBAbstractController>>();
    std::vector<std::shared_ptr<NBAbstractController>> all;
    for (const QString& name : subcontrollerPropertyNames())
        all.push_back(controllers.value(name));
    all.insert(all.end(), additionalServices_.begin(), additionalServices_.end());
    for (const auto& controller : all)
        if (auto error = controller->setUpAndReturnError())
            return error;
    QMap<QString, std::shared_ptr<NBAbstractController>> services;
    for (const auto& controller : all)
        if (const QString name = controller->serviceName(); !name.isEmpty())
            services.insert(name, controller);
    std::lock_guard lock(stateMutex_);
    servicesByName_ = services;
    return std::nullopt;
}

void NBLibraryManager::setUpBuiltInProtocols() {
    if (const auto revisions = revisionController())
        for (const QString& uuid : revisions->deletedDocumentUUIDsFromAllDevices())
            if (protocolWithUUIDIsBuiltIn(uuid))
                markBuiltInProtocolWithUUIDAsDeleted(uuid);
    const QString resources = resourcesDirectory();
    const QString directory = QDir(resources).filePath(QString::fromUtf8(kNBBuiltInProtocolsDirectoryName));
    if (resources.isEmpty() || !QFileInfo(directory).isDir()) {
        qCInfo(lcLibrary).noquote() << nbFormat("Could not load built-in protocols because there is no "
                                                "directory '%@' in the resources of the main bundle",
                                                directory);
        return;
    }
    for (const QString& name : QDir(directory).entryList(QDir::Files, QDir::Name))
        importBuiltInProtocolFile(QDir(directory).filePath(name));
}

void NBLibraryManager::importBuiltInProtocolFile(const QString& filePath) {
    const QFileInfo file(filePath);
    if (file.suffix() != QLatin1String(kNBBuiltInProtocolExtension))
        return;
    const QString uuid = file.completeBaseName();
    const auto documents = documentsController();
    if (!documents || documents->documentWithUUIDIsRegistered(uuid) || builtInProtocolWithUUIDIsDeleted(uuid))
        return;
    const double wait = timings().builtInProtocolWait;
    auto importer = NBMarkdownImporter::importerWithDocument(std::make_shared<NBProtocol>(),
                                                             QUrl::fromLocalFile(filePath));
    const std::shared_ptr<NBDocument> protocol = importer ? importer->runNow() : nullptr;
    if (!protocol) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("Could not import built-in protocol '%@' from markdown", uuid);
        return;
    }
    const QString title = protocol->title();
    if (protocol->uuid() != uuid) {
        qCWarning(lcLibrary).noquote() << nbFormat("Skipping import of built-in protocol '%@' from markdown, "
                                                   "because of inconsistent UUIDs: expected '%@' "
                                                   "from the file name, but got '%@' after markdown import",
                                                   title, uuid, protocol->uuid());
        return;
    }
    auto imported = std::make_shared<Waiting<QString>>();
    documents->importDocument(protocol, [imported](const QString& resultUUID, const std::optional<NBError>&) {
        imported->set(resultUUID);
    });
    const std::optional<QString> result = imported->waitFor(wait);
    if (!result) {
        qCWarning(lcLibrary).noquote() << nbFormat(
            "Timeout while waiting for library import of built-in protocol '%@' (%@)", title, uuid);
        return;
    }
    if (result->isEmpty()) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("Import of built-in protocol '%@' (%@) into library failed", title, uuid);
        return;
    }
    if (*result != uuid) {
        qCWarning(lcLibrary).noquote() << nbFormat("Import of built-in protocol '%@' from markdown resulted "
                                                   "in inconsistent UUIDs: expected '%@' from the file "
                                                   "name, but got '%@' after library import",
                                                   title, uuid, *result);
        return;
    }
    const std::shared_ptr<NBDocument> document = documents->retainedDocumentWithUUID(uuid);
    if (!document) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("Import of built-in protocol '%@' (%@) into library failed", title, uuid);
        return;
    }
    if (const auto database = uiDatabaseController()) {
        auto processed = std::make_shared<Waiting<std::optional<NBError>>>();
        database->processAndSaveAllChangesForDocument(
            document, [processed](const std::optional<NBError>& error) { processed->set(error); });
        const auto outcome = processed->waitFor(wait);
        if (!outcome)
            qCWarning(lcLibrary).noquote() << nbFormat("Timeout while waiting for ui database update after "
                                                       "library import of built-in protocol '%@' (%@)",
                                                       title, uuid);
        else if (*outcome)
            qCWarning(lcLibrary).noquote()
                << nbFormat("Update of UI database for built-in protocol '%@' (%@) failed with error: %@",
                            title, uuid, (*outcome)->localizedDescription());
    }
    documents->releasedDocumentWithUUID(uuid);
}

// MARK: - Tear-down

void NBLibraryManager::tearDownWithCompletionHandler(NBErrorHandler completionHandler) {
    managerQueue_->dispatchAsynchronously([self = shared_from_this(), completionHandler] {
        const std::optional<NBError> error = self->_tearDownOrReturnError();
        if (completionHandler)
            OAKDispatchQueue::globalDispatchQueue()->dispatchAsynchronously(
                [completionHandler, error] { completionHandler(error); });
    });
}

bool NBLibraryManager::tearDownWithError(NBError* outError) {
    std::optional<NBError> error;
    managerQueue_->dispatchSynchronously([&] { error = _tearDownOrReturnError(); });
    if (error)
        return nbFail(outError, *error);
    return true;
}

std::optional<NBError> NBLibraryManager::_tearDownOrReturnError() {
    if (!checkManagerQueue("_tearDownOrReturnError") || !isSetUp())
        return std::nullopt;
    // Info.plist changes queued before the tear-down are written first.
    _saveCachedInfo();
    std::optional<NBError> firstError;
    std::vector<std::shared_ptr<NBAbstractController>> all;
    for (const QString& name : subcontrollerPropertyNames())
        if (const auto controller = subcontrollersByPropertyNames().value(name))
            all.push_back(controller);
    all.insert(all.end(), additionalServices_.begin(), additionalServices_.end());
    for (const auto& controller : all)
        if (auto error = controller->tearDownAndReturnError(); error && !firstError)
            firstError = error;
    additionalServices_.clear();
    lock_.reset();
    {
        std::lock_guard lock(stateMutex_);
        subcontrollers_.clear();
        deviceIdentifier_.clear();
        servicesByName_.clear();
        isSetUp_ = false;
        setupError_.reset();
    }
    unregisterSharedManager(shared_from_this());
    return firstError;
}

void NBLibraryManager::waitUntilFinished() {
    for (int pass = 0; pass < 2; ++pass) {
        const auto controllers = subcontrollersByPropertyNames();
        for (const QString& name : subcontrollerPropertyNames())
            if (const auto controller = controllers.value(name))
                controller->waitUntilFinished();
        std::vector<std::shared_ptr<NBAbstractController>> additional;
        managerQueue_->dispatchSynchronously([&] { additional = additionalServices_; });
        for (const auto& service : additional)
            service->waitUntilFinished();
    }
}

// MARK: - Sub-controllers

const QStringList& NBLibraryManager::subcontrollerPropertyNames() {
    static const QStringList names{
        QStringLiteral("documentsController"),  QStringLiteral("revisionController"),
        QStringLiteral("uiDatabaseController"), QStringLiteral("searchController"),
        QStringLiteral("thumbnailController"),  QStringLiteral("iCloudController"),
        QStringLiteral("hardLinkController"),   QStringLiteral("uiStateController"),
        QStringLiteral("timerController"),
    };
    return names;
}

QMap<QString, std::shared_ptr<NBAbstractController>> NBLibraryManager::subcontrollersByPropertyNames() const {
    std::lock_guard lock(stateMutex_);
    return subcontrollers_;
}

QMap<QString, std::shared_ptr<NBAbstractController>> NBLibraryManager::servicesByName() const {
    std::lock_guard lock(stateMutex_);
    return servicesByName_;
}

namespace {
template <typename Kind>
std::shared_ptr<Kind> subcontroller(const QMap<QString, std::shared_ptr<NBAbstractController>>& controllers,
                                    const char* name) {
    return std::static_pointer_cast<Kind>(controllers.value(QString::fromUtf8(name)));
}
} // namespace

std::shared_ptr<NBDocumentsController> NBLibraryManager::documentsController() const {
    return subcontroller<NBDocumentsController>(subcontrollersByPropertyNames(), "documentsController");
}
std::shared_ptr<NBRevisionController> NBLibraryManager::revisionController() const {
    return subcontroller<NBRevisionController>(subcontrollersByPropertyNames(), "revisionController");
}
std::shared_ptr<NBUIDatabaseController> NBLibraryManager::uiDatabaseController() const {
    return subcontroller<NBUIDatabaseController>(subcontrollersByPropertyNames(), "uiDatabaseController");
}
std::shared_ptr<NBSearchController> NBLibraryManager::searchController() const {
    return subcontroller<NBSearchController>(subcontrollersByPropertyNames(), "searchController");
}
std::shared_ptr<NBThumbnailController> NBLibraryManager::thumbnailController() const {
    return subcontroller<NBThumbnailController>(subcontrollersByPropertyNames(), "thumbnailController");
}
std::shared_ptr<NBiCloudController> NBLibraryManager::iCloudController() const {
    return subcontroller<NBiCloudController>(subcontrollersByPropertyNames(), "iCloudController");
}
std::shared_ptr<NBHardLinkController> NBLibraryManager::hardLinkController() const {
    return subcontroller<NBHardLinkController>(subcontrollersByPropertyNames(), "hardLinkController");
}
std::shared_ptr<NBUIStateController> NBLibraryManager::uiStateController() const {
    return subcontroller<NBUIStateController>(subcontrollersByPropertyNames(), "uiStateController");
}
std::shared_ptr<NBTimerController> NBLibraryManager::timerController() const {
    return subcontroller<NBTimerController>(subcontrollersByPropertyNames(), "timerController");
}

// MARK: - Info.plist

QVariantMap NBLibraryManager::libraryInfo() const {
    QVariantMap info;
    if (!isSetUp())
        return info;
    managerQueue_->dispatchSynchronously([&] { info = cachedInfo_; });
    return info;
}

QVariant NBLibraryManager::plistValueForInfoKey(const QString& key) const {
    if (key.isEmpty() || !isSetUp())
        return QVariant();
    QVariant value;
    managerQueue_->dispatchSynchronously([&] { value = cachedInfo_.value(key); });
    return value;
}

QVariant NBLibraryManager::cachedInfoValueForKey(const QString& key) const {
    if (!managerQueue_->isInCurrentQueueStack()) {
        nbRaiseAssertion(lcLibrary(), nbFormat("%@:%@ should only be called from within the manager queue",
                                               className(), QStringLiteral("cachedInfoValueForKey")));
        return QVariant();
    }
    return cachedInfo_.value(key);
}

void NBLibraryManager::setPlistValueForInfoKey(const QVariant& value, const QString& key) {
    if (key.isEmpty())
        return;
    OAKBlock block = [this, self = shared_from_this(), value, key] {
        if (!isSetUp())
            return;
        if (value.isNull())
            cachedInfo_.remove(key);
        else
            cachedInfo_.insert(key, value);
        shouldSaveCachedInfo_ = true;
        managerQueue_->dispatchAsynchronously([self] { self->_saveCachedInfo(); });
        if (key == QLatin1String(kNBLibraryInfoLibraryOwnerKey))
            if (const auto database = uiDatabaseController())
                database->setLibraryOwnerName(value.toString());
        if (key == QLatin1String(kNBLibraryInfoLibraryOwnerKey) ||
            key == QLatin1String(kNBLibraryInfoEmailAddressesKey))
            NBNotificationCenter::defaultCenter().postNotificationName(
                QString::fromUtf8(kNBLibraryOwnerDidChangeNotification), this);
    };
    if (managerQueue_->isInCurrentQueueStack())
        block();
    else
        managerQueue_->dispatchAsynchronously(std::move(block));
}

void NBLibraryManager::_saveCachedInfo() {
    if (!shouldSaveCachedInfo_)
        return;
    NBError error;
    if (!writeInfo(cachedInfo_, &error)) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("ERROR: could not save Info.plist at path '%@' with content:\n%@", infoPlistPath(),
                        propertyListDescription(cachedInfo_));
        return;
    }
    shouldSaveCachedInfo_ = false;
}

void NBLibraryManager::runTransaction(OAKBlock block) {
    managerQueue_->dispatchAsynchronously(std::move(block));
}

// MARK: - Folders

QString NBLibraryManager::localDocumentsDirectory() const {
    return QDir(rootPath_).filePath(QString::fromUtf8(kNBLocalDocumentsDirectoryName));
}

QString NBLibraryManager::persistentInfoDirectory() const {
    return QDir(rootPath_).filePath(QString::fromUtf8(kNBPersistentInfoDirectoryName));
}

QString NBLibraryManager::derivedInfoDirectory() const {
    return QDir(rootPath_).filePath(QString::fromUtf8(kNBDerivedInfoDirectoryName));
}

QString NBLibraryManager::infoPlistPath() const {
    return QDir(persistentInfoDirectory()).filePath(QString::fromUtf8(kNBLibraryInfoFileName));
}

QString NBLibraryManager::supportDirectory() {
    // XDG's data folder (XDG_DATA_HOME, usually ~/.local/share).
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation))
        .filePath(QString::fromUtf8(kNBLibraryName));
}

QString NBLibraryManager::iCloudDocumentsDirectory() const {
    const auto controller = iCloudController();
    return controller ? controller->iCloudDocumentsURL() : QString();
}

std::vector<NBDevice> NBLibraryManager::remoteDevices() const {
    std::vector<NBDevice> devices;
    if (const auto documents = documentsController())
        for (const auto& bucket : documents->buckets()) {
            const auto remote = bucket->remoteDevices();
            devices.insert(devices.end(), remote.begin(), remote.end());
        }
    return devices;
}

// MARK: - Owner

QString NBLibraryManager::libraryOwner() const {
    return plistValueForInfoKey(QString::fromUtf8(kNBLibraryInfoLibraryOwnerKey)).toString();
}

void NBLibraryManager::setLibraryOwner(const QString& owner) {
    setPlistValueForInfoKey(owner.isNull() ? QVariant() : QVariant(owner),
                            QString::fromUtf8(kNBLibraryInfoLibraryOwnerKey));
}

QString NBLibraryManager::libraryOwnerOrFallback() const {
    if (const QString owner = libraryOwner(); !owner.isEmpty())
        return owner;
    if (const passwd* entry = ::getpwuid(::getuid())) {
        // The full name is the first comma-separated field of the account's comment (GECOS) field.
        const QString fullName =
            QString::fromLocal8Bit(entry->pw_gecos ? entry->pw_gecos : "").section(QLatin1Char(','), 0, 0);
        if (!fullName.trimmed().isEmpty())
            return fullName.trimmed();
        if (entry->pw_name && *entry->pw_name)
            return QString::fromLocal8Bit(entry->pw_name);
    }
    if (const QString login = qEnvironmentVariable("USER"); !login.isEmpty())
        return login;
    return QStringLiteral("Anonymous");
}

QStringList NBLibraryManager::libraryOwnerEmailAddresses() const {
    return stringList(plistValueForInfoKey(QString::fromUtf8(kNBLibraryInfoEmailAddressesKey)));
}

QString NBLibraryManager::libraryOwnerEmailAddress() const {
    return libraryOwnerEmailAddresses().value(0);
}

void NBLibraryManager::setLibraryOwnerEmailAddress(const QString& address) {
    if (!address.isEmpty())
        addLibraryOwnerEmailAddresses({address});
}

void NBLibraryManager::addLibraryOwnerEmailAddresses(const QStringList& addresses) {
    if (addresses.isEmpty())
        return;
    // The union as a set: stored sorted, so the "first" address is the first in order, not the newest.
    QSet<QString> all(addresses.begin(), addresses.end());
    const QStringList stored = libraryOwnerEmailAddresses();
    all.unite(QSet<QString>(stored.begin(), stored.end()));
    QStringList sorted = all.values();
    sorted.sort();
    setPlistValueForInfoKey(QVariant(sorted).toList(), QString::fromUtf8(kNBLibraryInfoEmailAddressesKey));
}

QDateTime NBLibraryManager::creationDate() const {
    return plistValueForInfoKey(QString::fromUtf8(kNBLibraryInfoCreationDateKey)).toDateTime();
}

// MARK: - Built-in protocols

QStringList NBLibraryManager::builtInProtocolUUIDs() const {
    QStringList uuids;
    managerQueue_->dispatchSynchronously([&] { uuids = builtInProtocolUUIDs_; });
    return uuids;
}

bool NBLibraryManager::protocolWithUUIDIsBuiltIn(const QString& uuid) const {
    return builtInProtocolUUIDs().contains(uuid);
}

QStringList NBLibraryManager::deletedBuiltInProtocolUUIDs() const {
    return stringList(plistValueForInfoKey(QString::fromUtf8(kNBLibraryInfoDeletedBuiltInProtocolUUIDsKey)));
}

void NBLibraryManager::setDeletedBuiltInProtocolUUIDs(const QStringList& uuids) {
    setPlistValueForInfoKey(QVariant(uuids).toList(),
                            QString::fromUtf8(kNBLibraryInfoDeletedBuiltInProtocolUUIDsKey));
}

bool NBLibraryManager::builtInProtocolWithUUIDIsDeleted(const QString& uuid) const {
    return !uuid.isEmpty() && deletedBuiltInProtocolUUIDs().contains(uuid);
}

void NBLibraryManager::markBuiltInProtocolWithUUIDAsDeleted(const QString& uuid) {
    if (!protocolWithUUIDIsBuiltIn(uuid))
        return;
    QStringList deleted = deletedBuiltInProtocolUUIDs();
    if (deleted.contains(uuid))
        return;
    deleted << uuid;
    setDeletedBuiltInProtocolUUIDs(deleted);
}

// MARK: - Collaborators

std::shared_ptr<NBFileKeeper> NBLibraryManager::fileKeeper() const {
    std::lock_guard lock(stateMutex_);
    return fileKeeper_;
}

void NBLibraryManager::setFileKeeper(std::shared_ptr<NBFileKeeper> fileKeeper) {
    std::lock_guard lock(stateMutex_);
    fileKeeper_ = std::move(fileKeeper);
}

bool NBLibraryManager::usesiCloudExclusively() const {
    std::lock_guard lock(stateMutex_);
    return usesiCloudExclusively_;
}

void NBLibraryManager::setUsesiCloudExclusively(bool flag) {
    std::lock_guard lock(stateMutex_);
    usesiCloudExclusively_ = flag;
}
