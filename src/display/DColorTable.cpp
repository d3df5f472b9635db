#include "DColorTable.h"

#include "foundation/DException.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace norvexa {
namespace imglib {

namespace {

constexpr unsigned int kAlpha = 0xff000000u;
constexpr unsigned int kDefectiveGreen = 0xff408000u;
constexpr unsigned int kSaturatedBlue = 0xff0000ffu;

unsigned int rgb(unsigned int red, unsigned int green, unsigned int blue)
{
    return kAlpha | (red << 16) | (green << 8) | blue;
}

std::vector<unsigned int> greyData()
{
    std::vector<unsigned int> data(256);
    for (unsigned int i = 0; i < 256; ++i)
        data[i] = rgb(255 - i, 255 - i, 255 - i);
    return data;
}

std::vector<unsigned int> heatData()
{
    std::vector<unsigned int> data(768);
    for (unsigned int i = 0; i < 768; ++i)
        data[i] = i < 256 ? rgb(i, 0, 0) : i < 512 ? rgb(255, i - 256, 0) : rgb(255, 255, i - 512);
    return data;
}

std::vector<unsigned int> rainbowData()
{
    std::vector<unsigned int> data(2801);
    for (unsigned int i = 0; i < data.size(); ++i) {
        const double h = i / 10.0;
        const double s = std::floor(h / 60);
        const double f = h / 60 - s;
        const double q = 1 - f;
        double r = 0, g = 0, b = 0;
        switch (static_cast<int>(s)) {
        case 0: r = 1, g = f, b = 0; break;
        case 1: r = q, g = 1, b = 0; break;
        case 2: r = 0, g = 1, b = f; break;
        case 3: r = 0, g = q, b = 1; break;
        default: r = f, g = 0, b = 1; break;
        }
        data[i] = rgb(static_cast<unsigned int>(r * 255), static_cast<unsigned int>(g * 255),
                      static_cast<unsigned int>(b * 255));
    }
    return data;
}

unsigned int* copyOf(int size, const unsigned int* data)
{
    if (size == 0)
        return nullptr;
    auto* copy = new unsigned int[static_cast<std::size_t>(size)];
    std::memcpy(copy, data, static_cast<std::size_t>(size) * sizeof(unsigned int));
    return copy;
}

unsigned int* reversedCopyOf(int size, const unsigned int* data)
{
    unsigned int* copy = copyOf(size, data);
    if (copy)
        std::reverse(copy, copy + size);
    return copy;
}

struct StaticTables {
    StaticTables()
    {
        const auto grey = greyData(), heat = heatData(), rainbow = rainbowData();
        const int greySize = static_cast<int>(grey.size()), heatSize = static_cast<int>(heat.size());
        hdr = DColorTable(greySize, grey.data(), heatSize, heat.data(), kDefectiveGreen,
                          kSaturatedBlue, "High Dynamic Range");
        this->grey = DColorTable(greySize, grey.data(), 0, nullptr, kDefectiveGreen,
                                 kSaturatedBlue, "Grey Scale");
        this->heat = DColorTable(heatSize, heat.data(), 0, nullptr, kDefectiveGreen,
                                 kSaturatedBlue, "Heat");
        this->rainbow = DColorTable(static_cast<int>(rainbow.size()), rainbow.data(), 0, nullptr,
                                    0xff000000u, 0xffffffffu, "Rainbow");
    }
    DColorTable hdr, grey, heat, rainbow;
};

// Built on first use, and the reference below makes that first use happen while the
// library loads: so the tables are there from the start without depending on the order
// in which other translation units initialise their statics.
const StaticTables& staticTables()
{
    static const StaticTables tables;
    return tables;
}
[[maybe_unused]] const StaticTables& builtAtLoad = staticTables();

} // namespace

DColorTable::DColorTable() = default;

DColorTable::DColorTable(int linearSize, const unsigned int* linearData, int logSize,
                         const unsigned int* logData, unsigned int defective,
                         unsigned int saturated, const std::string& identifier)
    : _defectiveColor(defective), _saturatedColor(saturated), _identifier(identifier)
{
    if (linearSize < 0 || logSize < 0 || (linearSize > 0 && !linearData) || (logSize > 0 && !logData))
        throw DBadParameterException("Colour table sizes do not match its data");
    _linData = copyOf(linearSize, linearData);
    _linDataSize = linearSize;
    try {
        _logData = copyOf(logSize, logData);
        _logDataSize = logSize;
        _newInverseTable();
    } catch (...) {
        _release();
        throw;
    }
}

DColorTable::DColorTable(const DColorTable& other)
    : _defectiveColor(other._defectiveColor), _saturatedColor(other._saturatedColor),
      _identifier(other._identifier)
{
    _linData = copyOf(other._linDataSize, other._linData);
    _linDataSize = other._linDataSize;
    try {
        _logData = copyOf(other._logDataSize, other._logData);
        _logDataSize = other._logDataSize;
        if (other._inverseTable)
            _newInverseTable();
    } catch (...) {
        _release();
        throw;
    }
}

DColorTable& DColorTable::operator=(const DColorTable& other)
{
    if (this != &other) {
        DColorTable copy(other);
        _swap(copy);
    }
    return *this;
}

DColorTable::~DColorTable() { _release(); }

void DColorTable::_release() noexcept
{
    if (!_inverse && _inverseTable) {
        // The twin must not reach back into its owner while it goes.
        _inverseTable->_inverseTable = nullptr;
        delete _inverseTable;
    }
    _inverseTable = nullptr;
    delete[] _linData;
    delete[] _logData;
    _linData = _logData = nullptr;
    _linDataSize = _logDataSize = 0;
}

void DColorTable::_swap(DColorTable& other) noexcept
{
    std::swap(_linDataSize, other._linDataSize);
    std::swap(_logDataSize, other._logDataSize);
    std::swap(_linData, other._linData);
    std::swap(_logData, other._logData);
    std::swap(_defectiveColor, other._defectiveColor);
    std::swap(_saturatedColor, other._saturatedColor);
    _identifier.swap(other._identifier);
    std::swap(_inverse, other._inverse);
    std::swap(_inverseTable, other._inverseTable);
    // Twins follow their owners.
    if (!_inverse && _inverseTable)
        _inverseTable->_inverseTable = this;
    if (!other._inverse && other._inverseTable)
        other._inverseTable->_inverseTable = &other;
}

void DColorTable::_newInverseTable()
{
    auto* twin = new DColorTable();
    twin->_linDataSize = _linDataSize;
    twin->_logDataSize = _logDataSize;
    twin->_defectiveColor = _defectiveColor;
    twin->_saturatedColor = _saturatedColor;
    twin->_identifier = _identifier;
    twin->_inverse = true;
    try {
        twin->_linData = reversedCopyOf(_linDataSize, _linData);
        twin->_logData = reversedCopyOf(_logDataSize, _logData);
    } catch (...) {
        delete twin;
        throw;
    }
    twin->_inverseTable = this;
    _inverseTable = twin;
}

bool DColorTable::operator==(const DColorTable& other) const
{
    if (_identifier != other._identifier || _linDataSize != other._linDataSize ||
        _logDataSize != other._logDataSize)
        return false;
    const auto bytes = [](int n) { return static_cast<std::size_t>(n) * sizeof(unsigned int); };
    return (_linDataSize == 0 || std::memcmp(_linData, other._linData, bytes(_linDataSize)) == 0) &&
           (_logDataSize == 0 || std::memcmp(_logData, other._logData, bytes(_logDataSize)) == 0);
}

const DColorTable& DColorTable::hdr() { return staticTables().hdr; }
const DColorTable& DColorTable::grey() { return staticTables().grey; }
const DColorTable& DColorTable::heat() { return staticTables().heat; }
const DColorTable& DColorTable::rainbow() { return staticTables().rainbow; }

const DColorTable* DColorTable::byName(const std::string& name)
{
    if (name == "hdr")
        return &hdr();
    if (name == "grey" || name == "gray")
        return &grey();
    if (name == "heat")
        return &heat();
    if (name == "rainbow")
        return &rainbow();
    return nullptr;
}

} // namespace imglib
} // namespace norvexa
