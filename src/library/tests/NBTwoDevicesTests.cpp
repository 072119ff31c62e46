// Two devices sharing one synchronised folder: each writes only its own folders, reads the other's manifest,
// and its services follow the other's new, edited, deleted and restored documents. Once as two libraries in
// one process (with real folder observation), and once as two OS processes.
#include "LibraryTestSupport.h"

#include "foundation/testing/NBCommandRun.h"

namespace {

// Every file below `bucket` that was written since `before`, as paths relative to the bucket.
QStringList filesChangedSince(const QString& bucket, const QMap<QString, QByteArray>& before) {
    QStringList changed;
    const QMap<QString, QByteArray> after = nbTreeSnapshot(bucket);
    for (auto entry = after.cbegin(); entry != after.cend(); ++entry)
        if (before.value(entry.key()) != entry.value() && !entry.key().endsWith(QLatin1Char('/')))
            changed << entry.key();
    return changed;
}

// True when every path lies in the device's own folders: its folder, its information file, or its own log
// inside any package.
bool onlyDeviceFolders(const QStringList& paths, const QString& device) {
    for (const QString& path : paths) {
        const bool own = path.startsWith(device + "/") || path == "Info/" + device + ".plist" ||
                         path.contains("/devices/" + device + "/");
        if (!own)
            return false;
    }
    return true;
}

TEST(TwoDevicesTest, LibrariesInOneProcessFollowEachOthersDocumentsThroughTheSharedFolder) {
    NBTemporaryDirectory temporary;
    const QString shared = temporary.filePath(QStringLiteral("Shared"));
    TestLibrary first = openTestLibrary(temporary.filePath(QStringLiteral("First")), shared);
    TestLibrary second = openTestLibrary(temporary.filePath(QStringLiteral("Second")), shared);
    const QString firstDevice = first.manager->deviceIdentifier();
    const QString secondDevice = second.manager->deviceIdentifier();
    ASSERT_NE(firstDevice, secondDevice);

    // New on the first device: the second sees it through the first's manifest, folder observation only.
    auto before = nbTreeSnapshot(shared);
    const auto created =
        first.documents().newExperimentWithTitle("Shared assay", "Ada", first.bucket(shared));
    ASSERT_TRUE(created);
    const QString uuid = created->uuid();
    first.documents().releasedDocumentWithUUID(uuid);
    first.manager->waitUntilFinished();
    EXPECT_TRUE(onlyDeviceFolders(filesChangedSince(shared, before), firstDevice))
        << filesChangedSince(shared, before).join(", ").toStdString();
    ASSERT_TRUE(waitUntil([&] { return !second.service->changesOf(uuid).empty(); }));
    EXPECT_EQ(second.service->changesOf(uuid).back().title, QStringLiteral("Shared assay"));
    EXPECT_EQ(second.documents().documentPathWithUUID(uuid), first.documents().documentPathWithUUID(uuid));
    EXPECT_EQ(second.manager->remoteDevices().size(), 1u);
    EXPECT_EQ(second.manager->remoteDevices()[0].deviceIdentifier, firstDevice);

    // Edited on the second device: its own log inside the first's package, its own manifest; the first's
    // services process the second's changes.
    second.manager->waitUntilFinished();
    before = nbTreeSnapshot(shared);
    const auto edited = second.documents().retainedDocumentWithUUID(uuid);
    ASSERT_TRUE(edited);
    edited->setTitle(QStringLiteral("Shared assay, day 2"));
    second.documents().releasedDocumentWithUUID(uuid);
    second.manager->waitUntilFinished();
    EXPECT_TRUE(onlyDeviceFolders(filesChangedSince(shared, before), secondDevice))
        << filesChangedSince(shared, before).join(", ").toStdString();
    ASSERT_TRUE(waitUntil([&] {
        const auto calls = first.service->changesOf(uuid);
        return !calls.empty() && calls.back().title == QStringLiteral("Shared assay, day 2");
    }));
    EXPECT_TRUE(first.service->changesOf(uuid).back().timestamps.count(secondDevice));

    // Deleted on the first device: the second hides it and its services drop it; restored on the second:
    // the first brings it back.
    NBError error;
    ASSERT_TRUE(first.documents().deleteDocumentWithUUID(uuid, &error)) << error.description().toStdString();
    first.manager->waitUntilFinished();
    ASSERT_TRUE(waitUntil([&] { return second.service->deletions().contains(uuid); }));
    EXPECT_EQ(second.documents().trashedDocumentUUIDs(), QStringList{uuid});
    EXPECT_EQ(first.service->deletions(), QStringList{uuid});
    const std::size_t callsBefore = first.service->changesOf(uuid).size();
    ASSERT_TRUE(second.documents().restoreDocumentWithUUID(uuid, &error))
        << error.description().toStdString();
    second.manager->waitUntilFinished();
    ASSERT_TRUE(waitUntil([&] { return !first.documents().documentWithUUIDIsDeleted(uuid); }));
    ASSERT_TRUE(waitUntil([&] { return first.service->changesOf(uuid).size() > callsBefore; }));
    EXPECT_EQ(first.service->changesOf(uuid).back().since, timestampForDistantPast());
    EXPECT_EQ(first.service->deletions(), QStringList{uuid});

    closeTestLibrary(second);
    closeTestLibrary(first);
}

class TwoProcessesTest : public ::testing::Test {
protected:
    NBCommandRun otherDevice(const QStringList& arguments) {
        return nbRunCommand(QStringLiteral(QUILLON_LIBRARY_TEST_DEVICE),
                            QStringList{temporary.filePath(QStringLiteral("Other")), shared} + arguments);
    }
    NBTemporaryDirectory temporary;
    QString shared = temporary.filePath(QStringLiteral("Shared"));
};

TEST_F(TwoProcessesTest, AnotherProcessesNewEditedAndDeletedDocumentsReachThisLibrarysServices) {
    TestLibrary library = openTestLibrary(temporary.filePath(QStringLiteral("Mine")), shared);
    const NBCommandRun created = otherDevice({"create", "From the other process"});
    ASSERT_EQ(created.exitCode, 0) << created.describe();
    const QString uuid = created.out.trimmed();
    ASSERT_TRUE(waitUntil([&] { return !library.service->changesOf(uuid).empty(); })) << uuid.toStdString();
    EXPECT_EQ(library.service->changesOf(uuid).back().title, QStringLiteral("From the other process"));

    const NBCommandRun edited = otherDevice({"edit", uuid, "Edited elsewhere"});
    ASSERT_EQ(edited.exitCode, 0) << edited.describe();
    ASSERT_TRUE(waitUntil([&] {
        const auto calls = library.service->changesOf(uuid);
        return !calls.empty() && calls.back().title == QStringLiteral("Edited elsewhere");
    }));

    const NBCommandRun deleted = otherDevice({"delete", uuid});
    ASSERT_EQ(deleted.exitCode, 0) << deleted.describe();
    ASSERT_TRUE(waitUntil([&] { return library.service->deletions().contains(uuid); }));
    EXPECT_TRUE(library.documents().documentWithUUIDIsDeleted(uuid));
    closeTestLibrary(library);
}

} // namespace
