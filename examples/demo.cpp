// A tour of the image core on a frame of real detector size: build a frame, read and
// write pixels, convert it, correct it with a factor image, compress it as a detector
// streams it and decode it again, and take its digest; then describe the frame with
// metadata: the detector's module layout, its mask, and a few items of the exposure;
// then write it as CBF and TIFF, read sample files of each format, and walk a numbered
// series of files; write a series as an HDF5 master with data files, stored as the
// detector's compressed chunks, and read it back; last, draw the frame in colour with its
// colour bar as a PNG. Files go to "demo-files/" in the working directory.

#include "DDetector.h"
#include "DemoDetector.h"
#include "DemoIpc.h"
#include "DemoCorrections.h"
#include "DemoLive.h"
#include "DemoPicture.h"
#include "DiffractionFrame.h"
#include "DFileSeriesIterator.h"
#include "DGlobal.h"
#include "DHdf5Writer.h"
#include "DImage.h"
#include "DImageSeries.h"
#include "DImageWriter.h"
#include "DMd5.h"
#include "foundation/DException.h"

#include <filesystem>

#include <chrono>
#include <cstring>
#include <iomanip>
#include <iostream>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

constexpr int kWidth = 2463, kHeight = 2527;

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

long long totalCounts(const DImage& frame)
{
    long long total = 0;
    for (int y = 0; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x) {
            const int v = frame.pixel<int>(x, y, 0);
            total += v > 0 ? v : 0;
        }
    return total;
}

void describeWithMetadata(DImage& frame)
{
    // Two pixels that the detector reports as defective.
    frame.setPixel<int>(1000, 1000, -2);
    frame.setPixel<int>(5, 7, -2);

    std::cout << "\nMetadata\n";
    std::cout << "  the size " << frame.width() << " x " << frame.height() << " is "
              << (DDetector::isBrennik(frame) ? "a Brennik" : DDetector::isOrvik(frame) ? "an Orvik" : "no known")
              << " detector's\n";
    auto& metadata = frame.optionalData();
    metadata.set_modules(DDetector::modules(frame.width(), frame.height()));
    auto start = std::chrono::steady_clock::now();
    const DImage mask = DDetector::mask(frame);
    const double maskMs = millisecondsSince(start);
    metadata.set_pixel_mask(mask);
    metadata.set_count_time(0.1f);
    metadata.set_wavelength(0.9762f);
    metadata.set_threshold_energy(6000.0f);
    metadata.set_detector_number(std::string("E-32-0101"));

    const auto modules = metadata.modules();
    std::cout << "  " << (modules ? modules->size() : 0) << " modules";
    if (modules && !modules->empty()) {
        const auto& last = modules->back();
        std::cout << "; the last, number " << last.moduleNumber() << ", at (" << last.geometry().left()
                  << ", " << last.geometry().top() << ") of " << last.geometry().width() << " x "
                  << last.geometry().height() << " with " << last.numberOfChips() << " chips";
    }
    std::cout << "\n";
    std::size_t gaps = 0, defective = 0;
    const unsigned int* m = reinterpret_cast<const unsigned int*>(metadata.pixel_mask()->cdata());
    for (std::size_t i = 0; i < mask.size(); ++i) {
        gaps += m[i] == 1;
        defective += m[i] == 2;
    }
    std::cout << "  mask made in " << maskMs << " ms: " << gaps << " gap pixels, " << defective
              << " defective pixels\n";
    std::cout << "  count_time " << *metadata.count_time() << " s, wavelength " << std::setprecision(4)
              << *metadata.wavelength() << " A, threshold " << std::setprecision(0)
              << *metadata.threshold_energy() << " eV, detector " << *metadata.detector_number() << "\n";
    std::cout << "  the tree holds " << metadata.neXus().size() << " nodes\n";
    std::cout << std::setprecision(1) << "  a float copy keeps the metadata: count_time "
              << *frame.asType<float>().optionalData().count_time() << " s; a sum of two frames has "
              << ((frame + frame).optionalData().count_time() ? "some" : "none") << "\n";
}

void printMetadata(const std::string& title, const DImage& image)
{
    const auto& m = image.optionalData();
    std::cout << "  " << title << ": " << image.width() << " x " << image.height() << " "
              << datatypes::typeStr(image.type()) << " " << image.typeBits();
    if (const auto description = m.description())
        std::cout << ", detector \"" << *description << "\"";
    if (const auto t = m.count_time())
        std::cout << ", count_time " << *t << " s";
    if (const auto w = m.wavelength())
        std::cout << ", wavelength " << *w << " A";
    if (const auto d = m.data_collection_date())
        std::cout << ", taken " << *d;
    const auto modules = m.modules();
    std::cout << ", " << (modules ? modules->size() : 0) << " modules, mask "
              << (m.pixelMaskSize() ? "present" : "absent") << "\n";
}

void filesAndSeries(const DImage& frame, const char* dataDirectory)
{
    namespace fs = std::filesystem;
    const fs::path out = "demo-files";
    fs::create_directories(out);
    std::cout << "\nFiles (in " << fs::absolute(out).string() << ")\n" << std::setprecision(4);

    const std::string cbf = (out / "frame.cbf").string(), tif = (out / "frame.tif").string();
    auto start = std::chrono::steady_clock::now();
    DImageWriter::write(frame, cbf, DImageWriter::CBF);
    std::cout << "  wrote " << cbf << " (" << fs::file_size(cbf) << " bytes) in " << std::setprecision(3)
              << millisecondsSince(start) << " ms\n";
    DImage fromCbf;
    start = std::chrono::steady_clock::now();
    readImage(fromCbf, cbf.c_str(), 0);
    std::cout << "  read it back in " << millisecondsSince(start) << " ms\n";
    printMetadata("frame.cbf", fromCbf);

    DImageWriter::write(fromCbf, tif, DImageWriter::TIF);
    DImage fromTif;
    readImage(fromTif, tif.c_str(), 0);
    const bool same = std::memcmp(fromTif.cdata(), fromCbf.cdata(), fromCbf.size() * 4) == 0;
    std::cout << "  converted CBF to TIFF and read it: pixels " << (same ? "identical" : "DIFFERENT") << "\n";
    printMetadata("frame.tif", fromTif);

    for (const char* sample : {"cbf/fabio_module.cbf", "cbf/cbflib_module.cbf", "tiff/f32_97x103.tif", "edf/i32_97x103.edf"}) {
        const std::string path = std::string(dataDirectory) + "/" + sample;
        try {
            DImage image;
            readImage(image, path.c_str(), 0);
            printMetadata(sample, image);
        } catch (const DException& e) {
            std::cout << "  " << sample << ": " << e.what() << "\n";
        }
    }

    // A numbered series, found by probing, walked frame by frame.
    for (int i = 1; i <= 5; ++i) {
        DImage shot = frame;
        shot *= 1.0 + 0.1 * i;
        shot.optionalData().set_count_time(0.1f * static_cast<float>(i));
        char name[64];
        std::snprintf(name, sizeof name, "series_%05d.cbf", i);
        DImageWriter::write(shot, (out / name).string(), DImageWriter::CBF);
    }
    DFileSeriesIterator series((out / "series_00003.cbf").string(), 10);
    std::cout << "  series " << series.pathToFront() << ": images " << series.first() << " to " << series.last() << "\n";
    for (int i = series.first(); i <= series.last(); ++i) {
        const DImage image = series[i];
        std::cout << "    #" << i << " (index " << image.optionalData().neXusIndex() << "): count_time "
                  << *image.optionalData().count_time() << " s, total counts " << totalCounts(image) << "\n";
    }
}

// A series as a detector writes it: bitshuffle/LZ4 chunks stored as they stand in data
// files of two frames each, behind a master file with the header; then read back.
void hdf5Series(const DImage& frame)
{
    namespace fs = std::filesystem;
    const fs::path out = fs::path("demo-files") / "hdf5";
    fs::remove_all(out);
    fs::create_directories(out);
    std::vector<DImage> written;
    auto start = std::chrono::steady_clock::now();
    {
        DHdf5Writer writer((out / "run.h5").string(), 2, frame.optionalData().neXus(),
                           image::DCompression::FILTER_BS32_LZ4);
        for (int i = 1; i <= 5; ++i) {
            DImage shot = frame.asType<unsigned int>();
            shot *= 1.0 + 0.1 * i;
            DBasicImage chunk = shot.imageData();
            chunk.setFilter(image::DCompression::FILTER_BS32_LZ4, 0);
            writer.write(chunk);
            written.push_back(std::move(shot));
        }
    }
    std::cout << "\nHDF5 (in " << fs::absolute(out).string() << ")\n  wrote 5 frames in "
              << millisecondsSince(start) << " ms:";
    for (const auto& entry : fs::directory_iterator(out))
        std::cout << " " << entry.path().filename().string();
    std::cout << "\n";

    DImageSeries series((out / "run_master.h5").string());
    const nexus::DNeXusTree header = series.neXus();
    std::size_t datasets = 0;
    for (const auto* node : header.root().children(true))
        datasets += node->type() == nexus::NeXusData;
    std::cout << "  opened " << series.pathToImage(1) << ": images " << series.first() << " to "
              << series.last() << ", a header of " << datasets << " datasets\n";
    printMetadata("header", series.front());
    for (int i = series.first(); i <= series.last(); ++i) {
        const DImage image = series[static_cast<unsigned long>(i)];
        const DImage& original = written[static_cast<std::size_t>(i - 1)];
        const bool same = std::memcmp(image.cdata(), original.cdata(), original.size() * 4) == 0;
        std::cout << "    #" << i << ": " << image.optionalData().imageDescription().value_or("")
                  << ", count_time " << image.optionalData().count_time().value_or(0.0f)
                  << " s, total counts " << totalCounts(image) << ", pixels "
                  << (same ? "identical" : "DIFFERENT") << "\n";
    }
}

} // namespace

int main(int argc, char** argv)
{
    // The demo's own second process, started by the inter-process part below.
    if (argc == 3 && std::strcmp(argv[1], norvexa_demo::kQueuePeerOption) == 0)
        return norvexa_demo::queuePeer(argv[2]);

    std::cout << "norvexa image library " << version() << "\n\n";

    auto start = std::chrono::steady_clock::now();
    DImage frame = norvexa::demo::diffractionFrame(kWidth, kHeight, 7);
    std::cout << "Built a " << frame.width() << " x " << frame.height() << " frame of "
              << datatypes::typeStr(frame.type()) << " " << frame.typeBits() << " ("
              << frame.size() * frame.dataSize() / 1e6 << " MB) in " << std::fixed
              << std::setprecision(1) << millisecondsSince(start) << " ms\n";
    std::cout << "  pixel (100, 100) = " << frame.pixel<int>(100, 100, 0)
              << ", gap pixel (490, 10) = " << frame.pixel<int>(490, 10, 0)
              << ", outside (-1, 0) gives the default " << frame.pixel<int>(-1, 0, 42) << "\n";
    std::cout << "  total counts: " << totalCounts(frame) << "\n";

    start = std::chrono::steady_clock::now();
    const DImage asFloat = frame.asType<float>();
    std::cout << "Converted to " << datatypes::typeStr(asFloat.type()) << " " << asFloat.typeBits()
              << " in " << millisecondsSince(start) << " ms\n";

    DImage flatfield(kWidth, kHeight, 1.0);
    double* f = reinterpret_cast<double*>(flatfield.data());
    for (std::size_t i = 0; i < flatfield.size(); ++i)
        f[i] = 0.97 + 0.06 * static_cast<double>(i % 101) / 100.0;
    DImage corrected = frame;
    start = std::chrono::steady_clock::now();
    corrected *= flatfield;
    std::cout << "Multiplied in place by a flat-field image of doubles in "
              << millisecondsSince(start) << " ms: still " << datatypes::typeStr(corrected.type())
              << " " << corrected.typeBits() << ", gaps still " << corrected.pixel<int>(490, 10, 0)
              << ", total counts " << totalCounts(corrected) << "\n";
    const DImage difference = corrected - frame;
    std::cout << "  corrected - raw at (100, 100): " << difference.pixel<int>(100, 100, 0) << "\n";

    // As a detector streams it: bitshuffled and LZ4-compressed unsigned 32-bit pixels.
    DBasicImage chunk = frame.asType<unsigned int>().imageData();
    chunk.setFilter(image::DCompression::FILTER_BS32_LZ4, 0);
    std::cout << "Compressed as a bitshuffle/LZ4 chunk: " << chunk.usedBytes() << " bytes for "
              << chunk.size() << " pixels (ratio " << std::setprecision(1)
              << static_cast<double>(chunk.size() * 4) / static_cast<double>(chunk.usedBytes()) << ")\n";
    start = std::chrono::steady_clock::now();
    const DImage decoded(std::move(chunk));
    const double decodeMs = millisecondsSince(start);
    const DImage original = frame.asType<unsigned int>();
    const bool equal = std::memcmp(decoded.cdata(), original.cdata(), original.size() * 4) == 0;
    std::cout << "  decoded on entry into a DImage in " << decodeMs << " ms: pixels "
              << (equal ? "identical" : "DIFFERENT") << "\n";

    DMd5 md5;
    start = std::chrono::steady_clock::now();
    md5.hash(reinterpret_cast<const unsigned char*>(frame.cdata()), frame.size() * frame.dataSize());
    std::cout << "MD5 of the frame's bytes: " << md5.toHex() << " (Base64 " << md5.toBase64()
              << ") in " << millisecondsSince(start) << " ms\n";

    describeWithMetadata(frame);
    filesAndSeries(frame, argc > 1 ? argv[1] : NORVEXA_DATA_DIR);
    hdf5Series(frame);
    const DImage correctedFrame = norvexa_demo::demoCorrections(frame);
    std::cout << "  the corrected frame in colour: limits "
              << norvexa_demo::writeDemoPicture(correctedFrame, "demo-files/corrected.png")
              << ", demo-files/corrected.png\n";
    norvexa_demo::pictureOfFile("demo-files/frame.cbf", "demo-files/frame.png");
    norvexa_demo::driveSimulatedDetector("demo-files/detector");
    norvexa_demo::demoIpc(frame, argv[0]);
    norvexa_demo::followLiveSeries("demo-files");
    return equal ? 0 : 1;
}
