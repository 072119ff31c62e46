// NBSearchController: The search service: it will keep the full-text indexes of every document current and
// answer "search_v2" as its service name once those indexes exist. Until then it is not a service (its name
// is empty), so no revision records are kept for it, and it does nothing but take its place in the life
// cycle.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

class NBSearchController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBSearchController"); }
};
