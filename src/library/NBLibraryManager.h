// NBLibraryManager: one library on disk, its identity, and the nine sub-controllers that do its work.
//
// FOLDER LAYOUT (names exact)
//   <root>/Local                      local documents; the local bucket is <root>/Local/Default
//   <root>/PersistentInfo/Info.plist  the library information file (below): what cannot be rebuilt
//   <root>/PersistentInfo/Library.lock  the lock of the process that runs the library (NBLibraryLock.h)
//   <root>/DerivedInfo                only what the services can rebuild from documents (revision records,
//                                     the library database, search indexes); deleting it loses nothing
// The library root is per machine and never synchronised: documents that travel between computers live in
// synchronised folders (buckets of type 3, NBDocumentsController.h).
//
// Where the folders are on Linux. The default root is the Documents folder of QStandardPaths (XDG's
// XDG_DOCUMENTS_DIR, usually ~/Documents) + "Quillon"; the per-user support folder is the generic data
// location of QStandardPaths (XDG_DATA_HOME, usually ~/.local/share) + "Quillon". There is no Dropbox folder
// (dropboxDocumentsDirectory() is empty) and no iCloud folder (NBiCloudController.h).
//
// INFO.PLIST (this file owns it): an XML property-list dictionary, written whole and atomically (a temporary
// file renamed over the old one, QSaveFile), so a reader sees the old or the new file, never a mix.
//   "DeviceIdentifier"             string, this library's device identifier on this machine: a fresh UUID in
//                                  upper-case canonical form, written once when the file is created
//   "CreationDate"                 date the file was created
//   "BuiltInProtocolUUIDs"         array of strings, every built-in protocol ever offered; only appended to
//   "DeletedBuiltInProtocolUUIDs"  array of strings, built-in protocols the user deleted (never re-imported)
//   "LibraryOwner"                 string, the owner's display name
//   "EmailAddresses"               array of strings, the owner's e-mail addresses
//   "SynchronisedFolders"          array of strings, absolute paths of the synchronised folders this machine
//                                  shares documents through (NBDocumentsController.h)
// Keys this version does not know are kept and written back. A file that is a folder (code 60), cannot be
// read or is not a dictionary (70), or has no string "DeviceIdentifier" (80) makes set-up fail without
// touching any of the library's files; the failure is sticky until tear-down.
//
// Queues. A process-wide serial queue ("NBManagerCacheQueue") guards the cache of managers by standardized
// root path and the default manager. Each manager has its own serial queue ("NBLibraryManager.<name>");
// set-up, tear-down, the in-memory copy of Info.plist and its saving run only there. Completion handlers of
// set-up and tear-down run on the global queue; the ready notification "NBLibaryIsReadyNotification" (the
// name is spelled so, letter for letter) is posted on the main queue with the manager as its object.
//
// Set-up order: folders, Info.plist and the lock; the sub-controllers (created in the order of
// subcontrollerPropertyNames(), then set up; no sub-controller relies on another being set up before its
// awakeFromLibrarySetUp()); the services by name; the built-in protocols; then every sub-controller is
// awakened and the library is ready. While the built-in protocols are imported the manager is not yet set
// up, so the information accessors ignore reads and writes then; sub-controllers that need Info.plist during
// their own set-up read cachedInfoValueForKey().
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "foundation/NBError.h"
#include "library/NBAbstractController.h"
#include "library/NBDevice.h"

#include <QDateTime>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class NBDocumentsController;
class NBFileKeeper;
class NBHardLinkController;
class NBLibraryLock;
class NBRevisionController;
class NBSearchController;
class NBThumbnailController;
class NBTimerController;
class NBUIDatabaseController;
class NBUIStateController;
class NBiCloudController;

inline constexpr const char* NBLibaryIsReadyNotification = "NBLibaryIsReadyNotification";
// Posted (with the manager as object) when "LibraryOwner" or "EmailAddresses" changes; the buckets rewrite
// their device information then.
inline constexpr const char* kNBLibraryOwnerDidChangeNotification = "NBLibraryOwnerDidChangeNotification";

inline constexpr const char* kNBLibraryName = "Quillon";
inline constexpr const char* kNBLocalDocumentsDirectoryName = "Local";
inline constexpr const char* kNBPersistentInfoDirectoryName = "PersistentInfo";
inline constexpr const char* kNBDerivedInfoDirectoryName = "DerivedInfo";
inline constexpr const char* kNBLibraryInfoFileName = "Info.plist";
inline constexpr const char* kNBBuiltInProtocolsDirectoryName = "BuiltInProtocols";
inline constexpr const char* kNBBuiltInProtocolExtension = "mdown";

inline constexpr const char* kNBLibraryInfoDeviceIdentifierKey = "DeviceIdentifier";
inline constexpr const char* kNBLibraryInfoCreationDateKey = "CreationDate";
inline constexpr const char* kNBLibraryInfoBuiltInProtocolUUIDsKey = "BuiltInProtocolUUIDs";
inline constexpr const char* kNBLibraryInfoDeletedBuiltInProtocolUUIDsKey = "DeletedBuiltInProtocolUUIDs";
inline constexpr const char* kNBLibraryInfoLibraryOwnerKey = "LibraryOwner";
inline constexpr const char* kNBLibraryInfoEmailAddressesKey = "EmailAddresses";
inline constexpr const char* kNBLibraryInfoSynchronisedFoldersKey = "SynchronisedFolders";

// Error codes of the "NBLibraryManager" domain (set-up wraps them, keeping the code).
inline constexpr qint64 kNBLibraryManagerErrorNilDirectoryPath = 20;
inline constexpr qint64 kNBLibraryManagerErrorNotADirectory = 30;
inline constexpr qint64 kNBLibraryManagerErrorCreateDirectory = 40;
inline constexpr qint64 kNBLibraryManagerErrorSaveInfo = 50;
inline constexpr qint64 kNBLibraryManagerErrorInfoIsDirectory = 60;
inline constexpr qint64 kNBLibraryManagerErrorReadInfo = 70;
inline constexpr qint64 kNBLibraryManagerErrorNoDeviceIdentifier = 80;
// Another process runs this library (it holds the lock in "PersistentInfo").
inline constexpr qint64 kNBLibraryManagerErrorLibraryInUse = 90;

// The library's timers and waits, in seconds. The defaults are the system's own; tests may shorten them
// (set them before set-up).
struct NBLibraryTimings {
    double revisionRunDelay = 0.5;         // "run_delay"
    double revisionRunCoalesce = 30.0;     // "run_coalesce"
    double revisionSaveDelay = 5.0;        // "save_delay" of revisions.db
    double revisionSaveCoalesce = 30.0;    // "save_coalesce" of revisions.db
    double manifestSaveDelay = 5.0;        // "save_delay" of a bucket's manifest.db
    double manifestSaveCoalesce = 30.0;    // "save_coalesce" of a bucket's manifest.db
    double foreignManifestDelay = 1.0;     // from a foreign manifest folder's change to reading it
    double foreignManifestRetryUnit = 5.0; // retries after 1, 4 and 9 units (5, 20 and 45 s)
    double manualSyncDelay = 2.0;          // "sync" of a bucket
    double folderCheckInterval = 10.0;     // how often unavailable synchronised folders are looked for
    double builtInProtocolWait = 2.0;      // each wait of the built-in protocol import
};

// Makes extra services that the manager sets up, awakens, drains, tears down and enters by name beside its
// own sub-controllers (plug-ins, and the recording services of tests).
using NBAdditionalServicesFactory = std::function<std::vector<std::shared_ptr<NBAbstractController>>(
    const std::shared_ptr<NBLibraryManager>&)>;

class NBLibraryManager : public std::enable_shared_from_this<NBLibraryManager> {
    struct ConstructionToken {};

public:
    // ---- The process-wide cache ----
    // The cached manager for the standardized path, made (not set up) when there is none. Empty path: none.
    static std::shared_ptr<NBLibraryManager> sharedManagerWithRootPath(const QString& path);
    static std::shared_ptr<NBLibraryManager> cachedManagerWithRootPath(const QString& path);
    static void unregisterSharedManager(const std::shared_ptr<NBLibraryManager>& manager);
    static QString defaultRootPathForDefaultManager();
    static std::shared_ptr<NBLibraryManager> defaultManager();
    // Refuses (logs and returns nothing) a path that is not string-equal to the one the default manager
    // was first made with: callers pass the same string each time.
    static std::shared_ptr<NBLibraryManager> defaultManagerWithRootPath(const QString& path);
    static std::shared_ptr<NBLibraryManager> cachedDefaultManager();
    // An absolute path without ".", ".." or a trailing separator.
    static QString standardizedPath(const QString& path);

    NBLibraryManager(ConstructionToken, const QString& rootPath);
    ~NBLibraryManager();
    NBLibraryManager(const NBLibraryManager&) = delete;
    NBLibraryManager& operator=(const NBLibraryManager&) = delete;

    QString className() const { return QStringLiteral("NBLibraryManager"); }
    const QString& rootPath() const { return rootPath_; }
    // Empty until set up, and again after tear-down.
    QString deviceIdentifier() const;
    const std::shared_ptr<OAKDispatchQueue>& managerQueue() const { return managerQueue_; }
    bool isSetUp() const;
    std::optional<NBError> setupError() const;
    bool isNew() const;

    // Before set-up.
    void setTimings(const NBLibraryTimings& timings);
    NBLibraryTimings timings() const;
    void setAdditionalServicesFactory(NBAdditionalServicesFactory factory);
    // The resources folder holding "BuiltInProtocols" (default: <program folder>/../share/quillon).
    static void setResourcesDirectory(const QString& path);
    static QString resourcesDirectory();

    // ---- Life cycle ----
    void setUpWithCompletionHandler(NBErrorHandler completionHandler);
    bool setUpWithError(NBError* outError = nullptr);
    void tearDownWithCompletionHandler(NBErrorHandler completionHandler);
    bool tearDownWithError(NBError* outError = nullptr);
    // Two full passes of waitUntilFinished over every sub-controller: work one hands to another during the
    // first pass is drained by the second.
    void waitUntilFinished();

    // ---- Sub-controllers ----
    static const QStringList& subcontrollerPropertyNames();
    QMap<QString, std::shared_ptr<NBAbstractController>> subcontrollersByPropertyNames() const;
    QMap<QString, std::shared_ptr<NBAbstractController>> servicesByName() const;
    std::shared_ptr<NBDocumentsController> documentsController() const;
    std::shared_ptr<NBRevisionController> revisionController() const;
    std::shared_ptr<NBUIDatabaseController> uiDatabaseController() const;
    std::shared_ptr<NBSearchController> searchController() const;
    std::shared_ptr<NBThumbnailController> thumbnailController() const;
    std::shared_ptr<NBiCloudController> iCloudController() const;
    std::shared_ptr<NBHardLinkController> hardLinkController() const;
    std::shared_ptr<NBUIStateController> uiStateController() const;
    std::shared_ptr<NBTimerController> timerController() const;

    // ---- Info.plist ----
    QVariantMap libraryInfo() const;
    QVariant plistValueForInfoKey(const QString& key) const;
    // A null value removes the key. Synchronous inside the manager queue, else asynchronous; several
    // changes in one pass of the queue are written once.
    void setPlistValueForInfoKey(const QVariant& value, const QString& key);
    // The in-memory Info.plist value whether or not the manager is set up yet; manager queue only (for
    // sub-controllers during their set-up).
    QVariant cachedInfoValueForKey(const QString& key) const;
    void runTransaction(OAKBlock block);

    // ---- Folders ----
    QString localDocumentsDirectory() const;
    QString persistentInfoDirectory() const;
    QString derivedInfoDirectory() const;
    QString infoPlistPath() const;
    static QString supportDirectory();
    // Always empty on this platform: there is no Dropbox folder of its own.
    QString dropboxDocumentsDirectory() const { return QString(); }
    QString iCloudDocumentsDirectory() const;

    std::vector<NBDevice> remoteDevices() const;

    // ---- Owner ----
    QString libraryOwner() const;
    void setLibraryOwner(const QString& owner);
    // The owner; else the user's full name from the system; else the login name; else "Anonymous".
    QString libraryOwnerOrFallback() const;
    QStringList libraryOwnerEmailAddresses() const;
    QString libraryOwnerEmailAddress() const;
    void setLibraryOwnerEmailAddress(const QString& address);
    void addLibraryOwnerEmailAddresses(const QStringList& addresses);
    QDateTime creationDate() const;

    // ---- Built-in protocols ----
    QStringList builtInProtocolUUIDs() const;
    bool protocolWithUUIDIsBuiltIn(const QString& uuid) const;
    QStringList deletedBuiltInProtocolUUIDs() const;
    void setDeletedBuiltInProtocolUUIDs(const QStringList& uuids);
    bool builtInProtocolWithUUIDIsDeleted(const QString& uuid) const;
    void markBuiltInProtocolWithUUIDAsDeleted(const QString& uuid);

    // ---- Collaborators ----
    // How buckets ask for access to folders outside the library (default: NBLocalFileKeeper).
    std::shared_ptr<NBFileKeeper> fileKeeper() const;
    void setFileKeeper(std::shared_ptr<NBFileKeeper> fileKeeper);
    bool usesiCloudExclusively() const;
    void setUsesiCloudExclusively(bool flag);

private:
    std::optional<NBError> _setUpOrReturnError();
    std::optional<NBError> _tearDownOrReturnError();
    bool checkManagerQueue(const char* method) const;
    std::optional<NBError> setUpPaths();
    std::optional<NBError> setUpControllers();
    void setUpBuiltInProtocols();
    void importBuiltInProtocolFile(const QString& filePath);
    std::optional<NBError> createDirectory(const QString& path, const QString& description) const;
    bool writeInfo(const QVariantMap& info, NBError* outError) const;
    void _saveCachedInfo();
    static QStringList stringList(const QVariant& value);
    QStringList collectBuiltInProtocolUUIDs() const;

    QString rootPath_;
    std::shared_ptr<OAKDispatchQueue> managerQueue_;
    // The path as passed when this manager became the default one (cache queue).
    QString defaultPath_;

    mutable std::mutex stateMutex_; // guards the fields below that other threads read
    QString deviceIdentifier_;
    bool isSetUp_ = false;
    bool isNew_ = false;
    std::optional<NBError> setupError_;
    NBLibraryTimings timings_;
    NBAdditionalServicesFactory additionalServicesFactory_;
    std::shared_ptr<NBFileKeeper> fileKeeper_;
    bool usesiCloudExclusively_ = false;
    QMap<QString, std::shared_ptr<NBAbstractController>> subcontrollers_;
    std::vector<std::shared_ptr<NBAbstractController>> additionalServices_;
    QMap<QString, std::shared_ptr<NBAbstractController>> servicesByName_;

    // Manager queue.
    QVariantMap cachedInfo_;
    bool shouldSaveCachedInfo_ = false;
    QStringList builtInProtocolUUIDs_;
    std::unique_ptr<NBLibraryLock> lock_;
};
