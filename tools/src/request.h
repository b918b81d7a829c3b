// What the command line asks for.
#ifndef TARVCTL_REQUEST_H
#define TARVCTL_REQUEST_H

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarvctl {

using Duration = std::chrono::nanoseconds;

// One field for each argument that a verb may have; those of other verbs stay empty.
struct Request {
  std::string verb;
  std::string task;
  std::string method;
  std::string params;
  std::string name;  // of an intent
  std::string uri;
  std::string input;  // a text, a file, or "-"
  std::string file;   // a record
  std::vector<std::string> methods;
  std::vector<std::string> bytes;  // NAME=FILE
  std::vector<std::string> redact;
  std::string only_task;
  std::string html;
  std::string perfetto;
  std::string since = "0s";
  std::string slower = "0s";
  std::string timeout = "10s";
  std::string format;
  unsigned count = 0;
  bool json = false;
  bool typed = false;
  bool names = false;
  bool follow = false;
  bool errors = false;
  bool totals = false;
  bool rate = false;
};

// Arguments or input that cannot be understood; the text says what, and what would be.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "1.5s", "50ms", "200us", "2m", "1h"; a plain number is of seconds. Throws UsageError, which names
// `what`.
Duration ParseDuration(const std::string& text, const std::string& what);

}  // namespace tarvctl

#endif  // TARVCTL_REQUEST_H
