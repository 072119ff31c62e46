// `quillon store`: plumbing for inspecting and scripting store packages (see StoreCommand.cpp).
#pragma once

#include <QString>
#include <QVariant>

#include <optional>

namespace CLI {
class App;
}

void addStoreCommand(CLI::App& app);

// The JSON form of property-list values used by `quillon store`, exposed for tests: strings, integers,
// reals (always with a fraction or an exponent), booleans, arrays and dictionaries map to their JSON forms;
// data is {"$data": "<base64>"}; a date is {"$date": "<RFC 3339 UTC with microseconds>"}.
QString storeJSONFromPropertyList(const QVariant& value);
// Parses the JSON form back; JSON null, malformed text and malformed "$data"/"$date" objects give no value
// and a message in *outMessage.
std::optional<QVariant> storePropertyListFromJSON(const QString& text, QString* outMessage);
