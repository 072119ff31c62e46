// NBParagraph: one typed paragraph of an experiment or a protocol, the value the document store keeps under
// the paragraph's UUID.
//
// A paragraph is a UUID plus its `info`, a property-list dictionary holding every persisted property, the
// type included. `info` is the only persisted state; the document store writes it as the value of the key
// named by the UUID and rebuilds the paragraph with paragraphWithUUID().
//
// Value semantics. NBParagraph is a plain C++ value: copying one is cheap (the UUID and the QVariantMap are
// implicitly shared, copy-on-write), and a copy never changes when the original does. A paragraph is used
// on one thread at a time; copies may go to other threads. The store therefore keeps one info dictionary
// per paragraph key and hands out independent values, never a shared mutable paragraph.
//
// Kinds. The fourteen paragraph classes of the format are kinds of this one class (NBParagraphKind); each
// keeps the class name under which its allowed properties are listed ("NBParagraphDay" ...
// "NBParagraphPlainTextFragment"). The kind is fixed when the paragraph is made; setType() changes the
// stored type string only (copy() then rebuilds the kind that the new type names).
//
// Stored form (keys of `info`):
//   "type"                 string, the type code (table below); always present
//   "content"              string, the text in styled-text markup (NBStyledString); for a table the cell
//                          grid: rows joined by "\n", cells by "\t", and inside each cell "\n" written as
//                          "&#10;" and then "\t" as "&#9;"
//   "dayRep"               string, a day's string form (NBDay); day paragraphs only
//   "stepUUID"             string, the step's identity in the protocol it was copied from
//   "protocolUUID"         string, UUID of that protocol
//   "parentUUID"           string, UUID of the paragraph this one was derived from
//   "indentationLevel"     integer >= 0, list nesting level (0 = outermost)
//   "sourcePath"           string, path an attachment was imported from
//   "tableColumnWidths"    array of numbers, widths of a table's columns; absent when unknown
//   "timerStart", "timerStop", "timerDuration", "timerElapsed", "timerAppearance": a timer (NBTimer.h)
// Keys this version does not know are kept as they are and written back unchanged.
//
//   kind / class                   "type"         header level  properties allowed
//   Day / NBParagraphDay           "day"          1             dayRep
//   Step / NBParagraphStep         "step"         2             content stepUUID protocolUUID
//   Section / NBParagraphSection   "section"      3             content parentUUID
//   Normal / NBParagraphNormal     "normal"       4             content parentUUID + timer keys
//   Bullet / NBParagraphBullet     "bullet"       4             content parentUUID indentationLevel + timer
//   Number / NBParagraphNumber     "number"       4             as bullet
//   Code / NBParagraphCode         "code"         4             as normal
//   Note, Warning, Error           "note" ...     4             content parentUUID
//   Attachment                     "attachment"   4             content parentUUID sourcePath
//   Table                          "table"        4             content parentUUID tableColumnWidths
//   Fragment                       "fragment"     4             content
//   PlainTextFragment              "text"         4             content
// The two fragment kinds exist only while text is pasted or imported and are never rebuilt from storage.
// A property that a kind does not allow reads as nothing and ignores writes, silently: a step given a
// "parentUUID" keeps none.
#pragma once

#include "foundation/NBTreeNode.h"
#include "text/NBStyledString.h"
#include "time/NBDay.h"
#include "time/NBTimer.h"

#include <QHash>
#include <QList>
#include <QMetaType>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <optional>

inline constexpr const char* kNBParagraphTypeKey = "type";
inline constexpr const char* kNBParagraphContentKey = "content";
inline constexpr const char* kNBParagraphDayRepKey = "dayRep";
inline constexpr const char* kNBParagraphStepUUIDKey = "stepUUID";
inline constexpr const char* kNBParagraphProtocolUUIDKey = "protocolUUID";
inline constexpr const char* kNBParagraphParentUUIDKey = "parentUUID";
inline constexpr const char* kNBParagraphIndentationLevelKey = "indentationLevel";
inline constexpr const char* kNBParagraphSourcePathKey = "sourcePath";
inline constexpr const char* kNBParagraphTableColumnWidthsKey = "tableColumnWidths";

inline constexpr const char* kNBParagraphTypeDay = "day";
inline constexpr const char* kNBParagraphTypeStep = "step";
inline constexpr const char* kNBParagraphTypeSection = "section";
inline constexpr const char* kNBParagraphTypeNormal = "normal";
inline constexpr const char* kNBParagraphTypeBullet = "bullet";
inline constexpr const char* kNBParagraphTypeNumber = "number";
inline constexpr const char* kNBParagraphTypeCode = "code";
inline constexpr const char* kNBParagraphTypeNote = "note";
inline constexpr const char* kNBParagraphTypeWarning = "warning";
inline constexpr const char* kNBParagraphTypeError = "error";
inline constexpr const char* kNBParagraphTypeAttachment = "attachment";
inline constexpr const char* kNBParagraphTypeTable = "table";
inline constexpr const char* kNBParagraphTypeFragment = "fragment";
inline constexpr const char* kNBParagraphTypePlainTextFragment = "text";

enum class NBParagraphKind {
    Day,
    Step,
    Section,
    Normal,
    Bullet,
    Number,
    Code,
    Note,
    Warning,
    Error,
    Attachment,
    Table,
    Fragment,
    PlainTextFragment,
};

class NBParagraph {
public:
    // An empty normal paragraph without a UUID, for containers and QVariant; real paragraphs come from the
    // constructors below.
    NBParagraph();

    // ---- Kinds and their tables (built once, shared read-only) ----
    static QString classNameForKind(NBParagraphKind kind);
    static QString typeForKind(NBParagraphKind kind);
    static int headerLevelForKind(NBParagraphKind kind);
    // The kind stored paragraphs of this type rebuild to: the twelve storable types; anything else,
    // "fragment" and "text" included, gives nothing.
    static std::optional<NBParagraphKind> paragraphSubclassForType(const QString& type);
    // Class name -> allowed property names, in the order of the table above (fourteen entries).
    static const QHash<QString, QStringList>& propertyNamesByClass();
    // The union of all allowed property names.
    static const QSet<QString>& allPropertyNames();

    // ---- Constructors: a new paragraph with a fresh UUID ----
    static NBParagraph dayParagraphWithDay(const NBDay& day);
    static NBParagraph dayParagraphWithDayRep(const QString& dayRep);
    static NBParagraph stepParagraphWithTitle(const QString& title, const QString& stepUUID,
                                              const QString& protocolUUID);
    static NBParagraph sectionParagraphWithTitle(const QString& title);
    static NBParagraph normalParagraphWithContent(const QString& content);
    static NBParagraph codeParagraphWithContent(const QString& content);
    static NBParagraph noteParagraphWithContent(const QString& content);
    static NBParagraph warningParagraphWithContent(const QString& content);
    static NBParagraph errorParagraphWithContent(const QString& content);
    static NBParagraph bulletParagraphWithContent(const QString& content, qint64 indentationLevel);
    static NBParagraph numberParagraphWithContent(const QString& content, qint64 indentationLevel);
    static NBParagraph attachmentParagraphWithContent(const QString& content, const QString& sourcePath);
    static NBParagraph paragraphFragmentWithContent(const QString& content);
    static NBParagraph paragraphPlainTextFragmentWithContent(const QString& content);
    // Rows of cells in styled-text markup; the cells are escaped into the grid form of "content".
    static NBParagraph tableParagraphWithRows(const QList<QStringList>& rows);
    static NBParagraph tableParagraphWithRows(const QList<QStringList>& rows,
                                              const std::optional<QList<qreal>>& columnWidths);

    // Rebuilds a stored paragraph: the kind named by info's "type", the given UUID, and every entry of
    // `info` as it is (unknown keys included). Nothing for a missing or unknown type.
    static std::optional<NBParagraph> paragraphWithUUID(const QString& uuid, const QVariantMap& info);

    // A fresh UUID in the stored form: upper-case, 36 characters.
    static QString newUUIDString();

    // ---- Lists and the outline (what the document runs over its paragraphs in order) ----
    // Numbers the numbered items: sets listItemIndex of every number paragraph (0 for the first item of a
    // list); notes, warnings, errors, attachments and tables neither count nor end a list; headings,
    // normal text and code end it.
    static void updateNumberedListCountersForParagraphs(QList<NBParagraph>& paragraphs);
    // The outline: a root representing nothing, whose children are the top-level subtrees. Each node's
    // represented object is its NBParagraph. Days hold steps, sections and body paragraphs; steps hold
    // sections and body paragraphs; sections hold body paragraphs; list items of level 1 and deeper nest
    // under the nearest preceding item of a lower level that is itself at level 1 or deeper (a level-0
    // item under a heading stays a leaf; one at the very top, before any heading, collects what follows).
    static NBTreeNode::Pointer documentTreeWithParagraphs(const QList<NBParagraph>& paragraphs);
    // The subtree of the paragraph at `parentIndex` (step 2 of the outline); its node count below it is
    // descendentCountForTree().
    static NBTreeNode::Pointer treeWithParentParagraph(qsizetype parentIndex,
                                                       const QList<NBParagraph>& allParagraphs);
    static qsizetype descendentCountForTree(const NBTreeNode::Pointer& tree);

    // ---- Identity and kind ----
    const QString& uuid() const { return uuid_; }
    NBParagraphKind kind() const { return kind_; }
    QString className() const { return classNameForKind(kind_); }
    QString type() const;
    // Ignores a null type.
    void setType(const QString& type);
    // An immutable copy of the stored properties.
    QVariantMap info() const { return info_; }
    int headerLevel() const { return headerLevelForKind(kind_); }

    bool isDayType() const { return kind_ == NBParagraphKind::Day; }
    bool isStepType() const { return kind_ == NBParagraphKind::Step; }
    bool isSectionType() const { return kind_ == NBParagraphKind::Section; }
    bool isNormalType() const { return kind_ == NBParagraphKind::Normal; }
    bool isBulletType() const { return kind_ == NBParagraphKind::Bullet; }
    bool isNumberType() const { return kind_ == NBParagraphKind::Number; }
    bool isCodeType() const { return kind_ == NBParagraphKind::Code; }
    bool isNoteType() const { return kind_ == NBParagraphKind::Note; }
    bool isWarningType() const { return kind_ == NBParagraphKind::Warning; }
    bool isErrorType() const { return kind_ == NBParagraphKind::Error; }
    bool isAttachmentType() const { return kind_ == NBParagraphKind::Attachment; }
    bool isTableType() const { return kind_ == NBParagraphKind::Table; }
    bool isFragment() const { return kind_ == NBParagraphKind::Fragment; }
    bool isPlainTextFragment() const { return kind_ == NBParagraphKind::PlainTextFragment; }

    // ---- Properties by name ----
    // True when `key` is a property name (allPropertyNames) that this kind allows.
    bool allowsProperty(const QString& key) const;
    // The stored value, or null when absent or not allowed for this kind. "type" reads the type.
    QVariant valueForProperty(const QString& key) const;
    // Stores the value, or removes the key when the value is null. Does nothing, silently, for a name this
    // kind does not allow (or that is no property at all). "type" goes through setType().
    void setValueForProperty(const QString& key, const QVariant& value);

    // Named accessors; each behaves as the generic ones above. String getters give a null string for
    // nothing; setters given a null string remove the key.
    QString content() const { return stringProperty(kNBParagraphContentKey); }
    void setContent(const QString& content) { setStringProperty(kNBParagraphContentKey, content); }
    QString dayRep() const { return stringProperty(kNBParagraphDayRepKey); }
    void setDayRep(const QString& dayRep) { setStringProperty(kNBParagraphDayRepKey, dayRep); }
    QString stepUUID() const { return stringProperty(kNBParagraphStepUUIDKey); }
    void setStepUUID(const QString& stepUUID) { setStringProperty(kNBParagraphStepUUIDKey, stepUUID); }
    QString protocolUUID() const { return stringProperty(kNBParagraphProtocolUUIDKey); }
    void setProtocolUUID(const QString& uuid) { setStringProperty(kNBParagraphProtocolUUIDKey, uuid); }
    QString parentUUID() const { return stringProperty(kNBParagraphParentUUIDKey); }
    void setParentUUID(const QString& uuid) { setStringProperty(kNBParagraphParentUUIDKey, uuid); }
    QString sourcePath() const { return stringProperty(kNBParagraphSourcePathKey); }
    void setSourcePath(const QString& path) { setStringProperty(kNBParagraphSourcePathKey, path); }
    // Nothing when absent, not allowed, or not a whole number >= 0.
    std::optional<qint64> indentationLevel() const;
    void setIndentationLevel(std::optional<qint64> indentationLevel);
    // Nothing when absent, not allowed, or not an array of numbers.
    std::optional<QList<qreal>> tableColumnWidths() const;
    void setTableColumnWidths(const std::optional<QList<qreal>>& columnWidths);
    QVariant timerStart() const { return valueForProperty(kNBTimerStartKey); }
    void setTimerStart(const QVariant& value) { setValueForProperty(kNBTimerStartKey, value); }
    QVariant timerStop() const { return valueForProperty(kNBTimerStopKey); }
    void setTimerStop(const QVariant& value) { setValueForProperty(kNBTimerStopKey, value); }
    QVariant timerDuration() const { return valueForProperty(kNBTimerDurationKey); }
    void setTimerDuration(const QVariant& value) { setValueForProperty(kNBTimerDurationKey, value); }
    QVariant timerElapsed() const { return valueForProperty(kNBTimerElapsedKey); }
    void setTimerElapsed(const QVariant& value) { setValueForProperty(kNBTimerElapsedKey, value); }
    QVariant timerAppearance() const { return valueForProperty(kNBTimerAppearanceKey); }
    void setTimerAppearance(const QVariant& value) { setValueForProperty(kNBTimerAppearanceKey, value); }

    // ---- Derived values ----
    // The day of "dayRep" (a null day when absent or unreadable); setDay stores its string form, or removes
    // "dayRep" for a null day.
    NBDay day() const;
    void setDay(const NBDay& day);
    // The text: "content" read as markup; for a day its long localised form (empty without a day); for a
    // plain-text fragment the content as it is, unstyled.
    NBStyledString styledContent() const;
    QString plainTextContent() const;
    // The timer stored in the paragraph; nothing for kinds that cannot carry one, or when none is stored
    // or it cannot be read.
    std::optional<NBTimer> timer() const;
    // Replaces the stored timer (removes the five timer keys, then writes the timer's); nothing removes
    // the timer. Ignored for kinds that cannot carry one.
    void setTimer(const std::optional<NBTimer>& timer);

    // The number shown before a numbered item, set by updateNumberedListCountersForParagraphs. Not stored,
    // not compared, not kept by copy() or derivedParagraph().
    std::optional<qint64> listItemIndex() const { return listItemIndex_; }
    void setListItemIndex(std::optional<qint64> index) { listItemIndex_ = index; }

    // A table's cells, rows split at "\n" and cells at "\t", with the "&#10;" and "&#9;" escapes left in
    // place (readers unescape with NBSpreadsheetData::unescapedCellString). Nothing for other kinds.
    std::optional<QList<QStringList>> arrayOfArraysOfMarkupStrings() const;

    // ---- Copies and comparison ----
    // The paragraph as storage would give it back: rebuilt from the same UUID and info (so the kind follows
    // the stored type and listItemIndex is dropped). Nothing when the type is not storable (fragments).
    std::optional<NBParagraph> copy() const;
    // The same info under a new UUID, with "parentUUID" set to this paragraph's UUID where the kind allows
    // it. Nothing when the type is not storable.
    std::optional<NBParagraph> derivedParagraph() const;
    // Same UUID, same type, and for every key of either info equal values, a missing value counting as an
    // empty string. The kind is not compared.
    bool isEqualToParagraph(const NBParagraph& other) const;
    // Same kind, then isEqualToParagraph.
    bool operator==(const NBParagraph& other) const {
        return kind_ == other.kind_ && isEqualToParagraph(other);
    }
    bool operator!=(const NBParagraph& other) const { return !(*this == other); }

    // "<NBParagraphStep:0x...>\n" followed by the info.
    QString description() const;

private:
    NBParagraph(NBParagraphKind kind, const QString& uuid);
    static NBParagraph paragraphOfKind(NBParagraphKind kind);
    static NBParagraph paragraphOfKind(NBParagraphKind kind, const QString& content);

    QString stringProperty(const char* key) const;
    void setStringProperty(const char* key, const QString& value);

    QString uuid_;
    NBParagraphKind kind_ = NBParagraphKind::Normal;
    QVariantMap info_;
    std::optional<qint64> listItemIndex_;
};

Q_DECLARE_METATYPE(NBParagraph)
