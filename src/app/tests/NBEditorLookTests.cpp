// Tests of what the editor draws: every paragraph kind in a real window, with its markers, call-outs, table,
// attachments and timers. Set QUILLON_SCREENSHOT_DIR to keep the picture (run under Xvfb with
// QT_QPA_PLATFORM=xcb for a real window).
#include "NBEditorTestSupport.h"

#include "app/NBEditorWindow.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QMimeData>
#include <QPainter>
#include <QTextEdit>

#include <gtest/gtest.h>

namespace {

// How many pixels of the picture have (about) this colour.
int pixelsOfColor(const QImage& image, const QColor& color) {
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            if (std::abs(pixel.red() - color.red()) < 6 && std::abs(pixel.green() - color.green()) < 6 &&
                std::abs(pixel.blue() - color.blue()) < 6)
                ++count;
        }
    return count;
}

} // namespace

TEST(NBEditorLook, EveryKindIsDrawnWithItsLook) {
    NBTemporaryDirectory files;
    QImage photo(640, 200, QImage::Format_RGB32);
    photo.fill(QColor(0x40, 0x90, 0x60));
    QPainter(&photo).fillRect(40, 40, 200, 120, QColor(0xE0, 0xE0, 0x40));
    ASSERT_TRUE(photo.save(files.filePath("gel.png")));
    QFile protocolFile(files.filePath("protocol.pdf"));
    ASSERT_TRUE(protocolFile.open(QIODevice::WriteOnly));
    protocolFile.write(QByteArray(48 * 1024, 'x'));
    protocolFile.close();

    EditorFixture fixture({"day:2024-03-07", "step:Prepare the lysis buffer",
                           "normal:Mix <b>50 mM</b> tris with "
                           "NaCl; H<sub>2</sub>O to 1 l. Incubate 10 min at room temperature.",
                           "bullet0:tris pH 7.5", "bullet1:from the <i>cold room</i>", "number0:weigh",
                           "number0:dissolve", "code:python plot.py --gel lane3", "note:Keep on ice.",
                           "warning:Wear gloves: <u>phenol</u> burns.", "error:Lane 4 did not run.",
                           "section:Results", "step:Run the gel", "day:2024-03-08"});
    NBDocumentEditor& editor = *fixture.editor;
    editor.setCursorPosition(fixture.uuidAt(7), 0);
    ASSERT_TRUE(editor.attachFiles({files.filePath("gel.png"), files.filePath("protocol.pdf")}));
    editor.setCursorPosition(fixture.uuidAt(11), 0);
    QMimeData table;
    table.setHtml(
        "<table><tr><td><b>Lane</b></td><td><b>Sample</b></td><td><b>Band</b></td></tr>"
        "<tr><td>1</td><td>ladder</td><td>&#8212;</td></tr><tr><td>3</td><td>lysate</td><td>52 kDa</td></tr>"
        "</table>");
    editor.pasteMimeData(&table);
    editor.setParagraphDone(fixture.uuidAt(1), true);
    ASSERT_TRUE(editor.startTimer(fixture.uuidAt(2)));

    NBEditorWindow window(fixture.document);
    window.resize(900, 1400);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    QTest::qWait(100);
    const QImage picture = window.grab().toImage();
    if (const QString folder = qEnvironmentVariable("QUILLON_SCREENSHOT_DIR"); !folder.isEmpty()) {
        // The picture down to the end of the text.
        QTextEdit* text = window.editor()->textView();
        const int bottom =
            text->mapTo(&window, QPoint(0, 0)).y() + int(text->document()->size().height()) + 8;
        picture.copy(0, 0, picture.width(), std::min(picture.height(), bottom))
            .save(QDir(folder).filePath(QStringLiteral("editor-every-kind.png")));
    }

    // The call-out backgrounds, the code background, the image, the done step's circle and the running
    // timer's badge are all on screen.
    EXPECT_GT(pixelsOfColor(picture, QColor(0xE8, 0xF1, 0xFB)), 500);  // note
    EXPECT_GT(pixelsOfColor(picture, QColor(0xFF, 0xF4, 0xD6)), 500);  // warning
    EXPECT_GT(pixelsOfColor(picture, QColor(0xFD, 0xE7, 0xE7)), 500);  // error
    EXPECT_GT(pixelsOfColor(picture, QColor(0xE0, 0xE0, 0x40)), 2000); // the image, scaled
    EXPECT_GT(pixelsOfColor(picture, QColor(0x2E, 0x7D, 0x32)), 50);   // done step, running timer
    EXPECT_GT(pixelsOfColor(picture, QColor(0x1F, 0x3A, 0x5F)), 50);   // day headings, step numbers
}
