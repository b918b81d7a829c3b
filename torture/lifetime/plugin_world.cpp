#include "plugin_world.h"

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <quarn/dispatcher.h>
#include <tarv/rpc_client.h>
#include <tarv/task_client.h>

#include <optional>
#include <utility>

// What the plug-in's library takes for the service.
extern "C" TARV_EXPORT QuarnResult LoadServiceOfTheProgram(TARVProcTable* table, size_t size) {
  return TARVProcTableLoad(table, size);
}

namespace tarv::torture {

using RuntimeManager::Error;
using RuntimeManager::IntentsInvoker;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using vorpc::Message;

namespace {

using OptionalError = std::optional<Message::Error>;

void Arrive(const QPointer<TaskMessaging>& channel, const Message& message) {
  if (channel != nullptr) {
    Survive([&] {
      Q_EMIT channel->messageReceived({{"data", QString::fromStdString(message.ToBase64())}});
    });
  }
}

}  // namespace

PluginWorld::PluginWorld() {
  Task::GetAll().clear();
  TaskMessaging::GetAll().clear();
  first_ = NewManager();
  second_ = NewManager();
}

std::unique_ptr<ManagerWrapper> PluginWorld::NewManager() {
  return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(),
                                std::string(PLUGIN_SERVICE_FOLDER));
}

void PluginWorld::HearOf(const TaskOfPlugin& task, const char* place) {
  if (task.is_gone) {
    Fault(std::string("a client that is gone tells: ") + place);
  }
  Hear(place);
}

void PluginWorld::HearOfServer(const char* place) {
  if (is_server_gone_) {
    Fault(std::string("a server that is gone tells: ") + place);
  }
  Hear(place);
}

TaskOfPlugin& PluginWorld::StartTask(const std::unique_ptr<ManagerWrapper>& manager) {
  TaskOfPlugin& task = *tasks_.emplace_back(std::make_unique<TaskOfPlugin>());
  const std::size_t before = Task::GetAll().size();
  task.client = manager ? manager->CreateIpcClient("worker") : nullptr;
  if (Task::GetAll().size() > before) {
    task.task = Task::GetAll().at(before);
  }
  if (task.client) {
    Subscribe(task);
  }
  return task;
}

void PluginWorld::Subscribe(TaskOfPlugin& task) {
  task.client->OnConnected(
      [this, &task, held = Hold("the end of OnConnected")](const OptionalError& error) {
        if (++task.outcomes > 1) {
          Fault("connected twice");
        }
        HearOf(task, error ? "a failed OnConnected" : "OnConnected");
      });
  task.client->OnDisconnected(
      [this, &task, held = Hold("the end of OnDisconnected")](const OptionalError& /*error*/) {
        if (++task.ends > 1) {
          Fault("disconnected twice");
        }
        HearOf(task, "OnDisconnected");
      });
  task.client->OnNotify("note", [this, &task, held = Hold("the end of OnNotify")](
                                    const auto& /*note*/) { HearOf(task, "OnNotify"); });
  dynamic_cast<ITaskClient&>(*task.client)
      .OnManagerEnded([this, &task, held = Hold("the end of OnManagerEnded")](EndedManager which) {
        HearOf(task, which == EndedManager::kOwn ? "OnManagerEnded of its own"
                                                 : "OnManagerEnded of another");
      });
}

void PluginWorld::CompleteStart(TaskOfPlugin& task, bool well) {
  if (task.task == nullptr) {
    return;
  }
  const std::size_t before = TaskMessaging::GetAll().size();
  if (const auto complete = std::exchange(task.task->complete_start, nullptr)) {
    Survive([&] { complete(well ? Error() : Error(7, "no such task")); });
  }
  if (TaskMessaging::GetAll().size() > before) {
    task.channel = TaskMessaging::GetAll().at(before);
  }
}

void PluginWorld::Ask(TaskOfPlugin& task) {
  if (!task.client) {
    return;
  }
  const auto answers = std::make_shared<int>(0);
  Survive([&] {
    task.client->SendRequest(
        "ask", 1,
        [this, &task, answers,
         held = Hold("the end of a callback")](const Message::Response& response) {
          if (++*answers > 1) {
            Fault("answered twice");
          }
          HearOf(task, response.IsError() ? "a failed response" : "a response");
        });
  });
}

// Each request gets its answer, the connection's among them.
void PluginWorld::AnswerAsTask(const TaskOfPlugin& task) {
  if (task.channel == nullptr) {
    return;
  }
  for (const std::string& text : std::exchange(task.channel->sent_texts, {})) {
    const Message message = Message::FromBase64(text);
    if (const auto* const request = message.GetRequest()) {
      Arrive(task.channel, Message::CreateResponse(request->id, 1));
    }
  }
}

void PluginWorld::RunServer() {
  server_ = second_ ? second_->CreateRpcServer() : nullptr;
  if (!server_) {
    return;
  }
  is_server_gone_ = false;
  server_->OnConnected(
      [this, held = Hold("the end of the server's OnConnected")](const OptionalError& /*error*/) {
        HearOfServer("the server's OnConnected");
      });
  server_->OnNotify("note", [this, held = Hold("the end of the server's OnNotify")](
                                const auto& /*note*/) { HearOfServer("the server's OnNotify"); });
  server_->OnRequest("ask", [this, held = Hold("the end of OnRequest")](
                                const std::string& /*method*/, const auto& /*params*/,
                                std::unique_ptr<vorpc::IReply>&& reply) {
    HearOfServer("OnRequest");
    reply->SendResult(1);
  });
  const std::size_t before = TaskMessaging::GetAll().size();
  Survive([this] { server_->Run(); });
  if (TaskMessaging::GetAll().size() > before) {
    server_channel_ = TaskMessaging::GetAll().at(before);
  }
}

void PluginWorld::AskServer() const {
  Arrive(server_channel_, Message::CreateRequest(Message::ID(1), "vorpc.connected", {}));
  Arrive(server_channel_, Message::CreateRequest(Message::ID(2), "ask", {}));
  Arrive(server_channel_, Message::CreateNotification("note", {}));
}

void PluginWorld::GetIntents() {
  intents_ = first_ ? first_->GetIntentManager() : nullptr;
  service_of_intents_ = intents_ ? services_ : 0;
}

void PluginWorld::OpenUri() {
  // What a service that has ended refuses it does not give back.
  if (!intents_ || !MayAnswerUris()) {
    return;
  }
  const auto answers = std::make_shared<int>(0);
  Survive([&] {
    intents_->OpenUri("a:1", [this, answers, held = Hold("the end of a URI's callback")](bool) {
      if (++*answers > 1) {
        Fault("a URI is answered twice");
      }
      Hear("a URI's callback");
    });
  });
}

std::vector<Life::Move> PluginWorld::GetSteps() {
  TaskOfPlugin& task = StartTask(first_);
  TaskOfPlugin& other = StartTask(second_);
  TaskOfPlugin& failing = StartTask(first_);
  return {[&] {
            for (TaskOfPlugin* const each : {&task, &other, &failing}) {
              Ask(*each);
              if (each->client) {
                each->client->Run();
              }
            }
          },
          [&] { CompleteStart(task, true); },
          [&] { CompleteStart(other, true); },
          [&] { CompleteStart(failing, false); },
          [&] { RunServer(); },
          [&] { GetIntents(); },
          [&] { OpenUri(); },
          [&] { OpenUri(); },
          [&] { ArriveEverywhere(); },
          [&] { Ask(task); },
          [&] { UseEverything(); },
          [&] { ArriveEverywhere(); }};
}

void PluginWorld::UseEverything() {
  for (std::size_t i = 0; i < tasks_.size(); ++i) {
    Ask(*tasks_[i]);
    if (const auto client = tasks_[i]->client) {
      Survive([&] { client->SendNotify("note", {}); });
      Survive([&] { client->Run(); });
    }
  }
  if (const auto server = server_) {
    Survive([&] { server->SendNotify("note", {}); });
    Survive([&] { server->Run(); });
  }
  OpenUri();
}

void PluginWorld::ArriveEverywhere() {
  for (std::size_t i = 0; i < tasks_.size(); ++i) {
    AnswerAsTask(*tasks_[i]);
    AnswerAsTask(*tasks_[i]);
    Arrive(tasks_[i]->channel, Message::CreateNotification("note", {}));
  }
  AskServer();
  if (MayAnswerUris()) {
    Survive([] { Q_EMIT IntentsInvoker::GetLatest()->replyReceived({}, {}); });
  }
}

void PluginWorld::LoseTasks() {
  for (std::size_t i = 0; i < tasks_.size(); ++i) {
    if (tasks_[i]->channel != nullptr) {
      Survive([&] { Q_EMIT tasks_[i]->channel->disconnected(Error(-32003, "gone")); });
    }
    if (tasks_[i]->task != nullptr) {
      Survive([&] { Q_EMIT tasks_[i]->task->finished(Error(-32001, "ended")); });
    }
  }
}

void PluginWorld::CompleteStops() {
  for (std::size_t i = 0; i < tasks_.size(); ++i) {
    if (tasks_[i]->task != nullptr) {
      if (const auto complete = std::exchange(tasks_[i]->task->complete_stop, nullptr)) {
        complete({});
      }
    }
  }
}

void PluginWorld::DropClients() {
  for (std::size_t i = 0; i < tasks_.size(); ++i) {
    tasks_[i]->is_gone = true;
    tasks_[i]->client.reset();
  }
}

void PluginWorld::DropServer() {
  is_server_gone_ = true;
  server_.reset();
}

// The service is one for all managers: any of them ends it.
void PluginWorld::DropFirstManager() {
  services_ += first_ ? 1 : 0;
  first_.reset();
}

void PluginWorld::DropManagers() {
  DropFirstManager();
  services_ += second_ ? 1 : 0;
  second_.reset();
}

void PluginWorld::MakeAnew() {
  DropFirstManager();
  first_ = NewManager();
  GetIntents();
  TaskOfPlugin& task = StartTask(first_);
  Ask(task);
  CompleteStart(task, true);
  OpenUri();
}

// Numbers that are handles of nothing, or of something else.
void PluginWorld::UseForeignHandles() {
  for (std::uintptr_t number = 0; number < 40; ++number) {
    RpcClient::TellManagerEnded(reinterpret_cast<_RpcClientWrapperRef*>(~number),
                                EndedManager::kOwn);
  }
}

void PluginWorld::EndEverything() {
  Turn([this] { LoseTasks(); });
  Turn([this] { DropClients(); });
  Turn([this] { CompleteStops(); });
  Turn([this] { DropServer(); });
  Turn([this] { DropIntents(); });
  Turn([this] { DropManagers(); });
  ExpectNothingHeld();
  for (const auto& channel : TaskMessaging::GetAll()) {
    if (channel != nullptr) {
      Fault("a channel is left");
    }
  }
  for (const auto& task : tasks_) {
    if (task->task != nullptr) {
      Fault("a task is left");
    }
  }
}

}  // namespace tarv::torture
