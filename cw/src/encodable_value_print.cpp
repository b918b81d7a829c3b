#include <cw/encodable_value.h>
#include <cxxabi.h>
#include <quarn/internal/utf8.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <ostream>

namespace cw {

namespace {

// A line is for a person's eyes: enough to recognise a message, never a whole blob.
constexpr std::size_t kMaxTextBytes = 120;
constexpr std::size_t kMaxItems = 16;
constexpr std::size_t kMaxDepth = 8;
constexpr std::size_t kMaxLineBytes = 2000;  // no further item is begun past this

std::string Demangle(const char* name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  return text ? text.get() : name;
}

// Writes one value as one line of text.
class LinePrinter {
 public:
  std::string Print(const EncodableValue& value) {
    PrintValue(value);
    return std::move(line_);
  }

 private:
  void PrintValue(const EncodableValue& value) {
    if (value.valueless_by_exception()) {
      line_ += "null";
      return;
    }
    std::visit([this](const auto& content) { PrintContent(content); },
               static_cast<const internal::EncodableVariant&>(value));
  }

  void PrintContent(std::monostate /*null*/) { line_ += "null"; }
  void PrintContent(bool flag) { line_ += flag ? "true" : "false"; }
  void PrintContent(std::int32_t number) { line_ += std::to_string(number); }
  void PrintContent(std::int64_t number) { line_ += std::to_string(number) + "L"; }
  void PrintContent(double number) { PrintFloating(number); }
  void PrintContent(const std::string& text);
  void PrintContent(const CustomEncodableValue& custom) {
    const std::any* payload = custom.GetPayload();
    line_ += "custom(" + (payload == nullptr ? "" : Demangle(payload->type().name())) + ")";
  }

  void PrintContent(const std::vector<std::uint8_t>& bytes) {
    PrintItems("bytes[", "]", " ", bytes, [this](std::uint8_t byte) { PrintHex(byte); });
  }
  void PrintContent(const std::vector<std::int32_t>& list) {
    PrintItems("int32[", "]", ", ", list,
               [this](std::int32_t number) { line_ += std::to_string(number); });
  }
  void PrintContent(const std::vector<std::int64_t>& list) {
    PrintItems("int64[", "]", ", ", list,
               [this](std::int64_t number) { line_ += std::to_string(number); });
  }
  void PrintContent(const std::vector<double>& list) {
    PrintItems("double[", "]", ", ", list, [this](double number) { PrintFloating(number); });
  }
  void PrintContent(const std::vector<float>& list) {
    PrintItems("float[", "]", ", ", list, [this](float number) { PrintFloating(number); });
  }
  void PrintContent(const EncodableList& list) {
    PrintItems("[", "]", ", ", list, [this](const EncodableValue& item) { PrintValue(item); });
  }
  void PrintContent(const EncodableMap& map) {
    PrintItems("{", "}", ", ", map, [this](const EncodableMap::value_type& entry) {
      PrintValue(entry.first);
      line_ += ": ";
      PrintValue(entry.second);
    });
  }

  template <class Items, class PrintItem>
  void PrintItems(std::string_view open, std::string_view close, std::string_view separator,
                  const Items& items, const PrintItem& print_item);

  // The shortest digits that read back as the same number, and always recognisable as no integer.
  template <class T>
  void PrintFloating(T number) {
    std::array<char, 32> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    const std::string_view text(digits.data(), static_cast<std::size_t>(end - digits.data()));
    line_ += text;
    if (text.find_first_of(".eni") == std::string_view::npos) {
      line_ += ".0";
    }
  }

  void PrintHex(std::uint8_t byte) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    line_ += kDigits[byte >> 4];
    line_ += kDigits[byte & 15];
  }

  // Returns how many of the bytes it has printed.
  std::size_t PrintCharacter(std::string_view rest);

  std::string line_;
  std::size_t depth_ = 0;
};

void LinePrinter::PrintContent(const std::string& text) {
  line_ += '"';
  std::size_t position = 0;
  while (position < text.size() && position < kMaxTextBytes) {
    position += PrintCharacter(std::string_view(text).substr(position));
  }
  line_ += '"';
  if (position < text.size()) {
    line_ += "... (" + std::to_string(text.size()) + " bytes)";
  }
}

std::size_t LinePrinter::PrintCharacter(std::string_view rest) {
  const std::size_t length = quarn::details::ShowableLength(rest);
  if (length == 0) {
    line_ += quarn::details::EscapeOf(rest.front());
    return 1;
  }
  if (rest.front() == '"' || rest.front() == '\\') {
    line_ += '\\';
  }
  line_ += rest.substr(0, length);
  return length;
}

template <class Items, class PrintItem>
void LinePrinter::PrintItems(std::string_view open, std::string_view close,
                             std::string_view separator, const Items& items,
                             const PrintItem& print_item) {
  line_ += open;
  ++depth_;
  std::size_t printed = 0;
  for (const auto& item : items) {
    if (printed == kMaxItems || depth_ > kMaxDepth || line_.size() > kMaxLineBytes) {
      line_ += printed == 0 ? "" : separator;
      line_ += "... (" + std::to_string(items.size()) + " items)";
      break;
    }
    line_ += printed == 0 ? "" : separator;
    print_item(item);
    ++printed;
  }
  --depth_;
  line_ += close;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const EncodableValue& value) {
  return stream << LinePrinter().Print(value);
}

}  // namespace cw
