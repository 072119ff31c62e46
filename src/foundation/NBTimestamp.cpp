// The process-wide strictly increasing clock behind timestampNow().
#include "foundation/NBTimestamp.h"

#include <atomic>
#include <chrono>

NBTimestamp timestampNow() {
    static std::atomic<NBTimestamp> lastTimestamp{timestampForDistantPast()};
    const auto sinceUnixEpoch = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    // duration_cast truncates toward zero, as the timestamp's definition asks.
    NBTimestamp candidate = sinceUnixEpoch.count() - kNBReferenceDateUnixMicroseconds;
    NBTimestamp previous = lastTimestamp.load(std::memory_order_relaxed);
    for (;;) {
        NBTimestamp next = candidate > previous ? candidate : previous + 1;
        if (lastTimestamp.compare_exchange_weak(previous, next, std::memory_order_relaxed))
            return next;
    }
}

QDateTime dateForTimestamp(NBTimestamp timestamp) {
    // Divide toward negative infinity so dates before 2001 land on the right millisecond.
    std::int64_t unixMicroseconds = timestamp + kNBReferenceDateUnixMicroseconds;
    std::int64_t milliseconds = unixMicroseconds / 1000;
    if (unixMicroseconds % 1000 < 0)
        --milliseconds;
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC);
}

NBTimestamp timestampForDate(const QDateTime& date) {
    return date.toMSecsSinceEpoch() * 1000 - kNBReferenceDateUnixMicroseconds;
}
