#include "DDataCorrection.h"

#include "foundation/DException.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

namespace norvexa {
namespace imglib {

class DDataCorrection::DDataCorrectionPrivate {
public:
    std::array<float, maxTableRows> si{}, al{}, siN{}, energy{};
    bool initialised = false;
    // Lets a caller substitute metadata; nothing in the library sets it.
    DImageOptionalData* metadataOverride = nullptr;
    DImageOptionalData* imageMetadata = nullptr;
    const DImage* mask = nullptr;
    int tableRows = 0;
};

DDataCorrection::DDataCorrection() : _d(std::make_unique<DDataCorrectionPrivate>()) {}

DDataCorrection::~DDataCorrection() = default;

void DDataCorrection::correctImage(DImage& image, const DImage& mask)
{
    // The pointers live for this call only, also when it ends in an exception.
    struct Forget {
        DDataCorrectionPrivate& d;
        ~Forget() { d.mask = nullptr, d.imageMetadata = nullptr; }
    } forget{*_d};
    _d->mask = &mask;
    _d->imageMetadata = &image.optionalData();
    _initCorrection();
    _d->initialised = true;
    _correctImage(image);
}

DImageOptionalData* DDataCorrection::optionalData() const
{
    return _d->metadataOverride ? _d->metadataOverride : _d->imageMetadata;
}

void DDataCorrection::parameterException(const char* message)
{
    throw DBadParameterException(message);
}

int DDataCorrection::readAttenuationCoefficients()
{
    return _readAttenuationCoefficients(_d->energy.data(), _d->si.data(), _d->al.data(),
                                        _d->siN.data(), maxTableRows);
}

int DDataCorrection::_readAttenuationCoefficients(float* energy, float* si, float* al, float* siN,
                                                  int maxRows)
{
    int& rows = _d->tableRows;
    rows = 0;
    // The tokenizer writes into its input, so it gets a copy of the text.
    std::vector<char> text(_attenuationFactors, _attenuationFactors + std::strlen(_attenuationFactors) + 1);
    char* state = nullptr;
    for (char* line = strtok_r(text.data(), "\n", &state); line && rows < maxRows;
         line = strtok_r(nullptr, "\n", &state)) {
        if (line[0] == '#')
            continue;
        if (std::sscanf(line, "%f %f %f %f", &energy[rows], &si[rows], &al[rows], &siN[rows]) != 4) {
            std::fprintf(stderr, "Invalid string format \n");
            return -1;
        }
        ++rows;
    }
    return rows;
}

int DDataCorrection::tableRows() const { return _d->tableRows; }
const float* DDataCorrection::energy() const { return _d->energy.data(); }
const float* DDataCorrection::si() const { return _d->si.data(); }
const float* DDataCorrection::al() const { return _d->al.data(); }
const float* DDataCorrection::siN() const { return _d->siN.data(); }

double DDataCorrection::attenuationCoefficient(double wavelength, const float* table) const
{
    const int rows = _d->tableRows;
    const float* energy = _d->energy.data();
    if (rows < 2)
        return 0.0;
    const double e = 12.39842 / wavelength;
    // Compared as float, like the table's energies, so that exactly at an edge the
    // search stops ahead of the pair and the value below the edge holds.
    const float ef = static_cast<float>(e);
    int i = 0;
    while (i <= rows - 2 && !(energy[i + 1] >= ef))
        ++i;
    if (i > rows - 2) {
        const double e0 = energy[rows - 2], e1 = energy[rows - 1];
        const double v0 = table[rows - 2], v1 = table[rows - 1];
        if (v0 <= 0.0 || v1 <= 0.0 || e0 <= 0.0 || !(e1 > e0))
            return v1 * 1000.0;
        const double exponent = std::log(v1 / v0) / std::log(e1 / e0);
        return v1 * std::pow(e / e1, exponent) * 1000.0;
    }
    const int j = i + 1;
    return (table[i] + (e - energy[i]) * (table[j] - table[i]) / (energy[j] - energy[i])) * 1000.0;
}

bool DDataCorrection::initialised() const { return _d->initialised; }
void DDataCorrection::setInitialised(bool initialised) { _d->initialised = initialised; }
const DImage* DDataCorrection::mask() const { return _d->mask; }

} // namespace imglib
} // namespace norvexa
