// Tests of the library manager: the cache of managers, set-up failures and their stickiness, Info.plist and
// the built-in protocols, the controllers' one-shot life cycle, and the lock of the process that runs a
// library.
#include "LibraryTestSupport.h"

#include "document/NBProtocol.h"
#include "foundation/NBNotificationCenter.h"
#include "foundation/NBPropertyList.h"
#include "foundation/testing/NBCommandRun.h"
#include "foundation/testing/NBMessageCapture.h"
#include "library/NBLibraryLock.h"
#include "library/NBMarkdownImporter.h"
#include "library/NBUIDatabaseController.h"

#include <QFile>
#include <QTextStream>

namespace {

QVariantMap readPlist(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return propertyListWithData(file.readAll()).value_or(QVariant()).toMap();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

// Reads "<uuid>\n<title>" files as protocols, standing in for the Markdown importer.
class LineImporter : public NBMarkdownImporter {
public:
    LineImporter(std::shared_ptr<NBDocument> document, QUrl url)
        : document_(std::move(document)), url_(std::move(url)) {}
    std::shared_ptr<NBDocument> runNow() override {
        QFile file(url_.toLocalFile());
        if (!file.open(QIODevice::ReadOnly))
            return nullptr;
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
        if (lines.size() < 2)
            return nullptr;
        document_->setUuid(lines[0]);
        document_->setTitle(lines[1]);
        return document_;
    }

private:
    std::shared_ptr<NBDocument> document_;
    QUrl url_;
};

class LibraryManagerTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (auto& library : libraries)
            closeTestLibrary(library);
        NBLibraryManager::setResourcesDirectory(QString());
        NBMarkdownImporter::setImporterFactory(nullptr);
    }
    TestLibrary& open(const QString& name) {
        libraries.push_back(openTestLibrary(temporary.filePath(name)));
        return libraries.back();
    }
    NBTemporaryDirectory temporary;
    std::vector<TestLibrary> libraries;
};

TEST_F(LibraryManagerTest, CacheStandardizesPathsAndDefaultManagerKeepsItsFirstPath) {
    const QString root = temporary.filePath(QStringLiteral("Library"));
    const auto manager = NBLibraryManager::sharedManagerWithRootPath(root);
    for (const QString& variant : {root + QStringLiteral("/"), root + QStringLiteral("/./"),
                                   temporary.filePath(QStringLiteral("x/../Library"))})
        EXPECT_EQ(NBLibraryManager::sharedManagerWithRootPath(variant), manager) << variant.toStdString();
    EXPECT_EQ(NBLibraryManager::cachedManagerWithRootPath(root + QStringLiteral("/")), manager);
    EXPECT_EQ(NBLibraryManager::sharedManagerWithRootPath(QString()), nullptr);
    EXPECT_EQ(NBLibraryManager::cachedManagerWithRootPath(temporary.filePath(QStringLiteral("Other"))),
              nullptr);

    const auto defaultManager = NBLibraryManager::defaultManagerWithRootPath(root);
    EXPECT_EQ(defaultManager, manager);
    EXPECT_EQ(NBLibraryManager::defaultManagerWithRootPath(root), manager);
    NBMessageCapture capture;
    EXPECT_EQ(NBLibraryManager::defaultManagerWithRootPath(root + QStringLiteral("/")), nullptr);
    EXPECT_TRUE(capture.contains(
        QStringLiteral("ERROR: cannot create default library manager with library root path")));
    EXPECT_EQ(NBLibraryManager::cachedDefaultManager(), manager);
    NBLibraryManager::unregisterSharedManager(manager);
    EXPECT_EQ(NBLibraryManager::cachedManagerWithRootPath(root), nullptr);
}

TEST_F(LibraryManagerTest, SetUpFailuresAreWrappedStickyAndTouchNothing) {
    struct Case {
        const char* name;
        std::function<void(const QString& root)> damage;
        qint64 code;
        const char* underlying;
    };
    const std::vector<Case> cases{
        {"Info.plist is a folder",
         [](const QString& root) { QDir().mkpath(root + "/PersistentInfo/Info.plist"); }, 60,
         "The Info.plist path is a directory"},
        {"Info.plist is damaged",
         [](const QString& root) {
             writeFile(root + "/PersistentInfo/Info.plist", "<?xml version=\"1.0\"?><plist><dict>");
         },
         70, "Info.plist could not be read"},
        {"Info.plist is not a dictionary",
         [](const QString& root) {
             writeFile(root + "/PersistentInfo/Info.plist",
                       *dataWithPropertyList(QVariantList{1, 2}, NBPropertyListFormat::XML));
         },
         70, "Info.plist could not be read"},
        {"Info.plist has no device identifier",
         [](const QString& root) {
             writeFile(root + "/PersistentInfo/Info.plist",
                       *dataWithPropertyList(QVariantMap{{"CreationDate", QDateTime::currentDateTimeUtc()}},
                                             NBPropertyListFormat::XML));
         },
         80, "Info.plist did not contain a valid device identifier"},
        {"the root lies below a file",
         [](const QString& root) { writeFile(QFileInfo(root).path() + "/blocker", "x"); }, ENOTDIR,
         "Could not create the folder at path"},
    };
    int index = 0;
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        const QString base = temporary.filePath(QStringLiteral("case%1").arg(index++));
        const QString root =
            QString::fromUtf8(testCase.code == ENOTDIR ? "%1/blocker/Library" : "%1/Library").arg(base);
        QDir().mkpath(testCase.code == ENOTDIR ? base : root);
        testCase.damage(testCase.code == ENOTDIR ? base + "/Library" : root);
        const auto before = nbTreeSnapshot(base);
        const auto manager = NBLibraryManager::sharedManagerWithRootPath(root);
        NBMessageCapture capture;
        NBError first;
        ASSERT_FALSE(manager->setUpWithError(&first));
        EXPECT_EQ(first.code(), testCase.code);
        EXPECT_EQ(first.domain(), QStringLiteral("NBLibraryManager"));
        EXPECT_TRUE(first.localizedDescription().startsWith(
            QStringLiteral("Could not set up the Quillon library at path %1 because of error: ").arg(root)));
        ASSERT_NE(first.underlyingError(), nullptr);
        EXPECT_TRUE(first.underlyingError()->localizedDescription().startsWith(
            QString::fromUtf8(testCase.underlying)));
        EXPECT_TRUE(capture.contains(first.localizedDescription()));
        EXPECT_EQ(nbTreeSnapshot(base), before);
        EXPECT_TRUE(manager->isSetUp());
        EXPECT_TRUE(manager->deviceIdentifier().isEmpty());

        // Sticky: the same error again, nothing read or written, until tear-down.
        QDir(base).removeRecursively();
        NBError second;
        EXPECT_FALSE(manager->setUpWithError(&second));
        EXPECT_EQ(second, first);
        EXPECT_FALSE(QFileInfo::exists(base));
        EXPECT_TRUE(manager->tearDownWithError());
        EXPECT_EQ(NBLibraryManager::cachedManagerWithRootPath(root), nullptr);
    }
}

TEST_F(LibraryManagerTest, NewLibraryWritesInfoAndImportsBuiltInProtocolsOnce) {
    const QString resources = temporary.filePath(QStringLiteral("resources"));
    const QString builtIn = resources + QStringLiteral("/BuiltInProtocols/");
    const QString first = QStringLiteral("11111111-1111-4111-8111-111111111111");
    const QString second = QStringLiteral("22222222-2222-4222-8222-222222222222");
    const QString mismatched = QStringLiteral("33333333-3333-4333-8333-333333333333");
    writeFile(builtIn + first + ".mdown", (first + "\nPCR").toUtf8());
    writeFile(builtIn + mismatched + ".mdown", (second + "\nWrong").toUtf8());
    writeFile(builtIn + "notes.txt", "not a protocol");
    NBLibraryManager::setResourcesDirectory(resources);
    NBMarkdownImporter::setImporterFactory([](const std::shared_ptr<NBDocument>& document, const QUrl& url) {
        return std::make_unique<LineImporter>(document, url);
    });

    std::atomic<int> readyCount{0};
    NBScopedObserver ready(NBNotificationCenter::defaultCenter(),
                           NBNotificationCenter::defaultCenter().addObserverForName(
                               QString::fromUtf8(NBLibaryIsReadyNotification), nullptr,
                               [&](const NBNotification&) { ++readyCount; }));
    NBMessageCapture capture;
    TestLibrary& library = open(QStringLiteral("Library"));
    const QString root = library.manager->rootPath();
    EXPECT_TRUE(library.manager->isNew());
    EXPECT_TRUE(waitUntil([&] { return readyCount.load() == 1; }));
    EXPECT_TRUE(capture.contains(
        QStringLiteral("Skipping import of built-in protocol 'Wrong' from markdown, because of "
                       "inconsistent UUIDs: expected '%1' from the file name, but got '%2'")
            .arg(mismatched, second)));
    EXPECT_TRUE(library.documents().documentWithUUIDIsRegistered(first));
    EXPECT_FALSE(library.documents().documentWithUUIDIsRegistered(second));
    EXPECT_EQ(library.manager->builtInProtocolUUIDs(), (QStringList{first, mismatched}));
    for (const auto& folder : {"Local", "PersistentInfo", "DerivedInfo", "Local/Default"})
        EXPECT_TRUE(QFileInfo(root + "/" + folder).isDir()) << folder;
    const QVariantMap info = readPlist(root + "/PersistentInfo/Info.plist");
    const QString device = info.value("DeviceIdentifier").toString();
    EXPECT_EQ(device, library.manager->deviceIdentifier());
    EXPECT_EQ(device, device.toUpper());
    EXPECT_FALSE(QUuid::fromString(device).isNull());
    EXPECT_TRUE(info.value("CreationDate").toDateTime().isValid());

    // Marking: only built-in protocols, once each.
    library.manager->markBuiltInProtocolWithUUIDAsDeleted(second);
    library.manager->markBuiltInProtocolWithUUIDAsDeleted(first);
    library.manager->markBuiltInProtocolWithUUIDAsDeleted(first);
    EXPECT_EQ(library.manager->deletedBuiltInProtocolUUIDs(), QStringList{first});
    EXPECT_TRUE(library.manager->builtInProtocolWithUUIDIsDeleted(first));
    closeTestLibrary(library);
    EXPECT_EQ(
        readPlist(root + "/PersistentInfo/Info.plist").value("DeletedBuiltInProtocolUUIDs").toList().size(),
        1);

    // A later version ships one more protocol: exactly that UUID is appended, and nothing is imported twice.
    const QString third = QStringLiteral("44444444-4444-4444-8444-444444444444");
    writeFile(builtIn + third + ".mdown", (third + "\nWestern blot").toUtf8());
    TestLibrary& again = open(QStringLiteral("Library"));
    EXPECT_FALSE(again.manager->isNew());
    EXPECT_EQ(again.manager->deviceIdentifier(), device);
    EXPECT_EQ(again.manager->builtInProtocolUUIDs(), (QStringList{first, mismatched, third}));
    EXPECT_TRUE(again.documents().documentWithUUIDIsRegistered(third));
    EXPECT_EQ(again.documents().registeredDocumentUUIDs().size(), 2);

    // Owner and addresses.
    again.manager->setLibraryOwner(QStringLiteral("Ada"));
    again.manager->addLibraryOwnerEmailAddresses({QStringLiteral("b@lab.org"), QStringLiteral("a@lab.org")});
    again.manager->setLibraryOwnerEmailAddress(QStringLiteral("b@lab.org"));
    again.manager->setLibraryOwnerEmailAddress(QString());
    EXPECT_TRUE(waitUntil([&] { return again.manager->libraryOwner() == QStringLiteral("Ada"); }));
    EXPECT_TRUE(waitUntil([&] { return again.manager->libraryOwnerEmailAddresses().size() == 2; }));
    EXPECT_EQ(again.manager->uiDatabaseController()->libraryOwnerName(), QStringLiteral("Ada"));
    EXPECT_EQ(again.manager->libraryOwnerOrFallback(), QStringLiteral("Ada"));
    closeTestLibrary(again);
    const QVariantMap saved = readPlist(root + "/PersistentInfo/Info.plist");
    EXPECT_EQ(saved.value("LibraryOwner").toString(), QStringLiteral("Ada"));
    EXPECT_EQ(saved.value("BuiltInProtocolUUIDs").toList().size(), 3);
}

TEST_F(LibraryManagerTest, WithoutBuiltInProtocolFolderSetUpLogsAndGoesOn) {
    NBLibraryManager::setResourcesDirectory(temporary.filePath(QStringLiteral("no-resources")));
    NBMessageCapture capture;
    TestLibrary& library = open(QStringLiteral("Library"));
    EXPECT_FALSE(library.manager->setupError().has_value());
    EXPECT_TRUE(capture.contains(
        QStringLiteral("Could not load built-in protocols because there is no directory '%1' "
                       "in the resources of the main bundle")
            .arg(temporary.filePath(QStringLiteral("no-resources/BuiltInProtocols")))));
    EXPECT_TRUE(library.manager->builtInProtocolUUIDs().isEmpty());
}

class CountingController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    bool setUpWithError(NBError*) override {
        ++setUps;
        return false;
    }
    bool tearDownWithError(NBError*) override {
        ++tearDowns;
        return true;
    }
    std::atomic<int> setUps{0};
    std::atomic<int> tearDowns{0};
};

TEST_F(LibraryManagerTest, ControllersRunSetUpAndTearDownOnceAndRefuseAbstractCreation) {
    NBMessageCapture capture;
    EXPECT_EQ(NBAbstractController::controllerWithLibraryManager<NBAbstractController>(nullptr), nullptr);
    EXPECT_TRUE(capture.assertions().join('\n').contains("NBAbstractController is an abstract class"));

    const auto neverSetUp = NBAbstractController::controllerWithLibraryManager<CountingController>(nullptr);
    EXPECT_FALSE(neverSetUp->tearDownAndReturnError());
    EXPECT_TRUE(neverSetUp->didTearDown());
    neverSetUp->setUpAndReturnError();
    neverSetUp->tearDownAndReturnError();
    EXPECT_EQ(neverSetUp->tearDowns.load(), 0);

    const auto controller = NBAbstractController::controllerWithLibraryManager<CountingController>(nullptr);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread)
        threads.emplace_back([&] { EXPECT_TRUE(controller->setUpAndReturnError().has_value()); });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(controller->setUps.load(), 1);
    controller->tearDownAndReturnError();
    controller->tearDownAndReturnError();
    EXPECT_EQ(controller->tearDowns.load(), 1);

    const auto service = NBAbstractController::controllerWithLibraryManager<RecordingService>(nullptr);
    const auto change = NBServiceOperation::operationWithService(service, "DOC", {}, "DEV", 5, 9);
    EXPECT_EQ(change->uniquingKey(), QStringLiteral("recording-DOC-DEV"));
    EXPECT_TRUE(
        change->description().contains(QStringLiteral("'recording', document = DOC, device identifier = DEV, "
                                                      "initial timestamp: 5, target timestamp = 9 }")));
    const auto deletion = NBServiceOperation::deletionOperationWithService(service, "DOC");
    EXPECT_TRUE(deletion->uniquingKey().isEmpty());
    EXPECT_TRUE(deletion->description().endsWith(QStringLiteral("'recording', deleted document = DOC }")));
}

TEST_F(LibraryManagerTest, OneProcessRunsALibraryAndOthersAreRefusedWithItsName) {
    TestLibrary& library = open(QStringLiteral("Library"));
    const QString root = library.manager->rootPath();
    const QString holder = NBLibraryLock::holderOfDirectory(library.manager->persistentInfoDirectory());
    EXPECT_TRUE(holder.contains(QStringLiteral("process %1").arg(QCoreApplication::applicationPid())))
        << holder.toStdString();
    const QStringList arguments{root, temporary.filePath(QStringLiteral("Shared")), "create", "Refused"};
    const NBCommandRun refused = nbRunCommand(QStringLiteral(QUILLON_LIBRARY_TEST_DEVICE), arguments);
    EXPECT_EQ(refused.exitCode, 1) << refused.describe();
    EXPECT_TRUE(
        refused.err.contains(QStringLiteral("Could not set up the Quillon library at path %1 because of "
                                            "error: The library at path %1 is open in another program: %2")
                                 .arg(root, holder)))
        << refused.describe();

    // Released at tear-down (and by the system when a process ends in any way).
    closeTestLibrary(library);
    libraries.clear();
    EXPECT_TRUE(NBLibraryLock::holderOfDirectory(root + "/PersistentInfo").isEmpty());
    const NBCommandRun allowed = nbRunCommand(QStringLiteral(QUILLON_LIBRARY_TEST_DEVICE), arguments);
    EXPECT_EQ(allowed.exitCode, 0) << allowed.describe();
}

} // namespace
