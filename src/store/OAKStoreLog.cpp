// OAKStoreLog: opening, validating, writing and reading one device's log database (see OAKStoreLog.h for
// the format).
#include "store/OAKStoreLog.h"

#include "foundation/NBLogging.h"

#include <QFileInfo>
#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <sys/stat.h>

#include <algorithm>

namespace {

constexpr const char* kDomain = "OAKStore";

// How long a reader or the writer waits for another process's lock before giving up on this attempt. A
// commit of one save holds its lock for milliseconds; readers hold theirs for one batch.
constexpr int kWriterBusyTimeoutMilliseconds = 5000;
constexpr int kReaderBusyTimeoutMilliseconds = 1000;

NBError openError(const QString& path, const QString& detail) {
    return NBError::errorWithObject(
        kDomain, 120,
        nbFormat("Error creating persistent store for database at path '%@':\n%@", path, detail));
}

std::string utf8(const QString& text) {
    return text.toStdString();
}

QString columnText(const SQLite::Column& column) {
    const char* text = static_cast<const char*>(column.getBlob());
    return QString::fromUtf8(text, column.getBytes());
}

QByteArray columnBlob(const SQLite::Column& column) {
    const char* bytes = static_cast<const char*>(column.getBlob());
    // A zero-length blob comes back as a null pointer; it is still present (empty data).
    return bytes ? QByteArray(bytes, column.getBytes()) : QByteArray("");
}

// Checks that the Log table exists with the four columns this code reads.
bool hasWellFormedLogTable(SQLite::Database& database) {
    SQLite::Statement statement(database, "PRAGMA table_info(Log)");
    QStringList columns;
    while (statement.executeStep())
        columns << QString::fromUtf8(statement.getColumn(1).getText());
    for (const char* name : {"blob", "key", "timestamp", "parentTimestamp"}) {
        if (!columns.contains(QString::fromUtf8(name)))
            return false;
    }
    return true;
}

bool hasAnyTable(SQLite::Database& database) {
    SQLite::Statement statement(database, "SELECT count(*) FROM sqlite_master");
    statement.executeStep();
    return statement.getColumn(0).getInt64() > 0;
}

} // namespace

OAKLogFileIdentity OAKLogFileIdentity::ofFileAtPath(const QString& path) {
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    return {quint64(info.st_dev), quint64(info.st_ino), true};
}

QString OAKLogRow::description() const {
    return nbFormat("{timestamp: %@, parentTimestamp: %@, key: %@, blob: %@}", QString::number(timestamp),
                    parentTimestamp ? QString::number(*parentTimestamp) : QStringLiteral("nil"),
                    key ? *key : QStringLiteral("nil"),
                    blob ? QStringLiteral("%1 bytes").arg(blob->size()) : QStringLiteral("nil"));
}

struct OAKStoreLog::Private {
    std::unique_ptr<SQLite::Database> database;
    std::unique_ptr<SQLite::Statement> insert;
    std::unique_ptr<SQLite::Statement> newestBatch;
    std::unique_ptr<SQLite::Statement> newestBatchAfter;
    std::unique_ptr<SQLite::Statement> blobForRowid;
    std::unique_ptr<SQLite::Statement> timestampForRowid;
    OAKLogFileIdentity identity;
};

OAKStoreLog::OAKStoreLog() : d(std::make_unique<Private>()) {}

OAKStoreLog::~OAKStoreLog() {
    // Statements must be finalised before their connection closes.
    d->insert.reset();
    d->newestBatch.reset();
    d->newestBatchAfter.reset();
    d->blobForRowid.reset();
    d->timestampForRowid.reset();
    if (d->database && inTransaction_) {
        // Uncommitted rows are dropped here on purpose: only save() makes rows durable, and the store always
        // saves before it closes a log.
        try {
            d->database->exec("ROLLBACK");
        } catch (const SQLite::Exception&) {
        }
    }
}

std::unique_ptr<OAKStoreLog> OAKStoreLog::open(const QString& path, Mode mode, NBError* outError) {
    const QFileInfo info(path);
    if (info.isDir()) {
        nbFail(outError,
               NBError::errorWithObject(
                   kDomain, 100,
                   nbFormat("Cannot create persistent store for database at path '%@', because there "
                            "is already a directory at this path",
                            path)));
        return nullptr;
    }
    if (mode == Mode::ReadOnly && !info.exists()) {
        nbFail(outError, NBError::errorWithObject(
                             kDomain, 110,
                             nbFormat("Cannot create persistent store for database at path '%@' in read-only "
                                      "mode, because there is no file at this path",
                                      path)));
        return nullptr;
    }

    std::unique_ptr<OAKStoreLog> log(new OAKStoreLog());
    log->path_ = path;
    log->mode_ = mode;
    try {
        const int flags =
            mode == Mode::ReadOnly ? SQLite::OPEN_READONLY : SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE;
        log->d->database = std::make_unique<SQLite::Database>(
            utf8(path), flags,
            mode == Mode::ReadOnly ? kReaderBusyTimeoutMilliseconds : kWriterBusyTimeoutMilliseconds);
        SQLite::Database& database = *log->d->database;

        // Reading the schema is the first access to the file: a file that is not a database fails here.
        const int version = database.execAndGet("PRAGMA user_version").getInt();
        if (version > kOAKLogSchemaVersion) {
            nbFail(outError,
                   NBError::errorWithObject(
                       kDomain, 130,
                       nbFormat("Error creating persistent store for database at path '%@':\n%@", path,
                                nbFormat("the log has schema version %@, newer than the version %@ that this "
                                         "version of Quillon reads; it is left untouched",
                                         QString::number(version), QString::number(kOAKLogSchemaVersion)))));
            return nullptr;
        }
        if (mode == Mode::ReadWrite) {
            database.exec("PRAGMA journal_mode=TRUNCATE");
            if (!hasWellFormedLogTable(database)) {
                if (hasAnyTable(database)) {
                    nbFail(outError,
                           openError(path, QStringLiteral("the file holds a database, but not a log")));
                    return nullptr;
                }
                SQLite::Transaction transaction(database);
                database.exec("CREATE TABLE Log (blob BLOB, key TEXT, timestamp INTEGER, parentTimestamp "
                              "INTEGER)");
                database.exec("CREATE INDEX Log_key ON Log (key)");
                database.exec("CREATE INDEX Log_timestamp ON Log (timestamp)");
                database.exec("CREATE INDEX Log_parentTimestamp ON Log (parentTimestamp)");
                database.exec(
                    QStringLiteral("PRAGMA user_version=%1").arg(kOAKLogSchemaVersion).toStdString());
                transaction.commit();
            } else if (version < kOAKLogSchemaVersion) {
                database.exec(
                    QStringLiteral("PRAGMA user_version=%1").arg(kOAKLogSchemaVersion).toStdString());
            }
            log->d->insert = std::make_unique<SQLite::Statement>(
                database, "INSERT INTO Log (blob, key, timestamp, parentTimestamp) VALUES (?, ?, ?, ?)");
        } else if (!hasWellFormedLogTable(database)) {
            nbFail(outError, openError(path, QStringLiteral("the file holds no well-formed Log table")));
            return nullptr;
        }
        log->d->newestBatch = std::make_unique<SQLite::Statement>(
            database, "SELECT rowid, key, timestamp, blob FROM Log WHERE timestamp > ? "
                      "ORDER BY timestamp DESC, rowid DESC LIMIT ?");
        log->d->newestBatchAfter = std::make_unique<SQLite::Statement>(
            database,
            "SELECT rowid, key, timestamp, blob FROM Log WHERE timestamp > ? AND (timestamp, rowid) < (?, ?) "
            "ORDER BY timestamp DESC, rowid DESC LIMIT ?");
        log->d->blobForRowid =
            std::make_unique<SQLite::Statement>(database, "SELECT blob FROM Log WHERE rowid = ?");
        log->d->timestampForRowid =
            std::make_unique<SQLite::Statement>(database, "SELECT timestamp FROM Log WHERE rowid = ?");
    } catch (const SQLite::Exception& exception) {
        nbFail(outError, openError(path, QString::fromUtf8(exception.what())));
        return nullptr;
    }
    log->d->identity = OAKLogFileIdentity::ofFileAtPath(path);
    return log;
}

const OAKLogFileIdentity& OAKStoreLog::fileIdentity() const {
    return d->identity;
}

bool OAKStoreLog::fileWasReplaced() const {
    return !(OAKLogFileIdentity::ofFileAtPath(path_) == d->identity);
}

bool OAKStoreLog::insertRow(NBTimestamp timestamp, std::optional<NBTimestamp> parentTimestamp,
                            const std::optional<QString>& key, const std::optional<QByteArray>& blob,
                            NBError* outError) {
    if (mode_ != Mode::ReadWrite || !d->insert)
        return nbFail(outError, NBError::errorWithObject(
                                    kDomain, 150, nbFormat("The log at path '%@' is read-only", path_)));
    try {
        if (!inTransaction_) {
            d->database->exec("BEGIN");
            inTransaction_ = true;
        }
        SQLite::Statement& insert = *d->insert;
        // The statement runs before `blob` and `keyText` go away, so SQLite need not copy them.
        if (blob)
            insert.bindNoCopy(1, blob->constData(), int(blob->size()));
        else
            insert.bind(1);
        const std::string keyText = key ? key->toStdString() : std::string();
        if (key)
            insert.bindNoCopy(2, keyText);
        else
            insert.bind(2);
        insert.bind(3, std::int64_t(timestamp));
        if (parentTimestamp)
            insert.bind(4, std::int64_t(*parentTimestamp));
        else
            insert.bind(4);
        insert.exec();
        insert.reset();
    } catch (const SQLite::Exception& exception) {
        d->insert->tryReset();
        return nbFail(outError, NBError::errorWithObject(
                                    kDomain, 160,
                                    nbFormat("Could not insert a row into the log at path '%@': %@", path_,
                                             QString::fromUtf8(exception.what()))));
    }
    return true;
}

bool OAKStoreLog::save(NBError* outError) {
    if (!inTransaction_)
        return true;
    try {
        d->database->exec("COMMIT");
        inTransaction_ = false;
    } catch (const SQLite::Exception& exception) {
        // The transaction stays open (SQLite keeps it after a busy commit), so a later save retries.
        inTransaction_ = sqlite3_get_autocommit(d->database->getHandle()) == 0;
        return nbFail(outError, NBError::errorWithObject(kDomain, 170, QString::fromUtf8(exception.what())));
    }
    return true;
}

namespace {

NBError readError(const QString& path, const SQLite::Exception& exception) {
    return NBError::errorWithObject(
        kDomain, 140,
        nbFormat("Could not read the log at path '%@': %@", path, QString::fromUtf8(exception.what())));
}

OAKLogRow fullRow(SQLite::Statement& statement) {
    // Columns: rowid, timestamp, parentTimestamp, key, blob.
    OAKLogRow row;
    row.rowid = statement.getColumn(0).getInt64();
    row.timestamp = statement.getColumn(1).getInt64();
    if (!statement.getColumn(2).isNull())
        row.parentTimestamp = statement.getColumn(2).getInt64();
    if (!statement.getColumn(3).isNull())
        row.key = columnText(statement.getColumn(3));
    if (!statement.getColumn(4).isNull())
        row.blob = columnBlob(statement.getColumn(4));
    return row;
}

} // namespace

bool OAKStoreLog::fetchNewestBatch(OAKLogCursor& cursor, int limit, std::vector<OAKLogRow>& rows,
                                   NBError* outError,
                                   const std::function<bool(const QString& key)>& wantsBlob) {
    rows.clear();
    if (cursor.finished)
        return true;
    SQLite::Statement& statement = cursor.after ? *d->newestBatchAfter : *d->newestBatch;
    try {
        statement.reset();
        int index = 1;
        statement.bind(index++, std::int64_t(cursor.lowerBound.value_or(timestampForDistantPast())));
        if (cursor.after) {
            statement.bind(index++, std::int64_t(cursor.after->first));
            statement.bind(index++, std::int64_t(cursor.after->second));
        }
        statement.bind(index, limit);
        rows.reserve(std::size_t(limit));
        while (statement.executeStep()) {
            OAKLogRow row;
            row.rowid = statement.getColumn(0).getInt64();
            if (!statement.getColumn(1).isNull())
                row.key = columnText(statement.getColumn(1));
            row.timestamp = statement.getColumn(2).getInt64();
            if (row.key && wantsBlob && !statement.getColumn(3).isNull() && wantsBlob(*row.key))
                row.blob = columnBlob(statement.getColumn(3));
            rows.push_back(std::move(row));
        }
        statement.reset();
    } catch (const SQLite::Exception& exception) {
        statement.tryReset();
        rows.clear();
        return nbFail(outError, readError(path_, exception));
    }
    // A lower bound of the distant past would exclude rows stamped with it; no log holds such rows.
    if (int(rows.size()) < limit)
        cursor.finished = true;
    if (!rows.empty())
        cursor.after = std::make_pair(rows.back().timestamp, rows.back().rowid);
    return true;
}

std::optional<OAKLogRow> OAKStoreLog::newestRow(NBError* outError) {
    OAKLogCursor cursor;
    std::vector<OAKLogRow> rows;
    if (!fetchNewestBatch(cursor, 1, rows, outError) || rows.empty())
        return std::nullopt;
    return rows.front();
}

std::optional<QByteArray> OAKStoreLog::blobForRowid(qint64 rowid, NBError* outError) {
    SQLite::Statement& statement = *d->blobForRowid;
    try {
        statement.reset();
        statement.bind(1, std::int64_t(rowid));
        std::optional<QByteArray> blob;
        if (statement.executeStep() && !statement.getColumn(0).isNull())
            blob = columnBlob(statement.getColumn(0));
        statement.reset();
        return blob;
    } catch (const SQLite::Exception& exception) {
        statement.tryReset();
        nbFail(outError, readError(path_, exception));
        return std::nullopt;
    }
}

std::optional<NBTimestamp> OAKStoreLog::timestampForRowid(qint64 rowid, NBError* outError) {
    SQLite::Statement& statement = *d->timestampForRowid;
    try {
        statement.reset();
        statement.bind(1, std::int64_t(rowid));
        std::optional<NBTimestamp> timestamp;
        if (statement.executeStep())
            timestamp = statement.getColumn(0).getInt64();
        statement.reset();
        return timestamp;
    } catch (const SQLite::Exception& exception) {
        statement.tryReset();
        nbFail(outError, readError(path_, exception));
        return std::nullopt;
    }
}

bool OAKStoreLog::fetchAscending(std::optional<NBTimestamp> lowerBound, std::vector<OAKLogRow>& rows,
                                 NBError* outError) {
    rows.clear();
    try {
        SQLite::Statement statement(
            *d->database, lowerBound ? "SELECT rowid, timestamp, parentTimestamp, key, blob FROM Log "
                                       "WHERE timestamp > ? ORDER BY timestamp, rowid"
                                     : "SELECT rowid, timestamp, parentTimestamp, key, blob FROM Log "
                                       "ORDER BY timestamp, rowid");
        if (lowerBound)
            statement.bind(1, std::int64_t(*lowerBound));
        while (statement.executeStep())
            rows.push_back(fullRow(statement));
    } catch (const SQLite::Exception& exception) {
        rows.clear();
        return nbFail(outError, readError(path_, exception));
    }
    return true;
}

bool OAKStoreLog::fetchRowsForKeys(const QStringList& keys, std::vector<OAKLogRow>& rows, NBError* outError) {
    rows.clear();
    // Keys go in chunks well below SQLite's limit on bound parameters; each chunk is one indexed lookup.
    constexpr qsizetype kChunk = 500;
    try {
        for (qsizetype start = 0; start < keys.size(); start += kChunk) {
            const qsizetype count = std::min(kChunk, keys.size() - start);
            QString placeholders = QStringLiteral("?");
            for (qsizetype index = 1; index < count; ++index)
                placeholders += QStringLiteral(",?");
            SQLite::Statement statement(
                *d->database, QStringLiteral("SELECT rowid, timestamp, parentTimestamp, key, blob FROM Log "
                                             "WHERE key IN (%1) ORDER BY timestamp DESC, rowid DESC")
                                  .arg(placeholders)
                                  .toStdString());
            for (qsizetype index = 0; index < count; ++index)
                statement.bind(int(index + 1), keys[start + index].toStdString());
            while (statement.executeStep())
                rows.push_back(fullRow(statement));
        }
    } catch (const SQLite::Exception& exception) {
        rows.clear();
        return nbFail(outError, readError(path_, exception));
    }
    // Chunks are each newest first; together they are too.
    if (keys.size() > kChunk) {
        std::stable_sort(rows.begin(), rows.end(), [](const OAKLogRow& first, const OAKLogRow& second) {
            return first.timestamp != second.timestamp ? first.timestamp > second.timestamp
                                                       : first.rowid > second.rowid;
        });
    }
    return true;
}

bool OAKStoreLog::fetchNewestRowForKey(const QString& key, std::optional<NBTimestamp> maximum,
                                       std::optional<OAKLogRow>& row, NBError* outError) {
    row.reset();
    try {
        SQLite::Statement statement(
            *d->database, maximum ? "SELECT rowid, timestamp, parentTimestamp, key, blob FROM Log "
                                    "WHERE key = ? AND timestamp <= ? ORDER BY timestamp DESC, rowid DESC "
                                    "LIMIT 1"
                                  : "SELECT rowid, timestamp, parentTimestamp, key, blob FROM Log "
                                    "WHERE key = ? ORDER BY timestamp DESC, rowid DESC LIMIT 1");
        statement.bind(1, key.toStdString());
        if (maximum)
            statement.bind(2, std::int64_t(*maximum));
        if (statement.executeStep())
            row = fullRow(statement);
    } catch (const SQLite::Exception& exception) {
        return nbFail(outError, readError(path_, exception));
    }
    return true;
}
