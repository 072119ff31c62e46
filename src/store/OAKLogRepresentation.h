// Log representations: the rows of one device's log as plain values, for merging two packages of a store.
//
// A representation holds the four columns of a row. They are totally ordered by timestamp, then key, then
// parent timestamp (absent before present), then blob bytes (absent before present), so two logs can be
// merged as sorted lists: the union takes an entry that both lists hold once, the difference takes away
// entries the other list holds. These are pure functions over values; the store reads and writes the logs.
#pragma once

#include "foundation/NBTimestamp.h"
#include "store/OAKStoreLog.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

struct OAKLogRepresentation {
    NBTimestamp timestamp = 0;
    std::optional<QString> key;
    std::optional<NBTimestamp> parentTimestamp;
    std::optional<QByteArray> blob;

    static OAKLogRepresentation fromRow(const OAKLogRow& row);
    bool operator==(const OAKLogRepresentation& other) const = default;
};

// The total order described above.
bool operator<(const OAKLogRepresentation& first, const OAKLogRepresentation& second);

void sortLogRepresentations(std::vector<OAKLogRepresentation>& representations);
// Both lists sorted; an entry equal in all four fields to one of the other list is taken once.
std::vector<OAKLogRepresentation> unionOfLogRepresentations(const std::vector<OAKLogRepresentation>& first,
                                                            const std::vector<OAKLogRepresentation>& second);
// Both lists sorted; the entries of `first` that `second` does not hold.
std::vector<OAKLogRepresentation>
logRepresentationsMinusLogRepresentations(const std::vector<OAKLogRepresentation>& first,
                                          const std::vector<OAKLogRepresentation>& second);
