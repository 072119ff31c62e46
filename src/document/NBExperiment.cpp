// NBExperiment and NBProtocol: the two kinds of documents, their metadata keys and creation (see
// NBExperiment.h and NBProtocol.h). Inserting a protocol into an experiment is NBProtocolInsertion.cpp.
#include "document/NBExperiment.h"

#include "document/NBProtocol.h"

// MARK: - NBExperiment

QStringList NBExperiment::validMetadataKeysForSubclass() {
    return {QString::fromUtf8(kNBExperimentAimKey),
            QString::fromUtf8(kNBExperimentConclusionKey),
            QString::fromUtf8(kNBExperimentProjectUUIDKey),
            QString::fromUtf8(kNBExperimentProjectTitleKey),
            QString::fromUtf8(kNBExperimentRatingKey),
            QString::fromUtf8(kNBExperimentDoneKey),
            QString::fromUtf8(kNBExperimentDoneParagraphUUIDsKey),
            QString::fromUtf8(kNBExperimentVignetteUUIDKey),
            QString::fromUtf8(kNBExperimentParentsKey),
            QString::fromUtf8(kNBExperimentChildrenKey),
            QString::fromUtf8(kNBExperimentConnectionsKey)};
}

std::shared_ptr<NBExperiment> NBExperiment::newExperimentInFolder(const QString& folderPath,
                                                                  const QString& deviceIdentifier,
                                                                  const QString& title, NBError* outError) {
    return newDocumentInFolder<NBExperiment>(folderPath, deviceIdentifier, title,
                                             kNBExperimentPackageExtension, outError);
}

std::shared_ptr<NBExperiment> NBExperiment::inMemoryExperiment() {
    auto experiment = std::make_shared<NBExperiment>();
    experiment->loadNow();
    experiment->assignNewUUID();
    return experiment;
}

std::optional<qint64> NBExperiment::rating() const {
    const QVariant value = propertyListValueForKey(QString::fromUtf8(kNBExperimentRatingKey));
    switch (value.metaType().id()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return value.toLongLong();
    default:
        return std::nullopt;
    }
}

bool NBExperiment::done() const {
    const QVariant value = propertyListValueForKey(QString::fromUtf8(kNBExperimentDoneKey));
    return value.metaType().id() == QMetaType::Bool && value.toBool();
}

bool NBExperiment::isParagraphDone(const QString& paragraphUUID) const {
    return doneParagraphUUIDs().contains(paragraphUUID);
}

void NBExperiment::setParagraphDone(const QString& paragraphUUID, bool done) {
    if (paragraphUUID.isEmpty())
        return;
    // Read and write in one transaction, so that two threads marking steps never lose one of the marks.
    runTransaction([&] {
        const QString key = QString::fromUtf8(kNBExperimentDoneParagraphUUIDsKey);
        QStringList uuids = stringListFromVariant(memory_.value(key));
        const bool wasDone = uuids.contains(paragraphUUID);
        if (wasDone == done)
            return;
        if (done)
            uuids.append(paragraphUUID);
        else
            uuids.removeAll(paragraphUUID);
        setPropertyListValue(variantListFromStringList(uuids), key);
    });
}

// MARK: - NBProtocol

QStringList NBProtocol::validMetadataKeysForSubclass() {
    return {QString::fromUtf8(kNBProtocolSummaryKey), QString::fromUtf8(kNBProtocolCategoriesKey)};
}

std::shared_ptr<NBProtocol> NBProtocol::newProtocolInFolder(const QString& folderPath,
                                                            const QString& deviceIdentifier,
                                                            const QString& title, NBError* outError) {
    return newDocumentInFolder<NBProtocol>(folderPath, deviceIdentifier, title, kNBProtocolPackageExtension,
                                           outError);
}

std::shared_ptr<NBProtocol> NBProtocol::inMemoryProtocol() {
    auto protocol = std::make_shared<NBProtocol>();
    protocol->loadNow();
    protocol->assignNewUUID();
    return protocol;
}
