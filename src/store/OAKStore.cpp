// OAKStore: the package, the in-memory view, loading, saving, closing, transactions, timestamps and blobs
// (see OAKStore.h for the queues and OAKStoreLog.h for the on-disk format).
#include "store/OAKStore.h"

#include "foundation/NBLogging.h"
#include "foundation/NBNotificationCenter.h"
#include "foundation/NBPropertyList.h"
#include "store/OAKStoreLogging.h"
#include "store/OAKStoreWatcher.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUuid>

#include <algorithm>
#include <queue>

Q_LOGGING_CATEGORY(lcStore, "quillon.store")

namespace {

QString timestampText(NBTimestamp timestamp) {
    return QString::number(timestamp);
}

// Property-list kinds, so that a caller asking for an integer accepts every integer width.
int propertyListKind(int typeId) {
    switch (typeId) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
        return QMetaType::LongLong;
    case QMetaType::Float:
        return QMetaType::Double;
    default:
        return typeId;
    }
}

} // namespace

// MARK: - OAKChange

OAKChange OAKChange::changeWithTimestamp(NBTimestamp timestamp, std::optional<NBTimestamp> parentTimestamp,
                                         const QString& key, const QVariant& propertyList) {
    OAKChange change;
    change.timestamp = timestamp;
    change.parentTimestamp = parentTimestamp;
    change.key = key;
    change.propertyList = propertyList;
    return change;
}

bool OAKChange::operator==(const OAKChange& other) const {
    return timestamp == other.timestamp && parentTimestamp == other.parentTimestamp && key == other.key &&
           propertyListValuesEqual(propertyList, other.propertyList);
}

QString OAKChange::description() const {
    return nbFormat("<%@:%@> = timestamp: %@, parentTimestamp: %@, key: %@, plist: %@",
                    QStringLiteral("OAKChange"), QStringLiteral("0x%1").arg(quintptr(this), 0, 16),
                    timestampText(timestamp),
                    parentTimestamp ? timestampText(*parentTimestamp) : QStringLiteral("(null)"), key,
                    propertyListDescription(propertyList));
}

// MARK: - Creation and layout

std::shared_ptr<OAKStore> OAKStore::storeWithURL(const QUrl& url, const QString& deviceIdentifier,
                                                 const OAKStoreOptions& options) {
    return std::make_shared<OAKStore>(url, deviceIdentifier, options);
}

std::shared_ptr<OAKStore> OAKStore::inMemoryStore() {
    return std::make_shared<OAKStore>();
}

OAKStore::OAKStore(const QUrl& url, const QString& deviceIdentifier, const OAKStoreOptions& options)
    : storeURL_(url), deviceIdentifier_(deviceIdentifier), options_(options) {
    databaseQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(queueLabel("database.%@"));
    memoryQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(queueLabel("memory.%@"));
    notificationQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(queueLabel("notifications.%@"));
}

OAKStore::OAKStore() : inMemory_(true) {
    databaseQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(queueLabel("database.%@"));
    memoryQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(queueLabel("memory.%@"));
    notificationQueue_ = OAKDispatchQueue::dispatchQueueWithLabel(queueLabel("notifications.%@"));
}

OAKStore::~OAKStore() {
    // Blocks on the queues refer to this object: let every one of them finish before the members go. A store
    // released without tear-down still saves what it holds, so no edit is lost to a forgotten tearDown.
    databaseQueue_->dispatchSynchronously([this] {
        stopWatching();
        const unsigned timerCount = databaseQueue_->timerCount();
        if (timerCount > 0) {
            qCWarning(lcStore).noquote()
                << nbFormat("Unexpected timer count of %@ for the database queue of store at path: %@",
                            QString::number(timerCount), storePath());
        }
        writePendingRows();
        if (databaseContextOpen_)
            _closeDatabase();
        databaseQueue_->cancelAllTimers();
    });
    // The cancellation itself runs on the queue: wait for it.
    databaseQueue_->dispatchSynchronously([] {});
    memoryQueue_->dispatchSynchronously([] {});
    notificationQueue_->dispatchSynchronously([] {});
}

QString OAKStore::queueLabel(const char* format) const {
    QString name = inMemory_ ? QStringLiteral("in_memory_store") : QFileInfo(storePath()).fileName();
    name.replace(QLatin1Char('.'), QLatin1Char('_'));
    return OAKDispatchQueue::labelByPrependingBundleIdentifierToString(nbFormat(format, name));
}

QString OAKStore::storePath() const {
    if (inMemory_)
        return QStringLiteral("(in-memory store)");
    return QDir::cleanPath(storeURL_.toLocalFile());
}

QString OAKStore::directoryPathForDeviceIdentifier(const QString& deviceIdentifier) const {
    return storePath() + QLatin1Char('/') + QLatin1String(OAKDevicesDirectoryName) + QLatin1Char('/') +
           deviceIdentifier;
}

QString OAKStore::databasePathForDeviceIdentifier(const QString& deviceIdentifier) const {
    return directoryPathForDeviceIdentifier(deviceIdentifier) + QLatin1Char('/') +
           QLatin1String(OAKDatabaseFileName);
}

QString OAKStore::deviceIdentifierForDatabasePath(const QString& databasePath) {
    return QFileInfo(QFileInfo(databasePath).path()).fileName();
}

QString OAKStore::readwriteDirectoryPath() const {
    return directoryPathForDeviceIdentifier(deviceIdentifier_);
}

bool OAKStore::isValidDeviceIdentifier(const QString& deviceIdentifier) {
    return !deviceIdentifier.isEmpty() && !deviceIdentifier.contains(QLatin1Char('/')) &&
           !deviceIdentifier.startsWith(QLatin1Char('.')) && !deviceIdentifier.contains(QChar(0));
}

QStringList OAKStore::allDeviceIdentifiersOnDisk() const {
    if (inMemory_)
        return {};
    const QDir devices(storePath() + QLatin1Char('/') + QLatin1String(OAKDevicesDirectoryName));
    // Hidden entries are a file-synchronisation service's temporary folders, never devices.
    return devices.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

QStringList OAKStore::foreignDeviceIdentifiers() const {
    QStringList identifiers = allDeviceIdentifiersOnDisk();
    identifiers.removeAll(deviceIdentifier_);
    return identifiers;
}

QStringList OAKStore::readonlyDirectoryPaths() const {
    QStringList paths;
    for (const QString& identifier : foreignDeviceIdentifiers())
        paths << directoryPathForDeviceIdentifier(identifier);
    return paths;
}

QString OAKStore::blobDirectoryPath() const {
    return storePath() + QLatin1Char('/') + QLatin1String(OAKBlobsDirectoryName);
}

QString OAKStore::absolutePathForBlobPath(const QString& path) const {
    return blobDirectoryPath() + QLatin1Char('/') + QDir::cleanPath(path);
}

bool OAKStore::prepareFilePackageWithError(NBError* outError) {
    const QString domain = className();
    const auto fail = [&](qint64 code, const QString& message) {
        return nbFail(outError, NBError::errorWithObject(domain.toStdString(), code, message));
    };
    if (inMemory_ || !storeURL_.isLocalFile())
        return fail(10, nbFormat("%@ only supports files and cannot create file package with URL: %@", domain,
                                 storeURL_.toString()));
    if (options_.readOnly)
        return fail(15, nbFormat("The store at path '%@' is open read-only", storePath()));
    const QString root = storePath();
    const QFileInfo rootInfo(root);
    if (rootInfo.exists() && !rootInfo.isDir())
        return fail(30, nbFormat("The path for a store should be a directory at path: %@", root));
    if (!QDir().mkpath(root))
        return fail(
            20, nbFormat("Could not create the root directory for the file package for the store at path: %@",
                         root));
    const QString devices = root + QLatin1Char('/') + QLatin1String(OAKDevicesDirectoryName);
    if (!QDir().mkpath(devices) || !QFileInfo(devices).isDir())
        return fail(
            40,
            nbFormat("The file package for a store should have a 'devices' subdirectory at path: %@", root));
    const QString device = readwriteDirectoryPath();
    if (QFileInfo(device).exists() && !QFileInfo(device).isDir())
        return fail(60,
                    nbFormat("The device identifier subpath '%@' should be a directory in the file package "
                             "for the store at path: %@",
                             deviceIdentifier_, root));
    if (!isValidDeviceIdentifier(deviceIdentifier_) || !QDir().mkpath(device))
        return fail(50, nbFormat("Could not create a subdirectory for the device identifier '%@' in the file "
                                 "package for the store at path: %@",
                                 deviceIdentifier_, root));
    return true;
}

// MARK: - Queue discipline

bool OAKStore::checkDatabaseQueue(const char* method) const {
    if (databaseQueue_->isInCurrentQueueStack())
        return true;
    nbRaiseAssertion(lcStore(), nbFormat("%@:%@ should only be called from within the database queue",
                                         className(), QString::fromUtf8(method)));
    return false;
}

bool OAKStore::checkMemoryQueue(const char* method) const {
    if (memoryQueue_->isInCurrentQueueStack())
        return true;
    nbRaiseAssertion(lcStore(), nbFormat("%@:%@ should only be called from within the memory queue",
                                         className(), QString::fromUtf8(method)));
    return false;
}

bool OAKStore::refuseOnMemoryQueue(const char* method) const {
    if (!memoryQueue_->isInCurrentQueueStack())
        return false;
    qCCritical(lcStore).noquote() << nbFormat(
        "To avoid deadlocks, %@ should not be called within a transaction. Bailing out.",
        QString::fromUtf8(method));
    return true;
}

// MARK: - Notifications

void OAKStore::postNotificationWithName(const QString& name, const QVariantMap& userInfo) {
    enqueueNotification(PendingNotification{name, userInfo, {}});
}

void OAKStore::enqueueNotification(PendingNotification notification) {
    bool wasEmpty = false;
    {
        std::lock_guard lock(pendingNotificationsMutex_);
        wasEmpty = pendingNotifications_.empty();
        pendingNotifications_.push_back(std::move(notification));
    }
    // Notifications wait in one list that a single step on the notification queue delivers in order: a burst
    // of edits wakes the queue once, not once per edit.
    if (wasEmpty)
        notificationQueue_->dispatchAsynchronously([this] { deliverPendingNotifications(); });
}

namespace {

const QString& didChangeNotificationName() {
    static const QString name = QString::fromUtf8(OAKStoreDidChangeNotification);
    return name;
}

} // namespace

QVariantMap OAKStore::userInfoForChanges(const std::vector<ChangedValue>& changes) {
    QVariantMap values;
    QVariantMap timestamps;
    for (const ChangedValue& change : changes) {
        values.insert(change.key, change.value);
        timestamps.insert(change.key, qint64(change.timestamp));
    }
    return {{QString::fromUtf8(OAKStoreValuesKey), values},
            {QString::fromUtf8(OAKStoreTimestampsKey), timestamps}};
}

void OAKStore::deliverPendingNotifications() {
    std::vector<PendingNotification> notifications;
    {
        std::lock_guard lock(pendingNotificationsMutex_);
        notifications.swap(pendingNotifications_);
    }
    for (const PendingNotification& notification : notifications) {
        NBNotificationCenter::defaultCenter().postNotificationName(
            notification.name, this,
            notification.changes.empty() ? notification.userInfo : userInfoForChanges(notification.changes));
    }
}

void OAKStore::postDidChangeNotificationWithChanges(std::vector<ChangedValue> changes) {
    if (changes.empty())
        return;
    // Outside a transaction the user information is built on the notification queue: an edit's caller
    // only hands the changed values over.
    if (!inTransaction_)
        enqueueNotification(PendingNotification{didChangeNotificationName(), {}, std::move(changes)});
    else
        postDidChangeNotificationWithUserInfo(userInfoForChanges(changes));
}

void OAKStore::postDidChangeNotificationWithUserInfo(const QVariantMap& userInfo) {
    if (!checkMemoryQueue("postDidChangeNotificationWithUserInfo:"))
        return;
    if (!inTransaction_) {
        postNotificationWithName(QString::fromUtf8(OAKStoreDidChangeNotification), userInfo);
        return;
    }
    for (const char* field : {OAKStoreValuesKey, OAKStoreTimestampsKey}) {
        const QString name = QString::fromUtf8(field);
        QVariantMap gathered = didChangeNotificationUserInfoInTransaction_.value(name).toMap();
        const QVariantMap added = userInfo.value(name).toMap();
        for (auto entry = added.begin(); entry != added.end(); ++entry)
            gathered.insert(entry.key(), entry.value());
        didChangeNotificationUserInfoInTransaction_.insert(name, gathered);
    }
}

// MARK: - Values

QVariant OAKStore::propertyListValueForKey(const QString& key) const {
    QVariant value;
    memoryQueue_->dispatchSynchronously([&] { value = memory_.value(key); });
    return value;
}

QVariant OAKStore::propertyListValueForKey(const QString& key, QMetaType type, NBError* outError) const {
    const QVariant value = propertyListValueForKey(key);
    if (!value.isValid() || propertyListKind(value.metaType().id()) == propertyListKind(type.id()))
        return value;
    const QString message = nbFormat(
        "Value for key '%@' should be of class '%@', but is instead of class '%@', in store at path '%@': %@",
        key, QString::fromUtf8(type.name()), QString::fromUtf8(value.metaType().name()), storePath(),
        propertyListDescription(value));
    qCWarning(lcStore).noquote() << message;
    nbFail(outError, NBError::errorWithObject(className().toStdString(), 778, message));
    return {};
}

QVariantMap OAKStore::allRelevantValues() const {
    QVariantMap values;
    memoryQueue_->dispatchSynchronously([&] { values = memory_; });
    return values;
}

void OAKStore::setPropertyListValue(const QVariant& value, const QString& key) {
    const ValueEntry entry{&key, &value};
    setValues(&entry, 1);
}

void OAKStore::setEntriesFromDictionary(const QVariantMap& dictionary) {
    std::vector<ValueEntry> entries;
    entries.reserve(std::size_t(dictionary.size()));
    for (auto entry = dictionary.begin(); entry != dictionary.end(); ++entry)
        entries.push_back({&entry.key(), &entry.value()});
    if (!entries.empty())
        setValues(entries.data(), entries.size());
}

void OAKStore::setValues(const ValueEntry* entries, std::size_t count) {
    if (options_.readOnly) {
        QStringList keys;
        for (std::size_t index = 0; index < count; ++index)
            keys << *entries[index].key;
        qCCritical(lcStore).noquote()
            << nbFormat("Cannot set values for keys %@ in the store at path '%@', which "
                        "is open read-only",
                        keys.join(QStringLiteral(", ")), storePath());
        return;
    }
    // Encoding is the costly part of an edit (a document's whole layout is one value): it happens on the
    // database queue. Here, before the memory queue is held, each value is only checked, with the same rules
    // as the encoder, so that a value that cannot be written is refused at once and announced to nobody.
    // (A single edit, the common case, needs no list.)
    std::vector<bool> writable;
    bool firstWritable = true;
    if (!inMemory_) {
        if (count > 1) {
            writable.reserve(count);
            for (std::size_t index = 0; index < count; ++index)
                writable.push_back(isPropertyListValue(*entries[index].value));
        } else {
            firstWritable = isPropertyListValue(*entries[0].value);
        }
    }
    memoryQueue_->dispatchSynchronously([&] {
        // The timestamp is taken on the memory queue, so the in-memory view and the log order edits made on
        // different threads alike: the newest value in memory is the newest row.
        const NBTimestamp timestamp = timestampNow();
        std::vector<ChangedValue> changes;
        std::vector<PendingRow> rows;
        changes.reserve(count);
        if (!inMemory_)
            rows.reserve(count);
        for (std::size_t index = 0; index < count; ++index) {
            const QString& key = *entries[index].key;
            const QVariant& value = *entries[index].value;
            if (value.isValid())
                memory_.insert(key, value);
            else
                memory_.remove(key);
            if (!inMemory_ && !(count > 1 ? writable[index] : firstWritable)) {
                // The view keeps the value on purpose: it is never rolled back, but the value never reaches
                // the log.
                logEncodingFailure(key, value);
                continue;
            }
            std::optional<NBTimestamp> parent;
            if (const auto found = memoryKeyTimestamps_.find(key); found != memoryKeyTimestamps_.end()) {
                parent = found.value();
                found.value() = timestamp;
            } else {
                memoryKeyTimestamps_.insert(key, timestamp);
            }
            changes.push_back(ChangedValue{key, value, timestamp});
            if (!inMemory_)
                rows.push_back(PendingRow{timestamp, parent, key, value});
        }
        postDidChangeNotificationWithChanges(std::move(changes));
        if (!rows.empty())
            enqueueRows(std::move(rows));
    });
}

void OAKStore::logEncodingFailure(const QString& key, const QVariant& value, const NBError* error) const {
    NBError encodingError;
    if (!error) {
        // The failing path only: encode again for the encoder's own description of the problem.
        dataWithPropertyList(value, NBPropertyListFormat::Binary, &encodingError);
        error = &encodingError;
    }
    qCCritical(lcStore).noquote() << nbFormat(
        "Error creating data from plist:\nkey: %@:\nplist: %@\nerror: %@", key,
        propertyListDescription(value), error->description());
}

void OAKStore::enqueueRows(std::vector<PendingRow> rows) {
    bool wasEmpty = false;
    {
        std::lock_guard lock(pendingRowsMutex_);
        wasEmpty = pendingRows_.empty();
        if (wasEmpty)
            pendingRows_ = std::move(rows);
        else
            std::move(rows.begin(), rows.end(), std::back_inserter(pendingRows_));
    }
    // One database step writes every row that arrived until it runs, so a burst of edits costs one queue hop
    // per batch rather than one per edit; the step is enqueued before any later save, so saves see them.
    if (wasEmpty) {
        databaseQueue_->dispatchAsynchronously([this] {
            writePendingRows();
            saveSoon();
        });
    }
}

void OAKStore::writePendingRows() {
    if (!checkDatabaseQueue("writePendingRows"))
        return;
    std::vector<PendingRow> rows;
    {
        std::lock_guard lock(pendingRowsMutex_);
        rows.swap(pendingRows_);
    }
    if (rows.empty() || deleted_)
        return;
    NBError error;
    if (!openDatabaseContext(&error) || !readwriteDatabase_) {
        unwrittenRowCount_ += rows.size();
        qCCritical(lcStore).noquote()
            << nbFormat("Could not write %@ values to the log of device '%@' in the store at path '%@', "
                        "because the log is not "
                        "open for writing",
                        QString::number(rows.size()), deviceIdentifier_, storePath());
        return;
    }
    NBTimestamp newest = timestampForDistantPast();
    for (const PendingRow& row : rows) {
        NBError encodingError;
        const std::optional<QByteArray> blob =
            dataWithPropertyList(row.value, NBPropertyListFormat::Binary, &encodingError);
        if (!blob) {
            // The value passed the check when it was set, so this should not happen; if it does, the row is
            // dropped like a value refused at once.
            logEncodingFailure(row.key, row.value, &encodingError);
            continue;
        }
        if (!readwriteDatabase_->insertRow(row.timestamp, row.parentTimestamp, row.key, *blob, &error)) {
            ++unwrittenRowCount_;
            qCCritical(lcStore).noquote() << error.localizedDescription();
            continue;
        }
        newest = std::max(newest, row.timestamp);
        // The row lies at or below the local log's new bound: a lookup of its key below the bound must run
        // again.
        if (const auto searched = keysSearchedBelowBound_.find(deviceIdentifier_);
            searched != keysSearchedBelowBound_.end())
            searched->remove(row.key);
    }
    NBTimestamp& known =
        databaseTimestamps_.try_emplace(deviceIdentifier_, timestampForDistantPast()).first->second;
    known = std::max(known, newest);
}

void OAKStore::runTransaction(const std::function<void()>& block) {
    memoryQueue_->dispatchSynchronously([&] {
        if (inTransaction_) {
            block();
            return;
        }
        inTransaction_ = true;
        didChangeNotificationUserInfoInTransaction_ = {
            {QString::fromUtf8(OAKStoreValuesKey), QVariantMap()},
            {QString::fromUtf8(OAKStoreTimestampsKey), QVariantMap()}};
        block();
        inTransaction_ = false;
        const QVariantMap gathered = std::exchange(didChangeNotificationUserInfoInTransaction_, {});
        if (!gathered.value(QString::fromUtf8(OAKStoreValuesKey)).toMap().isEmpty() ||
            !gathered.value(QString::fromUtf8(OAKStoreTimestampsKey)).toMap().isEmpty())
            postNotificationWithName(QString::fromUtf8(OAKStoreDidChangeNotification), gathered);
    });
}

// MARK: - Loading and tear-down

void OAKStore::load() {
    databaseQueue_->dispatchAsynchronously([this] { _load(); });
}

void OAKStore::loadNow() {
    if (refuseOnMemoryQueue("loadNow"))
        return;
    databaseQueue_->dispatchSynchronously([this] { _load(); });
}

void OAKStore::_load() {
    if (!checkDatabaseQueue("_load") || loaded_)
        return;
    if (inMemory_) {
        loaded_ = true;
        postNotificationWithName(QString::fromUtf8(OAKStoreDidLoadNotification));
        return;
    }
    NBError error;
    if (!openDatabaseContext(&error)) {
        qCCritical(lcStore).noquote()
            << nbFormat("Could not load managed object context and sync store at path '%@'", storePath());
        return;
    }
    // The package is watched before the logs are read, so a foreign change made while they are read is
    // reported and read by a sync soon after, never lost in between.
    startWatching();
    syncStep(false);
    loaded_ = true;
    postNotificationWithName(QString::fromUtf8(OAKStoreDidLoadNotification));
}

void OAKStore::tearDown() {
    memoryQueue_->dispatchAsynchronously([this] { _tearDown(); });
}

void OAKStore::tearDownNow() {
    if (refuseOnMemoryQueue("tearDownNow"))
        return;
    memoryQueue_->dispatchSynchronously([this] { _tearDown(); });
    databaseQueue_->dispatchSynchronously([] {});
    notificationQueue_->dispatchSynchronously([] {});
}

void OAKStore::_tearDown() {
    if (!checkMemoryQueue("_tearDown"))
        return;
    if (!deleted_)
        databaseQueue_->dispatchAsynchronously([this] { _tearDownDatabase(); });
    resetMemory();
    postNotificationWithName(QString::fromUtf8(OAKStoreDidTearDownNotification));
}

void OAKStore::resetMemory() {
    if (!checkMemoryQueue("resetMemory"))
        return;
    memory_.clear();
    memoryKeyTimestamps_.clear();
    loaded_ = false;
    deleted_ = false;
}

void OAKStore::waitUntilFinished() {
    if (refuseOnMemoryQueue("waitUntilFinished"))
        return;
    memoryQueue_->dispatchSynchronously([] {});
    databaseQueue_->dispatchSynchronously([this] {
        _save(nullptr);
        if (loaded_)
            _sync();
    });
    notificationQueue_->dispatchSynchronously([] {});
}

// MARK: - Saving and closing

void OAKStore::saveSoon() {
    if (inMemory_)
        return;
    databaseQueue_->scheduleTimerWithName(QStringLiteral("save_delay"), options_.timings.saveDelay,
                                          OAKTimerBehaviorDelay, [this] { _save(nullptr); });
    databaseQueue_->scheduleTimerWithName(QStringLiteral("save_coalesce"), options_.timings.saveCoalesce,
                                          OAKTimerBehaviorCoalesce, [this] { _save(nullptr); });
}

bool OAKStore::saveNow(NBError* outError) {
    if (refuseOnMemoryQueue("saveNow"))
        return nbFail(outError,
                      NBError::errorWithObject(className().toStdString(), 200,
                                               QStringLiteral("saveNow was called within a transaction")));
    bool saved = false;
    databaseQueue_->dispatchSynchronously([&] { saved = _save(outError); });
    return saved;
}

bool OAKStore::_save(NBError* outError) {
    if (!checkDatabaseQueue("_save:"))
        return false;
    databaseQueue_->cancelTimerWithName(QStringLiteral("save_delay"));
    databaseQueue_->cancelTimerWithName(QStringLiteral("save_coalesce"));
    if (deleted_)
        return nbFail(outError, NBError::errorWithObject(className().toStdString(), 210,
                                                         QStringLiteral("Cannot save deleted store")));
    if (inMemory_)
        return true;
    writePendingRows();
    if (!databaseContextOpen_ && unwrittenRowCount_ == 0)
        return true;
    if (databaseContextOpen_)
        closeDatabaseSoon();
    NBError error;
    bool saved = true;
    if (unwrittenRowCount_ > 0) {
        error = NBError::errorWithObject(
            className().toStdString(), 230,
            nbFormat("%@ values could not be written to the log", QString::number(unwrittenRowCount_)));
        unwrittenRowCount_ = 0;
        saved = false;
    } else if (readwriteDatabase_ && readwriteDatabase_->hasUncommittedRows()) {
        saved = readwriteDatabase_->save(&error);
        if (saved)
            ++saveCommitCount_;
    }
    if (!saved) {
        const QString path = databasePathForDeviceIdentifier(deviceIdentifier_);
        qCCritical(lcStore).noquote()
            << nbFormat("Could not save store:\npath: %@\nerror: %@\n", path, error.description());
        return nbFail(outError, NBError::errorWithObject(
                                    className().toStdString(), 220,
                                    nbFormat("Could not save store for device identifier '%@' at path: %@",
                                             deviceIdentifier_, path),
                                    QString(), QString(), &error));
    }
    return true;
}

void OAKStore::closeDatabaseSoon() {
    if (inMemory_)
        return;
    databaseQueue_->scheduleTimerWithName(QStringLiteral("close_database"), options_.timings.closeDelay,
                                          OAKTimerBehaviorDelay, [this] { _closeDatabase(); });
}

void OAKStore::closeDatabase() {
    databaseQueue_->dispatchAsynchronously([this] { _closeDatabase(); });
}

void OAKStore::closeDatabaseNow() {
    if (refuseOnMemoryQueue("closeDatabaseNow"))
        return;
    databaseQueue_->dispatchSynchronously([this] { _closeDatabase(); });
}

void OAKStore::_closeDatabase() {
    if (!checkDatabaseQueue("_closeDatabase"))
        return;
    if (databaseContextOpen_ && !deleted_)
        _save(nullptr);
    databaseQueue_->cancelTimerWithName(QStringLiteral("close_database"));
    readwriteDatabase_.reset();
    readonlyDatabases_.clear();
    databaseContextOpen_ = false;
}

void OAKStore::_tearDownDatabase() {
    if (!checkDatabaseQueue("_tearDownDatabase"))
        return;
    _closeDatabase();
    stopWatching();
    // The in-memory view is emptied with the database: the next load must read every key again, so the key
    // bookkeeping that bounds what a sync reads goes too.
    _forgetSyncState();
}

void OAKStore::_forgetSyncState() {
    databaseQueue_->cancelTimerWithName(QStringLiteral("sync_delay"));
    databaseQueue_->cancelTimerWithName(QStringLiteral("sync_coalesce"));
    databaseTimestamps_.clear();
    logAnchors_.clear();
    keyTimestamps_.clear();
    keysSearchedBelowBound_.clear();
}

// MARK: - The database context

void OAKStore::reportOpenFailureOnce(const QString& path, const NBError& error) {
    // A log that a file-synchronisation service is still copying fails at every sync until it is whole: say
    // so once per failure, not at every attempt.
    const QString message = error.localizedDescription();
    if (reportedOpenFailures_.value(path) == message)
        return;
    reportedOpenFailures_.insert(path, message);
    qCCritical(lcStore).noquote() << message;
}

bool OAKStore::openDatabaseContext(NBError* outError) {
    if (!checkDatabaseQueue("openDatabaseContext"))
        return false;
    if (databaseContextOpen_)
        return true;
    if (inMemory_)
        return nbFail(outError,
                      NBError::errorWithObject(className().toStdString(), 10,
                                               QStringLiteral("An in-memory store has no database")));
    if (options_.readOnly) {
        if (!QFileInfo(storePath()).isDir())
            return nbFail(outError, NBError::errorWithObject(
                                        className().toStdString(), 30,
                                        nbFormat("The path for a store should be a directory at path: %@",
                                                 storePath())));
    } else {
        NBError error;
        if (!prepareFilePackageWithError(&error)) {
            qCCritical(lcStore).noquote()
                << nbFormat("Could not prepare file package for store at URL '%@' because of "
                            "error: %@",
                            storeURL_.toString(), error.description());
            return nbFail(outError, error);
        }
        const QString path = databasePathForDeviceIdentifier(deviceIdentifier_);
        readwriteDatabase_ = OAKStoreLog::open(path, OAKStoreLog::Mode::ReadWrite, &error);
        keysSearchedBelowBound_.remove(deviceIdentifier_);
        if (readwriteDatabase_)
            reportedOpenFailures_.remove(path);
        else
            reportOpenFailureOnce(path, error);
    }
    databaseContextOpen_ = true;
    refreshStoreList();
    closeDatabaseSoon();
    return true;
}

void OAKStore::refreshStoreList() {
    if (!checkDatabaseQueue("refreshStoreList") || !databaseContextOpen_)
        return;
    // In read-only mode every device's log, the local one included, is a read-only log.
    const QStringList present = options_.readOnly ? allDeviceIdentifiersOnDisk() : foreignDeviceIdentifiers();
    for (auto entry = readonlyDatabases_.begin(); entry != readonlyDatabases_.end();) {
        // A log replaced by a file-synchronisation service (a new file under the same name) is reopened: the
        // open connection still reads the old, unlinked file.
        if (!present.contains(entry->first) || entry->second->fileWasReplaced()) {
            keysSearchedBelowBound_.remove(entry->first);
            entry = readonlyDatabases_.erase(entry);
        } else
            ++entry;
    }
    for (const QString& identifier : present) {
        if (readonlyDatabases_.count(identifier))
            continue;
        const QString path = databasePathForDeviceIdentifier(identifier);
        NBError error;
        std::unique_ptr<OAKStoreLog> log = OAKStoreLog::open(path, OAKStoreLog::Mode::ReadOnly, &error);
        if (!log) {
            reportOpenFailureOnce(path, error);
            continue;
        }
        reportedOpenFailures_.remove(path);
        keysSearchedBelowBound_.remove(identifier);
        readonlyDatabases_.emplace(identifier, std::move(log));
    }
    if (!options_.readOnly && readonlyDatabases_.count(deviceIdentifier_))
        nbRaiseAssertion(lcStore(), QStringLiteral("Inconsistent tracking of persistent stores"));

    if (watcherToken_ == 0)
        return;
    // The package, its "devices" folder and every device folder but the local one, whether or not its log
    // could be opened: a log still being copied is read once its folder reports it whole.
    QStringList folders{storePath()};
    const QString devices = storePath() + QLatin1Char('/') + QLatin1String(OAKDevicesDirectoryName);
    if (QFileInfo(devices).isDir())
        folders << devices;
    for (const QString& identifier : present) {
        if (identifier != deviceIdentifier_)
            folders << directoryPathForDeviceIdentifier(identifier);
    }
    if (folders == watchedFolders_)
        return;
    const bool added = !watchedFolders_.isEmpty() &&
                       std::any_of(folders.begin(), folders.end(),
                                   [&](const QString& folder) { return !watchedFolders_.contains(folder); });
    OAKStoreWatcher::shared().setWatchedFolders(watcherToken_, folders);
    watchedFolders_ = folders;
    // A log written into a new folder before its watch existed is read by one more sync.
    if (added)
        syncSoon();
}

void OAKStore::startWatching() {
    if (!checkDatabaseQueue("startWatching") || inMemory_ || watcherToken_ != 0)
        return;
    const std::weak_ptr<OAKStore> weakStore = weak_from_this();
    if (weakStore.expired())
        return; // not owned by a shared_ptr: nothing can hand it reports safely
    watcherToken_ = OAKStoreWatcher::shared().registerHandler([weakStore](const QStringList& paths) {
        if (const std::shared_ptr<OAKStore> store = weakStore.lock())
            store->respondToFileSystemEventWithPaths(paths);
    });
    watchedFolders_.clear();
    watching_ = true;
    refreshStoreList();
}

void OAKStore::stopWatching() {
    {
        // A report being handled on the watcher's thread finishes scheduling before this returns, so the
        // tear-down's cancellations, enqueued after, reach its timers; every later report schedules nothing.
        std::lock_guard lock(watchReportMutex_);
        watching_ = false;
    }
    if (watcherToken_ == 0)
        return;
    OAKStoreWatcher::shared().unregisterHandler(watcherToken_);
    watcherToken_ = 0;
    watchedFolders_.clear();
}

void OAKStore::respondToFileSystemEventWithPaths(const QStringList& paths) {
    // A report that was on its way while the store stopped watching (tear-down) is dropped. The check and
    // the scheduling happen under one lock with stopWatching(): a report checked before the tear-down but
    // scheduled after it would leave sync timers on a store that nobody will load again.
    std::lock_guard lock(watchReportMutex_);
    if (deleted_ || inMemory_ || !watching_)
        return;
    if (!QFileInfo(storePath()).isDir()) {
        accommodatePresentedItemDeletion();
        return;
    }
    const QString local = deviceIdentifier_.isEmpty() ? QString() : readwriteDirectoryPath();
    for (const QString& path : paths) {
        if (!local.isEmpty() && (path == local || path.startsWith(local + QLatin1Char('/'))))
            continue; // the store wrote it itself
        syncSoon();
        return;
    }
}

void OAKStore::accommodatePresentedItemDeletion() {
    if (deleted_.exchange(true))
        return;
    databaseQueue_->dispatchAsynchronously([this] {
        stopWatching();
        // A deleted store is not saved: closing drops what was not saved.
        _closeDatabase();
        _forgetSyncState();
    });
    postNotificationWithName(QString::fromUtf8(OAKStoreDidDeleteNotification));
}

std::vector<std::pair<QString, OAKStoreLog*>> OAKStore::openLogs() const {
    std::vector<std::pair<QString, OAKStoreLog*>> logs;
    if (readwriteDatabase_)
        logs.emplace_back(deviceIdentifier_, readwriteDatabase_.get());
    for (const auto& [identifier, log] : readonlyDatabases_)
        logs.emplace_back(identifier, log.get());
    return logs;
}

// MARK: - The sync step

void OAKStore::_sync() {
    if (!checkDatabaseQueue("_sync"))
        return;
    databaseQueue_->cancelTimerWithName(QStringLiteral("sync_delay"));
    databaseQueue_->cancelTimerWithName(QStringLiteral("sync_coalesce"));
    if (!loaded_ || deleted_ || inMemory_)
        return;
    // The package's own deletion is not always reported: while the store holds its log open, the kernel
    // defers the package folder's deletion event until the log is closed. The reports of its contents going
    // away trigger this sync, which finds the package gone.
    if (!QFileInfo(storePath()).isDir()) {
        accommodatePresentedItemDeletion();
        return;
    }
    syncStep(true);
    postNotificationWithName(QString::fromUtf8(OAKStoreDidSyncNotification));
}

void OAKStore::sync() {
    syncSoon();
}

void OAKStore::syncSoon() {
    if (inMemory_)
        return;
    databaseQueue_->scheduleTimerWithName(QStringLiteral("sync_delay"), options_.timings.syncDelay,
                                          OAKTimerBehaviorDelay, [this] { _sync(); });
    databaseQueue_->scheduleTimerWithName(QStringLiteral("sync_coalesce"), options_.timings.syncCoalesce,
                                          OAKTimerBehaviorCoalesce, [this] { _sync(); });
}

void OAKStore::blockDatabaseQueueWhileRunningBlock(const OAKBlock& block) {
    if (refuseOnMemoryQueue("blockdatabaseQueueWhileRunningBlock:"))
        return;
    databaseQueue_->dispatchSynchronously(block);
}

void OAKStore::syncNow() {
    if (refuseOnMemoryQueue("syncNow"))
        return;
    databaseQueue_->dispatchSynchronously([this] { _sync(); });
}

std::optional<OAKSyncedValue> OAKStore::syncedPropertyListValueForKey(const QString& key) {
    return syncedPropertyListValueForKey(key, timestampForDistantFuture());
}

std::optional<OAKSyncedValue> OAKStore::syncedPropertyListValueForKey(const QString& key,
                                                                      NBTimestamp timestamp) {
    std::optional<OAKSyncedValue> synced;
    if (inMemory_ || refuseOnMemoryQueue("syncedPropertyListValueForKey:timestamp:"))
        return synced;
    databaseQueue_->dispatchSynchronously([&] {
        writePendingRows();
        if (!openDatabaseContext(nullptr))
            return;
        refreshStoreList();
        const std::optional<NBTimestamp> maximum =
            timestamp == timestampForDistantFuture() ? std::nullopt : std::optional<NBTimestamp>(timestamp);
        std::optional<OAKLogRow> newest;
        QString newestDevice;
        OAKStoreLog* newestLog = nullptr;
        for (const auto& [identifier, log] : openLogs()) {
            std::optional<OAKLogRow> row;
            NBError error;
            if (!log->fetchNewestRowForKey(key, maximum, row, &error)) {
                reportOpenFailureOnce(log->path(), error);
                continue;
            }
            if (row && (!newest || row->timestamp > newest->timestamp)) {
                newest = std::move(row);
                newestDevice = identifier;
                newestLog = log;
            }
        }
        if (newest && newest->blob) {
            NBError error;
            if (std::optional<QVariant> value = propertyListWithData(*newest->blob, &error))
                synced = OAKSyncedValue{std::move(*value), newest->timestamp, newestDevice};
            else
                qCWarning(lcStore).noquote()
                    << nbFormat("Error deserializing blob data:\nrow: %@\ndatabase: %@\nerror: %@",
                                newest->description(), newestLog->path(), error.description());
        }
        closeDatabaseSoon();
    });
    return synced;
}

bool OAKStore::checkLogAnchor(const QString& deviceIdentifier, OAKStoreLog& log) {
    const auto known = databaseTimestamps_.find(deviceIdentifier);
    if (known == databaseTimestamps_.end() || known->second == timestampForDistantPast())
        return true; // nothing read yet: the log is read from the start anyway
    const auto anchor = logAnchors_.find(deviceIdentifier);
    bool replaced = anchor == logAnchors_.end() || !(anchor->second.file == log.fileIdentity());
    if (!replaced) {
        NBError error;
        const std::optional<NBTimestamp> timestamp = log.timestampForRowid(anchor->second.rowid, &error);
        if (!error.isNull()) {
            reportOpenFailureOnce(log.path(), error);
            return false;
        }
        replaced = timestamp != anchor->second.timestamp;
    }
    if (replaced) {
        qCInfo(lcStore).noquote() << nbFormat(
            "The log at path '%@' was replaced by another file; it is read again from the start", log.path());
        databaseTimestamps_.erase(known);
        if (anchor != logAnchors_.end())
            logAnchors_.erase(anchor);
        keysSearchedBelowBound_.remove(deviceIdentifier);
    }
    return true;
}

bool OAKStore::syncStep(bool announce) {
    if (deleted_ || inMemory_)
        return false;
    NBError error;
    if (!openDatabaseContext(&error))
        return false;
    refreshStoreList();
    writePendingRows();

    const std::optional<QSet<QString>> relevant = relevantKeysForSync();
    const bool allKeys = !relevant.has_value();

    // The lower bound of a log whose newest timestamp is known is that timestamp: a device appends rows with
    // ever newer timestamps, so everything older was read before. For a log not read yet, rows older than
    // every relevant key's known timestamp cannot change any value; when every key is relevant, or some
    // relevant key was never looked up, the log is read in full.
    std::optional<NBTimestamp> fallbackBound;
    if (!allKeys && !relevant->isEmpty()) {
        NBTimestamp smallest = timestampForDistantFuture();
        for (const QString& key : *relevant) {
            const auto found = keyTimestamps_.constFind(key);
            if (found == keyTimestamps_.constEnd() || found.value() == timestampForDistantPast()) {
                smallest = timestampForDistantPast();
                break;
            }
            smallest = std::min(smallest, found.value());
        }
        if (smallest != timestampForDistantPast())
            fallbackBound = smallest;
    }

    struct Source {
        QString deviceIdentifier;
        OAKStoreLog* log = nullptr;
        OAKLogCursor cursor;
        std::vector<OAKLogRow> batch;
        std::size_t index = 0;
        std::optional<NBTimestamp> newest;
        qint64 newestRowid = 0;
        bool failed = false;
    };
    std::vector<Source> sources;
    for (const auto& [identifier, log] : openLogs()) {
        Source source;
        source.deviceIdentifier = identifier;
        source.log = log;
        // A log that could not even be checked is left out of this pass, its bookkeeping untouched.
        if (log != readwriteDatabase_.get() && !checkLogAnchor(identifier, *log))
            continue;
        if (const auto known = databaseTimestamps_.find(identifier);
            known != databaseTimestamps_.end() && known->second != timestampForDistantPast())
            source.cursor.lowerBound = known->second;
        else
            source.cursor.lowerBound = fallbackBound;
        sources.push_back(std::move(source));
    }
    QHash<QString, std::pair<QVariant, NBTimestamp>> resolved;
    const auto fetchBatch = [&](Source& source) {
        source.index = 0;
        // The batch carries the blob of the newest row of each relevant key still unresolved, the only row
        // of that key the walk below will decode unless it cannot be decoded; older rows of the key are read
        // one by one in that rare case only.
        QSet<QString> blobKeys;
        const auto wantsBlob = [&](const QString& key) {
            if ((!allKeys && !relevant->contains(key)) || resolved.contains(key))
                return false;
            const qsizetype before = blobKeys.size();
            blobKeys.insert(key);
            return blobKeys.size() != before;
        };
        if (!source.log->fetchNewestBatch(source.cursor, kOAKLogFetchBatchSize, source.batch, &error,
                                          wantsBlob)) {
            source.failed = true;
            source.batch.clear();
            reportOpenFailureOnce(source.log->path(), error);
        }
    };
    // Which source holds the newest unread row: a heap over the sources' current rows.
    const auto newerFirst = [&](std::size_t first, std::size_t second) {
        return sources[first].batch[sources[first].index].timestamp <
               sources[second].batch[sources[second].index].timestamp;
    };
    std::priority_queue<std::size_t, std::vector<std::size_t>, decltype(newerFirst)> heap(newerFirst);
    for (std::size_t sourceIndex = 0; sourceIndex < sources.size(); ++sourceIndex) {
        Source& source = sources[sourceIndex];
        if (!allKeys && relevant->isEmpty()) {
            // Nothing to resolve: only the log's newest timestamp is wanted.
            NBError rowError;
            if (const std::optional<OAKLogRow> row = source.log->newestRow(&rowError)) {
                source.newest = row->timestamp;
                source.newestRowid = row->rowid;
            } else if (!rowError.isNull())
                source.failed = true;
            continue;
        }
        fetchBatch(source);
        if (!source.batch.empty()) {
            source.newest = source.batch.front().timestamp;
            source.newestRowid = source.batch.front().rowid;
            heap.push(sourceIndex);
        }
    }

    while (!heap.empty()) {
        if (!allKeys && resolved.size() == relevant->size())
            break;
        const std::size_t sourceIndex = heap.top();
        heap.pop();
        Source& source = sources[sourceIndex];
        const OAKLogRow row = source.batch[source.index++];
        if (source.index == source.batch.size())
            fetchBatch(source);
        if (!source.batch.empty() && source.index < source.batch.size())
            heap.push(sourceIndex);

        if (!row.key) {
            qCWarning(lcStore).noquote()
                << nbFormat("Unexpected nil value for 'key' column:\nrow: %@\ndatabase: %@",
                            row.description(), source.log->path());
            continue;
        }
        const QString& key = *row.key;
        if ((!allKeys && !relevant->contains(key)) || resolved.contains(key))
            continue;
        NBError blobError;
        const std::optional<QByteArray> blob =
            row.blob ? row.blob : source.log->blobForRowid(row.rowid, &blobError);
        if (!blob) {
            if (!blobError.isNull()) {
                source.failed = true;
                reportOpenFailureOnce(source.log->path(), blobError);
            } else {
                qCWarning(lcStore).noquote()
                    << nbFormat("Unexpected nil value for 'blob' column:\nrow: %@\ndatabase: %@",
                                row.description(), source.log->path());
            }
            continue;
        }
        NBError decodeError;
        std::optional<QVariant> value = propertyListWithData(*blob, &decodeError);
        if (!value) {
            qCWarning(lcStore).noquote()
                << nbFormat("Error deserializing blob data:\nrow: %@\ndatabase: %@\nerror: %@",
                            row.description(), source.log->path(), decodeError.description());
            continue;
        }
        resolved.insert(key, {std::move(*value), row.timestamp});
    }

    // A relevant key never resolved before (a paragraph put back into a document's layout by another device
    // without being rewritten, say) may have all its rows below the logs' lower bounds, which only promise
    // that nothing newer than what was read exists. Such keys are looked up in full in every log read with a
    // bound; a log read in full, or one that failed, has nothing more to give.
    if (!allKeys) {
        QStringList unresolved;
        for (const QString& key : *relevant) {
            if (resolved.contains(key))
                continue;
            const auto known = keyTimestamps_.constFind(key);
            if (known == keyTimestamps_.constEnd() || known.value() == timestampForDistantPast())
                unresolved << key;
        }
        QHash<QString, std::pair<QVariant, NBTimestamp>> found;
        for (Source& source : sources) {
            if (unresolved.isEmpty() || source.failed || !source.cursor.lowerBound)
                continue;
            // A log holds no more rows below its bound than it held when it was searched (rows are only
            // appended, with newer timestamps), so each key is searched once per open log.
            QSet<QString>& searched = keysSearchedBelowBound_[source.deviceIdentifier];
            QStringList keys;
            for (const QString& key : unresolved) {
                if (!searched.contains(key))
                    keys << key;
            }
            if (keys.isEmpty())
                continue;
            std::vector<OAKLogRow> rows;
            if (!source.log->fetchRowsForKeys(keys, rows, &error)) {
                source.failed = true;
                reportOpenFailureOnce(source.log->path(), error);
                continue;
            }
            for (const QString& key : keys)
                searched.insert(key);
            QSet<QString> decoded; // keys whose newest decodable row in this log was taken
            for (const OAKLogRow& row : rows) {
                const QString& key = *row.key; // the query matched the key, so it is not null
                if (decoded.contains(key))
                    continue;
                if (const auto known = found.constFind(key);
                    known != found.constEnd() && known.value().second >= row.timestamp) {
                    decoded.insert(key); // another log holds a newer value
                    continue;
                }
                if (!row.blob) {
                    qCWarning(lcStore).noquote()
                        << nbFormat("Unexpected nil value for 'blob' column:\nrow: %@\ndatabase: %@",
                                    row.description(), source.log->path());
                    continue;
                }
                NBError decodeError;
                std::optional<QVariant> value = propertyListWithData(*row.blob, &decodeError);
                if (!value) {
                    qCWarning(lcStore).noquote()
                        << nbFormat("Error deserializing blob data:\nrow: %@\ndatabase: %@\nerror: %@",
                                    row.description(), source.log->path(), decodeError.description());
                    continue;
                }
                decoded.insert(key);
                found.insert(key, {std::move(*value), row.timestamp});
            }
        }
        for (auto entry = found.constBegin(); entry != found.constEnd(); ++entry)
            resolved.insert(entry.key(), entry.value());
    }

    // Bookkeeping. A value found in this pass may be older than the one known (a device with a late clock):
    // the newest timestamp stays.
    if (!allKeys) {
        for (const QString& key : *relevant) {
            NBTimestamp timestamp = keyTimestamps_.value(key, timestampForDistantPast());
            if (const auto found = resolved.constFind(key); found != resolved.constEnd())
                timestamp = std::max(timestamp, found.value().second);
            keyTimestamps_.insert(key, timestamp);
        }
    } else {
        for (auto found = resolved.constBegin(); found != resolved.constEnd(); ++found) {
            NBTimestamp& timestamp = keyTimestamps_[found.key()];
            timestamp = keyTimestamps_.contains(found.key()) ? std::max(timestamp, found.value().second)
                                                             : found.value().second;
        }
    }
    for (const Source& source : sources) {
        // A log that failed is read again from its previous bound next time.
        if (source.failed)
            continue;
        NBTimestamp& timestamp =
            databaseTimestamps_.try_emplace(source.deviceIdentifier, timestampForDistantPast()).first->second;
        if (source.newest && *source.newest > timestamp) {
            timestamp = *source.newest;
            if (source.log != readwriteDatabase_.get())
                logAnchors_[source.deviceIdentifier] = {source.log->fileIdentity(), source.newestRowid,
                                                        *source.newest};
        }
    }

    bool changed = false;
    memoryQueue_->dispatchSynchronously([&] {
        QVariantMap values;
        QHash<QString, NBTimestamp> timestamps;
        QVariantMap announcedTimestamps;
        for (auto found = resolved.constBegin(); found != resolved.constEnd(); ++found) {
            const auto known = memoryKeyTimestamps_.constFind(found.key());
            if (known != memoryKeyTimestamps_.constEnd() && known.value() >= found.value().second)
                continue;
            values.insert(found.key(), found.value().first);
            timestamps.insert(found.key(), found.value().second);
            announcedTimestamps.insert(found.key(), qint64(found.value().second));
        }
        if (values.isEmpty())
            return;
        changed = true;
        applySyncChangeWithValues(values, timestamps);
        if (announce) {
            postDidChangeNotificationWithUserInfo(
                {{QString::fromUtf8(OAKStoreValuesKey), values},
                 {QString::fromUtf8(OAKStoreTimestampsKey), announcedTimestamps}});
        }
    });
    return changed;
}

void OAKStore::applySyncChangeWithValues(const QVariantMap& values,
                                         const QHash<QString, NBTimestamp>& timestamps) {
    if (!checkMemoryQueue("applySyncChangeWithValues:timestamps:"))
        return;
    for (auto entry = values.begin(); entry != values.end(); ++entry) {
        memory_.insert(entry.key(), entry.value());
        memoryKeyTimestamps_.insert(entry.key(), timestamps.value(entry.key(), timestampForDistantPast()));
    }
}

// MARK: - Timestamps and changes

std::map<QString, NBTimestamp> OAKStore::mostRecentTimestampsByDeviceIdentifier() {
    std::map<QString, NBTimestamp> timestamps;
    if (inMemory_ || refuseOnMemoryQueue("mostRecentTimestampsByDeviceIdentifier"))
        return timestamps;
    databaseQueue_->dispatchSynchronously([&] {
        if (!openDatabaseContext(nullptr))
            return;
        for (const auto& entry : openLogs()) {
            const auto known = databaseTimestamps_.find(entry.first);
            timestamps[entry.first] =
                known == databaseTimestamps_.end() ? timestampForDistantPast() : known->second;
        }
        closeDatabaseSoon();
    });
    return timestamps;
}

NBTimestamp OAKStore::mostRecentTimestampForDeviceIdentifier(const QString& deviceIdentifier) {
    const auto timestamps = mostRecentTimestampsByDeviceIdentifier();
    const auto found = timestamps.find(deviceIdentifier);
    return found == timestamps.end() ? timestampForDistantPast() : found->second;
}

QHash<QString, NBTimestamp> OAKStore::mostRecentTimestampsByKey() const {
    QHash<QString, NBTimestamp> timestamps;
    memoryQueue_->dispatchSynchronously([&] { timestamps = memoryKeyTimestamps_; });
    return timestamps;
}

NBTimestamp OAKStore::mostRecentTimestampForKey(const QString& key) const {
    NBTimestamp timestamp = timestampForDistantPast();
    memoryQueue_->dispatchSynchronously(
        [&] { timestamp = memoryKeyTimestamps_.value(key, timestampForDistantPast()); });
    return timestamp;
}

std::vector<OAKChange> OAKStore::changesSinceTimestamp(NBTimestamp timestamp) {
    std::vector<OAKChange> changes;
    if (inMemory_ || refuseOnMemoryQueue("changesSinceTimestamp:"))
        return changes;
    databaseQueue_->dispatchSynchronously([&] {
        _save(nullptr);
        if (!openDatabaseContext(nullptr))
            return;
        refreshStoreList();
        const std::optional<NBTimestamp> bound =
            timestamp == timestampForDistantPast() ? std::nullopt : std::optional<NBTimestamp>(timestamp);
        for (const auto& [identifier, log] : openLogs()) {
            std::vector<OAKLogRow> rows;
            NBError error;
            if (!log->fetchAscending(bound, rows, &error)) {
                qCCritical(lcStore).noquote()
                    << nbFormat("Error fetching logs for store at path '%@' because of error: %@",
                                storePath(), error.description());
                continue;
            }
            for (const OAKLogRow& row : rows) {
                QVariant value;
                if (row.blob) {
                    NBError decodeError;
                    if (std::optional<QVariant> decoded = propertyListWithData(*row.blob, &decodeError))
                        value = std::move(*decoded);
                    else
                        qCWarning(lcStore).noquote()
                            << nbFormat("Error deserializing blob data:\nrow: %@\ndatabase: %@\nerror: %@",
                                        row.description(), log->path(), decodeError.description());
                }
                OAKChange change = OAKChange::changeWithTimestamp(row.timestamp, row.parentTimestamp,
                                                                  row.key.value_or(QString()), value);
                change.deviceIdentifier = identifier;
                changes.push_back(std::move(change));
            }
        }
        std::stable_sort(changes.begin(), changes.end(), [](const OAKChange& first, const OAKChange& second) {
            return first.timestamp < second.timestamp;
        });
        closeDatabaseSoon();
    });
    return changes;
}

// MARK: - Blobs

bool OAKStore::checkBlobPath(const QString& path, const char* method, const char* parameter, const char* verb,
                             NBError* outError) const {
    QString message;
    if (path.isNull()) {
        message = nbFormat(
            "Blob cannot be %@ because method '%@' was called with '%@' parameter nil, in store at path '%@'",
            QString::fromUtf8(verb), QString::fromUtf8(method), QString::fromUtf8(parameter), storePath());
    } else {
        const QString clean = QDir::cleanPath(path);
        if (clean.isEmpty() || clean == QLatin1String(".") || QDir::isAbsolutePath(clean) ||
            clean == QLatin1String("..") || clean.startsWith(QLatin1String("../")))
            message =
                nbFormat("Blob cannot be %@ because the path '%@' given to method '%@' lies outside the blob "
                         "directory, in store at path '%@'",
                         QString::fromUtf8(verb), path, QString::fromUtf8(method), storePath());
    }
    if (message.isEmpty())
        return true;
    qCCritical(lcStore).noquote() << message;
    return nbFail(outError, NBError::errorWithObject(className().toStdString(), 300, message));
}

namespace {

bool blobFailure(const QString& domain, NBError* outError, qint64 code, const QString& message) {
    qCCritical(lcStore).noquote() << message;
    return nbFail(outError, NBError::errorWithObject(domain.toStdString(), code, message));
}

} // namespace

bool OAKStore::writeBlobData(const QByteArray& data, const QString& path, NBError* outError) {
    if (!checkBlobPath(path, "writeBlobData:toPath:error:", "path", "saved", outError))
        return false;
    QByteArray bytes = data;
    if (bytes.isNull()) {
        qCWarning(lcStore).noquote() << nbFormat(
            "Empty data will be used in method '%@' called with data parameter nil, in store at path '%@'",
            QStringLiteral("writeBlobData:toPath:error:"), storePath());
        bytes = QByteArray("");
    }
    if (options_.readOnly)
        return blobFailure(className(), outError, 310,
                           nbFormat("Could not save data blob at path '%@'", absolutePathForBlobPath(path)));
    if (inMemory_) {
        std::lock_guard lock(memoryFileDataMutex_);
        memoryFileData_.insert(QDir::cleanPath(path), bytes);
        return true;
    }
    const QString absolutePath = absolutePathForBlobPath(path);
    if (!QDir().mkpath(QFileInfo(absolutePath).path()))
        return blobFailure(
            className(), outError, 320,
            nbFormat("Could not create parent directories before writing blob at path '%@'", absolutePath));
    QSaveFile file(absolutePath);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return blobFailure(className(), outError, 330,
                           nbFormat("Could not save data blob at path '%@'", absolutePath));
    return true;
}

bool OAKStore::writeBlobFromPath(const QString& sourcePath, const QString& path, NBError* outError) {
    if (sourcePath.isNull()) {
        const QString message = nbFormat("Blob cannot be saved because method '%@' was called with "
                                         "'sourcePath' parameter nil, in store at "
                                         "path '%@'",
                                         QStringLiteral("writeBlobFromPath:toPath:error:"), storePath());
        return blobFailure(className(), outError, 300, message);
    }
    if (!checkBlobPath(path, "writeBlobFromPath:toPath:error:", "path", "saved", outError))
        return false;
    if (inMemory_) {
        if (sourcePath.isEmpty())
            return blobFailure(
                className(), outError, 340,
                QStringLiteral("Cannot read data from empty path to store as blob in memory store"));
        QFile source(sourcePath);
        if (!source.open(QIODevice::ReadOnly))
            return blobFailure(
                className(), outError, 350,
                nbFormat("Could not read data to store as blob in memory store, from source file at "
                         "path '%@', ",
                         sourcePath));
        return writeBlobData(source.readAll(), path, outError);
    }
    const QString absolutePath = absolutePathForBlobPath(path);
    const QString failure =
        nbFormat("Could not copy file from source path '%@', into blob directory at path '%@'", sourcePath,
                 absolutePath);
    if (options_.readOnly)
        return blobFailure(className(), outError, 310, failure);
    if (!QDir().mkpath(QFileInfo(absolutePath).path()))
        return blobFailure(
            className(), outError, 320,
            nbFormat("Could not create parent directories before writing blob at path '%@'", absolutePath));
    // Copy under a temporary name, then rename over the old blob, so a reader never sees half a file.
    const QString temporaryPath = absolutePath + QUuid::createUuid().toString(QUuid::WithoutBraces);
    if (!QFile::copy(sourcePath, temporaryPath)) {
        QFile::remove(temporaryPath);
        return blobFailure(className(), outError, 360, failure);
    }
    if (::rename(QFile::encodeName(temporaryPath).constData(), QFile::encodeName(absolutePath).constData()) !=
        0) {
        QFile::remove(temporaryPath);
        return blobFailure(className(), outError, 360, failure);
    }
    return true;
}

bool OAKStore::deleteBlobAtPath(const QString& path, NBError* outError) {
    if (!checkBlobPath(path, "deleteBlobAtPath:error:", "path", "deleted", outError))
        return false;
    if (inMemory_) {
        std::lock_guard lock(memoryFileDataMutex_);
        if (memoryFileData_.remove(QDir::cleanPath(path)) == 0)
            return blobFailure(className(), outError, 370,
                               nbFormat("Could not delete data blob at path '%@'", path));
        return true;
    }
    const QString absolutePath = absolutePathForBlobPath(path);
    if (options_.readOnly || !QFile::remove(absolutePath))
        return blobFailure(className(), outError, 370,
                           nbFormat("Could not delete data blob at path '%@'", absolutePath));
    return true;
}

std::optional<QByteArray> OAKStore::blobDataAtPath(const QString& path, NBError* outError) const {
    if (!checkBlobPath(path, "blobDataAtPath:error:", "path", "retrieved", outError))
        return std::nullopt;
    if (inMemory_) {
        std::lock_guard lock(memoryFileDataMutex_);
        const auto found = memoryFileData_.constFind(QDir::cleanPath(path));
        if (found != memoryFileData_.constEnd())
            return found.value();
        blobFailure(className(), outError, 380, nbFormat("Could not read data blob at path '%@'", path));
        return std::nullopt;
    }
    const QString absolutePath = absolutePathForBlobPath(path);
    QFile file(absolutePath);
    if (!file.open(QIODevice::ReadOnly)) {
        blobFailure(className(), outError, 380,
                    nbFormat("Could not read data blob at path '%@'", absolutePath));
        return std::nullopt;
    }
    return file.readAll();
}
