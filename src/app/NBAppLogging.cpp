// Defines the desktop program's logging category.
#include "app/NBAppLogging.h"

Q_LOGGING_CATEGORY(lcApp, "quillon.app")
