// NBUIStateController: The saved state of the user interface, kept in "PersistentInfo". Not built yet: it
// takes its place in the library's life cycle and does nothing else; it is not a service.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

class NBUIStateController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBUIStateController"); }
};
