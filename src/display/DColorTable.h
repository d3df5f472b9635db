#pragma once

#include <string>

namespace norvexa {
namespace imglib {

/// A colour scale: a linear table, optionally followed by a logarithmic one, with the
/// colours of defective and saturated pixels. Colours are 0xAARRGGBB; entry 0 belongs
/// to the lowest pixel value.
///
/// Every table with data owns a reversed twin (`inverseTable()`), made by each
/// constructor that has data: same sizes, colours and identifier, both arrays reversed,
/// `inverse()` set, and its own `inverseTable()` leading back to the owner. A copy is
/// never flagged inverse, whatever its source is, and gets a twin of its own.
///
/// The four shipped tables exist from the moment the library is loaded until the process
/// ends; hold references to them.
class DColorTable {
public:
    /// Empty: no data, no twin.
    DColorTable();
    /// Copies both arrays; a size of 0 gives a null array. DBadParameterException
    /// "Colour table sizes do not match its data" for a negative size, or a positive one
    /// with a null array.
    DColorTable(int linearSize, const unsigned int* linearData, int logSize,
                const unsigned int* logData, unsigned int defective, unsigned int saturated,
                const std::string& identifier);
    DColorTable(const DColorTable& other);
    /// Copy and swap; the twin is rebuilt for the new contents.
    DColorTable& operator=(const DColorTable& other);
    ~DColorTable();

    /// Identifier, then sizes, then the bytes of both arrays; colours and the inverse
    /// flag are not compared.
    bool operator==(const DColorTable& other) const;
    bool operator!=(const DColorTable& other) const { return !(*this == other); }

    int linDataSize() const noexcept { return _linDataSize; }
    int logDataSize() const noexcept { return _logDataSize; }
    const unsigned int* linData() const noexcept { return _linData; }
    unsigned int* linData() noexcept { return _linData; }
    const unsigned int* logData() const noexcept { return _logData; }
    unsigned int* logData() noexcept { return _logData; }
    unsigned int defectiveColor() const noexcept { return _defectiveColor; }
    unsigned int saturatedColor() const noexcept { return _saturatedColor; }
    const std::string& identifier() const noexcept { return _identifier; }
    bool inverse() const noexcept { return _inverse; }
    /// The reversed twin; null only for a default-constructed table and its copies.
    const DColorTable* inverseTable() const noexcept { return _inverseTable; }

    /// "High Dynamic Range": grey (256) with heat (768) above it for the bright part.
    static const DColorTable& hdr();
    /// "Grey Scale": 256 entries from white down to black, so that low counts are light.
    static const DColorTable& grey();
    /// "Heat": 768 entries from black through red and yellow to white.
    static const DColorTable& heat();
    /// "Rainbow": 2801 hues from red (0 degrees) to violet (280 degrees), a tenth of a
    /// degree apart; black for defective and white for saturated pixels.
    static const DColorTable& rainbow();
    /// The table of a short name, as the tool, the viewer and the Python package take it:
    /// "hdr", "grey" (or "gray"), "heat", "rainbow"; null for any other.
    static const DColorTable* byName(const std::string& name);

private:
    /// Builds the reversed twin and takes ownership of it.
    void _newInverseTable();
    void _release() noexcept;
    void _swap(DColorTable& other) noexcept;

    int _linDataSize = 0;
    int _logDataSize = 0;
    unsigned int* _linData = nullptr;
    unsigned int* _logData = nullptr;
    unsigned int _defectiveColor = 0;
    unsigned int _saturatedColor = 0;
    std::string _identifier;
    bool _inverse = false;
    // Owned unless _inverse is set; a twin points back to its (owning) source.
    DColorTable* _inverseTable = nullptr;
};

} // namespace imglib
} // namespace norvexa
