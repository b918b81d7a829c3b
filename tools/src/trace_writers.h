// The forms that a record is shown in.
#ifndef TARVCTL_TRACE_WRITERS_H
#define TARVCTL_TRACE_WRITERS_H

#include <memory>
#include <string>
#include <vector>

#include "output.h"
#include "pairing.h"
#include "request.h"
#include "totals.h"

namespace tarvctl {

class TraceWriter {
 public:
  virtual ~TraceWriter() = default;
  virtual void Write(const Item& item) = 0;
  // The last call.
  virtual void Finish(const std::vector<Unanswered>& unanswered,
                      const std::vector<MethodTotals>& totals) = 0;
};

// Lines for people, and tables at the end.
std::unique_ptr<TraceWriter> MakeTextWriter(const Request& request, Output& output);
// A line of JSON an item, for scripts.
std::unique_ptr<TraceWriter> MakeJsonWriter(const Request& request, Output& output);
// The trace format that browsers' viewers of performance open, in a file.
std::unique_ptr<TraceWriter> MakePerfettoWriter(const std::string& path);
// One page that needs nothing else, in a file.
std::unique_ptr<TraceWriter> MakeHtmlWriter(const std::string& path);

// What the item carries: parameters, a result, or an error as a map; null for an event.
cw::EncodableValue PayloadOf(const Item& item);
const char* NameOf(Item::Kind kind);

}  // namespace tarvctl

#endif  // TARVCTL_TRACE_WRITERS_H
