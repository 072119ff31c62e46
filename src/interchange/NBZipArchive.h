// NBZipReader and NBZipWriter: zip files (Word documents, archives of document packages, .eln files) read
// and written through libzip, with the checks that keep a hostile archive from doing harm.
//
// Reading. open() reads the central directory (libzip's consistency check on) and refuses, naming the file,
// an archive that:
//   - is not a zip file or is damaged (a bad directory, or later a bad checksum or a short entry);
//   - has an entry whose name would leave the folder it is extracted into: an absolute path ("/x", "\x",
//     "C:x"), a ".." component, a backslash, an empty component, or a control character;
//   - has a symbolic link (Unix mode in the entry's attributes), or two entries of the same name (compared
//     without case, as some file systems do);
//   - has more than kMaximumEntryCount entries, declares more than kMaximumTotalSize bytes unpacked, or
//     unpacks to more than kMaximumRatio times its own size once that is over kRatioFloor (a zip bomb).
// Entries are then read or extracted with their declared size as a hard limit: an entry that unpacks to
// more than it declared is damaged, and reading stops there. extract() writes only below the given folder.
//
// Writing. A writer collects entries (files on disk, streamed when the archive is closed, or bytes) and
// commit() writes the archive under a temporary name beside the target and renames it into place, so a
// failed export leaves no partial file. Images and other compressed formats are stored, the rest deflated.
#pragma once

#include "foundation/NBError.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <optional>

// Error codes of the "NBZipReader" and "NBZipWriter" domains.
inline constexpr qint64 kNBZipErrorOpen = 10;
inline constexpr qint64 kNBZipErrorUnsafeEntry = 20;
inline constexpr qint64 kNBZipErrorTooLarge = 30;
inline constexpr qint64 kNBZipErrorDamaged = 40;
inline constexpr qint64 kNBZipErrorMissingEntry = 50;
inline constexpr qint64 kNBZipErrorWrite = 60;

struct zip;

class NBZipReader {
public:
    static constexpr qint64 kMaximumEntryCount = 100'000;
    static constexpr qint64 kMaximumTotalSize = 16LL * 1024 * 1024 * 1024;
    static constexpr qint64 kMaximumRatio = 200;
    static constexpr qint64 kRatioFloor = 256LL * 1024 * 1024;

    struct Entry {
        QString name;
        qint64 size = 0;
        qint64 compressedSize = 0;
        bool isDirectory = false;
        quint64 index = 0;
    };

    static std::unique_ptr<NBZipReader> open(const QString& path, NBError* outError = nullptr);
    ~NBZipReader();
    NBZipReader(const NBZipReader&) = delete;
    NBZipReader& operator=(const NBZipReader&) = delete;

    const QString& path() const { return path_; }
    const QList<Entry>& entries() const { return entries_; }
    // The entry of that name, or nothing.
    std::optional<Entry> entryNamed(const QString& name) const;
    // An entry's bytes; refused when it declares more than `maximumSize`.
    std::optional<QByteArray> readEntry(const QString& name, qint64 maximumSize, NBError* outError = nullptr);
    // Writes an entry to `filePath` (created or replaced).
    bool extractEntry(const Entry& entry, const QString& filePath, NBError* outError = nullptr);
    // Extracts every entry whose name starts with `prefix` below `folder`, keeping the names' folders.
    bool extract(const QString& prefix, const QString& folder, NBError* outError = nullptr);

    // True when the name is relative and stays inside the folder it is extracted into.
    static bool isSafeEntryName(const QString& name);

private:
    NBZipReader(QString path, zip* archive);
    bool check(qint64 fileSize, NBError* outError);
    NBError error(qint64 code, const QString& message) const;

    QString path_;
    zip* archive_ = nullptr;
    QList<Entry> entries_;
};

class NBZipWriter {
public:
    explicit NBZipWriter(QString path);
    ~NBZipWriter();
    NBZipWriter(const NBZipWriter&) = delete;
    NBZipWriter& operator=(const NBZipWriter&) = delete;

    // Entry names use "/" and must be safe (NBZipReader::isSafeEntryName); a name ending in "/" is a folder.
    bool addFile(const QString& name, const QString& filePath, NBError* outError = nullptr);
    bool addData(const QString& name, const QByteArray& data, NBError* outError = nullptr);
    bool addDirectory(const QString& name, NBError* outError = nullptr);
    // Writes the archive and moves it into place.
    bool commit(NBError* outError = nullptr);

private:
    bool begin(NBError* outError);
    NBError error(const QString& message) const;

    QString path_;
    QString temporaryPath_;
    zip* archive_ = nullptr;
    QList<QByteArray> buffers_;
};
