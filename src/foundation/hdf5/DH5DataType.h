#pragma once

#include "foundation/image/DDataTypes.h"

namespace norvexa {
namespace hdf5 {

/// Element class of a dataset or an attribute. With it goes an element size in bytes:
/// typeBits / 8 for numbers, the length for a string.
///
/// Strings are written fixed-length, ASCII, null-padded: a text of n bytes fills its n
/// bytes without a terminator, as a CHAR value of 8 * n bits holds it. Reading also
/// takes null-terminated and variable-length strings (h5py writes a str attribute as
/// variable-length UTF-8).
enum DataType { H5Int = 0, H5UInt = 1, H5Float = 2, H5String = 3 };

/// The pixel type class of an element class: INT, UINT, FLOAT or CHAR.
inline datatypes::Type imageType(DataType type)
{
    switch (type) {
    case H5Int: return datatypes::INT;
    case H5UInt: return datatypes::UINT;
    case H5Float: return datatypes::FLOAT;
    case H5String: return datatypes::CHAR;
    }
    return datatypes::NONE;
}

/// The element class for writing a pixel type class; BOOL is stored as a signed integer.
/// False for NONE and anything unknown.
inline bool dataTypeOf(datatypes::Type type, DataType& out)
{
    switch (type) {
    case datatypes::BOOL:
    case datatypes::INT: out = H5Int; return true;
    case datatypes::UINT: out = H5UInt; return true;
    case datatypes::FLOAT: out = H5Float; return true;
    case datatypes::CHAR: out = H5String; return true;
    case datatypes::NONE: break;
    }
    return false;
}

} // namespace hdf5
} // namespace norvexa
