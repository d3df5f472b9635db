#include "TestHelpers.h"

#include "DMd5.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <random>

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

std::pair<int, std::string> runCommand(const std::string& command)
{
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::string output;
    char chunk[4096];
    for (std::size_t got; pipe && (got = std::fread(chunk, 1, sizeof chunk, pipe.get())) > 0;)
        output.append(chunk, got);
    const int status = pipe ? ::pclose(pipe.release()) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::string md5Of(const void* bytes, std::size_t size, bool base64)
{
    norvexa::imglib::DMd5 md5;
    md5.hash(static_cast<const unsigned char*>(bytes), size);
    return base64 ? md5.toBase64() : md5.toHex();
}

} // namespace norvexa_test
