#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace korvo::utils {

// Checked look-ups whose error texts are the daemon's own. The standard library throws the same type, but its texts
// change from one version to the next, and the agent reads them in the log.

/// std::out_of_range "_Map_base::at".
[[noreturn]] void ThrowMapAt();
/// std::out_of_range "vector::_M_range_check: __n (which is <n>) >= this->size() (which is <size>)".
[[noreturn]] void ThrowVectorRangeCheck(std::size_t n, std::size_t size);
/// std::out_of_range "array::at: __n (which is <n>) >= _Nm (which is <size>)".
[[noreturn]] void ThrowArrayAt(std::size_t n, std::size_t size);

/// The value of `key`, or ThrowMapAt().
template <typename Map>
[[nodiscard]] auto& MapAt(Map& map, const typename Map::key_type& key) {
  const auto it = map.find(key);
  if (it == map.end()) {
    ThrowMapAt();
  }
  return it->second;
}

/// Element `n`, or ThrowVectorRangeCheck().
template <typename T>
[[nodiscard]] const T& VectorAt(const std::vector<T>& vector, std::size_t n) {
  if (n >= vector.size()) {
    ThrowVectorRangeCheck(n, vector.size());
  }
  return vector[n];
}

/// Element `n`, or ThrowArrayAt().
template <typename T, std::size_t size>
[[nodiscard]] const T& ArrayAt(const std::array<T, size>& array, std::size_t n) {
  if (n >= size) {
    ThrowArrayAt(n, size);
  }
  return array[n];
}

}  // namespace korvo::utils
