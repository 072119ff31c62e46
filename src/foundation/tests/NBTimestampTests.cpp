// Tests of the timestamp clock and its conversions.
#include "foundation/NBTimestamp.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

TEST(NBTimestamp, NeverRepeatsAcrossThreads) {
    // Four threads asking as fast as they can still get distinct values, each thread's strictly increasing.
    constexpr int perThread = 20000;
    std::vector<std::vector<NBTimestamp>> seen(4);
    std::vector<std::thread> threads;
    for (auto& values : seen)
        threads.emplace_back([&values] {
            for (int index = 0; index < perThread; ++index)
                values.push_back(timestampNow());
        });
    for (auto& thread : threads)
        thread.join();
    std::vector<NBTimestamp> all;
    for (const auto& values : seen) {
        for (std::size_t index = 1; index < values.size(); ++index)
            ASSERT_LT(values[index - 1], values[index]);
        all.insert(all.end(), values.begin(), values.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

TEST(NBTimestamp, CountsMicrosecondsSince2001) {
    QDateTime now = QDateTime::currentDateTimeUtc();
    NBTimestamp stamp = timestampNow();
    QDateTime reference(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    EXPECT_NEAR(double(stamp) / 1e6, double(reference.msecsTo(now)) / 1e3, 5.0);
    EXPECT_EQ(timestampForDate(reference), 0);
    // Dates before the reference date are negative and convert back to the same millisecond.
    QDateTime early(QDate(2000, 12, 31), QTime(23, 59, 59, 250), Qt::UTC);
    EXPECT_EQ(timestampForDate(early), -750000);
    EXPECT_EQ(dateForTimestamp(-750000), early);
    EXPECT_EQ(dateForTimestamp(-750001), early.addMSecs(-1));
}
