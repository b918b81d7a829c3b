// cw::MethodResult: how the outcome of a method call reaches whoever waits for it.
#ifndef CW_METHOD_RESULT_H
#define CW_METHOD_RESULT_H

#include <cw/encodable_value.h>
#include <quarn/export.h>

#include <functional>
#include <string>
#include <utility>

namespace cw {

// Call exactly one of Success, Error and NotImplemented, exactly once. The arguments need to live
// during the call only.
template <class T = EncodableValue>
class TARV_EXPORT MethodResult {
 public:
  MethodResult() = default;
  MethodResult(const MethodResult&) = delete;
  MethodResult& operator=(const MethodResult&) = delete;
  virtual ~MethodResult() = default;

  void Success() { SuccessInternal(nullptr); }
  void Success(const T& result) { SuccessInternal(&result); }

  void Error(const std::string& code, const std::string& message = "") {
    ErrorInternal(code, message, nullptr);
  }
  void Error(const std::string& code, const std::string& message, const T& details) {
    ErrorInternal(code, message, &details);
  }

  void NotImplemented() { NotImplementedInternal(); }

 protected:
  // `result` is null when there is none.
  virtual void SuccessInternal(const T* result) = 0;
  // `details` is null when there are none.
  virtual void ErrorInternal(const std::string& code, const std::string& message,
                             const T* details) = 0;
  virtual void NotImplementedInternal() = 0;
};

// Hands each outcome to a function; an outcome whose function is empty is dropped.
template <class T = EncodableValue>
class TARV_EXPORT MethodResultFunctions final : public MethodResult<T> {
 public:
  using SuccessHandler = std::function<void(const T* result)>;
  using ErrorHandler =
      std::function<void(const std::string& code, const std::string& message, const T* details)>;
  using NotImplementedHandler = std::function<void()>;

  MethodResultFunctions(SuccessHandler on_success, ErrorHandler on_error,
                        NotImplementedHandler on_not_implemented)
      : on_success_(std::move(on_success)),
        on_error_(std::move(on_error)),
        on_not_implemented_(std::move(on_not_implemented)) {}

 protected:
  void SuccessInternal(const T* result) override {
    if (on_success_) {
      on_success_(result);
    }
  }
  void ErrorInternal(const std::string& code, const std::string& message,
                     const T* details) override {
    if (on_error_) {
      on_error_(code, message, details);
    }
  }
  void NotImplementedInternal() override {
    if (on_not_implemented_) {
      on_not_implemented_();
    }
  }

 private:
  SuccessHandler on_success_;
  ErrorHandler on_error_;
  NotImplementedHandler on_not_implemented_;
};

}  // namespace cw

#endif  // CW_METHOD_RESULT_H
