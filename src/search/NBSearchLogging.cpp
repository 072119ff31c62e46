// Defines the search module's logging category.
#include "search/NBSearchLogging.h"

Q_LOGGING_CATEGORY(lcSearch, "quillon.search")
