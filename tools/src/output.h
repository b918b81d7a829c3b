// Where results and news go.
//
// Results are what the verb was asked for: they alone go to standard output. Everything else, also
// what the library logs and what a task prints, goes to standard error.
#ifndef TARVCTL_OUTPUT_H
#define TARVCTL_OUTPUT_H

#include <string>
#include <string_view>

namespace tarvctl {

enum class Colour { kPlain, kBold, kDim, kRed, kGreen, kYellow, kCyan };

class Output {
 public:
  // Takes over standard output for the results. Before anything else uses it; once in a process.
  Output();
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // A result, as it is. What is small waits for more, or for Flush. When nobody reads any more, the
  // event loop is left with kBrokenPipe, and whatever is printed later is dropped.
  void Print(std::string_view text);
  void PrintLine(std::string_view line);
  void Flush();

  // A line of news, on standard error.
  void Tell(std::string_view line) const;
  // "tarvctl: " and the text, in red on a terminal.
  void Complain(std::string_view text) const;

  bool IsBroken() const { return is_broken_; }
  bool IsTerminal() const { return is_terminal_; }
  // The text in the colour, where the stream is a terminal and NO_COLOR does not forbid it.
  std::string Paint(Colour colour, std::string_view text) const;
  std::string PaintNews(Colour colour, std::string_view text) const;

 private:
  int results_;
  bool is_terminal_;
  bool has_colour_;
  bool news_have_colour_;
  bool is_broken_ = false;
  std::string waiting_;
};

}  // namespace tarvctl

#endif  // TARVCTL_OUTPUT_H
