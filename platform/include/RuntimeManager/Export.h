#ifndef RUNTIME_MANAGER_EXPORT_H
#define RUNTIME_MANAGER_EXPORT_H

#include <QtCore/qglobal.h>

// Marks what the runtime-manager client library shows to programs that link it.
#define RUNTIME_MANAGER_EXPORT Q_DECL_EXPORT

#endif  // RUNTIME_MANAGER_EXPORT_H
