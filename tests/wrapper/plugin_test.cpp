// Plug-ins share the registries of libtarv.so, however they were compiled.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <tarv/rpc_client.h>
#include <tarv/rpc_server.h>

#include <string>

#include "wrapper_fixture.h"

namespace tarv::test {
namespace {

// The parameter: the file of the plug-in.
class PlugIn : public Wrapper, public testing::WithParamInterface<const char*> {
 protected:
  PlugIn() : plugin_(dlopen(GetParam(), RTLD_NOW | RTLD_LOCAL)) {
    if (plugin_ == nullptr) {
      ADD_FAILURE() << dlerror();
    }
  }
  ~PlugIn() override { dlclose(plugin_); }

  template <class Ref>
  bool Finds(const char* entry, Ref* ref) {
    const auto find = reinterpret_cast<bool (*)(Ref*)>(dlsym(plugin_, entry));
    return find != nullptr && find(ref);
  }

  void* plugin_;
};

INSTANTIATE_TEST_SUITE_P(Compiled, PlugIn,
                         testing::Values(UNOPTIMISED_PLUGIN_FILE, OPTIMISED_PLUGIN_FILE),
                         [](const auto& plugin) {
                           return plugin.index == 0 ? "WithoutOptimisation" : "WithOptimisation";
                         });

TEST_P(PlugIn, FindsAClientThatTheLibraryMadeAsLongAsItLives) {
  auto client = CreateClient();
  auto* const ref = dynamic_cast<RpcClient&>(*client).GetRef();
  EXPECT_TRUE(Finds("FindsClient", ref));
  client.reset();
  EXPECT_FALSE(Finds("FindsClient", ref));
}

TEST_P(PlugIn, FindsAServerThatTheLibraryMadeAsLongAsItLives) {
  auto server = CreateServer();
  auto* const ref = dynamic_cast<RpcServer&>(*server).GetRef();
  EXPECT_TRUE(Finds("FindsServer", ref));
  server.reset();
  EXPECT_FALSE(Finds("FindsServer", ref));
}

}  // namespace
}  // namespace tarv::test
