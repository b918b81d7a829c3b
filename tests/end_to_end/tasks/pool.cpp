// The task "pool": eight threads answer what it is asked, and eight send as much as they are told to.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "end_to_end/numbered.h"

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;
using tarv::test::kThreads;

class Pool final : public cw::Plugin {
 public:
  explicit Pool(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnRequest("work", [this](const std::string& /*method*/,
                                      const cw::EncodableValue& params, Reply&& reply) {
      const std::lock_guard lock(mutex_);
      jobs_.push_back({params, std::move(reply)});
      changed_.notify_one();
    });
    server_->OnNotify("send", [this](const vorpc::Message::Notification& notification) {
      SendFromAll(notification.params.AsInt64().value_or(0));
    });
    // Nothing is read meanwhile.
    server_->OnNotify("pause", [](const vorpc::Message::Notification& notification) {
      std::this_thread::sleep_for(
          std::chrono::milliseconds(notification.params.AsInt64().value_or(0)));
    });
    for (int i = 0; i < kThreads; ++i) {
      threads_.emplace_back([this] { Work(); });
    }
    server_->Run();
  }

  ~Pool() override {
    {
      const std::lock_guard lock(mutex_);
      stops_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

 private:
  struct Job {
    cw::EncodableValue params;
    Reply reply;
  };

  void Work() {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return stops_ || !jobs_.empty(); });
      if (stops_) {
        return;
      }
      Job job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job.reply->SendResult(std::move(job.params));
      job.reply.reset();
      lock.lock();
    }
  }

  void SendFromAll(std::int64_t count) {
    for (int thread = 0; thread < kThreads; ++thread) {
      threads_.emplace_back([this, thread, count] {
        for (int number = 0; number < count && !stops_; ++number) {
          server_->SendNotify("number", tarv::test::Number(thread, number));
        }
      });
    }
  }

  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  std::atomic<bool> stops_{false};
  std::vector<std::thread> threads_;
};

void PoolRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Pool>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunTask(argc, argv, {PoolRegisterWithRegistrar});
}
