#pragma once

#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DBasicImageModule.h"
#include "DImage.h"

#include <boost/optional/optional_io.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace norvexa_test {

/// The simulation files committed under data/ratecorr.
inline std::string rateDirectory() { return dataPath("ratecorr").string(); }

/// Dead time of the committed simulation files at Vrf -0.150 and threshold ratio 0.500.
constexpr double kTau = 120e-9;

/// Writes `modules` into the metadata with each module's "vrfp" as the 32-bit float that
/// a detector's file carries.
inline void setModules(norvexa::imglib::DImageOptionalData& md, std::vector<norvexa::imglib::DImageModule> modules,
                       float vrf)
{
    for (auto& m : modules)
        m.setVrf(vrf);
    md.set_modules(modules);
    for (std::size_t i = 0; i < modules.size(); ++i) {
        char path[96];
        std::snprintf(path, sizeof path, "/entry/instrument/detector/detectorSpecific/detectorModule_%03zu/vrfp", i);
        md.neXus().at(path).asData().setValue(vrf);
    }
}

/// Count-rate metadata: photon energy 12.39842 keV, threshold at half of it (ratio 0.5).
inline void setRateMetadata(norvexa::imglib::DImageOptionalData& md, float countTime, int bitDepth, int modeRegister,
                            const std::string& directory)
{
    md.set_count_time(countTime);
    md.set_bit_depth_readout(bitDepth);
    md.set_wavelength(1.0f);
    md.set_threshold_energy(6199.21f);
    md.set_mode_register(modeRegister);
    md.set_countrate_correction_bunch_mode(directory);
}

} // namespace norvexa_test
