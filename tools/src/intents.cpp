// intents, invoke, open: what applications offer each other.
#include <RuntimeManager/Inspect.h>
#include <RuntimeManager/IntentsInvoker.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <QtCore/QTimer>
#include <chrono>

#include "exit_status.h"
#include "input.h"
#include "interrupt.h"
#include "json.h"
#include "verbs.h"

namespace tarvctl {
namespace {

using RuntimeManager::Error;

int StatusOf(const Error& error) {
  if (!error.isError()) {
    return kDone;
  }
  const bool nobody = error.code() == Error::kNoSuchIntent || error.code() == Error::kConnectFailed;
  return nobody ? kNotConnected : kAnsweredWithError;
}

// One invocation, until it is answered.
int Invoke(const QString& name, const QJsonObject& parameters, const Request& request,
           Output& output) {
  RuntimeManager::IntentsInvoker invoker;
  const Interrupt interrupt([] { QCoreApplication::exit(kInterrupted); });
  QObject::connect(&invoker, &RuntimeManager::IntentsInvoker::replyReceived, &invoker,
                   [&](const QJsonObject& reply, const Error& error) {
                     if (error.isError()) {
                       output.Complain(error.message().toStdString());
                     } else {
                       output.PrintLine(ToText(reply, output.IsTerminal() && !request.json));
                     }
                     QCoreApplication::exit(StatusOf(error));
                   });
  const auto limit = ParseDuration(request.timeout, "--timeout");
  QTimer::singleShot(std::chrono::ceil<std::chrono::milliseconds>(limit), &invoker, [&] {
    output.Complain("the intent '" + name.toStdString() + "' was not answered within " +
                    request.timeout);
    QCoreApplication::exit(kTimedOut);
  });
  invoker.invoke(name, {}, parameters);
  return QCoreApplication::exec();
}

}  // namespace

int RunIntents(const Request& request, Output& output) {
  QJsonArray array;
  for (const auto& intent : RuntimeManager::inspect::intents()) {
    array.append(QJsonObject{{"name", intent.name}, {"live", intent.live}});
    if (!request.json) {
      output.PrintLine(intent.name.toStdString() +
                       (intent.live ? "" : output.Paint(Colour::kRed, "  its owner has died")));
    }
  }
  if (request.json) {
    output.PrintLine(ToText(array, false));
  } else if (array.isEmpty()) {
    output.Tell("nobody owns an intent");
  }
  return kDone;
}

int RunInvoke(const Request& request, Output& output) {
  const std::string text = request.params == "-" ? ReadAll("-") : request.params;
  const QJsonValue params = text.empty() ? QJsonValue(QJsonObject()) : ParseJson(text, "PARAMS");
  if (!params.isObject()) {
    throw UsageError("PARAMS of an intent must be a JSON object");
  }
  return Invoke(QString::fromStdString(request.name), params.toObject(), request, output);
}

int RunOpen(const Request& request, Output& output) {
  return Invoke(QStringLiteral("OpenURI"), {{"uri", QString::fromStdString(request.uri)}}, request,
                output);
}

}  // namespace tarvctl
