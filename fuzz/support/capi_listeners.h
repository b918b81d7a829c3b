// Slots for the C interface that write down what the library tells them, and hold it to the order
// that the header promises.
#ifndef FUZZ_SUPPORT_CAPI_LISTENERS_H
#define FUZZ_SUPPORT_CAPI_LISTENERS_H

#include <tarv/tarv_capi.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace tarv::fuzz {

class Listeners;

// Whoever gave slots to the library: what it has been told since.
struct Listener {
  Listeners* all = nullptr;
  void* handle = nullptr;   // of whom the slots were given to
  bool is_released = true;  // by the library, in the end: else the slots were not taken
  int started = 0;
  bool has_failed = false;  // the start
  int ended = 0;
  int answered = 0;
  int released = 0;
};

// A message that has not been given back.
struct LockedText {
  void* handle;
  std::size_t chunk;
  const char* text;
  std::string copy;
};

class Listeners {
 public:
  virtual ~Listeners() = default;

  // Slots of which the library is to know the first `size` bytes. What lies beyond is a trap.
  TARVRpcClientSlots MakeClientSlots(void* client, std::size_t size);
  TARVRpcServerSlots MakeServerSlots(void* server, std::size_t size);
  TARVOpenUriSlot MakeUriSlot(void* intents, std::size_t size);
  TARVRegisterIntentSlot MakeIntentSlot(void* intents, std::size_t size);
  // The slots made last, which the library has just refused: it must not have touched them.
  void Disown(std::size_t index);
  std::size_t Count() const { return listeners_.size(); }

  // Every slot that was taken is released, once.
  void CheckReleased() const;
  // Texts that are locked are still what they were.
  void CheckTexts() const;
  void ForgetText(const void* handle, std::size_t chunk);
  const std::vector<LockedText>& GetTexts() const { return texts_; }

  // What the library tells.
  void OnStarted(Listener& listener, int code);
  void OnEnded(Listener& listener);
  void OnMessage(Listener& listener, const char* text, std::size_t chunk);
  void OnAnswered(Listener& listener);
  void OnInvoked(const Listener& listener, const TARVReplyIntentSlot& reply);
  void OnReleased(Listener& listener);

 protected:
  // A callback goes on.
  virtual void Nest() = 0;

  std::vector<TARVReplyIntentSlot> replies_;  // to intents, which wait to be answered

 private:
  template <class Slots>
  void Finish(Slots& slots, void* handle, std::size_t size);

  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<LockedText> texts_;
};

}  // namespace tarv::fuzz

#endif  // FUZZ_SUPPORT_CAPI_LISTENERS_H
