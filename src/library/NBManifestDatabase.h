// NBManifestDatabase: one device's manifest in a bucket, "<bucket>/<device>/Manifests/manifest.db".
//
// FORMAT (this file owns it). An SQLite 3 database in journal mode DELETE (a reader on another machine only
// ever sees a whole file once the synchronisation service has copied it; WAL's side files would travel
// separately). One table, one row per document that this device changed:
//   CREATE TABLE NBManifestRow (documentUUID TEXT, timestamp INTEGER, deleted INTEGER)
//   with an index on each column (NBManifestRow_documentUUID, NBManifestRow_timestamp,
//   NBManifestRow_deleted). documentUUID  the document's upper-case UUID (its package's file name without
//   extension) timestamp     the newest timestamp of this device's log in the document (microseconds since
//   2001), or,
//                 for a row written by a deletion or a restoration, the moment of that act
//   deleted       1 when this device put the document in the trash, else 0
// `PRAGMA user_version` is the schema version (1); a newer version is read but never written to.
// Only the owning device writes its manifest; one row per document (the writer updates in place). Readers
// of other devices open it read-only, read every row in one statement, and close it. A reader that cannot
// open or read it (missing, locked longer than a moment, half-copied, damaged: "file is not a database",
// "database disk image is malformed") gets an error and tries again later; it never repairs the file. Rows
// whose documentUUID is not text or whose timestamp is not an integer are skipped.
//
// A row also carries `deletedByUser` in memory (true when this device's user deleted the document); it is
// not stored.
#pragma once

#include "foundation/NBError.h"
#include "foundation/NBTimestamp.h"

#include <QHash>
#include <QString>
#include <QVariantMap>

#include <memory>
#include <optional>
#include <vector>

namespace SQLite {
class Database;
}

inline constexpr const char* kNBManifestDatabaseFileName = "manifest.db";
inline constexpr int kNBManifestSchemaVersion = 1;

struct NBManifestRow {
    QString documentUUID;
    NBTimestamp timestamp = 0;
    bool deleted = false;
    bool deletedByUser = false;

    // {"documentUUID", "timestamp", "deleted"}
    QVariantMap dictionaryRepresentation() const;
    static std::optional<NBManifestRow> rowWithDictionaryRepresentation(const QVariantMap& dictionary);
};

class NBManifestDatabase {
public:
    // Opens (creating when missing) the local manifest for writing. Error codes: 10 (cannot open or
    // create), 20 (a newer schema version).
    static std::unique_ptr<NBManifestDatabase> openDatabaseAtPath(const QString& path, NBError* outError);
    // Reads every row of a manifest read-only, creating nothing. Error code 10 with SQLite's message.
    static std::optional<std::vector<NBManifestRow>> rowsOfDatabaseAtPath(const QString& path,
                                                                          NBError* outError);

    ~NBManifestDatabase();
    NBManifestDatabase(const NBManifestDatabase&) = delete;
    NBManifestDatabase& operator=(const NBManifestDatabase&) = delete;

    const QString& path() const { return path_; }
    std::optional<std::vector<NBManifestRow>> allRows(NBError* outError);
    // Writes the rows (inserting or updating by documentUUID) in one transaction.
    bool saveRows(const std::vector<NBManifestRow>& rows, NBError* outError);

private:
    NBManifestDatabase() = default;
    QString path_;
    std::unique_ptr<SQLite::Database> database_;
    QHash<QString, qint64> rowIDsByUUID_;
};
