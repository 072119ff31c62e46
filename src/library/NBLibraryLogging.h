// The library module's logging category ("quillon.library"), through which every message of the library
// manager, its sub-controllers, the buckets and the revision controller is written.
#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcLibrary)
