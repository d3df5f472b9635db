// norvexa convert IN OUT: a series into numbered CBF or TIFF files, or into an HDF5
// master with data files. The output appears under its final names only when complete.

#include "CliSupport.h"
#include "Commands.h"
#include "Inputs.h"

#include "DHdf5Writer.h"
#include "DImage.h"
#include "DImageSeries.h"
#include "DImageWriter.h"
#include "foundation/image/DCompression.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

namespace norvexa {
namespace cli {

using namespace imglib;
namespace fs = std::filesystem;
using image::DCompression;

namespace {

struct ConvertOptions {
    std::string in, out, range, compression;
    int imagesPerFile = 100;
};

/// The file name for image `number` from a pattern whose last run of '#' is the number,
/// zero-padded to the run's width (wider numbers are written whole).
std::string numberedName(const std::string& pattern, long number)
{
    const auto end = pattern.find_last_of('#');
    if (end == std::string::npos)
        return pattern;
    const auto begin = pattern.find_last_not_of('#', end);
    const std::size_t start = begin == std::string::npos ? 0 : begin + 1;
    std::string digits = std::to_string(number);
    if (digits.size() < end + 1 - start)
        digits.insert(0, end + 1 - start - digits.size(), '0');
    return pattern.substr(0, start) + digits + pattern.substr(end + 1);
}

/// The library's file writer does not report a write that failed after the file was
/// opened (a full disk): the file is short then. A CBF must hold its binary block in
/// full, a TIFF its 4096-byte header and the pixels.
void checkComplete(const fs::path& file, const DImage& frame, DImageWriter::Format format, const std::string& finalName)
{
    std::error_code error;
    const auto size = fs::file_size(file, error);
    if (error)
        throw failure(finalName, error.message());
    std::uintmax_t needed = 0;
    if (format == DImageWriter::CBF) {
        std::ifstream in(file, std::ios::binary);
        std::string head(65536, '\0');
        in.read(head.data(), static_cast<std::streamsize>(head.size()));
        head.resize(static_cast<std::size_t>(in.gcount()));
        const auto binary = head.find("\x0c\x1a\x04\xd5");
        const auto sizeAt = head.find("X-Binary-Size:");
        if (binary == std::string::npos || sizeAt == std::string::npos)
            throw failure(finalName, "Write failed (the file is incomplete; is the disk full?)");
        needed = binary + 4 + std::stoull(head.substr(sizeAt + 14, 24));
    } else {
        needed = 4096 + frame.size() * 4;
    }
    if (size < needed)
        throw failure(finalName, "Write failed (the file is incomplete; is the disk full?)");
}

/// The CBF writer leaves out the lines of pixel size, flux and polarisation, which the
/// reader (and a processing program) takes from a detector's own CBF: they go into the raw
/// header, whose unknown lines the writer keeps.
void addMissingCbfLines(DImage& frame)
{
    DImageOptionalData& data = frame.optionalData();
    const std::string raw = data.rawHeader().value_or("");
    std::string lines;
    const auto add = [&](const char* keyword, const std::string& text) {
        if (raw.find(std::string("# ") + keyword) == std::string::npos)
            lines += std::string("# ") + keyword + " " + text + "\r\n";
    };
    if (const auto x = data.x_pixel_size())
        add("Pixel_size", number(*x, 7) + " m x " + number(data.y_pixel_size().value_or(*x), 7) + " m");
    if (const auto flux = data.beam_flux())
        add("Flux", number(*flux, 7) + " ph/s");
    if (const auto polarisation = data.polarisation())
        add("Polarization", number(*polarisation, 7));
    if (!lines.empty())
        data.setRawHeader(lines + raw);
}

void toFiles(const DImageSeries& series, const ConvertOptions& o, long first, long last, DImageWriter::Format format)
{
    const fs::path target(o.out);
    const std::string pattern = target.filename().string();
    if (pattern.find('#') == std::string::npos && first != last)
        throw usageError(o.out + ": a series needs a run of '#' for the number, e.g. run_#####.cbf");
    StagedFiles staged(target);
    ProgressLine progress("convert", last - first + 1);
    for (long i = first; i <= last; ++i) {
        if (stopRequested())
            throw failure(o.out, "Interrupted; nothing written");
        DImage frame = readFrame(series, o.in, i);
        if (format == DImageWriter::CBF)
            addMissingCbfLines(frame);
        const std::string name = numberedName(pattern, i);
        const fs::path file = staged.staged(name);
        try {
            DImageWriter::write(frame, file.string(), format);
        } catch (const std::exception& e) {
            throw failure((target.parent_path() / name).string(), e.what());
        }
        checkComplete(file, frame, format, (target.parent_path() / name).string());
        progress.update(i - first + 1);
    }
    progress.done();
    const auto written = staged.commit();
    std::cout << "wrote " << written.size() << " file" << (written.size() == 1 ? "" : "s") << ": "
              << written.front().string() << (written.size() > 1 ? " .. " + written.back().string() : "")
              << "\n";
}

DCompression::FILTER filterOf(const std::string& name, const image::DBasicImage<image::StdAllocator>& firstImage)
{
    if (name == "none")
        return DCompression::FILTER_NONE;
    if (name == "lz4")
        return DCompression::FILTER_LZ4;
    if (name == "bslz4")
        return firstImage.typeBits() == 16 ? DCompression::FILTER_BS16_LZ4 : DCompression::FILTER_BS32_LZ4;
    // Not asked: an HDF5 input keeps its own filter, so its chunks copy as they stand.
    if (firstImage.filter() != DCompression::FILTER_NONE)
        return firstImage.filter();
    return firstImage.typeBits() == 16 ? DCompression::FILTER_BS16_LZ4 : DCompression::FILTER_BS32_LZ4;
}

void toHdf5(const DImageSeries& series, const ConvertOptions& o, long first, long last)
{
    const fs::path target(o.out);
    StagedFiles staged(target);
    const bool fromHdf5 = isHdf5Path(o.in);
    DHdf5Writer writer;
    // Failures while reading name the input, while writing the output.
    const auto reading = [&](auto step) {
        try {
            return step();
        } catch (const ExitError&) {
            throw;
        } catch (const std::exception& e) {
            throw failure(o.in, e.what());
        }
    };
    const auto writing = [&](auto step) {
        try {
            step();
        } catch (const std::exception& e) {
            throw failure(o.out, e.what());
        }
    };
    const Hdf5Names names = hdf5Names(target, o.imagesPerFile);
    const std::string master = staged.staged(names.writerName).string();
    ProgressLine progress("convert", last - first + 1);
    for (long i = first; i <= last; ++i) {
        if (stopRequested())
            throw failure(o.out, "Interrupted; nothing written");
        if (fromHdf5) {
            // The stored chunks go over undecoded where the filters agree.
            const auto stored = reading([&] { return series.storedImage(static_cast<unsigned long>(i)); });
            writing([&] {
                if (i == first)
                    writer.open(master, o.imagesPerFile, series.neXus(), filterOf(o.compression, stored.pixels));
                writer.write(stored.pixels);
            });
        } else {
            const DImage frame = readFrame(series, o.in, i);
            writing([&] {
                if (i == first)
                    writer.open(master, o.imagesPerFile, frame.optionalData().neXus(),
                                filterOf(o.compression, frame.constImageData()));
                writer.write(frame);
            });
        }
        progress.update(i - first + 1);
    }
    writing([&] { writer.close(); });
    progress.done();
    if (names.writtenMaster != target.filename().string())
        fs::rename(staged.staged(names.writtenMaster), staged.staged(target.filename().string()));
    const auto written = staged.commit(target.filename().string());
    std::cout << "wrote " << (last - first + 1) << " images: " << written.back().string();
    if (written.size() > 1)
        std::cout << " and " << written.size() - 1 << " data file" << (written.size() > 2 ? "s" : "");
    std::cout << "\n";
}

void convert(const ConvertOptions& o)
{
    DImageWriter::Format format = DImageWriter::NONE;
    const std::string ending = fs::path(o.out).extension().string();
    if (ending == ".cbf")
        format = DImageWriter::CBF;
    else if (ending == ".tif" || ending == ".tiff")
        format = DImageWriter::TIF;
    else if (!isHdf5Path(o.out))
        throw usageError(o.out + ": unknown output format (use .cbf, .tif or .h5)");
    if (o.imagesPerFile < 0)
        throw usageError("--images-per-file must not be negative");

    installStopHandlers();
    const auto series = openSeries(o.in);
    long first = series->first(), last = series->last();
    if (!o.range.empty())
        std::tie(first, last) = parseRange(o.range, *series, o.in);
    if (format == DImageWriter::NONE)
        toHdf5(*series, o, first, last);
    else
        toFiles(*series, o, first, last, format);
}

} // namespace

void addConvertCommand(CLI::App& app)
{
    auto options = std::make_shared<ConvertOptions>();
    CLI::App* sub = app.add_subcommand("convert", "Convert a series into numbered CBF or TIFF files, or into an "
                                                  "HDF5 master with data files");
    sub->add_option("IN", options->in, "CBF, TIFF or EDF file (its numbered series), or HDF5 master")->required();
    sub->add_option("OUT", options->out,
                    "run_#####.cbf or run_#####.tif (the run of '#' is the image number's width), or run_master.h5")
        ->required();
    sub->add_option("--range", options->range, "FIRST:LAST, the image numbers to convert (default: all)");
    sub->add_option("--compression", options->compression,
                    "HDF5 output: none, lz4 or bslz4 (default: the input's own, else bslz4)")
        ->check(CLI::IsMember({"none", "lz4", "bslz4"}));
    sub->add_option("--images-per-file", options->imagesPerFile,
                    "HDF5 output: images per data file (0: one file with the images inside)")
        ->capture_default_str();
    sub->footer("Example:\n  norvexa convert run_master.h5 'cbf/run_#####.cbf' --range 1:100\n"
                "  norvexa convert run_00001.cbf run_master.h5 --compression bslz4");
    sub->callback([options] { convert(*options); });
}

} // namespace cli
} // namespace norvexa
