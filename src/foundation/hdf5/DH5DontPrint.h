#pragma once

#include <memory>

namespace norvexa {
namespace hdf5 {

/// While one exists, HDF5 does not print its error stack to the console. The destructor
/// restores what the constructor found, so guards nest. Not copyable.
class DH5DontPrint {
public:
    DH5DontPrint();
    ~DH5DontPrint();
    DH5DontPrint(const DH5DontPrint&) = delete;
    DH5DontPrint& operator=(const DH5DontPrint&) = delete;

private:
    class DH5DontPrintPrivate;
    std::unique_ptr<DH5DontPrintPrivate> _d;
};

} // namespace hdf5
} // namespace norvexa
