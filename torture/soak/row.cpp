#include "row.h"

#include <sstream>

namespace soak {

std::string ToLine(const Row& row) {
  std::ostringstream line;
  line << Row::kMark << ' ' << row.round << ' ' << row.begun << ' ' << row.values << ' '
       << row.errors << ' ' << row.forgotten << ' ' << row.starts << ' ' << row.signals << ' '
       << row.private_kib << ' ' << row.held << ' ' << row.descriptors << ' ' << row.threads << ' '
       << row.children << ' ' << row.sockets << ' ' << row.task_private_kib << ' ' << row.task_held
       << ' ' << row.task_descriptors;
  return line.str();
}

bool FromLine(const std::string& line, Row& row) {
  std::istringstream words(line);
  std::string mark;
  words >> mark >> row.round >> row.begun >> row.values >> row.errors >> row.forgotten >>
      row.starts >> row.signals >> row.private_kib >> row.held >> row.descriptors >> row.threads >>
      row.children >> row.sockets >> row.task_private_kib >> row.task_held >> row.task_descriptors;
  return mark == Row::kMark && !words.fail();
}

}  // namespace soak
