// The manifest database: creating, reading and writing the NBManifestRow table.
#include "library/NBManifestDatabase.h"

#include "foundation/NBLogging.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

namespace {

NBError manifestError(qint64 code, const QString& path, const QString& message) {
    return NBError::errorWithObject(
        "NBManifestDatabase", code,
        nbFormat("Could not use manifest database at path '%@': %@", path, message));
}

std::vector<NBManifestRow> readRows(SQLite::Database& database, QHash<QString, qint64>* rowIDs) {
    std::vector<NBManifestRow> rows;
    SQLite::Statement query(database, "SELECT rowid, documentUUID, timestamp, deleted FROM NBManifestRow");
    while (query.executeStep()) {
        if (query.getColumn(1).getType() != SQLITE_TEXT || query.getColumn(2).getType() != SQLITE_INTEGER)
            continue;
        NBManifestRow row;
        row.documentUUID = QString::fromUtf8(query.getColumn(1).getText());
        row.timestamp = query.getColumn(2).getInt64();
        row.deleted = query.getColumn(3).getInt() != 0;
        if (rowIDs)
            rowIDs->insert(row.documentUUID, query.getColumn(0).getInt64());
        rows.push_back(std::move(row));
    }
    return rows;
}

} // namespace

QVariantMap NBManifestRow::dictionaryRepresentation() const {
    return {{QStringLiteral("documentUUID"), documentUUID},
            {QStringLiteral("timestamp"), qint64(timestamp)},
            {QStringLiteral("deleted"), deleted}};
}

std::optional<NBManifestRow> NBManifestRow::rowWithDictionaryRepresentation(const QVariantMap& dictionary) {
    const QVariant uuid = dictionary.value(QStringLiteral("documentUUID"));
    const QVariant timestamp = dictionary.value(QStringLiteral("timestamp"));
    if (uuid.typeId() != QMetaType::QString || !timestamp.canConvert<qint64>())
        return std::nullopt;
    NBManifestRow row;
    row.documentUUID = uuid.toString();
    row.timestamp = timestamp.toLongLong();
    row.deleted = dictionary.value(QStringLiteral("deleted")).toBool();
    return row;
}

std::unique_ptr<NBManifestDatabase> NBManifestDatabase::openDatabaseAtPath(const QString& path,
                                                                           NBError* outError) {
    std::unique_ptr<NBManifestDatabase> manifest(new NBManifestDatabase());
    manifest->path_ = path;
    try {
        manifest->database_ = std::make_unique<SQLite::Database>(path.toStdString(), SQLite::OPEN_READWRITE |
                                                                                         SQLite::OPEN_CREATE);
        manifest->database_->setBusyTimeout(2000);
        const int version = manifest->database_->execAndGet("PRAGMA user_version").getInt();
        if (version > kNBManifestSchemaVersion) {
            nbFail(outError, manifestError(20, path,
                                           nbFormat("its schema version %@ is newer than this program's (%@)",
                                                    QString::number(version),
                                                    QString::number(kNBManifestSchemaVersion))));
            return nullptr;
        }
        manifest->database_->exec("PRAGMA journal_mode=DELETE");
        if (version < kNBManifestSchemaVersion) {
            SQLite::Transaction transaction(*manifest->database_);
            manifest->database_->exec(
                "CREATE TABLE IF NOT EXISTS NBManifestRow (documentUUID TEXT, timestamp INTEGER, deleted "
                "INTEGER);"
                "CREATE INDEX IF NOT EXISTS NBManifestRow_documentUUID ON NBManifestRow(documentUUID);"
                "CREATE INDEX IF NOT EXISTS NBManifestRow_timestamp ON NBManifestRow(timestamp);"
                "CREATE INDEX IF NOT EXISTS NBManifestRow_deleted ON NBManifestRow(deleted);"
                "PRAGMA user_version = 1;");
            transaction.commit();
        }
    } catch (const SQLite::Exception& exception) {
        nbFail(outError, manifestError(10, path, QString::fromUtf8(exception.what())));
        return nullptr;
    }
    return manifest;
}

std::optional<std::vector<NBManifestRow>> NBManifestDatabase::rowsOfDatabaseAtPath(const QString& path,
                                                                                   NBError* outError) {
    try {
        SQLite::Database database(path.toStdString(), SQLite::OPEN_READONLY);
        // A writer holds its lock only while it commits; wait that long, not longer.
        database.setBusyTimeout(250);
        return readRows(database, nullptr);
    } catch (const SQLite::Exception& exception) {
        nbFail(outError, manifestError(10, path, QString::fromUtf8(exception.what())));
        return std::nullopt;
    }
}

NBManifestDatabase::~NBManifestDatabase() = default;

std::optional<std::vector<NBManifestRow>> NBManifestDatabase::allRows(NBError* outError) {
    try {
        rowIDsByUUID_.clear();
        return readRows(*database_, &rowIDsByUUID_);
    } catch (const SQLite::Exception& exception) {
        nbFail(outError, manifestError(10, path_, QString::fromUtf8(exception.what())));
        return std::nullopt;
    }
}

bool NBManifestDatabase::saveRows(const std::vector<NBManifestRow>& rows, NBError* outError) {
    try {
        SQLite::Transaction transaction(*database_);
        SQLite::Statement update(*database_,
                                 "UPDATE NBManifestRow SET timestamp = ?, deleted = ? WHERE rowid = ?");
        SQLite::Statement insert(
            *database_, "INSERT INTO NBManifestRow (documentUUID, timestamp, deleted) VALUES (?, ?, ?)");
        QHash<QString, qint64> inserted;
        for (const NBManifestRow& row : rows) {
            const auto rowID = rowIDsByUUID_.constFind(row.documentUUID);
            if (rowID != rowIDsByUUID_.constEnd()) {
                update.bind(1, static_cast<int64_t>(row.timestamp));
                update.bind(2, row.deleted ? 1 : 0);
                update.bind(3, static_cast<int64_t>(*rowID));
                update.exec();
                update.reset();
            } else {
                insert.bind(1, row.documentUUID.toStdString());
                insert.bind(2, static_cast<int64_t>(row.timestamp));
                insert.bind(3, row.deleted ? 1 : 0);
                insert.exec();
                insert.reset();
                inserted.insert(row.documentUUID, database_->getLastInsertRowid());
            }
        }
        transaction.commit();
        rowIDsByUUID_.insert(inserted);
    } catch (const SQLite::Exception& exception) {
        return nbFail(outError, manifestError(10, path_, QString::fromUtf8(exception.what())));
    }
    return true;
}
