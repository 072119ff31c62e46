// One change reported by folder observation, and the flags that say what kind of change it was.
//
// An event names a folder (or the observed file itself) in which something changed since the previous
// event for that folder; observers rescan what they watch below it rather than expect one event per file.
// Identifiers increase over the life of the process, so a later event always has a larger identifier.
// The flags are a union of the kinds of change seen in the folder during one coalescing window.
#pragma once

#include <QDateTime>
#include <QString>

#include <cstdint>

// Flags of an NBFileSystemEvent. Observers in this system only learn that something changed; the flags are
// there for diagnostics and for callers that want to skip, say, pure attribute changes.
enum NBFileSystemEventFlag : std::uint32_t {
    kNBFileSystemEventFlagNone = 0,
    // Changes were lost (the kernel's event queue overflowed): rescan everything below the path.
    kNBFileSystemEventFlagMustScanSubDirectories = 1u << 0,
    kNBFileSystemEventFlagKernelDropped = 1u << 1,
    // The observed path itself was removed, renamed or replaced.
    kNBFileSystemEventFlagRootChanged = 1u << 2,
    // The file system holding the path was unmounted.
    kNBFileSystemEventFlagUnmount = 1u << 3,
    kNBFileSystemEventFlagItemCreated = 1u << 8,
    kNBFileSystemEventFlagItemRemoved = 1u << 9,
    kNBFileSystemEventFlagItemInodeMetaModified = 1u << 10,
    kNBFileSystemEventFlagItemRenamed = 1u << 11,
    kNBFileSystemEventFlagItemModified = 1u << 12,
    kNBFileSystemEventFlagItemIsFile = 1u << 16,
    kNBFileSystemEventFlagItemIsDirectory = 1u << 17,
    // The change was found by comparing snapshots (polling) rather than reported by the kernel.
    kNBFileSystemEventFlagPolled = 1u << 24,
};

class NBFileSystemEvent {
public:
    NBFileSystemEvent() = default;
    NBFileSystemEvent(const QString& path, const QDateTime& date, std::uint64_t identifier,
                      std::uint32_t flags);
    static NBFileSystemEvent fileEventWithPath(const QString& path, const QDateTime& date,
                                               std::uint64_t identifier, std::uint32_t flags);

    // The folder (or observed file) that changed, as an absolute path without "." or ".." parts and without a
    // trailing separator.
    const QString& path() const { return path_; }
    // When the event was handed to observers, not when the change happened.
    const QDateTime& date() const { return date_; }
    std::uint64_t identifier() const { return identifier_; }
    std::uint32_t flags() const { return flags_; }

    // "<NBFileSystemEvent:0x...>\npath: ...\ndate: ...\nidentifier: ...\nflags: ..."
    QString description() const;

    // Names of the set flags, joined by "|" ("ItemCreated|ItemIsFile"), for descriptions and test messages.
    static QString descriptionOfFlags(std::uint32_t flags);

private:
    QString path_;
    QDateTime date_;
    std::uint64_t identifier_ = 0;
    std::uint32_t flags_ = 0;
};
