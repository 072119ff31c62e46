// Device information: reading and writing the dictionary, and this machine's own values on Linux.
#include "library/NBDevice.h"

#include "foundation/NBPropertyList.h"

#include <QCoreApplication>
#include <QFile>
#include <QSysInfo>
#include <QVersionNumber>

namespace {

QString stringValue(const QVariantMap& dictionary, const char* key) {
    const QVariant value = dictionary.value(QString::fromUtf8(key));
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

} // namespace

std::optional<NBDevice> NBDevice::deviceInfoWithDictionaryRepresentation(const QVariantMap& dictionary) {
    NBDevice device;
    device.deviceIdentifier = stringValue(dictionary, "DeviceIdentifier");
    if (device.deviceIdentifier.isEmpty())
        return std::nullopt;
    device.creationDate = dictionary.value(QStringLiteral("CreationDate")).toDateTime();
    device.accessDate = dictionary.value(QStringLiteral("AccessDate")).toDateTime();
    device.libraryOwner = stringValue(dictionary, "LibraryOwner");
    device.platform = stringValue(dictionary, "Platform");
    device.quillonVersion = stringValue(dictionary, "QuillonVersion");
    for (const QVariant& address : dictionary.value(QStringLiteral("EmailAddresses")).toList())
        if (address.typeId() == QMetaType::QString)
            device.emailAddresses << address.toString();
    device.deviceName = stringValue(dictionary, "DeviceName");
    device.deviceModel = stringValue(dictionary, "DeviceModel");
    device.systemVersion = stringValue(dictionary, "SystemVersion");
    const QVariant version = dictionary.value(QStringLiteral("AppKitVersion"));
    if (version.typeId() == QMetaType::Double || version.typeId() == QMetaType::LongLong)
        device.appKitVersion = version.toDouble();
    return device;
}

std::optional<NBDevice> NBDevice::deviceInfoWithContentsOfFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const std::optional<QVariant> value = propertyListWithData(file.readAll());
    if (!value || value->typeId() != QMetaType::QVariantMap)
        return std::nullopt;
    return deviceInfoWithDictionaryRepresentation(value->toMap());
}

QVariantMap NBDevice::dictionaryRepresentation() const {
    QVariantMap dictionary{
        {QStringLiteral("DeviceIdentifier"), deviceIdentifier},
        {QStringLiteral("LibraryOwner"), libraryOwner},
        {QStringLiteral("Platform"), platform},
        {QStringLiteral("QuillonVersion"), quillonVersion},
        {QStringLiteral("DeviceName"), deviceName},
        {QStringLiteral("DeviceModel"), deviceModel},
        {QStringLiteral("SystemVersion"), systemVersion},
        {QStringLiteral("AppKitVersion"), appKitVersion},
    };
    if (creationDate.isValid())
        dictionary.insert(QStringLiteral("CreationDate"), creationDate);
    if (accessDate.isValid())
        dictionary.insert(QStringLiteral("AccessDate"), accessDate);
    if (!emailAddresses.isEmpty())
        dictionary.insert(QStringLiteral("EmailAddresses"), QVariant(emailAddresses).toList());
    return dictionary;
}

QString NBDevice::currentPlatform() {
    return QStringLiteral("Linux");
}

QString NBDevice::currentDeviceName() {
    return QSysInfo::machineHostName();
}

QString NBDevice::currentDeviceModel() {
    // The kernel exposes the firmware's DMI tables here; virtual machines and some boards leave the name out,
    // and machines without DMI (many ARM boards) have no file at all.
    QFile file(QStringLiteral("/sys/class/dmi/id/product_name"));
    if (file.open(QIODevice::ReadOnly)) {
        const QString model = QString::fromUtf8(file.readAll()).trimmed();
        if (!model.isEmpty())
            return model;
    }
    return QStringLiteral("Unknown");
}

QString NBDevice::currentSystemVersion() {
    return QSysInfo::prettyProductName();
}

double NBDevice::currentToolkitVersion() {
    const QVersionNumber version = QVersionNumber::fromString(QString::fromUtf8(qVersion()));
    return QStringLiteral("%1.%2").arg(version.majorVersion()).arg(version.minorVersion()).toDouble();
}

QString NBDevice::currentQuillonVersion() {
    return QCoreApplication::applicationVersion();
}
