// NBBuiltInProtocols: where the built-in protocols are (see the header).
#include "interchange/NBBuiltInProtocols.h"

#include <QDir>

QString NBBuiltInProtocols::resourcesDirectory() {
    return QStringLiteral(":/quillon");
}

QStringList NBBuiltInProtocols::protocolFilePaths() {
    const QDir folder(resourcesDirectory() + QStringLiteral("/BuiltInProtocols"));
    QStringList paths;
    for (const QString& name : folder.entryList({QStringLiteral("*.mdown")}, QDir::Files, QDir::Name))
        paths.append(folder.filePath(name));
    return paths;
}
