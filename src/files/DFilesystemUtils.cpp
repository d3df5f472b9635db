#include "DFilesystemUtils.h"

#include "foundation/DAssert.h"
#include "foundation/DException.h"

#include <unistd.h>

namespace norvexa {
namespace imglib {
namespace utils {

namespace {
void replaceAll(std::string& path, const std::string& pattern)
{
    for (std::size_t p = path.find(pattern); p != std::string::npos; p = path.find(pattern))
        path.replace(p, pattern.size(), "/");
}
} // namespace

void normalizePath(std::string& path)
{
    if (path.empty())
        return;
    if (path[0] != '/') {
        char directory[1024];
        if (!::getcwd(directory, sizeof directory))
            throw DNoFileAccessException("Error accessing " + path);
        const std::string current(directory);
        path = current + (current == "/" ? "" : "/") + path;
    }
    const std::string absolute = path;
    replaceAll(path, "//");
    replaceAll(path, "/./");
    for (std::size_t p = path.find("/../"); p != std::string::npos; p = path.find("/../")) {
        if (p == 0)
            throw DNoFileAccessException("Error: " + absolute + " is not a valid path");
        const std::size_t parent = path.rfind('/', p - 1);
        path.replace(parent, p + 4 - parent, "/");
    }
    if (path.size() >= 2 && path.back() == '/')
        path.pop_back();
}

void parseFileName(std::string& fileName, std::string& suffix, std::string& base,
                   std::string& directory)
{
    normalizePath(fileName);
    suffix.clear();
    base.clear();
    directory.clear();
    if (fileName.empty())
        return;
    if (fileName.size() == 1) {
        const char pathSeparator = '/';
        NORVEXA_ASSERT(fileName[0] == pathSeparator, "parseFileName");
        directory = "/";
        return;
    }
    const std::size_t slash = fileName.rfind('/');
    directory = fileName.substr(0, slash);
    const std::string name = fileName.substr(slash + 1);
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos) {
        base = name;
    } else {
        base = name.substr(0, dot);
        suffix = name.substr(dot + 1);
    }
}

} // namespace utils
} // namespace imglib
} // namespace norvexa
