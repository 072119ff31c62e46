// OAKStore: the syncable key-value store on which every document rests.
//
// A store keeps property-list values (see foundation/NBPropertyList.h) by string key. On disk it is a
// package folder in which every device that ever wrote to it has its own append-only log database (the
// format is documented in store/OAKStoreLog.h); a device writes only its own log and reads the others, and
// the current value of a key is the value of the newest log row for that key across all logs. All reads are
// served from an in-memory view; writes update the view at once and reach the device's log on the store's
// database queue, where timers save them soon after (1 s after the last edit, at most 15 s after the first).
//
// Queues. Every store has three serial queues (dispatch/OAKDispatchQueue.h):
// - the memory queue owns the in-memory view (`memory_`, `memoryKeyTimestamps_`, the transaction state);
//   readers dispatch onto it synchronously, and transactions run on it;
// - the database queue owns the open logs and the sync bookkeeping (`databaseTimestamps_`, `keyTimestamps_`)
//   and runs inserts, saves, syncs, closing and merges; writers never wait for it;
// - the notification queue posts the store's notifications on NBNotificationCenter::defaultCenter(), in
//   the order in which they were made.
// The database queue may wait for the memory queue (to apply what a sync read), never the other way round:
// the synchronous entry points that reach the database (loadNow, saveNow, changesSinceTimestamp, ...) refuse
// to run on the memory queue, that is inside a transaction, and log "To avoid deadlocks, ...".
//
// Ownership. Stores are owned through std::shared_ptr (create them with storeWithURL() or inMemoryStore(),
// or with std::make_shared for a subclass). Tear a store down (tearDownNow) before releasing it; a store that
// is destroyed with work pending saves what it holds, logs the unexpected timer count, and drains its
// queues. A store must not be destroyed from one of its own queues.
//
// Other devices. Foreign logs are read again by the sync step (sync, syncSoon, syncNow): timers on the
// database queue run it 1 s after the last foreign change and at most 15 s after the first. What triggers
// it: a loaded store watches its own package through the store watcher (store/OAKStoreWatcher.h, a client
// of the file observer, whose reports arrive on the file observer's delivery thread): the package
// folder (the package going away means the store was deleted: OAKStoreDidDeleteNotification, database
// closed), the "devices" folder (a device appearing or going away) and every foreign device folder (their
// logs changing, in place or replaced by a rename). The local device's folder is not watched, and a change
// reported inside it does nothing: the store wrote it itself. Every other report calls syncSoon; watch
// callbacks only schedule and never read logs. Coordination between writers is SQLite's own file locking
// (a writer in another process on this machine holds its lock only for a commit; readers read in batches
// of 1,000 rows in short transactions), and across machines no coordination is needed, because every log
// has one writer. What protects a reader from a log that a file-synchronisation service is still copying:
// a foreign log that is missing, half-written, locked or unreadable is left out of this sync step with its
// error logged once, its bookkeeping untouched, and it is read again at the next sync (which its next
// change triggers). It is never fatal.
//
// Replaced logs. A service may also deliver a foreign log as a whole new file in place of the old one (by a
// rename, or by rewriting it), for instance after a merge on another machine added older rows to it. The
// store's bound for that device (the newest timestamp read from it) then no longer says what was read: the
// sync step notices the replacement (the file is another one, or the newest row read is no longer where it
// was) and forgets that device's bookkeeping, so the new file is read again from the start. Values are not
// rolled back: per key the newest timestamp still wins, so older rows the new file brings fill keys only
// where they are newer than what the store holds, and values that only the old file held stay.
//
// Merging. mergeStore() merges the package of another copy of the same store into this one (see there).
// It is the one operation that writes into foreign device folders of the destination package: it replaces
// a device's log by the union of both copies, keeping the previous log as "logs.db-old" until the new one
// is saved.
//
// Subclassing. NBDocument derives from OAKStore and overrides the hooks below: relevantKeysForSync() (which
// keys the in-memory view holds after a sync) and applySyncChangeWithValues() (how values read from the logs
// reach the view). className() names the subclass in messages.
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "foundation/NBError.h"
#include "foundation/NBTimestamp.h"
#include "store/OAKLogRepresentation.h"
#include "store/OAKStoreLog.h"

#include <QHash>
#include <QMetaType>
#include <QSet>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantMap>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

inline constexpr const char* OAKStoreDidLoadNotification = "OAKStoreDidLoadNotification";
inline constexpr const char* OAKStoreDidChangeNotification = "OAKStoreDidChangeNotification";
inline constexpr const char* OAKStoreDidSyncNotification = "OAKStoreDidSyncNotification";
inline constexpr const char* OAKStoreDidDeleteNotification = "OAKStoreDidDeleteNotification";
inline constexpr const char* OAKStoreDidTearDownNotification = "OAKStoreDidTearDownNotification";

// OAKStoreDidSyncNotification is posted after every sync step of a loaded store, after the change
// notification of the values it brought (if any).
// Keys of a change notification's user information: "values" (key -> new value) and "timestamps"
// (key -> timestamp as qint64).
inline constexpr const char* OAKStoreValuesKey = "values";
inline constexpr const char* OAKStoreTimestampsKey = "timestamps";

// One log entry as seen from outside. Equality compares the four entry fields; `deviceIdentifier` tells
// which device's log holds it.
class OAKChange {
public:
    static OAKChange changeWithTimestamp(NBTimestamp timestamp, std::optional<NBTimestamp> parentTimestamp,
                                         const QString& key, const QVariant& propertyList);
    NBTimestamp timestamp = 0;
    std::optional<NBTimestamp> parentTimestamp;
    QString key;
    QVariant propertyList;
    QString deviceIdentifier;

    bool operator==(const OAKChange& other) const;
    // "<OAKChange:0x...> = timestamp: %@, parentTimestamp: %@, key: %@, plist: %@"
    QString description() const;
};

// The store's timers, in seconds. The defaults are the store's own; tests may shorten them.
struct OAKStoreTimings {
    double saveDelay = 1.0;     // "save_delay": after the last edit
    double saveCoalesce = 15.0; // "save_coalesce": at most after the first edit
    double closeDelay = 60.0;   // "close_database": after the last activity
    double syncDelay = 1.0;     // "sync_delay": after the last foreign change
    double syncCoalesce = 15.0; // "sync_coalesce": at most after the first foreign change
};

// One key's value as read from the logs (syncedPropertyListValueForKey).
struct OAKSyncedValue {
    QVariant value;
    NBTimestamp timestamp = 0;
    QString deviceIdentifier;
};

struct OAKStoreOptions {
    // Opens every log read-only and creates nothing inside the package: no device folder, no file. Writes
    // of values and blobs are refused with an error. For inspection, search and export.
    bool readOnly = false;
    OAKStoreTimings timings;
};

class OAKStore : public std::enable_shared_from_this<OAKStore> {
public:
    // A store for the package at `url` (a file URL), writing as device `deviceIdentifier` (may be empty for
    // a read-only store, for which every device is foreign).
    static std::shared_ptr<OAKStore> storeWithURL(const QUrl& url, const QString& deviceIdentifier,
                                                  const OAKStoreOptions& options = {});
    // A store with no files: values live in memory only, blobs in memory too.
    static std::shared_ptr<OAKStore> inMemoryStore();

    OAKStore(const QUrl& url, const QString& deviceIdentifier, const OAKStoreOptions& options = {});
    // The in-memory store.
    OAKStore();
    virtual ~OAKStore();
    OAKStore(const OAKStore&) = delete;
    OAKStore& operator=(const OAKStore&) = delete;

    // Identity and layout.
    virtual QString className() const { return QStringLiteral("OAKStore"); }
    const QUrl& storeURL() const { return storeURL_; }
    QString storePath() const;
    const QString& deviceIdentifier() const { return deviceIdentifier_; }
    bool isInMemory() const { return inMemory_; }
    bool isReadOnly() const { return options_.readOnly; }
    QString directoryPathForDeviceIdentifier(const QString& deviceIdentifier) const;
    QString databasePathForDeviceIdentifier(const QString& deviceIdentifier) const;
    static QString deviceIdentifierForDatabasePath(const QString& databasePath);
    // A device identifier names a folder: not empty, no "/", no leading "." (hidden entries are a
    // file-synchronisation service's temporaries).
    static bool isValidDeviceIdentifier(const QString& deviceIdentifier);
    QString readwriteDirectoryPath() const;
    // Device folders present in the package, other than the local one (read from disk).
    QStringList foreignDeviceIdentifiers() const;
    QStringList readonlyDirectoryPaths() const;
    QString blobDirectoryPath() const;
    QString absolutePathForBlobPath(const QString& path) const;
    // Creates the package folder, "devices" and the local device's folder (not in read-only mode).
    bool prepareFilePackageWithError(NBError* outError);

    const std::shared_ptr<OAKDispatchQueue>& databaseQueue() const { return databaseQueue_; }
    const std::shared_ptr<OAKDispatchQueue>& memoryQueue() const { return memoryQueue_; }
    const std::shared_ptr<OAKDispatchQueue>& notificationQueue() const { return notificationQueue_; }

    // Loading and tear-down.
    void load();
    void loadNow();
    bool loaded() const { return loaded_.load(); }
    bool deleted() const { return deleted_.load(); }
    void tearDown();
    void tearDownNow();
    // Drains the memory queue, then saves and syncs on the database queue, then drains the notification
    // queue: afterwards every edit made before the call is saved and announced.
    void waitUntilFinished();

    // Saving and closing.
    void saveSoon();
    bool saveNow(NBError* outError = nullptr);
    void closeDatabase();
    void closeDatabaseSoon();
    void closeDatabaseNow();

    // Sync with other devices' logs.
    void sync();
    void syncSoon();
    void syncNow();
    // The newest value of `key` in the logs (at or before `timestamp`), whatever the in-memory view holds.
    std::optional<OAKSyncedValue> syncedPropertyListValueForKey(const QString& key);
    std::optional<OAKSyncedValue> syncedPropertyListValueForKey(const QString& key, NBTimestamp timestamp);

    // Merges the package of `mergedStore` (another copy of this store, with the same local device) into
    // this one. Logs of devices named in `unsafeDeviceIdentifiers` are kept as they are here; the entries
    // only the merged copy holds for them go to the log of the device "<local>|<unsafe>". Afterwards the
    // store reloads and announces the values that became newer. The completion handler is called once, on
    // the global queue, with no error or with the first error (codes 1498, 1508, 1704, 1722, 1764).
    void mergeStore(const std::shared_ptr<OAKStore>& mergedStore, const QStringList& unsafeDeviceIdentifiers,
                    std::function<void(const std::optional<NBError>& error)> completionHandler);

    // Runs `block` as one step on the database queue, so that no save or sync interleaves with it (for a
    // caller that copies or replaces the package's files).
    void blockDatabaseQueueWhileRunningBlock(const OAKBlock& block);

    // File-change reports (from the package watcher, or any equivalent source): each changed path leads to
    // the check described above. Only schedules work.
    void respondToFileSystemEventWithPaths(const QStringList& paths);
    // The package was deleted: marks the store deleted, closes the database, posts
    // OAKStoreDidDeleteNotification.
    void accommodatePresentedItemDeletion();

    // Values.
    QVariant propertyListValueForKey(const QString& key) const;
    // The value if it is of `type` (integers of any width count as one type); on mismatch logs, fills
    // *outError (code 778) and returns a null value.
    QVariant propertyListValueForKey(const QString& key, QMetaType type, NBError* outError) const;
    void setPropertyListValue(const QVariant& value, const QString& key);
    // Several keys under one timestamp, one notification.
    void setEntriesFromDictionary(const QVariantMap& dictionary);
    // Runs `block` on the memory queue; nested transactions flatten; the changes made inside are announced
    // with one OAKStoreDidChangeNotification at the end of the outermost one.
    void runTransaction(const std::function<void()>& block);
    QVariantMap allRelevantValues() const;

    // Timestamps and changes.
    std::map<QString, NBTimestamp> mostRecentTimestampsByDeviceIdentifier();
    NBTimestamp mostRecentTimestampForDeviceIdentifier(const QString& deviceIdentifier);
    QHash<QString, NBTimestamp> mostRecentTimestampsByKey() const;
    NBTimestamp mostRecentTimestampForKey(const QString& key) const;
    // Every log entry of every device newer than `timestamp`, in ascending timestamp order.
    std::vector<OAKChange> changesSinceTimestamp(NBTimestamp timestamp);

    // Blobs: files below "blobs" in the package (in memory for an in-memory store). Paths are relative and
    // may not leave the blob folder.
    bool writeBlobData(const QByteArray& data, const QString& path, NBError* outError = nullptr);
    bool writeBlobFromPath(const QString& sourcePath, const QString& path, NBError* outError = nullptr);
    bool deleteBlobAtPath(const QString& path, NBError* outError = nullptr);
    std::optional<QByteArray> blobDataAtPath(const QString& path, NBError* outError = nullptr) const;

    void postNotificationWithName(const QString& name, const QVariantMap& userInfo = {});

    // How many saves committed rows to the local log since the store was created (for diagnostics and
    // tests of the save timers).
    unsigned long long saveCommitCount() const { return saveCommitCount_.load(); }

protected:
    // Subclass hooks.

    // The keys whose values the sync step keeps in memory. The base store keeps none of its own; a subclass
    // that wants every key found in the logs returns std::nullopt. Called on the database queue.
    virtual std::optional<QSet<QString>> relevantKeysForSync() const { return QSet<QString>(); }
    // Stores values read from the logs (only keys whose values changed) with their timestamps in the
    // in-memory view. Called on the memory queue.
    virtual void applySyncChangeWithValues(const QVariantMap& values,
                                           const QHash<QString, NBTimestamp>& timestamps);

    // Posts (or, inside a transaction, gathers) a change notification. Memory queue.
    void postDidChangeNotificationWithUserInfo(const QVariantMap& userInfo);
    // Queue-discipline checks: raise an assertion failure naming the method and return false when the
    // caller is not on the queue.
    bool checkDatabaseQueue(const char* method) const;
    bool checkMemoryQueue(const char* method) const;
    // Logs the deadlock refusal and returns true when the caller is on the memory queue.
    bool refuseOnMemoryQueue(const char* method) const;

    // Database-queue steps.
    void _load();
    bool _save(NBError* outError);
    void _sync();
    void _closeDatabase();
    void _tearDownDatabase();
    // Cancels the sync timers and forgets what the sync step has read, so a later load reads every log
    // again from the start.
    void _forgetSyncState();
    bool openDatabaseContext(NBError* outError);
    // Opens foreign logs that appeared and drops those that went away or were replaced, and keeps the
    // package watcher's folders in step.
    void refreshStoreList();
    // The sync step: reads what the logs hold beyond what was read before and applies newer values to the
    // in-memory view (announcing them when `announce`). Returns true when some value changed.
    bool syncStep(bool announce);
    // Checks that a foreign log is still the file whose newest row the bookkeeping remembers, and forgets
    // the device's bookkeeping when it was replaced. False when the check could not read the log.
    bool checkLogAnchor(const QString& deviceIdentifier, OAKStoreLog& log);
    // The open logs, the local one first.
    std::vector<std::pair<QString, OAKStoreLog*>> openLogs() const;
    // Device folders present in the package, the local one included.
    QStringList allDeviceIdentifiersOnDisk() const;

    // Merging (database queue).
    // Every row of the log at `path`, sorted; empty when there is no file, none when it cannot be read.
    std::optional<std::vector<OAKLogRepresentation>>
    _sortedLogRepresentationsFromDatabasePath(const QString& path) const;
    bool _replacePersistentStoreWithDeviceIdentifier(const QString& deviceIdentifier,
                                                     const std::vector<OAKLogRepresentation>& representations,
                                                     NBError* outError);
    void _mergeBlobsFromStore(const OAKStore& mergedStore);

    // Watching the package (database queue).
    void startWatching();
    void stopWatching();

    // Memory-queue steps.
    void _tearDown();
    void resetMemory();

private:
    struct PendingRow {
        NBTimestamp timestamp;
        std::optional<NBTimestamp> parentTimestamp;
        QString key;
        QVariant value; // encoded on the database queue
    };
    void enqueueRows(std::vector<PendingRow> rows);
    // One key set by an edit, as its change notification tells it.
    struct ChangedValue {
        QString key;
        QVariant value;
        NBTimestamp timestamp;
    };
    // A notification waiting for the notification queue; a change notification of an edit carries its
    // changes, from which the user information is built there.
    struct PendingNotification {
        QString name;
        QVariantMap userInfo;
        std::vector<ChangedValue> changes;
    };
    struct ValueEntry {
        const QString* key;
        const QVariant* value;
    };
    void enqueueNotification(PendingNotification notification);
    static QVariantMap userInfoForChanges(const std::vector<ChangedValue>& changes);
    // Posts (or, inside a transaction, gathers) the change notification of an edit. Memory queue.
    void postDidChangeNotificationWithChanges(std::vector<ChangedValue> changes);
    // Logs "Error creating data from plist: ..." with the encoder's error (found again when not given).
    void logEncodingFailure(const QString& key, const QVariant& value, const NBError* error = nullptr) const;
    void deliverPendingNotifications();
    void writePendingRows();
    void setValues(const ValueEntry* entries, std::size_t count);
    bool checkBlobPath(const QString& path, const char* method, const char* parameter, const char* verb,
                       NBError* outError) const;
    void reportOpenFailureOnce(const QString& path, const NBError& error);
    QString queueLabel(const char* prefix) const;

protected:
    QUrl storeURL_;
    QString deviceIdentifier_;
    OAKStoreOptions options_;
    bool inMemory_ = false;

    std::shared_ptr<OAKDispatchQueue> databaseQueue_;
    std::shared_ptr<OAKDispatchQueue> memoryQueue_;
    std::shared_ptr<OAKDispatchQueue> notificationQueue_;

    std::atomic<bool> loaded_{false};
    std::atomic<bool> deleted_{false};

    // Memory queue.
    QVariantMap memory_;
    QHash<QString, NBTimestamp> memoryKeyTimestamps_;
    bool inTransaction_ = false;
    QVariantMap didChangeNotificationUserInfoInTransaction_;
    mutable std::mutex memoryFileDataMutex_;
    QHash<QString, QByteArray> memoryFileData_;

    // Database queue.
    bool databaseContextOpen_ = false;
    std::unique_ptr<OAKStoreLog> readwriteDatabase_;
    std::map<QString, std::unique_ptr<OAKStoreLog>> readonlyDatabases_;
    std::map<QString, NBTimestamp> databaseTimestamps_;
    // Device -> the foreign log's newest row read so far (the row behind its entry in databaseTimestamps_)
    // and the file it was read from. A log is append-only, so that row stays where it is for as long as
    // the file is the same log; when the file or the row changed, the log was replaced as a whole.
    struct LogAnchor {
        OAKLogFileIdentity file;
        qint64 rowid = 0;
        NBTimestamp timestamp = 0;
    };
    std::map<QString, LogAnchor> logAnchors_;
    QHash<QString, NBTimestamp> keyTimestamps_;
    // Device -> relevant keys already looked up in full below that log's bound since it was opened.
    QHash<QString, QSet<QString>> keysSearchedBelowBound_;
    QHash<QString, QString> reportedOpenFailures_; // path -> message already logged
    std::size_t unwrittenRowCount_ = 0;            // rows that found no writable log since the last save
    std::atomic<unsigned long long> saveCommitCount_{0};
    unsigned long long watcherToken_ = 0;
    std::atomic<bool> watching_{false};
    std::mutex watchReportMutex_; // orders watcher reports with stopWatching()
    QStringList watchedFolders_;

private:
    std::mutex pendingRowsMutex_;
    std::vector<PendingRow> pendingRows_;
    std::mutex pendingNotificationsMutex_;
    std::vector<PendingNotification> pendingNotifications_;
};
