#pragma once

#include <exception>
#include <string>

namespace norvexa {

/// Root of the library's exception tree: a message text and what().
class DException : public std::exception {
public:
    explicit DException(std::string message);
    const char* what() const noexcept override;

private:
    std::string _message;
};

/// A failed operation, a bad state or bad data that have no class of their own.
class DRuntimeException : public DException {
public:
    using DException::DException;
};

/// A file that can't be opened or read.
class DNoFileAccessException : public DException {
public:
    using DException::DException;
};

/// Damaged file content (also a compressed chunk that does not decode).
class DImageCorruptedException : public DException {
public:
    using DException::DException;
};

/// A file of no known format.
class DUnknownFormatException : public DException {
public:
    using DException::DException;
};

/// A position, index or path outside its range.
class DOutOfRangeException : public DException {
public:
    using DException::DException;
};

/// An argument or metadata value that can't be used.
class DBadParameterException : public DException {
public:
    using DException::DException;
};

/// A pixel type or type class with no implementation.
class DNotImplementedException : public DException {
public:
    using DException::DException;
};

/// A wait that ran out; carries the time that was waited, in seconds.
class DTimeoutException : public DException {
public:
    explicit DTimeoutException(double time);
    DTimeoutException(double time, std::string message);
    double time() const noexcept { return _time; }

private:
    double _time;
};

} // namespace norvexa
