#pragma once

#include <concepts>
#include <limits>
#include <utility>

namespace qnc {

// Arithmetic on sizes, times and counts that come from input. Each function returns whether the
// exact result fits and stores it only then. Operands of different types are taken at their
// mathematical value.
template <std::integral A, std::integral B, std::integral R>
[[nodiscard]] constexpr bool checkedAdd(A a, B b, R& out) {
  R sum{};
  if (__builtin_add_overflow(a, b, &sum)) return false;
  out = sum;
  return true;
}

template <std::integral A, std::integral B, std::integral R>
[[nodiscard]] constexpr bool checkedSub(A a, B b, R& out) {
  R difference{};
  if (__builtin_sub_overflow(a, b, &difference)) return false;
  out = difference;
  return true;
}

template <std::integral A, std::integral B, std::integral R>
[[nodiscard]] constexpr bool checkedMul(A a, B b, R& out) {
  R product{};
  if (__builtin_mul_overflow(a, b, &product)) return false;
  out = product;
  return true;
}

// False for a division by zero and for the smallest value divided by -1.
template <std::integral T>
[[nodiscard]] constexpr bool checkedDiv(T a, T b, T& out) {
  if (b == 0) return false;
  if constexpr (std::signed_integral<T>) {
    if (a == std::numeric_limits<T>::min() && b == -1) return false;
  }
  out = static_cast<T>(a / b);
  return true;
}

template <std::integral To, std::integral From>
[[nodiscard]] constexpr bool checkedCast(From value, To& out) {
  return checkedAdd(value, From{0}, out);
}

// The nearest value that T can hold.
template <std::integral T>
[[nodiscard]] constexpr T saturatingAdd(T a, T b) {
  T sum{};
  if (checkedAdd(a, b, sum)) return sum;
  return b < 0 ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max();
}

template <std::integral T>
[[nodiscard]] constexpr T saturatingSub(T a, T b) {
  T difference{};
  if (checkedSub(a, b, difference)) return difference;
  if constexpr (std::unsigned_integral<T>) return 0;
  return b < 0 ? std::numeric_limits<T>::max() : std::numeric_limits<T>::min();
}

template <std::integral T>
[[nodiscard]] constexpr T saturatingMul(T a, T b) {
  T product{};
  if (checkedMul(a, b, product)) return product;
  return (a < 0) != (b < 0) ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max();
}

}  // namespace qnc
