// NBDocumentContent: a document's content as the converters exchange it, between a file and a document.
//
// Importers read a file into an NBDocumentContent (its kind, metadata, paragraphs and the files of its
// attachments) and check it completely before anything is written; only then does it become a document,
// in memory (inMemoryDocument) or as a package (writePackageInFolder). Exporters take the content of an
// open document (contentOfDocument) and write it out. Keeping the two halves apart is what makes an import
// all or nothing: a file that cannot be read creates nothing, and a package is assembled under a hidden
// name and renamed into place only once it is complete.
//
// Metadata holds stored metadata keys with their values ("uuid", "title", "author", and those of the
// kind: NBExperiment.h and NBProtocol.h list them). Paragraphs are complete paragraphs with their UUIDs.
// An attachment paragraph's file is named in `attachmentFiles` under the paragraph's UUID: a file on disk
// (beside an imported Markdown file, extracted from an archive into `temporaryDirectory`, or the blob of
// an exported document).
#pragma once

#include "document/NBParagraph.h"
#include "foundation/NBError.h"

#include <QHash>
#include <QList>
#include <QLoggingCategory>
#include <QSet>
#include <QString>
#include <QTemporaryDir>
#include <QVariantMap>

#include <memory>
#include <optional>

Q_DECLARE_LOGGING_CATEGORY(lcInterchange)

class NBDocument;

enum class NBDocumentKind { Experiment, Protocol };

// "experiment" and "protocol", the words files and the command line use; nothing for any other word.
QString nbDocumentKindName(NBDocumentKind kind);
std::optional<NBDocumentKind> nbDocumentKindWithName(QStringView name);

// Error codes of the "NBDocumentContent" domain.
inline constexpr qint64 kNBDocumentContentErrorAttachment = 10;
inline constexpr qint64 kNBDocumentContentErrorPackage = 20;
inline constexpr qint64 kNBDocumentContentErrorExists = 30;

// A file name made from any text (a title, a name from an archive): no path separators, control characters
// or characters that other systems refuse, no leading dot, at most 120 characters; `fallback` when nothing
// is left.
QString nbSafeFileName(const QString& text, const QString& fallback = QStringLiteral("Untitled"));
// `name` (made safe), or "name 2.ext", "name 3.ext", ... when `usedNames` holds it already (compared
// without case, as some file systems do); the result is added to `usedNames`.
QString nbUniqueFileName(QSet<QString>& usedNames, const QString& name);

struct NBDocumentContent {
    NBDocumentKind kind = NBDocumentKind::Experiment;
    // The file said which kind it holds (Quillon Markdown, an archive); otherwise the caller chooses.
    bool kindIsKnown = false;
    QVariantMap metadata;
    QList<NBParagraph> paragraphs;
    QHash<QString, QString> attachmentFiles;
    // Holds the files extracted for this content, removed with the last copy.
    std::shared_ptr<QTemporaryDir> temporaryDirectory;

    QString uuid() const;
    QString title() const;
    QString author() const;

    // The content of an open document: its kind, metadata and paragraphs (numbered-list counters brought
    // up to date), and for each attachment the path of its file (nothing listed when the file is missing).
    static NBDocumentContent contentOfDocument(const NBDocument& document);

    // Writes the metadata (the keys valid for the document's kind; "uuid" only when the content has one),
    // the paragraphs after any the document already holds, and the attachment files, in one transaction
    // for the values. Fails, naming the file, when an attachment cannot be copied; the caller then discards
    // the document.
    bool fillDocument(NBDocument& document, NBError* outError = nullptr) const;

    // A new in-memory experiment or protocol (as `kind` says) holding the content. Without a UUID in the
    // metadata the document keeps the fresh one it was made with.
    std::shared_ptr<NBDocument> inMemoryDocument(NBError* outError = nullptr) const;

    // Writes the content as the package "<UUID>.nbexperiment" or "<UUID>.nbprotocol" in `folderPath` for
    // `deviceIdentifier`, and returns its path. The package is assembled under a hidden name in the same
    // folder and renamed into place when complete, so the folder never shows a partial package; on failure
    // nothing is left behind. A package with that UUID already in the folder is an error (code 30).
    QString writePackageInFolder(const QString& folderPath, const QString& deviceIdentifier,
                                 NBError* outError = nullptr) const;

    // Gives the content a fresh document UUID (for a copy of a document that is already present).
    void assignNewUUID();
};
