// NBZipReader and NBZipWriter: checked zip reading and atomic zip writing over libzip (see the header).
#include "interchange/NBZipArchive.h"

#include "foundation/NBLogging.h"
#include "interchange/NBDocumentContent.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QUuid>

#include <cstdio>

#include <zip.h>

namespace {

QString libzipMessage(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    const QString message = QString::fromUtf8(zip_error_strerror(&error));
    zip_error_fini(&error);
    return message;
}

QString libzipMessage(zip_t* archive) {
    return QString::fromUtf8(zip_error_strerror(zip_get_error(archive)));
}

bool isAlreadyCompressed(const QString& name) {
    static const QSet<QString> suffixes = {"png",  "jpg",  "jpeg", "gif", "webp", "zip", "gz",   "bz2",
                                           "xz",   "7z",   "mp4",  "mov", "mp3",  "m4a", "pdf",  "docx",
                                           "xlsx", "pptx", "odt",  "ods", "eln",  "tif", "tiff", "heic"};
    return suffixes.contains(QFileInfo(name).suffix().toLower());
}

} // namespace

// MARK: - Reading

NBZipReader::NBZipReader(QString path, zip* archive) : path_(std::move(path)), archive_(archive) {}

NBZipReader::~NBZipReader() {
    if (archive_)
        zip_discard(archive_);
}

NBError NBZipReader::error(qint64 code, const QString& message) const {
    qCWarning(lcInterchange).noquote() << message;
    return NBError::errorWithObject("NBZipReader", code, message);
}

std::unique_ptr<NBZipReader> NBZipReader::open(const QString& path, NBError* outError) {
    const QFileInfo info(path);
    int code = 0;
    zip_t* archive = info.isFile()
                         ? zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY | ZIP_CHECKCONS, &code)
                         : nullptr;
    if (!archive) {
        const QString message = info.isFile() ? nbFormat("The file %@ is not a readable zip archive: %@",
                                                         path, libzipMessage(code))
                                              : nbFormat("The archive %@ does not exist", path);
        qCWarning(lcInterchange).noquote() << message;
        nbFail(outError, NBError::errorWithObject("NBZipReader", kNBZipErrorOpen, message));
        return nullptr;
    }
    std::unique_ptr<NBZipReader> reader(new NBZipReader(path, archive));
    if (!reader->check(info.size(), outError))
        return nullptr;
    return reader;
}

bool NBZipReader::isSafeEntryName(const QString& name) {
    QString path = name;
    if (path.endsWith(u'/'))
        path.chop(1);
    if (path.isEmpty() || path.startsWith(u'/') || path.contains(u'\\') ||
        (path.size() >= 2 && path[1] == u':'))
        return false;
    for (QChar character : path)
        if (character.unicode() < 0x20 || character.unicode() == 0x7F)
            return false;
    for (const QString& component : path.split(u'/'))
        if (component.isEmpty() || component == QLatin1String("..") || component == QLatin1String("."))
            return false;
    return true;
}

bool NBZipReader::check(qint64 fileSize, NBError* outError) {
    const zip_int64_t count = zip_get_num_entries(archive_, 0);
    if (count < 0 || count > kMaximumEntryCount)
        return nbFail(outError,
                      error(kNBZipErrorTooLarge, nbFormat("The archive %@ holds too many entries (%@)", path_,
                                                          QString::number(count))));
    qint64 total = 0;
    QSet<QString> names;
    for (zip_int64_t index = 0; index < count; ++index) {
        zip_stat_t stat;
        zip_stat_init(&stat);
        if (zip_stat_index(archive_, zip_uint64_t(index), 0, &stat) != 0 || !(stat.valid & ZIP_STAT_NAME))
            return nbFail(outError, error(kNBZipErrorDamaged, nbFormat("The archive %@ is damaged: %@", path_,
                                                                       libzipMessage(archive_))));
        Entry entry;
        entry.name = QString::fromUtf8(stat.name);
        entry.index = zip_uint64_t(index);
        entry.isDirectory = entry.name.endsWith(u'/');
        entry.size = (stat.valid & ZIP_STAT_SIZE) ? qint64(stat.size) : 0;
        entry.compressedSize = (stat.valid & ZIP_STAT_COMP_SIZE) ? qint64(stat.comp_size) : 0;
        if (!isSafeEntryName(entry.name))
            return nbFail(
                outError,
                error(kNBZipErrorUnsafeEntry,
                      nbFormat("The archive %@ holds an entry whose name leads out of the folder it "
                               "would be unpacked into: '%@'",
                               path_, entry.name)));
        zip_uint8_t system = 0;
        zip_uint32_t attributes = 0;
        if (zip_file_get_external_attributes(archive_, zip_uint64_t(index), 0, &system, &attributes) == 0 &&
            system == ZIP_OPSYS_UNIX && ((attributes >> 16) & 0170000) == 0120000)
            return nbFail(outError,
                          error(kNBZipErrorUnsafeEntry,
                                nbFormat("The archive %@ holds a symbolic link: '%@'", path_, entry.name)));
        QString key = entry.name.toLower();
        if (key.endsWith(u'/'))
            key.chop(1);
        if (names.contains(key))
            return nbFail(outError,
                          error(kNBZipErrorUnsafeEntry,
                                nbFormat("The archive %@ holds two entries named '%@'", path_, entry.name)));
        names.insert(key);
        total += entry.size;
        if (entry.size < 0 || total > kMaximumTotalSize)
            return nbFail(outError, error(kNBZipErrorTooLarge,
                                          nbFormat("The archive %@ would unpack to more than %@ GB", path_,
                                                   QString::number(kMaximumTotalSize >> 30))));
        entries_.append(entry);
    }
    if (total > kRatioFloor && total / std::max<qint64>(fileSize, 1) > kMaximumRatio)
        return nbFail(outError,
                      error(kNBZipErrorTooLarge,
                            nbFormat("The archive %@ would unpack to %@ times its own size, which only "
                                     "damaged or malicious archives do",
                                     path_, QString::number(total / std::max<qint64>(fileSize, 1)))));
    return true;
}

std::optional<NBZipReader::Entry> NBZipReader::entryNamed(const QString& name) const {
    for (const Entry& entry : entries_)
        if (entry.name == name)
            return entry;
    return std::nullopt;
}

namespace {

// Streams an entry to `write`, holding it to its declared size.
template <typename Write>
bool readEntryData(zip_t* archive, const NBZipReader::Entry& entry, Write write, QString* outProblem) {
    zip_file_t* file = zip_fopen_index(archive, entry.index, 0);
    if (!file) {
        *outProblem = libzipMessage(archive);
        return false;
    }
    QByteArray buffer(64 * 1024, Qt::Uninitialized);
    qint64 total = 0;
    bool ok = true;
    for (;;) {
        const zip_int64_t read = zip_fread(file, buffer.data(), zip_uint64_t(buffer.size()));
        if (read < 0) {
            *outProblem = QString::fromUtf8(zip_error_strerror(zip_file_get_error(file)));
            ok = false;
            break;
        }
        if (read == 0)
            break;
        total += read;
        if (total > entry.size) {
            *outProblem = QStringLiteral("the entry is longer than it says");
            ok = false;
            break;
        }
        if (!write(buffer.constData(), read)) {
            *outProblem = QStringLiteral("it could not be written");
            ok = false;
            break;
        }
    }
    zip_fclose(file);
    if (ok && total != entry.size) {
        *outProblem = QStringLiteral("the entry is shorter than it says");
        ok = false;
    }
    return ok;
}

} // namespace

std::optional<QByteArray> NBZipReader::readEntry(const QString& name, qint64 maximumSize, NBError* outError) {
    const std::optional<Entry> entry = entryNamed(name);
    if (!entry) {
        nbFail(outError,
               error(kNBZipErrorMissingEntry, nbFormat("The archive %@ has no entry '%@'", path_, name)));
        return std::nullopt;
    }
    if (entry->size > maximumSize) {
        nbFail(outError,
               error(kNBZipErrorTooLarge, nbFormat("The entry '%@' of the archive %@ is too large (%@ bytes)",
                                                   name, path_, QString::number(entry->size))));
        return std::nullopt;
    }
    QByteArray data;
    data.reserve(entry->size);
    QString problem;
    if (!readEntryData(
            archive_, *entry,
            [&](const char* bytes, qint64 length) {
                data.append(bytes, length);
                return true;
            },
            &problem)) {
        nbFail(outError, error(kNBZipErrorDamaged, nbFormat("The entry '%@' of the archive %@ is damaged: %@",
                                                            name, path_, problem)));
        return std::nullopt;
    }
    return data;
}

bool NBZipReader::extractEntry(const Entry& entry, const QString& filePath, NBError* outError) {
    QFile file(filePath);
    if (!QDir().mkpath(QFileInfo(filePath).absolutePath()) ||
        !file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return nbFail(outError,
                      error(kNBZipErrorWrite,
                            nbFormat("Could not create %@ to unpack the archive %@", filePath, path_)));
    QString problem;
    const bool ok = readEntryData(
        archive_, entry,
        [&](const char* bytes, qint64 length) { return file.write(bytes, length) == length; }, &problem);
    file.close();
    if (!ok) {
        QFile::remove(filePath);
        return nbFail(outError,
                      error(kNBZipErrorDamaged, nbFormat("The entry '%@' of the archive %@ is damaged: %@",
                                                         entry.name, path_, problem)));
    }
    return true;
}

bool NBZipReader::extract(const QString& prefix, const QString& folder, NBError* outError) {
    const QString root = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    for (const Entry& entry : std::as_const(entries_)) {
        if (!entry.name.startsWith(prefix))
            continue;
        const QString relative = entry.name.mid(prefix.size());
        if (relative.isEmpty())
            continue;
        const QString target = QDir::cleanPath(root + QLatin1Char('/') + relative);
        if (!target.startsWith(root + QLatin1Char('/')))
            return nbFail(
                outError,
                error(kNBZipErrorUnsafeEntry,
                      nbFormat("The archive %@ holds an entry whose name leads out of the folder it "
                               "would be unpacked into: '%@'",
                               path_, entry.name)));
        if (entry.isDirectory) {
            if (!QDir().mkpath(target))
                return nbFail(outError,
                              error(kNBZipErrorWrite, nbFormat("Could not create the folder %@", target)));
            continue;
        }
        if (!extractEntry(entry, target, outError))
            return false;
    }
    return true;
}

// MARK: - Writing

NBZipWriter::NBZipWriter(QString path) : path_(std::move(path)) {}

NBZipWriter::~NBZipWriter() {
    if (archive_) {
        zip_discard(archive_);
        QFile::remove(temporaryPath_);
    }
}

NBError NBZipWriter::error(const QString& message) const {
    qCWarning(lcInterchange).noquote() << message;
    return NBError::errorWithObject("NBZipWriter", kNBZipErrorWrite, message);
}

bool NBZipWriter::begin(NBError* outError) {
    if (archive_)
        return true;
    const QFileInfo info(path_);
    temporaryPath_ =
        info.absoluteDir().filePath(QStringLiteral(".") + info.fileName() + QStringLiteral(".") +
                                    QUuid::createUuid().toString(QUuid::WithoutBraces) + ".part");
    int code = 0;
    archive_ = zip_open(QFile::encodeName(temporaryPath_).constData(), ZIP_CREATE | ZIP_TRUNCATE, &code);
    if (!archive_)
        return nbFail(outError,
                      error(nbFormat("Could not create the archive %@: %@", path_, libzipMessage(code))));
    return true;
}

bool NBZipWriter::addFile(const QString& name, const QString& filePath, NBError* outError) {
    if (!begin(outError))
        return false;
    zip_source_t* source = zip_source_file(archive_, QFile::encodeName(filePath).constData(), 0, -1);
    const zip_int64_t index =
        source ? zip_file_add(archive_, name.toUtf8().constData(), source, ZIP_FL_ENC_UTF_8) : -1;
    if (index < 0) {
        if (source)
            zip_source_free(source);
        return nbFail(outError, error(nbFormat("Could not add %@ to the archive %@: %@", filePath, path_,
                                               libzipMessage(archive_))));
    }
    zip_file_set_external_attributes(archive_, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                     zip_uint32_t(0100644) << 16);
    if (isAlreadyCompressed(name))
        zip_set_file_compression(archive_, zip_uint64_t(index), ZIP_CM_STORE, 0);
    return true;
}

bool NBZipWriter::addData(const QString& name, const QByteArray& data, NBError* outError) {
    if (!begin(outError))
        return false;
    buffers_.append(data);
    const QByteArray& kept = buffers_.last();
    zip_source_t* source = zip_source_buffer(archive_, kept.constData(), zip_uint64_t(kept.size()), 0);
    const zip_int64_t index =
        source ? zip_file_add(archive_, name.toUtf8().constData(), source, ZIP_FL_ENC_UTF_8) : -1;
    if (index < 0) {
        if (source)
            zip_source_free(source);
        return nbFail(outError, error(nbFormat("Could not add '%@' to the archive %@: %@", name, path_,
                                               libzipMessage(archive_))));
    }
    zip_file_set_external_attributes(archive_, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                     zip_uint32_t(0100644) << 16);
    if (isAlreadyCompressed(name))
        zip_set_file_compression(archive_, zip_uint64_t(index), ZIP_CM_STORE, 0);
    return true;
}

bool NBZipWriter::addDirectory(const QString& name, NBError* outError) {
    if (!begin(outError))
        return false;
    QString directory = name;
    if (directory.endsWith(u'/'))
        directory.chop(1);
    if (zip_dir_add(archive_, directory.toUtf8().constData(), ZIP_FL_ENC_UTF_8) < 0)
        return nbFail(outError, error(nbFormat("Could not add the folder '%@' to the archive %@: %@", name,
                                               path_, libzipMessage(archive_))));
    return true;
}

bool NBZipWriter::commit(NBError* outError) {
    if (!begin(outError))
        return false;
    const bool empty = zip_get_num_entries(archive_, 0) == 0;
    if (zip_close(archive_) != 0) {
        const QString message = libzipMessage(archive_);
        zip_discard(archive_);
        archive_ = nullptr;
        QFile::remove(temporaryPath_);
        return nbFail(outError, error(nbFormat("Could not write the archive %@: %@", path_, message)));
    }
    archive_ = nullptr;
    buffers_.clear();
    if (empty) {
        // libzip writes no file for an archive without entries; an empty archive is its end record alone.
        QFile file(temporaryPath_);
        if (!file.open(QIODevice::WriteOnly) ||
            file.write(QByteArray("PK\x05\x06", 4) + QByteArray(18, '\0')) != 22)
            return nbFail(outError, error(nbFormat("Could not write the archive %@", path_)));
    }
    if (std::rename(QFile::encodeName(temporaryPath_).constData(), QFile::encodeName(path_).constData()) !=
        0) {
        QFile::remove(temporaryPath_);
        return nbFail(outError, error(nbFormat("Could not move the archive into place at %@", path_)));
    }
    return true;
}
