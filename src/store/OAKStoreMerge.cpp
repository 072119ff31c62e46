// OAKStore's merge of two copies of one store: blobs, then every device's log as the union of both copies,
// the entries of unsafe devices under a combined device identifier, the replacement of a log with its
// backup, and the reload that announces newer values (see OAKStore::mergeStore in OAKStore.h).
#include "foundation/NBLogging.h"
#include "foundation/NBPropertyList.h"
#include "store/OAKStore.h"
#include "store/OAKStoreLogging.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

#include <cstdio>

namespace {

QString storeDescription(const OAKStore& store) {
    return QStringLiteral("<%1:0x%2> %3")
        .arg(store.className())
        .arg(quintptr(&store), 0, 16)
        .arg(store.storePath());
}

} // namespace

void OAKStore::mergeStore(const std::shared_ptr<OAKStore>& mergedStore,
                          const QStringList& unsafeDeviceIdentifiers,
                          std::function<void(const std::optional<NBError>& error)> completionHandler) {
    const auto complete = [completionHandler](const std::optional<NBError>& error) {
        OAKDispatchQueue::globalDispatchQueue()->dispatchAsynchronously([completionHandler, error] {
            if (completionHandler)
                completionHandler(error);
        });
    };
    const std::string domain = className().toStdString();
    const QString mergedDescription = mergedStore ? storeDescription(*mergedStore) : QStringLiteral("(null)");
    if (!mergedStore || mergedStore->deviceIdentifier() != deviceIdentifier_ || mergedStore.get() == this ||
        inMemory_ || mergedStore->isInMemory() || options_.readOnly) {
        complete(NBError::errorWithObject(domain, 1498,
                                          nbFormat("merging is only valid for stores with the same device "
                                                   "identifier:\nmerged store: %@\ndestination "
                                                   "store: %@",
                                                   mergedDescription, storeDescription(*this))));
        return;
    }
    if (unsafeDeviceIdentifiers.contains(deviceIdentifier_)) {
        complete(NBError::errorWithObject(
            domain, 1508,
            nbFormat("merging is only valid if the unsafe device identifiers do not include the local device "
                     "identifier:\nunsafe devices: %@\nmerged store: %@\ndestination store: %@",
                     QStringLiteral("(%1)").arg(unsafeDeviceIdentifiers.join(QStringLiteral(", "))),
                     mergedDescription, storeDescription(*this))));
        return;
    }

    const std::shared_ptr<OAKStore> self = shared_from_this();
    databaseQueue_->dispatchAsynchronously([this, self, mergedStore, unsafeDeviceIdentifiers, complete] {
        std::optional<NBError> firstError;
        const auto note = [&](const NBError& error) {
            qCCritical(lcStore).noquote() << error.localizedDescription();
            if (!firstError)
                firstError = error;
        };

        _mergeBlobsFromStore(*mergedStore);
        mergedStore->closeDatabaseNow();
        _tearDownDatabase();

        QStringList devices = foreignDeviceIdentifiers() + mergedStore->foreignDeviceIdentifiers();
        devices << deviceIdentifier_;
        devices.removeDuplicates();
        devices.sort();

        // The destination's own copy of a log must be readable: replacing a log that could not be read by the
        // other copy's rows would lose the rows it holds.
        const auto destinationRepresentations = [&](const QString& device) {
            std::optional<std::vector<OAKLogRepresentation>> representations =
                _sortedLogRepresentationsFromDatabasePath(databasePathForDeviceIdentifier(device));
            if (!representations) {
                note(NBError::errorWithObject(
                    className().toStdString(), 1700,
                    nbFormat("The log of device '%@' at path '%@' cannot be read and is left as it is",
                             device, databasePathForDeviceIdentifier(device))));
            }
            return representations;
        };
        const auto mergedRepresentations = [&](const QString& device) {
            return mergedStore
                ->_sortedLogRepresentationsFromDatabasePath(
                    mergedStore->databasePathForDeviceIdentifier(device))
                .value_or(std::vector<OAKLogRepresentation>());
        };

        for (const QString& device : devices) {
            if (unsafeDeviceIdentifiers.contains(device))
                continue;
            const auto destination = destinationRepresentations(device);
            if (!destination)
                continue;
            const std::vector<OAKLogRepresentation> united =
                unionOfLogRepresentations(*destination, mergedRepresentations(device));
            NBError error;
            if (united.size() > destination->size() &&
                !_replacePersistentStoreWithDeviceIdentifier(device, united, &error))
                note(error);
        }
        for (const QString& device : unsafeDeviceIdentifiers) {
            const auto destination = destinationRepresentations(device);
            if (!destination)
                continue;
            // What only the merged copy holds for the unsafe device goes to the combined device's log, with
            // what both copies already hold there.
            const QString combined = nbFormat("%@|%@", deviceIdentifier_, device);
            const auto destinationCombined = destinationRepresentations(combined);
            if (!destinationCombined)
                continue;
            const std::vector<OAKLogRepresentation> differing =
                logRepresentationsMinusLogRepresentations(mergedRepresentations(device), *destination);
            const std::vector<OAKLogRepresentation> added = logRepresentationsMinusLogRepresentations(
                unionOfLogRepresentations(mergedRepresentations(combined), differing), *destination);
            const std::vector<OAKLogRepresentation> result =
                unionOfLogRepresentations(*destinationCombined, added);
            NBError error;
            if (result.size() > destinationCombined->size() &&
                !_replacePersistentStoreWithDeviceIdentifier(combined, result, &error))
                note(error);
        }

        // Reload, and announce every key whose value became newer.
        QHash<QString, NBTimestamp> previousTimestamps;
        memoryQueue_->dispatchSynchronously([&] {
            previousTimestamps = memoryKeyTimestamps_;
            resetMemory();
        });
        _load();
        memoryQueue_->dispatchSynchronously([&] {
            QVariantMap values;
            QVariantMap timestamps;
            for (auto entry = memoryKeyTimestamps_.constBegin(); entry != memoryKeyTimestamps_.constEnd();
                 ++entry) {
                if (entry.value() > previousTimestamps.value(entry.key(), timestampForDistantPast())) {
                    values.insert(entry.key(), memory_.value(entry.key()));
                    timestamps.insert(entry.key(), qint64(entry.value()));
                }
            }
            if (!values.isEmpty()) {
                postDidChangeNotificationWithUserInfo(
                    {{QString::fromUtf8(OAKStoreValuesKey), values},
                     {QString::fromUtf8(OAKStoreTimestampsKey), timestamps}});
            }
        });
        complete(firstError);
    });
}

void OAKStore::_mergeBlobsFromStore(const OAKStore& mergedStore) {
    const QDir source(mergedStore.blobDirectoryPath());
    QDirIterator iterator(source.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        const QString sourcePath = iterator.next();
        const QString relative = source.relativeFilePath(sourcePath);
        const QString destinationPath = absolutePathForBlobPath(relative);
        const QFileInfo sourceInfo(sourcePath);
        const QFileInfo destinationInfo(destinationPath);
        if (destinationInfo.exists() && destinationInfo.lastModified() >= sourceInfo.lastModified())
            continue;
        // Written under a temporary name, then moved over the older file, so a reader never sees half a blob.
        const QString temporaryPath = destinationPath + QUuid::createUuid().toString(QUuid::WithoutBraces);
        QDir().mkpath(destinationInfo.path());
        bool copied = QFile::copy(sourcePath, temporaryPath);
        if (copied) {
            QFile copy(temporaryPath);
            if (copy.open(QIODevice::ReadWrite))
                copy.setFileTime(sourceInfo.lastModified(), QFileDevice::FileModificationTime);
            copied = std::rename(QFile::encodeName(temporaryPath).constData(),
                                 QFile::encodeName(destinationPath).constData()) == 0;
        }
        if (!copied) {
            QFile::remove(temporaryPath);
            qCCritical(lcStore).noquote()
                << nbFormat("Could not copy file from source path '%@', into blob directory at path '%@'",
                            sourcePath, destinationPath);
        }
    }
}

std::optional<std::vector<OAKLogRepresentation>>
OAKStore::_sortedLogRepresentationsFromDatabasePath(const QString& path) const {
    std::vector<OAKLogRepresentation> representations;
    if (!QFileInfo::exists(path))
        return representations;
    NBError error;
    const std::unique_ptr<OAKStoreLog> log = OAKStoreLog::open(path, OAKStoreLog::Mode::ReadOnly, &error);
    std::vector<OAKLogRow> rows;
    if (!log || !log->fetchAscending(std::nullopt, rows, &error)) {
        qCWarning(lcStore).noquote() << error.localizedDescription();
        return std::nullopt;
    }
    representations.reserve(rows.size());
    for (const OAKLogRow& row : rows)
        representations.push_back(OAKLogRepresentation::fromRow(row));
    sortLogRepresentations(representations);
    return representations;
}

bool OAKStore::_replacePersistentStoreWithDeviceIdentifier(
    const QString& deviceIdentifier, const std::vector<OAKLogRepresentation>& representations,
    NBError* outError) {
    const std::string domain = className().toStdString();
    const QString path = databasePathForDeviceIdentifier(deviceIdentifier);
    if (!isValidDeviceIdentifier(deviceIdentifier) || inMemory_) {
        return nbFail(
            outError,
            NBError::errorWithObject(
                domain, 1704,
                nbFormat("no valid path for database with device '%@' for store <%@:%@> at path: %@",
                         deviceIdentifier, className(), QStringLiteral("0x%1").arg(quintptr(this), 0, 16),
                         storePath())));
    }
    const QString oldPath = path + QStringLiteral("-old");
    QFile::remove(path + QStringLiteral("-journal"));
    QFile::remove(oldPath);
    const bool hadLog = QFileInfo::exists(path);
    if (hadLog &&
        std::rename(QFile::encodeName(path).constData(), QFile::encodeName(oldPath).constData()) != 0)
        return nbFail(outError,
                      NBError::errorWithObject(
                          domain, 1722, nbFormat("error moving file from '%@' to '%@'", path, oldPath)));

    const auto restore = [&] {
        QFile::remove(path);
        QFile::remove(path + QStringLiteral("-journal"));
        if (hadLog)
            std::rename(QFile::encodeName(oldPath).constData(), QFile::encodeName(path).constData());
    };
    if (!representations.empty()) {
        bool saved = QDir().mkpath(directoryPathForDeviceIdentifier(deviceIdentifier));
        NBError error;
        std::unique_ptr<OAKStoreLog> log =
            saved ? OAKStoreLog::open(path, OAKStoreLog::Mode::ReadWrite, &error) : nullptr;
        saved = log != nullptr;
        for (std::size_t index = 0; saved && index < representations.size(); ++index) {
            const OAKLogRepresentation& entry = representations[index];
            saved = log->insertRow(entry.timestamp, entry.parentTimestamp, entry.key, entry.blob, &error);
        }
        saved = saved && log->save(&error);
        log.reset();
        if (!saved) {
            restore();
            return nbFail(outError, NBError::errorWithObject(domain, 1764,
                                                             nbFormat("error saving moc at path: %@", path),
                                                             QString(), QString(), &error));
        }
    }
    if (hadLog)
        QFile::remove(oldPath);
    return true;
}
