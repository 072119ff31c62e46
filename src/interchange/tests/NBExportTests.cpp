// Tests of HTML, PDF and OpenDocument export: user text escaped, images embedded and other files linked,
// and the PDF and OpenDocument files as other programs read them (poppler's pdfinfo, pdftotext and pdftoppm;
// the OpenDocument package's parts).
#include "NBInterchangeTestSupport.h"
#include "foundation/testing/NBCommandRun.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "interchange/NBBuiltInProtocols.h"
#include "interchange/NBHTMLWriter.h"
#include "interchange/NBMarkdownReader.h"
#include "interchange/NBRichTextExport.h"
#include "interchange/NBZipArchive.h"

#include <QImage>

#include <gtest/gtest.h>

namespace {

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A protocol with every kind of paragraph, hostile text, a picture and a data file.
NBDocumentContent sampleContent(const NBTemporaryDirectory& folder) {
    // Agarose gel electrophoresis.
    NBDocumentContent content = *NBMarkdownReader::contentFromMarkdownFile(
        NBBuiltInProtocols::resourcesDirectory() +
        "/BuiltInProtocols/B7C09DFB-5395-45D9-8A3F-95F2D3F08AA1.mdown");
    content.metadata.insert("title", "Gel <script>alert(\"x\")</script> & Co");
    content.metadata.insert("author", "O'Brien \"Lab\"");
    QImage picture(240, 120, QImage::Format_RGB32);
    picture.fill(QColor(40, 160, 90));
    picture.save(folder.filePath("gel.png"));
    QFile data(folder.filePath("lanes.csv"));
    EXPECT_TRUE(data.open(QIODevice::WriteOnly));
    data.write("lane,sample\n1,ladder\n");
    data.close();
    NBParagraph image = NBParagraph::attachmentParagraphWithContent("Gel after 45 min", "/bench/gel.png");
    NBParagraph table = NBParagraph::attachmentParagraphWithContent("Lane list", "/bench/lanes.csv");
    content.attachmentFiles.insert(image.uuid(), folder.filePath("gel.png"));
    content.attachmentFiles.insert(table.uuid(), folder.filePath("lanes.csv"));
    content.paragraphs.append({image, table,
                               NBParagraph::normalParagraphWithContent(
                                   "&lt;img src=x onerror=alert(1)> <a href=\"javascript:alert(1)\">bad</a> "
                                   "<a href=\"https://example.org/gels\">good</a>"),
                               NBParagraph::tableParagraphWithRows({{"&lt;/td>&lt;script>", "cell"}})});
    return content;
}

TEST(NBExport, HTMLEscapesEveryUserTextEmbedsPicturesAndLinksOtherFiles) {
    NBTemporaryDirectory folder;
    const NBDocumentContent content = sampleContent(folder);
    const QString path = folder.filePath("out/Gel export.html");
    QDir().mkpath(folder.filePath("out"));
    NBError error;
    ASSERT_TRUE(NBHTMLWriter::writeContentToFile(content, path, &error)) << error.description().toStdString();
    const QString html = QString::fromUtf8(fileBytes(path));
    EXPECT_FALSE(html.contains("<script", Qt::CaseInsensitive));
    EXPECT_FALSE(html.contains("javascript:", Qt::CaseInsensitive));
    EXPECT_FALSE(html.contains("<img src=x", Qt::CaseInsensitive));
    EXPECT_TRUE(
        html.contains("<title>Gel &lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt; &amp; Co</title>"));
    EXPECT_TRUE(html.contains("O&#39;Brien &quot;Lab&quot;"));
    EXPECT_TRUE(html.contains("<a href=\"https://example.org/gels\">good</a>"));
    EXPECT_TRUE(html.contains("data:image/png;base64," + fileBytes(folder.filePath("gel.png")).toBase64()));
    EXPECT_TRUE(html.contains("<a href=\"Gel%20export_files/lanes.csv\">Lane list</a>"));
    EXPECT_EQ(fileBytes(folder.filePath("out/Gel export_files/lanes.csv")),
              fileBytes(folder.filePath("lanes.csv")));
    // Steps are numbered from 1 after each day, numbered items by the list counters.
    EXPECT_TRUE(html.contains("Step 1 — </span>Cast the gel"));
    EXPECT_TRUE(html.contains("Step 2 — </span>Load and run"));
    EXPECT_TRUE(html.contains("<span class=\"marker\">5.</span>Let the gel set"));
    EXPECT_TRUE(html.contains("<div class=\"callout warning\"><span class=\"label\">Warning</span>"));
}

TEST(NBExport, PDFHasTheTextPicturesPageNumbersAndPaperOfTheLocale) {
    NBTemporaryDirectory folder;
    NBDocumentContent content = sampleContent(folder);
    for (int index = 0; index < 40; ++index)
        content.paragraphs.append(
            NBParagraph::numberParagraphWithContent(QStringLiteral("Filler step %1").arg(index), 0));
    struct Case {
        const char* locale;
        const char* paper;
    };
    for (const Case& testCase :
         {Case{"en_US.UTF-8", "612 x 792 pts (letter)"}, Case{"de_DE.UTF-8", "595 x 842 pts (A4)"}}) {
        qputenv("LC_ALL", testCase.locale);
        const QString path = folder.filePath(QStringLiteral("%1.pdf").arg(testCase.locale));
        NBError error;
        ASSERT_TRUE(NBRichTextExport::writePDF(content, path, &error)) << error.description().toStdString();
        const NBCommandRun info = nbRunCommand("pdfinfo", {path});
        ASSERT_EQ(info.exitCode, 0) << info.describe();
        EXPECT_TRUE(info.out.contains(QStringLiteral("Page size:       ") + testCase.paper))
            << info.describe();
        EXPECT_TRUE(info.out.contains("Title:           Gel <script>")) << info.describe();
        EXPECT_TRUE(info.out.contains("Pages:           2") || info.out.contains("Pages:           3"))
            << info.describe();
        const NBCommandRun text = nbRunCommand("pdftotext", {"-layout", path, "-"});
        ASSERT_EQ(text.exitCode, 0) << text.describe();
        for (const char* expected :
             {"Gel <script>alert(\"x\")</script> & Co", "Page 1 of ", "Step 1 — Cast the gel",
              "Ethidium bromide is a mutagen", "Lane list", "</td><script>", "Filler step 39"})
            EXPECT_TRUE(text.out.contains(QString::fromUtf8(expected))) << expected << "\n"
                                                                        << text.describe();
    }
    qunsetenv("LC_ALL");
    // The picture is drawn: the page that shows it has its green.
    const NBCommandRun render = nbRunCommand(
        "pdftoppm", {"-r", "40", "-png", folder.filePath("de_DE.UTF-8.pdf"), folder.filePath("page")});
    ASSERT_EQ(render.exitCode, 0) << render.describe();
    int greenPixels = 0;
    for (const QString& name : QDir(folder.path()).entryList({"page*.png"})) {
        const QImage page(folder.filePath(name));
        for (int y = 0; y < page.height(); ++y)
            for (int x = 0; x < page.width(); ++x) {
                const QColor color = page.pixelColor(x, y);
                greenPixels += std::abs(color.red() - 40) < 12 && std::abs(color.green() - 160) < 12 &&
                               std::abs(color.blue() - 90) < 12;
            }
    }
    EXPECT_GT(greenPixels, 200);
}

TEST(NBExport, OpenDocumentTextHoldsTheTextAndThePicture) {
    NBTemporaryDirectory folder;
    const NBDocumentContent content = sampleContent(folder);
    const QString path = folder.filePath("out.odt");
    NBError error;
    ASSERT_TRUE(NBRichTextExport::writeOpenDocument(content, path, &error))
        << error.description().toStdString();
    const std::unique_ptr<NBZipReader> package = NBZipReader::open(path, &error);
    ASSERT_TRUE(package) << error.description().toStdString();
    EXPECT_EQ(package->readEntry("mimetype", 100), "application/vnd.oasis.opendocument.text");
    const QString text = QString::fromUtf8(package->readEntry("content.xml", 1 << 24).value_or(QByteArray()));
    EXPECT_TRUE(text.contains("Ethidium bromide is a mutagen"));
    EXPECT_TRUE(text.contains("&lt;/td&gt;&lt;script&gt;"));
    bool picture = false;
    for (const NBZipReader::Entry& entry : package->entries())
        picture = picture || entry.name.startsWith("Pictures/");
    EXPECT_TRUE(picture);
}

} // namespace
