// NBRevisionController: makes the library's derived services follow its documents.
//
// Buckets tell it of every revision of a document (a device's log in the document has reached a timestamp)
// and of the rows of other devices' manifests. It remembers, per document, device and service, up to which
// timestamp that service has processed the document, turns every revision a service has not yet seen into
// an NBServiceOperation, merges operations that overlap, runs them against the services of the library
// manager (servicesByName), and advances its records only when a service reports success. A deleted document
// is sent to every service once.
//
// REVISION DATABASE (this file owns it): "<library>/DerivedInfo/Revisions/revisions.db", SQLite 3, journal
// mode WAL (it is derived data that only this process writes).
//   CREATE TABLE NBRevision (documentUUID TEXT, deviceIdentifier TEXT, timestamp INTEGER, serviceName TEXT)
//   with an index on each column. `PRAGMA user_version` is 1.
//   A row says that `serviceName` has processed the changes `deviceIdentifier` made in `documentUUID` up to
//   `timestamp`. A row whose device is "deletion_marker" and timestamp the distant future (the largest
//   64-bit value) says that the service has processed the document's deletion.
// The file can be deleted at any time with the library closed: every service then processes every document
// again from the distant past. A file that cannot be opened or read (damaged, a newer schema) is logged,
// removed and made anew, for the same reason. All rows are read into memory at set-up; changed rows are
// written by the save timers ("save_delay" 5 s after the last change, "save_coalesce" at most 30 s after
// the first) and at tear-down.
//
// Queues. The records live on the database queue ("revisions.db.<device>"), the operations on the operation
// queue ("revisions.ops.<device>"); services run on their own queues and answer through completion handlers,
// after which the controller returns to its queues. The operation queue may wait for a bucket's cache queue
// (to retain a document) and for a store's queues (to sync it); nothing waits for the operation queue except
// waitUntilFinished().
//
// Decisions where the system leaves the choice open:
// - Pending documents run in ascending order of the earliest initial timestamp among their operations, ties
//   by document UUID: a document no service has seen (the distant past) goes first, so a new library fills
//   its lists before it refreshes edits.
// - Manifest rows of another device make operations only when all three filters pass: the row is not marked
//   deleted, the document is not known to be deleted on any device, and the documents controller has the
//   document registered (a package that has not arrived yet, or is half copied, waits for the next reading).
//   Deletions and restorations in manifests reach this controller from the buckets, which compare the rows
//   of every device (NBBucket.h).
// - waitUntilFinished() runs queued and pending operations at once (without their timers) and blocks until
//   none is queued, pending or running, then saves the records.
// - awakeFromLibrarySetUp() runs nothing: the buckets hand their revisions in during their own awakening.
// - A restored document (taken out of the trash) loses its records and markers, so every service processes
//   it again from the distant past (processRestorationOfDocumentWithUUID).
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "library/NBAbstractController.h"
#include "library/NBServiceOperation.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QVariantMap>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace SQLite {
class Database;
}

inline constexpr const char* kNBRevisionsDirectoryName = "Revisions";
inline constexpr const char* kNBRevisionsDatabaseFileName = "revisions.db";
// At most about this many documents are processed at a time (the check is repeated after each document is
// started, so the limit is soft by one).
inline constexpr int kNBRevisionMaximumRunningDocuments = 20;

class NBRevisionController : public NBAbstractController {
public:
    NBRevisionController(ConstructionToken token, const std::shared_ptr<NBLibraryManager>& manager);
    ~NBRevisionController() override;
    QString className() const override { return QStringLiteral("NBRevisionController"); }

    bool setUpWithError(NBError* outError) override;
    bool tearDownWithError(NBError* outError) override;
    void waitUntilFinished() override;

    // A device's log in a document has reached `timestamp`.
    void processRevisionForDocumentUUID(const QString& documentUUID, NBTimestamp timestamp,
                                        const QString& deviceIdentifier);
    // Every manifest row ({"documentUUID", "timestamp", "deleted"}) of another device.
    void processRevisionsForManifestRepresentations(const QList<QVariantMap>& rows,
                                                    const QString& deviceIdentifier);
    // The document was deleted: each service that has not processed its deletion gets it once.
    using NBAbstractController::processDeletionOfDocumentWithUUID;
    void processDeletionOfDocumentWithUUID(const QString& documentUUID);
    // The document came back from the trash: its records are forgotten and `timestampsByDevice` (its
    // devices' newest timestamps) become revisions, so every service processes it from the beginning.
    void processRestorationOfDocumentWithUUID(const QString& documentUUID,
                                              const std::map<QString, NBTimestamp>& timestampsByDevice);
    QSet<QString> deletedDocumentUUIDsFromAllDevices() const;
    // Forgets every record of a service, so it processes every document again at the next revisions (for a
    // service whose derived data was lost or is rebuilt).
    void forgetRecordsOfServiceWithName(const QString& serviceName);

    void runOperationsSoon();
    void saveSoon();
    bool saveNow(NBError* outError = nullptr);
    QList<NBRevisionRecord> allRevisionRepresentations() const;
    QString databasePath() const;

private:
    struct Row {
        QString deviceIdentifier;
        QString serviceName;
        NBTimestamp timestamp = 0;
        qint64 rowID = 0; // 0: not written yet
        bool dirty = false;
    };
    using OperationGroup = QHash<QString, std::shared_ptr<NBServiceOperation>>;

    void openDatabase();
    // Database queue.
    std::vector<std::shared_ptr<NBServiceOperation>>
    operationsForRevision(const QString& documentUUID, NBTimestamp timestamp, const QString& deviceIdentifier,
                          const QMap<QString, std::shared_ptr<NBAbstractController>>& services) const;
    void handOperations(std::vector<std::shared_ptr<NBServiceOperation>> operations);
    void recordSuccess(const QString& documentUUID, const QString& serviceName,
                       const std::map<QString, NBTimestamp>& timestamps);
    void recordDeletion(const QString& documentUUID, const QString& serviceName);
    bool _save(NBError* outError);
    // Operation queue.
    void _runOperations();
    void _mergeQueuedOperations();
    void _runDeletionOperations();
    void _runPendingOperations();
    void finishOperations(const QString& documentUUID,
                          const QList<std::shared_ptr<NBServiceOperation>>& operations,
                          const std::map<QString, NBTimestamp>& reached);
    void signalProgress();

    std::shared_ptr<OAKDispatchQueue> databaseQueue_;
    std::shared_ptr<OAKDispatchQueue> operationQueue_;
    QString databasePath_;

    // Database queue.
    std::unique_ptr<SQLite::Database> database_;
    QHash<QString, std::vector<Row>> rowsByDocument_;
    std::vector<qint64> removedRowIDs_;
    bool hasUnsavedRows_ = false;

    // Operation queue.
    std::vector<std::shared_ptr<NBServiceOperation>> queuedOperations_;
    QHash<QString, OperationGroup> pendingOperationGroups_;
    QHash<QString, OperationGroup> runningOperationGroups_;
    QHash<QString, QHash<QString, std::shared_ptr<NBServiceOperation>>> deletionOperations_;
    // Document -> (uniquing key -> timestamp a successful run brought that service to), the operation queue's
    // view of records whose update on the database queue may still be on its way.
    QHash<QString, QHash<QString, NBTimestamp>> reachedTimestamps_;

    mutable std::mutex deletedMutex_;
    QSet<QString> deletedDocumentUUIDs_;

    // Service calls not yet answered, for waitUntilFinished().
    std::atomic<int> callsInFlight_{0};
    std::mutex progressMutex_;
    std::condition_variable progress_;
};
