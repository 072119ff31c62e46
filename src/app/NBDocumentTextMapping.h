// NBDocumentTextMapping: a document's paragraphs as the text of a QTextDocument, and that text read back as
// paragraphs. It is the whole of the editor's knowledge of how text and paragraphs correspond, and it needs
// no window: tests drive it on its own.
//
// The text. Paragraphs appear in layout order. A paragraph of a text kind (step, section, normal, bullet,
// numbered item, code, note, warning, error) is exactly one block whose text is the paragraph's styled text;
// a line break inside a paragraph is shown as U+2028 (the line separator, which Shift+Enter types) and reads
// back as "\n". A day is one block showing its date; an attachment one block showing its file (an inline
// image, or a chip with the file's icon, name and size). Both are shown, not edited. Each of these blocks
// carries its paragraph's UUID as block user data (NBParagraphBlockData); the kind comes from the known
// paragraph. A table paragraph is a QTextTable whose frame format carries the UUID
// (kNBTableParagraphUUIDProperty); each cell holds one cell of the grid, line breaks again as U+2028.
//
// Fillers. A QTextDocument keeps a block before and after every table frame. Where the neighbouring
// paragraph is a text block, that block serves; where there is none (a table opening the document, two
// tables in a row, a table at the end) an empty block without user data stands in: a filler. Fillers are
// part of no paragraph and read as nothing; the editor turns one into a new paragraph when the user types
// into it. normalizeFillers() keeps exactly the fillers the tables need.
//
// Known paragraphs. The mapping remembers, for each paragraph it shows, the info it was last given (the
// "known" paragraph): the model's value as the editor last applied it. What the text shows may differ from
// it while the user types; shownParagraph() is the known paragraph with the content the text holds now.
//
// Updates. applyLayout() brings the text to a new layout and new paragraph values and touches only the
// blocks of paragraphs that left, arrived, moved or changed, in one edit block of the QTextDocument, so
// cursors elsewhere keep their places. isUpdating() is true while the mapping itself changes the text, so
// the editor can tell its own changes from the user's typing.
#pragma once

#include "app/NBParagraphLook.h"
#include "document/NBParagraph.h"
#include "text/NBStyledString.h"

#include <QHash>
#include <QPointer>
#include <QSet>
#include <QStringList>
#include <QTextBlock>
#include <QTextBlockUserData>

#include <functional>
#include <memory>
#include <optional>

class QTextCursor;
class QTextDocument;
class QTextTable;

// The table frame property holding the table paragraph's UUID.
inline constexpr int kNBTableParagraphUUIDProperty = QTextFormat::UserProperty + 0x4E46;
// The image names under which attachment images and file icons are kept as resources of the text.
inline constexpr const char* kNBAttachmentImageScheme = "quillon-attachment";
inline constexpr const char* kNBFileIconScheme = "quillon-icon";

class NBParagraphBlockData : public QTextBlockUserData {
public:
    explicit NBParagraphBlockData(const QString& paragraphUUID) : uuid(paragraphUUID) {}
    const QString uuid;
};

class NBDocumentTextMapping {
public:
    // The absolute path of an attachment's file, or nothing when it has none.
    using AttachmentPathResolver = std::function<std::optional<QString>(const NBParagraph&)>;

    explicit NBDocumentTextMapping(const NBParagraphLook& look = NBParagraphLook());
    ~NBDocumentTextMapping();
    NBDocumentTextMapping(const NBDocumentTextMapping&) = delete;
    NBDocumentTextMapping& operator=(const NBDocumentTextMapping&) = delete;

    QTextDocument* textDocument() const { return document_.get(); }
    const NBParagraphLook& look() const { return look_; }
    void setAttachmentPathResolver(AttachmentPathResolver resolver) { attachmentPath_ = std::move(resolver); }
    // The widest an inline image is shown, in pixels.
    void setMaximumImageWidth(int width) { maximumImageWidth_ = width; }

    // ---- Filling and updating the text ----
    // Replaces the whole text with these paragraphs, in order.
    void setParagraphs(const QList<NBParagraph>& paragraphs);
    // Brings the text to `layout`. `paragraphs` holds the value of every paragraph of `layout` that the
    // mapping does not know yet, and may hold new values for known ones (those that differ from the known
    // value are shown anew). Paragraphs that left the layout disappear; those that moved are moved.
    void applyLayout(const QStringList& layout, const QHash<QString, NBParagraph>& paragraphs);
    // Shows a known paragraph anew with this value (kind, level, content); `shownText` replaces the text
    // shown when given (the editor's merge of typed and received text). Its info becomes the known one.
    void updateParagraph(const NBParagraph& paragraph, const std::optional<NBStyledString>& shownText = {});
    // Makes the known value of a paragraph `paragraph` without touching the text (after the editor wrote
    // what the text shows).
    void setKnownParagraph(const NBParagraph& paragraph);
    // A filler the user typed into becomes `paragraph` (a new text paragraph whose content is the filler's
    // text), placed in the layout where the filler stands. Returns the UUID it follows ("" at the start).
    QString adoptFillerBlock(const QTextBlock& block, const NBParagraph& paragraph);
    // Keeps exactly the fillers that tables need (see the header comment).
    void normalizeFillers();

    // ---- What is shown ----
    const QStringList& layout() const { return layout_; }
    bool contains(const QString& uuid) const { return entries_.contains(uuid); }
    // The index of the paragraph in layout(), or -1.
    int indexOfParagraph(const QString& uuid) const;
    // The known paragraph (an empty normal paragraph for an unknown UUID), with its list index set.
    NBParagraph paragraph(const QString& uuid) const;
    QList<NBParagraph> paragraphs() const;
    // The step number (1, 2, ... counted from the last day) of a step, nothing for other kinds.
    std::optional<int> stepNumber(const QString& uuid) const;

    // ---- Positions ----
    // The paragraph shown at a position of the text ("" for a filler).
    QString paragraphUUIDAtPosition(int position) const;
    QString paragraphUUIDOfBlock(const QTextBlock& block) const;
    bool isFillerBlock(const QTextBlock& block) const;
    // The block of a day, attachment or text paragraph (invalid for tables and unknown UUIDs).
    QTextBlock blockOfParagraph(const QString& uuid) const;
    QTextTable* tableOfParagraph(const QString& uuid) const;
    // The first and one-past-last positions of a paragraph's text (for a table: its frame), -1 if unknown.
    int startOfParagraph(const QString& uuid) const;
    int endOfParagraph(const QString& uuid) const;

    // ---- Reading the text ----
    // The styled text a text paragraph's block shows now.
    NBStyledString shownStyledText(const QString& uuid) const;
    // The content the text shows now: the markup of a text paragraph, the grid of a table, and the known
    // content of other kinds.
    QString shownContent(const QString& uuid) const;
    // The known paragraph with the content the text shows now.
    NBParagraph shownParagraph(const QString& uuid) const;
    // The styled text of a table cell (its blocks joined by "\n").
    NBStyledString styledTextOfRange(int start, int end) const;

    // ---- Styles ----
    // Changes the styles of the text of text paragraphs and table cells between two positions, piece by
    // piece (each piece's set goes through `change`). Returns the paragraphs whose text changed.
    QStringList changeStylesInRange(int start, int end,
                                    const std::function<NBStyleSet(const NBStyleSet&)>& change);
    // The styles in force over a range (those every piece has), or at a position for an empty range.
    NBStyleSet commonStylesInRange(int start, int end) const;

    bool isUpdating() const { return updating_ > 0; }

    // The heading a day paragraph shows: weekday and date in the user's locale, "Day N" for relative days.
    static QString dayHeading(const NBParagraph& paragraph);

private:
    struct Entry {
        NBParagraph paragraph;
        QTextBlock block;
        QPointer<QTextTable> table;
    };
    class UpdateGuard;

    void insertParagraphText(const NBParagraph& paragraph, const QString& afterUUID);
    void removeParagraphText(const QString& uuid);
    void removeBlock(const QTextBlock& block);
    // A cursor in a new empty block (without user data) right after the paragraph `afterUUID` ("" for the
    // start of the text).
    QTextCursor freshBlockAfter(const QString& afterUUID);
    QTextCursor insertBlockBefore(const QTextBlock& block);
    void renderBlock(QTextCursor& cursor, const NBParagraph& paragraph,
                     const std::optional<NBStyledString>& shownText = {});
    QTextTable* renderTable(QTextCursor& cursor, const NBParagraph& paragraph);
    void fillTable(QTextTable* table, const NBParagraph& paragraph);
    void insertStyledText(QTextCursor& cursor, NBParagraphKind kind, const NBStyledString& text) const;
    void insertAttachment(QTextCursor& cursor, const NBParagraph& paragraph);
    QString tableGrid(QTextTable* table, const NBParagraph& known) const;
    void setBlockData(const QTextBlock& block, const QString& uuid);
    bool blockIsInTable(const QTextBlock& block) const;
    // Entry blocks are handles that stay valid while their block lives; when one no longer names its
    // paragraph, the blocks are scanned again.
    void rescanBlocks() const;
    const Entry* entry(const QString& uuid) const;
    void reindex() const;
    void renumber() const;

    NBParagraphLook look_;
    std::unique_ptr<QTextDocument> document_;
    AttachmentPathResolver attachmentPath_;
    int maximumImageWidth_ = 480;
    QStringList layout_;
    mutable QHash<QString, Entry> entries_;
    mutable QHash<QString, int> indexes_;
    mutable bool indexesValid_ = false;
    mutable QHash<QString, int> stepNumbers_;
    mutable QHash<QString, qint64> listIndexes_;
    mutable bool numbersValid_ = false;
    int updating_ = 0;
};
