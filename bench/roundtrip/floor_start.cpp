// From the start of a bare Qt process to its first connection.
#include <QCoreApplication>
#include <QEventLoop>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>

#include "floor.h"
#include "measure.h"

namespace bench {
namespace {

std::uint64_t StartToConnection(QLocalServer& server, const QString& program,
                                const QStringList& arguments) {
  QProcess process;
  QEventLoop loop;
  std::uint64_t connected = 0;
  const auto connection = QObject::connect(&server, &QLocalServer::newConnection, &loop, [&] {
    connected = NowNs();
    server.nextPendingConnection()->disconnectFromServer();
  });
  QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop,
                   &QEventLoop::quit);
  const std::uint64_t began = NowNs();
  process.start(program, arguments);
  loop.exec();
  QObject::disconnect(connection);
  if (connected == 0) {
    Die("a bare Qt process does not connect");
  }
  return connected - began;
}

void MeasureStarts(const std::string& name, const QString& program, QStringList arguments) {
  const QTemporaryDir folder;
  const QString path = folder.filePath("start");
  QLocalServer server;
  if (!server.listen(path)) {
    Die("listen");
  }
  arguments += path;
  StartRun run;
  while (run.IsWanted()) {
    run.Add(StartToConnection(server, program, arguments));
  }
  run.Report({"G", CaseName("start"), name});
}

}  // namespace

void MeasureBareStarts() {
  MeasureStarts("Qt Core, QProcess::start to a plain socket's connection",
                QString::fromStdString(Beside("bench_bare_qt")), {});
  MeasureStarts("Qt Network, QProcess::start to QLocalServer::newConnection",
                QCoreApplication::applicationFilePath(), {"--child", "local", "opaque"});
}

}  // namespace bench
