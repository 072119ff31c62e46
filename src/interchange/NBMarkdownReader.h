// NBMarkdownReader: Markdown files into document content, through discount.
//
// The file's front matter (NBFrontMatter) is taken off, the rest goes through discount to HTML, and the
// HTML through NBHTMLParagraphReader, which finds the paragraphs. A file whose front matter has the key
// "quillon" is in the Quillon Markdown form (NBMarkdownWriter.h describes it) and is read back exactly:
// its kind, UUID and metadata come from the front matter and its headings mean days, steps and sections.
// Any other Markdown (notes from an editor, a pandoc document, a protocol from a public repository) is read
// as the HTML reader's rules for other sources say: headings become sections (or days and steps where their
// text says so), the first level-1 heading the title, front-matter "title" and "author" (and pandoc's "%
// title" and "% author" lines) the metadata, "tags", "keywords" or "categories" a protocol's categories, and
// "summary", "description" or "abstract" a protocol's summary or an experiment's aim.
//
// discount runs with fixed flags: fenced code and tables on; smart punctuation, superscripts, alphabetic
// and definition lists, discount's own block extensions, pseudo-protocol links and pandoc headers off;
// bullets and numbered items never merge into one list; links whose protocol is not known to be safe are
// dropped. Bare addresses become links only outside the Quillon form, where they would change the text.
// discount keeps global state, so calls are serialised by one mutex.
//
// Limits, so that no file can exhaust the process (each refusal names the file):
//   - files larger than kMaximumFileSize, and files with NUL bytes (not text);
//   - quotes nested more than kMaximumQuoteDepth deep, or lines indented more than kMaximumIndentation
//     columns (discount's nesting is recursive and slows down with depth);
//   - text on which discount would search too long for closing brackets, backticks and angle brackets
//     (unclosed "[", "<" or long runs of "`" in very long paragraphs; complexityOfMarkdown measures it).
// Attachments are linked files at or below the Markdown file's folder (NBHTMLParagraphReader.h); in the
// Quillon form a missing attachment file refuses the whole file.
#pragma once

#include "interchange/NBDocumentContent.h"

#include <optional>

// Error codes of the "NBMarkdownReader" domain.
inline constexpr qint64 kNBMarkdownReaderErrorUnreadable = 10;
inline constexpr qint64 kNBMarkdownReaderErrorTooLarge = 20;
inline constexpr qint64 kNBMarkdownReaderErrorTooComplex = 30;
inline constexpr qint64 kNBMarkdownReaderErrorMissingAttachment = 40;
inline constexpr qint64 kNBMarkdownReaderErrorNotText = 50;

class NBMarkdownReader {
public:
    static constexpr qint64 kMaximumFileSize = 32 * 1024 * 1024;
    static constexpr int kMaximumQuoteDepth = 32;
    static constexpr int kMaximumIndentation = 256;
    // About a second of discount's searching on a slow machine (measured at 2 to 6 ns per unit).
    static constexpr qint64 kMaximumComplexity = 200'000'000;

    // Reads the file; attachments are looked for beside it.
    static std::optional<NBDocumentContent> contentFromMarkdownFile(const QString& path,
                                                                    NBError* outError = nullptr);
    // Reads Markdown text; `attachmentFolder` may be empty (no attachments); `sourceName` names the text in
    // errors and is the title of last resort.
    static std::optional<NBDocumentContent> contentFromMarkdownString(const QString& markdown,
                                                                      const QString& attachmentFolder,
                                                                      const QString& sourceName,
                                                                      NBError* outError = nullptr);

    // discount's HTML for Markdown text, with the flags above.
    static QString htmlFromMarkdown(const QString& markdown, bool quillonForm);
    // The units of searching discount would spend on the text (see above); kMaximumComplexity bounds it.
    static qint64 complexityOfMarkdown(QStringView markdown);
    // Why the text is refused (nesting or complexity), or nothing.
    static std::optional<QString> problemWithMarkdown(QStringView markdown);
};
