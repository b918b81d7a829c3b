#include "helper_intents.h"

#include <RuntimeManager/RuntimeDispatcher.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <chrono>
#include <map>
#include <thread>

#include "helper_ends.h"

namespace helper {
namespace {

using RuntimeManager::RuntimeDispatcher;
using Reply = RuntimeDispatcher::Reply;

void Answer(const QJsonObject& parameters, const Reply& reply) {
  reply({{"parameters", parameters}, {"pid", ::getpid()}});
}

void Die(const QJsonObject& /*parameters*/, const Reply& /*reply*/) { ::_exit(1); }

void Drop(const QJsonObject& /*parameters*/, const Reply& /*reply*/) {}

void AnswerAndQuit(const QJsonObject& parameters, const Reply& reply) {
  QCoreApplication::quit();
  Answer(parameters, reply);
}

// Answers the first invocation when nobody waits any more.
void KeepTheFirst(const QJsonObject& parameters, const Reply& reply) {
  static Reply kept;
  if (kept) {
    Answer(parameters, reply);
    return;
  }
  kept = reply;
  QTimer::singleShot(1500, [] { kept({{"late", true}}); });
}

// When the handler has returned.
void AnswerTwiceFromAThread(const QJsonObject& /*parameters*/, const Reply& reply) {
  std::thread([reply] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    reply({{"n", 1}});
    reply({{"n", 2}});
  }).detach();
}

RuntimeDispatcher::IntentHandler HandlerThat(const QString& how) {
  static const std::map<QString, RuntimeDispatcher::IntentHandler> handlers = {
      {"die", Die},           {"drop", Drop},          {"empty", {}},
      {"keep", KeepTheFirst}, {"quit", AnswerAndQuit}, {"thread", AnswerTwiceFromAThread}};
  const auto found = handlers.find(how);
  return found == handlers.end() ? Answer : found->second;
}

}  // namespace

int OwnIntent(const QString& name, const QString& how) {
  RuntimeDispatcher::instance()->registerIntent(name, HandlerThat(how));
  if (how == "twice") {
    RuntimeDispatcher::instance()->registerIntent(name, Drop);
  }
  Say("ready");
  return QCoreApplication::exec();
}

}  // namespace helper
