// Tests of Word import: documents made by pandoc and LibreOffice (see fixtures/word/README.md), and the
// files the reader refuses.
#include "NBInterchangeTestSupport.h"
#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "interchange/NBWordReader.h"
#include "interchange/NBZipArchive.h"

#include <gtest/gtest.h>

namespace {

using interchange::describe;
using interchange::fixturePath;

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

TEST(NBWordReader, ReadsDocumentsMadeByPandocAndLibreOffice) {
    struct Case {
        const char* fixture;
        QString title;
        QString author;
        QStringList paragraphs;
        // The styled text of the paragraph that shows every character style, as markup.
        QString styledParagraph;
        QString link;
    };
    const Case cases[] = {
        {"word/pandoc.docx",
         "Colony PCR screen",
         "Ada Lovelace",
         {"section: Materials", "normal: Plain text with bold, italic, underlined, struck, H2O and x2.",
          "bullet[0]: Taq master mix", "bullet[0]: Primers", "bullet[1]: forward", "bullet[1]: reverse",
          "number[0]: Pick a colony", "number[0]: Boil for 5 min", "number[1]: on a heat block",
          "note: Note that colonies must be fresh.", "code: 95 °C  2 min",
          "table: Lane|Sample/1|ladder/2|clone A", "attachment: Gel picture", "day: {day:1}",
          "normal: Results were good."},
         "Plain text with <b>bold</b>, <i>italic</i>, <u>underlined</u>, <del>struck</del>, H<sub>2</sub>O "
         "and "
         "x<sup>2</sup>.",
         QString()},
        {"word/libreoffice.docx",
         "Buffer preparation",
         "Grace Hopper",
         {"section: Materials", "normal: Mix bold, italic, underlined, struck, CO2, m3, red text and marked.",
          "bullet[0]: Tris base", "bullet[1]: for pH 8.0", "bullet[0]: NaCl", "number[0]: Weigh the salts",
          "number[0]: Stir for 10 min", "number[1]: until clear", "code: pH meter: calibrate at 7 and 10",
          "note: Keep the buffer at 4 °C.", "table: Reagent|Amount/Tris|12.1 g", "attachment: Gel",
          "day: {day:2}", "normal: Done, see the reference."},
         "Mix <b>bold</b>, <i>italic</i>, <u>underlined</u>, <del>struck</del>, CO<sub>2</sub>, "
         "m<sup>3</sup>, "
         "<c#FF0000>red text</c> and <h#FFFF00>marked</h>.",
         "Done, <a href=\"https://example.org/buffers\">see the reference</a>."},
    };
    for (const Case& testCase : cases) {
        NBError error;
        const std::optional<NBDocumentContent> content =
            NBWordReader::contentFromWordFile(fixturePath(testCase.fixture), &error);
        ASSERT_TRUE(content) << error.description().toStdString();
        EXPECT_TRUE(NBWordReader::isWordFile(fixturePath(testCase.fixture)));
        EXPECT_EQ(content->title(), testCase.title) << testCase.fixture;
        EXPECT_EQ(content->author(), testCase.author) << testCase.fixture;
        EXPECT_EQ(describe(content->paragraphs), testCase.paragraphs) << testCase.fixture;
        if (content->paragraphs.size() < 2)
            continue;
        EXPECT_EQ(content->paragraphs[1].content(), testCase.styledParagraph) << testCase.fixture;
        if (!testCase.link.isEmpty()) {
            EXPECT_EQ(content->paragraphs.last().content(), testCase.link) << testCase.fixture;
        }
        for (const NBParagraph& paragraph : content->paragraphs) {
            if (paragraph.isAttachmentType()) {
                EXPECT_EQ(fileBytes(content->attachmentFiles.value(paragraph.uuid())),
                          fileBytes(fixturePath("word/gel.png")))
                    << testCase.fixture;
            }
        }
    }
}

TEST(NBWordReader, RefusesFilesThatAreNoWordDocumentOrAreDamaged) {
    NBTemporaryDirectory folder;
    const auto makeZip = [&](const QString& name, const QList<std::pair<QString, QByteArray>>& entries) {
        NBZipWriter writer(folder.filePath(name));
        for (const auto& [entry, data] : entries)
            EXPECT_TRUE(writer.addData(entry, data));
        EXPECT_TRUE(writer.commit());
        return folder.filePath(name);
    };
    const QByteArray types = "<?xml version=\"1.0\"?><Types/>";
    const QByteArray opening =
        "<w:document xmlns:w=\"http://schemas.openxmlformats.org/wordprocessingml/2006/main\">"
        "<w:body>";
    QByteArray nested = opening;
    for (int level = 0; level < 100; ++level)
        nested += "<w:sdt><w:sdtContent>";
    nested += "<w:p><w:r><w:t>deep</w:t></w:r></w:p>";
    for (int level = 0; level < 100; ++level)
        nested += "</w:sdtContent></w:sdt>";
    nested += "</w:body></w:document>";
    QFile picture(folder.filePath("photo.docx"));
    ASSERT_TRUE(picture.open(QIODevice::WriteOnly));
    picture.write(QByteArray("\x89PNG\r\n\x1a\n", 8) + QByteArray(64, 'x'));
    picture.close();

    struct Case {
        QString path;
        qint64 code;
    };
    const Case cases[] = {
        {picture.fileName(), kNBWordReaderErrorNotWord},
        {makeZip("other.docx", {{"notes.txt", "hello"}}), kNBWordReaderErrorNotWord},
        {makeZip("cut.docx",
                 {{"[Content_Types].xml", types}, {"word/document.xml", opening + "<w:p><w:r><w:t>cut"}}),
         kNBWordReaderErrorDamaged},
        {makeZip("entities.docx",
                 {{"[Content_Types].xml", types},
                  {"word/document.xml",
                   "<!DOCTYPE d [<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;\">]>" + opening +
                       "<w:p><w:r><w:t>&b;</w:t></w:r></w:p></w:body></w:document>"}}),
         0},
        {makeZip("nested.docx", {{"[Content_Types].xml", types}, {"word/document.xml", nested}}),
         kNBWordReaderErrorDamaged},
    };
    NBMessageCapture capture;
    for (const Case& testCase : cases) {
        NBError error;
        const std::optional<NBDocumentContent> content =
            NBWordReader::contentFromWordFile(testCase.path, &error);
        if (testCase.code == 0) {
            // Entities declared in the file are never expanded: the text keeps the reference as it stands.
            ASSERT_TRUE(content) << testCase.path.toStdString();
            EXPECT_EQ(describe(content->paragraphs), QStringList({"normal: &b;"}));
            continue;
        }
        EXPECT_FALSE(content) << testCase.path.toStdString();
        EXPECT_EQ(error.code(), testCase.code) << testCase.path.toStdString();
        EXPECT_TRUE(error.localizedDescription().contains(testCase.path))
            << error.localizedDescription().toStdString();
    }
}

} // namespace
