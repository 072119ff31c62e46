// Helpers shared by the store's tests: a store that keeps every key, notification recording, snapshots of a
// package's file tree, and waiting for a condition with a generous deadline.
#pragma once

#include "foundation/NBNotificationCenter.h"
#include "foundation/testing/NBCommandRun.h"
#include "store/OAKStore.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QThread>

#include <chrono>
#include <functional>
#include <mutex>

// Keeps every key found in the logs in memory (the base store keeps none after a reload).
class AllKeysStore : public OAKStore {
public:
    using OAKStore::OAKStore;
    static std::shared_ptr<AllKeysStore> open(const QString& packagePath, const QString& deviceIdentifier,
                                              const OAKStoreOptions& options = {}) {
        return std::make_shared<AllKeysStore>(QUrl::fromLocalFile(packagePath), deviceIdentifier, options);
    }

protected:
    std::optional<QSet<QString>> relevantKeysForSync() const override { return std::nullopt; }
};

// A store that keeps only the keys it is told to (set before loading or syncing).
class ChosenKeysStore : public OAKStore {
public:
    using OAKStore::OAKStore;
    void setRelevantKeys(const QSet<QString>& keys) {
        std::lock_guard lock(mutex_);
        keys_ = keys;
    }

protected:
    std::optional<QSet<QString>> relevantKeysForSync() const override {
        std::lock_guard lock(mutex_);
        return keys_;
    }

private:
    mutable std::mutex mutex_;
    QSet<QString> keys_;
};

// Records the notifications one store posts.
class NotificationRecorder {
public:
    explicit NotificationRecorder(const OAKStore* store) {
        observer_ = NBScopedObserver(NBNotificationCenter::defaultCenter(),
                                     NBNotificationCenter::defaultCenter().addObserverForName(
                                         QString(), store, [this](const NBNotification& notification) {
                                             std::lock_guard lock(mutex_);
                                             notifications_.push_back(notification);
                                         }));
    }
    std::vector<NBNotification> notifications(const QString& name = QString()) const {
        std::lock_guard lock(mutex_);
        std::vector<NBNotification> found;
        for (const NBNotification& notification : notifications_) {
            if (name.isEmpty() || notification.name == name)
                found.push_back(notification);
        }
        return found;
    }
    std::size_t count(const char* name) const { return notifications(QString::fromUtf8(name)).size(); }
    void clear() {
        std::lock_guard lock(mutex_);
        notifications_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<NBNotification> notifications_;
    NBScopedObserver observer_;
};

inline QMap<QString, QByteArray> treeSnapshot(const QString& root) {
    return nbTreeSnapshot(root);
}

// Polls `condition` until it holds or `seconds` pass; returns whether it held.
inline bool waitFor(const std::function<bool()>& condition, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition())
            return true;
        QThread::msleep(20);
    }
    return condition();
}

inline bool writeFile(const QString& path, const QByteArray& data) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

inline QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
