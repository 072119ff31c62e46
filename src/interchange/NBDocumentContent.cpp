// NBDocumentContent: moving a document's content between the converters and documents (see the header).
#include "interchange/NBDocumentContent.h"

#include "document/NBDocument.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/NBLogging.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

Q_LOGGING_CATEGORY(lcInterchange, "quillon.interchange")

QString nbDocumentKindName(NBDocumentKind kind) {
    return kind == NBDocumentKind::Protocol ? QStringLiteral("protocol") : QStringLiteral("experiment");
}

std::optional<NBDocumentKind> nbDocumentKindWithName(QStringView name) {
    const QString word = name.trimmed().toString().toLower();
    if (word == QLatin1String("experiment"))
        return NBDocumentKind::Experiment;
    if (word == QLatin1String("protocol"))
        return NBDocumentKind::Protocol;
    return std::nullopt;
}

QString nbSafeFileName(const QString& text, const QString& fallback) {
    QString name;
    for (QChar character : text) {
        const char16_t code = character.unicode();
        if (code < 0x20 || code == 0x7F || QStringView(u"/\\\\:*?\"<>|").contains(character))
            name += u'-';
        else
            name += character;
    }
    name = name.simplified();
    while (name.startsWith(u'.') || name.startsWith(u'-'))
        name.remove(0, 1);
    while (name.endsWith(u'.') || name.endsWith(u' '))
        name.chop(1);
    if (name.size() > 120) {
        name.truncate(120);
        if (name.back().isHighSurrogate())
            name.chop(1);
    }
    return name.isEmpty() ? fallback : name;
}

QString nbUniqueFileName(QSet<QString>& usedNames, const QString& name) {
    const QString safe = nbSafeFileName(name, QStringLiteral("file"));
    QString candidate = safe;
    const QFileInfo info(safe);
    const QString base = info.completeBaseName().isEmpty() ? safe : info.completeBaseName();
    const QString suffix = info.completeBaseName().isEmpty() || info.suffix().isEmpty()
                               ? QString()
                               : QLatin1Char('.') + info.suffix();
    for (int number = 2; usedNames.contains(candidate.toLower()); ++number)
        candidate = base + QLatin1Char(' ') + QString::number(number) + suffix;
    usedNames.insert(candidate.toLower());
    return candidate;
}

QString NBDocumentContent::uuid() const {
    return metadata.value(QString::fromUtf8(kNBDocumentUUIDKey)).toString();
}

QString NBDocumentContent::title() const {
    return metadata.value(QString::fromUtf8(kNBDocumentTitleKey)).toString();
}

QString NBDocumentContent::author() const {
    return metadata.value(QString::fromUtf8(kNBDocumentAuthorKey)).toString();
}

void NBDocumentContent::assignNewUUID() {
    metadata.insert(QString::fromUtf8(kNBDocumentUUIDKey), NBParagraph::newUUIDString());
}

NBDocumentContent NBDocumentContent::contentOfDocument(const NBDocument& document) {
    NBDocumentContent content;
    content.kind = document.isProtocol() ? NBDocumentKind::Protocol : NBDocumentKind::Experiment;
    content.kindIsKnown = document.isProtocol() || document.isExperiment();
    content.metadata = document.metadata();
    content.paragraphs = document.paragraphs();
    NBParagraph::updateNumberedListCountersForParagraphs(content.paragraphs);
    for (const NBParagraph& paragraph : std::as_const(content.paragraphs)) {
        if (!paragraph.isAttachmentType())
            continue;
        const std::optional<QString> path = document.absolutePathOfAttachmentForParagraph(paragraph);
        if (path && QFileInfo(*path).isFile())
            content.attachmentFiles.insert(paragraph.uuid(), *path);
    }
    return content;
}

bool NBDocumentContent::fillDocument(NBDocument& document, NBError* outError) const {
    QVariantMap values;
    for (auto entry = metadata.cbegin(); entry != metadata.cend(); ++entry) {
        if (document.isValidMetadataKey(entry.key()) && !entry.value().isNull())
            values.insert(entry.key(), entry.value());
    }
    const QString uuidKey = QString::fromUtf8(kNBDocumentUUIDKey);
    if (values.value(uuidKey).toString().isEmpty())
        values.remove(uuidKey);
    document.runTransaction([&] {
        if (!values.isEmpty())
            document.modifyMetadata(values);
        document.insertParagraphs(paragraphs, QString());
    });
    for (const NBParagraph& paragraph : paragraphs) {
        if (!paragraph.isAttachmentType() || !attachmentFiles.contains(paragraph.uuid()))
            continue;
        const QString source = attachmentFiles.value(paragraph.uuid());
        const std::optional<QString> blobPath = NBDocument::blobPathForParagraph(paragraph);
        NBError error;
        if (!blobPath || !document.writeBlobFromPath(source, *blobPath, &error)) {
            const QString message =
                nbFormat("Could not copy the attachment '%@' into the document: %@", source,
                         blobPath ? error.localizedDescription() : QStringLiteral("it has no file name"));
            qCWarning(lcInterchange).noquote() << message;
            return nbFail(outError, NBError::errorWithObject("NBDocumentContent",
                                                             kNBDocumentContentErrorAttachment, message));
        }
    }
    return true;
}

std::shared_ptr<NBDocument> NBDocumentContent::inMemoryDocument(NBError* outError) const {
    std::shared_ptr<NBDocument> document;
    if (kind == NBDocumentKind::Protocol)
        document = NBProtocol::inMemoryProtocol();
    else
        document = NBExperiment::inMemoryExperiment();
    if (!fillDocument(*document, outError)) {
        document->tearDownNow();
        return nullptr;
    }
    return document;
}

QString NBDocumentContent::writePackageInFolder(const QString& folderPath, const QString& deviceIdentifier,
                                                NBError* outError) const {
    const auto fail = [&](qint64 code, const QString& message) {
        qCWarning(lcInterchange).noquote() << message;
        nbFail(outError, NBError::errorWithObject("NBDocumentContent", code, message));
        return QString();
    };
    const QString documentUUID = uuid().isEmpty() ? NBParagraph::newUUIDString() : uuid();
    const QString extension = QString::fromUtf8(
        kind == NBDocumentKind::Protocol ? kNBProtocolPackageExtension : kNBExperimentPackageExtension);
    const QString folder = QDir::cleanPath(QFileInfo(folderPath).absoluteFilePath());
    const QString name = documentUUID + QLatin1Char('.') + extension;
    const QString finalPath = folder + QLatin1Char('/') + name;
    if (QFileInfo::exists(finalPath))
        return fail(kNBDocumentContentErrorExists,
                    nbFormat("A document with the UUID %@ is already at path %@", documentUUID, finalPath));
    if (!QDir().mkpath(folder))
        return fail(kNBDocumentContentErrorPackage,
                    nbFormat("Could not create the folder %@ for an imported document", folder));
    // The hidden name keeps file-sync services and the library's folder observation away from the package
    // until it is complete.
    const QString stagingPath =
        folder + QStringLiteral("/.") + name + QLatin1Char('.') + NBParagraph::newUUIDString() + ".importing";
    std::shared_ptr<NBDocument> document;
    if (kind == NBDocumentKind::Protocol)
        document = std::make_shared<NBProtocol>(QUrl::fromLocalFile(stagingPath), deviceIdentifier);
    else
        document = std::make_shared<NBExperiment>(QUrl::fromLocalFile(stagingPath), deviceIdentifier);
    NBError error;
    bool written = document->prepareFilePackageWithError(&error);
    if (written) {
        document->loadNow();
        written = document->loaded();
        if (!written)
            error =
                NBError::errorWithObject("NBDocumentContent", kNBDocumentContentErrorPackage,
                                         nbFormat("Could not load the new package at path %@", stagingPath));
    }
    if (written) {
        NBDocumentContent withUUID = *this;
        withUUID.metadata.insert(QString::fromUtf8(kNBDocumentUUIDKey), documentUUID);
        written = withUUID.fillDocument(*document, &error) && document->saveNow(&error);
    }
    document->tearDownNow();
    document.reset();
    if (written && !QDir().rename(stagingPath, finalPath)) {
        error = NBError::errorWithObject(
            "NBDocumentContent", kNBDocumentContentErrorPackage,
            nbFormat("Could not move the new package into place at path %@", finalPath));
        written = false;
    }
    if (!written) {
        QDir(stagingPath).removeRecursively();
        return fail(error.code() == kNBDocumentContentErrorAttachment ? error.code()
                                                                      : kNBDocumentContentErrorPackage,
                    nbFormat("Could not write the document '%@' to %@: %@", title(), finalPath,
                             error.localizedDescription()));
    }
    return finalPath;
}
