// The paragraphs of a document as the text of a QTextDocument (see NBDocumentTextMapping.h).
//
// How Qt's model is used. Blocks keep their user data through edits of their own text and of other blocks;
// when a block separator is removed, the block after it keeps its data (removing [B.position, C.position)
// leaves C's block), and when a block is split, the first part keeps it. A table is inserted at the end of a
// block and leaves an empty block after its frame. These rules are what insertParagraphText and
// removeParagraphText rely on; normalizeFillers() then removes the empty blocks no table needs.
#include "app/NBDocumentTextMapping.h"

#include "app/NBAppLogging.h"
#include "document/NBSpreadsheetData.h"
#include "time/NBDay.h"

#include <QApplication>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QFontMetrics>
#include <QImageReader>
#include <QLocale>
#include <QStyle>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextTable>
#include <QUrl>

#include <algorithm>

namespace {

constexpr QChar kLineSeparator(0x2028);
constexpr QChar kObjectReplacement(0xFFFC);

QString shownFromStored(QString text) {
    text.replace(QLatin1String("\r\n"), QString(kLineSeparator));
    text.replace(QLatin1Char('\n'), kLineSeparator);
    text.replace(QLatin1Char('\r'), kLineSeparator);
    text.replace(QChar(QChar::ParagraphSeparator), kLineSeparator);
    return text;
}

// Indices into `sequence` of one longest strictly increasing subsequence.
QList<int> longestIncreasingSubsequence(const QList<int>& sequence) {
    QList<int> tails; // indices of the smallest tail of each length
    QList<int> predecessor(sequence.size(), -1);
    for (int index = 0; index < sequence.size(); ++index) {
        auto position = std::lower_bound(tails.begin(), tails.end(), sequence[index],
                                         [&](int tail, int value) { return sequence[tail] < value; });
        const int length = int(position - tails.begin());
        if (length > 0)
            predecessor[index] = tails[length - 1];
        if (position == tails.end())
            tails.append(index);
        else
            *position = index;
    }
    QList<int> result;
    for (int index = tails.isEmpty() ? -1 : tails.last(); index >= 0; index = predecessor[index])
        result.prepend(index);
    return result;
}

} // namespace

// Marks the mapping's own changes of the text. They are not grouped into one edit block of the
// QTextDocument: Qt brings its record of frames (and so of tables) up to date only when an edit block ends,
// and the updates ask which blocks are table cells as they go.
class NBDocumentTextMapping::UpdateGuard {
public:
    explicit UpdateGuard(NBDocumentTextMapping& mapping) : mapping_(mapping) { ++mapping_.updating_; }
    ~UpdateGuard() { --mapping_.updating_; }

private:
    NBDocumentTextMapping& mapping_;
};

NBDocumentTextMapping::NBDocumentTextMapping(const NBParagraphLook& look)
    : look_(look), document_(std::make_unique<QTextDocument>()) {
    document_->setUndoRedoEnabled(false);
    document_->setDefaultFont(look_.baseFont());
    document_->setDocumentMargin(12);
}

NBDocumentTextMapping::~NBDocumentTextMapping() = default;

// MARK: - Filling and updating

void NBDocumentTextMapping::setParagraphs(const QList<NBParagraph>& paragraphs) {
    ++updating_;
    document_->clear();
    entries_.clear();
    layout_.clear();
    indexesValid_ = false;
    numbersValid_ = false;
    QTextCursor cursor(document_.get());
    cursor.beginEditBlock();
    // The text is built front to back with one cursor: a text paragraph takes the last block when it is a
    // fresh one (the document's first, or the one Qt leaves after a table), else a new block.
    bool lastBlockIsFresh = true;
    for (const NBParagraph& paragraph : paragraphs) {
        if (entries_.contains(paragraph.uuid()) || paragraph.uuid().isEmpty())
            continue;
        cursor.movePosition(QTextCursor::End);
        Entry entry{paragraph, {}, {}};
        if (paragraph.isTableType()) {
            // Tables end the edit block: Qt records frames only when one ends (see UpdateGuard).
            entry.table = renderTable(cursor, paragraph);
            cursor.endEditBlock();
            cursor.beginEditBlock();
            lastBlockIsFresh = true;
        } else {
            if (!lastBlockIsFresh)
                cursor.insertBlock();
            renderBlock(cursor, paragraph);
            entry.block = cursor.block();
            setBlockData(entry.block, paragraph.uuid());
            lastBlockIsFresh = false;
        }
        entries_.insert(paragraph.uuid(), entry);
        layout_.append(paragraph.uuid());
    }
    cursor.endEditBlock();
    normalizeFillers();
    --updating_;
}

void NBDocumentTextMapping::applyLayout(const QStringList& layout,
                                        const QHash<QString, NBParagraph>& paragraphs) {
    UpdateGuard guard(*this);
    const QSet<QString> wanted(layout.begin(), layout.end());
    // Paragraphs that left.
    const QStringList current = layout_;
    for (const QString& uuid : current) {
        if (!wanted.contains(uuid)) {
            removeParagraphText(uuid);
            entries_.remove(uuid);
            layout_.removeOne(uuid);
        }
    }
    indexesValid_ = false;
    // Paragraphs that moved: those outside a longest run kept in order are taken out and put back.
    QList<int> currentIndexes;
    QStringList common;
    for (const QString& uuid : layout) {
        const int index = indexOfParagraph(uuid);
        if (index >= 0) {
            currentIndexes.append(index);
            common.append(uuid);
        }
    }
    if (!common.isEmpty()) {
        const QList<int> kept = longestIncreasingSubsequence(currentIndexes);
        if (kept.size() != common.size()) {
            QSet<int> keptPositions(kept.begin(), kept.end());
            for (int position = 0; position < common.size(); ++position) {
                if (keptPositions.contains(position))
                    continue;
                removeParagraphText(common[position]);
                layout_.removeOne(common[position]);
            }
            indexesValid_ = false;
        }
    }
    // Paragraphs that arrived (or are put back), each after its predecessor in the new layout.
    QSet<QString> inserted;
    QString previous;
    for (const QString& uuid : layout) {
        if (indexOfParagraph(uuid) < 0) {
            NBParagraph paragraph;
            if (paragraphs.contains(uuid))
                paragraph = paragraphs.value(uuid);
            else if (entries_.contains(uuid))
                paragraph = entries_.value(uuid).paragraph;
            else {
                qCWarning(lcApp) << "No paragraph given for" << uuid << "of the new layout";
                continue;
            }
            insertParagraphText(paragraph, previous);
            layout_.insert(previous.isEmpty() ? 0 : indexOfParagraph(previous) + 1, uuid);
            indexesValid_ = false;
            inserted.insert(uuid);
        }
        previous = uuid;
    }
    // Paragraphs whose value changed.
    for (auto it = paragraphs.constBegin(); it != paragraphs.constEnd(); ++it) {
        if (inserted.contains(it.key()) || !entries_.contains(it.key()))
            continue;
        const NBParagraph& known = entries_[it.key()].paragraph;
        if (known.kind() != it->kind() || known.info() != it->info())
            updateParagraph(*it);
    }
    numbersValid_ = false;
    normalizeFillers();
}

void NBDocumentTextMapping::updateParagraph(const NBParagraph& paragraph,
                                            const std::optional<NBStyledString>& shownText) {
    const Entry* found = entry(paragraph.uuid());
    if (!found)
        return;
    UpdateGuard guard(*this);
    Entry& target = entries_[paragraph.uuid()];
    const bool wasTable = target.paragraph.isTableType();
    target.paragraph = paragraph;
    numbersValid_ = false;
    if (wasTable || paragraph.isTableType()) {
        // A table is rebuilt in place (a change of kind to or from a table replaces the text as a whole).
        const QString previous = indexOfParagraph(paragraph.uuid()) > 0
                                     ? layout_.at(indexOfParagraph(paragraph.uuid()) - 1)
                                     : QString();
        if (wasTable && paragraph.isTableType() && target.table) {
            QTextTable* table = target.table;
            const std::optional<NBSpreadsheetData> grid =
                NBSpreadsheetData::spreadsheetDataWithTableParagraph(paragraph);
            const int rows = std::max<int>(1, grid ? int(grid->rowCount()) : 1);
            const int columns = std::max<int>(1, grid ? int(grid->columnCount()) : 1);
            if (table->rows() == rows && table->columns() == columns) {
                fillTable(table, paragraph);
                return;
            }
        }
        removeParagraphText(paragraph.uuid());
        insertParagraphText(paragraph, previous);
        normalizeFillers();
        return;
    }
    QTextCursor cursor(found->block);
    renderBlock(cursor, paragraph, shownText);
}

void NBDocumentTextMapping::setKnownParagraph(const NBParagraph& paragraph) {
    auto found = entries_.find(paragraph.uuid());
    if (found == entries_.end())
        return;
    if (found->paragraph.kind() != paragraph.kind() ||
        found->paragraph.indentationLevel() != paragraph.indentationLevel())
        numbersValid_ = false;
    found->paragraph = paragraph;
}

QString NBDocumentTextMapping::adoptFillerBlock(const QTextBlock& block, const NBParagraph& paragraph) {
    UpdateGuard guard(*this);
    // The paragraph before the filler in the text is the one it follows in the layout.
    QString previous;
    for (QTextBlock before = block.previous(); before.isValid(); before = before.previous()) {
        previous = paragraphUUIDOfBlock(before);
        if (!previous.isEmpty())
            break;
    }
    setBlockData(block, paragraph.uuid());
    QTextCursor cursor(block);
    cursor.setBlockFormat(look_.blockFormat(paragraph));
    entries_.insert(paragraph.uuid(), Entry{paragraph, block, {}});
    layout_.insert(previous.isEmpty() ? 0 : indexOfParagraph(previous) + 1, paragraph.uuid());
    indexesValid_ = false;
    numbersValid_ = false;
    return previous;
}

void NBDocumentTextMapping::normalizeFillers() {
    UpdateGuard guard(*this);
    QTextBlock block = document_->begin();
    while (block.isValid()) {
        QTextBlock next = block.next();
        if (isFillerBlock(block)) {
            const QTextBlock previous = block.previous();
            const bool previousIsTable = previous.isValid() && blockIsInTable(previous);
            const bool nextIsTable = next.isValid() && blockIsInTable(next);
            const bool needed = (nextIsTable && (!previous.isValid() || previousIsTable)) ||
                                (!next.isValid() && (previousIsTable || !previous.isValid()));
            if (!needed && block.length() <= 1) {
                removeBlock(block);
            } else if (needed && block.length() <= 1) {
                QTextCursor cursor(block);
                cursor.setBlockFormat(look_.fillerBlockFormat(!next.isValid()));
            }
        }
        block = next;
    }
}

// MARK: - Inserting and removing text

void NBDocumentTextMapping::insertParagraphText(const NBParagraph& paragraph, const QString& afterUUID) {
    Entry newEntry{paragraph, {}, {}};
    if (paragraph.isTableType()) {
        // A table goes in at the end of the text block before it, or into a filler made for it.
        const Entry* previous = afterUUID.isEmpty() ? nullptr : entry(afterUUID);
        QTextCursor cursor(document_.get());
        if (previous && !previous->paragraph.isTableType()) {
            cursor = QTextCursor(previous->block);
            cursor.movePosition(QTextCursor::EndOfBlock);
        } else {
            cursor = freshBlockAfter(afterUUID);
        }
        newEntry.table = renderTable(cursor, paragraph);
    } else {
        QTextCursor cursor = freshBlockAfter(afterUUID);
        renderBlock(cursor, paragraph);
        newEntry.block = cursor.block();
        setBlockData(newEntry.block, paragraph.uuid());
    }
    entries_.insert(paragraph.uuid(), newEntry);
    numbersValid_ = false;
}

QTextCursor NBDocumentTextMapping::freshBlockAfter(const QString& afterUUID) {
    const Entry* previous = afterUUID.isEmpty() ? nullptr : entry(afterUUID);
    QTextBlock following;
    if (!previous) {
        following = document_->begin();
    } else if (previous->paragraph.isTableType() && previous->table) {
        following = document_->findBlock(previous->table->lastPosition() + 1);
    } else {
        QTextCursor cursor(previous->block);
        cursor.movePosition(QTextCursor::EndOfBlock);
        cursor.insertBlock(QTextBlockFormat(), QTextCharFormat());
        return cursor;
    }
    if (isFillerBlock(following) && following.length() <= 1)
        return QTextCursor(following);
    return insertBlockBefore(following);
}

QTextCursor NBDocumentTextMapping::insertBlockBefore(const QTextBlock& block) {
    // Splitting at the start of a block leaves the block's user data with the empty first part; the data and
    // formats are handed on to the second part, which holds the text.
    const QString uuid = paragraphUUIDOfBlock(block);
    const QTextBlockFormat blockFormat = block.blockFormat();
    const QTextCharFormat charFormat = block.charFormat();
    QTextCursor cursor(block);
    cursor.insertBlock(blockFormat, charFormat);
    QTextBlock second = cursor.block();
    QTextBlock first = second.previous();
    first.setUserData(nullptr);
    if (!uuid.isEmpty()) {
        setBlockData(second, uuid);
        entries_[uuid].block = second;
    }
    QTextCursor fresh(first);
    fresh.setBlockFormat(QTextBlockFormat());
    fresh.setBlockCharFormat(QTextCharFormat());
    return fresh;
}

void NBDocumentTextMapping::removeParagraphText(const QString& uuid) {
    const Entry* found = entry(uuid);
    if (!found)
        return;
    if (found->paragraph.isTableType()) {
        if (QTextTable* table = found->table) {
            // The block before the frame ends where the frame begins, so taking the frame out joins that
            // block to the one after the frame: an empty block is put there first for it to join.
            const QTextBlock after = document_->findBlock(table->lastPosition() + 1);
            if (after.isValid() && after.userData())
                insertBlockBefore(after);
            QTextCursor cursor(document_.get());
            cursor.setPosition(table->firstPosition() - 1);
            cursor.setPosition(table->lastPosition() + 1, QTextCursor::KeepAnchor);
            cursor.removeSelectedText();
        }
        entries_[uuid].table = nullptr;
    } else {
        QTextBlock block = found->block;
        block.setUserData(nullptr);
        removeBlock(block);
        entries_[uuid].block = QTextBlock();
    }
    numbersValid_ = false;
}

void NBDocumentTextMapping::removeBlock(const QTextBlock& block) {
    // Join the block to its neighbour: to the next one when that is no table cell, else to the previous
    // one; between two tables the block stays, emptied, as a filler. Which of two joined blocks Qt keeps
    // (and so whose user data and formats) depends on their contents, so the neighbour's are set again.
    const QTextBlock next = block.next();
    const QTextBlock previous = block.previous();
    QTextCursor cursor(document_.get());
    QString survivor;
    int survivorPosition = 0;
    if (next.isValid() && !blockIsInTable(next)) {
        survivor = paragraphUUIDOfBlock(next);
        survivorPosition = block.position();
        cursor.setPosition(block.position());
        cursor.setPosition(next.position(), QTextCursor::KeepAnchor);
    } else if (previous.isValid() && !blockIsInTable(previous)) {
        survivor = paragraphUUIDOfBlock(previous);
        survivorPosition = previous.position();
        cursor.setPosition(previous.position() + previous.length() - 1);
        cursor.setPosition(block.position() + block.length() - 1, QTextCursor::KeepAnchor);
    } else {
        cursor.setPosition(block.position());
        cursor.movePosition(QTextCursor::EndOfBlock, QTextCursor::KeepAnchor);
        cursor.removeSelectedText();
        QTextBlock(block).setUserData(nullptr);
        cursor.setBlockFormat(look_.fillerBlockFormat(!next.isValid()));
        return;
    }
    cursor.removeSelectedText();
    QTextBlock kept = document_->findBlock(survivorPosition);
    auto found = survivor.isEmpty() ? entries_.end() : entries_.find(survivor);
    if (found != entries_.end() && !found->paragraph.isTableType()) {
        setBlockData(kept, survivor);
        found->block = kept;
        QTextCursor format(kept);
        format.setBlockFormat(look_.blockFormat(found->paragraph));
        format.setBlockCharFormat(look_.charFormat(found->paragraph.kind(), {}));
    } else {
        kept.setUserData(nullptr);
    }
}

// MARK: - Rendering

void NBDocumentTextMapping::renderBlock(QTextCursor& cursor, const NBParagraph& paragraph,
                                        const std::optional<NBStyledString>& shownText) {
    cursor.movePosition(QTextCursor::StartOfBlock);
    cursor.movePosition(QTextCursor::EndOfBlock, QTextCursor::KeepAnchor);
    cursor.removeSelectedText();
    cursor.setBlockFormat(look_.blockFormat(paragraph));
    cursor.setBlockCharFormat(look_.charFormat(paragraph.kind(), {}));
    switch (paragraph.kind()) {
    case NBParagraphKind::Day:
        cursor.insertText(dayHeading(paragraph), look_.charFormat(NBParagraphKind::Day, {}));
        break;
    case NBParagraphKind::Attachment:
        insertAttachment(cursor, paragraph);
        break;
    default:
        insertStyledText(cursor, paragraph.kind(), shownText ? *shownText : paragraph.styledContent());
        break;
    }
}

void NBDocumentTextMapping::insertStyledText(QTextCursor& cursor, NBParagraphKind kind,
                                             const NBStyledString& text) const {
    for (const NBStyledString::Run& run : text.runs())
        cursor.insertText(shownFromStored(text.string().mid(run.location, run.length)),
                          look_.charFormat(kind, run.styles));
}

void NBDocumentTextMapping::insertAttachment(QTextCursor& cursor, const NBParagraph& paragraph) {
    const std::optional<QString> path = attachmentPath_ ? attachmentPath_(paragraph) : std::nullopt;
    const QFileInfo file(path.value_or(QString()));
    QString name = paragraph.plainTextContent();
    if (name.isEmpty())
        name = QFileInfo(paragraph.sourcePath()).fileName();
    QImageReader reader(path.value_or(QString()));
    if (path && file.exists() && reader.canRead()) {
        QImage image = reader.read();
        if (!image.isNull()) {
            if (image.width() > maximumImageWidth_)
                image = image.scaledToWidth(maximumImageWidth_, Qt::SmoothTransformation);
            const QUrl imageName(
                QStringLiteral("%1:%2").arg(QLatin1String(kNBAttachmentImageScheme), paragraph.uuid()));
            document_->addResource(QTextDocument::ImageResource, imageName, image);
            QTextImageFormat imageFormat;
            imageFormat.setName(imageName.toString());
            imageFormat.setWidth(image.width());
            imageFormat.setHeight(image.height());
            cursor.insertImage(imageFormat);
            cursor.insertText(QString(kLineSeparator), look_.charFormat(NBParagraphKind::Attachment, {}));
        }
    }
    // The chip: the file's icon, its name and its size.
    QIcon icon;
    if (qobject_cast<QApplication*>(QCoreApplication::instance())) {
        if (file.exists())
            icon = QFileIconProvider().icon(file);
        if (icon.isNull())
            icon = QApplication::style()->standardIcon(QStyle::SP_FileIcon);
    }
    if (!icon.isNull()) {
        const QString suffix = file.suffix().isEmpty() ? QStringLiteral("file") : file.suffix().toLower();
        const QUrl iconName(QStringLiteral("%1:%2").arg(QLatin1String(kNBFileIconScheme), suffix));
        const int size = QFontMetrics(look_.baseFont()).height();
        if (document_->resource(QTextDocument::ImageResource, iconName).isNull())
            document_->addResource(QTextDocument::ImageResource, iconName, icon.pixmap(size, size).toImage());
        QTextImageFormat iconFormat;
        iconFormat.setName(iconName.toString());
        iconFormat.setWidth(size);
        iconFormat.setHeight(size);
        iconFormat.setVerticalAlignment(QTextCharFormat::AlignMiddle);
        cursor.insertImage(iconFormat);
    }
    cursor.insertText(QStringLiteral(" %1 ").arg(name), look_.attachmentChipFormat());
    if (file.exists())
        cursor.insertText(QStringLiteral(" %1 ").arg(QLocale().formattedDataSize(file.size())),
                          look_.attachmentDetailFormat());
    else
        cursor.insertText(
            QStringLiteral(" %1 ").arg(QCoreApplication::translate("NBDocumentEditor", "missing")),
            look_.attachmentDetailFormat());
}

QTextTable* NBDocumentTextMapping::renderTable(QTextCursor& cursor, const NBParagraph& paragraph) {
    const std::optional<NBSpreadsheetData> grid =
        NBSpreadsheetData::spreadsheetDataWithTableParagraph(paragraph);
    const int rows = std::max<int>(1, grid ? int(grid->rowCount()) : 1);
    const int columns = std::max<int>(1, grid ? int(grid->columnCount()) : 1);
    QTextTableFormat format = look_.tableFormat(paragraph, columns);
    format.setProperty(kNBTableParagraphUUIDProperty, paragraph.uuid());
    QTextTable* table = cursor.insertTable(rows, columns, format);
    fillTable(table, paragraph);
    // Qt leaves an empty block after the frame; when a paragraph block follows it, that block is not needed.
    const QTextBlock after = document_->findBlock(table->lastPosition() + 1);
    if (after.isValid() && after.length() <= 1 && after.next().isValid() && !blockIsInTable(after.next()) &&
        !after.userData())
        removeBlock(after);
    return table;
}

void NBDocumentTextMapping::fillTable(QTextTable* table, const NBParagraph& paragraph) {
    const std::optional<NBSpreadsheetData> grid =
        NBSpreadsheetData::spreadsheetDataWithTableParagraph(paragraph);
    for (int row = 0; row < table->rows(); ++row) {
        for (int column = 0; column < table->columns(); ++column) {
            QTextTableCell cell = table->cellAt(row, column);
            QTextCursor cursor = cell.firstCursorPosition();
            cursor.setPosition(cell.lastCursorPosition().position(), QTextCursor::KeepAnchor);
            cursor.removeSelectedText();
            cursor.setBlockCharFormat(look_.charFormat(NBParagraphKind::Table, {}));
            if (grid)
                insertStyledText(
                    cursor, NBParagraphKind::Table,
                    NBStyledString::styledStringFromMarkupString(grid->markupStringAtRow(row, column)));
        }
    }
}

QString NBDocumentTextMapping::dayHeading(const NBParagraph& paragraph) {
    const NBDay day = paragraph.day();
    if (day.isNull())
        return QCoreApplication::translate("NBDocumentEditor", "Day");
    if (day.isRelativeDay())
        return day.longString();
    return QStringLiteral("%1, %2").arg(day.weekdayString(), day.longString());
}

void NBDocumentTextMapping::setBlockData(const QTextBlock& block, const QString& uuid) {
    QTextBlock(block).setUserData(new NBParagraphBlockData(uuid));
}

// MARK: - Queries

bool NBDocumentTextMapping::blockIsInTable(const QTextBlock& block) const {
    return QTextCursor(block).currentTable() != nullptr;
}

bool NBDocumentTextMapping::isFillerBlock(const QTextBlock& block) const {
    return block.isValid() && !block.userData() && !blockIsInTable(block);
}

QString NBDocumentTextMapping::paragraphUUIDOfBlock(const QTextBlock& block) const {
    if (!block.isValid())
        return {};
    if (const auto* data = static_cast<const NBParagraphBlockData*>(block.userData()))
        return data->uuid;
    if (QTextTable* table = QTextCursor(block).currentTable()) {
        // A nested table belongs to the outermost one (tables are never nested by the mapping itself).
        QTextFrame* frame = table;
        while (frame->parentFrame() && qobject_cast<QTextTable*>(frame->parentFrame()))
            frame = frame->parentFrame();
        return frame->frameFormat().stringProperty(kNBTableParagraphUUIDProperty);
    }
    return {};
}

QString NBDocumentTextMapping::paragraphUUIDAtPosition(int position) const {
    return paragraphUUIDOfBlock(document_->findBlock(position));
}

const NBDocumentTextMapping::Entry* NBDocumentTextMapping::entry(const QString& uuid) const {
    auto found = entries_.constFind(uuid);
    if (found == entries_.constEnd())
        return nullptr;
    const bool stale = found->paragraph.isTableType()
                           ? found->table.isNull()
                           : (!found->block.isValid() || paragraphUUIDOfBlock(found->block) != uuid);
    if (stale && layout_.contains(uuid)) {
        rescanBlocks();
        found = entries_.constFind(uuid);
    }
    return &*found;
}

void NBDocumentTextMapping::rescanBlocks() const {
    for (QTextBlock block = document_->begin(); block.isValid(); block = block.next()) {
        if (const auto* data = static_cast<const NBParagraphBlockData*>(block.userData())) {
            auto found = entries_.find(data->uuid);
            if (found != entries_.end())
                found->block = block;
        } else if (QTextTable* table = QTextCursor(block).currentTable()) {
            auto found = entries_.find(table->frameFormat().stringProperty(kNBTableParagraphUUIDProperty));
            if (found != entries_.end())
                found->table = table;
        }
    }
}

void NBDocumentTextMapping::reindex() const {
    if (indexesValid_)
        return;
    indexes_.clear();
    indexes_.reserve(layout_.size());
    for (int index = 0; index < layout_.size(); ++index)
        indexes_.insert(layout_[index], index);
    indexesValid_ = true;
}

int NBDocumentTextMapping::indexOfParagraph(const QString& uuid) const {
    reindex();
    return indexes_.value(uuid, -1);
}

void NBDocumentTextMapping::renumber() const {
    if (numbersValid_)
        return;
    stepNumbers_.clear();
    listIndexes_.clear();
    QList<NBParagraph> ordered;
    ordered.reserve(layout_.size());
    int step = 0;
    for (const QString& uuid : layout_) {
        const NBParagraph& paragraph = entries_[uuid].paragraph;
        if (paragraph.isDayType())
            step = 0;
        else if (paragraph.isStepType())
            stepNumbers_.insert(uuid, ++step);
        ordered.append(paragraph);
    }
    NBParagraph::updateNumberedListCountersForParagraphs(ordered);
    for (const NBParagraph& paragraph : ordered)
        if (paragraph.listItemIndex())
            listIndexes_.insert(paragraph.uuid(), *paragraph.listItemIndex());
    numbersValid_ = true;
}

NBParagraph NBDocumentTextMapping::paragraph(const QString& uuid) const {
    auto found = entries_.constFind(uuid);
    if (found == entries_.constEnd())
        return NBParagraph();
    NBParagraph result = found->paragraph;
    renumber();
    if (listIndexes_.contains(uuid))
        result.setListItemIndex(listIndexes_.value(uuid));
    return result;
}

QList<NBParagraph> NBDocumentTextMapping::paragraphs() const {
    QList<NBParagraph> result;
    result.reserve(layout_.size());
    for (const QString& uuid : layout_)
        result.append(paragraph(uuid));
    return result;
}

std::optional<int> NBDocumentTextMapping::stepNumber(const QString& uuid) const {
    renumber();
    auto found = stepNumbers_.constFind(uuid);
    if (found == stepNumbers_.constEnd())
        return std::nullopt;
    return *found;
}

QTextBlock NBDocumentTextMapping::blockOfParagraph(const QString& uuid) const {
    const Entry* found = entry(uuid);
    return found && !found->paragraph.isTableType() ? found->block : QTextBlock();
}

QTextTable* NBDocumentTextMapping::tableOfParagraph(const QString& uuid) const {
    const Entry* found = entry(uuid);
    return found ? found->table.data() : nullptr;
}

int NBDocumentTextMapping::startOfParagraph(const QString& uuid) const {
    const Entry* found = entry(uuid);
    if (!found)
        return -1;
    if (found->paragraph.isTableType())
        return found->table ? found->table->firstPosition() - 1 : -1;
    return found->block.isValid() ? found->block.position() : -1;
}

int NBDocumentTextMapping::endOfParagraph(const QString& uuid) const {
    const Entry* found = entry(uuid);
    if (!found)
        return -1;
    if (found->paragraph.isTableType())
        return found->table ? found->table->lastPosition() + 1 : -1;
    return found->block.isValid() ? found->block.position() + found->block.length() - 1 : -1;
}

// MARK: - Reading the text

NBStyledString NBDocumentTextMapping::styledTextOfRange(int start, int end) const {
    NBMutableStyledString result;
    QTextBlock first = document_->findBlock(start);
    for (QTextBlock block = first; block.isValid() && block.position() <= end; block = block.next()) {
        if (block != first && block.position() > start)
            result.appendString(QStringLiteral("\n"));
        for (QTextBlock::iterator piece = block.begin(); !piece.atEnd(); ++piece) {
            const QTextFragment fragment = piece.fragment();
            const int from = std::max(fragment.position(), start);
            const int to = std::min(fragment.position() + fragment.length(), end);
            if (!fragment.isValid() || from >= to)
                continue;
            QString text = fragment.text().mid(from - fragment.position(), to - from);
            text.remove(kObjectReplacement);
            text.replace(kLineSeparator, QLatin1Char('\n'));
            text.replace(QChar(QChar::ParagraphSeparator), QLatin1Char('\n'));
            if (!text.isEmpty())
                result.appendString(text, look_.stylesOfFormat(fragment.charFormat()));
        }
    }
    return result;
}

NBStyledString NBDocumentTextMapping::shownStyledText(const QString& uuid) const {
    const Entry* found = entry(uuid);
    if (!found || found->paragraph.isTableType() || !found->block.isValid())
        return {};
    return styledTextOfRange(found->block.position(), found->block.position() + found->block.length() - 1);
}

QString NBDocumentTextMapping::tableGrid(QTextTable* table, const NBParagraph& known) const {
    QList<QStringList> rows;
    for (int row = 0; row < table->rows(); ++row) {
        QStringList cells;
        for (int column = 0; column < table->columns(); ++column) {
            const QTextTableCell cell = table->cellAt(row, column);
            if (cell.row() != row || cell.column() != column) {
                cells << QString();
                continue;
            }
            cells << styledTextOfRange(cell.firstPosition(), cell.lastPosition()).markupString();
        }
        rows << cells;
    }
    std::optional<QList<qreal>> widths = known.tableColumnWidths();
    if (widths && widths->size() != table->columns())
        widths.reset();
    return NBSpreadsheetData::spreadsheetDataWithArrayOfArrayOfMarkupStrings(rows, widths)
        .tableParagraph()
        .content();
}

QString NBDocumentTextMapping::shownContent(const QString& uuid) const {
    const Entry* found = entry(uuid);
    if (!found)
        return {};
    if (found->paragraph.isTableType())
        return found->table ? tableGrid(found->table, found->paragraph) : found->paragraph.content();
    if (!NBParagraphLook::isTextKind(found->paragraph.kind()))
        return found->paragraph.content();
    return shownStyledText(uuid).markupString();
}

NBParagraph NBDocumentTextMapping::shownParagraph(const QString& uuid) const {
    NBParagraph result = paragraph(uuid);
    const QString content = shownContent(uuid);
    if (content != result.content() && !(content.isEmpty() && result.content().isEmpty()))
        result.setContent(content);
    return result;
}

// MARK: - Styles

QStringList
NBDocumentTextMapping::changeStylesInRange(int start, int end,
                                           const std::function<NBStyleSet(const NBStyleSet&)>& change) {
    QStringList touched;
    if (start >= end)
        return touched;
    UpdateGuard guard(*this);
    for (QTextBlock block = document_->findBlock(start); block.isValid() && block.position() < end;
         block = block.next()) {
        const QString uuid = paragraphUUIDOfBlock(block);
        const Entry* found = uuid.isEmpty() ? nullptr : entry(uuid);
        if (!found ||
            !(NBParagraphLook::isTextKind(found->paragraph.kind()) || found->paragraph.isTableType()))
            continue;
        const NBParagraphKind kind = found->paragraph.kind();
        // Collect the pieces first: changing formats splits and merges fragments under the iterator.
        struct Piece {
            int from, to;
            QTextCharFormat format;
        };
        QList<Piece> pieces;
        for (QTextBlock::iterator piece = block.begin(); !piece.atEnd(); ++piece) {
            const QTextFragment fragment = piece.fragment();
            const int from = std::max(fragment.position(), start);
            const int to = std::min(fragment.position() + fragment.length(), end);
            if (fragment.isValid() && from < to && !fragment.charFormat().isImageFormat())
                pieces.append({from, to, fragment.charFormat()});
        }
        for (const Piece& piece : pieces) {
            const NBStyleSet before = look_.stylesOfFormat(piece.format);
            const NBStyleSet after = change(before);
            if (after == before)
                continue;
            QTextCursor cursor(document_.get());
            cursor.setPosition(piece.from);
            cursor.setPosition(piece.to, QTextCursor::KeepAnchor);
            cursor.setCharFormat(look_.charFormat(kind, after));
            if (!touched.contains(uuid))
                touched.append(uuid);
        }
    }
    return touched;
}

NBStyleSet NBDocumentTextMapping::commonStylesInRange(int start, int end) const {
    if (start >= end) {
        // What typing here would take: the piece before the position, else the block's own format.
        const QTextBlock block = document_->findBlock(start);
        for (QTextBlock::iterator piece = block.begin(); !piece.atEnd(); ++piece) {
            const QTextFragment fragment = piece.fragment();
            if (fragment.position() < start && start <= fragment.position() + fragment.length())
                return look_.stylesOfFormat(fragment.charFormat());
        }
        return look_.stylesOfFormat(block.charFormat());
    }
    std::optional<NBStyleSet> common;
    for (QTextBlock block = document_->findBlock(start); block.isValid() && block.position() < end;
         block = block.next()) {
        for (QTextBlock::iterator piece = block.begin(); !piece.atEnd(); ++piece) {
            const QTextFragment fragment = piece.fragment();
            if (fragment.position() + fragment.length() <= start || fragment.position() >= end)
                continue;
            const NBStyleSet styles = look_.stylesOfFormat(fragment.charFormat());
            if (!common) {
                common = styles;
                continue;
            }
            NBStyleSet kept;
            for (const NBStyle& style : *common)
                if (styles.contains(style))
                    kept.insert(style);
            common = kept;
        }
    }
    return common.value_or(NBStyleSet());
}
