// sameTree: whether two values are the very same tree, stricter than value equality (which finds
// 1 equal to 1.0 and a signed 0 equal to an unsigned one): the same kind at every node (integers
// signed or unsigned, floating numbers bit for bit), the same keys in the same order.
#pragma once

#include <cstring>

#include "platform/KLTValue.h"

namespace kltfixture {

inline bool sameTree(const KLTValue& a, const KLTValue& b) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case KLTValue::value_t::object: {
      if (a.size() != b.size()) return false;
      for (auto x = a.begin(), y = b.begin(); x != a.end(); ++x, ++y) {
        if (x.key() != y.key() || !sameTree(x.value(), y.value())) return false;
      }
      return true;
    }
    case KLTValue::value_t::array: {
      if (a.size() != b.size()) return false;
      for (std::size_t i = 0; i < a.size(); ++i) {
        if (!sameTree(a[i], b[i])) return false;
      }
      return true;
    }
    case KLTValue::value_t::number_float: {
      const double x = a.get<double>(), y = b.get<double>();
      return std::memcmp(&x, &y, sizeof x) == 0;
    }
    default:
      return a == b;
  }
}

}  // namespace kltfixture
