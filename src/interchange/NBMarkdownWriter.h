// NBMarkdownWriter: documents as Markdown in the Quillon Markdown form, which any Markdown viewer shows
// naturally and NBMarkdownReader reads back to the same document.
//
// THE QUILLON MARKDOWN FORM (this file owns it)
//
//   ---                                   front matter (NBFrontMatter.h), every value JSON:
//   quillon: 1                              the form's version; its presence marks the form
//   kind: "protocol"                        "experiment" or "protocol"
//   uuid: "5A1C0E9B-..."                    the document's UUID
//   title: "Agarose gel electrophoresis"    then every other metadata key under its own name
//   categories: ["DNA"]                     ("doneParagraphUUIDs" and "vignetteUUID" of experiments are
//   doneParagraphs: [3, 7]                   written as the 1-based numbers of those paragraphs, under
//   ---                                      "doneParagraphs" and "vignetteParagraph")
//
//   # Agarose gel electrophoresis         the title again, for readers (skipped when read back)
//   ## Day 0                              a day: "Day n" for a relative day, "2024-03-07" for a calendar
//                                         day, "Day" alone for a day paragraph without a day
//   ### Cast the gel                      a step
//   #### Buffers                          a section
//   Text of a normal paragraph.           paragraphs, separated by blank lines; an empty one is <p></p>
//   - bullet                              bullets and numbered items, four spaces of indentation per
//       1. numbered item                  level; an item can only be one level deeper than the item before
//                                         it in the same list (deeper ones are written one level deeper)
//   > [!NOTE]                             notes, warnings and errors: a quote whose first line is the
//   > text                                marker [!NOTE], [!WARNING] or [!ERROR]
//   ```                                   code: a fenced block, or <pre><code> with HTML inside when the
//   code                                  code has styles, tabs, control characters or trailing blank lines
//   ```
//   | a | b |                             tables: the first row is the header row; rows are padded to the
//   |---|---|                             widest one; column widths are not written
//   [data.csv](Title_files/data.csv "attachment")        attachments: a link (an image for image files)
//   ![gel](Title_files/gel.png "attachment")             titled "attachment" to the file, which is written
//                                                        into the folder "<Markdown file name>_files"
//                                                        beside the Markdown file
//
// Styled text: **bold**, *italic* and ~~strike-through~~ where the text around them lets Markdown read
// them back unchanged (the styled stretch starts and ends with a letter or digit and no other marker
// starts or ends at the same place), <b>, <i> and <del> elsewhere; <u>, <sub>, <sup>, <mark> (pop) and
// <span style="..."> for colours and small capitals; links as [text](address), or <a href="..."> when the
// address has characters Markdown would change. Text escapes what Markdown or HTML would read as syntax
// (\*, \_, \`, \[, \], \\, &lt;, &gt;, &amp;, &#126; for "~", &#124; for "|", and "#", "-", "+", "=", ":"
// or a number's "." where a line starts); a line break is <br>. Text whose white space HTML would
// collapse (runs of spaces, tabs, spaces at either end or beside a line break) is wrapped in
// <span style="white-space:pre-wrap">. What the form does not keep: paragraph UUIDs, step and protocol
// UUIDs of steps, parent UUIDs, timers, table column widths, list levels that skip a level, and colours
// without a value.
#pragma once

#include "interchange/NBDocumentContent.h"
#include "text/NBStyledString.h"

#include <functional>

class NBDocument;

inline constexpr const char* kNBMarkdownFormKey = "quillon";
inline constexpr const char* kNBMarkdownKindKey = "kind";
inline constexpr const char* kNBMarkdownDoneParagraphsKey = "doneParagraphs";
inline constexpr const char* kNBMarkdownVignetteParagraphKey = "vignetteParagraph";
inline constexpr int kNBMarkdownFormVersion = 1;

// Error codes of the "NBMarkdownWriter" domain.
inline constexpr qint64 kNBMarkdownWriterErrorWrite = 10;

class NBMarkdownWriter {
public:
    // Where styled text stands: what it must escape, and how it writes line breaks.
    enum class Place { Paragraph, Heading, TableCell };

    // The Markdown of the content; `attachmentAddress` gives each attachment paragraph's relative address
    // (empty: the attachment is written as its text only).
    static QString
    markdownStringForContent(const NBDocumentContent& content,
                             const std::function<QString(const NBParagraph&)>& attachmentAddress);
    // Writes the Markdown file and, beside it, the folder of attachment files; replaces what was there.
    static bool writeContentToFile(const NBDocumentContent& content, const QString& path,
                                   NBError* outError = nullptr);
    static bool writeDocumentToFile(const NBDocument& document, const QString& path,
                                    NBError* outError = nullptr);

    // One piece of styled text in Markdown. `continuationPrefix` starts every line after a line break
    // (the quote marker or the list item's indentation).
    static QString inlineMarkdown(const NBStyledString& text, Place place,
                                  const QString& continuationPrefix = {});
    // The name of the attachment folder beside a Markdown file.
    static QString attachmentFolderNameForMarkdownPath(const QString& path);
};
