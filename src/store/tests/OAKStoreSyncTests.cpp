// Tests of sync between devices (through the package watcher, across processes, in random orders) and of
// merging two copies of a store.
#include "StoreTestSupport.h"

#include "foundation/NBPropertyList.h"
#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QProcess>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>
#include <tuple>

namespace {

QString packagePath(const NBTemporaryDirectory& directory,
                    const QString& name = QStringLiteral("Package.nbexperiment")) {
    return directory.filePath(name);
}

OAKStoreOptions fastSync(double delay, double coalesce) {
    OAKStoreOptions options;
    options.timings.syncDelay = delay;
    options.timings.syncCoalesce = coalesce;
    return options;
}

TEST(OAKStoreSync, ForeignSavesReachAStoreLoadedBeforeTheirDeviceAppeared) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    auto reader = AllKeysStore::open(package, QStringLiteral("reader"), fastSync(0.3, 5));
    reader->loadNow();
    ASSERT_TRUE(reader->loaded());
    NotificationRecorder recorder(reader.get());
    const QString title = QStringLiteral("title");
    auto writer = AllKeysStore::open(package, QStringLiteral("writer"));
    writer->loadNow();
    // The writer's folder appeared after the reader loaded; then its log changes twice.
    for (const QString& value : {QStringLiteral("first"), QStringLiteral("second")}) {
        writer->setPropertyListValue(value, title);
        ASSERT_TRUE(writer->saveNow());
        EXPECT_TRUE(waitFor([&] { return reader->propertyListValueForKey(title) == value; }, 8))
            << value.toStdString();
    }
    // The value is in memory before its notification is delivered, and a sync that found nothing (the
    // writer's folder appearing) is announced too: wait for the notification itself.
    const auto lastChangedTitle = [&] {
        const auto changes = recorder.notifications(QString::fromUtf8(OAKStoreDidChangeNotification));
        return changes.empty()
                   ? QString()
                   : changes.back().userInfo.value(QStringLiteral("values")).toMap().value(title).toString();
    };
    EXPECT_TRUE(waitFor([&] { return lastChangedTitle() == QStringLiteral("second"); }, 5))
        << lastChangedTitle().toStdString();
    EXPECT_GE(recorder.notifications(QString::fromUtf8(OAKStoreDidChangeNotification)).size(), 2u);
    EXPECT_TRUE(waitFor([&] { return recorder.count(OAKStoreDidSyncNotification) >= 2; }, 5));
    // The reader's value carries the writer's timestamp.
    EXPECT_EQ(reader->mostRecentTimestampForKey(title), writer->mostRecentTimestampForKey(title));
    EXPECT_EQ(reader->mostRecentTimestampForDeviceIdentifier(QStringLiteral("writer")),
              writer->mostRecentTimestampForKey(title));
    const auto synced = reader->syncedPropertyListValueForKey(title);
    ASSERT_TRUE(synced.has_value());
    EXPECT_EQ(synced->deviceIdentifier, QStringLiteral("writer"));
    const auto earlier = reader->syncedPropertyListValueForKey(title, synced->timestamp - 1);
    ASSERT_TRUE(earlier.has_value());
    EXPECT_EQ(earlier->value.toString(), QStringLiteral("first"));
    writer->tearDownNow();
    reader->tearDownNow();
}

TEST(OAKStoreSync, LocalFolderNeverTriggersASync) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    auto store = AllKeysStore::open(package, QStringLiteral("local"), fastSync(0.2, 1));
    store->loadNow();
    NotificationRecorder recorder(store.get());
    for (int index = 0; index < 5; ++index) {
        store->setPropertyListValue(qint64(index), QStringLiteral("counter"));
        ASSERT_TRUE(store->saveNow());
        QThread::msleep(100);
    }
    ASSERT_TRUE(writeFile(package + QStringLiteral("/devices/local/notes.txt"), QByteArray("touched")));
    QThread::msleep(1500);
    EXPECT_EQ(recorder.count(OAKStoreDidSyncNotification), 0u);
    // A file appearing in another device's folder does trigger one.
    ASSERT_TRUE(writeFile(package + QStringLiteral("/devices/other/notes.txt"), QByteArray("touched")));
    EXPECT_TRUE(waitFor([&] { return recorder.count(OAKStoreDidSyncNotification) >= 1; }, 8));
    store->tearDownNow();
}

TEST(OAKStoreSync, DeletedPackageMarksTheStoreDeleted) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    auto store = AllKeysStore::open(package, QStringLiteral("local"));
    store->loadNow();
    store->setPropertyListValue(qint64(1), QStringLiteral("counter"));
    ASSERT_TRUE(store->saveNow());
    NotificationRecorder recorder(store.get());
    ASSERT_TRUE(QDir(package).removeRecursively());
    EXPECT_TRUE(waitFor([&] { return recorder.count(OAKStoreDidDeleteNotification) == 1; }, 8));
    EXPECT_TRUE(store->deleted());
    NBError error;
    EXPECT_FALSE(store->saveNow(&error));
    EXPECT_EQ(error.localizedDescription(), QStringLiteral("Cannot save deleted store"));
    EXPECT_FALSE(QFileInfo::exists(package));
}

TEST(OAKStoreSync, TwoProcessesWritingOnePackageLoseNothing) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    const int writes = 400;
    std::vector<std::unique_ptr<QProcess>> writers;
    for (const QString& device : {QStringLiteral("first"), QStringLiteral("second")}) {
        auto writer = std::make_unique<QProcess>();
        writer->start(QStringLiteral(QUILLON_STORE_TEST_WRITER),
                      {package, device, QString::number(writes), QStringLiteral("key"),
                       QStringLiteral("--keys"), QStringLiteral("40"), QStringLiteral("--save-every"),
                       QStringLiteral("10")});
        writers.push_back(std::move(writer));
    }
    for (auto& writer : writers) {
        ASSERT_TRUE(writer->waitForFinished(120000));
        ASSERT_EQ(writer->exitCode(), 0) << writer->readAllStandardError().toStdString();
    }
    auto store = AllKeysStore::open(package, QStringLiteral("reader"));
    store->loadNow();
    const std::vector<OAKChange> changes = store->changesSinceTimestamp(timestampForDistantPast());
    ASSERT_EQ(changes.size(), std::size_t(2 * writes));
    // Every row once, in ascending timestamp order, with its device, and with each device's rows of a key
    // chained by their parent timestamps.
    std::map<QString, std::set<qint64>> sequences;
    std::map<QString, const OAKChange*> newest;
    std::map<std::pair<QString, QString>, NBTimestamp> previous; // (device, key) -> timestamp
    for (std::size_t index = 0; index < changes.size(); ++index) {
        const OAKChange& change = changes[index];
        const QVariantMap value = change.propertyList.toMap();
        EXPECT_EQ(value.value(QStringLiteral("device")).toString(), change.deviceIdentifier);
        sequences[change.deviceIdentifier].insert(value.value(QStringLiteral("sequence")).toLongLong());
        if (index > 0) {
            EXPECT_LE(changes[index - 1].timestamp, change.timestamp);
        }
        const auto chained = previous.find({change.deviceIdentifier, change.key});
        EXPECT_EQ(change.parentTimestamp,
                  chained == previous.end() ? std::optional<NBTimestamp>() : std::optional(chained->second));
        previous[{change.deviceIdentifier, change.key}] = change.timestamp;
        const OAKChange*& known = newest[change.key];
        if (!known || change.timestamp > known->timestamp)
            known = &change;
    }
    EXPECT_EQ(sequences[QStringLiteral("first")].size(), std::size_t(writes));
    EXPECT_EQ(sequences[QStringLiteral("second")].size(), std::size_t(writes));
    // Changes since a timestamp are exactly the later rows.
    const NBTimestamp middle = changes[std::size_t(writes)].timestamp;
    const std::vector<OAKChange> later = store->changesSinceTimestamp(middle);
    ASSERT_EQ(later.size(),
              std::size_t(std::count_if(changes.begin(), changes.end(),
                                        [&](const OAKChange& change) { return change.timestamp > middle; })));
    EXPECT_TRUE(later.back() == changes.back());
    const QVariantMap values = store->allRelevantValues();
    ASSERT_EQ(values.size(), 40);
    for (const auto& [key, change] : newest)
        EXPECT_TRUE(propertyListValuesEqual(values.value(key), change->propertyList)) << key.toStdString();
    store->tearDownNow();
}

// Writes a log at `path` with the given (timestamp, key, value) rows, in that order, one commit each (so
// that logs of different lengths carry different change counters, by which SQLite notices a file rewritten
// under an open connection).
void writeLog(const QString& path, const std::vector<std::tuple<NBTimestamp, QString, QString>>& rows) {
    QDir().mkpath(QFileInfo(path).path());
    auto log = OAKStoreLog::open(path, OAKStoreLog::Mode::ReadWrite, nullptr);
    ASSERT_TRUE(log);
    for (const auto& [timestamp, key, value] : rows) {
        ASSERT_TRUE(log->insertRow(timestamp, std::nullopt, key,
                                   dataWithPropertyList(value, NBPropertyListFormat::Binary), nullptr));
        ASSERT_TRUE(log->save(nullptr));
    }
}

TEST(OAKStoreSync, ReplacedForeignLogIsReadAgainFromTheStart) {
    // A merge on another machine gave the tablet's log a row older than its newest ("a" at +20); the new
    // file no longer holds "b". The older row must be read, the newest value per key must still win, and
    // what only the old file held must stay.
    enum class Replacement { RenamedWhileOpen, RenamedWhileClosed, RewrittenInPlace };
    for (const Replacement replacement :
         {Replacement::RenamedWhileOpen, Replacement::RenamedWhileClosed, Replacement::RewrittenInPlace}) {
        for (const bool allKeys : {true, false}) {
            SCOPED_TRACE(testing::Message()
                         << "replacement " << int(replacement) << ", all keys " << allKeys);
            NBTemporaryDirectory directory;
            const QString package = packagePath(directory);
            const QString log = package + QStringLiteral("/devices/tablet/logs.db");
            const NBTimestamp start = timestampNow() - 1000000;
            const QString a = QStringLiteral("a"), b = QStringLiteral("b");
            writeLog(log, {{start + 10, a, QStringLiteral("a1")}, {start + 30, b, QStringLiteral("b1")}});
            std::shared_ptr<OAKStore> reader;
            if (allKeys) {
                reader = AllKeysStore::open(package, QStringLiteral("reader"));
            } else {
                auto chosen =
                    std::make_shared<ChosenKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader"));
                chosen->setRelevantKeys({a, b});
                reader = chosen;
            }
            reader->loadNow();
            ASSERT_EQ(reader->propertyListValueForKey(a).toString(), QStringLiteral("a1"));

            const QString replacementLog = directory.filePath(QStringLiteral("replacement.db"));
            writeLog(replacementLog, {{start + 5, b, QStringLiteral("b0")},
                                      {start + 10, a, QStringLiteral("a1")},
                                      {start + 20, a, QStringLiteral("a2")}});
            if (replacement == Replacement::RenamedWhileClosed)
                reader->closeDatabaseNow();
            if (replacement == Replacement::RewrittenInPlace)
                ASSERT_TRUE(writeFile(log, readFile(replacementLog)));
            else
                ASSERT_EQ(std::rename(QFile::encodeName(replacementLog).constData(),
                                      QFile::encodeName(log).constData()),
                          0);
            reader->syncNow();
            EXPECT_EQ(reader->propertyListValueForKey(a).toString(), QStringLiteral("a2"));
            EXPECT_EQ(reader->mostRecentTimestampForKey(a), start + 20);
            EXPECT_EQ(reader->propertyListValueForKey(b).toString(), QStringLiteral("b1"));
            EXPECT_EQ(reader->mostRecentTimestampForKey(b), start + 30);

            // Rows appended to the new file are read from its own bound, without treating it as replaced.
            NBMessageCapture capture;
            writeLog(log, {{start + 40, b, QStringLiteral("b2")}});
            reader->syncNow();
            EXPECT_EQ(reader->propertyListValueForKey(b).toString(), QStringLiteral("b2"));
            EXPECT_EQ(reader->mostRecentTimestampForDeviceIdentifier(QStringLiteral("tablet")), start + 40);
            EXPECT_FALSE(capture.contains(QStringLiteral("was replaced")));
            reader->tearDownNow();
        }
    }
}

// MARK: - Merging

std::optional<NBError> merge(const std::shared_ptr<OAKStore>& destination,
                             const std::shared_ptr<OAKStore>& merged, const QStringList& unsafe = {}) {
    std::promise<std::optional<NBError>> finished;
    destination->mergeStore(merged, unsafe,
                            [&](const std::optional<NBError>& error) { finished.set_value(error); });
    return finished.get_future().get();
}

void copyFolder(const QString& source, const QString& destination) {
    QDirIterator iterator(source, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        const QString path = iterator.next();
        const QString target = destination + QLatin1Char('/') + QDir(source).relativeFilePath(path);
        QDir().mkpath(QFileInfo(target).path());
        QFile::copy(path, target);
    }
}

void write(const QString& package, const QString& device, const QVariantMap& values) {
    auto store = AllKeysStore::open(package, device);
    store->setEntriesFromDictionary(values);
    ASSERT_TRUE(store->saveNow());
    store->tearDownNow();
}

QMap<QString, QByteArray> logFiles(const QString& package) {
    QMap<QString, QByteArray> snapshot = treeSnapshot(package + QStringLiteral("/devices"));
    for (const QString& key : snapshot.keys()) {
        if (!key.endsWith(QLatin1String("logs.db")))
            snapshot.remove(key);
    }
    return snapshot;
}

TEST(OAKStoreSync, TearDownWhileAnotherDeviceWritesLeavesNoTimerPending) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    auto writer = AllKeysStore::open(package, QStringLiteral("writer"));
    writer->loadNow();
    writer->setPropertyListValue(QStringLiteral("start"), QStringLiteral("title"));
    ASSERT_TRUE(writer->saveNow());
    NBMessageCapture capture;
    // Several rounds, because the reports race the tear-down; besides the writer's real reports, a thread
    // hands the reader a storm of reports about the writer's folder, as the watcher would.
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        auto reader = AllKeysStore::open(package, QStringLiteral("reader"), fastSync(0.05, 0.2));
        reader->loadNow();
        std::atomic<bool> stop{false};
        std::thread writing([&] {
            for (int index = 0; !stop; ++index) {
                writer->setPropertyListValue(QStringLiteral("value %1").arg(index), QStringLiteral("title"));
                writer->saveNow();
            }
        });
        const QStringList paths{package + QStringLiteral("/devices/writer/logs.db")};
        std::thread reporting([&] {
            while (!stop)
                reader->respondToFileSystemEventWithPaths(paths);
        });
        QThread::msleep(100);
        reader->tearDownNow();
        // Reports keep arriving after the tear-down.
        QThread::msleep(100);
        stop = true;
        writing.join();
        reporting.join();
        reader.reset();
    }
    EXPECT_FALSE(capture.contains(QStringLiteral("Unexpected timer count")))
        << capture.texts().join(QLatin1Char('\n')).toStdString();
    // The message still tells of work that really was pending.
    auto forgotten = AllKeysStore::open(package, QStringLiteral("reader"));
    forgotten->loadNow();
    forgotten->syncSoon();
    forgotten.reset();
    EXPECT_TRUE(capture.contains(QStringLiteral("Unexpected timer count")));
    writer->tearDownNow();
}

TEST(OAKStoreSync, RelevantKeyWithOnlyOldRowsIsReadWhenItBecomesRelevant) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    auto writer = AllKeysStore::open(package, QStringLiteral("writer"));
    writer->loadNow();
    // An old paragraph, then a layout that no longer holds it.
    writer->setPropertyListValue(QStringLiteral("old paragraph"), QStringLiteral("p1"));
    writer->setPropertyListValue(QStringLiteral("other paragraph"), QStringLiteral("p2"));
    writer->setPropertyListValue(QVariantList{QStringLiteral("p2")}, QStringLiteral("layout"));
    ASSERT_TRUE(writer->saveNow());

    auto reader = std::make_shared<ChosenKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader"));
    reader->setRelevantKeys({QStringLiteral("layout"), QStringLiteral("p2"), QStringLiteral("p3")});
    reader->loadNow();
    ASSERT_EQ(reader->propertyListValueForKey(QStringLiteral("p2")).toString(),
              QStringLiteral("other paragraph"));
    // The reader writes too, so that its own log has a bound as well.
    reader->setPropertyListValue(QStringLiteral("mine"), QStringLiteral("p3"));
    ASSERT_TRUE(reader->saveNow());

    // The writer puts p1 back without rewriting it; p1 and p3 (the reader's own, older than the reader's
    // bound) become relevant together with the new layout.
    writer->setPropertyListValue(QVariantList{QStringLiteral("p1"), QStringLiteral("p2")},
                                 QStringLiteral("layout"));
    ASSERT_TRUE(writer->saveNow());
    NotificationRecorder recorder(reader.get());
    reader->setRelevantKeys(
        {QStringLiteral("layout"), QStringLiteral("p1"), QStringLiteral("p2"), QStringLiteral("p3")});
    reader->syncNow();
    EXPECT_EQ(reader->propertyListValueForKey(QStringLiteral("p1")).toString(),
              QStringLiteral("old paragraph"));
    EXPECT_EQ(reader->mostRecentTimestampForKey(QStringLiteral("p1")),
              writer->mostRecentTimestampForKey(QStringLiteral("p1")));
    EXPECT_EQ(reader->propertyListValueForKey(QStringLiteral("layout")).toList().size(), 2);
    EXPECT_EQ(reader->propertyListValueForKey(QStringLiteral("p3")).toString(), QStringLiteral("mine"));
    reader->waitUntilFinished();
    // The new layout and the paragraph arrive in one change.
    const auto changes = recorder.notifications(QString::fromUtf8(OAKStoreDidChangeNotification));
    ASSERT_GE(changes.size(), 1u);
    const QVariantMap values = changes[0].userInfo.value(QStringLiteral("values")).toMap();
    EXPECT_TRUE(values.contains(QStringLiteral("p1")) && values.contains(QStringLiteral("layout")));
    reader->tearDownNow();
    writer->tearDownNow();
}

TEST(OAKStoreMerge, PreconditionsFailOnTheGlobalQueueAndChangeNothing) {
    NBTemporaryDirectory directory;
    const QString first = packagePath(directory, QStringLiteral("A"));
    const QString second = packagePath(directory, QStringLiteral("B"));
    write(first, QStringLiteral("local"), {{QStringLiteral("k"), 1}});
    write(second, QStringLiteral("other"), {{QStringLiteral("k"), 2}});
    const auto before = treeSnapshot(directory.path());
    auto destination = AllKeysStore::open(first, QStringLiteral("local"));
    const auto wrongDevice = merge(destination, AllKeysStore::open(second, QStringLiteral("someone")));
    ASSERT_TRUE(wrongDevice.has_value());
    EXPECT_EQ(wrongDevice->code(), 1498);
    EXPECT_TRUE(wrongDevice->localizedDescription().startsWith(
        QStringLiteral("merging is only valid for stores with the same device identifier:\nmerged store: ")));
    const auto localUnsafe =
        merge(destination, AllKeysStore::open(second, QStringLiteral("local")), {QStringLiteral("local")});
    ASSERT_TRUE(localUnsafe.has_value());
    EXPECT_EQ(localUnsafe->code(), 1508);
    EXPECT_TRUE(localUnsafe->localizedDescription().startsWith(QStringLiteral(
        "merging is only valid if the unsafe device identifiers do not include the local device "
        "identifier:\nunsafe devices: (local)\nmerged store: ")));
    EXPECT_EQ(treeSnapshot(directory.path()), before);
}

TEST(OAKStoreMerge, LaterCopyWinsAndIsAnnounced) {
    NBTemporaryDirectory directory;
    const QString first = packagePath(directory, QStringLiteral("A"));
    const QString second = packagePath(directory, QStringLiteral("B"));
    write(first, QStringLiteral("device1"),
          {{QStringLiteral("title"), QStringLiteral("from A")}, {QStringLiteral("only A"), true}});
    write(second, QStringLiteral("device2"), {{QStringLiteral("title"), QStringLiteral("from B")}});
    ASSERT_TRUE(writeFile(second + QStringLiteral("/blobs/image.png"), QByteArray("picture")));
    auto destination = AllKeysStore::open(first, QStringLiteral("device1"));
    destination->loadNow();
    NotificationRecorder recorder(destination.get());
    EXPECT_FALSE(merge(destination, AllKeysStore::open(second, QStringLiteral("device1"))).has_value());
    EXPECT_EQ(destination->propertyListValueForKey(QStringLiteral("title")).toString(),
              QStringLiteral("from B"));
    EXPECT_TRUE(destination->propertyListValueForKey(QStringLiteral("only A")).toBool());
    EXPECT_EQ(destination->blobDataAtPath(QStringLiteral("image.png")).value_or(QByteArray()),
              QByteArray("picture"));
    destination->waitUntilFinished();
    const auto changes = recorder.notifications(QString::fromUtf8(OAKStoreDidChangeNotification));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].userInfo.value(QStringLiteral("values")).toMap().keys(),
              QStringList{QStringLiteral("title")});
    EXPECT_TRUE(QFileInfo::exists(first + QStringLiteral("/devices/device2/logs.db")));
    EXPECT_FALSE(QFileInfo::exists(first + QStringLiteral("/devices/device2/logs.db-old")));
    // Merging again adds nothing: no log file changes.
    const auto before = logFiles(first);
    EXPECT_FALSE(merge(destination, AllKeysStore::open(second, QStringLiteral("device1"))).has_value());
    EXPECT_EQ(logFiles(first), before);
    destination->tearDownNow();
}

TEST(OAKStoreMerge, UnsafeDeviceDifferencesGoUnderTheCombinedIdentifier) {
    NBTemporaryDirectory directory;
    const QString first = packagePath(directory, QStringLiteral("A"));
    const QString second = packagePath(directory, QStringLiteral("B"));
    write(first, QStringLiteral("local"), {{QStringLiteral("mine"), 1}});
    write(first, QStringLiteral("tablet"), {{QStringLiteral("shared"), QStringLiteral("common")}});
    copyFolder(first, second);
    // The copies diverge on the tablet's log.
    write(second, QStringLiteral("tablet"),
          {{QStringLiteral("shared"), QStringLiteral("diverged")}, {QStringLiteral("extra"), 5}});
    const QByteArray tabletLog = readFile(first + QStringLiteral("/devices/tablet/logs.db"));
    auto destination = AllKeysStore::open(first, QStringLiteral("local"));
    destination->loadNow();
    EXPECT_FALSE(
        merge(destination, AllKeysStore::open(second, QStringLiteral("local")), {QStringLiteral("tablet")})
            .has_value());
    EXPECT_EQ(readFile(first + QStringLiteral("/devices/tablet/logs.db")), tabletLog);
    const auto changes = destination->changesSinceTimestamp(timestampForDistantPast());
    std::map<QString, int> rowsByDevice;
    for (const OAKChange& change : changes)
        ++rowsByDevice[change.deviceIdentifier];
    EXPECT_EQ(rowsByDevice[QStringLiteral("local|tablet")], 2);
    EXPECT_EQ(rowsByDevice[QStringLiteral("tablet")], 1);
    EXPECT_EQ(destination->propertyListValueForKey(QStringLiteral("shared")).toString(),
              QStringLiteral("diverged"));
    // Merging again adds nothing.
    const auto before = logFiles(first);
    EXPECT_FALSE(
        merge(destination, AllKeysStore::open(second, QStringLiteral("local")), {QStringLiteral("tablet")})
            .has_value());
    EXPECT_EQ(logFiles(first), before);
    destination->tearDownNow();
}

TEST(OAKStoreMerge, FailedLogReplacementRestoresTheExistingLog) {
    NBTemporaryDirectory directory;
    const QString first = packagePath(directory, QStringLiteral("A"));
    const QString second = packagePath(directory, QStringLiteral("B"));
    write(first, QStringLiteral("local"), {{QStringLiteral("mine"), 1}});
    write(first, QStringLiteral("tablet"), {{QStringLiteral("theirs"), 1}});
    copyFolder(first, second);
    // The merged copy's tablet log grew by a value too large for the file-size limit set below, as a full
    // disk would refuse it.
    write(second, QStringLiteral("tablet"), {{QStringLiteral("large"), QByteArray(256 * 1024, 'x')}});
    write(second, QStringLiteral("phone"), {{QStringLiteral("other"), 3}});
    const QString tabletLog = first + QStringLiteral("/devices/tablet/logs.db");
    const QByteArray before = readFile(tabletLog);
    auto destination = AllKeysStore::open(first, QStringLiteral("local"));
    destination->loadNow();

    struct rlimit previousLimit {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previousLimit), 0);
    struct rlimit limit = previousLimit;
    limit.rlim_cur = 128 * 1024;
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    NBMessageCapture capture;
    const auto error = merge(destination, AllKeysStore::open(second, QStringLiteral("local")));
    ::setrlimit(RLIMIT_FSIZE, &previousLimit);
    std::signal(SIGXFSZ, previousHandler);

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code(), 1764);
    EXPECT_EQ(error->localizedDescription(), QStringLiteral("error saving moc at path: ") + tabletLog);
    EXPECT_TRUE(capture.contains(error->localizedDescription()));
    EXPECT_EQ(readFile(tabletLog), before);
    EXPECT_FALSE(QFileInfo::exists(tabletLog + QStringLiteral("-old")));
    // The other devices were merged all the same, and the store was reloaded from the restored log.
    EXPECT_EQ(destination->propertyListValueForKey(QStringLiteral("other")).toLongLong(), 3);
    EXPECT_EQ(destination->propertyListValueForKey(QStringLiteral("theirs")).toLongLong(), 1);
    EXPECT_FALSE(destination->propertyListValueForKey(QStringLiteral("large")).isValid());
    EXPECT_TRUE(destination->loaded());
    destination->tearDownNow();
}

TEST(OAKLogRepresentation, UnionAndDifferenceFollowTheTotalOrder) {
    const auto entry = [](NBTimestamp timestamp, std::optional<QString> key,
                          std::optional<NBTimestamp> parent, std::optional<QByteArray> blob) {
        return OAKLogRepresentation{timestamp, key, parent, blob};
    };
    std::vector<OAKLogRepresentation> first = {entry(2, QStringLiteral("b"), 1, QByteArray("x")),
                                               entry(1, QStringLiteral("a"), std::nullopt, QByteArray("x")),
                                               entry(2, QStringLiteral("b"), std::nullopt, QByteArray("x")),
                                               entry(2, QStringLiteral("a"), 1, std::nullopt)};
    std::vector<OAKLogRepresentation> second = {entry(2, QStringLiteral("b"), 1, QByteArray("x")),
                                                entry(2, QStringLiteral("b"), 1, QByteArray("y")),
                                                entry(3, std::nullopt, std::nullopt, QByteArray())};
    sortLogRepresentations(first);
    sortLogRepresentations(second);
    // Timestamp, then key, then parent timestamp (absent first), then blob bytes.
    EXPECT_EQ(first[0], entry(1, QStringLiteral("a"), std::nullopt, QByteArray("x")));
    EXPECT_EQ(first[1], entry(2, QStringLiteral("a"), 1, std::nullopt));
    EXPECT_EQ(first[2], entry(2, QStringLiteral("b"), std::nullopt, QByteArray("x")));
    const auto united = unionOfLogRepresentations(first, second);
    EXPECT_EQ(united.size(), 6u);
    EXPECT_TRUE(std::is_sorted(united.begin(), united.end()));
    const std::vector<OAKLogRepresentation> onlySecond = {entry(2, QStringLiteral("b"), 1, QByteArray("y")),
                                                          entry(3, std::nullopt, std::nullopt, QByteArray())};
    EXPECT_EQ(logRepresentationsMinusLogRepresentations(united, first), onlySecond);
    EXPECT_EQ(logRepresentationsMinusLogRepresentations(first, united), std::vector<OAKLogRepresentation>());
    EXPECT_EQ(unionOfLogRepresentations(first, first), first);
}

// MARK: - Convergence

// Random sets on two to four devices, random syncs and reopenings: once every store has synced, all of them
// hold, for every key, the value written with the largest timestamp.
RC_GTEST_PROP(OAKStoreSync, StoresConvergeOnTheNewestWrite, ()) {
    const int deviceCount = *rc::gen::inRange(2, 5);
    const int operationCount = *rc::gen::inRange(1, 25);
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    std::vector<std::shared_ptr<AllKeysStore>> stores;
    for (int device = 0; device < deviceCount; ++device) {
        stores.push_back(AllKeysStore::open(package, QStringLiteral("device%1").arg(device)));
        stores.back()->loadNow();
    }
    std::map<QString, std::pair<NBTimestamp, qint64>> newest;
    for (int operation = 0; operation < operationCount; ++operation) {
        const std::size_t device = std::size_t(*rc::gen::inRange(0, deviceCount));
        AllKeysStore& store = *stores[device];
        switch (*rc::gen::inRange(0, 4)) {
        case 0:
        case 1: {
            const QString key = QStringLiteral("key%1").arg(*rc::gen::inRange(0, 4));
            const qint64 value = *rc::gen::inRange(0, 1000);
            store.setPropertyListValue(value, key);
            const NBTimestamp timestamp = store.mostRecentTimestampForKey(key);
            if (!newest.count(key) || timestamp > newest[key].first)
                newest[key] = {timestamp, value};
            if (*rc::gen::arbitrary<bool>())
                RC_ASSERT(store.saveNow());
            break;
        }
        case 2:
            store.saveNow();
            store.syncNow();
            break;
        case 3:
            store.tearDownNow();
            stores[device] = AllKeysStore::open(package, QStringLiteral("device%1").arg(device));
            stores[device]->loadNow();
            break;
        }
    }
    for (auto& store : stores)
        RC_ASSERT(store->saveNow());
    for (auto& store : stores) {
        store->syncNow();
        for (const auto& [key, expected] : newest) {
            RC_ASSERT(store->propertyListValueForKey(key).toLongLong() == expected.second);
            RC_ASSERT(store->mostRecentTimestampForKey(key) == expected.first);
        }
    }
    for (auto& store : stores)
        store->tearDownNow();
}

} // namespace
