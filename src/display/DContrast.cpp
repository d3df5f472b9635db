#include "DContrast.h"

#include "foundation/image/DBinaryDispatcher.h"
#include "display/kernels/ColorMap.h"

#include <boost/optional.hpp>

namespace norvexa {
namespace imglib {

namespace {

/// The ComputeContrast functor: (high, low) of the left image with the right one as mask.
struct ComputeContrast {
    double factor;
    unsigned long samples;

    template <class L, class R>
    std::pair<double, double> fire(const DImage& image, const DImage& mask) const
    {
        return kernels::contrast<L, R>(factor, samples, image, mask);
    }
};

} // namespace

DContrast::DContrast(double factor, unsigned long samples) : _factor(factor), _samples(samples) {}

void DContrast::setParams(double factor, unsigned long samples)
{
    _factor = factor;
    _samples = samples;
}

void DContrast::operator()(double& high, double& low, const DImage& image, const DImage* mask) const
{
    // The same resolution as DColorMap::rgb: given, else stored, never of another size.
    const DImage none;
    boost::optional<DImage> stored;
    if (!mask) {
        stored = image.optionalData().pixel_mask();
        mask = stored.get_ptr();
    }
    if (!mask || mask->width() != image.width() || mask->height() != image.height())
        mask = &none;
    const auto limits = datatypes::PixelDispatcher<ComputeContrast, const DImage, const DImage,
                                                   std::pair<double, double>>::Go(image, *mask,
                                                                                  ComputeContrast{_factor, _samples});
    high = limits.first;
    low = limits.second;
}

} // namespace imglib
} // namespace norvexa
