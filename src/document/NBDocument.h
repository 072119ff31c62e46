// NBDocument: one notebook document (an experiment or a protocol) kept as a syncable store.
//
// STORED FORM (this file owns it; the keys live in the store's per-device logs, see store/OAKStoreLog.h)
//
//   "layout"          array of strings: the paragraph UUIDs in document order. It is the only place where
//                     order is kept, and it never lists a UUID twice.
//   <paragraph UUID>  dictionary: that paragraph's info (document/NBParagraph.h documents its keys).
//   <metadata key>    the metadata value, under the key itself. Every document has "uuid" (string, the
//                     document's upper-case UUID, equal to its package's file name without extension),
//                     "title" (string) and "author" (string); NBExperiment and NBProtocol add theirs.
//   "attachments"/<paragraph UUID>/<file name>   in the package's blob folder: an attachment paragraph's
//                     file, named by the last component of the paragraph's "sourcePath".
//
// Removing a paragraph only takes its UUID out of "layout": its key keeps its last value, on purpose, since
// logs are append-only and other devices may still refer to it. A paragraph key that "layout" does not list
// is not part of the document. A stored info whose type is unknown (written by a newer version, or damaged)
// is left out of `paragraphs()` and kept in the logs untouched.
//
// Kinds. The valid metadata keys of a kind are its own list (validMetadataKeysForSubclass, a static function
// of each class) joined to those of its ancestors; validMetadataKeys() gathers them once per kind into a
// shared table. C++ has no dynamic accessors, so each kind has named getters and setters for its keys.
//
// Sync. After a sync the in-memory view holds the paragraphs that the newest "layout" in the logs lists,
// "layout" itself and the metadata keys (relevantKeysForSync). A kind that keeps state derived from its
// contents overrides applyDocumentChange() and implementsApplyDocumentChange(); only then is an
// NBDocumentChange built from what a sync brought in.
//
// Threads. Every operation may be called from any thread; reads and edits run on the store's memory queue,
// edits that read before they write (inserting, moving, modifying) run as one step there and write once, so
// two threads never interleave inside one edit and each edit is one change notification. Do not call the
// synchronous store operations that reach the database (loadNow, saveNow, documentChangeSinceTimestamp, ...)
// from inside runTransaction().
#pragma once

#include "document/NBDocumentChange.h"
#include "document/NBParagraph.h"
#include "foundation/NBError.h"
#include "foundation/NBTreeNode.h"
#include "store/OAKStore.h"
#include "time/NBDay.h"

#include <QList>
#include <QLoggingCategory>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcDocument)

inline constexpr const char* kNBDocumentLayoutKey = "layout";
inline constexpr const char* kNBDocumentUUIDKey = "uuid";
inline constexpr const char* kNBDocumentTitleKey = "title";
inline constexpr const char* kNBDocumentAuthorKey = "author";
inline constexpr const char* kNBDocumentAttachmentsDirectoryName = "attachments";
// The user information key of an error that stands for several: their descriptions, in order (the errors
// themselves are NBError::errors()).
inline constexpr const char* kNBErrorArrayKey = "ErrorArray";

// Error codes of NBDocument.
inline constexpr qint64 kNBDocumentErrorNilParagraph = 10;
inline constexpr qint64 kNBDocumentErrorNoBlobPath = 20;
inline constexpr qint64 kNBDocumentErrorMultipleAttachmentErrors = 30;
inline constexpr qint64 kNBDocumentErrorUnknownAttachmentError = 40;
inline constexpr qint64 kNBDocumentErrorTemporaryFolder = 50;
inline constexpr qint64 kNBDocumentErrorNoPackage = 60;
inline constexpr qint64 kNBDocumentErrorCreatePackage = 70;

class NBDocument : public OAKStore {
public:
    // A document for the package at `url`, writing as `deviceIdentifier` (not loaded yet).
    NBDocument(const QUrl& url, const QString& deviceIdentifier, const OAKStoreOptions& options = {});
    // An in-memory document: no files; attachments are kept in memory and copied to a temporary folder of
    // its own when a path is asked for.
    NBDocument();
    ~NBDocument() override;

    QString className() const override { return QStringLiteral("NBDocument"); }
    virtual bool isExperiment() const { return false; }
    virtual bool isProtocol() const { return false; }

    // Opens the package at `path` (a folder; its extension picks the kind: "nbexperiment" an NBExperiment,
    // "nbprotocol" an NBProtocol, anything else a plain NBDocument) and loads it. Fails when there is no
    // package folder there; in read-only mode nothing inside the package is created.
    static std::shared_ptr<NBDocument> openDocumentAtPath(const QString& path,
                                                          const QString& deviceIdentifier,
                                                          const OAKStoreOptions& options = {},
                                                          NBError* outError = nullptr);

    // ---- Metadata ----
    // This kind's own keys; validMetadataKeys() adds its ancestors'.
    static QStringList validMetadataKeysForSubclass();
    // The valid metadata keys of this document's kind, its ancestors' first (gathered once per kind).
    const QStringList& validMetadataKeys() const;
    bool isValidMetadataKey(const QString& key) const;
    // Kind name -> valid metadata keys, as gathered so far.
    static QHash<QString, QStringList> validMetadataKeysForSubclassTable();

    // The values of the valid metadata keys present.
    QVariantMap metadata() const;
    // Sets every entry in one transaction (one timestamp, one notification). Keys that are not valid
    // metadata keys are ignored and logged; null values are ignored (a log cannot remove a key: store an
    // empty value instead).
    void modifyMetadata(const QVariantMap& metadata);
    QVariant metadataValueForKey(const QString& key) const;
    // As modifyMetadata with one entry.
    void setMetadataValue(const QVariant& value, const QString& key);

    QString uuid() const { return stringMetadata(kNBDocumentUUIDKey); }
    void setUuid(const QString& uuid) { setMetadataValue(uuid, QString::fromUtf8(kNBDocumentUUIDKey)); }
    QString title() const { return stringMetadata(kNBDocumentTitleKey); }
    void setTitle(const QString& title) { setMetadataValue(title, QString::fromUtf8(kNBDocumentTitleKey)); }
    QString author() const { return stringMetadata(kNBDocumentAuthorKey); }
    void setAuthor(const QString& author) {
        setMetadataValue(author, QString::fromUtf8(kNBDocumentAuthorKey));
    }

    // ---- Paragraphs ----
    QStringList layout() const;
    void setLayout(const QStringList& layout);
    // The paragraphs of the layout, in order (unreadable entries left out), read in one step.
    QList<NBParagraph> paragraphs() const;
    QStringList paragraphUUIDs() const { return layout(); }
    // The stored paragraph under `uuid`, listed in the layout or not; nothing when absent or unreadable.
    std::optional<NBParagraph> paragraphWithUUID(const QString& uuid) const;

    // Stores each paragraph and places it, in order, at the index that `uuid` has in the layout (null or not
    // found: the end), advancing the index after each. A paragraph already in the layout is moved, never
    // duplicated: it is taken out of its old place first, without shifting the index, so one moved forward
    // (from before `uuid`) lands after `uuid`, and one moved backward lands before it. An index past the
    // end after such removals means the end. One step, one layout write.
    void insertParagraphs(const QList<NBParagraph>& paragraphs, const QString& beforeParagraphUUID);
    void insertParagraph(const NBParagraph& paragraph, const QString& beforeParagraphUUID);
    void insertParagraphAfterParagraphWithUUID(const NBParagraph& paragraph,
                                               const QString& afterParagraphUUID);
    void appendParagraph(const NBParagraph& paragraph);
    // Stores the paragraph's info only when the layout lists its UUID; otherwise does nothing.
    void modifyParagraph(const NBParagraph& paragraph);
    // Takes the UUID out of the layout; the paragraph's key keeps its value.
    void removeParagraph(const NBParagraph& paragraph);
    void removeParagraphWithUUID(const QString& uuid);
    void removeAllParagraphs();
    QList<NBParagraph> paragraphsWithType(const QString& type) const;

    // ---- Days ----
    // The days of the day paragraphs (those with a readable day), in ascending order.
    QList<NBDay> days() const;
    // The paragraphs after the first day paragraph of `day`, up to the next day paragraph, with their
    // numbered-list counters brought up to date; empty when the document has no such day.
    QList<NBParagraph> paragraphsForDay(const NBDay& day) const;
    // Places the paragraph under `day`: after that day's last paragraph, or under a new day paragraph put
    // in calendar order (see NBDocument.cpp). One transaction.
    void appendParagraph(const NBParagraph& paragraph, const NBDay& day);
    static void updateNumberedListCountersForParagraphs(QList<NBParagraph>& paragraphs);

    // ---- Outline ----
    NBTreeNode::Pointer documentTree() const;
    static NBTreeNode::Pointer documentTreeWithParagraphs(const QList<NBParagraph>& paragraphs);
    static NBTreeNode::Pointer treeWithParentParagraph(qsizetype parentIndex,
                                                       const QList<NBParagraph>& allParagraphs);
    static qsizetype descendentCountForTree(const NBTreeNode::Pointer& tree);

    // ---- Attachments (blobs under "attachments"/<UUID>/<file name>) ----
    // Nothing when the paragraph has no UUID or its source path has no file name.
    static std::optional<QString> blobPathForParagraph(const NBParagraph& paragraph);
    // Copies the paragraph's source file into the package. A paragraph without a UUID counts as nil.
    bool writeAttachmentForParagraph(const NBParagraph& paragraph, NBError* outError = nullptr);
    // Copies every paragraph's file; one failure is returned as it is, several as one error whose
    // errors() (and "ErrorArray" user information) list them; the others are still written.
    bool writeAttachmentsForParagraphs(const QList<NBParagraph>& paragraphs, NBError* outError = nullptr);
    // The error for attachments that could not be saved: one error as it is, several gathered under
    // "Multiple errors while saving attachments..." with their descriptions under "ErrorArray", none known
    // as "Unknown error while saving attachments...".
    NBError errorForAttachmentErrors(std::vector<NBError> errors) const;
    bool writeAttachmentData(const QByteArray& data, const NBParagraph& paragraph,
                             NBError* outError = nullptr);
    bool deleteAttachmentForParagraph(const NBParagraph& paragraph, NBError* outError = nullptr);
    std::optional<QByteArray> attachmentDataForParagraph(const NBParagraph& paragraph,
                                                         NBError* outError = nullptr) const;
    // The attachment's file on disk; for an in-memory document a copy in its temporary folder.
    std::optional<QString> absolutePathOfAttachmentForParagraph(const NBParagraph& paragraph,
                                                                NBError* outError = nullptr) const;
    // The in-memory document's temporary folder (made on first use, removed with the document); empty for
    // a document with a package.
    QString temporaryDirectoryPath() const;

    // ---- Changes ----
    // Everything logged after `timestamp`, newest value per key, as one change (timestamp: the newest
    // entry's, or `timestamp` itself when nothing changed).
    NBDocumentChange documentChangeSinceTimestamp(NBTimestamp timestamp);
    // One change per log entry after `timestamp`, oldest first (entries that do not fit are logged and
    // left out).
    std::vector<NBDocumentChange> individualDocumentChangesSinceTimestamp(NBTimestamp timestamp);

    // ---- Text dump (for tests, diagnostics and `quillon doc show`) ----
    // "uuid", "title" and "author" first, then the other metadata keys in order, each "key: value\n"; then
    // each paragraph as "\nParagraph <index> - <type>\n" followed by its text and "\n".
    QString contentDump() const;
    QStringList contentDumpArray() const;

protected:
    // The kind's metadata key lists from NBDocument down to this kind; a kind adds its own
    // validMetadataKeysForSubclass() to its parent's chain.
    virtual QList<QStringList> validMetadataKeyChain() const { return {validMetadataKeysForSubclass()}; }

    std::optional<QSet<QString>> relevantKeysForSync() const override;
    void applySyncChangeWithValues(const QVariantMap& values,
                                   const QHash<QString, NBTimestamp>& timestamps) override;
    // The hook by which a kind updates derived state after a sync (and after loading, with everything the
    // load read). Called on the memory queue, inside the sync's application of values, so it reads the
    // in-memory view directly and must not wait for the database queue; NBDocument's does nothing. Override
    // implementsApplyDocumentChange() to return true along with it.
    virtual void applyDocumentChange(const NBDocumentChange& change) { Q_UNUSED(change); }
    virtual bool implementsApplyDocumentChange() const { return false; }

    QString stringMetadata(const char* key) const;
    QStringList stringListMetadata(const char* key) const;
    // Sets "uuid" to a fresh upper-case UUID (used when a kind creates a new document).
    void assignNewUUID();
    // Creates the package "<fresh UUID>.<extension>" in `folderPath` as a `Kind`, loads it, and stores its
    // "uuid" and "title"; nothing on failure.
    template <typename Kind>
    static std::shared_ptr<Kind> newDocumentInFolder(const QString& folderPath,
                                                     const QString& deviceIdentifier, const QString& title,
                                                     const char* extension, NBError* outError) {
        const QString uuid = NBParagraph::newUUIDString();
        const QString path =
            packagePathForNewDocument(folderPath, deviceIdentifier, uuid, extension, outError);
        if (path.isEmpty())
            return nullptr;
        auto document = std::make_shared<Kind>(QUrl::fromLocalFile(path), deviceIdentifier);
        if (!document->setUpNewPackage(uuid, title, outError)) {
            document->tearDownNow();
            return nullptr;
        }
        return document;
    }
    static QString packagePathForNewDocument(const QString& folderPath, const QString& deviceIdentifier,
                                             const QString& uuid, const char* extension, NBError* outError);
    bool setUpNewPackage(const QString& uuid, const QString& title, NBError* outError);

    // Helpers over a layout and values held on the memory queue.
    QList<NBParagraph> paragraphsFromMemory() const;
    static QStringList stringListFromVariant(const QVariant& value, bool* outValid = nullptr);
    static QVariantList variantListFromStringList(const QStringList& list);

private:
    // Runs an edit that reads before it writes as one step on the memory queue, so that no other edit
    // interleaves with it. The edit writes once (one timestamp, one change notification, made on the
    // notification queue rather than the caller's thread); inside a transaction it joins the transaction's.
    void editInMemory(const std::function<void()>& block);
    QStringList layoutFromMemory() const;
    // The stored layout as it is (empty when it is not an array), and a UUID's index in it (-1: absent).
    QVariantList layoutValueFromMemory() const;
    static qsizetype indexOfUUID(const QVariantList& layout, const QString& uuid);
    // The layout for an edit that rewrites it (memory queue). The value is taken out of the in-memory view,
    // so that the edit changes the view's own list in place rather than a copy of every entry (the view is
    // then the only holder of the list, unless a save or a notification still holds the previous edit's).
    // The edit must then write the layout, or put it back when it writes nothing. A read-only store, which
    // refuses writes, and a layout that is not an array are read as layoutValueFromMemory() reads them.
    QVariantList takeLayoutForEdit(bool* outTaken);
    // Builds the change of a set of key-values (keys of one timestamp or of a merged range).
    NBDocumentChange documentChangeWithValues(NBTimestamp timestamp, const QVariantMap& values,
                                              const QString& documentUUID) const;
    // What the sync step last learned of one log's "layout" rows (database queue). A log only grows, by rows
    // newer than those it holds, so a later step reads only the rows after `anchor` (the newest row read
    // from it) to learn whether a newer "layout" arrived, and decodes only that one. The entry is trusted
    // while the log is the same file and its anchor and layout rows are still where they were; a log
    // replaced as a whole (a file-synchronisation service delivering a merged copy, say) is read again in
    // full, as on the first step.
    struct LogLayout {
        OAKLogFileIdentity file;
        std::optional<std::pair<NBTimestamp, qint64>> anchor; // timestamp and rowid; none: the log was empty
        std::optional<std::pair<NBTimestamp, qint64>> row;    // the newest "layout" row with a value
        std::optional<QStringList> layout;                    // its value; none: not an array
        quint64 generation = 0;                               // changes whenever `row` does
    };
    // Brings the entry of one log up to date; false when the log could not be read (it is then left out).
    bool refreshLogLayout(const QString& deviceIdentifier, OAKStoreLog& log) const;
    bool logLayoutStillHolds(const LogLayout& entry, OAKStoreLog& log) const;
    void takeLayoutRow(LogLayout& entry, const OAKLogRow& row) const;
    // The entry of the log whose newest "layout" row is the newest in the logs, or none. Its `layout` is
    // what the sync step keeps paragraphs for; when it has none (no log holds a layout, or the newest is not
    // an array) the in-memory layout is used.
    const LogLayout* newestLogLayout() const;
    void appendParagraphToDayInMemory(const NBParagraph& paragraph, const NBDay& day);
    bool ensureTemporaryDirectory(NBError* outError) const;
    // The blob path of an attachment operation's paragraph, or the nil-paragraph or no-path failure.
    std::optional<QString> attachmentBlobPath(const NBParagraph& paragraph, NBError* outError) const;

    mutable QString temporaryDirectoryPath_;
    // Database queue: the logs' layouts by device, and the relevant keys made from the layout of the entry
    // of generation `relevantKeysGeneration_` (0: none).
    mutable std::map<QString, LogLayout> logLayouts_;
    mutable quint64 logLayoutGenerations_ = 0;
    mutable quint64 relevantKeysGeneration_ = 0;
    mutable QSet<QString> relevantKeys_;
};
