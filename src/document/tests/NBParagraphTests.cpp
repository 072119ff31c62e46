// Tests of the paragraph value: its kinds, rebuilding from stored info, property access by kind, copies,
// equality, the table cell grid, text and days, timers, and that any stored dictionary is read safely.
#include "document/NBParagraph.h"
#include "document/NBSpreadsheetData.h"
#include "foundation/NBPropertyList.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

QVariantMap infoWithType(const char* type, QVariantMap more = {}) {
    more.insert(kNBParagraphTypeKey, QString::fromUtf8(type));
    return more;
}

} // namespace

TEST(NBParagraph, KindTablesMatchTheStoredFormat) {
    const struct {
        NBParagraphKind kind;
        const char* className;
        const char* type;
        int headerLevel;
        bool storable;
        const char* properties;
    } kinds[] = {
        {NBParagraphKind::Day, "NBParagraphDay", "day", 1, true, "dayRep"},
        {NBParagraphKind::Step, "NBParagraphStep", "step", 2, true, "content stepUUID protocolUUID"},
        {NBParagraphKind::Section, "NBParagraphSection", "section", 3, true, "content parentUUID"},
        {NBParagraphKind::Normal, "NBParagraphNormal", "normal", 4, true,
         "content parentUUID timerStart timerStop timerDuration timerElapsed timerAppearance"},
        {NBParagraphKind::Bullet, "NBParagraphBullet", "bullet", 4, true,
         "content parentUUID indentationLevel timerStart timerStop timerDuration timerElapsed "
         "timerAppearance"},
        {NBParagraphKind::Number, "NBParagraphNumber", "number", 4, true,
         "content parentUUID indentationLevel timerStart timerStop timerDuration timerElapsed "
         "timerAppearance"},
        {NBParagraphKind::Code, "NBParagraphCode", "code", 4, true,
         "content parentUUID timerStart timerStop timerDuration timerElapsed timerAppearance"},
        {NBParagraphKind::Note, "NBParagraphNote", "note", 4, true, "content parentUUID"},
        {NBParagraphKind::Warning, "NBParagraphWarning", "warning", 4, true, "content parentUUID"},
        {NBParagraphKind::Error, "NBParagraphError", "error", 4, true, "content parentUUID"},
        {NBParagraphKind::Attachment, "NBParagraphAttachment", "attachment", 4, true,
         "content parentUUID sourcePath"},
        {NBParagraphKind::Table, "NBParagraphTable", "table", 4, true,
         "content parentUUID tableColumnWidths"},
        {NBParagraphKind::Fragment, "NBParagraphFragment", "fragment", 4, false, "content"},
        {NBParagraphKind::PlainTextFragment, "NBParagraphPlainTextFragment", "text", 4, false, "content"},
    };
    QSet<QString> union_;
    for (const auto& expected : kinds) {
        SCOPED_TRACE(expected.className);
        EXPECT_EQ(NBParagraph::classNameForKind(expected.kind), expected.className);
        EXPECT_EQ(NBParagraph::typeForKind(expected.kind), expected.type);
        EXPECT_EQ(NBParagraph::headerLevelForKind(expected.kind), expected.headerLevel);
        const QStringList properties = QString::fromUtf8(expected.properties).split(' ');
        EXPECT_EQ(NBParagraph::propertyNamesByClass().value(expected.className), properties);
        union_.unite(QSet<QString>(properties.begin(), properties.end()));
        std::optional<NBParagraphKind> rebuilt = NBParagraph::paragraphSubclassForType(expected.type);
        EXPECT_EQ(rebuilt.has_value(), expected.storable);
        if (rebuilt) {
            EXPECT_EQ(*rebuilt, expected.kind);
        }
    }
    EXPECT_EQ(NBParagraph::propertyNamesByClass().size(), 14);
    EXPECT_EQ(NBParagraph::allPropertyNames(), union_);
    EXPECT_FALSE(NBParagraph::paragraphSubclassForType("Step"));
    EXPECT_FALSE(NBParagraph::paragraphSubclassForType(QString()));

    // Exactly one type test answers yes for each kind.
    const NBParagraph number = NBParagraph::numberParagraphWithContent("x", 0);
    EXPECT_TRUE(number.isNumberType());
    EXPECT_FALSE(number.isBulletType() || number.isNormalType() || number.isFragment() || number.isDayType());
    EXPECT_TRUE(NBParagraph::paragraphPlainTextFragmentWithContent("x").isPlainTextFragment());
}

TEST(NBParagraph, RebuildsStoredInfoOfStorableTypesOnly) {
    for (const char* type : {"fragment", "text", "paragraph", "", "STEP"})
        EXPECT_FALSE(NBParagraph::paragraphWithUUID("U", infoWithType(type))) << type;
    EXPECT_FALSE(NBParagraph::paragraphWithUUID("U", {{"content", "no type"}}));
    EXPECT_FALSE(NBParagraph::paragraphWithUUID("U", {{"type", 3}}));

    // Unknown keys, and keys the kind does not allow, are kept as stored and written back unchanged.
    const QVariantMap stored = infoWithType(
        "step", {{"content", "Lyse cells"}, {"futureKey", QVariantList{1, "two"}}, {"parentUUID", "P"}});
    std::optional<NBParagraph> step = NBParagraph::paragraphWithUUID("UUID-1", stored);
    ASSERT_TRUE(step);
    EXPECT_EQ(step->uuid(), "UUID-1");
    EXPECT_EQ(step->kind(), NBParagraphKind::Step);
    EXPECT_EQ(step->info(), stored);
    EXPECT_EQ(step->content(), "Lyse cells");
    EXPECT_TRUE(step->parentUUID().isNull()); // not a step property, though stored
    EXPECT_FALSE(step->valueForProperty("futureKey").isValid());
}

TEST(NBParagraph, PropertiesAKindDoesNotAllowAreSilentlyRefused) {
    NBParagraph step = NBParagraph::stepParagraphWithTitle("Incubate", "S", "P");
    step.setParentUUID("PARENT");
    step.setIndentationLevel(2);
    step.setValueForProperty("timerElapsed", 5);
    step.setValueForProperty("noSuchProperty", "x");
    EXPECT_EQ(
        step.info(),
        (QVariantMap{{"type", "step"}, {"content", "Incubate"}, {"stepUUID", "S"}, {"protocolUUID", "P"}}));
    EXPECT_TRUE(step.timer() == std::nullopt);

    std::optional<NBParagraph> derived = step.derivedParagraph();
    ASSERT_TRUE(derived);
    EXPECT_NE(derived->uuid(), step.uuid());
    EXPECT_FALSE(derived->info().contains("parentUUID"));

    NBParagraph bullet = NBParagraph::bulletParagraphWithContent("item", 1);
    bullet.setValueForProperty("parentUUID", "PARENT");
    EXPECT_EQ(bullet.parentUUID(), "PARENT");
    bullet.setContent(QString()); // a null value removes the key
    bullet.setValueForProperty("indentationLevel", QVariant());
    EXPECT_EQ(bullet.info(), (QVariantMap{{"type", "bullet"}, {"parentUUID", "PARENT"}}));
    bullet.setContent(""); // an empty string is a value
    EXPECT_TRUE(bullet.info().contains("content"));

    bullet.setType(QString());
    EXPECT_EQ(bullet.type(), "bullet");
    bullet.setValueForProperty("type", "number");
    EXPECT_EQ(bullet.type(), "number");
    EXPECT_EQ(bullet.kind(), NBParagraphKind::Bullet); // the kind stays until the paragraph is rebuilt
    EXPECT_EQ(bullet.copy()->kind(), NBParagraphKind::Number);

    // Stored levels written by other tools are read when they are whole numbers >= 0.
    const struct {
        QVariant stored;
        std::optional<qint64> level;
    } levels[] = {{qint64(3), 3},
                  {2.0, 2},
                  {"4", 4},
                  {2.5, std::nullopt},
                  {qint64(-1), std::nullopt},
                  {true, std::nullopt},
                  {QVariantList{1}, std::nullopt},
                  {QVariant(), std::nullopt}};
    for (const auto& testCase : levels) {
        QVariantMap info = infoWithType("number");
        if (testCase.stored.isValid())
            info.insert("indentationLevel", testCase.stored);
        EXPECT_EQ(NBParagraph::paragraphWithUUID("U", info)->indentationLevel(), testCase.level)
            << testCase.stored.toString().toStdString();
    }
}

TEST(NBParagraph, CopiesFollowTheStoredTypeAndDerivedParagraphsPointToTheirSource) {
    NBParagraph note = NBParagraph::noteParagraphWithContent("<b>Careful</b>");
    note.setListItemIndex(4);
    std::optional<NBParagraph> copy = note.copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(*copy, note);
    EXPECT_EQ(copy->listItemIndex(), std::nullopt);

    std::optional<NBParagraph> derived = note.derivedParagraph();
    ASSERT_TRUE(derived);
    EXPECT_EQ(derived->parentUUID(), note.uuid());
    EXPECT_EQ(derived->content(), note.content());
    EXPECT_EQ(derived->uuid().size(), 36);
    EXPECT_EQ(derived->uuid(), derived->uuid().toUpper());

    EXPECT_FALSE(NBParagraph::paragraphFragmentWithContent("x").copy());
    EXPECT_FALSE(NBParagraph::paragraphPlainTextFragmentWithContent("x").derivedParagraph());
}

TEST(NBParagraph, EqualityCountsMissingValuesAsEmptyAndComparesKinds) {
    const auto make = [](const char* type, QVariantMap more = {}) {
        return *NBParagraph::paragraphWithUUID("SAME", infoWithType(type, more));
    };
    const struct {
        NBParagraph first;
        NBParagraph second;
        bool equalParagraphs; // isEqualToParagraph
        bool equal;           // operator==
    } cases[] = {
        {make("normal"), make("normal", {{"content", ""}}), true, true},
        {make("normal", {{"content", "a"}}), make("normal", {{"content", "b"}}), false, false},
        {make("normal", {{"content", "a"}}), make("normal"), false, false},
        {make("normal", {{"extra", ""}}), make("normal"), true, true},
        {make("number", {{"indentationLevel", 2}}), make("number", {{"indentationLevel", 2.0}}), true, true},
        {make("normal"), make("note"), false, false},
        // The same type string on two kinds: equal paragraphs, but not equal objects.
        {make("normal"),
         [&] {
             NBParagraph code = make("code");
             code.setType("normal");
             return code;
         }(),
         true, false},
        {make("normal"), *NBParagraph::paragraphWithUUID("OTHER", infoWithType("normal")), false, false},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(testCase.first.isEqualToParagraph(testCase.second), testCase.equalParagraphs)
            << testCase.first.description().toStdString() << "\n"
            << testCase.second.description().toStdString();
        EXPECT_EQ(testCase.first == testCase.second, testCase.equal);
        EXPECT_EQ(testCase.second == testCase.first, testCase.equal);
    }
    NBParagraph counted = make("number");
    counted.setListItemIndex(3);
    EXPECT_EQ(counted, make("number"));
    EXPECT_TRUE(counted.description().startsWith("<NBParagraphNumber:0x"));
    EXPECT_TRUE(counted.description().contains("number"));
}

TEST(NBParagraph, TableCellsAreEscapedInTheGridAndLeftEscapedWhenRead) {
    const NBParagraph table = NBParagraph::tableParagraphWithRows({{"a\tb", "c"}, {"d\ne"}, {}});
    EXPECT_EQ(table.content(), "a&#9;b\tc\nd&#10;e\n");
    EXPECT_EQ(table.arrayOfArraysOfMarkupStrings(), (QList<QStringList>{{"a&#9;b", "c"}, {"d&#10;e"}, {""}}));
    EXPECT_FALSE(table.info().contains("tableColumnWidths"));
    EXPECT_FALSE(NBParagraph::normalParagraphWithContent("a\tb").arrayOfArraysOfMarkupStrings());

    // The table model unescapes, and gives the grid back as it was made.
    std::optional<NBSpreadsheetData> data = NBSpreadsheetData::spreadsheetDataWithTableParagraph(table);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->arrayOfArrayOfMarkupStrings(), (QList<QStringList>{{"a\tb", "c"}, {"d\ne"}, {""}}));
    EXPECT_EQ(data->columnCount(), 2);
    EXPECT_EQ(NBSpreadsheetData::unescapedCellString(NBSpreadsheetData::escapedCellString("\t\n&amp;#9;")),
              "\t\n&amp;#9;");

    const NBParagraph sized = NBParagraph::tableParagraphWithRows({{"x", "y"}}, QList<qreal>{72, 144.5});
    EXPECT_EQ(sized.info().value("tableColumnWidths"), (QVariantList{72.0, 144.5}));
    EXPECT_EQ(
        NBSpreadsheetData::spreadsheetDataWithTableParagraph(sized)->tableParagraph().tableColumnWidths(),
        (QList<qreal>{72, 144.5}));
}

TEST(NBParagraph, TextOfEachKind) {
    EXPECT_EQ(NBParagraph::normalParagraphWithContent("a &lt; <b>b</b>").plainTextContent(), "a < b");
    EXPECT_EQ(NBParagraph::normalParagraphWithContent("<i>x</i>").styledContent(),
              NBStyledString::styledStringFromMarkupString(u"<i>x</i>"));
    EXPECT_EQ(NBParagraph::paragraphPlainTextFragmentWithContent("a &lt; <b>b</b>").plainTextContent(),
              "a &lt; <b>b</b>");
    EXPECT_EQ(NBParagraph::paragraphPlainTextFragmentWithContent("<b>b</b>").styledContent().runCount(), 1);

    const NBDay day = NBDay::dayWithStringRepresentation(u"{year:2024,month:3,day:7}");
    const NBParagraph dayParagraph = NBParagraph::dayParagraphWithDay(day);
    EXPECT_EQ(dayParagraph.dayRep(), "{year:2024,month:3,day:7}");
    EXPECT_EQ(dayParagraph.day(), day);
    EXPECT_EQ(dayParagraph.plainTextContent(), day.longString());
    EXPECT_FALSE(dayParagraph.plainTextContent().isEmpty());
    EXPECT_EQ(NBParagraph::dayParagraphWithDayRep("{day:-3}").day(), NBDay::relativeDayWithInteger(-3));
    EXPECT_EQ(NBParagraph::dayParagraphWithDayRep("garbage").plainTextContent(), "");
    NBParagraph cleared = dayParagraph;
    cleared.setDay(NBDay());
    EXPECT_FALSE(cleared.info().contains("dayRep"));
    EXPECT_EQ(dayParagraph.dayRep(), "{year:2024,month:3,day:7}"); // copies are independent values
}

// Stored as the document store keeps it (a binary property list) and rebuilt later, as on another device.
TEST(NBParagraph, ARunningTimerKeepsCountingAfterBeingStoredAndRebuilt) {
    const QDateTime started(QDate(2026, 3, 14), QTime(9, 0), Qt::UTC);
    NBTimer timer = NBTimer::countdownTimerWithDuration(600.0);
    timer.setAppearance(NBTimerAppearance::Progress);
    ASSERT_TRUE(timer.start(started));
    NBParagraph paragraph = NBParagraph::bulletParagraphWithContent("Incubate 10 min", 0);
    paragraph.setTimerElapsed(qint64(999)); // replaced by the timer's own keys
    paragraph.setTimer(timer);
    EXPECT_FALSE(paragraph.info().contains("timerStop"));

    std::optional<QByteArray> data = dataWithPropertyList(paragraph.info(), NBPropertyListFormat::Binary);
    ASSERT_TRUE(data);
    std::optional<QVariant> stored = propertyListWithData(*data);
    ASSERT_TRUE(stored);
    std::optional<NBParagraph> rebuilt = NBParagraph::paragraphWithUUID(paragraph.uuid(), stored->toMap());
    ASSERT_TRUE(rebuilt);
    std::optional<NBTimer> restored = rebuilt->timer();
    ASSERT_TRUE(restored);
    EXPECT_EQ(*restored, timer);
    EXPECT_TRUE(restored->isRunning());
    EXPECT_EQ(restored->remainingTime(started.addSecs(450))->durationInMilliseconds(), 150000);
    EXPECT_EQ(restored->displayString(started.addSecs(450)), "2:30");
    EXPECT_EQ(restored->remainingTime(started.addSecs(600)), NBTime());

    rebuilt->setTimer(std::nullopt);
    EXPECT_EQ(
        rebuilt->info(),
        (QVariantMap{{"type", "bullet"}, {"content", "Incubate 10 min"}, {"indentationLevel", qint64(0)}}));
    NBParagraph note = NBParagraph::noteParagraphWithContent("no timers here");
    note.setTimer(timer);
    EXPECT_EQ(note.info().size(), 2);
}

namespace {

rc::Gen<QVariant> genStoredValue(int depth) {
    rc::Gen<QVariant> scalar = rc::gen::oneOf(
        rc::gen::map(rc::gen::arbitrary<std::string>(),
                     [](const std::string& s) { return QVariant(QString::fromStdString(s)); }),
        rc::gen::map(
            rc::gen::elementOf(std::vector<std::string>{"", "<b>x", "a\tb\nc", "&#9;", "{day:3}",
                                                        "{year:2024,month:2,day:30}", "clock", "progress"}),
            [](const std::string& s) { return QVariant(QString::fromStdString(s)); }),
        rc::gen::map(rc::gen::arbitrary<qint64>(), [](qint64 v) { return QVariant(v); }),
        rc::gen::map(rc::gen::inRange<qint64>(-3, 5), [](qint64 v) { return QVariant(v); }),
        rc::gen::map(rc::gen::arbitrary<double>(), [](double v) { return QVariant(v); }),
        rc::gen::map(rc::gen::arbitrary<bool>(), [](bool v) { return QVariant(v); }),
        rc::gen::map(rc::gen::inRange<qint64>(-4'000'000'000'000, 4'000'000'000'000),
                     [](qint64 ms) { return QVariant(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC)); }),
        rc::gen::just(QVariant(QByteArray("\x00\xff", 2))));
    if (depth == 0)
        return scalar;
    rc::Gen<QVariant> child = genStoredValue(depth - 1);
    return rc::gen::weightedOneOf<QVariant>(
        {{4, scalar},
         {1, rc::gen::map(rc::gen::resize(4, rc::gen::container<std::vector<QVariant>>(child)),
                          [](const std::vector<QVariant>& items) {
                              return QVariant(QVariantList(items.begin(), items.end()));
                          })},
         {1,
          rc::gen::map(rc::gen::resize(4, rc::gen::container<std::vector<std::pair<std::string, QVariant>>>(
                                              rc::gen::pair(rc::gen::arbitrary<std::string>(), child))),
                       [](const std::vector<std::pair<std::string, QVariant>>& items) {
                           QVariantMap map;
                           for (const auto& [key, value] : items)
                               map.insert(QString::fromStdString(key), value);
                           return QVariant(map);
                       })}});
}

rc::Gen<QVariantMap> genStoredInfo() {
    std::vector<std::string> keys{
        "type",       "content",          "dayRep",       "stepUUID",          "protocolUUID",
        "parentUUID", "indentationLevel", "sourcePath",   "tableColumnWidths", "timerStart",
        "timerStop",  "timerDuration",    "timerElapsed", "timerAppearance",   "other"};
    std::vector<std::string> types{"day",        "step",  "section",  "normal",  "bullet",
                                   "number",     "code",  "note",     "warning", "error",
                                   "attachment", "table", "fragment", "text",    "?"};
    return rc::gen::map(
        rc::gen::tuple(rc::gen::elementOf(types),
                       rc::gen::container<std::vector<std::pair<std::string, QVariant>>>(
                           rc::gen::pair(rc::gen::elementOf(keys), genStoredValue(2))),
                       rc::gen::inRange(0, 10)),
        [](const std::tuple<std::string, std::vector<std::pair<std::string, QVariant>>, int>& drawn) {
            QVariantMap info;
            for (const auto& [key, value] : std::get<1>(drawn))
                info.insert(QString::fromStdString(key), value);
            if (std::get<2>(drawn) > 0) // mostly a readable type, sometimes whatever was drawn
                info.insert("type", QString::fromStdString(std::get<0>(drawn)));
            return info;
        });
}

} // namespace

RC_GTEST_PROP(NBParagraph, AnyStoredDictionaryIsReadSafely, ()) {
    const std::vector<QVariantMap> infos = *rc::gen::container<std::vector<QVariantMap>>(genStoredInfo());
    QList<NBParagraph> paragraphs;
    for (const QVariantMap& info : infos) {
        std::optional<NBParagraph> paragraph =
            NBParagraph::paragraphWithUUID(NBParagraph::newUUIDString(), info);
        if (!paragraph)
            continue;
        RC_ASSERT(paragraph->info() == info);
        // Every reader of the paragraph copes with whatever was stored.
        (void)paragraph->styledContent();
        (void)paragraph->plainTextContent();
        (void)paragraph->day();
        (void)paragraph->timer();
        (void)paragraph->tableColumnWidths();
        (void)paragraph->arrayOfArraysOfMarkupStrings();
        (void)paragraph->description();
        (void)NBSpreadsheetData::spreadsheetDataWithTableParagraph(*paragraph);
        std::optional<NBParagraph> copy = paragraph->copy();
        RC_ASSERT(copy.has_value());
        RC_ASSERT(*copy == *paragraph);
        RC_ASSERT(paragraph->derivedParagraph().has_value());
        paragraphs << *paragraph;
    }
    NBParagraph::updateNumberedListCountersForParagraphs(paragraphs);
    NBTreeNode::Pointer tree = NBParagraph::documentTreeWithParagraphs(paragraphs);
    RC_ASSERT(NBParagraph::descendentCountForTree(tree) == paragraphs.size());
}
