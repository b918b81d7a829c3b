#ifndef STUB_RUNTIME_MANAGER_TASK_H
#define STUB_RUNTIME_MANAGER_TASK_H

#include <RuntimeManager/Error.h>

#include <QFlags>
#include <QObject>
#include <QStringList>
#include <functional>

namespace RuntimeManager {

// Starts nothing, and says that it has.
class STUB_EXPORT Task : public QObject {
  Q_OBJECT

 public:
  enum class StopFlag { Kill = 1 };
  Q_DECLARE_FLAGS(StopFlags, StopFlag)
  using Completion = std::function<void(const Error&)>;

  explicit Task(const QString& name, QObject* parent = nullptr);
  ~Task() override;
  void withIpcSocket(bool enabled);
  void withArguments(const QStringList& arguments);
  void start(Completion completion);
  void stop(StopFlags flags, Completion completion);
  QString socketPath() const;

#ifdef STUB_OPTIONAL_MEMBERS
 Q_SIGNALS:
  void finished(const RuntimeManager::Error& error);
#endif

 private:
  QString name_;
  Reserve reserve_;
};

}  // namespace RuntimeManager

#endif  // STUB_RUNTIME_MANAGER_TASK_H
