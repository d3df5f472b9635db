#pragma once

// A believable detector frame for the demo, the simulator and the benchmarks: what a
// beamline scientist sees on a tiled photon-counting detector during a diffraction
// experiment, computed from a seed.

#include "DImage.h"

namespace norvexa::demo {

/// An INT 32 frame of `width` x `height` counts, reproducible for `seed`:
/// - a beam centre a little off the middle, with air scatter that falls with radius;
/// - powder rings (a cubic cell's first reflections) whose intensity falls with angle,
///   a little stronger on one side, as a textured sample gives them;
/// - Bragg spots on a rotated reciprocal lattice, bright near the centre and fading out;
/// - the shadow of the beam stop (a disc on an arm reaching to the frame's edge);
/// - Poisson noise on all of it;
/// - the gaps between modules at -1 and a few dozen defective pixels at -2, the codes the
///   detector writes (modules by `DDetector::modules` for a known size; 1028 x 512 modules
///   with gaps of 12 and 38 for a size that fits that grid; none otherwise).
/// Takes about 0.1 s for 6 million pixels. Sizes below 16 x 16 give a plain noise frame.
imglib::DImage diffractionFrame(int width = 2463, int height = 2527, unsigned seed = 7);

} // namespace norvexa::demo
