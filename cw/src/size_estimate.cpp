#include <cw/internal/size_estimate.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <type_traits>
#include <variant>

namespace cw {

namespace {

// Items of a container that are looked at, by how deep it lies; below, all values count alike.
constexpr std::size_t kSamples[] = {16, 8, 2};
constexpr std::size_t kPlain = 10;  // a plain value, type and padding included

// What is judged by samples may be wrong, at most by so much of memory that is never touched.
constexpr std::size_t kMaxOfSample = 1024;
constexpr std::size_t kMaxJudged = std::size_t{8} << 20;

class Estimator {
 public:
  std::size_t Estimate(const EncodableValue& value, std::size_t depth) {
    constexpr std::size_t kFirstLarger = 5;  // the kinds before are all plain
    static_assert(
        std::is_same_v<std::variant_alternative_t<kFirstLarger, internal::EncodableVariant>,
                       std::string>);
    if (value.index() < kFirstLarger || value.valueless_by_exception()) {
      return kPlain;
    }
    const std::string* const text = value.AsString();
    return kPlain + (text != nullptr ? text->size() : EstimateLarger(value, depth));
  }

 private:
  std::size_t EstimateItem(const EncodableValue& item, std::size_t depth) {
    return Estimate(item, depth);
  }
  std::size_t EstimateItem(const EncodableMap::value_type& entry, std::size_t depth) {
    return Estimate(entry.first, depth) + Estimate(entry.second, depth);
  }

  template <class Container>
  std::size_t EstimateContainer(const Container& items, std::size_t depth) {
    if (depth == std::size(kSamples)) {
      return Judge(items.size() * kPlain);
    }
    const std::size_t samples = std::min(items.size(), kSamples[depth]);
    const bool is_whole = samples == items.size();
    std::size_t size = 0;
    auto item = items.begin();
    for (std::size_t i = 0; i < samples; ++i, ++item) {
      const std::size_t of_item = EstimateItem(*item, depth + 1);
      size += is_whole ? of_item : std::min(of_item, kMaxOfSample);
    }
    return is_whole ? size : Judge(size * (items.size() / samples + 1));
  }

  std::size_t EstimateLarger(const EncodableValue& value, std::size_t depth) {
    return std::visit(
        [this, depth](const auto& kind) -> std::size_t {
          using T = std::decay_t<decltype(kind)>;
          if constexpr (std::is_same_v<T, EncodableMap> || std::is_same_v<T, EncodableList>) {
            return EstimateContainer(kind, depth);
          } else if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::monostate> &&
                               !std::is_same_v<T, CustomEncodableValue>) {
            return kind.size() * sizeof(*kind.data());
          } else {
            return 0;
          }
        },
        static_cast<const internal::EncodableVariant&>(value));
  }

  // As much of a guess as all guesses together may still come to.
  std::size_t Judge(std::size_t size) {
    const std::size_t judged = std::min(size, judged_left_);
    judged_left_ -= judged;
    return judged;
  }

  std::size_t judged_left_ = kMaxJudged;
};

}  // namespace

std::size_t EstimateEncodedSize(const EncodableValue& value) {
  return Estimator().Estimate(value, 0);
}

}  // namespace cw
