// norvexa record HOST[:PORT] OUT_master.h5: follows a live stream and writes each series
// as an HDF5 master with data files, the chunks stored as they came.

#include "CliSupport.h"
#include "Commands.h"
#include "Inputs.h"

#include "DHdf5Writer.h"
#include "DImage.h"
#include "DOrvikDetector.h"
#include "DOrvikStream.h"
#include "DStreamClient.h"
#include "DStreamObject.h"
#include "DTerminateException.h"
#include "foundation/DException.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

namespace norvexa {
namespace cli {

using namespace imglib;
namespace fs = std::filesystem;

namespace {

struct RecordOptions {
    std::string address, out;
    int series = 0;
    bool arm = false, trigger = false;
    int restPort = 80;
    int images = 0;
    int imagesPerFile = 100;
    double timeout = 0;
};

/// The master's name for the k-th series of this run: the name given for the first,
/// "<base>_<k>_master.h5" for the others.
fs::path masterFor(const fs::path& out, int k)
{
    if (k == 1)
        return out;
    std::string stem = out.stem().string();
    const std::string suffix = "_master";
    if (stem.size() > suffix.size() && stem.compare(stem.size() - suffix.size(), suffix.size(), suffix) == 0)
        stem.resize(stem.size() - suffix.size());
    return out.parent_path() / (stem + "_" + std::to_string(k) + suffix + out.extension().string());
}

/// One series being written.
class Recording {
public:
    Recording(const fs::path& master, std::uint64_t seriesId, nexus::DNeXusTree header, int imagesPerFile)
        : _master(master), _staged(master), _seriesId(seriesId), _header(std::move(header)),
          _imagesPerFile(imagesPerFile)
    {
        // The number of images the series announced, to find images lost at its end too.
        DImageOptionalData metadata;
        metadata.neXus() = _header;
        _announced = metadata.nimages().value_or(0);
    }

    std::uint64_t seriesId() const { return _seriesId; }
    long announced() const { return _announced; }
    long written() const { return _written; }

    void write(std::uint64_t imageId, const DStreamData::Image& image)
    {
        if (!_opened) {
            // The file takes the stream's own encoding, so every chunk is stored as it came.
            _writer.open(_staged.staged(hdf5Names(_master, _imagesPerFile).writerName).string(), _imagesPerFile,
                         _header, image.filter());
            _opened = true;
        }
        if (imageId > _next)
            lose(_next, imageId - 1);
        _writer.write(image);
        _next = imageId + 1;
        ++_written;
    }

    /// Closes the files, renames them into place and says what was written and lost.
    /// `ended`: the series' end came, so images announced but not received were lost.
    long finish(bool ended, const std::string& note)
    {
        if (ended && _announced > 0 && static_cast<std::uint64_t>(_announced) >= _next)
            lose(_next, static_cast<std::uint64_t>(_announced));
        std::cout << "series " << _seriesId << ": ";
        if (!_opened) {
            std::cout << "no images" << note << "\n";
            return _lost;
        }
        _writer.close();
        const std::string written = hdf5Names(_master, _imagesPerFile).writtenMaster;
        if (written != _master.filename().string())
            fs::rename(_staged.staged(written), _staged.staged(_master.filename().string()));
        const auto files = _staged.commit(_master.filename().string());
        std::cout << _written << " image" << (_written == 1 ? "" : "s") << " in " << files.back().string();
        if (files.size() > 1)
            std::cout << " and " << files.size() - 1 << " data file" << (files.size() > 2 ? "s" : "");
        if (_lost)
            std::cout << ", " << _lost << " lost (" << _lostText << ")";
        std::cout << note << std::endl;
        return _lost;
    }

private:
    void lose(std::uint64_t first, std::uint64_t last)
    {
        _lost += static_cast<long>(last - first + 1);
        if (_lostText.size() < 200)
            _lostText += (_lostText.empty() ? "" : ", ") + std::to_string(first) +
                         (last > first ? "-" + std::to_string(last) : "");
        else if (_lostText.back() != '.')
            _lostText += ", ...";
    }

    fs::path _master;
    StagedFiles _staged;
    std::uint64_t _seriesId;
    nexus::DNeXusTree _header;
    int _imagesPerFile;
    long _announced = 0;
    DHdf5Writer _writer;
    bool _opened = false;
    std::uint64_t _next = 1; // frame numbers run from 1
    long _written = 0;
    long _lost = 0;
    std::string _lostText;
};

/// Drives the detector's REST interface: stream on, arm, and trigger on a thread of its
/// own, since a trigger may last as long as the acquisition.
class Acquisition {
public:
    Acquisition(const RecordOptions& o, const std::string& host) : _subject(host + ":" + std::to_string(o.restPort))
    {
        const std::atomic<bool>& stop = stopRequested();
        try {
            DOrvikDetector detector(host, o.restPort);
            if (o.arm) {
                std::cout.flush();
                const QuietStdout quiet; // the stream object's socket prints when it closes
                DOrvikStream stream(host, o.restPort);
                stream.setEnabled(true, stop);
                stream.setHeaderDetail("all", stop);
                if (o.images > 0)
                    detector.setNImages(o.images, stop);
                detector.arm(stop);
            }
        } catch (const std::exception& e) {
            throw failure(_subject, e.what());
        }
        if (o.trigger)
            _thread = std::thread([this, host, port = o.restPort] {
                try {
                    DOrvikDetector(host, port).trigger(stopRequested());
                } catch (...) {
                    std::lock_guard<std::mutex> lock(_mutex);
                    _error = std::current_exception();
                }
            });
    }
    ~Acquisition()
    {
        if (_thread.joinable())
            _thread.join();
    }
    /// Raises what the trigger raised, unless a stop signal called it off.
    void check()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (!_error || stopRequested())
            return;
        try {
            std::rethrow_exception(std::exchange(_error, nullptr));
        } catch (const std::exception& e) {
            throw failure(_subject, e.what());
        }
    }

private:
    std::string _subject;
    std::thread _thread;
    std::mutex _mutex;
    std::exception_ptr _error;
};

/// The stream client prints a line on standard output when it closes.
struct QuietClient {
    std::unique_ptr<DStreamClient> client;
    ~QuietClient()
    {
        std::cout.flush();
        const QuietStdout quiet;
        client.reset();
    }
};

void record(const RecordOptions& o)
{
    const HostPort address = parseHostPort(o.address, DOrvikStream::DATA_PORT);
    const std::string subject = address.host + ":" + std::to_string(address.port);
    const fs::path out(o.out);
    if (out.extension() != ".h5" && out.extension() != ".hdf5")
        throw usageError(o.out + ": the output is an HDF5 master, e.g. run_master.h5");
    if (o.trigger && !o.arm)
        throw usageError("--trigger needs --arm");
    installStopHandlers();
    probeTcp(address, 5.0);

    QuietClient quiet{std::make_unique<DStreamClient>(address.host, address.port)};
    DStreamClient& client = *quiet.client;
    std::unique_ptr<Acquisition> acquisition;
    if (o.arm)
        acquisition = std::make_unique<Acquisition>(o, address.host);

    using Clock = std::chrono::steady_clock;
    std::unique_ptr<Recording> current;
    std::unique_ptr<ProgressLine> progress;
    int seriesCount = 0;
    long lost = 0, malformed = 0;
    auto lastMessage = Clock::now();
    const auto finish = [&](bool ended, const std::string& note) {
        if (!current)
            return;
        if (progress)
            progress->done();
        lost += current->finish(ended, note);
        current.reset();
    };
    const auto start = [&](std::uint64_t seriesId, nexus::DNeXusTree header) {
        current = std::make_unique<Recording>(masterFor(out, ++seriesCount), seriesId, std::move(header),
                                              o.imagesPerFile);
        progress = std::make_unique<ProgressLine>("record series " + std::to_string(seriesId), current->announced());
    };

    bool interrupted = false;
    for (bool done = false; !done;) {
        DStreamObject message;
        try {
            message = client.pop(0.5, stopRequested());
        } catch (const DTimeoutException&) {
            if (stopRequested()) {
                interrupted = true;
                break;
            }
            if (acquisition)
                acquisition->check();
            if (o.timeout > 0 && std::chrono::duration<double>(Clock::now() - lastMessage).count() > o.timeout) {
                finish(false, " (no end of series)");
                throw failure(subject, "No message for " + number(o.timeout) + " s");
            }
            continue;
        } catch (const DTerminateException&) {
            interrupted = true;
            break;
        } catch (const DException& e) {
            // The socket's receive, woken by the signal, reports EINTR as an error rather
            // than looking at the flag.
            if (stopRequested()) {
                interrupted = true;
                break;
            }
            // A malformed message: the stream goes on with the next one.
            ++malformed;
            std::cerr << "norvexa record: " << subject << ": " << e.what() << "\n";
            continue;
        }
        lastMessage = Clock::now();
        switch (message.type()) {
        case DStreamObject::CONFIG: {
            finish(false, " (no end of series)");
            const DStreamConfig config = message.config();
            start(config.seriesId(), config.config());
            break;
        }
        case DStreamObject::DATA: {
            if (!current) // joined in mid-series: no header
                start(0, nexus::DNeXusTree());
            const DStreamData data = message.data();
            try {
                current->write(data.imageId(), data.data());
            } catch (const std::exception& e) {
                throw failure(masterFor(out, seriesCount).string(), e.what());
            }
            progress->update(current->written());
            break;
        }
        case DStreamObject::END:
            finish(true, "");
            done = o.series > 0 && seriesCount >= o.series;
            break;
        }
    }
    if (interrupted)
        finish(false, " (interrupted)");
    std::string missing;
    if (lost)
        missing = std::to_string(lost) + " image" + (lost == 1 ? "" : "s") + " lost";
    if (malformed)
        missing += (missing.empty() ? "" : ", ") + std::to_string(malformed) + " malformed message" +
                   (malformed == 1 ? "" : "s");
    if (!missing.empty())
        throw failure(subject, missing);
}

} // namespace

void addRecordCommand(CLI::App& app)
{
    auto options = std::make_shared<RecordOptions>();
    CLI::App* sub = app.add_subcommand("record", "Record a detector's live stream into HDF5 master and data files");
    sub->add_option("ADDRESS", options->address, "HOST[:PORT] of the data stream (port default 9999)")->required();
    sub->add_option("OUT", options->out,
                    "The first series' master, e.g. run_master.h5; later series: run_2_master.h5, ...")
        ->required();
    sub->add_option("--series", options->series, "Stop after N series (default: run until Ctrl-C or SIGTERM)")
        ->check(CLI::PositiveNumber);
    sub->add_flag("--arm", options->arm, "First switch the detector's stream on and arm it over REST");
    sub->add_flag("--trigger", options->trigger, "Then trigger it (with --arm)");
    sub->add_option("--rest-port", options->restPort, "The detector's REST port, for --arm and --trigger")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    sub->add_option("--images", options->images, "With --arm: the number of images to take")
        ->check(CLI::PositiveNumber);
    sub->add_option("--images-per-file", options->imagesPerFile, "Images per data file")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    sub->add_option("--timeout", options->timeout,
                    "Give up after SECONDS without a message (default: wait for ever)");
    sub->footer("Example (with 'norvexa sim --port 8080' running):\n"
                "  norvexa record 127.0.0.1:9999 live_master.h5 --series 1 --arm --trigger --rest-port 8080\n"
                "Lost images (gaps in the image numbers) are listed and give exit status 1; what came is kept.");
    sub->callback([options] { record(*options); });
}

} // namespace cli
} // namespace norvexa
