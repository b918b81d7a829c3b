#include <quarn/dispatcher.h>
#include <quarn/logger.h>

namespace quarn {
namespace {

class EmptyDispatcher : public IDispatcher {
 public:
  void Invoke(const std::function<void()>& /*task*/, unsigned int /*param*/) override {
    QUARN_LOG_WARN() << "EmptyDispatcher::Invoke(): no-op method invoked.";
  }
};

}  // namespace

std::shared_ptr<IDispatcher> IDispatcher::CreateEmpty() {
  return std::make_shared<EmptyDispatcher>();
}

}  // namespace quarn
