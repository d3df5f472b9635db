#!/usr/bin/python3
"""Writes the count-rate simulation files under data/ratecorr/.

Run with the system Python: /usr/bin/python3 tools/make_ratecorr_tables.py [directory]

The model of a counting pixel. After each counted photon the comparator stays above the
threshold for a dead time tau, during which further photons are not counted:

  normal mode     paralysable: a photon arriving in the dead time extends it, so
                  measured = true * exp(-true * tau); the count falls again beyond 1/tau
  retrigger mode  the counter re-arms while the pulse is still high, so a photon in the
                  dead time no longer extends it: non-paralysable,
                  measured = true / (1 + true * tau); the count approaches 1/tau

tau depends smoothly on the DAC voltage Vrf of the preamplifier's feedback (a larger
magnitude discharges faster) and on the threshold ratio r = threshold / photon energy (a
higher threshold is left sooner by the falling pulse):

  tau(Vrf, r) = 120 ns * (0.15 / |Vrf|)^0.7 * (1.5 - r)

so tau is exactly 120 ns at Vrf = -0.150 and r = 0.500, the point the physics test uses.

Files: "ratecorr_vrf_m0p%03d_thr_0p%03d[_retrigger].dat" with |Vrf| and r in thousandths,
for Vrf in {-0.100, -0.150, -0.200} and r in {0.400, 0.500, 0.600}. Each has a comment
head and 240 rows "true measured" in counts per second: 0, then true rates spaced
geometrically from 1e2 to 1e8 per second, the same in every file.
"""

import math
import os
import sys

VRFS = (0.100, 0.150, 0.200)
RATIOS = (0.400, 0.500, 0.600)
ROWS = 240


def tau(vrf, ratio):
    return 120e-9 * (0.15 / vrf) ** 0.7 * (1.5 - ratio)


def measured(true, t, retrigger):
    return true / (1.0 + true * t) if retrigger else true * math.exp(-true * t)


def true_rates():
    step = 6.0 / (ROWS - 2)
    return [0.0] + [10.0 ** (2.0 + i * step) for i in range(ROWS - 1)]


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "data", "ratecorr")
    os.makedirs(out, exist_ok=True)
    for retrigger in (False, True):
        for vrf in VRFS:
            for ratio in RATIOS:
                t = tau(vrf, ratio)
                name = "ratecorr_vrf_m0p%03d_thr_0p%03d%s.dat" % (
                    round(vrf * 1000), round(ratio * 1000), "_retrigger" if retrigger else "")
                with open(os.path.join(out, name), "w") as f:
                    f.write("# %s dead time, Vrf -%.3f, threshold ratio %.3f, tau %.6e s\n"
                            % ("non-paralysable" if retrigger else "paralysable", vrf, ratio, t))
                    f.write("# true_rate measured_rate (counts/s)\n")
                    for true in true_rates():
                        f.write("%.7e %.7e\n" % (true, measured(true, t, retrigger)))
    print("wrote %d files to %s" % (2 * len(VRFS) * len(RATIOS), out))


if __name__ == "__main__":
    sys.exit(main())
