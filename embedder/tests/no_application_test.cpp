#include <gtest/gtest.h>
#include <veltra/host/engine.h>

#include <stdexcept>

namespace {

// In a program of its own: once a process has an application, it keeps it.
TEST(Engine, IsRefusedWithoutAnApplication) {
  EXPECT_THROW(veltra::host::Engine(), std::logic_error);
}

}  // namespace
