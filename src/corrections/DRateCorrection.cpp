#include "DRateCorrection.h"

#include "corrections/kernels/CorrectionKernels.h"
#include "foundation/DException.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace norvexa {
namespace imglib {

namespace {
const char* const kFileFormat = "ratecorr_vrf_m0p%03d_thr_0p%03d.%3s";
const char* const kRetriggerFileFormat = "ratecorr_vrf_m0p%03d_thr_0p%03d_retrigger.%3s";
constexpr int kMaxSimulationRows = 10000;
constexpr int kMaxGridValues = 100;
constexpr long long kMaxStoredTable = 1LL << 27;
constexpr double kSlopeLimit = 0.2;

// Saturating, so that a file of absurd rates can't make the conversion undefined.
int toInt(double v)
{
    if (!(v == v))
        return 0;
    return static_cast<int>(std::clamp(v, static_cast<double>(INT_MIN), static_cast<double>(INT_MAX)));
}

// The directory is used as a printf format of itself; only "%%" means something defined
// there, so that is the one sequence translated, and the copy is cut to the field.
void copyDirectory(char (&out)[sizeof(rateCorrParams::directory)], const std::string& directory)
{
    std::size_t o = 0;
    for (std::size_t i = 0; i < directory.size() && o + 1 < sizeof out; ++i, ++o) {
        out[o] = directory[i];
        if (directory[i] == '%' && i + 1 < directory.size() && directory[i + 1] == '%')
            ++i;
    }
    out[o] = '\0';
}

// Linear in the rows (k, k + 1) from measured to true rate, k never going back; entries
// above the cutoff repeat the one before.
void fillTable(const double (*rates)[2], int rows, double cutoff, double countTime, int* table, long long size)
{
    int k = 0;
    for (long long i = 0; i < size; ++i) {
        const double rate = static_cast<double>(i) / countTime;
        if (rate > cutoff) {
            table[i] = i == 0 ? 0 : table[i - 1];
            continue;
        }
        while (k < rows - 2 && rate >= rates[k + 1][1])
            ++k;
        const double m0 = rates[k][1], m1 = rates[k + 1][1], t0 = rates[k][0], t1 = rates[k + 1][0];
        const double t = m1 != m0 ? t0 + (rate - m0) * (t1 - t0) / (m1 - m0) : t0;
        table[i] = toInt(std::rint(t * countTime));
    }
}

bool sameGeometry(DImageModule a, const DImageModule& b)
{
    // The stored modules carry their tables; the metadata's don't, so tables aren't compared.
    a.set_countrate_correction_lookup_table(b.countrate_correction_lookup_table());
    return a == b;
}
} // namespace

class DRateCorrection::DRateCorrectionPrivate {
public:
    float countTime = -1.0f;
    float wavelength = -1.0f;
    float thresholdEnergy = -1.0f;
    float thresholdRatio = -1.0f;
    int bitDepth = 1;
    int modeRegister = 1;
    std::string directory;
    std::vector<DImageModule> modules;
    long long tableSize = 0;
    bool recompute = false;
};

DRateCorrection::DRateCorrection() : _d(std::make_unique<DRateCorrectionPrivate>()) {}

DRateCorrection::~DRateCorrection() = default;

void DRateCorrection::recomputeLookupTable(bool value)
{
    if (value == _d->recompute)
        return;
    _d->recompute = value;
    setInitialised(false);
}

void DRateCorrection::_initCorrection()
{
    if (!_d->recompute)
        return;
    DImageOptionalData& md = *optionalData();
    const auto countTime = md.count_time();
    if (!countTime || !(*countTime > 0))
        parameterException("Invalid count time");
    const auto bitDepth = md.bit_depth_readout();
    if (!bitDepth || !(*bitDepth > 0))
        parameterException("Invalid bit depth readout");
    const auto threshold = md.threshold_energy();
    if (!threshold || !(*threshold > 0))
        parameterException("Invalid threshold energy");
    const auto wavelength = md.wavelength();
    if (!wavelength || !(*wavelength > 0))
        parameterException("Invalid wavelength");
    const auto modeRegister = md.mode_register();
    if (!modeRegister)
        parameterException("Invalid mode register");
    const auto bunchMode = md.countrate_correction_bunch_mode();
    if (!bunchMode)
        parameterException("Invalid bunch mode");
    auto modules = md.modules();
    if (!modules)
        parameterException("Invalid module data");
    for (const auto& module : *modules)
        if (!(module.vrf() < 0))
            parameterException("Invalid Vrf value");

    const std::string directory = bunchMode->substr(0, 1000);
    if (initialised()) {
        bool same = std::fabs(*countTime - _d->countTime) < 1e-6 && *bitDepth == _d->bitDepth &&
                    *modeRegister == _d->modeRegister && std::fabs(*wavelength - _d->wavelength) < 0.001 &&
                    std::fabs(*threshold - _d->thresholdEnergy) < 0.001 && directory == _d->directory &&
                    modules->size() == _d->modules.size();
        for (std::size_t m = 0; same && m < modules->size(); ++m)
            same = sameGeometry(_d->modules[m], (*modules)[m]);
        if (same)
            return;
    }

    const float ratio = static_cast<float>(*wavelength * (*threshold * 0.001) * _angstromToKev);
    rateCorrParams params{};
    copyDirectory(params.directory, directory);
    params.countTime = *countTime;
    params.slopeLimit = kSlopeLimit;
    params.thresholdRatio = ratio;
    params.retrigger = *modeRegister & 1;
    const long long tableSize = *bitDepth >= 63 ? LLONG_MAX : 1LL << *bitDepth;

    // Built aside and stored only when every module has its table.
    std::vector<std::array<double, 2>> rates(kMaxSimulationRows);
    auto* rateRows = reinterpret_cast<double(*)[2]>(rates.data());
    int saturation = 1;
    for (std::size_t m = 0; m < modules->size(); ++m) {
        DImageModule& module = (*modules)[m];
        params.Vrf = module.vrf();
        if (m == 0)
            std::printf("Reading LUT from\n %s\nfor Vrf %e and Thr/E %e\n", params.directory, params.Vrf,
                        params.thresholdRatio);
        const int rows = interpolateLUTFromSimulation(params, rateRows, kMaxSimulationRows);
        const double cutoff = rows < 2 ? -1.0 : determineCutoff(rateRows, rows, params.slopeLimit);
        if (!(cutoff >= 0))
            parameterException("Could not read LUT for count rate correction");
        const double stored = std::min(static_cast<double>(tableSize), std::floor(cutoff * params.countTime) + 3);
        if (stored > static_cast<double>(kMaxStoredTable))
            throw DBadParameterException("Count-rate table too long for the count time");
        std::vector<int> table(static_cast<std::size_t>(stored));
        fillTable(rateRows, rows, cutoff, params.countTime, table.data(), static_cast<long long>(table.size()));
        int running = 1;
        const double perCount = 1.0 / params.countTime;
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (static_cast<double>(i) * perCount > cutoff)
                table[i] = running;
            running = std::max(running, table[i]);
        }
        saturation = std::max(saturation, running);
        module.set_countrate_correction_lookup_table(std::move(table));
        module.setOptionalData(static_cast<const DImageOptionalData*>(nullptr));
    }

    _d->countTime = *countTime;
    _d->bitDepth = *bitDepth;
    _d->modeRegister = *modeRegister;
    _d->wavelength = *wavelength;
    _d->thresholdEnergy = *threshold;
    _d->thresholdRatio = ratio;
    _d->directory = directory;
    _d->modules = std::move(*modules);
    _d->tableSize = tableSize;
    md.set_saturation_value(saturation);
}

void DRateCorrection::_correctImage(DImage& image)
{
    if (image.type() == datatypes::INT || image.type() == datatypes::UINT)
        _applyCorrection(image);
}

void DRateCorrection::_applyCorrection(DImage& image)
{
    const DImageOptionalData& md = optionalData() ? *optionalData() : image.optionalData();
    const boost::optional<bool> applied = md.countrate_correction_applied();
    if (applied && *applied) {
        std::printf("Countrate correction already applied\n");
        return;
    }
    if (_d->modules.empty())
        return;
    if (mask()) {
        kernels::applyRateTables(image, *mask(), _d->modules, _d->tableSize);
    } else {
        const DImage none(image.width(), image.height(), static_cast<unsigned char>(0));
        kernels::applyRateTables(image, none, _d->modules, _d->tableSize);
    }
}

double DRateCorrection::createLUTFromSimulation(rateCorrParams params, int* table, int size)
{
    std::vector<std::array<double, 2>> rates(kMaxSimulationRows);
    auto* rateRows = reinterpret_cast<double(*)[2]>(rates.data());
    const int rows = interpolateLUTFromSimulation(params, rateRows, kMaxSimulationRows);
    if (rows < 2)
        return -1.0;
    const double cutoff = determineCutoff(rateRows, rows, params.slopeLimit);
    fillTable(rateRows, rows, cutoff, params.countTime, table, size);
    return cutoff;
}

int DRateCorrection::interpolateLUTFromSimulation(rateCorrParams params, double (*rates)[2], int maxRows)
{
    params.directory[sizeof params.directory - 1] = '\0';
    const int vrf = toInt(std::rint(1000 * params.Vrf));
    const int thr = toInt(std::rint(1000 * params.thresholdRatio));
    const char* format = params.retrigger ? kRetriggerFileFormat : kFileFormat;

    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(params.directory), closedir);
    if (!dir) {
        std::printf("Cannot open directory\n %s to read LUT\n", params.directory);
        return -1;
    }
    std::vector<int> vrfs, thrs;
    while (const dirent* entry = readdir(dir.get())) {
        int v = 0, t = 0;
        char extension[4] = "";
        if (std::sscanf(entry->d_name, format, &v, &t, extension) != 3 || std::strcmp(extension, "dat") != 0)
            continue;
        if (std::find(vrfs.begin(), vrfs.end(), -v) == vrfs.end() && vrfs.size() < kMaxGridValues)
            vrfs.push_back(-v);
        if (std::find(thrs.begin(), thrs.end(), t) == thrs.end() && thrs.size() < kMaxGridValues)
            thrs.push_back(t);
    }
    dir.reset();
    if (vrfs.size() < 2 || thrs.size() < 2) {
        std::printf("Did not find suitable LUTs for rate correction in\n %s\n", params.directory);
        return -1;
    }
    std::sort(vrfs.begin(), vrfs.end());
    std::sort(thrs.begin(), thrs.end());
    // Outside the grid the nearest end interval holds, and the values extrapolate.
    auto interval = [](const std::vector<int>& list, int value) {
        std::size_t i = 0;
        while (i < list.size() - 2 && value >= list[i + 1])
            ++i;
        return i;
    };
    const std::size_t iv = interval(vrfs, vrf), it = interval(thrs, thr);
    const int vLow = vrfs[iv], vHigh = vrfs[iv + 1], tLow = thrs[it], tHigh = thrs[it + 1];

    std::vector<std::array<std::array<double, 4>, 2>> columns(static_cast<std::size_t>(std::max(maxRows, 0)));
    auto* columnRows = reinterpret_cast<double(*)[2][4]>(columns.data());
    const int corners[4][2] = {{vLow, tLow}, {vLow, tHigh}, {vHigh, tLow}, {vHigh, tHigh}};
    int rows = maxRows;
    for (int c = 0; c < 4; ++c) {
        char name[128];
        std::snprintf(name, sizeof name, format, -corners[c][0], corners[c][1], "dat");
        rows = std::min(rows, ratecorrReadLut(params.directory, name, columnRows, c, maxRows));
    }
    if (rows < 0)
        return -1;
    const double fv = static_cast<double>(vrf - vLow) / (vHigh - vLow);
    const double ft = static_cast<double>(thr - tLow) / (tHigh - tLow);
    for (int r = 0; r < rows; ++r) {
        const double* t = columnRows[r][0];
        const double* m = columnRows[r][1];
        if (t[0] != t[1] || t[0] != t[2] || t[0] != t[3])
            return r;
        const double atLow = m[0] + fv * (m[2] - m[0]);
        const double atHigh = m[1] + fv * (m[3] - m[1]);
        rates[r][0] = t[0];
        rates[r][1] = atLow + ft * (atHigh - atLow);
    }
    return rows;
}

int DRateCorrection::ratecorrReadLut(const char* directory, const char* file, double (*rows)[2][4], int column,
                                     int maxRows)
{
    if (column < 0 || column > 3)
        return -1;
    const std::string path = std::string(directory) + '/' + file;
    std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(path.c_str(), "r"), std::fclose);
    if (!in) {
        std::printf("Cannot open file %s to read LUT\n", path.c_str());
        return -1;
    }
    char line[1001];
    int r = 0;
    while (r < maxRows && std::fgets(line, sizeof line, in.get())) {
        float t, m;
        if (std::sscanf(line, "%e %e", &t, &m) == 2) {
            rows[r][0][column] = t;
            rows[r][1][column] = m;
            ++r;
        }
    }
    return r;
}

double DRateCorrection::determineCutoff(double (*rates)[2], int rows, double slopeLimit)
{
    if (rows < 1)
        return -1.0;
    double cutoff = -1.0;
    for (int k = 2; k < rows - 2; ++k) {
        double sx = 0, sy = 0, sxy = 0, sxx = 0;
        for (int w = k - 2; w <= k + 2; ++w) {
            sx += rates[w][0];
            sy += rates[w][1];
            sxy += rates[w][0] * rates[w][1];
            sxx += rates[w][0] * rates[w][0];
        }
        const double mx = 0.2 * sx, my = 0.2 * sy;
        const double denominator = 0.2 * sxx - mx * mx;
        const double slope = denominator == 0.0 ? 1.0 : (0.2 * sxy - mx * my) / denominator;
        if (slope < slopeLimit) {
            cutoff = rates[k][1];
            break;
        }
    }
    if (cutoff == -1.0)
        cutoff = rates[rows - 1][1];
    return cutoff;
}

int DRateCorrection::_pow(int base, int exponent)
{
    unsigned result = 1;
    for (int i = 0; i < exponent; ++i)
        result *= static_cast<unsigned>(base);
    return static_cast<int>(result);
}

} // namespace imglib
} // namespace norvexa
