#ifndef RUNTIME_MANAGER_EXPORT_H
#define RUNTIME_MANAGER_EXPORT_H

#include <QtCore/qglobal.h>

// What users of the runtime-manager client library link against.
#define RUNTIME_MANAGER_EXPORT Q_DECL_EXPORT

#endif  // RUNTIME_MANAGER_EXPORT_H
