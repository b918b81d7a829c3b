// A value that an exception has left without any alternative.
#ifndef CW_TESTS_SUPPORT_VALUELESS_H
#define CW_TESTS_SUPPORT_VALUELESS_H

#include <cw/encodable_value.h>

#include <cstddef>
#include <iterator>
#include <stdexcept>

namespace cw::test_support {

// An iterator over map entries that throws when it is read.
struct ThrowingIterator {
  using iterator_category = std::input_iterator_tag;
  using value_type = EncodableMap::value_type;
  using difference_type = std::ptrdiff_t;
  using pointer = const value_type*;
  using reference = value_type;
  value_type operator*() const { throw std::runtime_error("unreadable"); }
  ThrowingIterator& operator++() { return *this; }
  bool operator==(const ThrowingIterator& /*other*/) const { return false; }
  bool operator!=(const ThrowingIterator& /*other*/) const { return true; }
};

inline EncodableValue MakeValueless() {
  EncodableValue value(1);
  try {
    value.emplace<EncodableMap>(ThrowingIterator(), ThrowingIterator());
  } catch (const std::runtime_error&) {
    if (value.valueless_by_exception()) {
      return value;
    }
  }
  throw std::logic_error("the value still holds something");
}

}  // namespace cw::test_support

#endif  // CW_TESTS_SUPPORT_VALUELESS_H
