#include "TestHelpers.h"

#include <atomic>
#include <random>
#include <unistd.h>

namespace norvexa_test {

namespace {
std::string uniqueSuffix()
{
    static std::atomic<unsigned> counter{0};
    static const unsigned long long salt = std::random_device{}();
    return std::to_string(::getpid()) + "_" + std::to_string(salt % 1000000007ULL) + "_" +
           std::to_string(counter++);
}
} // namespace

TempDir::TempDir()
{
    _path = std::filesystem::temp_directory_path() / ("norvexa_test_" + uniqueSuffix());
    std::filesystem::create_directories(_path);
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

std::string uniqueShmName(const std::string& stem) { return stem + "_" + uniqueSuffix(); }

std::filesystem::path dataPath(const std::string& relative)
{
    return std::filesystem::path(NORVEXA_DATA_DIR) / relative;
}

} // namespace norvexa_test
