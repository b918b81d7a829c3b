#include "facts.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <cstdlib>

#include "failing_memory.h"

namespace tarv::torture {
namespace {

QJsonObject facts;

}  // namespace

void SetFact(const char* name, long value) { facts[name] = static_cast<int>(value); }

void KeepCounts() {
  SetFact("allocations", CountAllocations());
  SetFact("failures", CountFailures());
}

void Wrong(const std::string& what) {
  if (!what.empty() && !facts.contains("wrong")) {
    facts["wrong"] = QString::fromStdString(what);
  }
}

void Tell() {
  if (!facts.contains("allocations")) {
    KeepCounts();
  }
  const QByteArray line = QJsonDocument(facts).toJson(QJsonDocument::Compact);
  std::printf("\n%s\n", line.constData());
  std::fflush(stdout);
}

void GiveUp(const std::string& what) {
  Wrong(what);
  Tell();
  std::_Exit(1);
}

}  // namespace tarv::torture
