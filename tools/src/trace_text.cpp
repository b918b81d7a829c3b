// A record as lines for people.
#include <quarn/escaped.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <utility>

#include "trace_writers.h"

namespace tarvctl {
namespace {

constexpr double kNanosecondsPerSecond = 1e9;
constexpr double kNanosecondsPerMs = 1e6;
constexpr std::size_t kShownOfPayload = 120;  // bytes: with the rest, a wide terminal's line

template <class... Values>
std::string Format(const char* format, Values... values) {
  std::array<char, 400> text{};
  std::snprintf(text.data(), text.size(), format, values...);
  return text.data();
}

// What peers have named, so that it can neither begin a line nor move the cursor.
std::string Shown(const std::string& text) {
  std::ostringstream shown;
  shown << quarn::Escaped{text};
  return shown.str();
}

std::string Payload(const Item& item) {
  std::ostringstream text;
  text << PayloadOf(item);
  std::string line = text.str();
  if (line.size() > kShownOfPayload) {
    std::size_t end = kShownOfPayload;
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0U) == 0x80U) {
      --end;  // not in the middle of a character
    }
    line = line.substr(0, end) + "...";
  }
  return line;
}

class TextWriter final : public TraceWriter {
 public:
  TextWriter(const Request& request, Output& output) : request_(request), output_(output) {}

  void Write(const Item& item) override {
    if (!request_.totals) {
      output_.PrintLine(Format("%12.6f ", static_cast<double>(item.time) / kNanosecondsPerSecond) +
                        Line(item));
    }
  }
  void Finish(const std::vector<Unanswered>& unanswered,
              const std::vector<MethodTotals>& totals) override;

 private:
  std::string Line(const Item& item) const;
  std::string Answer(const Item& item) const;

  const Request& request_;
  Output& output_;
};

std::string TextWriter::Answer(const Item& item) const {
  const std::string took =
      item.latency < 0 ? std::string("its request is not in the record")
                       : Format("%.3f ms", static_cast<double>(item.latency) / kNanosecondsPerMs);
  const std::string payload = Payload(item);
  return Shown(item.id + ' ' + item.method) + ' ' + took + ' ' +
         (item.is_error ? output_.Paint(Colour::kRed, "error " + payload) : payload);
}

std::string TextWriter::Line(const Item& item) const {
  const std::string way = Shown(item.from) + " → " + Shown(item.to) + "  ";
  switch (item.kind) {
    case Item::Kind::kRequest:
      return way + Shown(item.id) + ' ' + output_.Paint(Colour::kBold, Shown(item.method)) + '(' +
             Payload(item) + ')';
    case Item::Kind::kNotification:
      return way + output_.Paint(Colour::kCyan, Shown(item.method)) + '(' + Payload(item) + ')';
    case Item::Kind::kResponse:
      return way + Answer(item);
    case Item::Kind::kStart:
      return output_.Paint(Colour::kGreen, Shown(item.from + " starts " + item.task)) + ", " +
             item.text;
    case Item::Kind::kEnd:
      return output_.Paint(Colour::kYellow, Shown(item.task + ' ' + item.text));
    case Item::Kind::kConnection:
      return Shown(item.from + " is connected with " + item.to);
    case Item::Kind::kFault:
      return output_.Paint(Colour::kRed,
                           Shown("fault between " + item.from + " and " + item.to + ": ")) +
             Shown(item.text);
    default:
      return way + (item.text.empty() ? Payload(item) : Shown(item.text));
  }
}

void TextWriter::Finish(const std::vector<Unanswered>& unanswered,
                        const std::vector<MethodTotals>& totals) {
  for (const Unanswered& request : unanswered) {
    output_.PrintLine(output_.Paint(
        Colour::kRed,
        "never answered: " + Shown(request.id + ' ' + request.method + " of " + request.task) +
            Format(", sent at %.6f", static_cast<double>(request.time) / kNanosecondsPerSecond)));
  }
  output_.PrintLine(Format("%-20s %-24s %9s %7s %10s %11s %11s %12s", "task", "method", "count",
                           "errors", "unanswered", "median ms", "99 % ms", "bytes"));
  for (const MethodTotals& sum : totals) {
    output_.PrintLine(Format("%-20s %-24s %9zu %7zu %10zu %11.3f %11.3f %12zu",
                             Shown(sum.task).c_str(), Shown(sum.method).c_str(), sum.count,
                             sum.errors, sum.unanswered, sum.median_ms, sum.p99_ms, sum.bytes));
  }
}

}  // namespace

std::unique_ptr<TraceWriter> MakeTextWriter(const Request& request, Output& output) {
  return std::make_unique<TextWriter>(request, output);
}

}  // namespace tarvctl
