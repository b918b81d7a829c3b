// The text form of a message that is about to be sent.
#ifndef VORPC_INTERNAL_OUTGOING_TEXT_H
#define VORPC_INTERNAL_OUTGOING_TEXT_H

#include <vorpc/message.h>

#include <string>

namespace vorpc {

// As Message::ToBase64. The memory of a large text is that of an earlier one, and is kept for the
// next when this one goes.
class OutgoingText {
 public:
  explicit OutgoingText(const Message& message);
  ~OutgoingText();
  OutgoingText(const OutgoingText&) = delete;
  OutgoingText& operator=(const OutgoingText&) = delete;

  const std::string& Get() const { return text_; }

 private:
  std::string text_;
};

}  // namespace vorpc

#endif  // VORPC_INTERNAL_OUTGOING_TEXT_H
