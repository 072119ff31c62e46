// Tests of Markdown import and export: the Quillon Markdown form read back unchanged, Markdown written by
// other tools read into sensible paragraphs, and the files and links the reader refuses.
#include "NBInterchangeTestSupport.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "interchange/NBMarkdownReader.h"
#include "interchange/NBMarkdownWriter.h"

#include <QFile>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using interchange::describe;

void writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

NBDocumentContent readMarkdown(const QString& markdown, const QString& folder = QString()) {
    NBError error;
    const std::optional<NBDocumentContent> content =
        NBMarkdownReader::contentFromMarkdownString(markdown, folder, QStringLiteral("test.md"), &error);
    EXPECT_TRUE(content) << error.description().toStdString();
    return content.value_or(NBDocumentContent());
}

RC_GTEST_PROP(NBMarkdown, QuillonFormReadsBackTheSameDocument, ()) {
    NBTemporaryDirectory folder;
    NBDocumentContent content;
    content.kind = *rc::gen::arbitrary<bool>() ? NBDocumentKind::Protocol : NBDocumentKind::Experiment;
    content.paragraphs = *interchange::genParagraphs(true);
    const auto text = [] { return (*interchange::genContent()).string(); };
    content.metadata = {{"uuid", NBParagraph::newUUIDString()}, {"title", text()}, {"author", text()}};
    if (content.kind == NBDocumentKind::Protocol) {
        content.metadata.insert("summary", text());
        content.metadata.insert("categories", QVariantList{text(), text()});
    } else {
        content.metadata.insert("aim", text());
        content.metadata.insert("rating", qint64(*rc::gen::inRange(0, 6)));
        content.metadata.insert("done", *rc::gen::arbitrary<bool>());
        QVariantList done;
        for (const NBParagraph& paragraph : std::as_const(content.paragraphs))
            if (paragraph.isStepType())
                done.append(paragraph.uuid());
        content.metadata.insert("doneParagraphUUIDs", done);
    }
    QList<QByteArray> attachmentBytes;
    for (qsizetype index = 0; index < content.paragraphs.size(); ++index) {
        const NBParagraph& paragraph = content.paragraphs[index];
        if (!paragraph.isAttachmentType())
            continue;
        const QString path = folder.filePath(QStringLiteral("sources/%1/").arg(index) +
                                             QFileInfo(paragraph.sourcePath()).fileName());
        attachmentBytes.append("file " + QByteArray::number(index));
        writeFile(path, attachmentBytes.last());
        content.attachmentFiles.insert(paragraph.uuid(), path);
    }

    const QString path = folder.filePath(QStringLiteral("out/Document.md"));
    QDir().mkpath(folder.filePath(QStringLiteral("out")));
    NBError error;
    RC_ASSERT(NBMarkdownWriter::writeContentToFile(content, path, &error));
    const std::optional<NBDocumentContent> read = NBMarkdownReader::contentFromMarkdownFile(path, &error);
    RC_ASSERT(read.has_value());
    const QString difference = interchange::differenceBetweenParagraphs(content.paragraphs, read->paragraphs);
    if (!difference.isEmpty())
        RC_FAIL(difference.toStdString() + "\n" + readFile(path).toStdString());
    RC_ASSERT(read->kindIsKnown);
    RC_ASSERT(read->kind == content.kind);
    QVariantMap expected = content.metadata;
    QVariantMap actual = read->metadata;
    // Paragraph references point at the new paragraphs in the same places.
    QVariantList doneIndices;
    for (const QVariant& uuid : expected.take("doneParagraphUUIDs").toList())
        for (qsizetype index = 0; index < content.paragraphs.size(); ++index)
            if (content.paragraphs[index].uuid() == uuid.toString())
                doneIndices.append(read->paragraphs[index].uuid());
    if (content.kind == NBDocumentKind::Experiment)
        expected.insert("doneParagraphUUIDs", doneIndices);
    RC_ASSERT(actual == expected);
    qsizetype attachment = 0;
    for (const NBParagraph& paragraph : read->paragraphs) {
        if (!paragraph.isAttachmentType())
            continue;
        RC_ASSERT(readFile(read->attachmentFiles.value(paragraph.uuid())) == attachmentBytes[attachment++]);
    }
}

TEST(NBMarkdown, QuillonFormLooksLikeOrdinaryMarkdown) {
    NBDocumentContent content;
    content.kind = NBDocumentKind::Protocol;
    content.metadata = {{"uuid", "5A1C0E9B-0000-4000-8000-000000000001"},
                        {"title", "Gel"},
                        {"categories", QVariantList{"DNA"}}};
    content.paragraphs = {
        NBParagraph::dayParagraphWithDay(NBDay::relativeDayWithInteger(0)),
        NBParagraph::stepParagraphWithTitle("Cast the <b>gel</b>", QString(), QString()),
        NBParagraph::numberParagraphWithContent("Boil for 2 min", 0),
        NBParagraph::bulletParagraphWithContent("C# &amp; 1-2 µl", 1),
        NBParagraph::warningParagraphWithContent("Ethidium is toxic"),
        NBParagraph::tableParagraphWithRows({{"Lane", "Sample"}, {"1", "<i>ladder</i>"}}),
    };
    NBParagraph::updateNumberedListCountersForParagraphs(content.paragraphs);
    EXPECT_EQ(NBMarkdownWriter::markdownStringForContent(content, {}).toStdString(),
              "---\n"
              "quillon: 1\n"
              "kind: \"protocol\"\n"
              "uuid: \"5A1C0E9B-0000-4000-8000-000000000001\"\n"
              "title: \"Gel\"\n"
              "categories: [\"DNA\"]\n"
              "---\n"
              "\n"
              "# Gel\n"
              "\n"
              "## Day 0\n"
              "\n"
              "### Cast the **gel**\n"
              "\n"
              "1. Boil for 2 min\n"
              "    - C# &amp; 1-2 µl\n"
              "\n"
              "> [!WARNING]\n"
              "> Ethidium is toxic\n"
              "\n"
              "| Lane | Sample |\n"
              "|---|---|\n"
              "| 1 | *ladder* |\n");
}

TEST(NBMarkdown, MarkdownFromOtherToolsReadsAsSensibleParagraphs) {
    struct Case {
        const char* name;
        QString markdown;
        QString title;
        QStringList paragraphs;
    };
    const Case cases[] = {
        {"pandoc document",
         "% Miniprep\n% A. Author\n\n# Materials\n\n* Buffer P1\n* Buffer P2\n    + RNase A\n\n"
         "# Procedure\n\n1. Spin 5 min at 13000 g.\n2. Add 250 µl P1.\n\n```python\nprint(1)\n```\n",
         "Miniprep",
         {"section: Materials", "bullet[0]: Buffer P1", "bullet[0]: Buffer P2", "bullet[1]: RNase A",
          "section: Procedure", "number[0]: Spin 5 min at 13000 g.", "number[0]: Add 250 µl P1.",
          "code: print(1)"}},
        {"notes from an editor, with front matter, callouts and a task list",
         "---\ntitle: Lab notes\ntags:\n  - cloning\n  - PCR\n---\n\n## 2024-03-07\n\n**Results**\n\n"
         "> [!warning] Gel cracked\n> Redo tomorrow.\n\n> plain quote\n\nSee <https://example.org>.\n\n"
         "| a | b |\n|:-|-:|\n| 1 | 2 |\n",
         "Lab notes",
         {"day: {year:2024,month:3,day:7}", "section: Results", "warning: Gel cracked Redo tomorrow.",
          "note: plain quote", "normal: See https://example.org.", "table: a|b/1|2"}},
        {"a protocol from a public repository",
         "Transformation\n==============\n\nHeat-shock protocol.\n\nStep 1: Thaw "
         "cells\n------------------\n\n"
         "Thaw on ice for 10 min.\n\n## Step 2\n\nHeat at 42 °C for 45 s.\n\n<div class=\"warning\">Do not "
         "vortex.</div>\n",
         "Transformation",
         {"normal: Heat-shock protocol.", "step: Thaw cells", "normal: Thaw on ice for 10 min.",
          "step: Step 2", "normal: Heat at 42 °C for 45 s.", "warning: Do not vortex."}},
        {"loose lists, numbered items in bullets and headings with days",
         "# Day 1\n\n- first\n\n  continued\n\n- second\n    1. inner\n\n### Day -2\n\n---\n\ntext after a "
         "rule\n",
         "test",
         {"day: {day:1}", "bullet[0]: first\ncontinued", "bullet[0]: second", "number[1]: inner",
          "day: {day:-2}", "normal: text after a rule"}},
    };
    for (const Case& testCase : cases) {
        const NBDocumentContent content = readMarkdown(testCase.markdown);
        EXPECT_EQ(content.title(), testCase.title) << testCase.name;
        EXPECT_EQ(describe(content.paragraphs), testCase.paragraphs) << testCase.name;
    }
    const NBDocumentContent tagged =
        readMarkdown("---\ntitle: x\ntags: [cloning, PCR]\nauthor: 'Ada'\n---\ntext\n");
    EXPECT_EQ(tagged.metadata.value("categories").toStringList(), QStringList({"cloning", "PCR"}));
    EXPECT_EQ(tagged.author(), "Ada");
    EXPECT_FALSE(tagged.kindIsKnown);
}

TEST(NBMarkdown, AttachmentsAreFilesBesideTheMarkdownOnly) {
    NBTemporaryDirectory folder;
    writeFile(folder.filePath("notes/figures/gel 1.png"), "png");
    writeFile(folder.filePath("secret.txt"), "secret");
    QFile::link(folder.filePath("secret.txt"), folder.filePath("notes/link.txt"));
    writeFile(folder.filePath("notes/notes.md"),
              "![Gel](figures/gel%201.png)\n\n[up](../secret.txt)\n\n[abs](" +
                  folder.filePath("secret.txt").toUtf8() +
                  ")\n\n[linked](link.txt)\n\n[web](https://example.org/x.pdf)\n\n![remote](https://"
                  "example.org/a.png)\n");
    NBError error;
    const std::optional<NBDocumentContent> content =
        NBMarkdownReader::contentFromMarkdownFile(folder.filePath("notes/notes.md"), &error);
    ASSERT_TRUE(content);
    EXPECT_EQ(describe(content->paragraphs),
              QStringList({"attachment: Gel", "normal: up", "normal: abs", "normal: linked", "normal: web",
                           "normal: remote"}));
    EXPECT_EQ(content->attachmentFiles.size(), 1);
    EXPECT_EQ(readFile(content->attachmentFiles.value(content->paragraphs[0].uuid())), "png");

    // In the Quillon form a missing attachment refuses the file, naming it and the link.
    writeFile(folder.filePath("notes/q.md"), "---\nquillon: 1\n---\n[data](gone.csv \"attachment\")\n");
    NBMessageCapture capture;
    EXPECT_FALSE(NBMarkdownReader::contentFromMarkdownFile(folder.filePath("notes/q.md"), &error));
    EXPECT_EQ(error.code(), kNBMarkdownReaderErrorMissingAttachment);
    EXPECT_TRUE(error.localizedDescription().contains("q.md")) << error.localizedDescription().toStdString();
    EXPECT_TRUE(error.localizedDescription().contains("gone.csv"));
}

TEST(NBMarkdown, RefusesFilesThatWouldExhaustTheReader) {
    NBTemporaryDirectory folder;
    struct Case {
        const char* name;
        QByteArray bytes;
        qint64 code;
    };
    const Case cases[] = {
        {"quotes nested deeply", QByteArray(100000, '>') + " x\n", kNBMarkdownReaderErrorTooComplex},
        {"lists indented deeply",
         [] {
             QByteArray text;
             for (int level = 0; level < 100; ++level)
                 text += QByteArray(4 * level, ' ') + "- x\n";
             return text;
         }(),
         kNBMarkdownReaderErrorTooComplex},
        {"unclosed brackets", QByteArray(64000, '['), kNBMarkdownReaderErrorTooComplex},
        {"unclosed angle brackets", QByteArray(64000, '<'), kNBMarkdownReaderErrorTooComplex},
        {"a long run of backticks", QByteArray(64000, '`'), kNBMarkdownReaderErrorTooComplex},
        {"binary", QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), kNBMarkdownReaderErrorNotText},
    };
    NBMessageCapture capture;
    for (const Case& testCase : cases) {
        const QString path = folder.filePath(QString::fromUtf8(testCase.name) + ".md");
        writeFile(path, testCase.bytes);
        NBError error;
        EXPECT_FALSE(NBMarkdownReader::contentFromMarkdownFile(path, &error)) << testCase.name;
        EXPECT_EQ(error.code(), testCase.code) << testCase.name;
        EXPECT_TRUE(error.localizedDescription().contains(path)) << testCase.name;
    }
    QFile large(folder.filePath("large.md"));
    ASSERT_TRUE(large.open(QIODevice::WriteOnly) && large.resize(NBMarkdownReader::kMaximumFileSize + 1));
    large.close();
    NBError error;
    EXPECT_FALSE(NBMarkdownReader::contentFromMarkdownFile(large.fileName(), &error));
    EXPECT_EQ(error.code(), kNBMarkdownReaderErrorTooLarge);

    // Large files of ordinary text stay well inside the limits.
    QString table = "| a | b | c |\n|---|---|---|\n";
    for (int row = 0; row < 1000; ++row)
        table += QStringLiteral("| `code%1` | [link](http://x/%1) | <b>x</b> **y** |\n").arg(row);
    EXPECT_LT(NBMarkdownReader::complexityOfMarkdown(table), NBMarkdownReader::kMaximumComplexity / 100);
    EXPECT_EQ(describe(readMarkdown(table).paragraphs).size(), 1);
}

} // namespace
