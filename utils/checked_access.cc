#include "utils/checked_access.h"

#include <stdexcept>
#include <string>

namespace korvo::utils {

void ThrowMapAt() { throw std::out_of_range("_Map_base::at"); }

void ThrowVectorRangeCheck(std::size_t n, std::size_t size) {
  throw std::out_of_range("vector::_M_range_check: __n (which is " + std::to_string(n) +
                          ") >= this->size() (which is " + std::to_string(size) + ")");
}

void ThrowArrayAt(std::size_t n, std::size_t size) {
  throw std::out_of_range("array::at: __n (which is " + std::to_string(n) + ") >= _Nm (which is " +
                          std::to_string(size) + ")");
}

}  // namespace korvo::utils
