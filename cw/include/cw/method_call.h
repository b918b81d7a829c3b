// cw::MethodCall: the name of a method and the arguments that it is called with.
#ifndef CW_METHOD_CALL_H
#define CW_METHOD_CALL_H

#include <cw/encodable_value.h>
#include <quarn/export.h>

#include <memory>
#include <string>
#include <utility>

namespace cw {

// A plain value; never changes.
template <class T = EncodableValue>
class TARV_EXPORT MethodCall {
 public:
  // Takes over the arguments; an empty pointer for a call without any.
  MethodCall(std::string method_name, std::unique_ptr<T> arguments)
      : method_name_(std::move(method_name)), arguments_(std::move(arguments)) {}

  const std::string& GetMethodName() const { return method_name_; }
  // Null when there are none. Owned by the call.
  const T* GetArguments() const { return arguments_.get(); }

 private:
  std::string method_name_;
  std::unique_ptr<T> arguments_;
};

}  // namespace cw

#endif  // CW_METHOD_CALL_H
