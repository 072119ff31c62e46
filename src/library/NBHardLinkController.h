// NBHardLinkController: A browsable folder of attachments under the support folder, made of hard links. Not
// built yet: it takes its place in the library's life cycle and does nothing else; it is not a service.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

class NBHardLinkController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBHardLinkController"); }
};
