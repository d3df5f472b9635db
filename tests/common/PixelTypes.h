#pragma once

#include "foundation/image/DDataTypes.h"

#include <gtest/gtest.h>

namespace norvexa_test {

template <class List>
struct ToGTestTypes;
template <class... Ts>
struct ToGTestTypes<norvexa::datatypes::TypeList<Ts...>> {
    using type = ::testing::Types<Ts...>;
};

/// The twelve pixel types, in dispatch order, for TYPED_TEST_SUITE.
using AllPixelTypes = ToGTestTypes<norvexa::datatypes::PixelTypeList>::type;

/// A readable name per pixel type for typed-test output.
struct PixelTypeNames {
    template <class T>
    static std::string GetName(int)
    {
        return norvexa::datatypes::typeStr(norvexa::datatypes::PixelTraits<T>::type) +
               std::to_string(norvexa::datatypes::PixelTraits<T>::bits);
    }
};

} // namespace norvexa_test
