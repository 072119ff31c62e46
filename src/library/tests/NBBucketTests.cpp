// Tests of buckets and the documents controller: which folders make a bucket, retain counts under concurrent
// callers, the retry cycle of unreadable foreign manifests, packages that are half copied, found by manifest
// or present twice, a synchronised folder that goes away and comes back, importing, duplicating, and moving
// one bucket's content into another.
#include "LibraryTestSupport.h"

#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/testing/NBMessageCapture.h"

#include <QFile>

#include <future>

namespace {

class BucketTest : public ::testing::Test {
protected:
    void SetUp() override {
        shared = temporary.filePath(QStringLiteral("Shared"));
        library = openTestLibrary(temporary.filePath(QStringLiteral("Library")), shared);
        bucket = library.bucket(shared);
        ASSERT_TRUE(bucket);
    }
    void TearDown() override {
        bucket.reset();
        closeTestLibrary(library);
    }
    // A package of another device, written by that device, with a log and a title.
    QString foreignPackage(const QString& device, const QString& uuid, bool protocol) {
        const QString path = protocol ? bucket->proposedProtocolPathWithUUID(uuid, device)
                                      : bucket->proposedExperimentPathWithUUID(uuid, device);
        std::shared_ptr<NBDocument> document =
            protocol
                ? std::shared_ptr<NBDocument>(std::make_shared<NBProtocol>(QUrl::fromLocalFile(path), device))
                : std::make_shared<NBExperiment>(QUrl::fromLocalFile(path), device);
        EXPECT_TRUE(document->prepareFilePackageWithError(nullptr));
        document->loadNow();
        document->setEntriesFromDictionary({{"uuid", uuid}, {"title", "From " + device}});
        EXPECT_TRUE(document->saveNow());
        document->tearDownNow();
        return path;
    }
    static void writeForeignManifest(const QString& path, const std::vector<NBManifestRow>& rows) {
        QDir().mkpath(QFileInfo(path).path());
        auto manifest = NBManifestDatabase::openDatabaseAtPath(path, nullptr);
        ASSERT_TRUE(manifest);
        ASSERT_TRUE(manifest->saveRows(rows, nullptr));
    }

    NBTemporaryDirectory temporary;
    QString shared;
    TestLibrary library;
    std::shared_ptr<NBBucket> bucket;
};

TEST_F(BucketTest, OnlyLocalAndAccessibleSynchronisedFoldersMakeBuckets) {
    for (int type : {0, 2, 4})
        EXPECT_EQ(NBBucket::bucketWithType(type, library.manager, shared, "Shared"), nullptr) << type;
    EXPECT_EQ(NBBucket::bucketWithType(3, library.manager, QString(), "Shared"), nullptr);
    NBMessageCapture capture;
    const QString missing = temporary.filePath(QStringLiteral("Missing"));
    EXPECT_EQ(NBBucket::bucketWithType(3, library.manager, missing, "Missing"), nullptr);
    EXPECT_TRUE(capture.contains(QStringLiteral("Could not access bucket at path %1").arg(missing)));
    EXPECT_TRUE(NBBucket::bucketWithType(1, library.manager, missing, "Missing"));
    NBError error;
    EXPECT_FALSE(library.documents().addSynchronisedFolder(library.manager->rootPath() + "/Inside", &error));
    EXPECT_EQ(library.documents().buckets().size(), 2u);
}

TEST_F(BucketTest, RetainCountsHoldUnderConcurrentCallers) {
    const auto created = library.documents().newExperimentWithTitle("Shared", "Tester", bucket);
    ASSERT_TRUE(created);
    const QString uuid = created->uuid();
    library.documents().releasedDocumentWithUUID(uuid);
    // The services' run for the new document retains it too: let it finish first.
    library.manager->waitUntilFinished();
    EXPECT_EQ(bucket->retainCountOfDocumentWithUUID(uuid), 0u);

    // Twice retained: the first release keeps it open, the second closes it.
    const auto first = bucket->retainedDocumentWithUUID(uuid);
    EXPECT_EQ(bucket->retainedDocumentWithUUID(uuid), first);
    bucket->releasedDocumentWithUUID(uuid);
    EXPECT_EQ(bucket->retainedCachedDocumentWithUUID(uuid), first);
    bucket->releasedDocumentWithUUID(uuid);
    bucket->releasedDocumentWithUUID(uuid);
    EXPECT_FALSE(first->loaded());
    EXPECT_EQ(bucket->retainedCachedDocumentWithUUID(uuid), nullptr);

    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int thread = 0; thread < 6; ++thread)
        threads.emplace_back([&] {
            for (int round = 0; round < 40; ++round) {
                const auto document = bucket->retainedDocumentWithUUID(uuid);
                if (!document || !document->loaded() || document->uuid() != uuid)
                    ++failures;
                bucket->releasedDocumentWithUUID(uuid);
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    library.manager->waitUntilFinished();
    EXPECT_EQ(bucket->retainCountOfDocumentWithUUID(uuid), 0u);
    EXPECT_EQ(bucket->retainedCachedDocumentWithUUID(uuid), nullptr);
}

TEST_F(BucketTest, UnreadableForeignManifestIsRetriedAfterFiveTwentyAndFortyFiveSeconds) {
    std::mutex mutex;
    std::vector<std::pair<QString, double>> scheduled;
    bucket->setForeignManifestRetryScheduler([&](const QString& device, double seconds) {
        std::lock_guard lock(mutex);
        scheduled.emplace_back(device, seconds);
    });
    NBLibraryTimings timings = library.manager->timings();
    timings.foreignManifestRetryUnit = 5.0;
    library.manager->setTimings(timings);
    const QString device = QStringLiteral("OTHER-DEVICE");
    const QString path = bucket->pathForForeignManifestDatabaseWithDeviceIdentifier(device);
    QDir().mkpath(QFileInfo(path).path());
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("SQLite format 3\0half copied", 28);
    }
    NBMessageCapture capture;
    for (int attempt = 0; attempt < 5; ++attempt)
        bucket->processManifestChangeWithDeviceIdentifier(device);
    EXPECT_TRUE(capture.contains(
        QStringLiteral("Could not create context for manifest database at path '%1' because of "
                       "error: ")
            .arg(path)));
    {
        std::lock_guard lock(mutex);
        const std::vector<std::pair<QString, double>> expected{
            {device, 5.0}, {device, 20.0}, {device, 45.0}, {device, 5.0}};
        EXPECT_EQ(scheduled, expected);
    }
    EXPECT_EQ(bucket->manifestDatabaseErrorCountForDeviceIdentifier(device), 1u);

    // Whole again: read, the count back to 0, nothing more scheduled.
    QFile::remove(path);
    const QString uuid = QStringLiteral("5A5A5A5A-0000-4000-8000-000000000001");
    foreignPackage(device, uuid, true);
    writeForeignManifest(path, {NBManifestRow{uuid, timestampNow(), false, false}});
    bucket->processManifestChangeWithDeviceIdentifier(device);
    EXPECT_EQ(bucket->manifestDatabaseErrorCountForDeviceIdentifier(device), 0u);
    EXPECT_EQ(scheduled.size(), 4u);
    // The row names a document that exists only as a protocol package of that device.
    EXPECT_EQ(bucket->existingDocumentPathWithUUID(uuid), bucket->proposedProtocolPathWithUUID(uuid, device));
    EXPECT_EQ(bucket->manifestRepresentationsForDeviceIdentifier(device).size(), 1);
    library.manager->waitUntilFinished();
    ASSERT_EQ(library.service->changesOf(uuid).size(), 1u);
    EXPECT_EQ(library.service->changesOf(uuid)[0].title, QStringLiteral("From OTHER-DEVICE"));
}

TEST_F(BucketTest, HalfCopiedPackagesWaitAndSameNamedPackagesAreReportedOnce) {
    const QString uuid = QStringLiteral("6B6B6B6B-0000-4000-8000-000000000002");
    // A package folder without any log yet: a synchronisation service is still copying it.
    const QString half = bucket->proposedExperimentPathWithUUID(
        QStringLiteral("7C7C7C7C-0000-4000-8000-000000000003"), QStringLiteral("DEVICE-B"));
    QDir().mkpath(half + "/devices/DEVICE-B");
    const QString second = foreignPackage(QStringLiteral("DEVICE-B"), uuid, false);
    const QString first = foreignPackage(QStringLiteral("DEVICE-A"), uuid, false);
    NBMessageCapture capture;
    bucket->rescanDocuments();
    EXPECT_TRUE(
        capture.contains(QStringLiteral("There are multiple documents with filename %1.nbexperiment, at path "
                                        "'%2' and '%3'")
                             .arg(uuid, first, second)));
    EXPECT_EQ(bucket->existingDocumentPathWithUUID(uuid), first);
    EXPECT_FALSE(
        bucket->documentWithUUIDIsRegistered(QStringLiteral("7C7C7C7C-0000-4000-8000-000000000003")));
    QFile log(half + "/devices/DEVICE-B/logs.db");
    ASSERT_TRUE(log.open(QIODevice::WriteOnly));
    log.close();
    bucket->rescanDocuments();
    EXPECT_TRUE(bucket->documentWithUUIDIsRegistered(QStringLiteral("7C7C7C7C-0000-4000-8000-000000000003")));
}

TEST_F(BucketTest, SynchronisedFolderThatGoesAwayComesBackWithItsDocuments) {
    const auto created = library.documents().newExperimentWithTitle("Travelling", "Tester", bucket);
    ASSERT_TRUE(created);
    const QString uuid = created->uuid();
    library.documents().releasedDocumentWithUUID(uuid);
    library.manager->waitUntilFinished();
    bucket.reset();
    const QString away = temporary.filePath(QStringLiteral("Away"));
    NBMessageCapture capture;
    ASSERT_TRUE(QDir().rename(shared, away));
    EXPECT_TRUE(waitUntil([&] { return library.documents().buckets().size() == 1; }));
    EXPECT_TRUE(capture.contains(
        QStringLiteral("The synchronised folder at path '%1' is not available").arg(shared)));
    EXPECT_FALSE(library.documents().documentWithUUIDIsRegistered(uuid));
    EXPECT_EQ(library.documents().unavailableSynchronisedFolderPaths(), QStringList{shared});
    // The rest of the library keeps working.
    EXPECT_TRUE(library.documents().newProtocolWithTitle("Local", "Tester"));
    ASSERT_TRUE(QDir().rename(away, shared));
    EXPECT_TRUE(waitUntil([&] { return library.documents().documentWithUUIDIsRegistered(uuid); }));
    EXPECT_TRUE(library.documents().unavailableSynchronisedFolderPaths().isEmpty());
}

TEST_F(BucketTest, ImportKeepsIdentityValuesAndAttachmentsAndDuplicateMakesANewDocument) {
    auto protocol = NBProtocol::inMemoryProtocol();
    protocol->setTitle(QStringLiteral("Gel"));
    protocol->setSummary(QStringLiteral("Run a gel"));
    NBParagraph attachment =
        NBParagraph::attachmentParagraphWithContent(QStringLiteral("Photo"), QStringLiteral("/x/gel.png"));
    protocol->appendParagraph(
        NBParagraph::stepParagraphWithTitle(QStringLiteral("Pour"), QString(), QString()));
    protocol->appendParagraph(attachment);
    ASSERT_TRUE(protocol->writeAttachmentData("PNGDATA", attachment));

    std::promise<std::pair<QString, std::optional<NBError>>> promise;
    library.documents().importDocument(protocol, bucket,
                                       [&](const QString& uuid, const std::optional<NBError>& error) {
                                           promise.set_value({uuid, error});
                                       });
    const auto [uuid, error] = promise.get_future().get();
    ASSERT_FALSE(error) << error->description().toStdString();
    EXPECT_EQ(uuid, protocol->uuid());
    EXPECT_EQ(library.documents().documentPathWithUUID(uuid), bucket->proposedProtocolPathWithUUID(uuid));
    const auto imported = library.documents().retainedDocumentWithUUID(uuid);
    ASSERT_TRUE(imported && imported->isProtocol());
    EXPECT_EQ(imported->contentDump(), protocol->contentDump());
    EXPECT_EQ(imported->attachmentDataForParagraph(attachment).value_or(QByteArray()), QByteArray("PNGDATA"));
    library.documents().releasedDocumentWithUUID(uuid);

    // The same UUID again is refused.
    std::promise<std::optional<NBError>> again;
    library.documents().importDocument(
        protocol, [&](const QString&, const std::optional<NBError>& refusal) { again.set_value(refusal); });
    const auto refusal = again.get_future().get();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->code(), kNBDocumentsControllerErrorDuplicateUUID);

    const auto copy = library.documents().duplicateDocumentWithUUID(uuid);
    ASSERT_TRUE(copy);
    EXPECT_NE(copy->uuid(), uuid);
    EXPECT_EQ(copy->title(), QStringLiteral("Gel (copy)"));
    EXPECT_EQ(copy->paragraphs().size(), 2);
    EXPECT_EQ(copy->attachmentDataForParagraph(attachment).value_or(QByteArray()), QByteArray("PNGDATA"));
    library.documents().releasedDocumentWithUUID(copy->uuid());
}

TEST_F(BucketTest, MovingLocalContentIntoASynchronisedFolderMergesCopiesOfOneDocument) {
    const auto local = library.documents().localBucket();
    const auto moved = library.documents().newExperimentWithTitle("Moved", "Tester", local);
    const auto merged = library.documents().newExperimentWithTitle("Original", "Tester", local);
    ASSERT_TRUE(moved && merged);
    const QString movedUUID = moved->uuid();
    const QString mergedUUID = merged->uuid();
    library.documents().releasedDocumentWithUUID(movedUUID);
    library.documents().releasedDocumentWithUUID(mergedUUID);
    library.manager->waitUntilFinished();
    // The synchronised folder already holds an older copy of the second document.
    const QString subpath = local->documentSubpathWithPath(local->existingDocumentPathWithUUID(mergedUUID));
    ASSERT_TRUE(QDir().mkpath(QFileInfo(shared + "/" + subpath).path()));
    {
        auto copy = std::make_shared<NBExperiment>(QUrl::fromLocalFile(shared + "/" + subpath),
                                                   library.manager->deviceIdentifier());
        ASSERT_TRUE(copy->prepareFilePackageWithError(nullptr));
        copy->loadNow();
        copy->setEntriesFromDictionary({{"uuid", mergedUUID}, {"aim", "kept from the copy"}});
        ASSERT_TRUE(copy->saveNow());
        copy->tearDownNow();
    }
    NBError error;
    ASSERT_TRUE(bucket->moveAndMergeContentFromBucket(local, &error)) << error.description().toStdString();
    EXPECT_EQ(local->registeredDocumentCount(), 0u);
    EXPECT_TRUE(bucket->documentWithUUIDIsRegistered(movedUUID));
    const auto document = bucket->retainedDocumentWithUUID(mergedUUID);
    ASSERT_TRUE(document);
    EXPECT_EQ(document->title(), QStringLiteral("Original"));
    EXPECT_EQ(document->metadataValueForKey(QStringLiteral("aim")).toString(),
              QStringLiteral("kept from the copy"));
    bucket->releasedDocumentWithUUID(mergedUUID);
}

} // namespace
