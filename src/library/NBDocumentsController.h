// NBDocumentsController: the library's buckets, and creating, importing, duplicating, deleting and finding
// documents across them.
//
// Buckets. The local bucket (type 1, "<root>/Local/Default") always exists. Beside it, the user may choose
// synchronised folders (type 3): folders that a file-synchronisation service (Syncthing, Nextcloud, Dropbox,
// ...) carries between computers. The chosen folders are kept per machine, as absolute paths, under
// "SynchronisedFolders" in the library's Info.plist (the library root itself is never synchronised, so each
// computer chooses where its copy of the shared folder lives). A chosen folder that is missing or cannot be
// read and written is refused by the file keeper and left out; every `folderCheckInterval` (10 s) the
// controller looks again, so a folder that disappears while the library runs is reported ("The synchronised
// folder at path '%@' is not available; its documents are hidden until it comes back") and its bucket torn
// down, and a folder that comes back gets its bucket again. The rest of the library works throughout.
//
// Documents are found by UUID in the buckets in order (the local bucket first). New documents, imports and
// duplicates are written into this device's folder of the chosen bucket (the local one by default). Deleting
// moves a document to the trash (NBBucket.h says how the trash travels between devices); a trashed document
// can be restored until the trash is emptied; a deleted built-in protocol is remembered so that it is not
// imported again.
//
// Threads. Every operation may be called from any thread except the library's queues that the buckets use.
// Imports run on the controller's own serial queue ("documents.<device>") and call their completion handler
// on the global queue; they never wait for the library manager's queue.
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "library/NBAbstractController.h"

#include <QSet>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class NBBucket;
class NBDocument;

// Error codes of the "NBDocumentsController" domain.
inline constexpr qint64 kNBDocumentsControllerErrorNoBucket = 10;
inline constexpr qint64 kNBDocumentsControllerErrorNoUUID = 20;
inline constexpr qint64 kNBDocumentsControllerErrorDuplicateUUID = 30;
inline constexpr qint64 kNBDocumentsControllerErrorUnknownKind = 40;
inline constexpr qint64 kNBDocumentsControllerErrorCreatePackage = 50;
inline constexpr qint64 kNBDocumentsControllerErrorNoSuchDocument = 60;
inline constexpr qint64 kNBDocumentsControllerErrorFolder = 70;

using NBImportHandler = std::function<void(const QString& documentUUID, const std::optional<NBError>& error)>;

class NBDocumentsController : public NBAbstractController {
public:
    NBDocumentsController(ConstructionToken token, const std::shared_ptr<NBLibraryManager>& manager);
    ~NBDocumentsController() override;
    QString className() const override { return QStringLiteral("NBDocumentsController"); }

    bool setUpWithError(NBError* outError) override;
    void awakeFromLibrarySetUp() override;
    void waitUntilFinished() override;
    bool tearDownWithError(NBError* outError) override;

    // ---- Buckets ----
    std::vector<std::shared_ptr<NBBucket>> buckets() const;
    std::shared_ptr<NBBucket> localBucket() const;
    // The bucket of the folder (standardized path comparison), or nothing.
    std::shared_ptr<NBBucket> bucketWithAbsolutePath(const QString& path) const;
    std::shared_ptr<NBBucket> bucketOfDocumentWithUUID(const QString& uuid) const;
    QStringList synchronisedFolderPaths() const;
    QStringList unavailableSynchronisedFolderPaths() const;
    // Adds a synchronised folder (created when missing) and its bucket at once; remembered in Info.plist.
    bool addSynchronisedFolder(const QString& path, NBError* outError = nullptr);
    // Forgets a synchronised folder and tears its bucket down; its files stay where they are.
    bool removeSynchronisedFolder(const QString& path, NBError* outError = nullptr);
    // Looks for unavailable folders that came back and available ones that went away (see above).
    void checkSynchronisedFolders();

    // ---- Finding documents ----
    bool documentWithUUIDIsRegistered(const QString& uuid) const;
    QSet<QString> registeredDocumentUUIDs() const;
    QString documentPathWithUUID(const QString& uuid) const;
    std::shared_ptr<NBDocument> retainedDocumentWithUUID(const QString& uuid);
    void releasedDocumentWithUUID(const QString& uuid);

    // ---- Making documents ----
    // An in-memory or foreign document becomes a package in this device's folder of `bucket` (the local
    // bucket when none), with the same UUID, values and attachments. The handler gets the UUID, or an error.
    void importDocument(const std::shared_ptr<NBDocument>& document, NBImportHandler completionHandler);
    void importDocument(const std::shared_ptr<NBDocument>& document, const std::shared_ptr<NBBucket>& bucket,
                        NBImportHandler completionHandler);
    // New documents, retained once (release them with releasedDocumentWithUUID). An empty author means the
    // library owner (or its fallback).
    std::shared_ptr<NBDocument> newExperimentWithTitle(const QString& title, const QString& author,
                                                       const std::shared_ptr<NBBucket>& bucket = nullptr,
                                                       NBError* outError = nullptr);
    std::shared_ptr<NBDocument> newProtocolWithTitle(const QString& title, const QString& author,
                                                     const std::shared_ptr<NBBucket>& bucket = nullptr,
                                                     NBError* outError = nullptr);
    // A copy with a new UUID and the title "<title> (copy)" beside the original, retained once.
    std::shared_ptr<NBDocument> duplicateDocumentWithUUID(const QString& uuid, NBError* outError = nullptr);

    // ---- Trash ----
    bool deleteDocumentWithUUID(const QString& uuid, NBError* outError = nullptr);
    bool restoreDocumentWithUUID(const QString& uuid, NBError* outError = nullptr);
    bool documentWithUUIDIsDeleted(const QString& uuid) const;
    QStringList trashedDocumentUUIDs() const;
    int emptyTrash(NBError* outError = nullptr);

    // ---- Sync ----
    // A manual sync of every bucket: soon, or at once (reading every other device's manifest).
    void sync();
    void syncNow();

private:
    std::shared_ptr<NBBucket> makeBucket(int type, const QString& absolutePath, const QString& relativePath);
    bool startBucket(const std::shared_ptr<NBBucket>& bucket, NBError* outError);
    std::shared_ptr<NBDocument> newDocument(bool experiment, const QString& title, const QString& author,
                                            const std::shared_ptr<NBBucket>& bucket, NBError* outError);
    bool copyContent(NBDocument& source, NBDocument& target, bool keepIdentity, NBError* outError);
    void scheduleFolderCheck();
    void saveFolderList(const QStringList& paths);

    std::shared_ptr<OAKDispatchQueue> queue_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<NBBucket>> buckets_;
    QStringList folderPaths_;
    QStringList unavailableFolderPaths_;
    bool awake_ = false;
};
