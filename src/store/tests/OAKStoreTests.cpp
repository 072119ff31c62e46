// Tests of the store's values, logs, timers, transactions, blobs and its handling of damaged logs.
#include "StoreTestSupport.h"

#include "foundation/NBPropertyList.h"
#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QDateTime>
#include <QProcess>
#include <QSize>
#include <QTimeZone>
#include <SQLiteCpp/SQLiteCpp.h>
#include <gtest/gtest.h>

#include <chrono>

#include <csignal>
#include <limits>

namespace {

QString packagePath(const NBTemporaryDirectory& directory) {
    return directory.filePath(QStringLiteral("Package.nbexperiment"));
}

// Values of every property-list kind, nested ones included.
QVariantMap sampleValues() {
    return {
        {QStringLiteral("string"), QStringLiteral("α-helix, 37 °C")},
        {QStringLiteral("integer"), qint64(-42)},
        {QStringLiteral("large"), qint64(1) << 60},
        {QStringLiteral("real"), 2.5},
        {QStringLiteral("boolean"), true},
        {QStringLiteral("date"), QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC)},
        {QStringLiteral("data"), QByteArray("\x00\x01\xff", 3)},
        {QStringLiteral("array"), QVariantList{qint64(1), QStringLiteral("two"), QVariantList{}}},
        {QStringLiteral("dictionary"), QVariantMap{{QStringLiteral("type"), QStringLiteral("step")},
                                                   {QStringLiteral("nested"), QVariantMap{}}}},
    };
}

TEST(OAKStore, ValuesSurviveClosingTearDownAndReopening) {
    NBTemporaryDirectory directory;
    const QVariantMap values = sampleValues();
    OAKStoreOptions options;
    options.timings.closeDelay = 0.2;
    auto store = AllKeysStore::open(packagePath(directory), QStringLiteral("device-a"), options);
    store->loadNow();
    store->setEntriesFromDictionary(values);
    ASSERT_TRUE(store->saveNow());
    // A closed log reopens on the next read and write, whether closed at once or by its timer.
    store->closeDatabaseNow();
    EXPECT_EQ(store->changesSinceTimestamp(timestampForDistantPast()).size(), std::size_t(values.size()));
    store->closeDatabaseNow();
    store->setPropertyListValue(QStringLiteral("single"), QStringLiteral("title"));
    ASSERT_TRUE(store->saveNow());
    QThread::msleep(600);
    store->setPropertyListValue(QStringLiteral("final"), QStringLiteral("title"));
    ASSERT_TRUE(store->saveNow());
    EXPECT_EQ(store->changesSinceTimestamp(timestampForDistantPast()).size(), std::size_t(values.size() + 2));
    const QHash<QString, NBTimestamp> timestamps = store->mostRecentTimestampsByKey();
    store->tearDownNow();
    EXPECT_FALSE(store->loaded());
    EXPECT_TRUE(store->allRelevantValues().isEmpty());

    for (const QString& device : {QStringLiteral("device-a"), QStringLiteral("other")}) {
        auto reopened = AllKeysStore::open(packagePath(directory), device);
        reopened->loadNow();
        EXPECT_TRUE(reopened->loaded());
        for (auto entry = values.begin(); entry != values.end(); ++entry) {
            EXPECT_TRUE(
                propertyListValuesEqual(reopened->propertyListValueForKey(entry.key()), entry.value()))
                << entry.key().toStdString();
        }
        EXPECT_EQ(reopened->propertyListValueForKey(QStringLiteral("title")).toString(),
                  QStringLiteral("final"));
        EXPECT_EQ(reopened->mostRecentTimestampsByKey(), timestamps);
        reopened->tearDownNow();
    }
    // One dictionary write shares one timestamp.
    EXPECT_EQ(timestamps.value(QStringLiteral("string")), timestamps.value(QStringLiteral("array")));
}

// A value nested `depth` arrays deep around a string.
QVariant nestedArrays(int depth) {
    QVariant value = QStringLiteral("core");
    for (int level = 0; level < depth; ++level)
        value = QVariantList{value};
    return value;
}

TEST(OAKStore, ValuesRefusedWhenSetAreExactlyThoseTheEncoderRefuses) {
    // The store checks a value when it is set and encodes it later on the database queue: the check must
    // refuse what the encoder refuses, and nothing else.
    const std::vector<std::pair<const char*, QVariant>> values = {
        {"deepest allowed", nestedArrays(kNBPropertyListMaximumDepth)},
        {"too deep", nestedArrays(kNBPropertyListMaximumDepth + 1)},
        {"too deep in a dictionary",
         QVariantMap{{QStringLiteral("inner"), nestedArrays(kNBPropertyListMaximumDepth)}}},
        {"invalid date", QDateTime()},
        {"date out of range",
         QDateTime::fromMSecsSinceEpoch(std::numeric_limits<qint64>::max() / 2, Qt::UTC)},
        {"url in a hash",
         QVariantHash{{QStringLiteral("link"), QUrl(QStringLiteral("https://example.org"))}}},
        {"string list", QStringList{QStringLiteral("a"), QStringLiteral("b")}},
        {"large unsigned", QVariant::fromValue(std::numeric_limits<quint64>::max())},
        {"url", QUrl(QStringLiteral("https://example.org"))},
        {"size in a list", QVariantList{QStringLiteral("ok"), QVariant::fromValue(QSize(1, 2))}},
        {"removed (no value)", QVariant()},
    };
    NBTemporaryDirectory directory;
    NBMessageCapture capture;
    auto store = AllKeysStore::open(packagePath(directory), QStringLiteral("device"));
    store->loadNow();
    NotificationRecorder recorder(store.get());
    QStringList written;
    for (const auto& [name, value] : values) {
        SCOPED_TRACE(name);
        const bool encodable = dataWithPropertyList(value, NBPropertyListFormat::Binary).has_value();
        EXPECT_EQ(isPropertyListValue(value), encodable);
        store->setPropertyListValue(value, QString::fromUtf8(name));
        // A refused value stays in memory all the same: the view is never rolled back.
        EXPECT_EQ(store->propertyListValueForKey(QString::fromUtf8(name)), value);
        EXPECT_EQ(
            capture.contains(nbFormat("Error creating data from plist:\nkey: %@:", QString::fromUtf8(name))),
            !encodable);
        if (encodable)
            written << QString::fromUtf8(name);
    }
    store->waitUntilFinished();
    QStringList announced;
    for (const NBNotification& notification :
         recorder.notifications(QString::fromUtf8(OAKStoreDidChangeNotification)))
        announced << notification.userInfo.value(QStringLiteral("values")).toMap().keys();
    QStringList logged;
    for (const OAKChange& change : store->changesSinceTimestamp(timestampForDistantPast()))
        logged << change.key;
    EXPECT_EQ(announced, written);
    EXPECT_EQ(logged, written);
    store->tearDownNow();
    auto reopened = AllKeysStore::open(packagePath(directory), QStringLiteral("device"));
    reopened->loadNow();
    written.sort();
    EXPECT_EQ(reopened->allRelevantValues().keys(), written);
    reopened->tearDownNow();
}

TEST(OAKStore, SaveAndSyncTimersRunAfterTheLastStepAndAtLeastEveryCoalesceInterval) {
    // Saving (edits here) and syncing (saves of another device): a burst of steps 0.1 s apart runs the work
    // once, after the last step; steps that never leave the delay timer a quiet spell run it at least every
    // coalesce interval.
    for (const bool sync : {false, true}) {
        for (const bool continuous : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << (sync ? "sync" : "save") << (continuous ? ", continuous" : ""));
            NBTemporaryDirectory directory;
            OAKStoreOptions options;
            (sync ? options.timings.syncDelay : options.timings.saveDelay) = 0.8;
            (sync ? options.timings.syncCoalesce : options.timings.saveCoalesce) = continuous ? 1.5 : 30;
            auto writer = AllKeysStore::open(packagePath(directory), QStringLiteral("writer"),
                                             sync ? OAKStoreOptions() : options);
            writer->loadNow();
            std::shared_ptr<AllKeysStore> reader;
            if (sync) {
                writer->setPropertyListValue(qint64(0), QStringLiteral("counter"));
                ASSERT_TRUE(writer->saveNow());
                reader = AllKeysStore::open(packagePath(directory), QStringLiteral("reader"), options);
                reader->loadNow();
            }
            NotificationRecorder recorder(reader.get());
            const auto runs = [&] {
                return sync ? recorder.count(OAKStoreDidSyncNotification) : writer->saveCommitCount();
            };
            const int steps = continuous ? 60 : 10;
            std::vector<std::size_t> runsOverTime;
            // A machine too loaded to keep the steps closer than the delay gives no burst to check.
            auto previousStep = std::chrono::steady_clock::now();
            bool quietSpell = false;
            for (int step = 1; step <= steps; ++step) {
                const auto now = std::chrono::steady_clock::now();
                quietSpell = quietSpell || now - previousStep > std::chrono::milliseconds(700);
                previousStep = now;
                writer->setPropertyListValue(qint64(step), QStringLiteral("counter"));
                if (sync) {
                    ASSERT_TRUE(writer->saveNow());
                }
                QThread::msleep(100);
                runsOverTime.push_back(runs());
            }
            if (continuous) {
                // Six seconds of steps with a 1.5 s coalesce interval: at least two runs (generous for a
                // loaded machine), and never four seconds without one.
                EXPECT_GE(runsOverTime.back(), 2u);
                for (std::size_t index = 40; index < runsOverTime.size(); ++index)
                    EXPECT_GT(runsOverTime[index], runsOverTime[index - 40])
                        << "nothing for 4 s before " << index;
            } else {
                if (!quietSpell) {
                    EXPECT_EQ(runsOverTime.back(), 0u) << "ran while the burst went on";
                    EXPECT_TRUE(waitFor([&] { return runs() == 1; }, 8));
                    QThread::msleep(1500);
                    EXPECT_EQ(runs(), 1u);
                } else {
                    EXPECT_TRUE(waitFor([&] { return runs() >= 1; }, 8));
                }
                OAKStore& holder = sync ? *reader : *writer;
                EXPECT_EQ(holder.propertyListValueForKey(QStringLiteral("counter")).toLongLong(), steps);
                EXPECT_EQ(writer->changesSinceTimestamp(timestampForDistantPast()).size(),
                          std::size_t(steps + sync));
            }
            if (reader)
                reader->tearDownNow();
            writer->tearDownNow();
        }
    }
}

TEST(OAKStore, TransactionsGatherOneNotificationAndRefuseSynchronousDatabaseCalls) {
    NBTemporaryDirectory directory;
    auto store =
        OAKStore::storeWithURL(QUrl::fromLocalFile(packagePath(directory)), QStringLiteral("device"));
    store->loadNow();
    NotificationRecorder recorder(store.get());
    NBMessageCapture capture;
    const std::vector<std::pair<QString, std::function<void()>>> refused = {
        {QStringLiteral("loadNow"), [&] { store->loadNow(); }},
        {QStringLiteral("saveNow"), [&] { EXPECT_FALSE(store->saveNow()); }},
        {QStringLiteral("tearDownNow"), [&] { store->tearDownNow(); }},
        {QStringLiteral("waitUntilFinished"), [&] { store->waitUntilFinished(); }},
        {QStringLiteral("closeDatabaseNow"), [&] { store->closeDatabaseNow(); }},
        {QStringLiteral("changesSinceTimestamp:"),
         [&] { EXPECT_TRUE(store->changesSinceTimestamp(0).empty()); }},
        {QStringLiteral("mostRecentTimestampsByDeviceIdentifier"),
         [&] { EXPECT_TRUE(store->mostRecentTimestampsByDeviceIdentifier().empty()); }},
    };
    store->runTransaction([&] {
        store->setPropertyListValue(qint64(1), QStringLiteral("a"));
        store->runTransaction([&] { store->setEntriesFromDictionary({{QStringLiteral("b"), true}}); });
        for (const auto& [method, call] : refused)
            call();
        store->setPropertyListValue(qint64(2), QStringLiteral("a"));
    });
    for (const auto& [method, call] : refused) {
        EXPECT_TRUE(capture.contains(nbFormat(
            "To avoid deadlocks, %@ should not be called within a transaction. Bailing out.", method)))
            << method.toStdString();
    }
    store->waitUntilFinished();
    const auto changes = recorder.notifications(QString::fromUtf8(OAKStoreDidChangeNotification));
    ASSERT_EQ(changes.size(), 1u);
    const QVariantMap values = changes[0].userInfo.value(QStringLiteral("values")).toMap();
    EXPECT_EQ(values.value(QStringLiteral("a")).toLongLong(), 2);
    EXPECT_EQ(values.value(QStringLiteral("b")).toBool(), true);
    EXPECT_EQ(changes[0].userInfo.value(QStringLiteral("timestamps")).toMap().size(), 2);
    // The refusals changed nothing: the store is still loaded and writes.
    EXPECT_TRUE(store->loaded());
    EXPECT_EQ(store->changesSinceTimestamp(timestampForDistantPast()).size(), 3u);
    store->tearDownNow();
    EXPECT_EQ(recorder.count(OAKStoreDidTearDownNotification), 1u);
}

TEST(OAKStore, PrivateStepsOffTheirQueueRaiseAssertions) {
    NBMessageCapture capture;
    class Probe : public OAKStore {
    public:
        using OAKStore::OAKStore;
        void callOffQueue() {
            _sync();
            _tearDown();
            applySyncChangeWithValues({{QStringLiteral("k"), 1}}, {});
        }
    };
    NBTemporaryDirectory directory;
    auto probe =
        std::make_shared<Probe>(QUrl::fromLocalFile(packagePath(directory)), QStringLiteral("device"));
    probe->callOffQueue();
    EXPECT_TRUE(capture.contains(
        QStringLiteral("OAKStore:_sync should only be called from within the database queue")));
    EXPECT_TRUE(capture.contains(
        QStringLiteral("OAKStore:_tearDown should only be called from within the memory queue")));
    EXPECT_FALSE(probe->propertyListValueForKey(QStringLiteral("k")).isValid());
    EXPECT_EQ(capture.assertions().size(), 3);
}

TEST(OAKStore, ValueOfTheWrongClassIsAnError) {
    auto store = OAKStore::inMemoryStore();
    store->setPropertyListValue(qint64(7), QStringLiteral("count"));
    NBMessageCapture capture;
    NBError error;
    EXPECT_EQ(
        store->propertyListValueForKey(QStringLiteral("count"), QMetaType::fromType<int>(), &error).toInt(),
        7);
    EXPECT_TRUE(error.isNull());
    EXPECT_FALSE(
        store->propertyListValueForKey(QStringLiteral("count"), QMetaType::fromType<QString>(), &error)
            .isValid());
    EXPECT_EQ(error.code(), 778);
    EXPECT_TRUE(error.localizedDescription().startsWith(QStringLiteral(
        "Value for key 'count' should be of class 'QString', but is instead of class 'qlonglong'")));
    EXPECT_TRUE(capture.contains(error.localizedDescription()));
}

TEST(OAKStore, BlobsOnDiskAndInMemory) {
    NBTemporaryDirectory directory;
    const QString source = directory.filePath(QStringLiteral("source.bin"));
    ASSERT_TRUE(writeFile(source, QByteArray("copied")));
    auto onDisk =
        OAKStore::storeWithURL(QUrl::fromLocalFile(packagePath(directory)), QStringLiteral("device"));
    for (const std::shared_ptr<OAKStore>& store : {onDisk, OAKStore::inMemoryStore()}) {
        SCOPED_TRACE(store->isInMemory() ? "in memory" : "on disk");
        NBMessageCapture capture;
        EXPECT_TRUE(store->writeBlobData(QByteArray("image"), QStringLiteral("attachments/a.png")));
        EXPECT_EQ(store->blobDataAtPath(QStringLiteral("attachments/a.png")).value_or(QByteArray()),
                  QByteArray("image"));
        EXPECT_TRUE(store->writeBlobData(QByteArray(), QStringLiteral("empty")));
        EXPECT_TRUE(capture.contains(
            QStringLiteral("Empty data will be used in method 'writeBlobData:toPath:error:'")));
        EXPECT_EQ(store->blobDataAtPath(QStringLiteral("empty")).value_or(QByteArray("x")), QByteArray(""));
        EXPECT_TRUE(store->writeBlobFromPath(source, QStringLiteral("attachments/a.png")));
        EXPECT_EQ(store->blobDataAtPath(QStringLiteral("attachments/a.png")).value_or(QByteArray()),
                  QByteArray("copied"));
        EXPECT_TRUE(store->deleteBlobAtPath(QStringLiteral("attachments/a.png")));
        NBError error;
        EXPECT_FALSE(store->blobDataAtPath(QStringLiteral("attachments/a.png"), &error).has_value());
        EXPECT_TRUE(
            error.localizedDescription().startsWith(QStringLiteral("Could not read data blob at path")));
        EXPECT_FALSE(store->writeBlobData(QByteArray("x"), QString()));
        EXPECT_TRUE(capture.contains(
            QStringLiteral("Blob cannot be saved because method 'writeBlobData:toPath:error:' was called "
                           "with 'path' parameter nil")));
        for (const QString& escaping : {QStringLiteral("../devices/device/logs.db"),
                                        QStringLiteral("/etc/passwd"), QStringLiteral("a/../../x")})
            EXPECT_FALSE(store->writeBlobData(QByteArray("x"), escaping)) << escaping.toStdString();
    }
    EXPECT_FALSE(QFileInfo::exists(packagePath(directory) + QStringLiteral("/devices/device/logs.db.bak")));
    EXPECT_TRUE(QFileInfo::exists(packagePath(directory) + QStringLiteral("/blobs/empty")));
}

// Writes a valid log holding `key` = `value` for `device` in `package`.
void writeDeviceLog(const QString& package, const QString& device, const QString& key,
                    const QVariant& value) {
    auto store = OAKStore::storeWithURL(QUrl::fromLocalFile(package), device);
    store->setPropertyListValue(value, key);
    ASSERT_TRUE(store->saveNow());
    store->tearDownNow();
}

TEST(OAKStore, DamagedForeignLogsAreServedAroundNeverWrittenAndReadAgainOnceWhole) {
    // Each damage meets a store loaded before it came and one loaded after.
    struct Damage {
        const char* name;
        std::function<void(const QString& logPath)> apply;
        const char* message;
    };
    const std::vector<Damage> damages = {
        {"missing", [](const QString& path) { QFile::remove(path); },
         "in read-only mode, because there is no file"},
        {"garbage", [](const QString& path) { writeFile(path, QByteArray(8192, 'x')); },
         "Error creating persistent store"},
        {"truncated",
         [](const QString& path) {
             const QByteArray bytes = readFile(path);
             writeFile(path, bytes.left(bytes.size() / 2 + 100));
         },
         "database disk image is malformed"},
        {"newer schema",
         [](const QString& path) {
             SQLite::Database(path.toStdString(), SQLite::OPEN_READWRITE).exec("PRAGMA user_version=99");
         },
         "newer than the version 1"},
        {"directory",
         [](const QString& path) {
             QFile::remove(path);
             QDir().mkpath(path);
         },
         "because there is already a directory at this path"},
        {"other database",
         [](const QString& path) {
             QFile::remove(path);
             SQLite::Database(path.toStdString(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
                 .exec("CREATE TABLE t (x)");
         },
         "no well-formed Log table"},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.name);
        NBTemporaryDirectory directory;
        const QString package = packagePath(directory);
        writeDeviceLog(package, QStringLiteral("good"), QStringLiteral("title"), QStringLiteral("from good"));
        // The damaged device wrote many keys, so that a truncated copy loses pages in the middle.
        {
            auto damaged = OAKStore::storeWithURL(QUrl::fromLocalFile(package), QStringLiteral("damaged"));
            for (int index = 0; index < 2000; ++index)
                damaged->setPropertyListValue(QString(200, QLatin1Char('v')),
                                              QStringLiteral("key%1").arg(index));
            ASSERT_TRUE(damaged->saveNow());
            damaged->tearDownNow();
        }
        const QString damagedLog = package + QStringLiteral("/devices/damaged/logs.db");
        const QByteArray whole = readFile(damagedLog);
        auto early = AllKeysStore::open(package, QStringLiteral("early"));
        early->loadNow();
        ASSERT_EQ(early->allRelevantValues().size(), 2001);
        damage.apply(damagedLog);
        const auto before = treeSnapshot(package + QStringLiteral("/devices/damaged"));

        NBMessageCapture capture;
        auto late = AllKeysStore::open(package, QStringLiteral("late"));
        late->loadNow();
        EXPECT_TRUE(late->loaded());
        early->syncNow();
        for (const auto& store : {early, late}) {
            EXPECT_EQ(store->propertyListValueForKey(QStringLiteral("title")).toString(),
                      QStringLiteral("from good"));
            store->setPropertyListValue(QStringLiteral("written"), QStringLiteral("mine"));
            EXPECT_TRUE(store->saveNow());
            store->waitUntilFinished();
        }
        // What was read before the damage is kept.
        EXPECT_EQ(early->allRelevantValues().size(), 2002);
        const QStringList texts = capture.texts();
        const bool named = std::any_of(texts.begin(), texts.end(), [&](const QString& text) {
            return text.contains(damagedLog) && text.contains(QString::fromUtf8(damage.message));
        });
        EXPECT_TRUE(named) << texts.join(QLatin1Char('\n')).toStdString();
        EXPECT_EQ(treeSnapshot(package + QStringLiteral("/devices/damaged")), before);

        // The log arrives whole again, then with a newer value: both stores read it.
        QDir(damagedLog).removeRecursively();
        ASSERT_TRUE(writeFile(damagedLog, whole));
        writeDeviceLog(package, QStringLiteral("damaged"), QStringLiteral("title"), QStringLiteral("mended"));
        for (const auto& store : {early, late}) {
            store->syncNow();
            EXPECT_EQ(store->propertyListValueForKey(QStringLiteral("title")).toString(),
                      QStringLiteral("mended"));
            EXPECT_EQ(store->allRelevantValues().size(), 2002);
            store->tearDownNow();
        }
    }
}

TEST(OAKStore, DamagedRowsFallBackToOlderRowsAndOnlyRelevantRowsAreDecoded) {
    // Rows written straight into a foreign log, oldest first; a null blob or key is written as such.
    struct Row {
        const char* key;
        std::optional<QByteArray> blob;
    };
    const QByteArray garbage("not a property list");
    const auto encoded = [](const QString& text) {
        return dataWithPropertyList(text, NBPropertyListFormat::Binary);
    };
    const std::vector<Row> rows = {
        {"undecodable", encoded(QStringLiteral("older undecodable"))},
        {"undecodable", garbage},
        {"missing blob", encoded(QStringLiteral("older missing blob"))},
        {"missing blob", std::nullopt},
        {"irrelevant", garbage},
        {"plain", encoded(QStringLiteral("first"))},
        {"plain", encoded(QStringLiteral("second"))},
        {nullptr, encoded(QStringLiteral("no key"))},
    };
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    {
        const QString folder = package + QStringLiteral("/devices/other");
        QDir().mkpath(folder);
        auto log =
            OAKStoreLog::open(folder + QStringLiteral("/logs.db"), OAKStoreLog::Mode::ReadWrite, nullptr);
        ASSERT_TRUE(log);
        NBTimestamp timestamp = timestampNow() - 1000;
        for (const Row& row : rows) {
            const std::optional<QString> key =
                row.key ? std::optional<QString>(QString::fromUtf8(row.key)) : std::nullopt;
            ASSERT_TRUE(log->insertRow(++timestamp, std::nullopt, key, row.blob, nullptr));
        }
        ASSERT_TRUE(log->save(nullptr));
    }
    NBMessageCapture capture;
    auto store = std::make_shared<ChosenKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader"));
    store->setRelevantKeys(
        {QStringLiteral("undecodable"), QStringLiteral("missing blob"), QStringLiteral("plain")});
    store->loadNow();
    const QVariantMap expected = {{QStringLiteral("undecodable"), QStringLiteral("older undecodable")},
                                  {QStringLiteral("missing blob"), QStringLiteral("older missing blob")},
                                  {QStringLiteral("plain"), QStringLiteral("second")}};
    EXPECT_EQ(store->allRelevantValues(), expected);
    // Only the relevant undecodable row is decoded; the irrelevant one is never looked at.
    const QStringList texts = capture.texts();
    for (const char* message : {"Error deserializing blob data:", "Unexpected nil value for 'blob' column:",
                                "Unexpected nil value for 'key' column:"}) {
        EXPECT_EQ(texts.filter(QString::fromUtf8(message)).size(), 1) << message;
    }
    store->tearDownNow();
}

TEST(OAKStore, LocalLogOfNewerSchemaIsNeverWritten) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    writeDeviceLog(package, QStringLiteral("device"), QStringLiteral("title"), QStringLiteral("old"));
    const QString log = package + QStringLiteral("/devices/device/logs.db");
    SQLite::Database(log.toStdString(), SQLite::OPEN_READWRITE).exec("PRAGMA user_version=2");
    const QByteArray before = readFile(log);
    NBMessageCapture capture;
    auto store = AllKeysStore::open(package, QStringLiteral("device"));
    store->loadNow();
    store->setPropertyListValue(QStringLiteral("new"), QStringLiteral("title"));
    NBError error;
    EXPECT_FALSE(store->saveNow(&error));
    EXPECT_TRUE(error.localizedDescription().startsWith(
        QStringLiteral("Could not save store for device identifier 'device'")));
    EXPECT_TRUE(capture.contains(QStringLiteral("has schema version 2, newer than the version 1")));
    store->tearDownNow();
    EXPECT_EQ(readFile(log), before);
}

TEST(OAKStore, ReadOnlyStoreCreatesNothing) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    writeDeviceLog(package, QStringLiteral("writer"), QStringLiteral("title"), QStringLiteral("value"));
    const auto before = treeSnapshot(directory.path());
    OAKStoreOptions options;
    options.readOnly = true;
    for (const QString& device : {QString(), QStringLiteral("writer"), QStringLiteral("someone-else")}) {
        NBMessageCapture capture;
        auto store = AllKeysStore::open(package, device, options);
        store->loadNow();
        EXPECT_EQ(store->propertyListValueForKey(QStringLiteral("title")).toString(),
                  QStringLiteral("value"));
        EXPECT_EQ(store->changesSinceTimestamp(timestampForDistantPast()).size(), 1u);
        store->setPropertyListValue(qint64(1), QStringLiteral("refused"));
        EXPECT_FALSE(store->writeBlobData(QByteArray("x"), QStringLiteral("blob")));
        store->waitUntilFinished();
        store->tearDownNow();
    }
    auto missing =
        AllKeysStore::open(directory.filePath(QStringLiteral("missing")), QStringLiteral("x"), options);
    missing->loadNow();
    EXPECT_FALSE(missing->loaded());
    EXPECT_EQ(treeSnapshot(directory.path()), before);
}

TEST(OAKStore, SavedValuesSurviveSigkill) {
    NBTemporaryDirectory directory;
    const QString package = packagePath(directory);
    QProcess writer;
    writer.start(QStringLiteral(QUILLON_STORE_TEST_WRITER),
                 {package, QStringLiteral("killed"), QStringLiteral("500"), QStringLiteral("key"),
                  QStringLiteral("--hold")});
    ASSERT_TRUE(writer.waitForStarted(10000));
    ASSERT_TRUE(writer.waitForReadyRead(60000)) << writer.readAllStandardError().toStdString();
    ASSERT_EQ(writer.readLine().trimmed(), QByteArray("saved"));
    ::kill(pid_t(writer.processId()), SIGKILL);
    ASSERT_TRUE(writer.waitForFinished(10000));

    auto store = AllKeysStore::open(package, QStringLiteral("reader"));
    store->loadNow();
    const QVariantMap values = store->allRelevantValues();
    ASSERT_EQ(values.size(), 500);
    EXPECT_EQ(values.value(QStringLiteral("key499")).toMap().value(QStringLiteral("sequence")).toLongLong(),
              499);
    store->tearDownNow();
}

} // namespace
