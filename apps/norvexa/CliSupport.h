#pragma once

// What every subcommand of the norvexa tool shares: exit codes, the one-line failure,
// the progress line, output that appears under its final name only when complete,
// "HOST[:PORT]" arguments and the stop flag set by Ctrl-C or SIGTERM.

#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace norvexa {
namespace cli {

/// The tool's exit codes.
enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

/// Ends a subcommand: main prints "norvexa <subcommand>: <message>" as one line on
/// standard error and exits with `code`.
class ExitError : public std::runtime_error {
public:
    ExitError(int code, const std::string& message);
    int code() const noexcept { return _code; }

private:
    int _code;
};

/// A failure (exit 1) about `subject` (an input or output path, a host): "<subject>:
/// <message>", newlines of the message folded into spaces.
ExitError failure(const std::string& subject, const std::string& message);
/// A usage error (exit 2).
ExitError usageError(const std::string& message);

/// A line on standard error rewritten in place while long work runs: "<what> <done>/<total>
/// frames, <rate> frames/s, <left> left" (no total: done and rate only). Only when
/// standard error is a terminal; otherwise every call does nothing. At most ten redraws a
/// second; the line is cleared by done() or the destructor.
class ProgressLine {
public:
    explicit ProgressLine(std::string what, long total = 0);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void update(long done);
    void setTotal(long total) { _total = total; }
    /// Clears the line.
    void done();

private:
    std::string _what;
    long _total;
    bool _shown = false;
    bool _active;
    std::chrono::steady_clock::time_point _start, _lastDraw;
};

/// Files that appear under their final names all at once, complete: they are written into
/// a fresh directory beside the target (".<name>.norvexa-XXXXXX" in the target's
/// directory, so the rename stays on one file system) and renamed into place by commit().
/// Destroyed without commit (a failure, an exception), the directory and all in it go, so
/// nothing half-written is ever left under a final name. A crash leaves only the hidden
/// directory.
class StagedFiles {
public:
    /// ExitError failure naming `target` when its directory can't take
    /// the staging directory.
    explicit StagedFiles(const std::filesystem::path& target);
    ~StagedFiles();
    StagedFiles(const StagedFiles&) = delete;
    StagedFiles& operator=(const StagedFiles&) = delete;

    /// Where to write the file whose final name is `finalName` (a bare file name).
    std::filesystem::path staged(const std::string& finalName) const;
    /// Renames every file written so far into the target's directory, `last` (a bare file
    /// name, e.g. an HDF5 master whose links name the others) after all the rest, and
    /// returns the final paths in that order. Afterwards the object holds nothing.
    std::vector<std::filesystem::path> commit(const std::string& last = "");
    /// Drops what was written.
    void discard();

private:
    std::filesystem::path _directory; // where the files go: the target's, as the user wrote it
    std::filesystem::path _staging;
};

/// "HOST[:PORT]" ("[v6]:PORT" too); ExitError usage when the port is not 1..65535.
struct HostPort {
    std::string host;
    int port;
};
HostPort parseHostPort(const std::string& text, int defaultPort);

/// Checks that something accepts TCP connections at host:port, within `seconds`;
/// ExitError failure naming "host:port" with the system's reason ("Connection refused").
/// A message queue's socket connects in the background and never says so itself.
void probeTcp(const HostPort& address, double seconds);

/// Installs handlers for SIGINT and SIGTERM that set stopRequested(); the second signal
/// ends the process as the default would.
void installStopHandlers();
/// Set by the first SIGINT or SIGTERM after installStopHandlers(); a library call's abort flag.
const std::atomic<bool>& stopRequested();

/// While one exists, standard output goes to /dev/null: some library objects print a line
/// there when they close, and the tool's standard output holds its results only.
class QuietStdout {
public:
    QuietStdout();
    ~QuietStdout();
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int _saved;
};

/// A number in the shortest of fixed or exponent form, `digits` significant digits.
std::string number(double value, int digits = 6);

} // namespace cli
} // namespace norvexa
