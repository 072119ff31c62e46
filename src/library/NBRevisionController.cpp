// The revision controller: records, operations, merging and running them against the services.
#include "library/NBRevisionController.h"

#include "document/NBDocument.h"
#include "foundation/NBLogging.h"
#include "library/NBDocumentsController.h"
#include "library/NBLibraryLogging.h"
#include "library/NBLibraryManager.h"
#include "library/NBManifestDatabase.h"

#include <QDir>
#include <QFile>

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <chrono>

namespace {

const char* const kRunDelayTimer = "run_delay";
const char* const kRunCoalesceTimer = "run_coalesce";
const char* const kSaveDelayTimer = "save_delay";
const char* const kSaveCoalesceTimer = "save_coalesce";

} // namespace

NBRevisionController::NBRevisionController(ConstructionToken token,
                                           const std::shared_ptr<NBLibraryManager>& manager)
    : NBAbstractController(token, manager) {}

NBRevisionController::~NBRevisionController() = default;

QString NBRevisionController::databasePath() const {
    return databasePath_;
}

bool NBRevisionController::setUpWithError(NBError*) {
    const auto manager = libraryManager();
    if (!manager)
        return true;
    const QString device = manager->deviceIdentifier();
    databaseQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(
        OAKDispatchQueue::labelByPrependingBundleIdentifierToString(nbFormat("revisions.db.%@", device)));
    operationQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(
        OAKDispatchQueue::labelByPrependingBundleIdentifierToString(nbFormat("revisions.ops.%@", device)));
    const QString directory =
        QDir(manager->derivedInfoDirectory()).filePath(QString::fromUtf8(kNBRevisionsDirectoryName));
    databasePath_ = QDir(directory).filePath(QString::fromUtf8(kNBRevisionsDatabaseFileName));
    if (!QDir().mkpath(directory))
        qCWarning(lcLibrary).noquote()
            << nbFormat("Could not create directory for revision database at path '%@' because of error: %@",
                        directory, QStringLiteral("the folder could not be created"));
    databaseQueue_->dispatchSynchronously([this] { openDatabase(); });
    return true;
}

void NBRevisionController::openDatabase() {
    auto open = [this]() -> std::optional<QString> {
        try {
            database_ = std::make_unique<SQLite::Database>(databasePath_.toStdString(),
                                                           SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
            const int version = database_->execAndGet("PRAGMA user_version").getInt();
            if (version > 1)
                return QStringLiteral("its schema version %1 is newer than this program's").arg(version);
            database_->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
            database_->exec(
                "CREATE TABLE IF NOT EXISTS NBRevision (documentUUID TEXT, deviceIdentifier TEXT, "
                "timestamp INTEGER, serviceName TEXT);"
                "CREATE INDEX IF NOT EXISTS NBRevision_documentUUID ON NBRevision(documentUUID);"
                "CREATE INDEX IF NOT EXISTS NBRevision_deviceIdentifier ON NBRevision(deviceIdentifier);"
                "CREATE INDEX IF NOT EXISTS NBRevision_timestamp ON NBRevision(timestamp);"
                "CREATE INDEX IF NOT EXISTS NBRevision_serviceName ON NBRevision(serviceName);"
                "PRAGMA user_version = 1;");
            rowsByDocument_.clear();
            SQLite::Statement query(*database_,
                                    "SELECT rowid, documentUUID, deviceIdentifier, timestamp, serviceName "
                                    "FROM NBRevision");
            while (query.executeStep()) {
                Row row;
                row.rowID = query.getColumn(0).getInt64();
                row.deviceIdentifier = QString::fromUtf8(query.getColumn(2).getText());
                row.timestamp = query.getColumn(3).getInt64();
                row.serviceName = QString::fromUtf8(query.getColumn(4).getText());
                rowsByDocument_[QString::fromUtf8(query.getColumn(1).getText())].push_back(std::move(row));
            }
            return std::nullopt;
        } catch (const SQLite::Exception& exception) {
            return QString::fromUtf8(exception.what());
        }
    };
    std::optional<QString> failure = open();
    if (failure) {
        // Revision records are derived data: a file that cannot be used is replaced, and the services
        // process every document again.
        qCWarning(lcLibrary).noquote()
            << nbFormat("Could not create store for revision database at path '%@' because of error: %@",
                        databasePath_, *failure);
        database_.reset();
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            QFile::remove(databasePath_ + QString::fromUtf8(suffix));
        failure = open();
        if (failure) {
            qCWarning(lcLibrary).noquote()
                << nbFormat("Could not create managed object context for the revision database at path '%@'",
                            databasePath_);
            database_.reset();
            rowsByDocument_.clear();
        }
    }
    std::lock_guard lock(deletedMutex_);
    deletedDocumentUUIDs_.clear();
    for (auto document = rowsByDocument_.cbegin(); document != rowsByDocument_.cend(); ++document)
        for (const Row& row : document.value())
            if (row.deviceIdentifier == QLatin1String(kNBRevisionDeletionMarker))
                deletedDocumentUUIDs_.insert(document.key());
}

bool NBRevisionController::tearDownWithError(NBError* outError) {
    if (!databaseQueue_)
        return true;
    operationQueue_->dispatchSynchronously([this] { operationQueue_->cancelAllTimers(); });
    bool saved = true;
    databaseQueue_->dispatchSynchronously([&] {
        databaseQueue_->cancelAllTimers();
        saved = _save(outError);
        database_.reset();
    });
    return saved;
}

// ---- Revisions (database queue) ----

std::vector<std::shared_ptr<NBServiceOperation>> NBRevisionController::operationsForRevision(
    const QString& documentUUID, NBTimestamp timestamp, const QString& deviceIdentifier,
    const QMap<QString, std::shared_ptr<NBAbstractController>>& services) const {
    std::vector<std::shared_ptr<NBServiceOperation>> operations;
    QHash<QString, const Row*> rowsByService;
    if (const auto rows = rowsByDocument_.constFind(documentUUID); rows != rowsByDocument_.constEnd())
        for (const Row& row : *rows)
            if (row.deviceIdentifier == deviceIdentifier)
                rowsByService.insert(row.serviceName, &row);
    for (auto service = services.cbegin(); service != services.cend(); ++service) {
        const Row* row = rowsByService.value(service.key());
        if (row && row->timestamp >= timestamp)
            continue;
        const NBTimestamp initial = row ? row->timestamp : timestampForDistantPast();
        QList<NBRevisionRecord> relevant;
        if (row)
            relevant << NBRevisionRecord{documentUUID, deviceIdentifier, row->timestamp, service.key()};
        operations.push_back(NBServiceOperation::operationWithService(service.value(), documentUUID, relevant,
                                                                      deviceIdentifier, initial, timestamp));
    }
    return operations;
}

void NBRevisionController::handOperations(std::vector<std::shared_ptr<NBServiceOperation>> operations) {
    if (operations.empty())
        return;
    operationQueue_->dispatchAsynchronously(
        [this, self = shared_from_this(), operations = std::move(operations)] {
            queuedOperations_.insert(queuedOperations_.end(), operations.begin(), operations.end());
            runOperationsSoon();
        });
}

void NBRevisionController::processRevisionForDocumentUUID(const QString& documentUUID, NBTimestamp timestamp,
                                                          const QString& deviceIdentifier) {
    const auto manager = libraryManager();
    if (!databaseQueue_ || !manager || documentUUID.isEmpty() || deviceIdentifier.isEmpty())
        return;
    databaseQueue_->dispatchAsynchronously([=, this, self = shared_from_this()] {
        handOperations(
            operationsForRevision(documentUUID, timestamp, deviceIdentifier, manager->servicesByName()));
    });
}

void NBRevisionController::processRevisionsForManifestRepresentations(const QList<QVariantMap>& rows,
                                                                      const QString& deviceIdentifier) {
    const auto manager = libraryManager();
    if (!databaseQueue_ || !manager || deviceIdentifier.isEmpty())
        return;
    const auto documents = manager->documentsController();
    const QSet<QString> registered = documents ? documents->registeredDocumentUUIDs() : QSet<QString>();
    const QSet<QString> deleted = deletedDocumentUUIDsFromAllDevices();
    databaseQueue_->dispatchAsynchronously([=, this, self = shared_from_this()] {
        const auto services = manager->servicesByName();
        std::vector<std::shared_ptr<NBServiceOperation>> operations;
        for (const QVariantMap& representation : rows) {
            const std::optional<NBManifestRow> row =
                NBManifestRow::rowWithDictionaryRepresentation(representation);
            if (!row || row->deleted || deleted.contains(row->documentUUID) ||
                !registered.contains(row->documentUUID))
                continue;
            auto made = operationsForRevision(row->documentUUID, row->timestamp, deviceIdentifier, services);
            operations.insert(operations.end(), made.begin(), made.end());
        }
        handOperations(std::move(operations));
    });
}

void NBRevisionController::processDeletionOfDocumentWithUUID(const QString& documentUUID) {
    const auto manager = libraryManager();
    if (!databaseQueue_ || !manager || documentUUID.isEmpty())
        return;
    {
        std::lock_guard lock(deletedMutex_);
        deletedDocumentUUIDs_.insert(documentUUID);
    }
    databaseQueue_->dispatchAsynchronously([=, this, self = shared_from_this()] {
        QSet<QString> processed;
        for (const Row& row : rowsByDocument_.value(documentUUID))
            if (row.deviceIdentifier == QLatin1String(kNBRevisionDeletionMarker))
                processed.insert(row.serviceName);
        std::vector<std::shared_ptr<NBServiceOperation>> operations;
        const auto services = manager->servicesByName();
        for (auto service = services.cbegin(); service != services.cend(); ++service)
            if (!processed.contains(service.key()))
                operations.push_back(
                    NBServiceOperation::deletionOperationWithService(service.value(), documentUUID));
        handOperations(std::move(operations));
    });
}

void NBRevisionController::processRestorationOfDocumentWithUUID(
    const QString& documentUUID, const std::map<QString, NBTimestamp>& timestampsByDevice) {
    const auto manager = libraryManager();
    if (!databaseQueue_ || !manager || documentUUID.isEmpty())
        return;
    databaseQueue_->dispatchAsynchronously([=, this, self = shared_from_this()] {
        for (const Row& row : rowsByDocument_.value(documentUUID))
            if (row.rowID != 0)
                removedRowIDs_.push_back(row.rowID);
        rowsByDocument_.remove(documentUUID);
        hasUnsavedRows_ = true;
        saveSoon();
        {
            std::lock_guard lock(deletedMutex_);
            deletedDocumentUUIDs_.remove(documentUUID);
        }
        // The operation queue forgets the deletion before the new revisions reach it (both hops keep order).
        operationQueue_->dispatchAsynchronously([this, self, documentUUID] {
            deletionOperations_.remove(documentUUID);
            reachedTimestamps_.remove(documentUUID);
        });
        std::vector<std::shared_ptr<NBServiceOperation>> operations;
        const auto services = manager->servicesByName();
        for (const auto& [device, timestamp] : timestampsByDevice) {
            auto made = operationsForRevision(documentUUID, timestamp, device, services);
            operations.insert(operations.end(), made.begin(), made.end());
        }
        handOperations(std::move(operations));
    });
}

QSet<QString> NBRevisionController::deletedDocumentUUIDsFromAllDevices() const {
    std::lock_guard lock(deletedMutex_);
    return deletedDocumentUUIDs_;
}

void NBRevisionController::forgetRecordsOfServiceWithName(const QString& serviceName) {
    if (!databaseQueue_)
        return;
    databaseQueue_->dispatchSynchronously([&] {
        for (auto document = rowsByDocument_.begin(); document != rowsByDocument_.end(); ++document) {
            auto& rows = document.value();
            for (const Row& row : rows)
                if (row.serviceName == serviceName && row.rowID != 0)
                    removedRowIDs_.push_back(row.rowID);
            std::erase_if(rows, [&](const Row& row) { return row.serviceName == serviceName; });
        }
        hasUnsavedRows_ = true;
        saveSoon();
    });
    operationQueue_->dispatchSynchronously([this] { reachedTimestamps_.clear(); });
}

void NBRevisionController::recordSuccess(const QString& documentUUID, const QString& serviceName,
                                         const std::map<QString, NBTimestamp>& timestamps) {
    std::vector<Row>& rows = rowsByDocument_[documentUUID];
    for (const auto& entry : timestamps) {
        // Named copies: lambdas below cannot capture structured bindings in every compiler this builds with.
        const QString& device = entry.first;
        const NBTimestamp timestamp = entry.second;
        auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& candidate) {
            return candidate.serviceName == serviceName && candidate.deviceIdentifier == device;
        });
        if (row == rows.end()) {
            rows.push_back(Row{device, serviceName, timestamp, 0, true});
        } else if (row->timestamp < timestamp) {
            row->timestamp = timestamp;
            row->dirty = true;
        }
    }
    hasUnsavedRows_ = true;
    saveSoon();
}

void NBRevisionController::recordDeletion(const QString& documentUUID, const QString& serviceName) {
    std::vector<Row>& rows = rowsByDocument_[documentUUID];
    const bool exists = std::any_of(rows.begin(), rows.end(), [&](const Row& row) {
        return row.serviceName == serviceName &&
               row.deviceIdentifier == QLatin1String(kNBRevisionDeletionMarker);
    });
    if (!exists) {
        rows.push_back(Row{QString::fromUtf8(kNBRevisionDeletionMarker), serviceName,
                           timestampForDistantFuture(), 0, true});
        hasUnsavedRows_ = true;
        saveSoon();
    }
}

QList<NBRevisionRecord> NBRevisionController::allRevisionRepresentations() const {
    QList<NBRevisionRecord> records;
    if (!databaseQueue_)
        return records;
    databaseQueue_->dispatchSynchronously([&] {
        for (auto document = rowsByDocument_.cbegin(); document != rowsByDocument_.cend(); ++document)
            for (const Row& row : document.value())
                records << NBRevisionRecord{document.key(), row.deviceIdentifier, row.timestamp,
                                            row.serviceName};
    });
    std::sort(records.begin(), records.end(), [](const NBRevisionRecord& a, const NBRevisionRecord& b) {
        return std::tie(a.documentUUID, a.serviceName, a.deviceIdentifier) <
               std::tie(b.documentUUID, b.serviceName, b.deviceIdentifier);
    });
    return records;
}

// ---- Saving (database queue) ----

void NBRevisionController::saveSoon() {
    const auto manager = libraryManager();
    if (!databaseQueue_ || !manager)
        return;
    const NBLibraryTimings timings = manager->timings();
    auto save = [this, weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            NBError error;
            if (!_save(&error))
                qCWarning(lcLibrary).noquote()
                    << nbFormat("Could not save revisions database:\npath: %@\nerror: %@\n", databasePath_,
                                error.localizedDescription());
        }
    };
    databaseQueue_->scheduleTimerWithName(QString::fromUtf8(kSaveDelayTimer), timings.revisionSaveDelay,
                                          OAKTimerBehaviorDelay, save);
    databaseQueue_->scheduleTimerWithName(QString::fromUtf8(kSaveCoalesceTimer), timings.revisionSaveCoalesce,
                                          OAKTimerBehaviorCoalesce, save);
}

bool NBRevisionController::saveNow(NBError* outError) {
    if (!databaseQueue_)
        return true;
    bool saved = true;
    databaseQueue_->dispatchSynchronously([&] { saved = _save(outError); });
    return saved;
}

bool NBRevisionController::_save(NBError* outError) {
    if (!checkQueue(databaseQueue_, "database", "_save"))
        return false;
    databaseQueue_->cancelTimerWithName(QString::fromUtf8(kSaveDelayTimer));
    databaseQueue_->cancelTimerWithName(QString::fromUtf8(kSaveCoalesceTimer));
    if (!hasUnsavedRows_ || !database_)
        return true;
    try {
        SQLite::Transaction transaction(*database_);
        SQLite::Statement remove(*database_, "DELETE FROM NBRevision WHERE rowid = ?");
        for (qint64 rowID : removedRowIDs_) {
            remove.bind(1, static_cast<int64_t>(rowID));
            remove.exec();
            remove.reset();
        }
        SQLite::Statement update(*database_, "UPDATE NBRevision SET timestamp = ? WHERE rowid = ?");
        SQLite::Statement insert(*database_,
                                 "INSERT INTO NBRevision (documentUUID, deviceIdentifier, timestamp, "
                                 "serviceName) VALUES (?, ?, ?, ?)");
        std::vector<std::pair<Row*, qint64>> inserted;
        for (auto document = rowsByDocument_.begin(); document != rowsByDocument_.end(); ++document) {
            const std::string uuid = document.key().toStdString();
            for (Row& row : document.value()) {
                if (!row.dirty)
                    continue;
                if (row.rowID != 0) {
                    update.bind(1, static_cast<int64_t>(row.timestamp));
                    update.bind(2, static_cast<int64_t>(row.rowID));
                    update.exec();
                    update.reset();
                } else {
                    insert.bind(1, uuid);
                    insert.bind(2, row.deviceIdentifier.toStdString());
                    insert.bind(3, static_cast<int64_t>(row.timestamp));
                    insert.bind(4, row.serviceName.toStdString());
                    insert.exec();
                    insert.reset();
                    inserted.emplace_back(&row, database_->getLastInsertRowid());
                }
            }
        }
        transaction.commit();
        // Only a committed transaction marks rows as written: a failed save leaves them to the next one.
        for (auto& [row, rowID] : inserted)
            row->rowID = rowID;
        for (auto document = rowsByDocument_.begin(); document != rowsByDocument_.end(); ++document)
            for (Row& row : document.value())
                row.dirty = false;
        removedRowIDs_.clear();
        hasUnsavedRows_ = false;
    } catch (const SQLite::Exception& exception) {
        return nbFail(outError, NBError::errorWithObject("NBRevisionController", 10,
                                                         QString::fromUtf8(exception.what())));
    }
    return true;
}

// ---- Operations (operation queue) ----

void NBRevisionController::runOperationsSoon() {
    const auto manager = libraryManager();
    if (!operationQueue_ || !manager)
        return;
    const NBLibraryTimings timings = manager->timings();
    auto run = [this, weak = weak_from_this()] {
        if (auto self = weak.lock())
            _runOperations();
    };
    operationQueue_->scheduleTimerWithName(QString::fromUtf8(kRunDelayTimer), timings.revisionRunDelay,
                                           OAKTimerBehaviorDelay, run);
    operationQueue_->scheduleTimerWithName(QString::fromUtf8(kRunCoalesceTimer), timings.revisionRunCoalesce,
                                           OAKTimerBehaviorCoalesce, run);
}

void NBRevisionController::_runOperations() {
    if (!checkQueue(operationQueue_, "operation", "_runOperations"))
        return;
    // One run answers both timers: the coalesce window starts again with the next request.
    operationQueue_->cancelTimerWithName(QString::fromUtf8(kRunDelayTimer));
    operationQueue_->cancelTimerWithName(QString::fromUtf8(kRunCoalesceTimer));
    _mergeQueuedOperations();
    _runDeletionOperations();
    _runPendingOperations();
}

void NBRevisionController::_mergeQueuedOperations() {
    if (!checkQueue(operationQueue_, "operation", "_mergeQueuedOperations"))
        return;
    for (const auto& operation : queuedOperations_) {
        if (operation->isDeletion()) {
            deletionOperations_[operation->deletedDocumentUUID].insert(operation->serviceName(), operation);
            std::lock_guard lock(deletedMutex_);
            deletedDocumentUUIDs_.insert(operation->deletedDocumentUUID);
            continue;
        }
        const QString serviceName = operation->serviceName();
        bool deleted;
        {
            std::lock_guard lock(deletedMutex_);
            deleted = deletedDocumentUUIDs_.contains(operation->documentUUID);
        }
        if (deleted || serviceName.isEmpty())
            continue;
        const QString key = operation->uniquingKey();
        // A revision made from a record that a success was about to raise: the service is already there.
        if (const auto reached = reachedTimestamps_.constFind(operation->documentUUID);
            reached != reachedTimestamps_.constEnd() && reached->contains(key) &&
            operation->targetTimestamp <= reached->value(key))
            continue;
        OperationGroup& pending = pendingOperationGroups_[operation->documentUUID];
        if (const auto existing = pending.constFind(key); existing != pending.constEnd()) {
            NBServiceOperation& merged = **existing;
            merged.initialTimestamp = std::min(merged.initialTimestamp, operation->initialTimestamp);
            merged.targetTimestamp = std::max(merged.targetTimestamp, operation->targetTimestamp);
            merged.relevantRevisions << operation->relevantRevisions;
            continue;
        }
        if (const auto running = runningOperationGroups_.constFind(operation->documentUUID);
            running != runningOperationGroups_.constEnd()) {
            const auto covering = running->constFind(key);
            if (covering != running->constEnd() &&
                operation->initialTimestamp >= (*covering)->initialTimestamp &&
                operation->targetTimestamp <= (*covering)->targetTimestamp) {
                if (pending.isEmpty())
                    pendingOperationGroups_.remove(operation->documentUUID);
                continue;
            }
        }
        pending.insert(key, operation);
    }
    queuedOperations_.clear();
}

void NBRevisionController::_runDeletionOperations() {
    if (!checkQueue(operationQueue_, "operation", "_runDeletionOperations"))
        return;
    const auto deletions = std::exchange(deletionOperations_, {});
    for (auto document = deletions.cbegin(); document != deletions.cend(); ++document) {
        pendingOperationGroups_.remove(document.key());
        for (const auto& operation : document.value()) {
            callsInFlight_.fetch_add(1);
            operation->service->processDeletionOfDocumentWithUUID(
                operation->deletedDocumentUUID,
                [this, self = shared_from_this(), operation](const std::optional<NBError>& error) {
                    if (error) {
                        qCWarning(lcLibrary).noquote()
                            << nbFormat("ERROR: error processing document deletion:\n----- "
                                        "operation:\n%@\n----- error:\n%@",
                                        operation->description(), error->description());
                        signalProgress();
                        return;
                    }
                    databaseQueue_->dispatchAsynchronously([this, self, operation] {
                        recordDeletion(operation->deletedDocumentUUID, operation->serviceName());
                        signalProgress();
                    });
                });
        }
    }
}

void NBRevisionController::_runPendingOperations() {
    if (!checkQueue(operationQueue_, "operation", "_runPendingOperations"))
        return;
    if (runningOperationGroups_.size() > kNBRevisionMaximumRunningDocuments)
        return;
    const auto manager = libraryManager();
    const auto documents = manager ? manager->documentsController() : nullptr;
    if (!documents)
        return;
    std::vector<std::pair<NBTimestamp, QString>> order;
    for (auto group = pendingOperationGroups_.cbegin(); group != pendingOperationGroups_.cend(); ++group) {
        if (runningOperationGroups_.contains(group.key()))
            continue;
        NBTimestamp earliest = timestampForDistantPast();
        if (!group->isEmpty()) {
            earliest = timestampForDistantFuture();
            for (const auto& operation : group.value())
                earliest = std::min(earliest, operation->initialTimestamp);
        }
        order.emplace_back(earliest, group.key());
    }
    std::sort(order.begin(), order.end());
    const QSet<QString> deleted = deletedDocumentUUIDsFromAllDevices();
    for (const auto& entry : order) {
        const QString documentUUID = entry.second;
        if (runningOperationGroups_.size() > kNBRevisionMaximumRunningDocuments)
            break;
        const OperationGroup group = pendingOperationGroups_.value(documentUUID);
        if (group.isEmpty() || deleted.contains(documentUUID)) {
            pendingOperationGroups_.remove(documentUUID);
            continue;
        }
        QMap<QString, QList<std::shared_ptr<NBServiceOperation>>> byService;
        for (const auto& operation : group)
            byService[operation->serviceName()] << operation;
        // One retain per service call, all taken before the first call: a service that answers at once
        // releases its retain without closing the document under the others.
        std::shared_ptr<NBDocument> document = documents->retainedDocumentWithUUID(documentUUID);
        if (!document) {
            qCWarning(lcLibrary).noquote() << nbFormat(
                "Could not open document %@ to process its changes; it is processed at its next revision",
                documentUUID);
            pendingOperationGroups_.remove(documentUUID);
            continue;
        }
        for (qsizetype extra = 1; extra < byService.size(); ++extra)
            documents->retainedDocumentWithUUID(documentUUID);
        document->syncNow();
        const std::map<QString, NBTimestamp> timestamps = document->mostRecentTimestampsByDeviceIdentifier();
        runningOperationGroups_.insert(documentUUID, group);
        pendingOperationGroups_.remove(documentUUID);
        for (auto service = byService.cbegin(); service != byService.cend(); ++service) {
            const QList<std::shared_ptr<NBServiceOperation>> operations = service.value();
            NBTimestamp since = timestampForDistantFuture();
            for (const auto& operation : operations)
                since = std::min(since, operation->initialTimestamp);
            const QString serviceName = service.key();
            callsInFlight_.fetch_add(1);
            operations.first()->service->processChangeSinceTimestamp(
                since, document,
                [this, self = shared_from_this(), documents, documentUUID, serviceName, operations,
                 timestamps](const std::optional<NBError>& error) {
                    documents->releasedDocumentWithUUID(documentUUID);
                    if (error) {
                        QStringList descriptions;
                        for (const auto& operation : operations)
                            descriptions << operation->description();
                        qCWarning(lcLibrary).noquote() << nbFormat(
                            "ERROR: error processing document change:\n----- operations:\n%@\n----- "
                            "error:\n%@",
                            descriptions.join(QLatin1Char('\n')), error->description());
                        finishOperations(documentUUID, operations, {});
                        return;
                    }
                    databaseQueue_->dispatchAsynchronously([=, this] {
                        recordSuccess(documentUUID, serviceName, timestamps);
                        finishOperations(documentUUID, operations, timestamps);
                    });
                });
        }
    }
}

void NBRevisionController::finishOperations(const QString& documentUUID,
                                            const QList<std::shared_ptr<NBServiceOperation>>& operations,
                                            const std::map<QString, NBTimestamp>& reached) {
    operationQueue_->dispatchAsynchronously([this, self = shared_from_this(), documentUUID, operations,
                                             reached] {
        if (!operations.isEmpty())
            for (const auto& [device, timestamp] : reached) {
                const QString key =
                    nbFormat("%@-%@-%@", operations.first()->serviceName(), documentUUID, device);
                reachedTimestamps_[documentUUID][key] =
                    std::max(reachedTimestamps_[documentUUID].value(key, timestamp), timestamp);
            }
        if (auto group = runningOperationGroups_.find(documentUUID); group != runningOperationGroups_.end()) {
            for (const auto& operation : operations)
                if (group->value(operation->uniquingKey()) == operation)
                    group->remove(operation->uniquingKey());
            if (group->isEmpty())
                runningOperationGroups_.erase(group);
        }
        runOperationsSoon();
        signalProgress();
    });
}

void NBRevisionController::signalProgress() {
    {
        std::lock_guard lock(progressMutex_);
        callsInFlight_.fetch_sub(1);
    }
    progress_.notify_all();
}

void NBRevisionController::waitUntilFinished() {
    if (!operationQueue_)
        return;
    for (;;) {
        databaseQueue_->dispatchSynchronously([] {});
        bool idle = false;
        operationQueue_->dispatchSynchronously([&] {
            _runOperations();
            idle = queuedOperations_.empty() && pendingOperationGroups_.isEmpty() &&
                   runningOperationGroups_.isEmpty() && deletionOperations_.isEmpty();
        });
        if (idle && callsInFlight_.load() == 0)
            break;
        std::unique_lock lock(progressMutex_);
        progress_.wait_for(lock, std::chrono::milliseconds(50));
    }
    databaseQueue_->dispatchSynchronously([] {});
    NBError error;
    if (!saveNow(&error))
        qCWarning(lcLibrary).noquote()
            << nbFormat("Could not save revisions database:\npath: %@\nerror: %@\n", databasePath_,
                        error.localizedDescription());
}
