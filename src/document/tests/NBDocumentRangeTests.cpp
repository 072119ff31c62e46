// Tests of the document selection: its archive round trip and the archives it refuses.
#include "document/NBDocumentRange.h"
#include "foundation/NBPropertyList.h"

#include <gtest/gtest.h>

TEST(NBDocumentRange, ArchivesTextAndTableSelectionsAsPropertyLists) {
    const NBDocumentRange text = NBDocumentRange::documentRangeWithStartParagraphUUID("A", 3, "B", 0);
    const NBDocumentRange cells =
        NBDocumentRange::documentRangeWithTableParagraphUUID("T", {1, 2}, {0, 3}, {4, 5});
    EXPECT_EQ(text.propertyList(), (QVariantMap{{"startParagraphUUID", "A"},
                                                {"startIndex", qint64(3)},
                                                {"endParagraphUUID", "B"},
                                                {"endIndex", qint64(0)}}));
    EXPECT_FALSE(text.isTableRange());
    EXPECT_TRUE(cells.isTableRange());
    EXPECT_EQ(cells.startParagraphUUID(), cells.endParagraphUUID());
    EXPECT_EQ(cells.propertyList().value("colRange"),
              (QVariantMap{{"location", qint64(0)}, {"length", qint64(3)}}));

    for (const NBDocumentRange& range : {text, cells}) {
        // Through the binary form, as saved window state and the clipboard keep it.
        std::optional<QByteArray> data =
            dataWithPropertyList(range.propertyList(), NBPropertyListFormat::Binary);
        ASSERT_TRUE(data);
        std::optional<NBDocumentRange> read =
            NBDocumentRange::documentRangeWithPropertyList(*propertyListWithData(*data));
        ASSERT_TRUE(read);
        EXPECT_EQ(*read, range);
        NBDocumentRange copy = *read; // copies are independent values
        copy = text;
        EXPECT_EQ(*read, range);
    }
}

TEST(NBDocumentRange, RefusesArchivesWithMissingOrIllTypedFields) {
    const QVariantMap valid =
        NBDocumentRange::documentRangeWithTableParagraphUUID("T", {1, 2}, {0, 3}, {4, 5}).propertyList();
    const auto without = [&](const char* key) {
        QVariantMap map = valid;
        map.remove(key);
        return QVariant(map);
    };
    const auto with = [&](const char* key, const QVariant& value) {
        QVariantMap map = valid;
        map.insert(key, value);
        return QVariant(map);
    };
    const QVariant refused[] = {
        QVariant(),
        QVariant("T"),
        QVariant(QVariantList{valid}),
        without("startParagraphUUID"),
        without("endIndex"),
        without("colRange"),
        with("startIndex", "3"),
        with("startIndex", qint64(-1)),
        with("endIndex", 2.5),
        with("startParagraphUUID", 7),
        with("rowRange", QVariantMap{{"location", qint64(1)}}),
        with("rowRange", QVariantMap{{"location", qint64(1)}, {"length", true}}),
        with("editedCellSelectedRange", QVariantList{1, 2}),
    };
    for (const QVariant& archive : refused)
        EXPECT_FALSE(NBDocumentRange::documentRangeWithPropertyList(archive))
            << propertyListDescription(archive).toStdString();
    EXPECT_TRUE(NBDocumentRange::documentRangeWithPropertyList(
        with("unknownKey", 1))); // later versions may add fields
}
