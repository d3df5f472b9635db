#include "DEfficiencyCorrection.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

using namespace norvexa::imglib;

namespace {

// The correction's table, read once per test.
struct Table {
    DEfficiencyCorrection correction;
    int rows = correction.readAttenuationCoefficients();
    const float* column(int c) const
    {
        const float* columns[] = {correction.energy(), correction.si(), correction.al(), correction.siN()};
        return columns[c];
    }
};

TEST(AttenuationTable, HasTheReferenceRowsAndFallsBetweenEdges)
{
    Table t;
    ASSERT_EQ(t.rows, 615);
    EXPECT_FLOAT_EQ(t.correction.energy()[0], 1.0f);
    EXPECT_FLOAT_EQ(t.correction.energy()[614], 62.0f);

    // Each reference row with its position: below-edge row first, above-edge row second.
    const struct {
        int row;
        const char* values[4];
    } reference[] = {
        {0, {"1.0", "348.284", "304.379617", "741.943138"}},
        {5, {"1.5", "124.246", "107.976249", "258.730609"}},
        {6, {"1.560", "111.7184", "97.2", "232.0961"}},
        {7, {"1.560", "111.7184", "1067.4", "232.0961"}},
        {8, {"1.6", "104.308", "1009.520954", "216.340247"}},
        {11, {"1.839", "71.5413", "741.5648", "146.7126"}},
        {12, {"1.839", "743.3905", "741.5648", "742.4722"}},
        {13, {"1.9", "705.688", "688.197505", "701.582886"}},
        {614, {"62.0", "0.0270282", "0.023227", "0.025222"}},
    };
    for (const auto& r : reference) {
        SCOPED_TRACE(r.values[0]);
        for (int c = 0; c < 4; ++c)
            EXPECT_EQ(t.column(c)[r.row], std::strtof(r.values[c], nullptr)) << "column " << c;
    }

    // Photo absorption falls with energy between edges; the generated rows must too, and
    // an edge pair never falls.
    for (int i = 0; i + 1 < t.rows; ++i) {
        const bool pair = t.correction.energy()[i] == t.correction.energy()[i + 1];
        for (int c = 1; c < 4; ++c) {
            if (pair)
                EXPECT_GE(t.column(c)[i + 1], t.column(c)[i]) << "edge pair at row " << i;
            else
                EXPECT_LT(t.column(c)[i + 1], t.column(c)[i]) << "row " << i << " column " << c;
        }
    }
}

TEST(AttenuationTable, CoefficientInterpolatesAndHoldsTheEdgeRule)
{
    Table t;
    const DDataCorrection& c = t.correction;
    auto at = [&](double kev, const float* column) { return c.attenuationCoefficient(12.39842 / kev, column); };
    const struct {
        const char* label;
        double kev;
        const float* column;
        double expected; // 1/m
        double tolerance; // relative
    } cases[] = {
        {"first row", 1.0, c.si(), 348284, 1e-6},
        {"half way between the first rows", 1.05, c.si(), 500 * (348.284 + 283.452), 1e-6},
        {"at the Si edge: below it", 1.839, c.si(), 71541.3, 1e-6},
        {"just above the Si edge", 1.8391, c.si(), 743390.5, 5e-4},
        {"at the Al edge: below it", 1.560, c.al(), 97200, 1e-6},
        {"just above the Al edge", 1.5601, c.al(), 1067400, 5e-4},
        {"last row", 62.0, c.siN(), 25.222, 1e-6},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.label);
        EXPECT_NEAR(at(k.kev, k.column), k.expected, k.expected * k.tolerance);
    }

    // Above the table: a power law through the last two rows, never negative or rising.
    for (const float* column : {c.si(), c.al(), c.siN()}) {
        const double last = at(62.0, column), at100 = at(100.0, column);
        EXPECT_GT(at100, 0.0);
        EXPECT_LT(at100, last);
        EXPECT_GT(at100 / last, std::pow(62.0 / 100.0, 3.5)) << "about E^-3";
        EXPECT_LT(at100 / last, std::pow(62.0 / 100.0, 2.5)) << "about E^-3";
        EXPECT_GT(at(1000.0, column), 0.0);
    }
    DEfficiencyCorrection unread;
    EXPECT_EQ(unread.attenuationCoefficient(1.0, unread.si()), 0.0) << "no table read yet";
}

} // namespace
