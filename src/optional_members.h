// Members that a platform's runtime manager may have or lack. The compiler finds them: the service
// is compiled against the headers of the platform that it will run with.
//
// Without `Task::finished` and `TaskMessaging::disconnected` a client does not hear that its task
// has ended; without `sendData` and `dataReceived` texts travel as JSON objects, which costs
// copies. Nothing else depends on them.
#ifndef TARV_SRC_OPTIONAL_MEMBERS_H
#define TARV_SRC_OPTIONAL_MEMBERS_H

#include <RuntimeManager/Error.h>

#include <QByteArray>
#include <QObject>
#include <type_traits>
#include <utility>

namespace tarv::details {

template <class, template <class> class Member, class T>
struct Detector : std::false_type {};
template <template <class> class Member, class T>
struct Detector<std::void_t<Member<T>>, Member, T> : std::true_type {};

// Whether `T` has the member that `Member<T>` is the type of.
template <template <class> class Member, class T>
constexpr bool kHas = Detector<void, Member, T>::value;

// The types of the members, which exist where the members do.
template <class T>
using Finished = decltype(static_cast<void (T::*)(const RuntimeManager::Error&)>(&T::finished));
template <class T>
using Disconnected =
    decltype(static_cast<void (T::*)(const RuntimeManager::Error&)>(&T::disconnected));
template <class T>
using DataReceived = decltype(static_cast<void (T::*)(QByteArray&)>(&T::dataReceived));
template <class T>
using SendData = decltype(std::declval<T&>().sendData(std::declval<const QByteArray&>()));

// Each calls `handler`, on the thread that emits, for the signal of its name; without the signal
// never.
template <class Task, class Handler>
void ConnectFinished(Task* task, Handler handler) {
  if constexpr (kHas<Finished, Task>) {
    QObject::connect(task, static_cast<Finished<Task>>(&Task::finished), task, std::move(handler),
                     Qt::DirectConnection);
  }
}

template <class Messaging, class Handler>
void ConnectDisconnected(Messaging* messaging, Handler handler) {
  if constexpr (kHas<Disconnected, Messaging>) {
    QObject::connect(messaging, static_cast<Disconnected<Messaging>>(&Messaging::disconnected),
                     messaging, std::move(handler), Qt::DirectConnection);
  }
}

template <class Messaging, class Handler>
void ConnectDataReceived(Messaging* messaging, Handler handler) {
  if constexpr (kHas<DataReceived, Messaging>) {
    QObject::connect(messaging, static_cast<DataReceived<Messaging>>(&Messaging::dataReceived),
                     messaging, std::move(handler), Qt::DirectConnection);
  }
}

}  // namespace tarv::details

#endif  // TARV_SRC_OPTIONAL_MEMBERS_H
