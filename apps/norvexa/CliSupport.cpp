#include "CliSupport.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <system_error>

namespace norvexa {
namespace cli {

namespace fs = std::filesystem;

ExitError::ExitError(int code, const std::string& message) : std::runtime_error(message), _code(code) {}

ExitError failure(const std::string& subject, const std::string& message)
{
    std::string text = subject.empty() ? message : subject + ": " + message;
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return ExitError(kExitFailure, text);
}

ExitError usageError(const std::string& message)
{
    return ExitError(kExitUsage, message);
}

// ---- progress line ----

ProgressLine::ProgressLine(std::string what, long total)
    : _what(std::move(what)), _total(total), _active(isatty(STDERR_FILENO) == 1),
      _start(std::chrono::steady_clock::now()), _lastDraw(_start)
{
}

ProgressLine::~ProgressLine()
{
    done();
}

void ProgressLine::update(long done)
{
    if (!_active)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (_shown && now - _lastDraw < std::chrono::milliseconds(100) && done != _total)
        return;
    _lastDraw = now;
    const double seconds = std::chrono::duration<double>(now - _start).count();
    const double rate = seconds > 0 ? done / seconds : 0;
    std::string line = _what + " " + std::to_string(done);
    if (_total > 0)
        line += "/" + std::to_string(_total);
    line += " frames, " + number(rate, 3) + " frames/s";
    if (_total > 0 && rate > 0 && done < _total) {
        const long left = static_cast<long>((_total - done) / rate + 0.5);
        char text[32];
        std::snprintf(text, sizeof text, ", %ld:%02ld left", left / 60, left % 60);
        line += text;
    }
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
    _shown = true;
}

void ProgressLine::done()
{
    if (_shown) {
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
        _shown = false;
    }
}

// ---- staged files ----

StagedFiles::StagedFiles(const fs::path& target)
{
    _directory = target.parent_path();
    const fs::path here = _directory.empty() ? fs::path(".") : _directory;
    std::string pattern = (here / ("." + target.filename().string() + ".norvexa-XXXXXX")).string();
    if (!mkdtemp(pattern.data()))
        throw failure(target.string(), std::string("Cannot write into ") + here.string() + ": " +
                                           std::strerror(errno));
    _staging = pattern;
}

StagedFiles::~StagedFiles()
{
    discard();
}

fs::path StagedFiles::staged(const std::string& finalName) const
{
    return _staging / finalName;
}

std::vector<fs::path> StagedFiles::commit(const std::string& last)
{
    std::vector<fs::path> names;
    for (const auto& entry : fs::directory_iterator(_staging))
        if (entry.path().filename() != last)
            names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    if (!last.empty() && fs::exists(_staging / last))
        names.push_back(last);
    std::vector<fs::path> committed;
    for (const fs::path& name : names) {
        std::error_code error;
        fs::rename(_staging / name, _directory / name, error);
        if (error)
            throw failure((_directory / name).string(), "Cannot rename into place: " + error.message());
        committed.push_back(_directory / name);
    }
    discard();
    return committed;
}

void StagedFiles::discard()
{
    if (_staging.empty())
        return;
    std::error_code ignored;
    fs::remove_all(_staging, ignored);
    _staging.clear();
}

// ---- network ----

HostPort parseHostPort(const std::string& text, int defaultPort)
{
    HostPort result{text, defaultPort};
    std::string portText;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string::npos)
            throw usageError(text + ": missing ']'");
        result.host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':')
                throw usageError(text + ": expected HOST[:PORT]");
            portText = text.substr(close + 2);
            if (portText.empty())
                throw usageError(text + ": empty port");
        }
    } else if (const auto colon = text.rfind(':'); colon != std::string::npos) {
        result.host = text.substr(0, colon);
        portText = text.substr(colon + 1);
        if (portText.empty())
            throw usageError(text + ": empty port");
    }
    if (result.host.empty())
        throw usageError(text + ": empty host");
    if (!portText.empty()) {
        char* end = nullptr;
        const long port = std::strtol(portText.c_str(), &end, 10);
        if (*end != '\0' || port < 1 || port > 65535)
            throw usageError(text + ": the port must be a number from 1 to 65535");
        result.port = static_cast<int>(port);
    }
    return result;
}

void probeTcp(const HostPort& address, double seconds)
{
    const std::string subject = address.host + ":" + std::to_string(address.port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
    if (resolved != 0)
        throw failure(subject, gai_strerror(resolved));
    std::string reason = "no address";
    for (addrinfo* a = found; a; a = a->ai_next) {
        const int fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) {
            reason = std::strerror(errno);
            continue;
        }
        int error = 0;
        if (connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
            error = errno;
            if (error == EINPROGRESS) {
                pollfd p{fd, POLLOUT, 0};
                const int ready = poll(&p, 1, static_cast<int>(seconds * 1000));
                socklen_t length = sizeof error;
                if (ready <= 0)
                    error = ETIMEDOUT;
                else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
                    error = errno;
            }
        }
        close(fd);
        if (error == 0) {
            freeaddrinfo(found);
            return;
        }
        reason = std::strerror(error);
    }
    freeaddrinfo(found);
    throw failure(subject, reason);
}

// ---- signals ----

namespace {
std::atomic<bool> gStop(false);

extern "C" void onStopSignal(int signal)
{
    gStop.store(true);
    // A second Ctrl-C ends the process the usual way.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
}
} // namespace

void installStopHandlers()
{
    struct sigaction action {};
    action.sa_handler = &onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: a blocking call returns and looks at the flag
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

const std::atomic<bool>& stopRequested()
{
    return gStop;
}

QuietStdout::QuietStdout() : _saved(-1)
{
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0)
        return;
    _saved = dup(STDOUT_FILENO);
    if (_saved >= 0)
        dup2(null, STDOUT_FILENO);
    close(null);
}

QuietStdout::~QuietStdout()
{
    std::fflush(stdout);
    if (_saved < 0)
        return;
    dup2(_saved, STDOUT_FILENO);
    close(_saved);
}

std::string number(double value, int digits)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*g", digits, value);
    return text;
}

} // namespace cli
} // namespace norvexa
