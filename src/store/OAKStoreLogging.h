// The store module's logging category ("quillon.store"): every message of the store engine goes through it.
#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcStore)
