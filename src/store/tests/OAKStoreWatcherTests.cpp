// Tests of the stores' package watching: a foreign device's folder that is deleted and recreated, moved
// away and back, replaced by another folder, or that could not be watched, keeps bringing that device's
// changes to a loaded store.
#include "StoreTestSupport.h"

#include "fileobserver/NBFileObserver.h"
#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <gtest/gtest.h>

namespace {

class OAKStoreWatcherTest : public ::testing::Test {
protected:
    void SetUp() override {
        NBFileObserver::setPollingInterval(0.2);
        NBFileObserver::setWatchRetryInterval(0.5);
    }
    void TearDown() override {
        NBFileObserver::setWatchLimit(0);
        NBFileObserver::setPollingInterval(kNBFileObserverPollingInterval);
        NBFileObserver::setWatchRetryInterval(kNBFileObserverWatchRetryInterval);
    }
};

TEST_F(OAKStoreWatcherTest, ForeignFolderKeepsBeingWatchedWhateverHappensToIt) {
    struct Case {
        const char* name;
        // Done to the writer's folder while no writer runs, faster than the reader's sync delay.
        std::function<void(const QString& folder, const QString& away)> disturb;
        bool watchesRunOut = false; // the writer's folder appears when no watch is left
    };
    const Case cases[] = {
        {"deleted and recreated",
         [](const QString& folder, const QString&) {
             ASSERT_TRUE(QDir(folder).removeRecursively());
             ASSERT_TRUE(QDir().mkpath(folder));
         }},
        {"moved away and back",
         [](const QString& folder, const QString& away) {
             ASSERT_TRUE(QDir().rename(folder, away));
             ASSERT_TRUE(QDir().rename(away, folder));
         }},
        {"moved away and replaced by a new folder",
         [](const QString& folder, const QString& away) {
             ASSERT_TRUE(QDir().rename(folder, away));
             ASSERT_TRUE(QDir().mkpath(folder));
         }},
        {"could not be watched at first", [](const QString&, const QString&) {}, true},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        NBMessageCapture capture; // missing logs and failed watches are logged
        NBTemporaryDirectory directory;
        const QString package = directory.filePath(QStringLiteral("Package.nbexperiment"));
        const QString folder = package + QStringLiteral("/devices/writer");
        OAKStoreOptions options;
        options.timings.syncDelay = 0.5;
        options.timings.syncCoalesce = 3;
        auto reader = AllKeysStore::open(package, QStringLiteral("reader"), options);
        reader->loadNow();
        if (testCase.watchesRunOut)
            NBFileObserver::setWatchLimit(NBFileEventStream::watchDescriptorCount());

        const QString key = QStringLiteral("title");
        auto write = [&](const QString& value) {
            auto writer = AllKeysStore::open(package, QStringLiteral("writer"));
            writer->loadNow();
            writer->setPropertyListValue(value, key);
            EXPECT_TRUE(writer->saveNow());
            writer->tearDownNow();
        };
        auto readerHas = [&](const QString& value) {
            return waitFor([&] { return reader->propertyListValueForKey(key).toString() == value; }, 20);
        };
        write(QStringLiteral("first"));
        EXPECT_TRUE(readerHas(QStringLiteral("first")));
        testCase.disturb(folder, directory.filePath(QStringLiteral("away")));
        // Long enough for the reader's sync after the disturbance to have run.
        QThread::msleep(1200);
        write(QStringLiteral("second"));
        EXPECT_TRUE(readerHas(QStringLiteral("second")));
        if (testCase.watchesRunOut) {
            EXPECT_TRUE(
                capture.contains(QStringLiteral("ERROR: could not start FSEventStream for path ") + folder))
                << capture.texts().join(QLatin1Char('\n')).toStdString();
            // Watches to be had again: the folder is watched, not polled, from the next retry on.
            const std::size_t watches = NBFileEventStream::watchDescriptorCount();
            NBFileObserver::setWatchLimit(0);
            EXPECT_TRUE(waitFor([&] { return NBFileEventStream::watchDescriptorCount() > watches; }, 20));
            write(QStringLiteral("third"));
            EXPECT_TRUE(readerHas(QStringLiteral("third")));
        }
        reader->tearDownNow();
    }
}

} // namespace
