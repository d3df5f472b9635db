#include "foundation/hdf5/DH5DontPrint.h"

#include <hdf5.h>

namespace norvexa {
namespace hdf5 {

/// The printing function and its argument found on construction.
class DH5DontPrint::DH5DontPrintPrivate {
public:
    H5E_auto2_t function = nullptr;
    void* data = nullptr;
};

DH5DontPrint::DH5DontPrint() : _d(std::make_unique<DH5DontPrintPrivate>())
{
    H5Eget_auto2(H5E_DEFAULT, &_d->function, &_d->data);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

DH5DontPrint::~DH5DontPrint() { H5Eset_auto2(H5E_DEFAULT, _d->function, _d->data); }

} // namespace hdf5
} // namespace norvexa
