// NBiCloudController: iCloud documents. This platform has no iCloud folder, so iCloudDocumentsURL() is empty
// and the controller does nothing, for good: it exists so that the library has the same nine sub-controllers
// everywhere.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

class NBiCloudController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBiCloudController"); }
    // Always empty on this platform.
    QString iCloudDocumentsURL() const { return QString(); }
};
