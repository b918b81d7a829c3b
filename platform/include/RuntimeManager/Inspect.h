// RuntimeManager::inspect: what there is on this workstation, for tools that show it.
//
// Nothing here starts, connects to, makes or removes anything, and nobody notices that he is looked
// at. Everything is as it was at the moment of the call. Any thread.
//
// A workstation has this header; the runtime manager of a device need not.
#ifndef RUNTIME_MANAGER_INSPECT_H
#define RUNTIME_MANAGER_INSPECT_H

#include <RuntimeManager/Export.h>

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <vector>

namespace RuntimeManager::inspect {

// A file in one of the folders of tasks.
struct FoundTask {
  QString name;
  QString folder;
  QString problem;  // why it cannot be started by its name, and what to do; empty when it can
};

// The folders that tasks are looked for in, in order.
RUNTIME_MANAGER_EXPORT QStringList taskFolders();
// What lies in these folders, by folder and name. A folder that is missing has nothing in it.
RUNTIME_MANAGER_EXPORT std::vector<FoundTask> tasks();
// What runs the program at `path`: a script's interpreter, or a binary's loader; empty for none.
RUNTIME_MANAGER_EXPORT QString interpreterOf(const QString& path);

// The folder of the sockets.
struct RuntimeFolder {
  QString path;
  bool exists = false;
  unsigned mode = 0;  // permission bits, such as 0700
  QString problem;    // why it cannot be used, and what to do; empty when it can, or will be made
};
RUNTIME_MANAGER_EXPORT RuntimeFolder runtimeFolder();

// A file in the folder of the sockets, or of the intents.
struct Socket {
  QString name;
  QString path;
  bool live = false;  // a process has it; what is not live is left over from one that has died
};
// The sockets of running tasks, by name.
RUNTIME_MANAGER_EXPORT std::vector<Socket> taskSockets();
// The intents that somebody owns, or has owned, by name.
RUNTIME_MANAGER_EXPORT std::vector<Socket> intents();

// A number that an environment variable sets.
struct Limit {
  QString variable;
  QString unit;  // "bytes", "seconds"
  quint64 value = 0;
  quint64 by_default = 0;
  QString problem;  // what is wrong with the variable, for which the default holds; or empty
};
RUNTIME_MANAGER_EXPORT std::vector<Limit> limits();

}  // namespace RuntimeManager::inspect

#endif  // RUNTIME_MANAGER_INSPECT_H
