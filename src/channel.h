// One end of a task's channel, as the client and the server have it.
#ifndef TARV_SRC_CHANNEL_H
#define TARV_SRC_CHANNEL_H

#include <RuntimeManager/TaskMessaging.h>
#include <quarn/object.h>

#include <QByteArray>
#include <QJsonObject>
#include <QMetaObject>
#include <QObject>
#include <memory>
#include <new>
#include <utility>

#include "optional_members.h"
#include "platform_object.h"

namespace tarv::details {

// Owns a messaging object and brings what arrives on it to the object of type `End` that opened the
// channel: by its handle, so that messages that arrive after its end reach nobody. `End` has
// OnMessageReceived(const QJsonObject&) and OnTextReceived(QByteArray&).
//
// Belongs to the thread of that object, but for Find(), which is for any thread. A send shares the
// messaging object, not the `End`: the thread that sends must never be the one that destroys the
// `End`, and runs its callbacks, because it let go of it last.
template <class End, class Ref>
class Channel {
 public:
  using Messaging = RuntimeManager::TaskMessaging;

  Channel() = default;
  ~Channel() { Close(); }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Takes `messaging`, on which the object with the handle `owner` sends and receives from now on.
  void Open(Messaging* messaging, Ref owner) {
    messaging_ = std::shared_ptr<Messaging>(messaging, DeleteLater());
    owner_ = owner;
    connection_ = Connect();
    GetOpenChannels().Add(GetId(), messaging_);
  }

  bool IsOpen() const { return messaging_ != nullptr; }
  // Null while the channel is not open.
  Messaging* GetMessaging() const { return messaging_.get(); }

  // From now on Find() finds nothing; what arrives is still heard.
  void StopSending() {
    if (IsOpen()) {
      GetOpenChannels().Remove(GetId());
    }
  }

  // Nothing more is sent nor heard. A send that has begun on another thread ends as it would have.
  void Close() {
    StopSending();
    QObject::disconnect(std::exchange(connection_, {}));
    if (const auto messaging = std::exchange(messaging_, nullptr)) {
      messaging->disconnect();
    }
  }

  // The messaging object of the channel that the object with this handle has open, or nothing. It
  // stays alive as long as the caller keeps it. Any thread.
  static std::shared_ptr<Messaging> Find(Ref owner) { return GetOpenChannels().Find(owner); }

 private:
  using OpenChannels = quarn::details::ObjectRegistry<Messaging, Ref>;

  // Never destroyed: threads may still send while the process ends. Made without memory: an end may
  // be the first to ask for it.
  static OpenChannels& GetOpenChannels() {
    alignas(OpenChannels) static unsigned char storage[sizeof(OpenChannels)];
    static auto* const channels = new (storage) OpenChannels;
    return *channels;
  }

  std::uint64_t GetId() const { return reinterpret_cast<std::uint64_t>(owner_); }

  QMetaObject::Connection Connect() {
    ConnectDataReceived(messaging_.get(), [hear = MakeHearer()](QByteArray& text) {
      hear([&text](End& end) { end.OnTextReceived(text); });
    });
    return QObject::connect(
        messaging_.get(), &Messaging::messageReceived, messaging_.get(),
        [hear = MakeHearer()](const QJsonObject& object) {
          hear([&object](End& end) { end.OnMessageReceived(object); });
        },
        Qt::DirectConnection);
  }

  // Calls a function with the owner, of which this is a part, if it still lives. It keeps the
  // messaging object for so long: were a send on another thread the last to let it go, an event
  // loop inside a callback could delete it while it emits.
  auto MakeHearer() const {
    return [this, owner = owner_](auto&& tell) {
      const auto end = End::FromRef(owner);
      const auto messaging = end ? messaging_ : nullptr;
      if (messaging) {
        tell(*end);
      }
    };
  }

  std::shared_ptr<Messaging> messaging_;
  QMetaObject::Connection connection_;
  Ref owner_{};
};

}  // namespace tarv::details

#endif  // TARV_SRC_CHANNEL_H
