// Helpers shared by the library's tests: a recording service, libraries with short timers, and waiting for
// a condition with a generous deadline.
#pragma once

#include "document/NBDocument.h"
#include "fileobserver/NBFileObserver.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "library/NBBucket.h"
#include "library/NBDocumentsController.h"
#include "library/NBLibraryManager.h"
#include "library/NBRevisionController.h"

#include <QCoreApplication>
#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// One call a service received.
struct RecordedChange {
    QString documentUUID;
    NBTimestamp since = 0;
    QString title;
    std::map<QString, NBTimestamp> timestamps; // the document's devices when the call came
};

// A service that records what it is asked to do. It can fail the next calls, and hold calls until released
// (to see how many documents run at once).
class RecordingService : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("RecordingService"); }
    QString serviceName() const override { return QStringLiteral("recording"); }

    void processChangeSinceTimestamp(NBTimestamp timestamp, const std::shared_ptr<NBDocument>& document,
                                     NBErrorHandler completionHandler) override {
        RecordedChange change{document->uuid(), timestamp, document->title(),
                              document->mostRecentTimestampsByDeviceIdentifier()};
        bool fail = false;
        {
            std::unique_lock lock(mutex_);
            changes_.push_back(change);
            ++running_;
            maximumRunning_ = std::max(maximumRunning_, running_);
            if (failuresLeft_ > 0) {
                --failuresLeft_;
                fail = true;
            }
            changed_.notify_all();
        }
        auto finish = [this, fail, completionHandler] {
            {
                std::lock_guard lock(mutex_);
                --running_;
                changed_.notify_all();
            }
            completionHandler(fail ? std::optional<NBError>(NBError::errorWithObject(
                                         "RecordingService", 1, QStringLiteral("asked to fail")))
                                   : std::nullopt);
        };
        if (!holding_) {
            finish();
            return;
        }
        std::thread([this, finish] {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !holding_; });
            lock.unlock();
            finish();
        }).detach();
    }
    void processDeletionOfDocumentWithUUID(const QString& uuid, NBErrorHandler completionHandler) override {
        {
            std::lock_guard lock(mutex_);
            deletions_ << uuid;
            changed_.notify_all();
        }
        completionHandler(std::nullopt);
    }

    std::vector<RecordedChange> changes() const {
        std::lock_guard lock(mutex_);
        return changes_;
    }
    std::vector<RecordedChange> changesOf(const QString& uuid) const {
        std::vector<RecordedChange> found;
        for (const RecordedChange& change : changes())
            if (change.documentUUID == uuid)
                found.push_back(change);
        return found;
    }
    QStringList deletions() const {
        std::lock_guard lock(mutex_);
        return deletions_;
    }
    int maximumRunning() const {
        std::lock_guard lock(mutex_);
        return maximumRunning_;
    }
    int running() const {
        std::lock_guard lock(mutex_);
        return running_;
    }
    void failNextCalls(int count) {
        std::lock_guard lock(mutex_);
        failuresLeft_ = count;
    }
    void setHolding(bool holding) {
        std::lock_guard lock(mutex_);
        holding_ = holding;
        changed_.notify_all();
    }
    void clear() {
        std::lock_guard lock(mutex_);
        changes_.clear();
        deletions_.clear();
        maximumRunning_ = 0;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<RecordedChange> changes_;
    QStringList deletions_;
    int running_ = 0;
    int maximumRunning_ = 0;
    int failuresLeft_ = 0;
    bool holding_ = false;
};

// Waits until `condition` holds, running the main queue meanwhile; generous, for loaded machines.
inline bool waitUntil(const std::function<bool()>& condition, double seconds = 60) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        QCoreApplication::processEvents();
        QThread::msleep(20);
    }
    return true;
}

inline NBLibraryTimings shortTimings() {
    NBLibraryTimings timings;
    timings.revisionRunDelay = 0.05;
    timings.revisionRunCoalesce = 1.0;
    timings.revisionSaveDelay = 0.2;
    timings.revisionSaveCoalesce = 1.0;
    timings.manifestSaveDelay = 0.1;
    timings.manifestSaveCoalesce = 0.5;
    timings.foreignManifestDelay = 0.1;
    timings.foreignManifestRetryUnit = 0.05;
    timings.manualSyncDelay = 0.1;
    timings.folderCheckInterval = 0.3;
    return timings;
}

// A library under test with its recording service.
struct TestLibrary {
    std::shared_ptr<NBLibraryManager> manager;
    std::shared_ptr<RecordingService> service;

    NBDocumentsController& documents() const { return *manager->documentsController(); }
    NBRevisionController& revisions() const { return *manager->revisionController(); }
    std::shared_ptr<NBBucket> bucket(const QString& path) const {
        return documents().bucketWithAbsolutePath(path);
    }
};

// Sets a library up at `root` with short timers and a recording service; adds `sharedFolder` when given.
inline TestLibrary openTestLibrary(const QString& root, const QString& sharedFolder = QString(),
                                   const NBLibraryTimings& timings = shortTimings()) {
    NBFileObserver::setCoalescingLatency(0.2);
    TestLibrary library;
    library.manager = NBLibraryManager::sharedManagerWithRootPath(root);
    library.manager->setTimings(timings);
    auto service = std::make_shared<std::shared_ptr<RecordingService>>();
    library.manager->setAdditionalServicesFactory(
        [service](const std::shared_ptr<NBLibraryManager>& manager) {
            *service = NBAbstractController::controllerWithLibraryManager<RecordingService>(manager);
            return std::vector<std::shared_ptr<NBAbstractController>>{*service};
        });
    NBError error;
    EXPECT_TRUE(library.manager->setUpWithError(&error)) << error.description().toStdString();
    library.service = *service;
    if (!sharedFolder.isEmpty()) {
        EXPECT_TRUE(library.documents().addSynchronisedFolder(sharedFolder, &error))
            << error.description().toStdString();
    }
    return library;
}

inline void closeTestLibrary(TestLibrary& library) {
    if (!library.manager)
        return;
    library.manager->waitUntilFinished();
    NBError error;
    EXPECT_TRUE(library.manager->tearDownWithError(&error)) << error.description().toStdString();
    library.manager.reset();
}
