// NBTimerController: The library's running timers. Not built yet: it takes its place in the library's life
// cycle and does nothing else; it is not a service.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

class NBTimerController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBTimerController"); }
};
