// Helpers shared by the interchange tests: random documents for round trips, comparison of paragraphs as
// the converters keep them, short descriptions of paragraphs, and the fixtures folder.
#pragma once

#include "document/NBSpreadsheetData.h"
#include "interchange/NBDocumentContent.h"
#include "text/testing/NBStyledTextGenerators.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QStringList>

#include <gtest/gtest.h>
#include <rapidcheck.h>

// Readable failure messages for Qt's strings.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QStringList& list, std::ostream* out) {
    *out << "{\n";
    for (const QString& text : list)
        *out << "  \"" << text.toStdString() << "\"\n";
    *out << "}";
}

namespace interchange {

inline QString fixturePath(const QString& name) {
    return QStringLiteral(QUILLON_SOURCE_DIR "/src/interchange/tests/fixtures/") + name;
}

// A paragraph as "type[level]: plain text" (tables as their cells joined by "|" and rows by "/").
inline QString describe(const NBParagraph& paragraph) {
    QString text = paragraph.type();
    if (paragraph.indentationLevel())
        text += QStringLiteral("[%1]").arg(*paragraph.indentationLevel());
    text += QStringLiteral(": ");
    if (paragraph.isTableType()) {
        QStringList rows;
        const NBSpreadsheetData data =
            NBSpreadsheetData::spreadsheetDataWithTableParagraph(paragraph).value_or(NBSpreadsheetData());
        for (const QStringList& row : data.arrayOfArrayOfMarkupStrings()) {
            QStringList cells;
            for (const QString& cell : row)
                cells.append(NBStyledString::styledStringFromMarkupString(cell).string());
            rows.append(cells.join(u'|'));
        }
        return text + rows.join(u'/');
    }
    if (paragraph.isDayType())
        return text + paragraph.day().stringRepresentation();
    return text + paragraph.styledContent().string();
}

inline QStringList describe(const QList<NBParagraph>& paragraphs) {
    QStringList result;
    for (const NBParagraph& paragraph : paragraphs)
        result.append(describe(paragraph));
    return result;
}

// Random text without characters no text format can carry (NUL, lone surrogates).
inline rc::Gen<NBStyledString> genContent() {
    return styledtext::genStyledString(styledtext::StyleRange::RichText);
}

// Paragraphs of every storable kind with random styled text; list levels nest as lists can (an item at
// most one level deeper than the item before it, the first item of a list at level 0).
inline rc::Gen<QList<NBParagraph>> genParagraphs(bool withAttachments) {
    return rc::gen::exec([withAttachments] {
        QList<NBParagraph> paragraphs;
        const int count = *rc::gen::inRange(0, 14);
        qint64 previousLevel = -1;
        for (int index = 0; index < count; ++index) {
            const int kind = *rc::gen::inRange(0, withAttachments ? 12 : 11);
            const QString content = (*genContent()).markupString();
            bool listItem = false;
            switch (kind) {
            case 0:
                if (*rc::gen::arbitrary<bool>())
                    paragraphs.append(NBParagraph::dayParagraphWithDay(
                        NBDay::relativeDayWithInteger(*rc::gen::inRange(-3, 40))));
                else
                    paragraphs.append(NBParagraph::dayParagraphWithDay(NBDay::dayWithDateComponents(
                        NBDayComponents{*rc::gen::inRange(1990, 2040), *rc::gen::inRange(1, 13), std::nullopt,
                                        *rc::gen::inRange(1, 29)})));
                break;
            case 1:
                paragraphs.append(NBParagraph::stepParagraphWithTitle(content, QString(), QString()));
                break;
            case 2:
                paragraphs.append(NBParagraph::sectionParagraphWithTitle(content));
                break;
            case 3:
                paragraphs.append(NBParagraph::normalParagraphWithContent(content));
                break;
            case 4:
            case 5: {
                const qint64 level = *rc::gen::inRange<qint64>(0, previousLevel + 2);
                paragraphs.append(kind == 4 ? NBParagraph::bulletParagraphWithContent(content, level)
                                            : NBParagraph::numberParagraphWithContent(content, level));
                previousLevel = level;
                listItem = true;
                break;
            }
            case 6:
                paragraphs.append(NBParagraph::codeParagraphWithContent(content));
                break;
            case 7:
                paragraphs.append(NBParagraph::noteParagraphWithContent(content));
                break;
            case 8:
                paragraphs.append(NBParagraph::warningParagraphWithContent(content));
                break;
            case 9:
                paragraphs.append(NBParagraph::errorParagraphWithContent(content));
                break;
            case 10: {
                QList<QStringList> rows;
                const int rowCount = *rc::gen::inRange(1, 4);
                const int columnCount = *rc::gen::inRange(1, 4);
                for (int row = 0; row < rowCount; ++row) {
                    QStringList cells;
                    for (int column = 0; column < columnCount; ++column)
                        cells.append((*genContent()).markupString());
                    rows.append(cells);
                }
                paragraphs.append(NBParagraph::tableParagraphWithRows(rows));
                break;
            }
            default: {
                const QString name =
                    *rc::gen::element<QString>("gel.png", "data 1.csv", "notes (v2).txt", "Ω.pdf");
                QString caption = (*genContent()).string().simplified();
                if (caption.isEmpty())
                    caption = QStringLiteral("caption");
                paragraphs.append(NBParagraph::attachmentParagraphWithContent(
                    NBStyledString(caption).markupString(), QStringLiteral("/somewhere/") + name));
            }
            }
            if (!listItem)
                previousLevel = -1;
        }
        return paragraphs;
    });
}

// What differs between the paragraphs as far as the converters keep them: kinds, list levels, days,
// styled text and table cells (rows padded to the widest), not UUIDs. Empty when nothing differs.
inline QString differenceBetweenParagraphs(const QList<NBParagraph>& expected,
                                           const QList<NBParagraph>& actual) {
    if (describe(actual) != describe(expected))
        return QStringLiteral("expected:\n  ") + describe(expected).join(QLatin1String("\n  ")) +
               QStringLiteral("\nactual:\n  ") + describe(actual).join(QLatin1String("\n  "));
    for (qsizetype index = 0; index < expected.size(); ++index) {
        const NBParagraph& want = expected[index];
        const NBParagraph& got = actual[index];
        if (want.isTableType()) {
            const NBSpreadsheetData left = *NBSpreadsheetData::spreadsheetDataWithTableParagraph(want);
            const NBSpreadsheetData right = *NBSpreadsheetData::spreadsheetDataWithTableParagraph(got);
            for (qsizetype row = 0; row < std::max(left.rowCount(), right.rowCount()); ++row)
                for (qsizetype column = 0; column < std::max(left.columnCount(), right.columnCount());
                     ++column) {
                    const NBStyledString leftCell =
                        NBStyledString::styledStringFromMarkupString(left.markupStringAtRow(row, column));
                    const NBStyledString rightCell =
                        NBStyledString::styledStringFromMarkupString(right.markupStringAtRow(row, column));
                    if (leftCell != rightCell)
                        return QStringLiteral("table %1 cell %2,%3: expected %4, got %5")
                            .arg(index)
                            .arg(row)
                            .arg(column)
                            .arg(leftCell.markupString(), rightCell.markupString());
                }
        } else if (!want.isDayType() && !want.isAttachmentType() &&
                   got.styledContent() != want.styledContent()) {
            return QStringLiteral("paragraph %1: expected %2, got %3")
                .arg(index)
                .arg(want.styledContent().markupString(), got.styledContent().markupString());
        }
    }
    return QString();
}

} // namespace interchange
