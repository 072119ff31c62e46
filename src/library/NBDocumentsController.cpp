// The documents controller: buckets, finding, making, importing, duplicating and deleting documents.
#include "library/NBDocumentsController.h"

#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/NBLogging.h"
#include "library/NBBucket.h"
#include "library/NBFileKeeper.h"
#include "library/NBLibraryLogging.h"
#include "library/NBLibraryManager.h"

#include <QDir>
#include <QFileInfo>

NBDocumentsController::NBDocumentsController(ConstructionToken token,
                                             const std::shared_ptr<NBLibraryManager>& manager)
    : NBAbstractController(token, manager) {}

NBDocumentsController::~NBDocumentsController() = default;

std::shared_ptr<NBBucket> NBDocumentsController::makeBucket(int type, const QString& absolutePath,
                                                            const QString& relativePath) {
    return NBBucket::bucketWithType(type, libraryManager(), absolutePath, relativePath);
}

bool NBDocumentsController::startBucket(const std::shared_ptr<NBBucket>& bucket, NBError* outError) {
    if (const auto error = bucket->setUpAndReturnError())
        return nbFail(outError, *error);
    return true;
}

bool NBDocumentsController::setUpWithError(NBError* outError) {
    const auto manager = libraryManager();
    if (!manager)
        return true;
    queue_ =
        OAKDispatchQueue::dispatchQueueWithLabel(OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
            nbFormat("documents.%@", manager->deviceIdentifier())));
    const auto local = makeBucket(
        kNBBucketTypeLocal,
        QDir(manager->localDocumentsDirectory()).filePath(QString::fromUtf8(kNBLocalBucketRelativePath)),
        QString::fromUtf8(kNBLocalBucketRelativePath));
    if (!local || !startBucket(local, outError))
        return local ? false
                     : nbFail(outError, NBError::errorWithObject(
                                            "NBDocumentsController", kNBDocumentsControllerErrorNoBucket,
                                            QStringLiteral("Could not create the local bucket")));
    std::vector<std::shared_ptr<NBBucket>> buckets{local};
    QStringList folders;
    for (const QVariant& value :
         manager->cachedInfoValueForKey(QString::fromUtf8(kNBLibraryInfoSynchronisedFoldersKey)).toList())
        if (const QString path = NBLibraryManager::standardizedPath(value.toString());
            !path.isEmpty() && !folders.contains(path))
            folders << path;
    QStringList unavailable;
    for (const QString& path : folders) {
        const auto bucket = makeBucket(kNBBucketTypeSynchronisedFolder, path, QFileInfo(path).fileName());
        NBError error;
        if (!bucket || !startBucket(bucket, &error)) {
            if (bucket)
                qCWarning(lcLibrary).noquote() << error.localizedDescription();
            unavailable << path;
            continue;
        }
        buckets.push_back(bucket);
    }
    std::lock_guard lock(mutex_);
    buckets_ = std::move(buckets);
    folderPaths_ = folders;
    unavailableFolderPaths_ = unavailable;
    return true;
}

void NBDocumentsController::awakeFromLibrarySetUp() {
    for (const auto& bucket : buckets())
        bucket->awakeFromLibrarySetUp();
    {
        std::lock_guard lock(mutex_);
        awake_ = true;
    }
    scheduleFolderCheck();
}

void NBDocumentsController::waitUntilFinished() {
    if (queue_)
        queue_->dispatchSynchronously([] {});
    for (const auto& bucket : buckets())
        bucket->waitUntilFinished();
}

bool NBDocumentsController::tearDownWithError(NBError* outError) {
    if (queue_)
        queue_->dispatchSynchronously([this] { queue_->cancelAllTimers(); });
    std::vector<std::shared_ptr<NBBucket>> buckets;
    {
        std::lock_guard lock(mutex_);
        buckets.swap(buckets_);
        awake_ = false;
    }
    bool succeeded = true;
    for (const auto& bucket : buckets)
        if (const auto error = bucket->tearDownAndReturnError(); error && succeeded) {
            nbFail(outError, *error);
            succeeded = false;
        }
    return succeeded;
}

// MARK: - Buckets

std::vector<std::shared_ptr<NBBucket>> NBDocumentsController::buckets() const {
    std::lock_guard lock(mutex_);
    return buckets_;
}

std::shared_ptr<NBBucket> NBDocumentsController::localBucket() const {
    std::lock_guard lock(mutex_);
    return buckets_.empty() ? nullptr : buckets_.front();
}

std::shared_ptr<NBBucket> NBDocumentsController::bucketWithAbsolutePath(const QString& path) const {
    const QString standardized = NBLibraryManager::standardizedPath(path);
    for (const auto& bucket : buckets())
        if (bucket->absolutePath() == standardized)
            return bucket;
    return nullptr;
}

std::shared_ptr<NBBucket> NBDocumentsController::bucketOfDocumentWithUUID(const QString& uuid) const {
    for (const auto& bucket : buckets())
        if (bucket->documentWithUUIDIsRegistered(uuid))
            return bucket;
    return nullptr;
}

QStringList NBDocumentsController::synchronisedFolderPaths() const {
    std::lock_guard lock(mutex_);
    return folderPaths_;
}

QStringList NBDocumentsController::unavailableSynchronisedFolderPaths() const {
    std::lock_guard lock(mutex_);
    return unavailableFolderPaths_;
}

void NBDocumentsController::saveFolderList(const QStringList& paths) {
    if (const auto manager = libraryManager())
        manager->setPlistValueForInfoKey(paths.isEmpty() ? QVariant() : QVariant(QVariant(paths).toList()),
                                         QString::fromUtf8(kNBLibraryInfoSynchronisedFoldersKey));
}

bool NBDocumentsController::addSynchronisedFolder(const QString& folder, NBError* outError) {
    const QString path = NBLibraryManager::standardizedPath(folder);
    const auto manager = libraryManager();
    if (!manager || path.isEmpty())
        return nbFail(outError,
                      NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorFolder,
                                               nbFormat("Not a folder: '%@'", folder)));
    if (path == manager->rootPath() || path.startsWith(manager->rootPath() + QLatin1Char('/')) ||
        manager->rootPath().startsWith(path + QLatin1Char('/')))
        return nbFail(outError,
                      NBError::errorWithObject(
                          "NBDocumentsController", kNBDocumentsControllerErrorFolder,
                          nbFormat("The synchronised folder '%@' cannot lie inside the library or hold it, "
                                   "because the library at '%@' stays on this computer",
                                   path, manager->rootPath())));
    if (synchronisedFolderPaths().contains(path))
        return true;
    if (!QDir().mkpath(path))
        return nbFail(outError,
                      NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorFolder,
                                               nbFormat("Could not create the folder '%@'", path)));
    const auto bucket = makeBucket(kNBBucketTypeSynchronisedFolder, path, QFileInfo(path).fileName());
    if (!bucket)
        return nbFail(outError,
                      NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorFolder,
                                               nbFormat("Could not access bucket at path %@", path)));
    if (!startBucket(bucket, outError))
        return false;
    bool awake;
    QStringList paths;
    {
        std::lock_guard lock(mutex_);
        buckets_.push_back(bucket);
        folderPaths_ << path;
        paths = folderPaths_;
        awake = awake_;
    }
    saveFolderList(paths);
    if (awake)
        bucket->awakeFromLibrarySetUp();
    return true;
}

bool NBDocumentsController::removeSynchronisedFolder(const QString& folder, NBError* outError) {
    const QString path = NBLibraryManager::standardizedPath(folder);
    std::shared_ptr<NBBucket> bucket;
    QStringList paths;
    {
        std::lock_guard lock(mutex_);
        if (!folderPaths_.contains(path))
            return nbFail(outError, NBError::errorWithObject(
                                        "NBDocumentsController", kNBDocumentsControllerErrorFolder,
                                        nbFormat("'%@' is not a synchronised folder of this library", path)));
        folderPaths_.removeAll(path);
        unavailableFolderPaths_.removeAll(path);
        paths = folderPaths_;
        for (auto candidate = buckets_.begin(); candidate != buckets_.end(); ++candidate)
            if ((*candidate)->absolutePath() == path && (*candidate)->bucketType() != kNBBucketTypeLocal) {
                bucket = *candidate;
                buckets_.erase(candidate);
                break;
            }
    }
    saveFolderList(paths);
    if (bucket)
        if (const auto error = bucket->tearDownAndReturnError())
            qCWarning(lcLibrary).noquote() << error->localizedDescription();
    return true;
}

void NBDocumentsController::scheduleFolderCheck() {
    const auto manager = libraryManager();
    if (!queue_ || !manager)
        return;
    queue_->scheduleTimerWithName(QStringLiteral("check_folders"), manager->timings().folderCheckInterval,
                                  OAKTimerBehaviorDelay, [weak = weak_from_this()] {
                                      if (auto self =
                                              std::static_pointer_cast<NBDocumentsController>(weak.lock())) {
                                          self->checkSynchronisedFolders();
                                          self->scheduleFolderCheck();
                                      }
                                  });
}

void NBDocumentsController::checkSynchronisedFolders() {
    std::vector<std::shared_ptr<NBBucket>> gone;
    QStringList unavailable;
    bool awake;
    {
        std::lock_guard lock(mutex_);
        if (!awake_)
            return;
        awake = awake_;
        for (auto bucket = buckets_.begin(); bucket != buckets_.end();) {
            if ((*bucket)->bucketType() != kNBBucketTypeLocal &&
                !NBLocalFileKeeper::directoryIsUsable((*bucket)->absolutePath())) {
                gone.push_back(*bucket);
                unavailableFolderPaths_ << (*bucket)->absolutePath();
                bucket = buckets_.erase(bucket);
            } else {
                ++bucket;
            }
        }
        unavailable = unavailableFolderPaths_;
    }
    for (const auto& bucket : gone) {
        qCWarning(lcLibrary).noquote() << nbFormat("The synchronised folder at path '%@' is not available; "
                                                   "its documents are hidden until it comes back",
                                                   bucket->absolutePath());
        bucket->tearDownAndReturnError();
    }
    for (const QString& path : unavailable) {
        if (!NBLocalFileKeeper::directoryIsUsable(path))
            continue;
        const auto bucket = makeBucket(kNBBucketTypeSynchronisedFolder, path, QFileInfo(path).fileName());
        NBError error;
        if (!bucket || !startBucket(bucket, &error))
            continue;
        {
            std::lock_guard lock(mutex_);
            unavailableFolderPaths_.removeAll(path);
            buckets_.push_back(bucket);
        }
        qCInfo(lcLibrary).noquote() << nbFormat("The synchronised folder at path '%@' is available again",
                                                path);
        if (awake)
            bucket->awakeFromLibrarySetUp();
    }
}

// MARK: - Finding documents

bool NBDocumentsController::documentWithUUIDIsRegistered(const QString& uuid) const {
    return bucketOfDocumentWithUUID(uuid) != nullptr;
}

QSet<QString> NBDocumentsController::registeredDocumentUUIDs() const {
    QSet<QString> uuids;
    for (const auto& bucket : buckets())
        uuids.unite(bucket->registeredDocumentUUIDs());
    return uuids;
}

QString NBDocumentsController::documentPathWithUUID(const QString& uuid) const {
    for (const auto& bucket : buckets())
        if (QString path = bucket->existingDocumentPathWithUUID(uuid); !path.isEmpty())
            return path;
    return QString();
}

std::shared_ptr<NBDocument> NBDocumentsController::retainedDocumentWithUUID(const QString& uuid) {
    for (const auto& bucket : buckets())
        if (bucket->documentWithUUIDIsRegistered(uuid))
            return bucket->retainedDocumentWithUUID(uuid);
    return nullptr;
}

void NBDocumentsController::releasedDocumentWithUUID(const QString& uuid) {
    for (const auto& bucket : buckets())
        if (bucket->documentWithUUIDIsRegistered(uuid)) {
            bucket->releasedDocumentWithUUID(uuid);
            return;
        }
}

// MARK: - Making documents

bool NBDocumentsController::copyContent(NBDocument& source, NBDocument& target, bool keepIdentity,
                                        NBError* outError) {
    if (!source.isInMemory() && !source.loaded())
        source.loadNow();
    QVariantMap values = source.allRelevantValues();
    if (!keepIdentity) {
        values.remove(QString::fromUtf8(kNBDocumentUUIDKey));
        values.remove(QString::fromUtf8(kNBDocumentTitleKey));
    }
    if (!values.isEmpty())
        target.setEntriesFromDictionary(values);
    std::vector<NBError> errors;
    for (const NBParagraph& paragraph : source.paragraphs()) {
        if (!NBDocument::blobPathForParagraph(paragraph))
            continue;
        NBError error;
        const std::optional<QByteArray> data = source.attachmentDataForParagraph(paragraph, &error);
        if (!data || !target.writeAttachmentData(*data, paragraph, &error))
            errors.push_back(error);
    }
    if (!errors.empty())
        return nbFail(outError, target.errorForAttachmentErrors(std::move(errors)));
    return target.saveNow(outError);
}

void NBDocumentsController::importDocument(const std::shared_ptr<NBDocument>& document,
                                           NBImportHandler completionHandler) {
    importDocument(document, nullptr, std::move(completionHandler));
}

void NBDocumentsController::importDocument(const std::shared_ptr<NBDocument>& document,
                                           const std::shared_ptr<NBBucket>& chosenBucket,
                                           NBImportHandler completionHandler) {
    auto finish = [completionHandler](const QString& uuid, const std::optional<NBError>& error) {
        if (completionHandler)
            OAKDispatchQueue::globalDispatchQueue()->dispatchAsynchronously(
                [completionHandler, uuid, error] { completionHandler(uuid, error); });
    };
    if (!queue_ || !document) {
        finish(QString(),
               NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorNoBucket,
                                        QStringLiteral("There is no document to import")));
        return;
    }
    queue_->dispatchAsynchronously([this, self = shared_from_this(), document, chosenBucket, finish] {
        const auto manager = libraryManager();
        const auto bucket = chosenBucket ? chosenBucket : localBucket();
        if (!manager || !bucket)
            return finish(QString(), NBError::errorWithObject(
                                         "NBDocumentsController", kNBDocumentsControllerErrorNoBucket,
                                         QStringLiteral("The library has no bucket to import into")));
        const QString uuid = document->uuid();
        if (uuid.isEmpty())
            return finish(QString(),
                          NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorNoUUID,
                                                   QStringLiteral("The document to import has no UUID")));
        if (documentWithUUIDIsRegistered(uuid))
            return finish(QString(),
                          NBError::errorWithObject(
                              "NBDocumentsController", kNBDocumentsControllerErrorDuplicateUUID,
                              nbFormat("A document with UUID %@ is already in the library", uuid)));
        QString path;
        std::shared_ptr<NBDocument> target;
        if (document->isExperiment()) {
            path = bucket->proposedExperimentPathWithUUID(uuid);
            target = std::make_shared<NBExperiment>(QUrl::fromLocalFile(path), manager->deviceIdentifier());
        } else if (document->isProtocol()) {
            path = bucket->proposedProtocolPathWithUUID(uuid);
            target = std::make_shared<NBProtocol>(QUrl::fromLocalFile(path), manager->deviceIdentifier());
        } else {
            return finish(QString(),
                          NBError::errorWithObject(
                              "NBDocumentsController", kNBDocumentsControllerErrorUnknownKind,
                              nbFormat("The document %@ is neither an experiment nor a protocol", uuid)));
        }
        if (QFileInfo::exists(path))
            return finish(QString(), NBError::errorWithObject(
                                         "NBDocumentsController", kNBDocumentsControllerErrorDuplicateUUID,
                                         nbFormat("A package already exists at path %@", path)));
        NBError error;
        if (!target->prepareFilePackageWithError(&error)) {
            target->tearDownNow();
            return finish(QString(), error);
        }
        target->loadNow();
        if (!copyContent(*document, *target, true, &error)) {
            // The package keeps what could be written; the error says what could not.
            qCWarning(lcLibrary).noquote() << error.localizedDescription();
        }
        bucket->registerAndRetainDocument(target, path);
        bucket->releasedDocumentWithUUID(uuid);
        finish(uuid, std::nullopt);
    });
}

std::shared_ptr<NBDocument> NBDocumentsController::newDocument(bool experiment, const QString& title,
                                                               const QString& author,
                                                               const std::shared_ptr<NBBucket>& chosenBucket,
                                                               NBError* outError) {
    const auto manager = libraryManager();
    const auto bucket = chosenBucket ? chosenBucket : localBucket();
    if (!manager || !bucket) {
        nbFail(outError,
               NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorNoBucket,
                                        QStringLiteral("The library has no bucket for a new document")));
        return nullptr;
    }
    std::shared_ptr<NBDocument> document;
    if (experiment)
        document = NBExperiment::newExperimentInFolder(bucket->experimentsDirectory(),
                                                       manager->deviceIdentifier(), title, outError);
    else
        document = NBProtocol::newProtocolInFolder(bucket->protocolsDirectory(), manager->deviceIdentifier(),
                                                   title, outError);
    if (!document)
        return nullptr;
    document->setAuthor(author.isEmpty() ? manager->libraryOwnerOrFallback() : author);
    bucket->registerAndRetainDocument(document, document->storePath());
    // Registration is asynchronous on the bucket's cache queue; a retain made after this returns is queued
    // behind it.
    return document;
}

std::shared_ptr<NBDocument>
NBDocumentsController::newExperimentWithTitle(const QString& title, const QString& author,
                                              const std::shared_ptr<NBBucket>& bucket, NBError* outError) {
    return newDocument(true, title, author, bucket, outError);
}

std::shared_ptr<NBDocument>
NBDocumentsController::newProtocolWithTitle(const QString& title, const QString& author,
                                            const std::shared_ptr<NBBucket>& bucket, NBError* outError) {
    return newDocument(false, title, author, bucket, outError);
}

std::shared_ptr<NBDocument> NBDocumentsController::duplicateDocumentWithUUID(const QString& uuid,
                                                                             NBError* outError) {
    const auto bucket = bucketOfDocumentWithUUID(uuid);
    const auto source = bucket ? bucket->retainedDocumentWithUUID(uuid) : nullptr;
    if (!source) {
        nbFail(outError,
               NBError::errorWithObject("NBDocumentsController", kNBDocumentsControllerErrorNoSuchDocument,
                                        nbFormat("No document with UUID %@ in the library", uuid)));
        return nullptr;
    }
    const QString title = nbFormat("%@ (copy)", source->title());
    auto copy = newDocument(source->isExperiment(), title, source->author(), bucket, outError);
    if (copy && !copyContent(*source, *copy, false, outError))
        qCWarning(lcLibrary).noquote() << (outError ? outError->localizedDescription() : QString());
    bucket->releasedDocumentWithUUID(uuid);
    return copy;
}

// MARK: - Trash

bool NBDocumentsController::deleteDocumentWithUUID(const QString& uuid, NBError* outError) {
    const auto bucket = bucketOfDocumentWithUUID(uuid);
    if (!bucket)
        return nbFail(outError, NBError::errorWithObject(
                                    "NBDocumentsController", kNBDocumentsControllerErrorNoSuchDocument,
                                    nbFormat("No document with UUID %@ in the library", uuid)));
    if (!bucket->deleteDocumentWithUUID(uuid, outError))
        return false;
    if (const auto manager = libraryManager())
        manager->markBuiltInProtocolWithUUIDAsDeleted(uuid);
    return true;
}

bool NBDocumentsController::restoreDocumentWithUUID(const QString& uuid, NBError* outError) {
    const auto bucket = bucketOfDocumentWithUUID(uuid);
    if (!bucket || !bucket->documentWithUUIDIsDeleted(uuid))
        return nbFail(outError, NBError::errorWithObject(
                                    "NBDocumentsController", kNBDocumentsControllerErrorNoSuchDocument,
                                    nbFormat("No document with UUID %@ in the trash", uuid)));
    return bucket->restoreDocumentWithUUID(uuid, outError);
}

bool NBDocumentsController::documentWithUUIDIsDeleted(const QString& uuid) const {
    for (const auto& bucket : buckets())
        if (bucket->documentWithUUIDIsDeleted(uuid))
            return true;
    return false;
}

QStringList NBDocumentsController::trashedDocumentUUIDs() const {
    QStringList uuids;
    for (const auto& bucket : buckets())
        for (const QString& uuid : bucket->trashedDocumentUUIDs())
            if (bucket->documentWithUUIDIsRegistered(uuid))
                uuids << uuid;
    return uuids;
}

int NBDocumentsController::emptyTrash(NBError* outError) {
    int removed = 0;
    for (const auto& bucket : buckets())
        removed += bucket->emptyTrash(outError);
    return removed;
}

// MARK: - Sync

void NBDocumentsController::sync() {
    for (const auto& bucket : buckets())
        bucket->sync();
}

void NBDocumentsController::syncNow() {
    checkSynchronisedFolders();
    for (const auto& bucket : buckets())
        bucket->syncNow();
}
