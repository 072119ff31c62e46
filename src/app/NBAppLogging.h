// The logging category of the desktop program's widgets ("quillon.app").
#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcApp)
