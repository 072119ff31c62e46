// NBBucket: one folder of the library's documents, shared by devices that each write only their own part.
//
// FOLDER LAYOUT of a bucket at `absolutePath` (device identifiers are libraries' device identifiers):
//   Info/<device>.plist                          device information, written only by that device (NBDevice.h)
//   <device>/Experiments/<UUID>.nbexperiment     experiment packages that device created
//   <device>/Protocols/<UUID>.nbprotocol         protocol packages that device created
//   <device>/Manifests/manifest.db               that device's manifest (NBManifestDatabase.h)
// A package lives in the folder of the device that created it, but every device writes its own log inside
// it, so any device opens any package. A device writes only its own folders and its own information file,
// with one exception: emptying the trash removes trashed packages wherever they are.
//
// Types. 1 is the library's own local folder ("<root>/Local/Default"); 2 would be a Dropbox folder, which
// this platform does not have, and is refused like any other unknown type; 3 is a *synchronised folder*: a
// folder that Syncthing, Nextcloud, Dropbox or any other service carries between computers, chosen by the
// user (NBDocumentsController.h). A folder outside the library is used only when the library's file keeper
// grants it (NBFileKeeper.h); otherwise the factory logs "Could not access bucket at path %@" and makes no
// bucket.
//
// Packages. A package folder counts once one of its device folders holds a log ("devices/<d>/logs.db"): a
// package that a synchronisation service has begun to copy, without any log yet, is left out until a later
// scan or manifest reading finds it complete. When two device folders hold a package with the same file
// name, both paths are reported ("There are multiple documents with filename ...") and the one in the
// folder of the device identifier that sorts first wins, on every device alike, so that all devices write
// into the same package.
//
// Deletion and the trash. A deletion is a row of this device's manifest with `deleted` 1 and the moment of
// the deletion as its timestamp; a restoration is the row with `deleted` 0 and the moment of the
// restoration. Packages stay where they are. Per document, the row with the newest timestamp over every
// device's manifest decides: a document is in the trash when that row is a deletion. So a deletion on one
// device reaches every device through its manifest (each hides the document and its services drop it), a
// restoration brings it back everywhere, and an edit made after a deletion (on a device that had not seen it)
// brings the document back instead of losing the edit. A manifest row's timestamp never moves backwards, so
// the moment of a deletion or restoration stays the newest fact until a newer edit. Emptying the trash
// removes the packages of trashed documents; their manifest rows stay as the record of the deletion.
//
// moveAndMergeContentFromBucket() moves every package of another bucket into this one at the same
// "<device>/<Experiments|Protocols>/<file>" sub-path; a package this bucket already has is merged into it
// with the store's merge, every device but the local one treated as unsafe (their differing rows are kept
// under "<local>|<device>" instead of changing their logs), and then removed from the other bucket.
//
// Queues (labels with the bundle identifier in front; <d> the device, <p> the absolute path with "/" as "."):
//   cache queue "bucket.cache.<d>.<p>"      the document registry (paths, open documents, retain counts) and
//                                           the other devices' manifest rows; retain and release are
//                                           synchronous there, so a document is handed out fully registered
//   database queue "bucket.db.<d>.<p>"      the local manifest and its save timers ("save_delay" 5 s,
//                                           "save_coalesce" 30 s)
//   manual-sync queue "bucket.manualsync.<d>.<p>"  reading other devices' manifests: the timer "sync" (2 s)
//                                           of a manual sync, and one timer per device, named
//                                           "manifest.<device>", that reads it 1 s after its folder changed
//                                           (changes within that second are read once) or after the retry
//                                           delays 5, 20 and 45 s when it could not be read
// Store notifications arrive on each store's notification queue and are only handed on to the cache queue
// there (a store's tear-down waits for its notification queue). The cache queue may wait for a store's
// queues and for the database queue; the database queue waits for nothing of the bucket.
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "fileobserver/NBFileSystemEvent.h"
#include "foundation/NBNotificationCenter.h"
#include "library/NBAbstractController.h"
#include "library/NBDevice.h"
#include "library/NBManifestDatabase.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class NBDocument;

inline constexpr int kNBBucketTypeLocal = 1;
inline constexpr int kNBBucketTypeDropbox = 2;
inline constexpr int kNBBucketTypeSynchronisedFolder = 3;

inline constexpr const char* kNBBucketInfoDirectoryName = "Info";
inline constexpr const char* kNBBucketExperimentsDirectoryName = "Experiments";
inline constexpr const char* kNBBucketProtocolsDirectoryName = "Protocols";
inline constexpr const char* kNBBucketManifestsDirectoryName = "Manifests";
inline constexpr const char* kNBLocalBucketRelativePath = "Default";

// Error codes of the "NBBucket" domain.
inline constexpr qint64 kNBBucketErrorNoContext = 2;
inline constexpr qint64 kNBBucketErrorSaveManifest = 3;
inline constexpr qint64 kNBBucketErrorNoModel = 7;
inline constexpr qint64 kNBBucketErrorNoSuchDocument = 10;
inline constexpr qint64 kNBBucketErrorMoveDocument = 20;
inline constexpr qint64 kNBBucketErrorMergeDocument = 30;
inline constexpr qint64 kNBBucketErrorRemoveDocument = 40;

class NBBucket : public NBAbstractController {
public:
    // A bucket of type 1 or 3 (see above), or nothing. Both paths must be given.
    static std::shared_ptr<NBBucket> bucketWithType(int bucketType,
                                                    const std::shared_ptr<NBLibraryManager>& manager,
                                                    const QString& absolutePath, const QString& relativePath);

    NBBucket(ConstructionToken token, const std::shared_ptr<NBLibraryManager>& manager);
    ~NBBucket() override;
    QString className() const override { return QStringLiteral("NBBucket"); }

    int bucketType() const { return bucketType_; }
    const QString& absolutePath() const { return absolutePath_; }
    const QString& relativePath() const { return relativePath_; }
    QString localDeviceIdentifier() const { return localDeviceIdentifier_; }

    bool setUpWithError(NBError* outError) override;
    void awakeFromLibrarySetUp() override;
    // Saves open documents, hands their changes to the manifest and saves it.
    void waitUntilFinished() override;
    bool tearDownWithError(NBError* outError) override;

    // ---- Paths ----
    QString deviceInfoDirectory() const;
    QString localDeviceInfoPath() const;
    QString deviceInfoPathForDeviceIdentifier(const QString& deviceIdentifier) const;
    QString deviceDirectoryWithIdentifier(const QString& deviceIdentifier) const;
    QString localDeviceDirectory() const;
    QString experimentsDirectory() const;
    QString protocolsDirectory() const;
    QString manifestsDirectory() const;
    QString experimentsDirectoryForDeviceIdentifier(const QString& deviceIdentifier) const;
    QString protocolsDirectoryForDeviceIdentifier(const QString& deviceIdentifier) const;
    QString manifestsDirectoryForDeviceIdentifier(const QString& deviceIdentifier) const;
    // The device folder's name when `path` is "<bucket>/<device>/Manifests", else empty.
    QString deviceIdentifierForManifestsDirectory(const QString& path) const;
    QString proposedExperimentPathWithUUID(const QString& uuid) const;
    QString proposedProtocolPathWithUUID(const QString& uuid) const;
    QString proposedExperimentPathWithUUID(const QString& uuid, const QString& deviceIdentifier) const;
    QString proposedProtocolPathWithUUID(const QString& uuid, const QString& deviceIdentifier) const;
    QString documentSubpathWithPath(const QString& path) const;
    QString pathForForeignManifestDatabaseWithDeviceIdentifier(const QString& deviceIdentifier) const;
    QString deviceIdentifierForForeignManifestDatabasePath(const QString& path) const;

    // ---- Documents ----
    QString existingDocumentPathWithUUID(const QString& uuid) const;
    // Opens the document when it is not open yet; each retain needs one release.
    std::shared_ptr<NBDocument> retainedDocumentWithUUID(const QString& uuid);
    std::shared_ptr<NBDocument> retainedCachedDocumentWithUUID(const QString& uuid);
    void releasedDocumentWithUUID(const QString& uuid);
    // Registers an open document (made by the caller at `path`) with one retain. Asynchronous.
    void registerAndRetainDocument(const std::shared_ptr<NBDocument>& document, const QString& path);
    bool documentWithUUIDIsRegistered(const QString& uuid) const;
    std::size_t registeredDocumentCount() const;
    QSet<QString> registeredDocumentUUIDs() const;
    unsigned retainCountOfDocumentWithUUID(const QString& uuid) const;
    void emptyCacheNow();
    // Scans the device folders again for packages (new ones appear, removed ones go).
    void rescanDocuments();

    // ---- Trash ----
    bool deleteDocumentWithUUID(const QString& uuid, NBError* outError = nullptr);
    bool restoreDocumentWithUUID(const QString& uuid, NBError* outError = nullptr);
    bool documentWithUUIDIsDeleted(const QString& uuid) const;
    QStringList trashedDocumentUUIDs() const;
    // Removes the packages of every trashed document; returns how many were removed.
    int emptyTrash(NBError* outError = nullptr);

    // ---- Devices ----
    void refreshInfoPlist();
    void scanDeviceInfoDirectory();
    QStringList deviceIdentifiers() const;
    std::optional<NBDevice> localDevice() const;
    std::vector<NBDevice> remoteDevices() const;

    // ---- Manifests ----
    void
    refreshLocalManifestAndNotifyRevisionControllerForDocument(const std::shared_ptr<NBDocument>& document);
    void processManifestChangeWithDeviceIdentifier(const QString& deviceIdentifier);
    QList<QVariantMap> localManifestRepresentation() const;
    QList<QVariantMap> manifestRepresentationsForDeviceIdentifier(const QString& deviceIdentifier) const;
    QMap<QString, QList<QVariantMap>> allManifestRepresentations() const;
    void saveSoon();
    bool saveNow(NBError* outError = nullptr);
    // A manual sync 2 s from now, or at once (reading every other device's manifest before returning).
    void sync();
    void syncNow();

    bool moveAndMergeContentFromBucket(const std::shared_ptr<NBBucket>& bucket, NBError* outError = nullptr);

    // Folder observation callbacks (delivery thread).
    void deviceInfoDirectoryDidChange(const NBFileSystemEvent& event);
    void foreignManifestDatabaseDirectoryDidChange(const NBFileSystemEvent& event);

    // Replaces the retry timers of unreadable foreign manifests: the function is told the device and the
    // delay instead, and no timer is scheduled (for tests on a fixed clock).
    void setForeignManifestRetryScheduler(
        std::function<void(const QString& deviceIdentifier, double seconds)> scheduler);
    unsigned manifestDatabaseErrorCountForDeviceIdentifier(const QString& deviceIdentifier) const;

private:
    struct DocumentState {
        NBTimestamp timestamp = 0;
        bool deleted = false;
    };
    std::shared_ptr<NBBucket> sharedBucket() {
        return std::static_pointer_cast<NBBucket>(shared_from_this());
    }
    QStringList listDeviceDirectories() const;
    QHash<QString, QString> _existingDocumentPathsByFilenameWithError(NBError* outError) const;
    static bool packageIsComplete(const QString& path);
    // Cache queue.
    std::shared_ptr<NBDocument> _openDocument(const QString& uuid);
    void _activateDocument(const std::shared_ptr<NBDocument>& document, const QString& uuid);
    void _deactivateDocument(const QString& uuid);
    void startObservingDocument(const std::shared_ptr<NBDocument>& document, const QString& uuid);
    void stopObservingDocument(const QString& uuid);
    void _refreshLocalManifest(const std::shared_ptr<NBDocument>& document);
    void _documentDidSync(const std::shared_ptr<NBDocument>& document, const QVariantMap& userInfo);
    std::map<QString, NBTimestamp> _timestampsOfDocumentWithUUID(const QString& uuid);
    // Deletion states.
    std::optional<DocumentState> stateOfDocument(const QString& uuid) const;
    void setLocalRowState(const QString& uuid, const NBManifestRow& row);
    void applyStateTransitions(const QHash<QString, std::optional<DocumentState>>& before);
    bool _setDeleted(const QString& uuid, bool deleted, NBError* outError);
    // Database queue.
    bool _save(NBError* outError);
    void _loadLocalManifest();
    // Foreign manifests.
    void startObservingForeignManifestDatabaseWithDeviceIdentifier(const QString& deviceIdentifier);
    void scheduleManifestReading(const QString& deviceIdentifier, double seconds);
    void _sync();
    enum class ForeignManifestReading { Once, Retrying };
    void _processManifestChange(const QString& deviceIdentifier, ForeignManifestReading reading);
    void handleNewDeviceIdentifiers(const QStringList& deviceIdentifiers);
    bool mergePackage(const QString& sourcePath, const QString& destinationPath, NBError* outError);

    int bucketType_ = 0;
    QString absolutePath_;
    QString relativePath_;
    QString localDeviceIdentifier_;
    std::shared_ptr<OAKDispatchQueue> cacheQueue_;
    std::shared_ptr<OAKDispatchQueue> databaseQueue_;
    std::shared_ptr<OAKDispatchQueue> manualSyncQueue_;

    // Cache queue.
    QHash<QString, QString> documentPaths_;
    QHash<QString, std::shared_ptr<NBDocument>> activeDocuments_;
    QHash<QString, unsigned> activeDocumentRetainCounts_;
    std::map<QString, std::vector<NBScopedObserver>> documentObservers_;

    // Database queue.
    std::unique_ptr<NBManifestDatabase> manifest_;
    QHash<QString, NBManifestRow> manifestRows_;
    QSet<QString> unsavedManifestRows_;

    // Guarded by stateMutex_: every device's rows as far as deletion goes, the devices, and the foreign
    // manifests as last read.
    mutable std::mutex stateMutex_;
    QHash<QString, QHash<QString, DocumentState>> statesByDevice_;
    QMap<QString, QList<QVariantMap>> foreignRepresentations_;
    QStringList deviceIdentifiers_;
    QSet<QString> observedForeignDevices_;
    std::optional<NBDevice> localDevice_;
    std::vector<NBDevice> remoteDevices_;

    // Guarded by a lock on itself.
    mutable std::mutex errorCountMutex_;
    QHash<QString, unsigned> manifestDatabaseErrorCount_;
    std::function<void(const QString&, double)> retryScheduler_;

    NBScopedObserver ownerObserver_;
};
