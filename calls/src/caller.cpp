#include <quarn/escaped.h>
#include <quarn/logger.h>
#include <tarv/calls/caller.h>

#include "caller_core.h"

namespace tarv {

Caller::Caller(std::shared_ptr<vorpc::IClient> client, std::shared_ptr<Loop> loop,
               const CallerOptions& options)
    : core_(std::make_shared<details::CallerCore>(std::move(loop), options)) {
  core_->Attach(std::move(client));
}

Caller::~Caller() {
  if (!core_->GetLoop()->IsCurrent()) {
    QUARN_LOG_FATAL() << "A tarv::Caller of "
                      << quarn::Escaped{details::TextOfTask(core_->GetTaskName())}
                      << " is destroyed on another thread than its loop's.";
  }
  core_->Close();
}

Metrics Caller::GetMetrics() const { return core_->GetMeter().GetMetrics(); }

}  // namespace tarv
