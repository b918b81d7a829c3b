// Any arguments of the tool: they are understood or refused with one of its own errors, and what
// encode prints, decode takes.
#include <cstdint>
#include <string>
#include <vector>

#include "commands.h"
#include "json.h"
#include "support/require.h"
#include "support/script.h"
#include "support/tool.h"
#include "verbs.h"

namespace {

using tarv::fuzz::Require;
using tarv::fuzz::Results;
using tarv::fuzz::Script;
using tarvctl::Request;

// The parser, made once: what it has parsed before leaves nothing behind.
class Parser {
 public:
  Parser() : app_("tarvctl") { tarvctl::DefineCommands(app_, request_); }

  // False for arguments that it refuses.
  bool Parse(std::vector<std::string> arguments) {
    request_ = Request();
    try {
      app_.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
      Require(error.get_exit_code() == 0 || error.what() != std::string(), "a refusal says why");
      return false;
    }
    request_.verb = app_.get_subcommands().at(0)->get_name();
    return true;
  }
  const Request& Get() const { return request_; }

 private:
  CLI::App app_;
  Request request_;
};

void CheckTime(const std::string& text) {
  try {
    const tarvctl::Duration time = tarvctl::ParseDuration(text, "--timeout");
    Require(time.count() >= 0 && time <= std::chrono::hours(366 * 24), "a time is a year at most");
  } catch (const tarvctl::UsageError&) {
    return;
  }
}

// The result of a verb; empty where it refuses its input.
std::string Run(tarvctl::Run run, const Request& request) {
  Results::Get().Take();
  try {
    Require(run(request, Results::Get().GetOutput()) == 0, "it works, or throws");
  } catch (const tarvctl::UsageError&) {
    return {};
  } catch (const tarvctl::JsonError&) {
    return {};
  }
  std::string result = Results::Get().Take();
  Require(!result.empty() && result.back() == '\n', "a result is lines");
  return result;
}

// Typed JSON, encoded and decoded, is encoded to the same bytes.
void CheckThereAndBack(const Request& request) {
  const std::string bytes = Run(&tarvctl::RunEncode, request);
  if (bytes.empty()) {
    return;
  }
  Request back = request;
  back.input = bytes;
  back.typed = true;
  back.json = true;
  if (back.format.empty()) {
    back.format = "base64";
  }
  const std::string json = Run(&tarvctl::RunDecode, back);
  Require(!json.empty(), "what was encoded can be decoded");
  back.input = json;
  Require(Run(&tarvctl::RunEncode, back) == bytes, "the same bytes once more");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Parser parser;
  Script script(data, size);
  std::vector<std::string> arguments;
  while (script.HasMore()) {
    arguments.push_back(script.Line());
  }
  // The parser takes them from the back.
  if (!parser.Parse({arguments.rbegin(), arguments.rend()})) {
    return 0;
  }
  const Request& request = parser.Get();
  CheckTime(request.timeout);
  CheckTime(request.since);
  const bool is_file = request.input == "-" || request.input.find('/') != std::string::npos;
  if (request.verb == "decode" && !is_file) {
    Run(&tarvctl::RunDecode, request);
  } else if (request.verb == "encode" && !is_file) {
    CheckThereAndBack(request);
  }
  return 0;
}
