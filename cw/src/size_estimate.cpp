#include <cw/internal/size_estimate.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <variant>

namespace cw {

namespace {

constexpr std::size_t kPlain = 10;  // a plain value, type and padding included
constexpr std::size_t kLongestWalked = 16;
constexpr std::size_t kDeepestWalked = 3;
constexpr std::size_t kMostGuessed = std::size_t{8} << 20;

std::size_t Estimate(const EncodableValue& value, std::size_t depth);

std::size_t EstimateItem(const EncodableValue& item, std::size_t depth) {
  return Estimate(item, depth);
}

std::size_t EstimateItem(const EncodableMap::value_type& entry, std::size_t depth) {
  return Estimate(entry.first, depth) + Estimate(entry.second, depth);
}

// Long containers are not looked into, nor is what lies deep: of each item is expected what it
// takes in memory, which holds most items. What is not needed of that is never touched; but where it
// comes to more than the C library keeps for the next time, all that is touched would come new from
// the kernel, page by page, each time. So much is not guessed.
template <class Container>
std::size_t EstimateItems(const Container& items, std::size_t depth) {
  if (items.size() > kLongestWalked || depth == kDeepestWalked) {
    return std::min(items.size() * sizeof(typename Container::value_type), kMostGuessed);
  }
  std::size_t size = 0;
  for (const auto& item : items) {
    size += EstimateItem(item, depth + 1);
  }
  return size;
}

// The bytes behind the type of a text, a list or a map.
std::size_t EstimateContent(const EncodableValue& value, std::size_t depth) {
  return std::visit(
      [depth](const auto& kind) -> std::size_t {
        using T = std::decay_t<decltype(kind)>;
        if constexpr (std::is_same_v<T, EncodableMap> || std::is_same_v<T, EncodableList>) {
          return EstimateItems(kind, depth);
        } else if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::monostate> &&
                             !std::is_same_v<T, CustomEncodableValue>) {
          return kind.size() * sizeof(*kind.data());
        } else {
          return 0;
        }
      },
      static_cast<const internal::EncodableVariant&>(value));
}

std::size_t Estimate(const EncodableValue& value, std::size_t depth) {
  constexpr std::size_t kFirstLarger = 5;  // the kinds before are all plain
  static_assert(std::is_same_v<std::variant_alternative_t<kFirstLarger, internal::EncodableVariant>,
                               std::string>);
  if (value.index() < kFirstLarger || value.valueless_by_exception()) {
    return kPlain;
  }
  const std::string* const text = value.AsString();
  return kPlain + (text != nullptr ? text->size() : EstimateContent(value, depth));
}

}  // namespace

std::size_t EstimateEncodedSize(const EncodableValue& value) { return Estimate(value, 0); }

}  // namespace cw
