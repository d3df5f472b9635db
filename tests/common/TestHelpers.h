#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>

/// Expects `statement` to throw the class `exceptionClass` (or a subclass) with
/// what() equal to `message`.
#define EXPECT_THROW_MSG(statement, exceptionClass, message)                                            \
    do {                                                                                           \
        try {                                                                                      \
            statement;                                                                             \
            ADD_FAILURE() << "Expected " #exceptionClass " from: " #statement;                          \
        } catch (const exceptionClass& e_) {                                                            \
            EXPECT_EQ(std::string(e_.what()), std::string(message)) << "from: " #statement;        \
        } catch (const std::exception& e_) {                                                       \
            ADD_FAILURE() << "Expected " #exceptionClass ", got another exception: " << e_.what();      \
        }                                                                                          \
    } while (false)

namespace norvexa_test {

/// A fresh directory under the system's temporary directory, removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return _path; }

private:
    std::filesystem::path _path;
};

/// Changes the working directory for the object's lifetime.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::filesystem::path& dir) : _saved(std::filesystem::current_path())
    {
        std::filesystem::current_path(dir);
    }
    ~WorkingDirectory() { std::filesystem::current_path(_saved); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    std::filesystem::path _saved;
};

/// A name for a shared-memory object that no other test run uses.
std::string uniqueShmName(const std::string& stem);

/// Path of a file under data/.
std::filesystem::path dataPath(const std::string& relative);

/// Runs `command` in a shell: its exit status (-1 when it did not exit) and its output.
std::pair<int, std::string> runCommand(const std::string& command);

/// The MD5 digest of `size` bytes, in hex, or in base64 as CBF headers carry it.
std::string md5Of(const void* bytes, std::size_t size, bool base64 = false);
inline std::string md5Of(const std::string& bytes, bool base64 = false)
{
    return md5Of(bytes.data(), bytes.size(), base64);
}

} // namespace norvexa_test
