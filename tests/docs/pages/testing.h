// What docs/testing.md leaves out.
#include <gtest/gtest.h>
#include <veltra/host/engine.h>

#include <QCoreApplication>
#include <optional>

extern "C" void BatteryRegisterWithRegistrar(FlutterVeltraPluginContext* context);
