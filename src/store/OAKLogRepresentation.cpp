// Log representations: their total order, union and difference (see OAKLogRepresentation.h).
#include "store/OAKLogRepresentation.h"

#include <algorithm>

namespace {

// Absent sorts before present; present values compare with `less`.
template <typename Value, typename Less>
int compareOptional(const std::optional<Value>& first, const std::optional<Value>& second, Less less) {
    if (!first || !second)
        return int(first.has_value()) - int(second.has_value());
    if (less(*first, *second))
        return -1;
    if (less(*second, *first))
        return 1;
    return 0;
}

int compare(const OAKLogRepresentation& first, const OAKLogRepresentation& second) {
    if (first.timestamp != second.timestamp)
        return first.timestamp < second.timestamp ? -1 : 1;
    if (const int order =
            compareOptional(first.key, second.key, [](const QString& a, const QString& b) { return a < b; }))
        return order;
    if (const int order =
            compareOptional(first.parentTimestamp, second.parentTimestamp, std::less<NBTimestamp>()))
        return order;
    return compareOptional(first.blob, second.blob,
                           [](const QByteArray& a, const QByteArray& b) { return a < b; });
}

} // namespace

OAKLogRepresentation OAKLogRepresentation::fromRow(const OAKLogRow& row) {
    return {row.timestamp, row.key, row.parentTimestamp, row.blob};
}

bool operator<(const OAKLogRepresentation& first, const OAKLogRepresentation& second) {
    return compare(first, second) < 0;
}

void sortLogRepresentations(std::vector<OAKLogRepresentation>& representations) {
    std::sort(representations.begin(), representations.end());
}

std::vector<OAKLogRepresentation> unionOfLogRepresentations(const std::vector<OAKLogRepresentation>& first,
                                                            const std::vector<OAKLogRepresentation>& second) {
    std::vector<OAKLogRepresentation> result;
    result.reserve(first.size() + second.size());
    std::size_t firstIndex = 0;
    std::size_t secondIndex = 0;
    while (firstIndex < first.size() && secondIndex < second.size()) {
        const int order = compare(first[firstIndex], second[secondIndex]);
        if (order < 0) {
            result.push_back(first[firstIndex++]);
        } else if (order > 0) {
            result.push_back(second[secondIndex++]);
        } else {
            result.push_back(first[firstIndex++]);
            ++secondIndex;
        }
    }
    result.insert(result.end(), first.begin() + std::ptrdiff_t(firstIndex), first.end());
    result.insert(result.end(), second.begin() + std::ptrdiff_t(secondIndex), second.end());
    return result;
}

std::vector<OAKLogRepresentation>
logRepresentationsMinusLogRepresentations(const std::vector<OAKLogRepresentation>& first,
                                          const std::vector<OAKLogRepresentation>& second) {
    std::vector<OAKLogRepresentation> result;
    std::size_t secondIndex = 0;
    for (const OAKLogRepresentation& entry : first) {
        while (secondIndex < second.size() && compare(second[secondIndex], entry) < 0)
            ++secondIndex;
        if (secondIndex < second.size() && compare(second[secondIndex], entry) == 0) {
            ++secondIndex;
            continue;
        }
        result.push_back(entry);
    }
    return result;
}
