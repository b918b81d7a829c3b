// Takes secrets out of a record before it is passed on.
#ifndef TARVCTL_REDACTION_H
#define TARVCTL_REDACTION_H

#include <cw/encodable_value.h>

#include <string>
#include <string_view>
#include <vector>

namespace tarvctl {

class Redaction {
 public:
  // Paths into messages, such as "params.password" or "result.token"; a list on the way stands for
  // all its elements, "*" for every member of a map. Throws UsageError for an empty step.
  explicit Redaction(const std::vector<std::string>& paths);

  // The line with "[redacted]" in the place of what lies there. A line that holds no message, or one
  // that cannot be decoded, gives an empty line: nobody knows what is in it.
  std::string Apply(std::string_view line) const;

 private:
  std::vector<std::vector<std::string>> paths_;
};

}  // namespace tarvctl

#endif  // TARVCTL_REDACTION_H
