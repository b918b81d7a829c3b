// Plain characters: those that stand for themselves, in one byte, within a JSON string.
#ifndef RUNTIME_MANAGER_HOST_PLAIN_TEXT_H
#define RUNTIME_MANAGER_HOST_PLAIN_TEXT_H

#include <cstddef>
#include <string_view>
#include <vector>

namespace RuntimeManager::host {

// Without a branch, and in the width of the text, so that compilers make vector code of a loop over
// it.
template <typename Unit>
constexpr bool IsPlain(Unit code) {
  constexpr Unit kFirst = 0x20;
  constexpr Unit kCount = 0x7f - kFirst;
  return (static_cast<Unit>(code - kFirst) < kCount) & (code != Unit{'"'}) & (code != Unit{'\\'});
}

// A search through a text for what is not plain. They differ in speed only.
struct PlainSearch {
  const char* name;
  bool (*is_supported)();  // by the CPU that this runs on
  // The position of the first character that is not plain; or, when no such one stands before it,
  // that of a rest which is shorter than a block.
  std::size_t (*skip_plain)(const unsigned char* text, std::size_t size);
};

// All searches of this build, the fastest first. The last one runs on every CPU.
const std::vector<PlainSearch>& GetPlainSearches();

// How many plain characters there are at the front of the text, by this search.
std::size_t PlainPrefixBy(const PlainSearch& search, std::string_view text);

// The same by the fastest search. It reads every large text that comes or goes: vector units that
// the compiler may not count on do that in an eighth of the time.
std::size_t PlainPrefix(std::string_view text);
inline bool IsPlainText(std::string_view text) { return PlainPrefix(text) == text.size(); }

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_PLAIN_TEXT_H
