// The place of a virtual function in its class's table, read from the pointer to the member function.
//
// The compilers of all targets follow the Itanium C++ ABI: such a pointer holds the offset in the table, to
// which one is added on x86-64 (on ARM64 the mark is in the second word). The destructor takes two places.
#pragma once

#include <array>
#include <bit>
#include <cstddef>

namespace test {

template <class F> std::size_t slot_of(F function) {
    static_assert(sizeof function == 2 * sizeof(std::size_t));
    const auto words = std::bit_cast<std::array<std::size_t, 2>>(function);
    return (words[0] & ~std::size_t{1}) / sizeof(void*);
}

} // namespace test
