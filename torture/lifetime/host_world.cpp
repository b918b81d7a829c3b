#include "host_world.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QJsonObject>
#include <QTimer>
#include <utility>

#include "kit/surroundings.h"

namespace tarv::torture {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;

namespace {

constexpr std::chrono::milliseconds kPatience(20000);
// Wakes the event loop that waits for what no event tells.
constexpr int kLookMs = 1;

}  // namespace

Worker& HostWorld::NewWorker(const char* name) {
  Worker& worker = *workers_.emplace_back(std::make_unique<Worker>());
  worker.task = std::make_unique<Task>(name);
  worker.task->withIpcSocket(true);
  worker.takes_texts = workers_.size() > 2;
  QObject::connect(worker.task.get(), &Task::finished, worker.task.get(),
                   [this, &worker, held = Hold("the end of finished")](const Error& /*error*/) {
                     if (++worker.finished > 1 || worker.is_asked_to_stop) {
                       Fault("finished twice, or though it was asked to stop");
                     }
                     HearOfTask(worker, "finished");
                   });
  return worker;
}

Task::Completion HostWorld::Completion(Worker& worker, const char* well, const char* badly,
                                       const char* end) {
  ++worker.task_owes;
  const auto calls = std::make_shared<int>(0);
  return [this, &worker, calls, well, badly, held = Hold(end)](const Error& error) {
    if (++*calls > 1) {
      Fault(std::string("completed twice: ") + well);
    }
    --worker.task_owes;
    HearOfTask(worker, error.isError() ? badly : well);
  };
}

void HostWorld::HearOfTask(const Worker& worker, const char* place) {
  if (worker.task == nullptr) {
    Fault(std::string("a task that is destroyed tells: ") + place);
  }
  Hear(place);
}

void HostWorld::HearOfChannel(const Worker& worker, const char* place) {
  if (worker.channel == nullptr || worker.disconnected > 1) {
    Fault(std::string("a channel that is destroyed, or has ended, tells: ") + place);
  }
  Hear(place);
}

void HostWorld::Start(Worker& worker) {
  if (worker.task == nullptr) {
    return;
  }
  auto completion = Completion(worker, "started", "not started", "the end of a start's completion");
  worker.task->start([&worker, completion = std::move(completion)](const Error& error) {
    worker.has_started = worker.has_started || !error.isError();
    completion(error);
  });
}

void HostWorld::StopOne(Worker& worker, Task::StopFlags flags) {
  if (worker.task == nullptr) {
    return;
  }
  worker.is_asked_to_stop = worker.is_asked_to_stop || worker.finished == 0;
  worker.task->stop(flags,
                    Completion(worker, "stopped", "not stopped", "the end of a stop's completion"));
}

void HostWorld::Open(Worker& worker) {
  if (worker.task == nullptr || worker.channel != nullptr || !worker.has_started) {
    return;
  }
  worker.channel = std::make_unique<TaskMessaging>(worker.task->socketPath());
  worker.echoes_owed = worker.disconnected = 0;
  ListenForMessages(worker);
  QObject::connect(worker.channel.get(), &TaskMessaging::disconnected, worker.channel.get(),
                   [this, &worker, held = Hold("the end of disconnected")](const Error& /*error*/) {
                     ++worker.disconnected;
                     HearOfChannel(worker, "disconnected");
                   });
}

void HostWorld::ListenForMessages(Worker& worker) {
  TaskMessaging* const channel = worker.channel.get();
  if (worker.takes_texts) {
    QObject::connect(channel, &TaskMessaging::dataReceived, channel,
                     [this, &worker, held = Hold("the end of dataReceived")](QByteArray& /*text*/) {
                       --worker.echoes_owed;
                       HearOfChannel(worker, "dataReceived");
                     });
  } else {
    QObject::connect(
        channel, &TaskMessaging::messageReceived, channel,
        [this, &worker, held = Hold("the end of messageReceived")](const QJsonObject& /*message*/) {
          --worker.echoes_owed;
          HearOfChannel(worker, "messageReceived");
        });
  }
}

void HostWorld::Send(Worker& worker) {
  if (worker.channel == nullptr) {
    return;
  }
  worker.echoes_owed += 2;
  worker.channel->sendMessage({{"data", "one"}});
  worker.channel->sendData("two");
}

// Everything has arrived that living objects owe. A process that nobody has the Task of any more may
// be on its way out.
bool HostWorld::IsSettled() const {
  for (const auto& worker : workers_) {
    const bool completes = worker->task != nullptr && worker->task_owes > 0;
    const bool is_to_finish = worker->task != nullptr && worker->shall_leave &&
                              !worker->is_asked_to_stop && worker->finished == 0;
    const bool answers =
        worker->channel != nullptr && worker->disconnected == 0 &&
        (worker->echoes_owed > 0 || worker->shall_leave || worker->task == nullptr);
    if (completes || is_to_finish || answers) {
      return false;
    }
  }
  return true;
}

void HostWorld::ProcessEvents() {
  Survive([] {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  });
}

void HostWorld::Turn(const Move& move) {
  Survive(move);
  QTimer wake;
  wake.start(kLookMs);
  const QDeadlineTimer deadline(kPatience);
  while (!IsSettled()) {
    if (deadline.hasExpired()) {
      Fault("what is owed does not come");
      return;
    }
    ProcessEvents();
  }
  ProcessEvents();
}

std::vector<Life::Move> HostWorld::GetSteps() {
  Worker& worker = NewWorker("echoing");
  Worker& refused = NewWorker("no such task");
  return {[&] { StopOne(worker, {}); },  // before its start
          [&] {
            worker.is_asked_to_stop = false;
            Start(worker);
          },
          [&] { Start(refused); },
          [&] { Open(worker); },
          [&] { Send(worker); },
          [&] { Send(worker); },
          [&] { Start(worker); },
          [&] { LetTasksLeave(); },
          [&] { BeginAnew(); },
          [&] {
            Open(*workers_.back());
            Send(*workers_.back());
          },
          [&] { StopOne(*workers_.back(), {}); }};
}

void HostWorld::UseEverything() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    Worker& worker = *workers_[i];
    Send(worker);
    Start(worker);
    if (worker.task != nullptr) {
      worker.task->socketPath();
    }
    Open(worker);
  }
}

// A moment in which news may come.
void HostWorld::ArriveEverywhere() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    Send(*workers_[i]);
  }
  QCoreApplication::processEvents();
}

void HostWorld::RunNestedLoop() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    Send(*workers_[i]);
  }
  QEventLoop loop;
  QTimer::singleShot(kLookMs, &loop, [&loop] { loop.quit(); });
  loop.exec();
}

void HostWorld::DropTasks() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    workers_[i]->task.reset();
  }
}

void HostWorld::DropChannels() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    workers_[i]->channel.reset();
  }
}

void HostWorld::Stop(Task::StopFlags flags) {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    StopOne(*workers_[i], flags);
  }
}

void HostWorld::LetTasksLeave() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    Worker& worker = *workers_[i];
    if (worker.channel != nullptr && worker.disconnected == 0) {
      worker.shall_leave = true;
      worker.channel->sendMessage({{"data", "leave"}});
    }
  }
}

void HostWorld::BeginAnew() {
  constexpr std::size_t kMost = 6;
  if (workers_.size() < kMost) {
    Start(NewWorker("echoing"));
  }
}

void HostWorld::EndEverything() {
  Turn([this] { DropChannels(); });
  Turn([this] { DropTasks(); });
  const QDeadlineTimer deadline(kPatience);
  QTimer wake;
  wake.start(kLookMs);
  while (!test::Children().empty() && !deadline.hasExpired()) {
    ProcessEvents();
  }
  if (!test::Children().empty()) {
    Fault("a process is left");
  }
  ExpectNothingHeld();
}

const std::vector<Place> HostWorld::kPlaces = {
    {"started"},
    {"not started"},
    {"stopped"},
    {"not stopped"},
    {"finished"},
    {"messageReceived"},
    {"dataReceived"},
    {"disconnected"},
    {"the end of a start's completion", false},
    {"the end of a stop's completion", false},
    {"the end of finished", false},
    {"the end of messageReceived", false},
    {"the end of dataReceived", false},
    {"the end of disconnected", false},
};

const std::vector<Deed<HostWorld>> HostWorld::kDeeds = {
    {"destroy the tasks", [](HostWorld& world) { world.DropTasks(); }},
    {"destroy the channels", [](HostWorld& world) { world.DropChannels(); }},
    {"destroy the tasks, then the channels",
     [](HostWorld& world) {
       world.DropTasks();
       world.DropChannels();
     }},
    {"destroy the channels, then the tasks",
     [](HostWorld& world) {
       world.DropChannels();
       world.DropTasks();
     }},
    {"stop the tasks, twice",
     [](HostWorld& world) {
       world.Stop({});
       world.Stop({});
     }},
    {"kill the tasks", [](HostWorld& world) { world.Stop(Task::StopFlag::Kill); }},
    {"stop the tasks and destroy them",
     [](HostWorld& world) {
       world.Stop({});
       world.DropTasks();
     }},
    {"use everything", [](HostWorld& world) { world.UseEverything(); }},
    {"destroy the tasks and use everything",
     [](HostWorld& world) {
       world.DropTasks();
       world.UseEverything();
     }},
    {"let the tasks leave", [](HostWorld& world) { world.LetTasksLeave(); }},
    {"let the tasks leave and destroy them",
     [](HostWorld& world) {
       world.LetTasksLeave();
       world.DropTasks();
     }},
    {"run a nested loop", [](HostWorld& world) { world.RunNestedLoop(); }},
    {"destroy the tasks and run a nested loop",
     [](HostWorld& world) {
       world.DropTasks();
       world.RunNestedLoop();
     }},
    {"destroy the channels and run a nested loop",
     [](HostWorld& world) {
       world.DropChannels();
       world.RunNestedLoop();
     }},
    {"begin anew", [](HostWorld& world) { world.BeginAnew(); }},
    {"throw", &Throw<HostWorld>, true},
};

const std::vector<Deed<HostWorld>> HostWorld::kEnds = {
    {"tasks", [](HostWorld& world) { world.DropTasks(); }},
    {"channels", [](HostWorld& world) { world.DropChannels(); }},
    {"departures", [](HostWorld& world) { world.LetTasksLeave(); }},
    {"kills", [](HostWorld& world) { world.Stop(Task::StopFlag::Kill); }},
};

}  // namespace tarv::torture
