// A platform of which a test decides every move, and which writes down all that it is asked. It has
// the operations that every platform has, and with FAKE_OPTIONAL_MEMBERS those that one may lack.
#ifndef FAKE_RUNTIME_MANAGER_ERROR_H
#define FAKE_RUNTIME_MANAGER_ERROR_H

#include <QString>
#include <utility>

namespace RuntimeManager {

class Error {
 public:
  Error() = default;
  Error(int code, QString message) : code_(code), message_(std::move(message)) {}
  bool isError() const { return code_ != 0; }
  int code() const { return code_; }
  QString message() const { return message_; }

 private:
  int code_ = 0;
  QString message_;
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_ERROR_H
