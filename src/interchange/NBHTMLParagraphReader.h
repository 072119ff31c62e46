// NBHTMLParagraphReader: turns HTML (the output of discount for a Markdown file, an HTML file, the text of
// an .eln dataset) into paragraphs.
//
// The structure comes from the elements (NBHTMLTree); the text and styles of each paragraph come from the
// styled-text HTML reader (NBStyledString::styledStringFromHTMLString) over the exact source of that
// paragraph, so headings and table headers carry only the styles written inside them, not the bold that a
// browser would draw.
//
// Elements and what they become:
//   h1 ... h6         see "Headings" below
//   p, loose text     a normal paragraph; inside a blockquote a callout (below); a paragraph that is only a
//                     link to a file beside the source becomes an attachment (below)
//   blockquote        callouts: a paragraph that begins with a marker "[!NOTE]", "[!WARNING]" or "[!ERROR]"
//                     (any case; also TIP, INFO, IMPORTANT, HINT, TODO, EXAMPLE, QUESTION, ABSTRACT, SUMMARY
//                     and QUOTE for notes; CAUTION, ATTENTION and DANGER for warnings; FAILURE, FAIL, BUG and
//                     MISSING for errors) loses the marker and is of that kind, and so are the paragraphs
//                     after it in the same blockquote; before any marker they are notes. A div whose class
//                     names "note", "warning" or "error" reads the same way.
//   ul, ol, li        bullets and numbered items; a list inside an item is one level deeper. An item's later
//                     paragraphs join its text after a line break.
//   pre               a code paragraph with its text as written (one final line break, which discount
//                     always adds, removed)
//   table             a table paragraph, rows of th and td cells (a cell spanning n columns is followed by
//                     n - 1 empty ones)
//   img, a            alone in a paragraph and pointing at a file beside the source: an attachment (below);
//                     an image elsewhere is dropped, an image alone that is no attachment becomes a link to
//                     its address
//   hr, script, style, head, template  nothing; title gives the title when none was found
//   anything else     its content, read by these same rules
//
// Headings. In the Quillon Markdown form (quillonForm): level 1 at the very start is the title, level 2 a
// day ("Day 3" a relative day, "2024-03-07" a calendar day, "Day" alone a day paragraph without a day;
// any other text a section), level 3 a step, levels 4 to 6 sections. From other sources: a heading whose
// text is a day in those forms is a day; the first level-1 heading before any paragraph is the title; a
// heading "Step 3: ..." (also "Step 3.", "Step 3 -" or "Step 3" alone) is a step with the text after the
// number; any other heading is a section. A paragraph that is bold all through is a section too (bold
// removed), as notes from other programs mark headings that way.
//
// Attachments. Links are followed only to regular files at or below `attachmentFolder` (after resolving
// "..", symbolic links and percent-escapes), never to absolute paths, other schemes or files outside it,
// so a file cannot make an import read what lies elsewhere on the disk. In the Quillon form an attachment
// is the link or image whose title is "attachment", and its file must exist (a missing one is listed in
// `missingFiles`, and the Markdown reader refuses the file); from other sources any paragraph that is only
// such a link or image is an attachment, and a link to a missing file stays a link.
#pragma once

#include "document/NBParagraph.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

struct NBHTMLReadOptions {
    bool quillonForm = false;
    // Relative links to files at or below this folder become attachments; empty: no attachments.
    QString attachmentFolder;
    // The caller has a title already: a leading level-1 heading of another source stays a section.
    bool titleKnown = false;
};

struct NBHTMLReadResult {
    QList<NBParagraph> paragraphs;
    // The title found in the text (a leading level-1 heading, or the title element); null when none.
    QString title;
    // Paragraph UUID -> absolute path of the attachment's file.
    QHash<QString, QString> attachmentFiles;
    // Attachment links of the Quillon form whose files are missing, as written.
    QStringList missingFiles;
};

class NBHTMLParagraphReader {
public:
    static NBHTMLReadResult paragraphsFromHTML(const QString& html, const NBHTMLReadOptions& options);

    // The paragraph a heading from a source other than the Quillon form becomes, by the rules above: a day,
    // a step or a section; nothing when it is the title (`mayBeTitle`: a level-1 heading before any
    // paragraph, with no title known), which then goes to *outTitle.
    static std::optional<NBParagraph> paragraphForHeading(int level, const NBStyledString& text,
                                                          bool mayBeTitle, QString* outTitle);
    // The day a heading's text names: "Day 3", "Day -1", "2024-03-07"; a null day for other text.
    static NBDay dayFromHeadingText(QStringView text);
    // The heading text of a day, which dayFromHeadingText reads back: "Day 3", "2024-03-07", "Day" for a
    // null day.
    static QString headingTextForDay(const NBDay& day);
    // The kind a callout marker word names ("NOTE", "warning", ...), or nothing.
    static std::optional<NBParagraphKind> calloutKindForMarker(QStringView word);
    // The local file a link of the source points at, under the rules above; nothing when it points
    // elsewhere. `outInsideButMissing` tells whether the link stays inside the folder but no file is there.
    static std::optional<QString> localFileForLink(const QString& address, const QString& folder,
                                                   bool* outInsideButMissing = nullptr);
};
