// The library lock: an exclusive flock() on "PersistentInfo/Library.lock", with the holder's description.
#include "library/NBLibraryLock.h"

#include "foundation/NBLogging.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QSysInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

QString lockPath(const QString& directory) {
    return QDir(directory).filePath(QString::fromUtf8(kNBLibraryLockFileName));
}

// "quillon library init", or the program's file name.
QString programDescription() {
    if (!QCoreApplication::instance())
        return QStringLiteral("a program");
    QStringList arguments = QCoreApplication::arguments();
    if (arguments.isEmpty())
        return QCoreApplication::applicationName();
    QStringList words{QFileInfo(arguments.takeFirst()).fileName()};
    for (const QString& argument : arguments) {
        if (argument.startsWith(QLatin1Char('-')) || words.size() >= 3)
            break;
        words << argument;
    }
    return words.join(QLatin1Char(' '));
}

// "program (process 123 on host, since 2026-01-01T10:00:00Z)" from the file's lines.
QString holderFromText(const QString& text) {
    QMap<QString, QString> fields;
    for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const qsizetype colon = line.indexOf(QLatin1String(": "));
        if (colon > 0)
            fields.insert(line.left(colon), line.mid(colon + 2));
    }
    if (fields.value(QStringLiteral("program")).isEmpty())
        return QStringLiteral("another program");
    return QStringLiteral("%1 (process %2 on %3, since %4)")
        .arg(fields.value(QStringLiteral("program")), fields.value(QStringLiteral("process")),
             fields.value(QStringLiteral("host")), fields.value(QStringLiteral("since")));
}

NBError fileSystemError(const QString& path, int errorNumber) {
    return NBError::errorWithObject("NBLibraryLock", errorNumber,
                                    nbFormat("Could not open the library lock at path '%@': %@", path,
                                             QString::fromLocal8Bit(std::strerror(errorNumber))));
}

} // namespace

std::unique_ptr<NBLibraryLock> NBLibraryLock::lockDirectory(const QString& persistentInfoDirectory,
                                                            const QString& libraryRootPath,
                                                            NBError* outError) {
    const QString path = lockPath(persistentInfoDirectory);
    const QByteArray encoded = QFile::encodeName(path);
    const int fileDescriptor = ::open(encoded.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fileDescriptor < 0) {
        nbFail(outError, fileSystemError(path, errno));
        return nullptr;
    }
    if (::flock(fileDescriptor, LOCK_EX | LOCK_NB) != 0) {
        const int errorNumber = errno;
        ::close(fileDescriptor);
        if (errorNumber != EWOULDBLOCK) {
            nbFail(outError, fileSystemError(path, errorNumber));
            return nullptr;
        }
        QString holder = holderOfDirectory(persistentInfoDirectory);
        if (holder.isEmpty())
            holder = QStringLiteral("another program");
        nbFail(outError,
               NBError::errorWithObject(
                   "NBLibraryManager", 90,
                   nbFormat("The library at path %@ is open in another program: %@", libraryRootPath, holder),
                   QString(),
                   QStringLiteral("Close the library in that program, or wait until it has finished."),
                   nullptr));
        return nullptr;
    }
    const QString text =
        QStringLiteral("program: %1\nprocess: %2\nhost: %3\nsince: %4\n")
            .arg(programDescription(), QString::number(QCoreApplication::applicationPid()),
                 QSysInfo::machineHostName(), QDateTime::currentDateTimeUtc().toString(Qt::ISODate));
    const QByteArray bytes = text.toUtf8();
    // The description is only informative: a failure to write it leaves the lock held all the same.
    if (::ftruncate(fileDescriptor, 0) == 0) [[maybe_unused]]
        const ssize_t written = ::pwrite(fileDescriptor, bytes.constData(), size_t(bytes.size()), 0);
    return std::unique_ptr<NBLibraryLock>(new NBLibraryLock(fileDescriptor));
}

QString NBLibraryLock::holderOfDirectory(const QString& persistentInfoDirectory) {
    const QString path = lockPath(persistentInfoDirectory);
    const int fileDescriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fileDescriptor < 0)
        return QString();
    QString holder;
    // A shared lock that cannot be had means some process holds the exclusive one.
    if (::flock(fileDescriptor, LOCK_SH | LOCK_NB) != 0) {
        QByteArray bytes(4096, '\0');
        const ssize_t count = ::pread(fileDescriptor, bytes.data(), size_t(bytes.size()), 0);
        holder = holderFromText(count > 0 ? QString::fromUtf8(bytes.left(count)) : QString());
    } else {
        ::flock(fileDescriptor, LOCK_UN);
    }
    ::close(fileDescriptor);
    return holder;
}

NBLibraryLock::~NBLibraryLock() {
    if (fileDescriptor_ >= 0) {
        ::flock(fileDescriptor_, LOCK_UN);
        ::close(fileDescriptor_);
    }
}
