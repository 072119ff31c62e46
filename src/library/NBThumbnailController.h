// NBThumbnailController: A small image per document, cached under "DerivedInfo". Not built yet: it takes its
// place in the library's life cycle and does nothing else; it is not a service.
#pragma once

#include "library/NBAbstractController.h"

#include <QString>

class NBThumbnailController : public NBAbstractController {
public:
    using NBAbstractController::NBAbstractController;
    QString className() const override { return QStringLiteral("NBThumbnailController"); }
};
