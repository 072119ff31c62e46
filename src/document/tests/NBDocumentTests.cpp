// Tests of the document store: the layout under inserts, moves, modifications and removals; days; metadata;
// attachments; changes since a timestamp; and two devices editing one document.
#include "NBDocumentTestSupport.h"

#include "document/NBProtocol.h"
#include "foundation/NBPropertyList.h"
#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cstdio>

namespace {

QStringList uuidsToLabels(const NBDocument& document, const QStringList& uuids) {
    QStringList result;
    for (const QString& uuid : uuids)
        result.append(document.paragraphWithUUID(uuid)->content());
    return result;
}

// Each paragraph goes to the index the given paragraph had before anything moved: moved backward it lands
// before the given one, moved forward (taken out from before it) after it.
TEST(NBDocument, InsertingPlacesAtTheGivenParagraphsIndexAndMovesWithoutDuplicating) {
    struct Case {
        const char* name;
        std::function<void(NBDocument&, const QHash<QString, NBParagraph>&)> edit;
        QStringList expected;
    };
    const auto fresh = [](const char* content) { return NBParagraph::normalParagraphWithContent(content); };
    const std::vector<Case> cases = {
        {"backward, before the given one",
         [](auto& d, auto& p) { d.insertParagraph(p["D"], p["B"].uuid()); },
         {"A", "D", "B", "C", "E"}},
        {"to the front",
         [](auto& d, auto& p) { d.insertParagraph(p["E"], p["A"].uuid()); },
         {"E", "A", "B", "C", "D"}},
        {"forward, after the given one",
         [](auto& d, auto& p) { d.insertParagraph(p["B"], p["D"].uuid()); },
         {"A", "C", "D", "B", "E"}},
        {"forward by one",
         [](auto& d, auto& p) { d.insertParagraph(p["B"], p["C"].uuid()); },
         {"A", "C", "B", "D", "E"}},
        {"forward, given the last",
         [](auto& d, auto& p) { d.insertParagraph(p["A"], p["E"].uuid()); },
         {"B", "C", "D", "E", "A"}},
        {"before itself",
         [](auto& d, auto& p) { d.insertParagraph(p["B"], p["B"].uuid()); },
         {"A", "B", "C", "D", "E"}},
        {"several forward, the index past the end",
         [](auto& d, auto& p) {
             d.insertParagraphs({p["A"], p["B"]}, p["E"].uuid());
         },
         {"C", "D", "E", "A", "B"}},
        {"several, one from after and one from before",
         [](auto& d, auto& p) {
             d.insertParagraphs({p["C"], p["A"]}, p["B"].uuid());
         },
         {"C", "B", "A", "D", "E"}},
        {"a new one among existing ones",
         [&](auto& d, auto& p) {
             d.insertParagraphs({fresh("F"), p["A"]}, p["C"].uuid());
         },
         {"B", "F", "C", "A", "D", "E"}},
        {"append an existing one",
         [](auto& d, auto& p) { d.appendParagraph(p["A"]); },
         {"B", "C", "D", "E", "A"}},
        {"after, backward",
         [](auto& d, auto& p) { d.insertParagraphAfterParagraphWithUUID(p["D"], p["A"].uuid()); },
         {"A", "D", "B", "C", "E"}},
        {"after, forward",
         [](auto& d, auto& p) { d.insertParagraphAfterParagraphWithUUID(p["A"], p["B"].uuid()); },
         {"B", "C", "A", "D", "E"}},
        {"after the last",
         [&](auto& d, auto& p) { d.insertParagraphAfterParagraphWithUUID(fresh("F"), p["E"].uuid()); },
         {"A", "B", "C", "D", "E", "F"}},
        {"before an unknown UUID goes to the end",
         [&](auto& d, auto&) { d.insertParagraph(fresh("F"), "nowhere"); },
         {"A", "B", "C", "D", "E", "F"}},
        // Edits that end up writing nothing leave the layout as it was.
        {"only a paragraph without UUID",
         [](auto& d, auto& p) { d.insertParagraph(NBParagraph(), p["B"].uuid()); },
         {"A", "B", "C", "D", "E"}},
        {"remove one not listed",
         [&](auto& d, auto&) { d.removeParagraph(fresh("F")); },
         {"A", "B", "C", "D", "E"}},
    };
    for (const Case& test : cases) {
        auto document = NBExperiment::inMemoryExperiment();
        QHash<QString, NBParagraph> byLabel;
        for (const NBParagraph& paragraph : paragraphsFromLabels({"A", "B", "C", "D", "E"})) {
            byLabel.insert(paragraph.content(), paragraph);
            document->appendParagraph(paragraph);
        }
        test.edit(*document, byLabel);
        EXPECT_EQ(labels(document->paragraphs()), test.expected) << test.name;
        EXPECT_EQ(uuidsToLabels(*document, document->paragraphUUIDs()), test.expected) << test.name;
    }
}

RC_GTEST_PROP(NBDocument, TheLayoutNeverListsAUUIDTwice,
              (const std::vector<std::pair<int, int>>& operations)) {
    auto document = NBExperiment::inMemoryExperiment();
    const QList<NBParagraph> pool = paragraphsFromLabels({"a", "b", "c", "d", "e"});
    QSet<QString> inserted;
    for (const auto& [which, before] : operations) {
        const NBParagraph& paragraph = pool.at(std::abs(which % pool.size()));
        const int beforeIndex = std::abs(before % (pool.size() + 1));
        document->insertParagraph(paragraph,
                                  beforeIndex == pool.size() ? QString() : pool.at(beforeIndex).uuid());
        inserted.insert(paragraph.uuid());
    }
    const QStringList layout = document->layout();
    RC_ASSERT(layout.size() == inserted.size());
    RC_ASSERT(QSet<QString>(layout.begin(), layout.end()) == inserted);
}

TEST(NBDocument, ModifyingAndRemovingTouchOnlyTheLayoutsParagraphs) {
    NBTemporaryDirectory directory;
    auto document = NBExperiment::newExperimentInFolder(directory.path(), "device", "Modify");
    ASSERT_TRUE(document);
    NBParagraph kept = NBParagraph::normalParagraphWithContent("kept");
    NBParagraph removed = NBParagraph::normalParagraphWithContent("removed");
    document->appendParagraph(kept);
    document->appendParagraph(removed);

    NBParagraph outside = NBParagraph::normalParagraphWithContent("outside");
    document->modifyParagraph(outside);
    EXPECT_FALSE(document->propertyListValueForKey(outside.uuid()).isValid());

    kept.setContent("kept, edited");
    document->modifyParagraph(kept);
    document->removeParagraph(removed);
    removed.setContent("edited after removal");
    document->modifyParagraph(removed);

    EXPECT_EQ(labels(document->paragraphs()), QStringList({"kept, edited"}));
    ASSERT_TRUE(document->paragraphWithUUID(removed.uuid()));
    EXPECT_EQ(document->paragraphWithUUID(removed.uuid())->content(), "removed");

    // The logs keep the removed paragraph's value; a reopened document lists only the layout's paragraph.
    const QString path = document->storePath();
    document->tearDownNow();
    document.reset();
    auto reopened = NBDocument::openDocumentAtPath(path, "device");
    ASSERT_TRUE(reopened);
    EXPECT_TRUE(reopened->isExperiment());
    EXPECT_EQ(labels(reopened->paragraphs()), QStringList({"kept, edited"}));
    bool logged = false;
    for (const OAKChange& change : reopened->changesSinceTimestamp(timestampForDistantPast()))
        logged = logged || change.key == removed.uuid();
    EXPECT_TRUE(logged);

    reopened->removeAllParagraphs();
    EXPECT_TRUE(reopened->paragraphs().isEmpty());
    reopened->tearDownNow();
}

TEST(NBDocument, ALayoutWithAnItemThatIsNotAStringStillLoadsItsParagraphs) {
    NBTemporaryDirectory directory;
    auto document = NBExperiment::newExperimentInFolder(directory.path(), "device", "Damaged");
    ASSERT_TRUE(document);
    const QList<NBParagraph> paragraphs = paragraphsFromLabels({"a", "b"});
    document->insertParagraphs(paragraphs, QString());
    document->setPropertyListValue(QVariantList{paragraphs[0].uuid(), 7, paragraphs[1].uuid()}, "layout");
    const QString path = document->storePath();
    ASSERT_TRUE(document->saveNow());
    document->tearDownNow();
    document.reset();
    auto reopened = NBDocument::openDocumentAtPath(path, "device");
    ASSERT_TRUE(reopened);
    EXPECT_EQ(labels(reopened->paragraphs()), QStringList({"a", "b"}));
    reopened->tearDownNow();
}

TEST(NBDocument, AppendingToADayCoversEachPlacement) {
    struct Case {
        const char* name;
        QStringList before;
        NBDay day;
        QStringList expected;
    };
    const NBDay day5 = calendarDay(2024, 3, 5), day7 = calendarDay(2024, 3, 7),
                day8 = calendarDay(2024, 3, 8), day10 = calendarDay(2024, 3, 10);
    const std::vector<Case> cases = {
        {"no day yet", {"intro"}, day7, {"intro", "day 2024-03-07", "X"}},
        {"empty document", {}, day7, {"day 2024-03-07", "X"}},
        {"existing day",
         {"day 2024-03-07", "a", "day 2024-03-09", "b"},
         day7,
         {"day 2024-03-07", "a", "X", "day 2024-03-09", "b"}},
        {"existing empty day",
         {"day 2024-03-07", "day 2024-03-09", "b"},
         day7,
         {"day 2024-03-07", "X", "day 2024-03-09", "b"}},
        {"new day between",
         {"day 2024-03-07", "a", "day 2024-03-09", "b"},
         day8,
         {"day 2024-03-07", "a", "day 2024-03-08", "X", "day 2024-03-09", "b"}},
        {"new day after an empty one",
         {"day 2024-03-07", "day 2024-03-09"},
         day8,
         {"day 2024-03-07", "day 2024-03-08", "X", "day 2024-03-09"}},
        {"new last day",
         {"day 2024-03-07", "a", "day 2024-03-09", "b"},
         day10,
         {"day 2024-03-07", "a", "day 2024-03-09", "b", "day 2024-03-10", "X"}},
        {"every day later",
         {"intro", "day 2024-03-07", "a"},
         day5,
         {"day 2024-03-05", "X", "intro", "day 2024-03-07", "a"}},
        // A day listed twice (two devices each added it): after what paragraphsForDay() gives for it, the
        // paragraphs under its first day paragraph.
        {"repeated day",
         {"day 2024-03-07", "a", "day 2024-03-07", "b"},
         day7,
         {"day 2024-03-07", "a", "X", "day 2024-03-07", "b"}},
        {"repeated day, empty first",
         {"day 2024-03-07", "day 2024-03-07", "b"},
         day7,
         {"day 2024-03-07", "day 2024-03-07", "X", "b"}},
    };
    for (const Case& test : cases) {
        auto document = NBExperiment::inMemoryExperiment();
        document->insertParagraphs(paragraphsFromLabels(test.before), QString());
        document->appendParagraph(NBParagraph::normalParagraphWithContent("X"), test.day);
        EXPECT_EQ(labels(document->paragraphs()), test.expected) << test.name;
    }
}

TEST(NBDocument, ParagraphsForDayAndDays) {
    auto document = NBExperiment::inMemoryExperiment();
    document->insertParagraphs(paragraphsFromLabels({"intro", "day 2024-03-09", "c", "#c1", "#c2",
                                                     "day 2024-03-07", "a", "#a1", "day 2024-03-08", "b"}),
                               QString());
    QStringList days;
    for (const NBDay& day : document->days())
        days.append(day.yearMonthDayISO8601String());
    EXPECT_EQ(days, QStringList({"2024-03-07", "2024-03-08", "2024-03-09"}));

    const auto indexes = [](const QList<NBParagraph>& paragraphs) {
        QList<qint64> found;
        for (const NBParagraph& paragraph : paragraphs)
            found.append(paragraph.listItemIndex().value_or(-1));
        return found;
    };
    const QList<NBParagraph> first = document->paragraphsForDay(calendarDay(2024, 3, 9));
    EXPECT_EQ(labels(first), QStringList({"c", "#c1", "#c2"}));
    EXPECT_EQ(indexes(first), QList<qint64>({-1, 0, 1}));
    const QList<NBParagraph> middle = document->paragraphsForDay(calendarDay(2024, 3, 7));
    EXPECT_EQ(labels(middle), QStringList({"a", "#a1"}));
    EXPECT_EQ(indexes(middle), QList<qint64>({-1, 0}));
    EXPECT_EQ(labels(document->paragraphsForDay(calendarDay(2024, 3, 8))), QStringList({"b"}));
    EXPECT_TRUE(document->paragraphsForDay(calendarDay(2024, 3, 1)).isEmpty());
    EXPECT_EQ(document->paragraphsWithType("day").size(), 3);
    EXPECT_EQ(NBDocument::descendentCountForTree(document->documentTree()), 10);
}

TEST(NBDocument, MetadataKeysPerKind) {
    auto experiment = NBExperiment::inMemoryExperiment();
    auto protocol = NBProtocol::inMemoryProtocol();
    EXPECT_EQ(experiment->validMetadataKeys().mid(0, 4), QStringList({"uuid", "title", "author", "aim"}));
    EXPECT_EQ(protocol->validMetadataKeys(),
              QStringList({"uuid", "title", "author", "summary", "categories"}));
    EXPECT_EQ(NBDocument::validMetadataKeysForSubclassTable().value("NBProtocol"),
              protocol->validMetadataKeys());

    NBMessageCapture capture;
    experiment->modifyMetadata({{"title", "T"}, {"aim", "A"}, {"summary", "not an experiment's"}});
    experiment->setParagraphDone("S1", true);
    experiment->setParagraphDone("S2", true);
    experiment->setParagraphDone("S1", true);
    experiment->setRating(4);
    EXPECT_TRUE(capture.contains("Ignoring invalid metadata key 'summary'"));
    const QVariantMap metadata = experiment->metadata();
    EXPECT_EQ(QStringList(metadata.keys()),
              QStringList({"aim", "doneParagraphUUIDs", "rating", "title", "uuid"}));
    EXPECT_EQ(experiment->doneParagraphUUIDs(), QStringList({"S1", "S2"}));
    experiment->setParagraphDone("S1", false);
    EXPECT_EQ(experiment->doneParagraphUUIDs(), QStringList({"S2"}));
    EXPECT_EQ(experiment->rating(), 4);
    experiment->setMetadataValue(QVariant(), "aim");
    EXPECT_EQ(experiment->aim(), "A");
    EXPECT_FALSE(experiment->metadataValueForKey("summary").isValid());
    EXPECT_EQ(experiment->uuid().size(), 36);
    EXPECT_EQ(experiment->uuid(), experiment->uuid().toUpper());
    EXPECT_NE(experiment->uuid(), protocol->uuid());
}

TEST(NBDocument, NewDocumentsAreNamedByTheirUUID) {
    NBTemporaryDirectory directory;
    auto protocol = NBProtocol::newProtocolInFolder(directory.filePath("Protocols"), "device", "Lysis");
    ASSERT_TRUE(protocol);
    EXPECT_EQ(QFileInfo(protocol->storePath()).fileName(), protocol->uuid() + ".nbprotocol");
    EXPECT_EQ(protocol->title(), "Lysis");
    protocol->tearDownNow();
    NBError error;
    EXPECT_FALSE(NBExperiment::newExperimentInFolder(directory.path(), "", "T", &error));
    EXPECT_FALSE(
        NBDocument::openDocumentAtPath(directory.filePath("missing.nbexperiment"), "device", {}, &error));
    EXPECT_EQ(error.code(), kNBDocumentErrorNoPackage);
}

TEST(NBDocument, AttachmentsAreBlobsOfTheirParagraph) {
    NBTemporaryDirectory directory;
    const QString source = directory.filePath("gel.png");
    {
        QFile file(source);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("image bytes");
    }
    auto document = NBExperiment::newExperimentInFolder(directory.filePath("E"), "device", "Attachments");
    ASSERT_TRUE(document);
    const NBParagraph attachment = NBParagraph::attachmentParagraphWithContent("gel", source);
    EXPECT_EQ(NBDocument::blobPathForParagraph(attachment), "attachments/" + attachment.uuid() + "/gel.png");

    NBError error;
    ASSERT_TRUE(document->writeAttachmentForParagraph(attachment, &error))
        << error.description().toStdString();
    EXPECT_EQ(document->attachmentDataForParagraph(attachment), QByteArray("image bytes"));
    const std::optional<QString> path = document->absolutePathOfAttachmentForParagraph(attachment);
    ASSERT_TRUE(path);
    EXPECT_EQ(*path, document->storePath() + "/blobs/attachments/" + attachment.uuid() + "/gel.png");
    ASSERT_TRUE(document->deleteAttachmentForParagraph(attachment, &error));
    EXPECT_FALSE(document->attachmentDataForParagraph(attachment, &error));

    NBMessageCapture capture;
    EXPECT_FALSE(document->writeAttachmentForParagraph(NBParagraph(), &error));
    EXPECT_EQ(error.localizedDescription(),
              "Cannot write attachment for nil paragraph the blob in document at path " +
                  document->storePath());
    const NBParagraph noFile = NBParagraph::attachmentParagraphWithContent("none", QString());
    EXPECT_FALSE(document->writeAttachmentForParagraph(noFile, &error));
    EXPECT_EQ(error.localizedDescription(),
              "Cannot determine the blob path for the attachment for paragraph " + noFile.uuid() +
                  ", in document at path " + document->storePath());

    // One failure is returned as it is; several under one error listing them.
    const NBParagraph missing1 =
        NBParagraph::attachmentParagraphWithContent("m1", directory.filePath("no1.pdf"));
    const NBParagraph missing2 =
        NBParagraph::attachmentParagraphWithContent("m2", directory.filePath("no2.pdf"));
    const NBParagraph good = NBParagraph::attachmentParagraphWithContent("ok", source);
    EXPECT_FALSE(document->writeAttachmentsForParagraphs({good, noFile}, &error));
    EXPECT_EQ(error.code(), kNBDocumentErrorNoBlobPath);
    EXPECT_FALSE(document->writeAttachmentsForParagraphs({missing1, good, missing2}, &error));
    EXPECT_EQ(error.localizedDescription(),
              "Multiple errors while saving attachments for paragraphs in document at path " +
                  document->storePath());
    EXPECT_EQ(error.errors().size(), 2u);
    EXPECT_EQ(error.userInfo().value(kNBErrorArrayKey).toStringList().size(), 2);
    EXPECT_EQ(document->attachmentDataForParagraph(good), QByteArray("image bytes"));
    EXPECT_TRUE(document->writeAttachmentsForParagraphs({good}, &error));
    document->tearDownNow();

    // An in-memory document gives its attachment a path in a temporary folder of its own.
    QString temporary;
    {
        auto inMemory = NBExperiment::inMemoryExperiment();
        ASSERT_TRUE(inMemory->writeAttachmentForParagraph(attachment));
        const std::optional<QString> copy = inMemory->absolutePathOfAttachmentForParagraph(attachment);
        ASSERT_TRUE(copy);
        temporary = inMemory->temporaryDirectoryPath();
        EXPECT_TRUE(copy->startsWith(temporary + "/"));
        QFile file(*copy);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(file.readAll(), QByteArray("image bytes"));
    }
    EXPECT_FALSE(QFileInfo::exists(temporary));
}

TEST(NBDocument, ChangesSinceATimestamp) {
    NBTemporaryDirectory directory;
    auto document = NBExperiment::newExperimentInFolder(directory.path(), "device", "Changes");
    ASSERT_TRUE(document);
    NBParagraph first = NBParagraph::normalParagraphWithContent("first");
    document->appendParagraph(first);
    document->saveNow();
    const NBTimestamp since = timestampNow();

    document->setAim("aim");
    first.setContent("first, edited");
    document->modifyParagraph(first);
    const NBParagraph second = NBParagraph::stepParagraphWithTitle("second", QString(), QString());
    document->appendParagraph(second);

    const NBDocumentChange change = document->documentChangeSinceTimestamp(since);
    EXPECT_GT(change.timestamp, since);
    EXPECT_EQ(change.metadata, QVariantMap({{"aim", "aim"}}));
    ASSERT_TRUE(change.layout);
    EXPECT_EQ(*change.layout, QStringList({first.uuid(), second.uuid()}));
    EXPECT_EQ(change.paragraphsByUUID.size(), 2);
    EXPECT_EQ(change.paragraphsByUUID.value(first.uuid()), first);
    EXPECT_EQ(change.paragraphsByUUID.value(second.uuid()), second);
    // aim; first; second with the layout (two rows under one timestamp).
    EXPECT_EQ(document->individualDocumentChangesSinceTimestamp(since).size(), 4u);
    EXPECT_TRUE(document->documentChangeSinceTimestamp(timestampNow()).isEmpty());

    NBMessageCapture capture;
    const NBTimestamp beforeOdd = timestampNow();
    document->setPropertyListValue(QStringLiteral("not a list"), "layout");
    document->setPropertyListValue(QVariantMap({{"type", "hologram"}}), "SOME-UUID");
    const NBDocumentChange odd = document->documentChangeSinceTimestamp(beforeOdd);
    EXPECT_TRUE(odd.isEmpty());
    EXPECT_TRUE(capture.contains(
        nbFormat("Unexpected key-value for change of document '%@' (%@): layout -> not a list",
                 document->uuid(), document->storePath())));
    EXPECT_TRUE(capture.contains("SOME-UUID -> "));
    document->tearDownNow();
}

TEST(NBDocument, TwoDevicesEditDifferentParagraphsAtOnce) {
    NBTemporaryDirectory directory;
    auto first = NBExperiment::newExperimentInFolder(directory.path(), "first", "Shared");
    ASSERT_TRUE(first);
    NBParagraph a = NBParagraph::normalParagraphWithContent("a");
    NBParagraph b = NBParagraph::normalParagraphWithContent("b");
    first->insertParagraphs({a, b}, QString());
    ASSERT_TRUE(first->saveNow());
    auto second = std::make_shared<RecordingExperiment>(QUrl::fromLocalFile(first->storePath()), "second");
    second->loadNow();
    ASSERT_EQ(labels(second->paragraphs()), QStringList({"a", "b"}));
    second->clearChanges();

    // Both edit at the same time, on two threads, before either has read the other's log.
    a.setContent("a by first");
    b.setContent("b by second");
    std::thread editor([&] { first->modifyParagraph(a); });
    second->modifyParagraph(b);
    editor.join();
    const NBParagraph c = NBParagraph::normalParagraphWithContent("c by first");
    first->appendParagraph(c);

    // Save both, then let each read the other's log.
    first->waitUntilFinished();
    second->waitUntilFinished();
    first->waitUntilFinished();
    const QStringList expected = {"a by first", "b by second", "c by first"};
    EXPECT_EQ(labels(first->paragraphs()), expected);
    EXPECT_EQ(labels(second->paragraphs()), expected);

    // The hook saw the first device's paragraphs and layout, and only them.
    QSet<QString> seen;
    bool sawLayout = false;
    for (const NBDocumentChange& change : second->changes()) {
        for (const QString& uuid : change.paragraphsByUUID.keys())
            seen.insert(uuid);
        sawLayout = sawLayout || change.layout.has_value();
    }
    EXPECT_EQ(seen, QSet<QString>({a.uuid(), c.uuid()}));
    EXPECT_TRUE(sawLayout);
    first->tearDownNow();
    second->tearDownNow();
}

// The sync step reads only what another device added since the previous step: a text edit, then a paragraph
// with its layout. A log replaced as a whole by a copy holding a newer layout below what was read from it
// (as a merge made elsewhere delivers it) is read again in full, so the paragraph it adds is not missed.
TEST(NBDocument, SyncFollowsAnotherDevicesLayoutAcrossStepsAndALogReplacement) {
    NBTemporaryDirectory directory;
    auto writer = NBExperiment::newExperimentInFolder(directory.path(), "writer", "Synced");
    ASSERT_TRUE(writer);
    NBParagraph a = NBParagraph::normalParagraphWithContent("A");
    writer->appendParagraph(a);
    ASSERT_TRUE(writer->saveNow());
    auto reader = NBDocument::openDocumentAtPath(writer->storePath(), "reader");
    ASSERT_TRUE(reader);
    EXPECT_EQ(labels(reader->paragraphs()), QStringList({"A"}));

    a.setContent("A edited");
    writer->modifyParagraph(a);
    ASSERT_TRUE(writer->saveNow());
    reader->syncNow();
    EXPECT_EQ(labels(reader->paragraphs()), QStringList({"A edited"}));
    writer->appendParagraph(NBParagraph::normalParagraphWithContent("B"));
    ASSERT_TRUE(writer->saveNow());
    reader->syncNow();
    EXPECT_EQ(labels(reader->paragraphs()), QStringList({"A edited", "B"}));

    const NBTimestamp layoutTimestamp = writer->mostRecentTimestampForKey("layout");
    QThread::msleep(2);
    a.setContent("A again");
    writer->modifyParagraph(a);
    ASSERT_TRUE(writer->saveNow());
    reader->syncNow();
    const NBTimestamp newest = writer->mostRecentTimestampForKey(a.uuid());
    ASSERT_GT(newest - layoutTimestamp, 1);
    const QStringList layout = writer->layout();
    const QString log = writer->databasePathForDeviceIdentifier("writer");
    writer->tearDownNow();

    const QString copy = log + "-copy";
    ASSERT_TRUE(QFile::copy(log, copy));
    {
        auto copyLog = OAKStoreLog::open(copy, OAKStoreLog::Mode::ReadWrite, nullptr);
        ASSERT_TRUE(copyLog);
        const NBParagraph c = NBParagraph::normalParagraphWithContent("C");
        const NBTimestamp between = layoutTimestamp + (newest - layoutTimestamp) / 2;
        ASSERT_TRUE(copyLog->insertRow(between, std::nullopt, c.uuid(),
                                       dataWithPropertyList(c.info(), NBPropertyListFormat::Binary),
                                       nullptr));
        ASSERT_TRUE(
            copyLog->insertRow(between, layoutTimestamp, QStringLiteral("layout"),
                               dataWithPropertyList(QVariantList(layout.begin(), layout.end()) << c.uuid(),
                                                    NBPropertyListFormat::Binary),
                               nullptr));
        ASSERT_TRUE(copyLog->save(nullptr));
    }
    ASSERT_EQ(std::rename(QFile::encodeName(copy).constData(), QFile::encodeName(log).constData()), 0);
    reader->syncNow();
    EXPECT_EQ(labels(reader->paragraphs()), QStringList({"A again", "B", "C"}));
    reader->tearDownNow();
}

TEST(NBDocument, ContentDump) {
    auto document = NBExperiment::inMemoryExperiment();
    document->modifyMetadata({{"title", "Dump"}, {"author", "Ada"}, {"aim", "see"}});
    document->insertParagraphs(paragraphsFromLabels({"day 2024-03-07", "#one", "plain"}), QString());
    EXPECT_EQ(document->contentDump(), "uuid: " + document->uuid() +
                                           "\ntitle: Dump\nauthor: Ada\naim: see\n"
                                           "\nParagraph 0 - day\n{year:2024,month:3,day:7}\n"
                                           "\nParagraph 1 - number\n1. #one\n"
                                           "\nParagraph 2 - normal\nplain\n");
    EXPECT_EQ(document->contentDumpArray().size(), 7);
}

} // namespace
