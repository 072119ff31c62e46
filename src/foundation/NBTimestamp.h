// Timestamps: signed 64-bit counts of microseconds since 2001-01-01 00:00:00 UTC.
//
// Every log row, every "changes since" request and every manifest row is ordered by them. timestampNow()
// never returns the same value twice in one process: when the clock has not moved on since the previous
// call (or has gone backwards), it returns the previous value plus one microsecond, so two edits made within
// one microsecond keep their order.
#pragma once

#include <QDateTime>

#include <cstdint>
#include <limits>

using NBTimestamp = std::int64_t;

// Microseconds between the Unix epoch and 2001-01-01 00:00:00 UTC.
inline constexpr std::int64_t kNBReferenceDateUnixMicroseconds = 978307200LL * 1000000LL;

NBTimestamp timestampNow();
constexpr NBTimestamp timestampForDistantPast() {
    return std::numeric_limits<NBTimestamp>::min();
}
constexpr NBTimestamp timestampForDistantFuture() {
    return std::numeric_limits<NBTimestamp>::max();
}

// Conversions to and from wall-clock dates (UTC); sub-millisecond digits are lost in QDateTime.
QDateTime dateForTimestamp(NBTimestamp timestamp);
NBTimestamp timestampForDate(const QDateTime& date);
