#include "DEfficiencyCorrection.h"

#include "corrections/kernels/CorrectionKernels.h"
#include "foundation/DException.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace norvexa {
namespace imglib {

namespace {
// Dead layers above the sensor, in metres.
constexpr double kDeadAl = 6e-7, kDeadSiN = 4e-7, kDeadSi = 4.5e-7;

enum Parameter { Thickness, Wavelength, CenterX, CenterY, PixelX, PixelY, Distance, ParameterCount };
constexpr double kTolerance[ParameterCount] = {1e-6, 0.001, 0.001, 0.001, 1e-9, 1e-9, 1e-6};

double at(const std::vector<double>& row, std::size_t i) { return i < row.size() ? row[i] : 0.0; }
} // namespace

class DEfficiencyCorrection::DEfficiencyCorrectionPrivate {
public:
    std::optional<DImage> factors;
    char sensorMaterial[101] = "";
    double parameters[ParameterCount] = {-1.0, -1.0, -1.0, -1.0, -1.0, -1.0, -1.0};
    std::vector<std::vector<double>> qeTable;
};

DEfficiencyCorrection::DEfficiencyCorrection() : _d(std::make_unique<DEfficiencyCorrectionPrivate>()) {}

DEfficiencyCorrection::~DEfficiencyCorrection() = default;

void DEfficiencyCorrection::_initCorrection()
{
    const DImageOptionalData& md = *optionalData();
    auto positive = [](const boost::optional<float>& v) { return v && *v > 0; };
    if (!positive(md.sensor_thickness()))
        parameterException("Invalid sensor thickness");
    if (!positive(md.wavelength()))
        parameterException("Invalid wavelength");
    if (!md.beam_center_x())
        parameterException("Invalid beam center in x");
    if (!md.beam_center_y())
        parameterException("Invalid beam center in y");
    if (!positive(md.x_pixel_size()))
        parameterException("Invalid pixel size in x");
    if (!positive(md.y_pixel_size()))
        parameterException("Invalid pixel size in y");
    if (!positive(md.detector_distance()))
        parameterException("Invalid detector distance");
    const boost::optional<std::string> material = md.sensor_material();
    if (!material || *material != "Si")
        parameterException("Invalid sensor material");

    const double now[ParameterCount] = {*md.sensor_thickness(), *md.wavelength(),  *md.beam_center_x(),
                                        *md.beam_center_y(),    *md.x_pixel_size(), *md.y_pixel_size(),
                                        *md.detector_distance()};
    if (initialised()) {
        bool same = *material == _d->sensorMaterial;
        for (int p = 0; p < ParameterCount && same; ++p)
            same = std::fabs(now[p] - _d->parameters[p]) < kTolerance[p];
        if (same)
            return;
    }
    for (int p = 0; p < ParameterCount; ++p)
        _d->parameters[p] = now[p];
    std::snprintf(_d->sensorMaterial, sizeof _d->sensorMaterial, "%.100s", material->c_str());

    if (readAttenuationCoefficients() < 1)
        parameterException("Could not read attenuation coefficients");

    const DImage& m = *mask();
    _d->factors.reset();
    _d->factors.emplace(m.width(), m.height(), 1.0);

    const double muSi = attenuationCoefficient(now[Wavelength], si());
    const double muAl = attenuationCoefficient(now[Wavelength], al());
    const double muSiN = attenuationCoefficient(now[Wavelength], siN());
    kernels::EfficiencyModel model;
    model.beamCenterX = now[CenterX];
    model.beamCenterY = now[CenterY];
    model.pixelSizeX = now[PixelX];
    model.pixelSizeY = now[PixelY];
    model.distance = now[Distance];
    model.sensor = now[Thickness] * muSi;
    model.dead = muAl * kDeadAl + muSiN * kDeadSiN + muSi * kDeadSi;
    kernels::efficiencyFactors(m, model, *_d->factors);
}

void DEfficiencyCorrection::_correctImage(DImage& image)
{
    const boost::optional<bool> applied = optionalData()->efficiency_correction_applied();
    if (applied && *applied) {
        std::printf("Efficiency correction already applied\n");
        return;
    }
    if (_d->factors)
        image *= *_d->factors;
}

void DEfficiencyCorrection::_readQETable(const char* path)
{
    std::ifstream in(path);
    if (!in)
        throw DNoFileAccessException(std::string("Error accessing ") + path);
    auto& table = _d->qeTable;
    table.clear();
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::vector<double> row;
        if (table.empty()) {
            std::string word;
            fields >> word;
            row.push_back(0.0);
        }
        float value;
        while (fields >> value)
            row.push_back(value);
        if (!table.empty() && row.size() != table.front().size()) {
            // Made and dropped on purpose: rows of another length are accepted as they are.
            (void)DUnknownFormatException("DEfficiencyCorrection: Invalid File Format");
        }
        table.push_back(std::move(row));
    }
}

double DEfficiencyCorrection::_qe(double wavelength, double angle) const
{
    const auto& t = _d->qeTable;
    double q = 0.0;
    if (t.size() >= 3 && t.front().size() >= 3) {
        const double e = 1.0 / (wavelength * _angstromToKev);
        const double a = angle * 57.29579143313326;
        std::size_t i = 2;
        while (i < t.size() - 1 && !(at(t[i], 0) > e))
            ++i;
        const std::vector<double>& angles = t.front();
        std::size_t j = 1;
        while (j < angles.size() - 1 && !(angles[j] > a))
            ++j;
        const double fe = (e - at(t[i - 1], 0)) / (at(t[i], 0) - at(t[i - 1], 0));
        const double lo = at(t[i - 1], j - 1) + fe * (at(t[i], j - 1) - at(t[i - 1], j - 1));
        const double hi = at(t[i - 1], j) + fe * (at(t[i], j) - at(t[i - 1], j));
        q = lo + (a - angles[j - 1]) / (angles[j] - angles[j - 1]) * (hi - lo);
    }
    if (q > 1.0)
        return 1.0;
    if (!(q > 0.0))
        return 1e-6;
    return q;
}

} // namespace imglib
} // namespace norvexa
