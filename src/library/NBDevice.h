// NBDevice: what one device of a bucket says about itself, the in-memory form of its device information file.
//
// DEVICE INFORMATION FILE (this file owns the format): "<bucket>/Info/<device identifier>.plist", an XML
// property-list dictionary written only by that device, whole and atomically (a temporary file renamed over
// the old one), each time the library starts or its owner changes:
//   "CreationDate"    date of the first write (kept when present)
//   "AccessDate"      date of this write
//   "DeviceIdentifier" string, the library's device identifier on that machine, or ""
//   "LibraryOwner"    string, the library owner's name, or ""
//   "Platform"        string, the operating system's family: "Linux" on this platform ("Mac" from others)
//   "QuillonVersion"  string, the program's version, or ""
//   "EmailAddresses"  array of strings, the owner's addresses; present only when there is at least one
//   "DeviceName"      string, the computer's host name, or ""
//   "DeviceModel"     string, the hardware model: here the DMI product name of the machine
//                     (/sys/class/dmi/id/product_name), "Unknown" when the system does not tell it
//   "SystemVersion"   string, the operating system's name and version, or ""
//   "AppKitVersion"   real, the version of the user-interface toolkit: here Qt's major.minor (6.4)
// A reader takes what it finds: a missing or mistyped key reads as empty (0 for the version); a file that is
// not a dictionary, or has no device identifier, is not a device (a half-copied file is read again at the
// next change of the "Info" folder).
#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <optional>

class NBDevice {
public:
    // Nothing when the dictionary has no non-empty "DeviceIdentifier".
    static std::optional<NBDevice> deviceInfoWithDictionaryRepresentation(const QVariantMap& dictionary);
    // Reads a device information file; nothing when it is missing or damaged.
    static std::optional<NBDevice> deviceInfoWithContentsOfFile(const QString& path);

    QDateTime creationDate;
    QDateTime accessDate;
    QString deviceIdentifier;
    QString libraryOwner;
    QString platform;
    QString quillonVersion;
    QStringList emailAddresses;
    QString deviceName;
    QString deviceModel;
    QString systemVersion;
    double appKitVersion = 0;

    QVariantMap dictionaryRepresentation() const;

    // This machine's values.
    static QString currentPlatform();
    static QString currentDeviceName();
    static QString currentDeviceModel();
    static QString currentSystemVersion();
    static double currentToolkitVersion();
    static QString currentQuillonVersion();
};
