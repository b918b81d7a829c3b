// The plug-in: passes what Dart wants counted to the task.
#ifndef EXAMPLE_TESTING_WORDS_PLUGIN_H
#define EXAMPLE_TESTING_WORDS_PLUGIN_H

#include <cw/method_channel.h>
#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/calls/kept_task.h>

#include <cstdint>
#include <memory>
#include <string>

namespace words {

// Where its task comes from is not its business, nor what it lives on: a test gives it others than
// an application does.
class WordsPlugin : public cw::Plugin {
 public:
  WordsPlugin(cw::PluginRegistrar* registrar, tarv::KeptTask::Factory factory,
              std::shared_ptr<tarv::Loop> loop = tarv::Loop::OfThisThread());

 private:
  using Result = std::shared_ptr<cw::MethodResult<>>;

  void Add(const std::string& text, const Result& result);

  tarv::KeptTask task_;
  cw::MethodChannel<> channel_;
  std::int64_t pieces_ = 0;
  Result latest_;
};

}  // namespace words

#endif  // EXAMPLE_TESTING_WORDS_PLUGIN_H
