// Feeds arbitrary bytes as a single-file HDF5 master (header, image data and all) to the
// HDF5 reader: opening, the read table and the first frame. Every failure must be an
// exception of the library's tree.
#include "DHdf5Iterator.h"
#include "foundation/DException.h"
#include "foundation/hdf5/DH5DontPrint.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::imglib;

// HDF5 checks its own allocations: a damaged header that asks it for petabytes gets a null
// pointer and an HDF5 error, as in a release build, instead of the sanitizer's abort. Sizes
// up to the sanitizer's limit still meet -rss_limit_mb / -malloc_limit_mb.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
// HDF5 1.10 loses object header pieces on the error path of a damaged header, inside its
// metadata cache, where no caller can free them. (Its frames carry no frame pointers, so
// the stack ends in the library: the suppression names the library.)
extern "C" const char* __lsan_default_suppressions() { return "leak:libhdf5\n"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string path = "/dev/shm/norvexa_fuzz_" + std::to_string(::getpid()) + ".h5";
    static const bool quiet = [] {
        std::cout.setstate(std::ios::failbit);
        std::cerr.setstate(std::ios::failbit);
        return true;
    }();
    (void)quiet;
    if (FILE* file = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, size, file);
        std::fclose(file);
    }
    hdf5::DH5DontPrint silent;
    try {
        DHdf5Iterator series(path);
        if (!series.empty())
            series.front();
    } catch (const DException&) {
    }
    return 0;
}
