// The local file keeper: a folder may be used when it exists and can be listed, read and written.
#include "library/NBFileKeeper.h"

#include <QFileInfo>

#include <unistd.h>

bool NBLocalFileKeeper::startAccessingDirectoryAtPath(const QString& path, const QString&, const QString&) {
    return directoryIsUsable(path);
}

bool NBLocalFileKeeper::directoryIsUsable(const QString& path) {
    if (path.isEmpty() || !QFileInfo(path).isDir())
        return false;
    // access() asks the kernel with this process's real credentials, which is what a later open will meet
    // (QFileInfo's permission bits ignore access-control lists and read-only mounts).
    return ::access(QFile::encodeName(path).constData(), R_OK | W_OK | X_OK) == 0;
}
