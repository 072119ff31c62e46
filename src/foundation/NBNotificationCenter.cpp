// Synchronous delivery of named notifications.
#include "foundation/NBNotificationCenter.h"

#include <atomic>

struct NBNotificationCenter::Registration {
    ObserverToken token;
    QString name;
    const void* object;
    Callback callback;
    std::atomic<bool> removed{false};
};

NBNotificationCenter& NBNotificationCenter::defaultCenter() {
    static NBNotificationCenter center;
    return center;
}

NBNotificationCenter::ObserverToken
NBNotificationCenter::addObserverForName(const QString& name, const void* object, Callback callback) {
    std::lock_guard lock(mutex_);
    auto registration = std::make_shared<Registration>();
    registration->token = nextToken_++;
    registration->name = name;
    registration->object = object;
    registration->callback = std::move(callback);
    registrations_.push_back(registration);
    return registration->token;
}

void NBNotificationCenter::removeObserver(ObserverToken token) {
    std::lock_guard lock(mutex_);
    for (auto iterator = registrations_.begin(); iterator != registrations_.end(); ++iterator) {
        if ((*iterator)->token == token) {
            (*iterator)->removed.store(true);
            registrations_.erase(iterator);
            return;
        }
    }
}

void NBNotificationCenter::postNotificationName(const QString& name, const void* object,
                                                const QVariantMap& userInfo) {
    postNotification(NBNotification{name, object, userInfo});
}

void NBNotificationCenter::postNotification(const NBNotification& notification) {
    std::vector<std::shared_ptr<Registration>> receivers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& registration : registrations_) {
            bool nameMatches = registration->name.isEmpty() || registration->name == notification.name;
            bool objectMatches = !registration->object || registration->object == notification.object;
            if (nameMatches && objectMatches)
                receivers.push_back(registration);
        }
    }
    for (const auto& receiver : receivers) {
        if (!receiver->removed.load())
            receiver->callback(notification);
    }
}

std::size_t NBNotificationCenter::observerCount() const {
    std::lock_guard lock(mutex_);
    return registrations_.size();
}

NBScopedObserver& NBScopedObserver::operator=(NBScopedObserver&& other) noexcept {
    if (this != &other) {
        reset();
        center_ = other.center_;
        token_ = other.token_;
        other.center_ = nullptr;
        other.token_ = 0;
    }
    return *this;
}

void NBScopedObserver::reset() {
    if (center_ && token_)
        center_->removeObserver(token_);
    center_ = nullptr;
    token_ = 0;
}
