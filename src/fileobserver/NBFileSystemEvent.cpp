// The reported change of folder observation and its description.
#include "fileobserver/NBFileSystemEvent.h"

#include "foundation/NBLogging.h"

#include <QDir>
#include <QStringList>

#include <utility>

NBFileSystemEvent::NBFileSystemEvent(const QString& path, const QDateTime& date, std::uint64_t identifier,
                                     std::uint32_t flags)
    : path_(path.isEmpty() ? path : QDir::cleanPath(path)), date_(date), identifier_(identifier),
      flags_(flags) {}

NBFileSystemEvent NBFileSystemEvent::fileEventWithPath(const QString& path, const QDateTime& date,
                                                       std::uint64_t identifier, std::uint32_t flags) {
    return NBFileSystemEvent(path, date, identifier, flags);
}

QString NBFileSystemEvent::description() const {
    QString address = QStringLiteral("0x%1").arg(reinterpret_cast<quintptr>(this), 0, 16);
    return nbFormat("<%@:%@>\npath: %@\ndate: %@\nidentifier: %@\nflags: %@", "NBFileSystemEvent", address,
                    path_, date_.toString(Qt::ISODateWithMs), QString::number(identifier_),
                    QStringLiteral("%1 (%2)").arg(flags_).arg(descriptionOfFlags(flags_)));
}

QString NBFileSystemEvent::descriptionOfFlags(std::uint32_t flags) {
    static const std::pair<std::uint32_t, const char*> names[] = {
        {kNBFileSystemEventFlagMustScanSubDirectories, "MustScanSubDirectories"},
        {kNBFileSystemEventFlagKernelDropped, "KernelDropped"},
        {kNBFileSystemEventFlagRootChanged, "RootChanged"},
        {kNBFileSystemEventFlagUnmount, "Unmount"},
        {kNBFileSystemEventFlagItemCreated, "ItemCreated"},
        {kNBFileSystemEventFlagItemRemoved, "ItemRemoved"},
        {kNBFileSystemEventFlagItemInodeMetaModified, "ItemInodeMetaModified"},
        {kNBFileSystemEventFlagItemRenamed, "ItemRenamed"},
        {kNBFileSystemEventFlagItemModified, "ItemModified"},
        {kNBFileSystemEventFlagItemIsFile, "ItemIsFile"},
        {kNBFileSystemEventFlagItemIsDirectory, "ItemIsDirectory"},
        {kNBFileSystemEventFlagPolled, "Polled"},
    };
    QStringList parts;
    for (const auto& [flag, name] : names)
        if (flags & flag)
            parts << QString::fromLatin1(name);
    return parts.isEmpty() ? QStringLiteral("None") : parts.join(QLatin1Char('|'));
}
