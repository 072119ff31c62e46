// OAKStoreLog: one device's append-only log database inside a store package, and the package layout.
//
// ON-DISK FORMAT (this file owns it; it is the user's data)
//
// Package. A store is a folder (the package), normally named "<uuid>.nbexperiment" or similar:
//
//     <package>/
//         devices/                       one folder per device that ever wrote to the store
//             <device identifier>/
//                 logs.db                that device's log (SQLite 3)
//                 logs.db-journal        SQLite's rollback journal, empty between transactions
//                 logs.db-old            left only by an interrupted merge: the previous log
//         blobs/                         attachments, addressed by relative paths; shared by all devices
//
// A device identifier is a non-empty folder name without "/" that is neither "." nor "..". The identifier
// "<local>|<other>" is made by a merge for the entries of a device whose history could not be trusted.
// Every device writes only into its own folder (and into "blobs"); every other device folder is read-only
// to it, so a file-synchronisation service never sees two writers of one file.
//
// Log database. One table and three indexes:
//
//     CREATE TABLE Log (blob BLOB, key TEXT, timestamp INTEGER, parentTimestamp INTEGER);
//     CREATE INDEX Log_key ON Log (key);
//     CREATE INDEX Log_timestamp ON Log (timestamp);
//     CREATE INDEX Log_parentTimestamp ON Log (parentTimestamp);
//
// - `blob`: the value, a binary property list ("bplist00").
// - `key`: the key the value was set for.
// - `timestamp`: when it was set: microseconds since 2001-01-01 00:00:00 UTC on the writing device's clock.
// - `parentTimestamp`: the timestamp of the key's previous value as the writing device knew it, or NULL.
//
// Rows are only ever inserted: never updated, never deleted. The current value of a key is the value of the
// row with the largest timestamp for that key over all device logs; rows with equal timestamps are not
// ordered further. The journal mode is TRUNCATE (the journal file stays, empty, between transactions) and
// the writer commits with SQLite's default synchronous setting (FULL), so a save that returned is on disk.
//
// Schema version. `PRAGMA user_version` holds the version of this layout, kOAKLogSchemaVersion (1). A new
// log is created with it; a log of version 0 that already holds a well-formed Log table is accepted (and,
// when it is the local log, stamped with 1). A log whose version is newer than the code knows is never
// written to and never read: its layout may mean something else.
//
// Readers. Logs of other devices are opened read-only (SQLITE_OPEN_READONLY: nothing is created beside them,
// not even a journal) with a busy timeout, and read in short transactions of at most
// kOAKLogFetchBatchSize rows, so that a writer in another process is never held up for long. A file-
// synchronisation service may deliver a log half-copied, truncated or replaced by something else: a log
// that is missing, locked, not a database, damaged, without a well-formed Log table or of a newer version
// is reported with an error that names its path and is left out of this read; the rows read before a
// failure are genuine and are kept, and the log is read again in full from where its last complete read
// stopped at the next sync. A log replaced as a whole (another file under the same name, or the same file
// rewritten so that its newest row read before is gone or moved) is read again from the start, since the
// new file may hold rows older than what was read from the old one. Nothing ever writes into a foreign
// device's folder, not even to repair it.
#pragma once

#include "foundation/NBError.h"
#include "foundation/NBTimestamp.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

inline constexpr const char* OAKDevicesDirectoryName = "devices";
inline constexpr const char* OAKDatabaseFileName = "logs.db";
inline constexpr const char* OAKBlobsDirectoryName = "blobs";
inline constexpr int kOAKLogSchemaVersion = 1;
inline constexpr int kOAKLogFetchBatchSize = 1000;

// One row of a log. `rowid` is SQLite's row identifier (stable while the file is not replaced).
struct OAKLogRow {
    qint64 rowid = 0;
    NBTimestamp timestamp = 0;
    std::optional<NBTimestamp> parentTimestamp;
    std::optional<QString> key;
    std::optional<QByteArray> blob;

    // "{timestamp: 1, parentTimestamp: 0, key: k, blob: 12 bytes}", for messages.
    QString description() const;
};

// Which file a log was opened from: a file put in its place under the same name (a file-synchronisation
// service delivering a new copy by a rename) has another identity.
struct OAKLogFileIdentity {
    quint64 device = 0;
    quint64 inode = 0;
    bool exists = false;
    bool operator==(const OAKLogFileIdentity&) const = default;
    static OAKLogFileIdentity ofFileAtPath(const QString& path);
};

// Where a newest-first read stopped: the next batch continues below this (timestamp, rowid).
struct OAKLogCursor {
    std::optional<NBTimestamp> lowerBound; // rows with timestamp > lowerBound; none: every row
    std::optional<std::pair<NBTimestamp, qint64>> after;
    bool finished = false;
};

class OAKStoreLog {
public:
    enum class Mode { ReadWrite, ReadOnly };

    ~OAKStoreLog();
    OAKStoreLog(const OAKStoreLog&) = delete;
    OAKStoreLog& operator=(const OAKStoreLog&) = delete;

    // Opens (ReadWrite: creating the file and its schema when missing) the log at `path`. Fails with an
    // error naming the path for a directory in place of the file, a missing file in read-only mode, a file
    // that is not a log, and a log of a newer schema version.
    static std::unique_ptr<OAKStoreLog> open(const QString& path, Mode mode, NBError* outError);

    const QString& path() const { return path_; }
    bool isReadOnly() const { return mode_ == Mode::ReadOnly; }
    // The file that was opened, and whether the file at path() is no longer that one (replaced or removed).
    const OAKLogFileIdentity& fileIdentity() const;
    bool fileWasReplaced() const;

    // Writing (ReadWrite only). Rows go into an open transaction that save() commits.
    bool insertRow(NBTimestamp timestamp, std::optional<NBTimestamp> parentTimestamp,
                   const std::optional<QString>& key, const std::optional<QByteArray>& blob,
                   NBError* outError);
    bool hasUncommittedRows() const { return inTransaction_; }
    bool save(NBError* outError);

    // Reading. The next batch (at most `limit` rows) newest first, with keys and timestamps; a row carries
    // its blob only when `wantsBlob` accepts its key (SQLite reads the blob with the row anyway, since the
    // key follows it in the record, so taking it here costs only the copy). An empty result with
    // cursor.finished set means the read is complete.
    bool fetchNewestBatch(OAKLogCursor& cursor, int limit, std::vector<OAKLogRow>& rows, NBError* outError,
                          const std::function<bool(const QString& key)>& wantsBlob = {});
    // The newest row (timestamp and rowid only), if any.
    std::optional<OAKLogRow> newestRow(NBError* outError);
    std::optional<QByteArray> blobForRowid(qint64 rowid, NBError* outError);
    // The timestamp of the row `rowid`, if there is one (an error leaves *outError set).
    std::optional<NBTimestamp> timestampForRowid(qint64 rowid, NBError* outError);
    // Every row with timestamp > lowerBound (none: all rows), with all columns, in ascending timestamp order.
    bool fetchAscending(std::optional<NBTimestamp> lowerBound, std::vector<OAKLogRow>& rows,
                        NBError* outError);
    // Every row of the given keys, with all columns, newest first (timestamp, then rowid, descending).
    bool fetchRowsForKeys(const QStringList& keys, std::vector<OAKLogRow>& rows, NBError* outError);
    // The newest row for `key` with timestamp <= maximum (none: any), with all columns.
    bool fetchNewestRowForKey(const QString& key, std::optional<NBTimestamp> maximum,
                              std::optional<OAKLogRow>& row, NBError* outError);

private:
    OAKStoreLog();
    struct Private;
    std::unique_ptr<Private> d;
    QString path_;
    Mode mode_ = Mode::ReadOnly;
    bool inTransaction_ = false;
};
