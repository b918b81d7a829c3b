// Invokes the intent "example.weigh" through the platform and prints the answer.

#include <RuntimeManager/IntentsInvoker.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  RuntimeManager::IntentsInvoker invoker;
  QObject::connect(
      &invoker, &RuntimeManager::IntentsInvoker::replyReceived, &application,
      [](const QJsonObject& reply, const RuntimeManager::Error& error) {
        if (error.isError()) {
          std::cerr << "intents: " << error.message().toStdString() << '\n';
        } else {
          std::cout << QJsonDocument(reply).toJson(QJsonDocument::Compact).toStdString() << '\n';
        }
        QCoreApplication::exit(error.isError() ? EXIT_FAILURE : EXIT_SUCCESS);
      });
  invoker.invoke("example.weigh", {}, {});
  return QCoreApplication::exec();
}
