// A process-wide notification centre: named notifications with a sender and a user-information dictionary.
//
// Observers register for a name (or every name, with an empty name) and optionally for one sender; a
// notification is delivered synchronously on the posting thread to the observers registered when it was
// posted, in registration order. An observer may remove itself or others from inside its callback: a
// removed observer is never called again, even later in the same delivery. Stores, buckets and file
// observers post through it ("OAKStoreDidChangeNotification", ...).
#pragma once

#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

struct NBNotification {
    QString name;
    // The sender, compared by identity; receivers that know the name know its type.
    const void* object = nullptr;
    QVariantMap userInfo;
};

class NBNotificationCenter {
public:
    using Callback = std::function<void(const NBNotification&)>;
    using ObserverToken = quint64;

    NBNotificationCenter() = default;
    NBNotificationCenter(const NBNotificationCenter&) = delete;
    NBNotificationCenter& operator=(const NBNotificationCenter&) = delete;

    static NBNotificationCenter& defaultCenter();

    // `name` empty: every name; `object` null: every sender. Returns a token for removal (never 0).
    ObserverToken addObserverForName(const QString& name, const void* object, Callback callback);
    void removeObserver(ObserverToken token);
    void postNotificationName(const QString& name, const void* object, const QVariantMap& userInfo = {});
    void postNotification(const NBNotification& notification);
    std::size_t observerCount() const;

private:
    struct Registration;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Registration>> registrations_;
    ObserverToken nextToken_ = 1;
};

// Removes its observer when destroyed: the usual way for an object to observe for its lifetime.
class NBScopedObserver {
public:
    NBScopedObserver() = default;
    NBScopedObserver(NBNotificationCenter& center, NBNotificationCenter::ObserverToken token)
        : center_(&center), token_(token) {}
    NBScopedObserver(NBScopedObserver&& other) noexcept { *this = std::move(other); }
    NBScopedObserver& operator=(NBScopedObserver&& other) noexcept;
    ~NBScopedObserver() { reset(); }
    void reset();

private:
    NBNotificationCenter* center_ = nullptr;
    NBNotificationCenter::ObserverToken token_ = 0;
};
