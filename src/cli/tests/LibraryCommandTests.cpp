// Black-box tests of `quillon library`, `new`, `delete`, `restore` and `sync`: the built program run on two
// libraries in temporary folders that share one synchronised folder, and refused while this process runs a
// library.
#include "foundation/testing/NBCommandRun.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "library/NBLibraryManager.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

namespace {

TEST(LibraryCommand, TwoLibrariesSharingAFolderSeeEachOthersDocumentsAfterSync) {
    NBTemporaryDirectory temporary;
    const QString shared = temporary.filePath(QStringLiteral("Shared"));
    const QString mine = temporary.filePath(QStringLiteral("Mine"));
    const QString theirs = temporary.filePath(QStringLiteral("Theirs"));
    auto quillon = [](const QStringList& arguments) {
        const NBCommandRun run = nbRunCommand(QStringLiteral(QUILLON_BINARY), arguments);
        EXPECT_EQ(run.exitCode, 0) << run.describe();
        return QJsonDocument::fromJson(run.out.toUtf8()).object();
    };
    const QJsonObject init = quillon({"library", "init", "--library", mine});
    EXPECT_TRUE(init.value("isNew").toBool());
    EXPECT_EQ(init.value("root").toString(), mine);
    quillon({"library", "add-folder", shared, "--library", mine});
    quillon({"library", "add-folder", shared, "--library", theirs});
    const QJsonObject made =
        quillon({"new", "protocol", "--title", "Buffer", "--folder", shared, "--library", mine});
    const QString uuid = made.value("uuid").toString();
    EXPECT_TRUE(QFileInfo(made.value("path").toString()).isDir());
    EXPECT_TRUE(
        made.value("path").toString().startsWith(shared + "/" + init.value("deviceIdentifier").toString()));

    QJsonObject synced = quillon({"sync", "--library", theirs});
    QJsonObject sharedBucket = synced.value("buckets").toArray().at(1).toObject();
    EXPECT_EQ(sharedBucket.value("documents").toInt(), 1) << QJsonDocument(synced).toJson().toStdString();
    EXPECT_EQ(sharedBucket.value("devices").toArray().size(), 2);

    quillon({"delete", uuid, "--library", mine});
    synced = quillon({"sync", "--library", theirs});
    EXPECT_EQ(synced.value("trash").toArray().at(0).toString(), uuid);
    quillon({"restore", uuid, "--library", theirs});
    synced = quillon({"sync", "--library", mine});
    EXPECT_TRUE(synced.value("trash").toArray().isEmpty()) << QJsonDocument(synced).toJson().toStdString();

    const NBCommandRun missing =
        nbRunCommand(QStringLiteral(QUILLON_BINARY),
                     {"restore", "00000000-0000-4000-8000-000000000000", "--library", mine});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.err.contains("in the trash")) << missing.describe();
    const NBCommandRun devices =
        nbRunCommand(QStringLiteral(QUILLON_BINARY), {"library", "devices", "--library", mine});
    EXPECT_TRUE(devices.out.contains("\"Platform\":\"Linux\"")) << devices.describe();
}

TEST(LibraryCommand, WritingCommandsAreRefusedWhileAnotherProgramRunsTheLibrary) {
    NBTemporaryDirectory temporary;
    const QString root = temporary.filePath(QStringLiteral("Library"));
    const auto manager = NBLibraryManager::sharedManagerWithRootPath(root);
    ASSERT_TRUE(manager->setUpWithError());
    const NBCommandRun refused = nbRunCommand(QStringLiteral(QUILLON_BINARY),
                                              {"new", "experiment", "--title", "T", "--library", root});
    EXPECT_EQ(refused.exitCode, 1) << refused.describe();
    EXPECT_TRUE(refused.err.contains(QStringLiteral("is open in another program: "))) << refused.describe();
    // Reading commands go on working.
    const NBCommandRun info =
        nbRunCommand(QStringLiteral(QUILLON_BINARY), {"library", "info", "--library", root});
    EXPECT_EQ(info.exitCode, 0) << info.describe();
    const QJsonObject object = QJsonDocument::fromJson(info.out.toUtf8()).object();
    EXPECT_EQ(object.value("deviceIdentifier").toString(), manager->deviceIdentifier());
    EXPECT_TRUE(object.value("openIn").toString().contains(QStringLiteral("process "))) << info.describe();
    ASSERT_TRUE(manager->tearDownWithError());
    const NBCommandRun allowed = nbRunCommand(QStringLiteral(QUILLON_BINARY),
                                              {"new", "experiment", "--title", "T", "--library", root});
    EXPECT_EQ(allowed.exitCode, 0) << allowed.describe();
}

} // namespace
