// Buckets: paths, the document registry, the local manifest, other devices' manifests, the trash, and moving
// one bucket's content into another.
#include "library/NBBucket.h"

#include "document/NBDocument.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "fileobserver/NBFileSystemEventCenter.h"
#include "foundation/NBLogging.h"
#include "foundation/NBPropertyList.h"
#include "library/NBFileKeeper.h"
#include "library/NBLibraryLogging.h"
#include "library/NBLibraryManager.h"
#include "library/NBRevisionController.h"
#include "store/OAKStoreLog.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <condition_variable>

#include <dirent.h>
#include <sys/stat.h>

namespace {

const char* const kSaveDelayTimer = "save_delay";
const char* const kSaveCoalesceTimer = "save_coalesce";
const char* const kSyncTimer = "sync";

QString join(const QString& directory, const QString& name) {
    return directory + QLatin1Char('/') + name;
}

QString join(const QString& directory, const char* name) {
    return join(directory, QString::fromUtf8(name));
}

// Names of the entries of a folder (no "." or ".."), read with readdir: a bucket's scan lists tens of
// thousands of folders, and QDir's sorting and file information cost more than the listing itself.
QStringList entryNames(const QString& path, bool* outListed = nullptr) {
    QStringList names;
    DIR* directory = ::opendir(QFile::encodeName(path).constData());
    if (outListed)
        *outListed = directory != nullptr;
    if (!directory)
        return names;
    while (const dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] == '.' &&
            (entry->d_name[1] == 0 || (entry->d_name[1] == '.' && entry->d_name[2] == 0)))
            continue;
        names << QFile::decodeName(entry->d_name);
    }
    ::closedir(directory);
    return names;
}

bool isDirectory(const QString& path) {
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isFile(const QString& path) {
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISREG(status.st_mode);
}

QString uuidOfPackagePath(const QString& path) {
    return QFileInfo(path).completeBaseName();
}

bool copyTree(const QString& source, const QString& destination) {
    if (!QDir().mkpath(destination))
        return false;
    QDirIterator iterator(source, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot | QDir::System,
                          QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        const QString path = iterator.next();
        const QString target = join(destination, QDir(source).relativeFilePath(path));
        if (iterator.fileInfo().isDir()) {
            if (!QDir().mkpath(target))
                return false;
        } else if (!QFile::copy(path, target)) {
            return false;
        }
    }
    return true;
}

} // namespace

// MARK: - Making and life cycle

std::shared_ptr<NBBucket> NBBucket::bucketWithType(int bucketType,
                                                   const std::shared_ptr<NBLibraryManager>& manager,
                                                   const QString& absolutePath, const QString& relativePath) {
    if (bucketType != kNBBucketTypeLocal && bucketType != kNBBucketTypeSynchronisedFolder)
        return nullptr;
    if (!manager || absolutePath.isEmpty() || relativePath.isEmpty())
        return nullptr;
    if (bucketType != kNBBucketTypeLocal) {
        if (const auto keeper = manager->fileKeeper()) {
            const bool granted = keeper->startAccessingDirectoryAtPath(
                absolutePath, QStringLiteral("Access Documents"),
                nbFormat(
                    "Quillon needs access to the experiments and protocols stored in the folder at path: %@",
                    absolutePath));
            if (!granted) {
                qCWarning(lcLibrary).noquote()
                    << nbFormat("Could not access bucket at path %@", absolutePath);
                return nullptr;
            }
        }
    }
    auto bucket = controllerWithLibraryManager<NBBucket>(manager);
    bucket->bucketType_ = bucketType;
    bucket->absolutePath_ = NBLibraryManager::standardizedPath(absolutePath);
    bucket->relativePath_ = relativePath;
    bucket->localDeviceIdentifier_ = manager->deviceIdentifier();
    QString pathLabel = bucket->absolutePath_;
    pathLabel.replace(QLatin1Char('/'), QLatin1Char('.'));
    auto label = [&](const char* format) {
        return OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
            nbFormat(format, bucket->localDeviceIdentifier_, pathLabel));
    };
    bucket->cacheQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(label("bucket.cache.%@.%@"));
    bucket->databaseQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(label("bucket.db.%@.%@"));
    bucket->manualSyncQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(label("bucket.manualsync.%@.%@"));
    return bucket;
}

NBBucket::NBBucket(ConstructionToken token, const std::shared_ptr<NBLibraryManager>& manager)
    : NBAbstractController(token, manager) {}

NBBucket::~NBBucket() {
    NBFileSystemEventCenter::defaultCenter().removeObserver(static_cast<const void*>(this));
}

bool NBBucket::setUpWithError(NBError* outError) {
    if (!QDir().mkpath(deviceInfoDirectory()))
        return nbFail(outError, NBError::errorWithObject("NBBucket", 1,
                                                         nbFormat("Could not create directory at path '%@'",
                                                                  deviceInfoDirectory())));
    {
        std::lock_guard lock(stateMutex_);
        deviceIdentifiers_ = listDeviceDirectories();
    }
    cacheQueue_->dispatchSynchronously([&] {
        for (const QString& directory :
             {experimentsDirectory(), protocolsDirectory(), manifestsDirectory()}) {
            if (!QDir().mkpath(directory)) {
                qCWarning(lcLibrary).noquote()
                    << nbFormat("Could not create directory at path '%@' because of error: %@", directory,
                                QStringLiteral("the folder could not be created"));
                break;
            }
        }
        documentPaths_ = _existingDocumentPathsByFilenameWithError(nullptr);
        activeDocuments_.clear();
        activeDocumentRetainCounts_.clear();
    });
    {
        std::lock_guard lock(stateMutex_);
        if (!deviceIdentifiers_.contains(localDeviceIdentifier_))
            deviceIdentifiers_ << localDeviceIdentifier_;
    }
    {
        std::lock_guard lock(errorCountMutex_);
        manifestDatabaseErrorCount_.clear();
    }
    bool opened = true;
    databaseQueue_->dispatchSynchronously([&] {
        NBError error;
        manifest_ = NBManifestDatabase::openDatabaseAtPath(
            join(manifestsDirectory(), kNBManifestDatabaseFileName), &error);
        if (!manifest_) {
            qCWarning(lcLibrary).noquote()
                << nbFormat("Could not create manifest database at path '%@/%@' because of error: %@",
                            manifestsDirectory(), QString::fromUtf8(kNBManifestDatabaseFileName),
                            error.localizedDescription());
            nbFail(outError, error);
            opened = false;
            return;
        }
        _loadLocalManifest();
    });
    return opened;
}

void NBBucket::_loadLocalManifest() {
    NBError error;
    const auto rows = manifest_->allRows(&error);
    if (!rows) {
        qCWarning(lcLibrary).noquote() << error.localizedDescription();
        return;
    }
    manifestRows_.clear();
    for (const NBManifestRow& row : *rows) {
        manifestRows_.insert(row.documentUUID, row);
        setLocalRowState(row.documentUUID, row);
    }
}

void NBBucket::awakeFromLibrarySetUp() {
    const auto manager = libraryManager();
    if (!manager)
        return;
    ownerObserver_ =
        NBScopedObserver(NBNotificationCenter::defaultCenter(),
                         NBNotificationCenter::defaultCenter().addObserverForName(
                             QString::fromUtf8(kNBLibraryOwnerDidChangeNotification), manager.get(),
                             [weak = std::weak_ptr<NBBucket>(sharedBucket())](const NBNotification&) {
                                 if (auto bucket = weak.lock())
                                     bucket->refreshInfoPlist();
                             }));
    refreshInfoPlist();
    NBFileSystemEventCenter::defaultCenter().addObserver(
        sharedBucket(), &NBBucket::deviceInfoDirectoryDidChange, deviceInfoDirectory());
    scanDeviceInfoDirectory();
    QStringList foreign;
    for (const QString& device : deviceIdentifiers())
        if (device != localDeviceIdentifier_)
            foreign << device;
    handleNewDeviceIdentifiers(foreign);
    // This device's own rows too: services whose records are behind (or were deleted with the derived data)
    // catch up at start, not only at the next edit.
    if (const auto revisions = manager->revisionController())
        revisions->processRevisionsForManifestRepresentations(localManifestRepresentation(),
                                                              localDeviceIdentifier_);
    // Documents that the revision controller remembers as deleted but that no device's manifest keeps in the
    // trash any more were restored while this library was closed.
    if (const auto revisions = manager->revisionController()) {
        QHash<QString, std::optional<DocumentState>> before;
        for (const QString& uuid : revisions->deletedDocumentUUIDsFromAllDevices()) {
            const auto state = stateOfDocument(uuid);
            if (state && !state->deleted)
                before.insert(uuid, DocumentState{state->timestamp, true});
        }
        applyStateTransitions(before);
    }
}

void NBBucket::handleNewDeviceIdentifiers(const QStringList& deviceIdentifiers) {
    for (const QString& device : deviceIdentifiers) {
        if (device == localDeviceIdentifier_)
            continue;
        {
            std::lock_guard lock(stateMutex_);
            if (observedForeignDevices_.contains(device))
                continue;
            observedForeignDevices_.insert(device);
        }
        _processManifestChange(device, ForeignManifestReading::Once);
        startObservingForeignManifestDatabaseWithDeviceIdentifier(device);
    }
}

void NBBucket::waitUntilFinished() {
    std::vector<std::shared_ptr<NBDocument>> documents;
    cacheQueue_->dispatchSynchronously([&] {
        for (const auto& document : std::as_const(activeDocuments_))
            documents.push_back(document);
    });
    for (const auto& document : documents)
        document->waitUntilFinished();
    // The notifications of those edits handed refreshes to the cache queue, which hand rows to the database
    // queue: drain both, then save.
    cacheQueue_->dispatchSynchronously([] {});
    manualSyncQueue_->dispatchSynchronously([] {});
    cacheQueue_->dispatchSynchronously([] {});
    NBError error;
    if (!saveNow(&error))
        qCWarning(lcLibrary).noquote() << error.localizedDescription();
}

bool NBBucket::tearDownWithError(NBError* outError) {
    NBFileSystemEventCenter::defaultCenter().removeObserver(static_cast<const void*>(this));
    ownerObserver_.reset();
    manualSyncQueue_->dispatchSynchronously([this] { manualSyncQueue_->cancelAllTimers(); });
    cacheQueue_->dispatchSynchronously([this] {
        for (auto document = activeDocuments_.begin(); document != activeDocuments_.end(); ++document) {
            stopObservingDocument(document.key());
            _refreshLocalManifest(document.value());
            document.value()->tearDownNow();
        }
        activeDocuments_.clear();
        activeDocumentRetainCounts_.clear();
    });
    bool saved = true;
    databaseQueue_->dispatchSynchronously([&] {
        saved = _save(outError);
        databaseQueue_->cancelAllTimers();
        manifest_.reset();
    });
    if (const auto manager = libraryManager(); manager && bucketType_ != kNBBucketTypeLocal)
        if (const auto keeper = manager->fileKeeper())
            keeper->stopAccessingDirectoryAtPath(absolutePath_);
    return saved;
}

// MARK: - Paths

QString NBBucket::deviceInfoDirectory() const {
    return join(absolutePath_, kNBBucketInfoDirectoryName);
}

QString NBBucket::localDeviceInfoPath() const {
    return deviceInfoPathForDeviceIdentifier(localDeviceIdentifier_);
}

QString NBBucket::deviceInfoPathForDeviceIdentifier(const QString& deviceIdentifier) const {
    if (deviceIdentifier.isEmpty())
        return QString();
    return join(deviceInfoDirectory(), deviceIdentifier + QStringLiteral(".plist"));
}

QString NBBucket::deviceDirectoryWithIdentifier(const QString& deviceIdentifier) const {
    if (deviceIdentifier.isEmpty())
        return QString();
    return join(absolutePath_, deviceIdentifier);
}

QString NBBucket::localDeviceDirectory() const {
    return deviceDirectoryWithIdentifier(localDeviceIdentifier_);
}

QString NBBucket::experimentsDirectory() const {
    return experimentsDirectoryForDeviceIdentifier(localDeviceIdentifier_);
}

QString NBBucket::protocolsDirectory() const {
    return protocolsDirectoryForDeviceIdentifier(localDeviceIdentifier_);
}

QString NBBucket::manifestsDirectory() const {
    return manifestsDirectoryForDeviceIdentifier(localDeviceIdentifier_);
}

QString NBBucket::experimentsDirectoryForDeviceIdentifier(const QString& deviceIdentifier) const {
    const QString device = deviceDirectoryWithIdentifier(deviceIdentifier);
    return device.isEmpty() ? QString() : join(device, kNBBucketExperimentsDirectoryName);
}

QString NBBucket::protocolsDirectoryForDeviceIdentifier(const QString& deviceIdentifier) const {
    const QString device = deviceDirectoryWithIdentifier(deviceIdentifier);
    return device.isEmpty() ? QString() : join(device, kNBBucketProtocolsDirectoryName);
}

QString NBBucket::manifestsDirectoryForDeviceIdentifier(const QString& deviceIdentifier) const {
    const QString device = deviceDirectoryWithIdentifier(deviceIdentifier);
    return device.isEmpty() ? QString() : join(device, kNBBucketManifestsDirectoryName);
}

QString NBBucket::deviceIdentifierForManifestsDirectory(const QString& path) const {
    const QString standardized = NBLibraryManager::standardizedPath(path);
    const QFileInfo info(standardized);
    if (info.fileName() != QLatin1String(kNBBucketManifestsDirectoryName))
        return QString();
    const QString deviceDirectory = info.path();
    if (QFileInfo(deviceDirectory).path() != absolutePath_)
        return QString();
    return QFileInfo(deviceDirectory).fileName();
}

QString NBBucket::proposedExperimentPathWithUUID(const QString& uuid) const {
    return proposedExperimentPathWithUUID(uuid, localDeviceIdentifier_);
}

QString NBBucket::proposedProtocolPathWithUUID(const QString& uuid) const {
    return proposedProtocolPathWithUUID(uuid, localDeviceIdentifier_);
}

QString NBBucket::proposedExperimentPathWithUUID(const QString& uuid, const QString& deviceIdentifier) const {
    const QString directory = experimentsDirectoryForDeviceIdentifier(deviceIdentifier);
    if (directory.isEmpty() || uuid.isEmpty())
        return QString();
    return join(directory, uuid + QLatin1Char('.') + QLatin1String(kNBExperimentPackageExtension));
}

QString NBBucket::proposedProtocolPathWithUUID(const QString& uuid, const QString& deviceIdentifier) const {
    const QString directory = protocolsDirectoryForDeviceIdentifier(deviceIdentifier);
    if (directory.isEmpty() || uuid.isEmpty())
        return QString();
    return join(directory, uuid + QLatin1Char('.') + QLatin1String(kNBProtocolPackageExtension));
}

QString NBBucket::documentSubpathWithPath(const QString& path) const {
    const QString standardized = NBLibraryManager::standardizedPath(path);
    if (!standardized.startsWith(absolutePath_ + QLatin1Char('/')))
        return QString();
    return standardized.mid(absolutePath_.size() + 1);
}

QString NBBucket::pathForForeignManifestDatabaseWithDeviceIdentifier(const QString& deviceIdentifier) const {
    const QString directory = manifestsDirectoryForDeviceIdentifier(deviceIdentifier);
    return directory.isEmpty() ? QString() : join(directory, kNBManifestDatabaseFileName);
}

QString NBBucket::deviceIdentifierForForeignManifestDatabasePath(const QString& path) const {
    if (QFileInfo(path).fileName() != QLatin1String(kNBManifestDatabaseFileName))
        return QString();
    return deviceIdentifierForManifestsDirectory(QFileInfo(path).path());
}

// MARK: - Scanning

QStringList NBBucket::listDeviceDirectories() const {
    QStringList devices;
    for (const QString& name : entryNames(absolutePath_))
        if (name != QLatin1String(kNBBucketInfoDirectoryName) && OAKStore::isValidDeviceIdentifier(name) &&
            isDirectory(join(absolutePath_, name)))
            devices << name;
    devices.sort();
    return devices;
}

bool NBBucket::packageIsComplete(const QString& path) {
    const QString devices = join(path, OAKDevicesDirectoryName);
    for (const QString& device : entryNames(devices))
        if (isFile(join(join(devices, device), OAKDatabaseFileName)))
            return true;
    return false;
}

QHash<QString, QString> NBBucket::_existingDocumentPathsByFilenameWithError(NBError* outError) const {
    QHash<QString, QString> paths;
    QHash<QString, QString> pathsByFilename;
    for (const QString& device : listDeviceDirectories()) {
        for (const auto& [folder, extension] :
             {std::pair{experimentsDirectoryForDeviceIdentifier(device), kNBExperimentPackageExtension},
              std::pair{protocolsDirectoryForDeviceIdentifier(device), kNBProtocolPackageExtension}}) {
            bool listed = false;
            const QStringList names = entryNames(folder, &listed);
            if (!listed) {
                if (QFileInfo::exists(folder)) {
                    const QString message =
                        nbFormat("ERROR: cannot list contents of bucket directory at path %@", folder);
                    qCWarning(lcLibrary).noquote() << message;
                    nbFail(outError, NBError::errorWithObject("NBBucket", 1, message));
                }
                continue;
            }
            const QString suffix = QLatin1Char('.') + QLatin1String(extension);
            for (const QString& name : names) {
                if (!name.endsWith(suffix) || name.startsWith(QLatin1Char('.')))
                    continue;
                const QString path = join(folder, name);
                if (!packageIsComplete(path))
                    continue;
                if (const auto known = pathsByFilename.constFind(name); known != pathsByFilename.constEnd()) {
                    // Devices are listed in sorted order, so the first path found stays: the same choice on
                    // every device.
                    qCWarning(lcLibrary).noquote()
                        << nbFormat("There are multiple documents with filename %@, at path '%@' and '%@'",
                                    name, *known, path);
                    continue;
                }
                pathsByFilename.insert(name, path);
                paths.insert(name.left(name.size() - suffix.size()), path);
            }
        }
    }
    return paths;
}

void NBBucket::rescanDocuments() {
    const QHash<QString, QString> found = _existingDocumentPathsByFilenameWithError(nullptr);
    cacheQueue_->dispatchSynchronously([&] {
        QHash<QString, QString> paths = found;
        // Open documents keep their package path even when a scan misses it for a moment.
        for (auto document = activeDocuments_.cbegin(); document != activeDocuments_.cend(); ++document)
            if (!paths.contains(document.key()))
                paths.insert(document.key(), documentPaths_.value(document.key()));
        documentPaths_ = paths;
    });
}

// MARK: - Document registry (cache queue)

QString NBBucket::existingDocumentPathWithUUID(const QString& uuid) const {
    QString path;
    cacheQueue_->dispatchSynchronously([&] { path = documentPaths_.value(uuid); });
    return path;
}

std::shared_ptr<NBDocument> NBBucket::_openDocument(const QString& uuid) {
    const QString path = documentPaths_.value(uuid);
    if (path.isEmpty())
        return nullptr;
    NBError error;
    std::shared_ptr<NBDocument> document =
        NBDocument::openDocumentAtPath(path, localDeviceIdentifier_, {}, &error);
    if (!document)
        qCWarning(lcLibrary).noquote() << error.localizedDescription();
    return document;
}

std::shared_ptr<NBDocument> NBBucket::retainedDocumentWithUUID(const QString& uuid) {
    std::shared_ptr<NBDocument> result;
    cacheQueue_->dispatchSynchronously([&] {
        if (const auto active = activeDocuments_.constFind(uuid); active != activeDocuments_.constEnd()) {
            result = *active;
            ++activeDocumentRetainCounts_[uuid];
            return;
        }
        result = _openDocument(uuid);
        if (!result)
            return;
        activeDocumentRetainCounts_[uuid] = 1;
        _activateDocument(result, uuid);
    });
    return result;
}

std::shared_ptr<NBDocument> NBBucket::retainedCachedDocumentWithUUID(const QString& uuid) {
    std::shared_ptr<NBDocument> result;
    cacheQueue_->dispatchSynchronously([&] {
        if (const auto active = activeDocuments_.constFind(uuid); active != activeDocuments_.constEnd()) {
            result = *active;
            ++activeDocumentRetainCounts_[uuid];
        }
    });
    return result;
}

void NBBucket::_activateDocument(const std::shared_ptr<NBDocument>& document, const QString& uuid) {
    activeDocuments_.insert(uuid, document);
    startObservingDocument(document, uuid);
    _refreshLocalManifest(document);
}

void NBBucket::releasedDocumentWithUUID(const QString& uuid) {
    cacheQueue_->dispatchSynchronously([&] {
        const auto active = activeDocuments_.constFind(uuid);
        if (active == activeDocuments_.constEnd())
            return;
        const unsigned count = activeDocumentRetainCounts_.value(uuid);
        if (count == 0) {
            qCWarning(lcLibrary).noquote()
                << nbFormat("document has a retain count of 0 but is still registered: %@", uuid);
            return;
        }
        if (count > 1) {
            activeDocumentRetainCounts_[uuid] = count - 1;
            return;
        }
        _deactivateDocument(uuid);
    });
}

void NBBucket::_deactivateDocument(const QString& uuid) {
    const std::shared_ptr<NBDocument> document = activeDocuments_.take(uuid);
    activeDocumentRetainCounts_.remove(uuid);
    stopObservingDocument(uuid);
    // The last edits' rows are queued on the store's database queue before this reads its timestamps, so
    // they reach the manifest before the document closes.
    _refreshLocalManifest(document);
    document->tearDownNow();
}

void NBBucket::registerAndRetainDocument(const std::shared_ptr<NBDocument>& document, const QString& path) {
    const QString uuid = uuidOfPackagePath(path);
    if (!document || uuid.isEmpty())
        return;
    cacheQueue_->dispatchAsynchronously([this, self = shared_from_this(), document, path, uuid] {
        if (activeDocuments_.contains(uuid)) {
            qCWarning(lcLibrary).noquote() << nbFormat("document already registered with UUID: %@", uuid);
            return;
        }
        if (!documentPaths_.contains(uuid))
            documentPaths_.insert(uuid, NBLibraryManager::standardizedPath(path));
        activeDocumentRetainCounts_[uuid] = 1;
        _activateDocument(document, uuid);
    });
}

bool NBBucket::documentWithUUIDIsRegistered(const QString& uuid) const {
    bool registered = false;
    cacheQueue_->dispatchSynchronously([&] { registered = documentPaths_.contains(uuid); });
    return registered;
}

std::size_t NBBucket::registeredDocumentCount() const {
    std::size_t count = 0;
    cacheQueue_->dispatchSynchronously([&] { count = std::size_t(documentPaths_.size()); });
    return count;
}

QSet<QString> NBBucket::registeredDocumentUUIDs() const {
    QSet<QString> uuids;
    cacheQueue_->dispatchSynchronously([&] {
        uuids.reserve(documentPaths_.size());
        for (auto path = documentPaths_.cbegin(); path != documentPaths_.cend(); ++path)
            uuids.insert(path.key());
    });
    return uuids;
}

unsigned NBBucket::retainCountOfDocumentWithUUID(const QString& uuid) const {
    unsigned count = 0;
    cacheQueue_->dispatchSynchronously([&] { count = activeDocumentRetainCounts_.value(uuid); });
    return count;
}

void NBBucket::emptyCacheNow() {
    cacheQueue_->dispatchSynchronously([&] {
        for (auto document = activeDocuments_.cbegin(); document != activeDocuments_.cend(); ++document)
            stopObservingDocument(document.key());
        activeDocuments_.clear();
        documentPaths_.clear();
    });
}

// MARK: - Observing documents

void NBBucket::startObservingDocument(const std::shared_ptr<NBDocument>& document, const QString& uuid) {
    NBNotificationCenter& center = NBNotificationCenter::defaultCenter();
    const std::weak_ptr<NBBucket> weakBucket = sharedBucket();
    const std::weak_ptr<NBDocument> weakDocument = document;
    // Both callbacks run on the store's notification queue and only hand on to the cache queue, where the
    // document is used only while it is still the registered one.
    auto handOn = [weakBucket, weakDocument, uuid](bool sync, const QVariantMap& userInfo) {
        const auto bucket = weakBucket.lock();
        if (!bucket)
            return;
        bucket->cacheQueue_->dispatchAsynchronously([bucket, weakDocument, uuid, sync, userInfo] {
            const auto observed = weakDocument.lock();
            if (!observed || bucket->activeDocuments_.value(uuid) != observed)
                return;
            if (sync)
                bucket->_documentDidSync(observed, userInfo);
            else
                bucket->_refreshLocalManifest(observed);
        });
    };
    std::vector<NBScopedObserver> observers;
    observers.emplace_back(
        center, center.addObserverForName(QString::fromUtf8(OAKStoreDidChangeNotification), document.get(),
                                          [handOn](const NBNotification& n) { handOn(false, n.userInfo); }));
    observers.emplace_back(
        center, center.addObserverForName(QString::fromUtf8(OAKStoreDidSyncNotification), document.get(),
                                          [handOn](const NBNotification& n) { handOn(true, n.userInfo); }));
    documentObservers_[uuid] = std::move(observers);
}

void NBBucket::stopObservingDocument(const QString& uuid) {
    documentObservers_.erase(uuid);
}

void NBBucket::_documentDidSync(const std::shared_ptr<NBDocument>& document, const QVariantMap& userInfo) {
    const QVariantMap timestamps = userInfo.value(QString::fromUtf8(OAKStoreTimestampsKey)).toMap();
    if (timestamps.isEmpty())
        return;
    NBTimestamp smallest = timestampForDistantFuture();
    for (const QVariant& timestamp : timestamps)
        smallest = std::min<NBTimestamp>(smallest, timestamp.toLongLong());
    const auto manager = libraryManager();
    const auto revisions = manager ? manager->revisionController() : nullptr;
    if (!revisions)
        return;
    const QString uuid = document->uuid();
    for (const auto& [device, timestamp] : document->mostRecentTimestampsByDeviceIdentifier())
        if (device != localDeviceIdentifier_ && timestamp >= smallest)
            revisions->processRevisionForDocumentUUID(uuid, timestamp, device);
}

// MARK: - Local manifest

void NBBucket::refreshLocalManifestAndNotifyRevisionControllerForDocument(
    const std::shared_ptr<NBDocument>& document) {
    if (!document)
        return;
    cacheQueue_->dispatchSynchronously([&] { _refreshLocalManifest(document); });
}

void NBBucket::_refreshLocalManifest(const std::shared_ptr<NBDocument>& document) {
    if (!document->loaded())
        document->loadNow();
    const QString uuid = document->uuid();
    const QString device = document->deviceIdentifier();
    if (uuid.isEmpty() || device.isEmpty())
        return;
    const NBTimestamp timestamp = document->mostRecentTimestampForDeviceIdentifier(device);
    const auto manager = libraryManager();
    databaseQueue_->dispatchAsynchronously(
        [this, self = shared_from_this(), manager, uuid, device, timestamp] {
            auto row = manifestRows_.find(uuid);
            bool changed = true;
            if (row == manifestRows_.end()) {
                row = manifestRows_.insert(uuid, NBManifestRow{uuid, timestamp, false, false});
            } else if (row->timestamp < timestamp) {
                // Never backwards: a deletion or restoration moment stays the newest fact until a newer edit.
                row->timestamp = timestamp;
            } else {
                changed = false;
            }
            if (!changed)
                return;
            unsavedManifestRows_.insert(uuid);
            setLocalRowState(uuid, *row);
            saveSoon();
            // Only a new timestamp is a revision: opening and closing a document tells nothing new, and must
            // not start another run of a service that keeps failing on it.
            if (const auto revisions = manager ? manager->revisionController() : nullptr)
                if (timestamp != timestampForDistantPast())
                    revisions->processRevisionForDocumentUUID(uuid, timestamp, device);
        });
}

QList<QVariantMap> NBBucket::localManifestRepresentation() const {
    QList<QVariantMap> rows;
    databaseQueue_->dispatchSynchronously([&] {
        for (const NBManifestRow& row : manifestRows_)
            rows << row.dictionaryRepresentation();
    });
    return rows;
}

QList<QVariantMap>
NBBucket::manifestRepresentationsForDeviceIdentifier(const QString& deviceIdentifier) const {
    if (deviceIdentifier == localDeviceIdentifier_)
        return localManifestRepresentation();
    std::lock_guard lock(stateMutex_);
    return foreignRepresentations_.value(deviceIdentifier);
}

QMap<QString, QList<QVariantMap>> NBBucket::allManifestRepresentations() const {
    QMap<QString, QList<QVariantMap>> all;
    for (const QString& device : deviceIdentifiers())
        if (QList<QVariantMap> rows = manifestRepresentationsForDeviceIdentifier(device); !rows.isEmpty())
            all.insert(device, rows);
    return all;
}

void NBBucket::saveSoon() {
    const auto manager = libraryManager();
    const NBLibraryTimings timings = manager ? manager->timings() : NBLibraryTimings();
    auto save = [this, weak = weak_from_this()] {
        if (auto self = weak.lock())
            _save(nullptr);
    };
    databaseQueue_->scheduleTimerWithName(QString::fromUtf8(kSaveDelayTimer), timings.manifestSaveDelay,
                                          OAKTimerBehaviorDelay, save);
    databaseQueue_->scheduleTimerWithName(QString::fromUtf8(kSaveCoalesceTimer), timings.manifestSaveCoalesce,
                                          OAKTimerBehaviorCoalesce, save);
}

bool NBBucket::saveNow(NBError* outError) {
    bool saved = true;
    databaseQueue_->dispatchSynchronously([&] { saved = _save(outError); });
    return saved;
}

bool NBBucket::_save(NBError* outError) {
    if (!databaseQueue_->isInCurrentQueueStack()) {
        const QString message = nbFormat("%@:%@ should only be called from within the database queue",
                                         className(), QStringLiteral("_save:"));
        qCWarning(lcLibrary).noquote() << message;
        return nbFail(outError, NBError::errorWithObject("NBBucket", kNBBucketErrorNoContext, message));
    }
    databaseQueue_->cancelTimerWithName(QString::fromUtf8(kSaveDelayTimer));
    databaseQueue_->cancelTimerWithName(QString::fromUtf8(kSaveCoalesceTimer));
    if (!manifest_)
        return nbFail(outError, NBError::errorWithObject("NBBucket", kNBBucketErrorNoContext,
                                                         QStringLiteral("No managed object context")));
    if (unsavedManifestRows_.isEmpty())
        return true;
    std::vector<NBManifestRow> rows;
    rows.reserve(std::size_t(unsavedManifestRows_.size()));
    for (const QString& uuid : std::as_const(unsavedManifestRows_))
        rows.push_back(manifestRows_.value(uuid));
    NBError error;
    if (!manifest_->saveRows(rows, &error)) {
        const QString message = nbFormat("Could not save manifest database:\npath: %@\nerror: %@\n",
                                         absolutePath_, error.localizedDescription());
        qCWarning(lcLibrary).noquote() << message;
        return nbFail(outError, NBError::errorWithObject("NBBucket", kNBBucketErrorSaveManifest, message,
                                                         QString(), QString(), &error));
    }
    unsavedManifestRows_.clear();
    return true;
}

// MARK: - Deletion states

std::optional<NBBucket::DocumentState> NBBucket::stateOfDocument(const QString& uuid) const {
    std::optional<DocumentState> newest;
    std::lock_guard lock(stateMutex_);
    for (const auto& states : statesByDevice_) {
        const auto state = states.constFind(uuid);
        if (state == states.constEnd())
            continue;
        // On equal timestamps a deletion wins: the document stays in the trash, from which it can come back.
        if (!newest || state->timestamp > newest->timestamp ||
            (state->timestamp == newest->timestamp && state->deleted))
            newest = *state;
    }
    return newest;
}

void NBBucket::setLocalRowState(const QString& uuid, const NBManifestRow& row) {
    std::lock_guard lock(stateMutex_);
    statesByDevice_[localDeviceIdentifier_].insert(uuid, DocumentState{row.timestamp, row.deleted});
}

void NBBucket::applyStateTransitions(const QHash<QString, std::optional<DocumentState>>& before) {
    const auto manager = libraryManager();
    const auto revisions = manager ? manager->revisionController() : nullptr;
    if (!revisions)
        return;
    for (auto entry = before.cbegin(); entry != before.cend(); ++entry) {
        const bool wasDeleted = entry.value() && entry.value()->deleted;
        const auto now = stateOfDocument(entry.key());
        const bool isDeleted = now && now->deleted;
        if (isDeleted && !wasDeleted) {
            revisions->processDeletionOfDocumentWithUUID(entry.key());
        } else if (wasDeleted && !isDeleted) {
            revisions->processRestorationOfDocumentWithUUID(entry.key(),
                                                            _timestampsOfDocumentWithUUID(entry.key()));
        }
    }
}

std::map<QString, NBTimestamp> NBBucket::_timestampsOfDocumentWithUUID(const QString& uuid) {
    std::map<QString, NBTimestamp> timestamps;
    if (const auto document = retainedDocumentWithUUID(uuid)) {
        timestamps = document->mostRecentTimestampsByDeviceIdentifier();
        releasedDocumentWithUUID(uuid);
    }
    return timestamps;
}

bool NBBucket::documentWithUUIDIsDeleted(const QString& uuid) const {
    const auto state = stateOfDocument(uuid);
    return state && state->deleted;
}

QStringList NBBucket::trashedDocumentUUIDs() const {
    QSet<QString> uuids;
    {
        std::lock_guard lock(stateMutex_);
        for (const auto& states : statesByDevice_)
            for (auto state = states.cbegin(); state != states.cend(); ++state)
                if (state->deleted)
                    uuids.insert(state.key());
    }
    QStringList trashed;
    for (const QString& uuid : uuids)
        if (documentWithUUIDIsDeleted(uuid))
            trashed << uuid;
    trashed.sort();
    return trashed;
}

bool NBBucket::_setDeleted(const QString& uuid, bool deleted, NBError* outError) {
    if (!documentWithUUIDIsRegistered(uuid) && !stateOfDocument(uuid))
        return nbFail(outError,
                      NBError::errorWithObject("NBBucket", kNBBucketErrorNoSuchDocument,
                                               nbFormat("No document with UUID %@ in the folder at path %@",
                                                        uuid, absolutePath_)));
    if (documentWithUUIDIsDeleted(uuid) == deleted)
        return true;
    QHash<QString, std::optional<DocumentState>> before{{uuid, stateOfDocument(uuid)}};
    // The moment of the act, and in any case later than every row known for the document.
    const NBTimestamp newest = before.value(uuid) ? before.value(uuid)->timestamp : timestampForDistantPast();
    const NBTimestamp timestamp =
        std::max(timestampNow(), newest == timestampForDistantPast() ? newest : newest + 1);
    databaseQueue_->dispatchSynchronously([&] {
        NBManifestRow& row = manifestRows_[uuid];
        row.documentUUID = uuid;
        row.timestamp = std::max(row.timestamp, timestamp);
        row.deleted = deleted;
        row.deletedByUser = deleted;
        unsavedManifestRows_.insert(uuid);
        setLocalRowState(uuid, row);
        saveSoon();
    });
    applyStateTransitions(before);
    return true;
}

bool NBBucket::deleteDocumentWithUUID(const QString& uuid, NBError* outError) {
    return _setDeleted(uuid, true, outError);
}

bool NBBucket::restoreDocumentWithUUID(const QString& uuid, NBError* outError) {
    return _setDeleted(uuid, false, outError);
}

int NBBucket::emptyTrash(NBError* outError) {
    int removed = 0;
    for (const QString& uuid : trashedDocumentUUIDs()) {
        const QString path = existingDocumentPathWithUUID(uuid);
        cacheQueue_->dispatchSynchronously([&] {
            if (activeDocuments_.contains(uuid)) {
                stopObservingDocument(uuid);
                activeDocuments_.take(uuid)->tearDownNow();
                activeDocumentRetainCounts_.remove(uuid);
            }
            documentPaths_.remove(uuid);
        });
        if (path.isEmpty())
            continue;
        if (!QDir(path).removeRecursively()) {
            nbFail(outError,
                   NBError::errorWithObject("NBBucket", kNBBucketErrorRemoveDocument,
                                            nbFormat("Could not remove the package at path %@", path)));
            continue;
        }
        ++removed;
    }
    return removed;
}

// MARK: - Devices

void NBBucket::refreshInfoPlist() {
    const auto manager = libraryManager();
    if (!manager || localDeviceIdentifier_.isEmpty())
        return;
    const QString path = localDeviceInfoPath();
    const std::optional<NBDevice> previous = NBDevice::deviceInfoWithContentsOfFile(path);
    NBDevice device;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    device.creationDate = previous && previous->creationDate.isValid() ? previous->creationDate : now;
    device.accessDate = now;
    device.deviceIdentifier = localDeviceIdentifier_;
    device.libraryOwner = manager->libraryOwner();
    device.platform = NBDevice::currentPlatform();
    device.quillonVersion = NBDevice::currentQuillonVersion();
    device.emailAddresses = manager->libraryOwnerEmailAddresses();
    device.deviceName = NBDevice::currentDeviceName();
    device.deviceModel = NBDevice::currentDeviceModel();
    device.systemVersion = NBDevice::currentSystemVersion();
    device.appKitVersion = NBDevice::currentToolkitVersion();
    const auto data = dataWithPropertyList(device.dictionaryRepresentation(), NBPropertyListFormat::XML);
    QSaveFile file(path);
    if (!data || !file.open(QIODevice::WriteOnly) || file.write(*data) != data->size() || !file.commit()) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("Could not write device information at path '%@': %@", path, file.errorString());
        return;
    }
    std::lock_guard lock(stateMutex_);
    localDevice_ = device;
}

void NBBucket::scanDeviceInfoDirectory() {
    std::optional<NBDevice> local;
    std::vector<NBDevice> remote;
    for (const QString& name : entryNames(deviceInfoDirectory())) {
        if (!name.endsWith(QLatin1String(".plist")) || name.startsWith(QLatin1Char('.')))
            continue;
        const auto device = NBDevice::deviceInfoWithContentsOfFile(join(deviceInfoDirectory(), name));
        if (!device)
            continue;
        if (device->deviceIdentifier == localDeviceIdentifier_)
            local = device;
        else
            remote.push_back(*device);
    }
    std::sort(remote.begin(), remote.end(),
              [](const NBDevice& a, const NBDevice& b) { return a.deviceIdentifier < b.deviceIdentifier; });
    QStringList devices = listDeviceDirectories();
    if (!devices.contains(localDeviceIdentifier_))
        devices << localDeviceIdentifier_;
    for (const NBDevice& device : remote)
        if (!devices.contains(device.deviceIdentifier) &&
            OAKStore::isValidDeviceIdentifier(device.deviceIdentifier))
            devices << device.deviceIdentifier;
    devices.sort();
    std::lock_guard lock(stateMutex_);
    if (local)
        localDevice_ = local;
    remoteDevices_ = std::move(remote);
    deviceIdentifiers_ = devices;
}

QStringList NBBucket::deviceIdentifiers() const {
    std::lock_guard lock(stateMutex_);
    return deviceIdentifiers_;
}

std::optional<NBDevice> NBBucket::localDevice() const {
    std::lock_guard lock(stateMutex_);
    return localDevice_;
}

std::vector<NBDevice> NBBucket::remoteDevices() const {
    std::lock_guard lock(stateMutex_);
    return remoteDevices_;
}

void NBBucket::deviceInfoDirectoryDidChange(const NBFileSystemEvent&) {
    manualSyncQueue_->dispatchAsynchronously([this, self = shared_from_this()] {
        scanDeviceInfoDirectory();
        handleNewDeviceIdentifiers(deviceIdentifiers());
    });
}

// MARK: - Foreign manifests

void NBBucket::startObservingForeignManifestDatabaseWithDeviceIdentifier(const QString& deviceIdentifier) {
    const QString directory = manifestsDirectoryForDeviceIdentifier(deviceIdentifier);
    if (directory.isEmpty())
        return;
    NBFileSystemEventCenter::defaultCenter().addObserver(
        sharedBucket(), &NBBucket::foreignManifestDatabaseDirectoryDidChange, directory);
}

void NBBucket::foreignManifestDatabaseDirectoryDidChange(const NBFileSystemEvent& event) {
    QString device =
        deviceIdentifierForForeignManifestDatabasePath(join(event.path(), kNBManifestDatabaseFileName));
    if (device.isEmpty())
        device = deviceIdentifierForForeignManifestDatabasePath(event.path());
    if (device.isEmpty() || device == localDeviceIdentifier_)
        return;
    const auto manager = libraryManager();
    scheduleManifestReading(device, manager ? manager->timings().foreignManifestDelay : 1.0);
}

void NBBucket::scheduleManifestReading(const QString& deviceIdentifier, double seconds) {
    manualSyncQueue_->scheduleTimerWithName(
        QStringLiteral("manifest.") + deviceIdentifier, seconds, OAKTimerBehaviorCoalesce,
        [weak = weak_from_this(), deviceIdentifier] {
            if (auto self = weak.lock())
                std::static_pointer_cast<NBBucket>(self)->processManifestChangeWithDeviceIdentifier(
                    deviceIdentifier);
        });
}

void NBBucket::setForeignManifestRetryScheduler(std::function<void(const QString&, double)> scheduler) {
    std::lock_guard lock(errorCountMutex_);
    retryScheduler_ = std::move(scheduler);
}

unsigned NBBucket::manifestDatabaseErrorCountForDeviceIdentifier(const QString& deviceIdentifier) const {
    std::lock_guard lock(errorCountMutex_);
    return manifestDatabaseErrorCount_.value(deviceIdentifier);
}

void NBBucket::processManifestChangeWithDeviceIdentifier(const QString& deviceIdentifier) {
    _processManifestChange(deviceIdentifier, ForeignManifestReading::Retrying);
}

void NBBucket::_processManifestChange(const QString& deviceIdentifier, ForeignManifestReading reading) {
    const auto manager = libraryManager();
    if (!manager || deviceIdentifier.isEmpty() || deviceIdentifier == localDeviceIdentifier_)
        return;
    const QString path = pathForForeignManifestDatabaseWithDeviceIdentifier(deviceIdentifier);
    NBError error;
    const std::optional<std::vector<NBManifestRow>> rows =
        NBManifestDatabase::rowsOfDatabaseAtPath(path, &error);
    if (!rows && reading == ForeignManifestReading::Once) {
        // When the library starts, a manifest that is not there or cannot be read is skipped: its folder's
        // next change, or a manual sync, reads it again.
        if (QFileInfo::exists(path))
            qCWarning(lcLibrary).noquote() << nbFormat(
                "Could not create context for foreign manifest database at path '%@' because of error: %@",
                path, error.localizedDescription());
        return;
    }
    if (!rows) {
        qCWarning(lcLibrary).noquote()
            << nbFormat("Could not create context for manifest database at path '%@' because of error: %@",
                        path, error.localizedDescription());
        unsigned count = 0;
        std::function<void(const QString&, double)> scheduler;
        {
            std::lock_guard lock(errorCountMutex_);
            const unsigned previous = manifestDatabaseErrorCount_.value(deviceIdentifier);
            count = previous < 3 ? previous + 1 : 0;
            manifestDatabaseErrorCount_.insert(deviceIdentifier, count);
            scheduler = retryScheduler_;
        }
        if (count != 0) {
            const double seconds = double(count * count) * manager->timings().foreignManifestRetryUnit;
            if (scheduler)
                scheduler(deviceIdentifier, seconds);
            else
                scheduleManifestReading(deviceIdentifier, seconds);
        }
        return;
    }
    {
        std::lock_guard lock(errorCountMutex_);
        manifestDatabaseErrorCount_.insert(deviceIdentifier, 0);
    }
    QList<QVariantMap> representations;
    representations.reserve(qsizetype(rows->size()));
    for (const NBManifestRow& row : *rows)
        representations << row.dictionaryRepresentation();
    cacheQueue_->dispatchSynchronously([&] {
        for (const NBManifestRow& row : *rows) {
            if (documentPaths_.contains(row.documentUUID))
                continue;
            for (const QString& candidate :
                 {proposedExperimentPathWithUUID(row.documentUUID, deviceIdentifier),
                  proposedProtocolPathWithUUID(row.documentUUID, deviceIdentifier)}) {
                if (isDirectory(candidate) && packageIsComplete(candidate)) {
                    documentPaths_.insert(row.documentUUID, candidate);
                    break;
                }
            }
        }
    });
    QHash<QString, std::optional<DocumentState>> before;
    for (const NBManifestRow& row : *rows)
        before.insert(row.documentUUID, stateOfDocument(row.documentUUID));
    {
        std::lock_guard lock(stateMutex_);
        QHash<QString, DocumentState>& states = statesByDevice_[deviceIdentifier];
        states.clear();
        for (const NBManifestRow& row : *rows)
            states.insert(row.documentUUID, DocumentState{row.timestamp, row.deleted});
        foreignRepresentations_.insert(deviceIdentifier, representations);
    }
    applyStateTransitions(before);
    if (const auto revisions = manager->revisionController())
        revisions->processRevisionsForManifestRepresentations(representations, deviceIdentifier);
}

void NBBucket::sync() {
    const auto manager = libraryManager();
    manualSyncQueue_->scheduleTimerWithName(QString::fromUtf8(kSyncTimer),
                                            manager ? manager->timings().manualSyncDelay : 2.0,
                                            OAKTimerBehaviorDelay, [weak = weak_from_this()] {
                                                if (auto self = weak.lock())
                                                    std::static_pointer_cast<NBBucket>(self)->_sync();
                                            });
}

void NBBucket::syncNow() {
    manualSyncQueue_->dispatchSynchronously([this] { _sync(); });
}

void NBBucket::_sync() {
    if (!checkQueue(manualSyncQueue_, "sync", "_sync"))
        return;
    manualSyncQueue_->cancelAllTimers();
    // A manual sync also looks for devices and packages that arrived without a folder change being seen.
    scanDeviceInfoDirectory();
    rescanDocuments();
    for (const QString& device : deviceIdentifiers())
        if (device != localDeviceIdentifier_) {
            {
                std::lock_guard lock(stateMutex_);
                if (!observedForeignDevices_.contains(device)) {
                    observedForeignDevices_.insert(device);
                    startObservingForeignManifestDatabaseWithDeviceIdentifier(device);
                }
            }
            processManifestChangeWithDeviceIdentifier(device);
        }
}

// MARK: - Moving another bucket's content here

bool NBBucket::mergePackage(const QString& sourcePath, const QString& destinationPath, NBError* outError) {
    const auto destination =
        std::make_shared<NBDocument>(QUrl::fromLocalFile(destinationPath), localDeviceIdentifier_);
    const auto source = std::make_shared<NBDocument>(QUrl::fromLocalFile(sourcePath), localDeviceIdentifier_);
    destination->loadNow();
    source->loadNow();
    QStringList unsafe = destination->foreignDeviceIdentifiers();
    for (const QString& device : source->foreignDeviceIdentifiers())
        if (!unsafe.contains(device))
            unsafe << device;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::optional<NBError> failure;
    destination->mergeStore(source, unsafe, [&](const std::optional<NBError>& error) {
        std::lock_guard lock(mutex);
        failure = error;
        done = true;
        finished.notify_all();
    });
    {
        std::unique_lock lock(mutex);
        finished.wait(lock, [&] { return done; });
    }
    source->tearDownNow();
    destination->tearDownNow();
    if (failure)
        return nbFail(outError,
                      NBError::errorWithObject("NBBucket", kNBBucketErrorMergeDocument,
                                               nbFormat("Could not merge the package at path %@ into %@",
                                                        sourcePath, destinationPath),
                                               QString(), QString(), &*failure));
    return true;
}

bool NBBucket::moveAndMergeContentFromBucket(const std::shared_ptr<NBBucket>& bucket, NBError* outError) {
    if (!bucket || bucket.get() == this)
        return true;
    bucket->waitUntilFinished();
    bucket->emptyCacheNow();
    const QHash<QString, QString> sourcePaths = bucket->_existingDocumentPathsByFilenameWithError(nullptr);
    bool succeeded = true;
    QStringList moved;
    for (auto entry = sourcePaths.cbegin(); entry != sourcePaths.cend(); ++entry) {
        const QString subpath = bucket->documentSubpathWithPath(entry.value());
        if (subpath.split(QLatin1Char('/')).size() != 3)
            continue;
        const QString destinationPath = join(absolutePath_, subpath);
        NBError error;
        bool done = false;
        if (!QFileInfo::exists(destinationPath)) {
            QDir().mkpath(QFileInfo(destinationPath).path());
            done = QDir().rename(entry.value(), destinationPath) ||
                   (copyTree(entry.value(), destinationPath) && QDir(entry.value()).removeRecursively());
            if (!done)
                error = NBError::errorWithObject(
                    "NBBucket", kNBBucketErrorMoveDocument,
                    nbFormat("Could not move the package at path %@ to %@", entry.value(), destinationPath));
        } else {
            done = mergePackage(entry.value(), destinationPath, &error) &&
                   QDir(entry.value()).removeRecursively();
        }
        if (!done) {
            qCWarning(lcLibrary).noquote() << error.localizedDescription();
            if (succeeded)
                nbFail(outError, error);
            succeeded = false;
            continue;
        }
        moved << entry.key();
    }
    rescanDocuments();
    bucket->rescanDocuments();
    // The moved documents get rows in this bucket's manifest, so the other devices learn where they are.
    for (const QString& uuid : moved)
        if (retainedDocumentWithUUID(uuid))
            releasedDocumentWithUUID(uuid);
    return succeeded;
}
