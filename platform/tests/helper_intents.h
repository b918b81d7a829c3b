// A process that owns an intent.
#ifndef RUNTIME_MANAGER_TESTS_HELPER_INTENTS_H
#define RUNTIME_MANAGER_TESTS_HELPER_INTENTS_H

#include <QtCore/QString>

namespace helper {

// Answers invocations with their parameters and its process id, unless `how` tells another way.
int OwnIntent(const QString& name, const QString& how);

}  // namespace helper

#endif  // RUNTIME_MANAGER_TESTS_HELPER_INTENTS_H
