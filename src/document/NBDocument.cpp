// NBDocument: paragraphs, days, metadata, attachments and changes of a document kept as a store (see
// NBDocument.h for the stored form).
#include "document/NBDocument.h"

#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/NBLogging.h"
#include "foundation/NBPropertyList.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUuid>

#include <map>
#include <mutex>

Q_LOGGING_CATEGORY(lcDocument, "quillon.document")

namespace {

const QString& layoutKey() {
    static const QString key = QString::fromUtf8(kNBDocumentLayoutKey);
    return key;
}

struct MetadataKeys {
    QStringList list;
    QSet<QString> set;
};

// Kind name -> gathered keys. A std::map keeps its entries in place, so references handed out stay valid.
std::mutex& metadataKeysMutex() {
    static std::mutex mutex;
    return mutex;
}
std::map<QString, MetadataKeys>& metadataKeysTable() {
    static std::map<QString, MetadataKeys> table;
    return table;
}

const MetadataKeys& collectValidMetadataKeys(const QString& kindName, const QList<QStringList>& chain) {
    std::lock_guard lock(metadataKeysMutex());
    auto found = metadataKeysTable().find(kindName);
    if (found != metadataKeysTable().end())
        return found->second;
    MetadataKeys keys;
    for (const QStringList& list : chain) {
        for (const QString& key : list) {
            if (!keys.set.contains(key)) {
                keys.set.insert(key);
                keys.list.append(key);
            }
        }
    }
    return metadataKeysTable().emplace(kindName, std::move(keys)).first->second;
}

QString valueText(const QVariant& value) {
    if (value.metaType().id() == QMetaType::QString)
        return value.toString();
    return propertyListDescription(value);
}

} // namespace

// MARK: - Creation

NBDocument::NBDocument(const QUrl& url, const QString& deviceIdentifier, const OAKStoreOptions& options)
    : OAKStore(url, deviceIdentifier, options) {}

NBDocument::NBDocument() : OAKStore() {}

NBDocument::~NBDocument() {
    if (!temporaryDirectoryPath_.isEmpty())
        QDir(temporaryDirectoryPath_).removeRecursively();
}

std::shared_ptr<NBDocument> NBDocument::openDocumentAtPath(const QString& path,
                                                           const QString& deviceIdentifier,
                                                           const OAKStoreOptions& options,
                                                           NBError* outError) {
    const QString absolutePath = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    if (!QFileInfo(absolutePath).isDir()) {
        const QString message = nbFormat("No document package at path %@", absolutePath);
        nbFail(outError, NBError::errorWithObject("NBDocument", kNBDocumentErrorNoPackage, message));
        return nullptr;
    }
    const QUrl url = QUrl::fromLocalFile(absolutePath);
    const QString extension = QFileInfo(absolutePath).suffix();
    std::shared_ptr<NBDocument> document;
    if (extension == QLatin1String(kNBExperimentPackageExtension))
        document = std::make_shared<NBExperiment>(url, deviceIdentifier, options);
    else if (extension == QLatin1String(kNBProtocolPackageExtension))
        document = std::make_shared<NBProtocol>(url, deviceIdentifier, options);
    else
        document = std::make_shared<NBDocument>(url, deviceIdentifier, options);
    document->loadNow();
    if (!document->loaded()) {
        const QString message = nbFormat("Could not load the document at path %@", absolutePath);
        nbFail(outError, NBError::errorWithObject("NBDocument", kNBDocumentErrorNoPackage, message));
        document->tearDownNow();
        return nullptr;
    }
    return document;
}

void NBDocument::assignNewUUID() {
    setUuid(NBParagraph::newUUIDString());
}

QString NBDocument::packagePathForNewDocument(const QString& folderPath, const QString& deviceIdentifier,
                                              const QString& uuid, const char* extension, NBError* outError) {
    QString message;
    const QString folder = QDir::cleanPath(QFileInfo(folderPath).absoluteFilePath());
    const QString path = folder + QLatin1Char('/') + uuid + QLatin1Char('.') + QString::fromUtf8(extension);
    if (!isValidDeviceIdentifier(deviceIdentifier))
        message =
            nbFormat("Cannot create a document with the invalid device identifier '%@'", deviceIdentifier);
    else if (!QDir().mkpath(folder) || !QFileInfo(folder).isDir())
        message = nbFormat("Could not create the folder for a new document at path %@", folder);
    else if (QFileInfo::exists(path))
        message = nbFormat("Cannot create a new document at path %@: something is already there", path);
    if (message.isEmpty())
        return path;
    qCWarning(lcDocument).noquote() << message;
    nbFail(outError, NBError::errorWithObject("NBDocument", kNBDocumentErrorCreatePackage, message));
    return QString();
}

bool NBDocument::setUpNewPackage(const QString& uuid, const QString& title, NBError* outError) {
    NBError error;
    if (!prepareFilePackageWithError(&error)) {
        const QString message = nbFormat("Could not create the document package at path %@: %@", storePath(),
                                         error.description());
        qCWarning(lcDocument).noquote() << message;
        return nbFail(outError, NBError::errorWithObject(className().toStdString(),
                                                         kNBDocumentErrorCreatePackage, message));
    }
    loadNow();
    if (!loaded()) {
        const QString message = nbFormat("Could not load the new document at path %@", storePath());
        qCWarning(lcDocument).noquote() << message;
        return nbFail(outError, NBError::errorWithObject(className().toStdString(),
                                                         kNBDocumentErrorCreatePackage, message));
    }
    QVariantMap metadata = {{QString::fromUtf8(kNBDocumentUUIDKey), uuid}};
    if (!title.isNull())
        metadata.insert(QString::fromUtf8(kNBDocumentTitleKey), title);
    modifyMetadata(metadata);
    return saveNow(outError);
}

// MARK: - Metadata

QStringList NBDocument::validMetadataKeysForSubclass() {
    return {QString::fromUtf8(kNBDocumentUUIDKey), QString::fromUtf8(kNBDocumentTitleKey),
            QString::fromUtf8(kNBDocumentAuthorKey)};
}

const QStringList& NBDocument::validMetadataKeys() const {
    return collectValidMetadataKeys(className(), validMetadataKeyChain()).list;
}

bool NBDocument::isValidMetadataKey(const QString& key) const {
    return collectValidMetadataKeys(className(), validMetadataKeyChain()).set.contains(key);
}

QHash<QString, QStringList> NBDocument::validMetadataKeysForSubclassTable() {
    std::lock_guard lock(metadataKeysMutex());
    QHash<QString, QStringList> table;
    for (const auto& [kind, keys] : metadataKeysTable())
        table.insert(kind, keys.list);
    return table;
}

QVariantMap NBDocument::metadata() const {
    const QStringList& keys = validMetadataKeys();
    QVariantMap metadata;
    memoryQueue_->dispatchSynchronously([&] {
        for (const QString& key : keys) {
            const auto found = memory_.constFind(key);
            if (found != memory_.constEnd())
                metadata.insert(key, found.value());
        }
    });
    return metadata;
}

void NBDocument::modifyMetadata(const QVariantMap& metadata) {
    QVariantMap valid;
    for (auto entry = metadata.begin(); entry != metadata.end(); ++entry) {
        if (!entry.value().isValid())
            continue;
        if (isValidMetadataKey(entry.key()))
            valid.insert(entry.key(), entry.value());
        else
            qCWarning(lcDocument).noquote() << nbFormat(
                "Ignoring invalid metadata key '%@' for document at path %@", entry.key(), storePath());
    }
    setEntriesFromDictionary(valid);
}

QVariant NBDocument::metadataValueForKey(const QString& key) const {
    return isValidMetadataKey(key) ? propertyListValueForKey(key) : QVariant();
}

void NBDocument::setMetadataValue(const QVariant& value, const QString& key) {
    modifyMetadata({{key, value}});
}

QString NBDocument::stringMetadata(const char* key) const {
    const QVariant value = propertyListValueForKey(QString::fromUtf8(key));
    return value.metaType().id() == QMetaType::QString ? value.toString() : QString();
}

QStringList NBDocument::stringListMetadata(const char* key) const {
    return stringListFromVariant(propertyListValueForKey(QString::fromUtf8(key)));
}

QStringList NBDocument::stringListFromVariant(const QVariant& value, bool* outValid) {
    QStringList list;
    bool valid = value.metaType().id() == QMetaType::QVariantList;
    if (valid) {
        const QVariantList items = value.toList();
        list.reserve(items.size());
        for (const QVariant& item : items) {
            if (item.metaType().id() != QMetaType::QString) {
                valid = false;
                continue;
            }
            list.append(item.toString());
        }
    } else if (value.metaType().id() == QMetaType::QStringList) {
        list = value.toStringList();
        valid = true;
    }
    if (outValid)
        *outValid = valid;
    return list;
}

QVariantList NBDocument::variantListFromStringList(const QStringList& list) {
    QVariantList items;
    items.reserve(list.size());
    for (const QString& item : list)
        items.append(item);
    return items;
}

// MARK: - Paragraphs

QStringList NBDocument::layoutFromMemory() const {
    return stringListFromVariant(memory_.value(layoutKey()));
}

QVariantList NBDocument::layoutValueFromMemory() const {
    const QVariant value = memory_.value(layoutKey());
    return value.metaType().id() == QMetaType::QVariantList ? value.toList() : QVariantList();
}

QVariantList NBDocument::takeLayoutForEdit(bool* outTaken) {
    *outTaken = false;
    if (isReadOnly())
        return layoutValueFromMemory();
    const auto found = memory_.find(layoutKey());
    if (found == memory_.end() || found.value().typeId() != QMetaType::QVariantList)
        return layoutValueFromMemory();
    QVariantList layout = std::move(*static_cast<QVariantList*>(found.value().data()));
    memory_.erase(found);
    *outTaken = true;
    return layout;
}

qsizetype NBDocument::indexOfUUID(const QVariantList& layout, const QString& uuid) {
    // Compares the strings in place (converting 10,000 QVariants to QString for one edit costs more than the
    // edit itself), and their first characters before the strings: UUIDs all have one length, so a plain
    // comparison calls into Qt for every entry, while the first character already rules out 15 in 16.
    const qsizetype length = uuid.size();
    const QChar first = length > 0 ? uuid.front() : QChar();
    for (qsizetype index = 0; index < layout.size(); ++index) {
        const QVariant& item = layout.at(index);
        if (item.typeId() != QMetaType::QString)
            continue;
        const QString& text = *static_cast<const QString*>(item.constData());
        if (text.size() == length && (length == 0 || text.front() == first) && text == uuid)
            return index;
    }
    return -1;
}

QList<NBParagraph> NBDocument::paragraphsFromMemory() const {
    const QStringList uuids = layoutFromMemory();
    QList<NBParagraph> paragraphs;
    paragraphs.reserve(uuids.size());
    for (const QString& uuid : uuids) {
        const auto found = memory_.constFind(uuid);
        if (found == memory_.constEnd() || found.value().metaType().id() != QMetaType::QVariantMap)
            continue;
        if (std::optional<NBParagraph> paragraph =
                NBParagraph::paragraphWithUUID(uuid, found.value().toMap()))
            paragraphs.append(std::move(*paragraph));
    }
    return paragraphs;
}

QStringList NBDocument::layout() const {
    QStringList layout;
    memoryQueue_->dispatchSynchronously([&] { layout = layoutFromMemory(); });
    return layout;
}

void NBDocument::setLayout(const QStringList& layout) {
    setPropertyListValue(variantListFromStringList(layout), layoutKey());
}

QList<NBParagraph> NBDocument::paragraphs() const {
    QList<NBParagraph> paragraphs;
    memoryQueue_->dispatchSynchronously([&] { paragraphs = paragraphsFromMemory(); });
    return paragraphs;
}

std::optional<NBParagraph> NBDocument::paragraphWithUUID(const QString& uuid) const {
    const QVariant info = propertyListValueForKey(uuid);
    if (uuid.isEmpty() || info.metaType().id() != QMetaType::QVariantMap)
        return std::nullopt;
    return NBParagraph::paragraphWithUUID(uuid, info.toMap());
}

void NBDocument::editInMemory(const std::function<void()>& block) {
    memoryQueue_->dispatchSynchronously(block);
}

void NBDocument::insertParagraphs(const QList<NBParagraph>& paragraphs, const QString& beforeParagraphUUID) {
    editInMemory([&] {
        bool taken = false;
        QVariantList layout = takeLayoutForEdit(&taken);
        // The index is that of the given paragraph before anything moves, and each paragraph goes there in
        // turn: a paragraph moved forward, from before the given one, thus lands after it, since taking it
        // out shifts the given one down by one (at most to the end).
        qsizetype index = beforeParagraphUUID.isEmpty() ? -1 : indexOfUUID(layout, beforeParagraphUUID);
        if (index < 0)
            index = layout.size();
        // A set of the layout's UUIDs pays off only for many paragraphs; one or a few are looked up in place.
        const bool many = paragraphs.size() > 8;
        QSet<QString> present;
        if (many) {
            const QStringList uuids = stringListFromVariant(layout);
            present = QSet<QString>(uuids.begin(), uuids.end());
        }
        QVariantMap values;
        for (const NBParagraph& paragraph : paragraphs) {
            const QString& uuid = paragraph.uuid();
            if (uuid.isEmpty()) {
                qCWarning(lcDocument).noquote()
                    << nbFormat("Cannot insert a paragraph without UUID in document at path %@", storePath());
                continue;
            }
            values.insert(uuid, paragraph.info());
            const qsizetype existing = !many || present.contains(uuid) ? indexOfUUID(layout, uuid) : -1;
            // A move: the UUID leaves its old place, so the layout never lists it twice.
            if (existing >= 0)
                layout.removeAt(existing);
            if (many)
                present.insert(uuid);
            index = std::min(index, layout.size());
            layout.insert(index++, uuid);
        }
        if (values.isEmpty()) {
            if (taken)
                memory_.insert(layoutKey(), layout); // nothing was inserted: the layout is as it was
            return;
        }
        values.insert(layoutKey(), std::move(layout));
        setEntriesFromDictionary(values);
    });
}

void NBDocument::insertParagraph(const NBParagraph& paragraph, const QString& beforeParagraphUUID) {
    insertParagraphs({paragraph}, beforeParagraphUUID);
}

void NBDocument::insertParagraphAfterParagraphWithUUID(const NBParagraph& paragraph,
                                                       const QString& afterParagraphUUID) {
    editInMemory([&] {
        const QVariantList layout = layoutValueFromMemory();
        const qsizetype index = indexOfUUID(layout, afterParagraphUUID);
        const QString before =
            index >= 0 && index + 1 < layout.size() ? layout.at(index + 1).toString() : QString();
        insertParagraphs({paragraph}, before);
    });
}

void NBDocument::appendParagraph(const NBParagraph& paragraph) {
    insertParagraphs({paragraph}, QString());
}

void NBDocument::modifyParagraph(const NBParagraph& paragraph) {
    if (paragraph.uuid().isEmpty())
        return;
    editInMemory([&] {
        if (indexOfUUID(layoutValueFromMemory(), paragraph.uuid()) >= 0)
            setPropertyListValue(paragraph.info(), paragraph.uuid());
    });
}

void NBDocument::removeParagraph(const NBParagraph& paragraph) {
    removeParagraphWithUUID(paragraph.uuid());
}

void NBDocument::removeParagraphWithUUID(const QString& uuid) {
    editInMemory([&] {
        bool taken = false;
        QVariantList layout = takeLayoutForEdit(&taken);
        bool removed = false;
        for (qsizetype index = indexOfUUID(layout, uuid); index >= 0; index = indexOfUUID(layout, uuid)) {
            layout.removeAt(index);
            removed = true;
        }
        if (removed)
            setPropertyListValue(std::move(layout), layoutKey());
        else if (taken)
            memory_.insert(layoutKey(), layout); // not listed: the layout is as it was
    });
}

void NBDocument::removeAllParagraphs() {
    setPropertyListValue(QVariantList(), layoutKey());
}

QList<NBParagraph> NBDocument::paragraphsWithType(const QString& type) const {
    QList<NBParagraph> found;
    for (const NBParagraph& paragraph : paragraphs()) {
        if (paragraph.type() == type)
            found.append(paragraph);
    }
    return found;
}

// MARK: - Days

QList<NBDay> NBDocument::days() const {
    QList<NBDay> days;
    for (const NBParagraph& paragraph : paragraphs()) {
        if (!paragraph.isDayType())
            continue;
        const NBDay day = paragraph.day();
        if (!day.isNull())
            days.append(day);
    }
    std::stable_sort(days.begin(), days.end(),
                     [](const NBDay& first, const NBDay& second) { return first.compare(second) < 0; });
    return days;
}

QList<NBParagraph> NBDocument::paragraphsForDay(const NBDay& day) const {
    const QList<NBParagraph> all = paragraphs();
    QList<NBParagraph> found;
    qsizetype index = 0;
    while (index < all.size() && !(all.at(index).isDayType() && all.at(index).day() == day))
        ++index;
    for (++index; index < all.size() && !all.at(index).isDayType(); ++index)
        found.append(all.at(index));
    updateNumberedListCountersForParagraphs(found);
    return found;
}

void NBDocument::appendParagraph(const NBParagraph& paragraph, const NBDay& day) {
    editInMemory([&] { appendParagraphToDayInMemory(paragraph, day); });
}

void NBDocument::appendParagraphToDayInMemory(const NBParagraph& paragraph, const NBDay& day) {
    // The readable paragraphs of the layout, with the days of day paragraphs; the others are not rebuilt,
    // so that placing a paragraph in a long document stays cheap.
    struct Entry {
        qsizetype layoutIndex;
        bool isDay;
        NBDay day;
    };
    const QVariantList layout = layoutValueFromMemory();
    const QString typeKey = QString::fromUtf8(kNBParagraphTypeKey);
    const QString dayRepKey = QString::fromUtf8(kNBParagraphDayRepKey);
    std::vector<Entry> entries;
    entries.reserve(std::size_t(layout.size()));
    for (qsizetype index = 0; index < layout.size(); ++index) {
        const auto found = memory_.constFind(layout.at(index).toString());
        if (found == memory_.constEnd() || found.value().metaType().id() != QMetaType::QVariantMap)
            continue;
        const QVariantMap info = found.value().toMap();
        const std::optional<NBParagraphKind> kind =
            NBParagraph::paragraphSubclassForType(info.value(typeKey).toString());
        if (!kind)
            continue;
        const bool isDay = *kind == NBParagraphKind::Day;
        entries.push_back(
            {index, isDay,
             isDay ? NBDay::dayWithStringRepresentation(info.value(dayRepKey).toString()) : NBDay()});
    }
    std::optional<std::size_t> kept;
    bool anyDay = false;
    for (std::size_t index = 0; index < entries.size(); ++index) {
        if (!entries[index].isDay)
            continue;
        anyDay = true;
        if (entries[index].day.compare(day) > 0)
            break;
        kept = index;
    }
    // No day yet: the day goes at the end, with the paragraph under it.
    if (!anyDay) {
        insertParagraphs({NBParagraph::dayParagraphWithDay(day), paragraph}, QString());
        return;
    }
    // Every day is later: the document begins with the new day and the paragraph.
    if (!kept) {
        insertParagraphs({NBParagraph::dayParagraphWithDay(day), paragraph},
                         layout.at(entries.front().layoutIndex).toString());
        return;
    }
    // The anchor is the last paragraph of the kept day as paragraphsForDay() gives it, that is, under the
    // first day paragraph of that day (a day can be listed twice after a merge), or the kept day paragraph
    // itself when that day holds nothing.
    std::size_t first = 0;
    while (!(entries[first].isDay && entries[first].day == entries[*kept].day))
        ++first;
    std::size_t end = first + 1;
    while (end < entries.size() && !entries[end].isDay)
        ++end;
    const qsizetype anchorIndex = entries[end == first + 1 ? *kept : end - 1].layoutIndex;
    const QString before =
        anchorIndex + 1 < layout.size() ? layout.at(anchorIndex + 1).toString() : QString();
    if (entries[*kept].day == day)
        insertParagraphs({paragraph}, before);
    else
        insertParagraphs({NBParagraph::dayParagraphWithDay(day), paragraph}, before);
}

void NBDocument::updateNumberedListCountersForParagraphs(QList<NBParagraph>& paragraphs) {
    NBParagraph::updateNumberedListCountersForParagraphs(paragraphs);
}

// MARK: - Outline

NBTreeNode::Pointer NBDocument::documentTree() const {
    return documentTreeWithParagraphs(paragraphs());
}

NBTreeNode::Pointer NBDocument::documentTreeWithParagraphs(const QList<NBParagraph>& paragraphs) {
    return NBParagraph::documentTreeWithParagraphs(paragraphs);
}

NBTreeNode::Pointer NBDocument::treeWithParentParagraph(qsizetype parentIndex,
                                                        const QList<NBParagraph>& allParagraphs) {
    return NBParagraph::treeWithParentParagraph(parentIndex, allParagraphs);
}

qsizetype NBDocument::descendentCountForTree(const NBTreeNode::Pointer& tree) {
    return NBParagraph::descendentCountForTree(tree);
}

// MARK: - Attachments

std::optional<QString> NBDocument::blobPathForParagraph(const NBParagraph& paragraph) {
    if (paragraph.uuid().isEmpty())
        return std::nullopt;
    const QString fileName = QFileInfo(paragraph.sourcePath()).fileName();
    if (fileName.isEmpty())
        return std::nullopt;
    return QString::fromUtf8(kNBDocumentAttachmentsDirectoryName) + QLatin1Char('/') + paragraph.uuid() +
           QLatin1Char('/') + fileName;
}

namespace {

bool documentFailure(const QString& domain, NBError* outError, qint64 code, const QString& message) {
    qCWarning(lcDocument).noquote() << message;
    return nbFail(outError, NBError::errorWithObject(domain.toStdString(), code, message));
}

} // namespace

std::optional<QString> NBDocument::attachmentBlobPath(const NBParagraph& paragraph, NBError* outError) const {
    if (paragraph.uuid().isEmpty()) {
        documentFailure(className(), outError, kNBDocumentErrorNilParagraph,
                        nbFormat("Cannot write attachment for nil paragraph the blob in document at path %@",
                                 storePath()));
        return std::nullopt;
    }
    std::optional<QString> blobPath = blobPathForParagraph(paragraph);
    if (!blobPath)
        documentFailure(
            className(), outError, kNBDocumentErrorNoBlobPath,
            nbFormat("Cannot determine the blob path for the attachment for paragraph %@, in document "
                     "at path %@",
                     paragraph.uuid(), storePath()));
    return blobPath;
}

bool NBDocument::writeAttachmentForParagraph(const NBParagraph& paragraph, NBError* outError) {
    const std::optional<QString> blobPath = attachmentBlobPath(paragraph, outError);
    if (!blobPath)
        return false;
    return writeBlobFromPath(paragraph.sourcePath(), *blobPath, outError);
}

bool NBDocument::writeAttachmentsForParagraphs(const QList<NBParagraph>& paragraphs, NBError* outError) {
    std::vector<NBError> errors;
    bool failed = false;
    for (const NBParagraph& paragraph : paragraphs) {
        NBError error;
        if (!writeAttachmentForParagraph(paragraph, &error)) {
            failed = true;
            if (!error.isNull())
                errors.push_back(error);
        }
    }
    if (!failed)
        return true;
    return nbFail(outError, errorForAttachmentErrors(std::move(errors)));
}

NBError NBDocument::errorForAttachmentErrors(std::vector<NBError> errors) const {
    if (errors.size() == 1)
        return errors.front();
    NBError error;
    if (errors.empty()) {
        documentFailure(
            className(), &error, kNBDocumentErrorUnknownAttachmentError,
            nbFormat("Unknown error while saving attachments for paragraphs in document at path %@",
                     storePath()));
        return error;
    }
    const QString message = nbFormat(
        "Multiple errors while saving attachments for paragraphs in document at path %@", storePath());
    qCWarning(lcDocument).noquote() << message;
    error = NBError::errorWithObject(className().toStdString(), kNBDocumentErrorMultipleAttachmentErrors,
                                     message);
    QStringList descriptions;
    for (const NBError& each : errors)
        descriptions.append(each.description());
    error.setUserInfoValue(QString::fromUtf8(kNBErrorArrayKey), descriptions);
    error.setErrors(std::move(errors));
    return error;
}

bool NBDocument::writeAttachmentData(const QByteArray& data, const NBParagraph& paragraph,
                                     NBError* outError) {
    const std::optional<QString> blobPath = attachmentBlobPath(paragraph, outError);
    if (!blobPath)
        return false;
    return writeBlobData(data, *blobPath, outError);
}

bool NBDocument::deleteAttachmentForParagraph(const NBParagraph& paragraph, NBError* outError) {
    const std::optional<QString> blobPath = attachmentBlobPath(paragraph, outError);
    if (!blobPath)
        return false;
    return deleteBlobAtPath(*blobPath, outError);
}

std::optional<QByteArray> NBDocument::attachmentDataForParagraph(const NBParagraph& paragraph,
                                                                 NBError* outError) const {
    const std::optional<QString> blobPath = attachmentBlobPath(paragraph, outError);
    if (!blobPath)
        return std::nullopt;
    return blobDataAtPath(*blobPath, outError);
}

std::optional<QString> NBDocument::absolutePathOfAttachmentForParagraph(const NBParagraph& paragraph,
                                                                        NBError* outError) const {
    const std::optional<QString> blobPath = attachmentBlobPath(paragraph, outError);
    if (!blobPath)
        return std::nullopt;
    if (!isInMemory()) {
        const QString path = absolutePathForBlobPath(*blobPath);
        if (!QFileInfo(path).isFile()) {
            documentFailure(className(), outError, kNBDocumentErrorNoBlobPath,
                            nbFormat("Could not read data blob at path '%@'", path));
            return std::nullopt;
        }
        return path;
    }
    // An in-memory document has no package: its attachment is copied to its temporary folder.
    const std::optional<QByteArray> data = blobDataAtPath(*blobPath, outError);
    if (!data || !ensureTemporaryDirectory(outError))
        return std::nullopt;
    const QString path = temporaryDirectoryPath_ + QLatin1Char('/') + *blobPath;
    QDir().mkpath(QFileInfo(path).path());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(*data) != data->size() || !file.commit()) {
        documentFailure(
            className(), outError, kNBDocumentErrorTemporaryFolder,
            nbFormat("Could not write the attachment of paragraph %@ to the temporary file at path %@",
                     paragraph.uuid(), path));
        return std::nullopt;
    }
    return path;
}

QString NBDocument::temporaryDirectoryPath() const {
    if (!isInMemory())
        return QString();
    ensureTemporaryDirectory(nullptr);
    return temporaryDirectoryPath_;
}

bool NBDocument::ensureTemporaryDirectory(NBError* outError) const {
    if (!temporaryDirectoryPath_.isEmpty())
        return true;
    const QString path = QDir::temp().filePath(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
    if (!QDir().mkpath(path))
        return documentFailure(className(), outError, kNBDocumentErrorTemporaryFolder,
                               nbFormat("Could not create the temporary folder at path %@", path));
    temporaryDirectoryPath_ = path;
    return true;
}

// MARK: - Sync

namespace {

bool isAfter(const OAKLogRow& row, const std::pair<NBTimestamp, qint64>& anchor) {
    return std::make_pair(row.timestamp, row.rowid) > anchor;
}

} // namespace

bool NBDocument::logLayoutStillHolds(const LogLayout& entry, OAKStoreLog& log) const {
    if (!(entry.file == log.fileIdentity()))
        return false;
    // A log rewritten in place under the same name no longer holds its rows where they were.
    for (const auto& row : {entry.anchor, entry.row}) {
        if (!row)
            continue;
        NBError error;
        if (log.timestampForRowid(row->second, &error) != row->first)
            return false;
    }
    return true;
}

void NBDocument::takeLayoutRow(LogLayout& entry, const OAKLogRow& row) const {
    entry.row.reset();
    entry.layout.reset();
    entry.generation = ++logLayoutGenerations_;
    // A row without a value gives this log no layout, as if it held none.
    if (!row.blob)
        return;
    entry.row = std::make_pair(row.timestamp, row.rowid);
    NBError error;
    const std::optional<QVariant> value = propertyListWithData(*row.blob, &error);
    // A layout with an item that is not a string (damaged, or written by another tool) still lists the
    // paragraphs of its string items, as layout() reads it; only a value that is no array gives nothing.
    if (value && (value->metaType().id() == QMetaType::QVariantList ||
                  value->metaType().id() == QMetaType::QStringList))
        entry.layout = stringListFromVariant(*value);
}

bool NBDocument::refreshLogLayout(const QString& deviceIdentifier, OAKStoreLog& log) const {
    auto found = logLayouts_.find(deviceIdentifier);
    if (found != logLayouts_.end() && !logLayoutStillHolds(found->second, log)) {
        logLayouts_.erase(found);
        found = logLayouts_.end();
    }
    NBError error;
    if (found == logLayouts_.end()) {
        // First read of this log: its newest row first, so that a row added meanwhile is read next time.
        LogLayout entry;
        entry.file = log.fileIdentity();
        const std::optional<OAKLogRow> newest = log.newestRow(&error);
        if (!error.isNull())
            return false;
        if (newest)
            entry.anchor = std::make_pair(newest->timestamp, newest->rowid);
        std::optional<OAKLogRow> row;
        if (!log.fetchNewestRowForKey(layoutKey(), std::nullopt, row, &error))
            return false;
        if (row)
            takeLayoutRow(entry, *row);
        logLayouts_.insert_or_assign(deviceIdentifier, std::move(entry));
        return true;
    }
    // Later reads: only the rows after the anchor, newest first, up to the first "layout" row. Rows of one
    // edit share a timestamp, so the bound is one below the anchor's and the anchor's own row is skipped
    // by its rowid.
    LogLayout& entry = found->second;
    OAKLogCursor cursor;
    if (entry.anchor && entry.anchor->first != timestampForDistantPast())
        cursor.lowerBound = entry.anchor->first - 1;
    bool blobTaken = false;
    const auto wantsBlob = [&](const QString& key) {
        if (blobTaken || key != layoutKey())
            return false;
        blobTaken = true;
        return true;
    };
    std::optional<std::pair<NBTimestamp, qint64>> newest;
    std::vector<OAKLogRow> rows;
    while (!cursor.finished) {
        if (!log.fetchNewestBatch(cursor, kOAKLogFetchBatchSize, rows, &error, wantsBlob)) {
            logLayouts_.erase(found);
            return false;
        }
        for (const OAKLogRow& row : rows) {
            if (entry.anchor && !isAfter(row, *entry.anchor)) {
                cursor.finished = true;
                break;
            }
            if (!newest)
                newest = std::make_pair(row.timestamp, row.rowid);
            if (row.key == layoutKey()) {
                takeLayoutRow(entry, row);
                cursor.finished = true;
                break;
            }
        }
    }
    if (newest)
        entry.anchor = newest;
    return true;
}

const NBDocument::LogLayout* NBDocument::newestLogLayout() const {
    const LogLayout* newest = nullptr;
    QSet<QString> open;
    for (const auto& [identifier, log] : openLogs()) {
        open.insert(identifier);
        if (!refreshLogLayout(identifier, *log))
            continue;
        const LogLayout& entry = logLayouts_.at(identifier);
        // The first log listed wins a tie, the local one first.
        if (entry.row && (!newest || entry.row->first > newest->row->first))
            newest = &entry;
    }
    // A device folder that went away takes its entry along.
    std::erase_if(logLayouts_, [&](const auto& entry) { return !open.contains(entry.first); });
    return newest;
}

std::optional<QSet<QString>> NBDocument::relevantKeysForSync() const {
    const LogLayout* newest = newestLogLayout();
    if (newest && newest->layout && newest->generation == relevantKeysGeneration_)
        return relevantKeys_;
    std::optional<QStringList> layout = newest ? newest->layout : std::nullopt;
    const bool fromLogs = layout.has_value();
    if (!layout)
        memoryQueue_->dispatchSynchronously([&] { layout = layoutFromMemory(); });
    QSet<QString> keys(layout->begin(), layout->end());
    keys.insert(layoutKey());
    for (const QString& key : validMetadataKeys())
        keys.insert(key);
    // Kept for the next step while the newest layout stays the same row; one from memory is not kept.
    relevantKeysGeneration_ = fromLogs ? newest->generation : 0;
    relevantKeys_ = fromLogs ? keys : QSet<QString>();
    return keys;
}

void NBDocument::applySyncChangeWithValues(const QVariantMap& values,
                                           const QHash<QString, NBTimestamp>& timestamps) {
    OAKStore::applySyncChangeWithValues(values, timestamps);
    // The change is built only for a kind that will use it.
    if (!implementsApplyDocumentChange())
        return;
    NBTimestamp newest = timestampForDistantPast();
    for (auto entry = timestamps.begin(); entry != timestamps.end(); ++entry)
        newest = std::max(newest, entry.value());
    // Already on the memory queue: the UUID for messages is read from the view directly.
    const QString documentUUID = memory_.value(QString::fromUtf8(kNBDocumentUUIDKey)).toString();
    applyDocumentChange(documentChangeWithValues(newest, values, documentUUID));
}

// MARK: - Changes

NBDocumentChange NBDocument::documentChangeWithValues(NBTimestamp timestamp, const QVariantMap& values,
                                                      const QString& documentUUID) const {
    std::optional<QStringList> layout;
    QVariantMap metadata;
    QMap<QString, QVariantMap> infos;
    QStringList unexpected;
    for (auto entry = values.begin(); entry != values.end(); ++entry) {
        const QString& key = entry.key();
        const QVariant& value = entry.value();
        if (key == layoutKey()) {
            bool valid = false;
            QStringList list = stringListFromVariant(value, &valid);
            if (valid)
                layout = std::move(list);
            else
                unexpected.append(key);
        } else if (isValidMetadataKey(key)) {
            if (value.isValid())
                metadata.insert(key, value);
            else
                unexpected.append(key);
        } else if (!key.isEmpty() && value.metaType().id() == QMetaType::QVariantMap) {
            infos.insert(key, value.toMap());
        } else {
            unexpected.append(key);
        }
    }
    QStringList unreadable;
    NBDocumentChange change =
        NBDocumentChange::changeWithTimestamp(timestamp, layout, metadata, infos, &unreadable);
    unexpected += unreadable;
    for (const QString& key : unexpected) {
        qCWarning(lcDocument).noquote()
            << nbFormat("Unexpected key-value for change of document '%@' (%@): %@ -> %@", documentUUID,
                        storePath(), key, valueText(values.value(key)));
    }
    return change;
}

NBDocumentChange NBDocument::documentChangeSinceTimestamp(NBTimestamp timestamp) {
    QVariantMap values;
    NBTimestamp newest = timestamp;
    // Ascending order: a later entry for a key replaces an earlier one.
    for (const OAKChange& change : changesSinceTimestamp(timestamp)) {
        values.insert(change.key, change.propertyList);
        newest = std::max(newest, change.timestamp);
    }
    return documentChangeWithValues(newest, values, uuid());
}

std::vector<NBDocumentChange> NBDocument::individualDocumentChangesSinceTimestamp(NBTimestamp timestamp) {
    std::vector<NBDocumentChange> changes;
    const QString documentUUID = uuid();
    for (const OAKChange& change : changesSinceTimestamp(timestamp)) {
        NBDocumentChange documentChange =
            documentChangeWithValues(change.timestamp, {{change.key, change.propertyList}}, documentUUID);
        if (!documentChange.isEmpty())
            changes.push_back(std::move(documentChange));
    }
    return changes;
}

// MARK: - Text dump

QStringList NBDocument::contentDumpArray() const {
    QStringList lines;
    const QVariantMap values = metadata();
    QStringList keys = {QString::fromUtf8(kNBDocumentUUIDKey), QString::fromUtf8(kNBDocumentTitleKey),
                        QString::fromUtf8(kNBDocumentAuthorKey)};
    for (const QString& key : validMetadataKeys()) {
        if (!keys.contains(key))
            keys.append(key);
    }
    for (const QString& key : keys) {
        if (values.contains(key))
            lines.append(nbFormat("%@: %@\n", key, valueText(values.value(key))));
    }
    QList<NBParagraph> all = paragraphs();
    updateNumberedListCountersForParagraphs(all);
    qsizetype index = 0;
    for (const NBParagraph& paragraph : all) {
        QString text = nbFormat("\nParagraph %@ - %@\n", QString::number(index++), paragraph.type());
        if (paragraph.isDayType())
            text += paragraph.dayRep();
        else if (paragraph.isTableType())
            text += paragraph.content();
        else {
            if (paragraph.listItemIndex())
                text += QString::number(*paragraph.listItemIndex() + 1) + QLatin1String(". ");
            text += paragraph.plainTextContent();
        }
        lines.append(text + QLatin1Char('\n'));
    }
    return lines;
}

QString NBDocument::contentDump() const {
    return contentDumpArray().join(QString());
}
