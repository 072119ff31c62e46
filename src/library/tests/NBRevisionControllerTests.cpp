// Tests of the revision controller against a recording service: merged revisions, the limit of documents
// processed at a time, records left unchanged by a service error, deletions sent once, restorations, and
// records that survive a restart.
#include "LibraryTestSupport.h"

#include "foundation/testing/NBMessageCapture.h"

namespace {

class RevisionControllerTest : public ::testing::Test {
protected:
    void SetUp() override { library = openTestLibrary(temporary.filePath(QStringLiteral("Library"))); }
    void TearDown() override { closeTestLibrary(library); }

    QString newExperiment(const QString& title) {
        const auto document = library.documents().newExperimentWithTitle(title, QStringLiteral("Tester"));
        EXPECT_TRUE(document);
        const QString uuid = document->uuid();
        library.documents().releasedDocumentWithUUID(uuid);
        return uuid;
    }
    void rename(const QString& uuid, const QString& title) {
        const auto document = library.documents().retainedDocumentWithUUID(uuid);
        ASSERT_TRUE(document);
        document->setTitle(title);
        library.documents().releasedDocumentWithUUID(uuid);
    }
    NBTimestamp recordOf(const QString& uuid, const QString& device) {
        for (const NBRevisionRecord& record : library.revisions().allRevisionRepresentations())
            if (record.documentUUID == uuid && record.deviceIdentifier == device &&
                record.serviceName == "recording")
                return record.timestamp;
        return timestampForDistantPast();
    }

    NBTemporaryDirectory temporary;
    TestLibrary library;
};

TEST_F(RevisionControllerTest, RevisionsBecomeOneOperationPerDocumentAndAdvanceRecordsOnSuccessOnly) {
    const QString device = library.manager->deviceIdentifier();
    const QString uuid = newExperiment(QStringLiteral("Assay"));
    library.manager->waitUntilFinished();
    ASSERT_EQ(library.service->changesOf(uuid).size(), 1u);
    EXPECT_EQ(library.service->changesOf(uuid)[0].since, timestampForDistantPast());
    const NBTimestamp created = recordOf(uuid, device);
    EXPECT_NE(created, timestampForDistantPast());

    // Two revisions queued before a run: one call from the older record.
    library.service->clear();
    library.revisions().processRevisionForDocumentUUID(uuid, created + 10, device);
    library.revisions().processRevisionForDocumentUUID(uuid, created + 20, device);
    // A revision not later than the record makes nothing.
    library.revisions().processRevisionForDocumentUUID(uuid, created, device);
    library.manager->waitUntilFinished();
    ASSERT_EQ(library.service->changes().size(), 1u);
    EXPECT_EQ(library.service->changes()[0].since, created);

    // A failing service leaves the record as it was, so the next revision processes the same changes again.
    const NBTimestamp reached = recordOf(uuid, device);
    library.service->clear();
    library.service->failNextCalls(1000);
    rename(uuid, QStringLiteral("Assay 2"));
    NBMessageCapture capture;
    library.manager->waitUntilFinished();
    EXPECT_TRUE(
        capture.contains(QStringLiteral("ERROR: error processing document change:\n----- operations:\n")));
    EXPECT_EQ(recordOf(uuid, device), reached);
    const std::size_t failed = library.service->changes().size();
    ASSERT_GE(failed, 1u);
    library.service->failNextCalls(0);
    rename(uuid, QStringLiteral("Assay 3"));
    library.manager->waitUntilFinished();
    const auto calls = library.service->changesOf(uuid);
    ASSERT_GT(calls.size(), failed);
    for (const RecordedChange& call : calls)
        EXPECT_EQ(call.since, reached);
    EXPECT_EQ(calls.back().title, QStringLiteral("Assay 3"));
    EXPECT_GT(recordOf(uuid, device), reached);
}

TEST_F(RevisionControllerTest, AtMostAboutTwentyDocumentsRunAtOnceAndAllFinish) {
    library.service->setHolding(true);
    QStringList uuids;
    for (int index = 0; index < 30; ++index)
        uuids << newExperiment(QStringLiteral("Document %1").arg(index));
    ASSERT_TRUE(waitUntil([&] { return library.service->running() >= kNBRevisionMaximumRunningDocuments; }));
    // Give the controller every chance to start more than it should.
    library.revisions().runOperationsSoon();
    QThread::msleep(300);
    EXPECT_LE(library.service->running(), kNBRevisionMaximumRunningDocuments + 1);
    library.service->setHolding(false);
    library.manager->waitUntilFinished();
    EXPECT_LE(library.service->maximumRunning(), kNBRevisionMaximumRunningDocuments + 1);
    for (const QString& uuid : uuids)
        EXPECT_EQ(library.service->changesOf(uuid).size(), 1u) << uuid.toStdString();
}

TEST_F(RevisionControllerTest, DeletionReachesEveryServiceOnceAndRestorationProcessesAgain) {
    const QString uuid = newExperiment(QStringLiteral("Trash me"));
    library.manager->waitUntilFinished();
    NBError error;
    ASSERT_TRUE(library.documents().deleteDocumentWithUUID(uuid, &error))
        << error.description().toStdString();
    EXPECT_EQ(library.documents().trashedDocumentUUIDs(), QStringList{uuid});
    // Revisions of a deleted document make nothing.
    library.service->clear();
    library.revisions().processRevisionForDocumentUUID(uuid, timestampForDistantFuture() - 1,
                                                       library.manager->deviceIdentifier());
    library.revisions().processDeletionOfDocumentWithUUID(uuid);
    library.manager->waitUntilFinished();
    EXPECT_EQ(library.service->deletions(), QStringList{uuid});
    EXPECT_TRUE(library.service->changes().empty());
    EXPECT_TRUE(library.revisions().deletedDocumentUUIDsFromAllDevices().contains(uuid));

    // After a restart the marker is still there: no second deletion.
    const QString root = library.manager->rootPath();
    closeTestLibrary(library);
    library = openTestLibrary(root);
    library.manager->waitUntilFinished();
    EXPECT_TRUE(library.service->deletions().isEmpty());
    EXPECT_TRUE(library.documents().documentWithUUIDIsDeleted(uuid));

    ASSERT_TRUE(library.documents().restoreDocumentWithUUID(uuid, &error))
        << error.description().toStdString();
    library.manager->waitUntilFinished();
    EXPECT_TRUE(library.documents().trashedDocumentUUIDs().isEmpty());
    EXPECT_FALSE(library.revisions().deletedDocumentUUIDsFromAllDevices().contains(uuid));
    ASSERT_EQ(library.service->changesOf(uuid).size(), 1u);
    EXPECT_EQ(library.service->changesOf(uuid)[0].since, timestampForDistantPast());

    // Emptying the trash removes the package, not the record of the deletion.
    ASSERT_TRUE(library.documents().deleteDocumentWithUUID(uuid, &error));
    const QString path = library.documents().documentPathWithUUID(uuid);
    EXPECT_EQ(library.documents().emptyTrash(&error), 1);
    EXPECT_FALSE(QFileInfo::exists(path));
    EXPECT_FALSE(library.documents().documentWithUUIDIsRegistered(uuid));
}

TEST_F(RevisionControllerTest, DamagedRevisionDatabaseIsReplacedAndEverythingProcessedAgain) {
    const QString uuid = newExperiment(QStringLiteral("Kept"));
    library.manager->waitUntilFinished();
    const QString root = library.manager->rootPath();
    const QString path = library.revisions().databasePath();
    closeTestLibrary(library);
    for (const char* suffix : {"-wal", "-shm"})
        QFile::remove(path + suffix);
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(4096, 'x'));
    }
    NBMessageCapture capture;
    library = openTestLibrary(root);
    library.manager->waitUntilFinished();
    EXPECT_TRUE(capture.contains(
        QStringLiteral("Could not create store for revision database at path '%1'").arg(path)));
    ASSERT_FALSE(library.service->changesOf(uuid).empty());
    EXPECT_EQ(library.service->changesOf(uuid)[0].since, timestampForDistantPast());
}

} // namespace
