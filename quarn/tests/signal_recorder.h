// What the tests of both kinds of signal share: listeners that write down what they hear.
#ifndef QUARN_TESTS_SIGNAL_RECORDER_H
#define QUARN_TESTS_SIGNAL_RECORDER_H

#include <gtest/gtest.h>
#include <quarn/listener.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using IntListener = quarn::CppStyleListener<int>;

inline std::shared_ptr<IntListener> Listen(std::function<void(int)> target) {
  return std::make_shared<IntListener>(std::move(target));
}

template <class Signal>
class SignalRecorder : public testing::Test {
 protected:
  // A listener that writes "name:value".
  std::shared_ptr<IntListener> Recorder(const std::string& name) {
    return Listen(
        [this, name](int value) { heard_.push_back(name + ":" + std::to_string(value)); });
  }

  std::vector<std::string> heard_;
  Signal signal_;
};

#endif  // QUARN_TESTS_SIGNAL_RECORDER_H
