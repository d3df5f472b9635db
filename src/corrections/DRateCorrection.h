#pragma once

#include "DDataCorrection.h"

#include <memory>

namespace norvexa {
namespace imglib {

/// The parameters of one count-rate table's making.
struct rateCorrParams {
    char directory[504];  ///< where the simulation files are
    double countTime;     ///< s
    double slopeLimit;    ///< 0.2: the cutoff's slope of measured over true rate
    double Vrf;           ///< the module's DAC value, negative
    double thresholdRatio; ///< threshold energy over photon energy
    int retrigger;        ///< bit 0 of the mode register
};

/// Maps each measured count of a counting pixel to the count that the incident photons
/// would have given, module by module, through look-up tables interpolated from
/// simulation files.
///
/// Simulation files lie in the directory named by the metadata's
/// countrate_correction_bunch_mode, named "ratecorr_vrf_m0p<|Vrf| in thousandths>_thr_0p
/// <threshold ratio in thousandths>.dat" ("..._retrigger.dat" when bit 0 of the mode
/// register is set), with rows "true measured" in counts per second. A module's table is
/// interpolated bilinearly in (Vrf, threshold ratio) between four files; counts above the
/// cutoff, where the measured rate stops rising, map to the highest value reached below
/// it. The highest value of all tables is set as the image's saturation_value.
///
/// Nothing happens until recomputeLookupTable(true); the tables are then built from the
/// first image and reused while count time (1e-6), bit depth, mode register, wavelength
/// (0.001), threshold energy (0.001), directory and modules (their tables aside) are
/// unchanged. A failed build leaves the stored parameters and tables as they were.
///
/// Table size. A table covers the measured counts 0 to 2^bit_depth - 1, at every depth
/// (the size is kept as a 64-bit number, so a depth of 32 corrects like the others). It
/// is stored only up to a few counts beyond the cutoff: the entries from there on are all
/// the highest value, so counts beyond the stored part take its last entry. A stored part
/// longer than 2^27 entries (a count time of minutes at a depth above 27) is refused with
/// "Count-rate table too long for the count time".
///
/// Only INT and UINT images are corrected, only pixels inside the modules' chips, only
/// where the mask is 0 and the count is below 2^bit_depth; chips reaching outside the
/// image or the mask are cut to them. A negative count raises std::out_of_range.
class DRateCorrection : public DDataCorrection {
public:
    DRateCorrection();
    ~DRateCorrection() override;

    /// Turns the building of tables on or off; a change makes the next image rebuild them.
    void recomputeLookupTable(bool value);

    /// Applies the tables unless countrate_correction_applied is true.
    void _applyCorrection(DImage& image);

    /// Fills `table[0..size)` from the simulation files for `params`; the cutoff rate, or
    /// -1.0 when the files can't be read (fewer than two rows count as unreadable).
    static double createLUTFromSimulation(rateCorrParams params, int* table, int size);
    /// Rows of (true, measured) rate interpolated for params' Vrf and threshold ratio, at
    /// most `maxRows`; -1 when the directory or its files don't serve. The directory is
    /// named by params.directory.
    static int interpolateLUTFromSimulation(rateCorrParams params, double (*rates)[2], int maxRows);
    /// Reads one file into column `column` of `rows`: rows[r][0] true, rows[r][1] measured
    /// rate. The number of rows, or -1 when the file can't be opened.
    static int ratecorrReadLut(const char* directory, const char* file, double (*rows)[2][4], int column,
                               int maxRows);
    /// The measured rate where the slope of measured over true rate, fitted over five
    /// rows, first falls below `slopeLimit`; else the last row's measured rate.
    static double determineCutoff(double (*rates)[2], int rows, double slopeLimit);
    /// base^exponent in int arithmetic, wrapping like unsigned (so 2^32 is 0).
    static int _pow(int base, int exponent);

protected:
    void _initCorrection() override;
    void _correctImage(DImage& image) override;

private:
    class DRateCorrectionPrivate;
    std::unique_ptr<DRateCorrectionPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
