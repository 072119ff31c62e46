// The logging category of the search module ("quillon.search"): its messages and assertion failures.
#pragma once

#include "foundation/NBLogging.h"

Q_DECLARE_LOGGING_CATEGORY(lcSearch)
