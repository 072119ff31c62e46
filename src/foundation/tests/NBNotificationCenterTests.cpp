// Tests of notification delivery: filtering by name and sender, order, removal during delivery.
#include "foundation/NBNotificationCenter.h"

#include <gtest/gtest.h>

#include <thread>

TEST(NBNotificationCenter, DeliversByNameAndSenderInRegistrationOrder) {
    NBNotificationCenter center;
    int storeA = 0, storeB = 0;
    QStringList received;
    center.addObserverForName("Changed", &storeA, [&](const NBNotification& n) {
        received << "A-only:" + n.userInfo.value("key").toString();
    });
    center.addObserverForName("Changed", nullptr, [&](const NBNotification& n) {
        received << QString("any:") + (n.object == &storeA ? "A" : "B");
    });
    center.addObserverForName(QString(), nullptr,
                              [&](const NBNotification& n) { received << "all:" + n.name; });

    center.postNotificationName("Changed", &storeA, {{"key", "title"}});
    center.postNotificationName("Changed", &storeB);
    center.postNotificationName("Deleted", &storeB);
    EXPECT_EQ(received,
              QStringList({"A-only:title", "any:A", "all:Changed", "any:B", "all:Changed", "all:Deleted"}));
}

TEST(NBNotificationCenter, ObserverRemovedDuringDeliveryIsNotCalledAgain) {
    NBNotificationCenter center;
    QStringList received;
    NBNotificationCenter::ObserverToken second = 0;
    NBNotificationCenter::ObserverToken first =
        center.addObserverForName("N", nullptr, [&](const NBNotification&) {
            received << "first";
            // Removing itself and the next observer from inside the callback.
            center.removeObserver(first);
            center.removeObserver(second);
        });
    second = center.addObserverForName("N", nullptr, [&](const NBNotification&) { received << "second"; });
    center.addObserverForName("N", nullptr, [&](const NBNotification&) { received << "third"; });

    center.postNotificationName("N", nullptr);
    center.postNotificationName("N", nullptr);
    EXPECT_EQ(received, QStringList({"first", "third", "third"}));
    EXPECT_EQ(center.observerCount(), 1u);
}

TEST(NBNotificationCenter, ScopedObserverAndPostingFromThreads) {
    NBNotificationCenter center;
    std::atomic<int> count{0};
    std::thread::id deliveredOn;
    {
        NBScopedObserver observer(center, center.addObserverForName("N", nullptr, [&](const NBNotification&) {
            deliveredOn = std::this_thread::get_id();
            ++count;
        }));
        std::thread poster([&] { center.postNotificationName("N", nullptr); });
        std::thread::id posterId = poster.get_id();
        poster.join();
        EXPECT_EQ(deliveredOn, posterId); // delivered on the posting thread
        NBScopedObserver moved = std::move(observer);
        center.postNotificationName("N", nullptr);
        EXPECT_EQ(count.load(), 2);
    }
    center.postNotificationName("N", nullptr);
    EXPECT_EQ(count.load(), 2);
    EXPECT_EQ(center.observerCount(), 0u);
}
