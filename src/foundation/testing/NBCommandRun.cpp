// Running programs and snapshotting folders for black-box tests.
#include "foundation/testing/NBCommandRun.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

std::string NBCommandRun::describe() const {
    return QStringLiteral("exit %1\nstdout: %2\nstderr: %3").arg(exitCode).arg(out, err).toStdString();
}

NBCommandRun nbRunCommand(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments);
    const bool finished = process.waitForFinished(60000);
    if (!finished)
        process.kill();
    return {finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()).trimmed(),
            QString::fromUtf8(process.readAllStandardError()).trimmed()};
}

QMap<QString, QByteArray> nbTreeSnapshot(const QString& root) {
    QMap<QString, QByteArray> snapshot;
    QDirIterator iterator(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                          QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        const QString path = iterator.next();
        const QFileInfo info(path);
        QByteArray hash = QByteArrayLiteral("dir");
        if (!info.isDir()) {
            QFile file(path);
            hash = file.open(QIODevice::ReadOnly)
                       ? QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex()
                       : QByteArrayLiteral("unreadable");
        }
        snapshot.insert(QDir(root).relativeFilePath(path), hash);
    }
    return snapshot;
}
