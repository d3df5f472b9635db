#include "DBrennikCalibration.h"

#include "foundation/DException.h"

#include <algorithm>
#include <cmath>

namespace norvexa {
namespace imglib {

class DBrennikCalibration::DBrennikCalibrationPrivate {
public:
    DImage result;
    std::vector<DImage> images;
    std::vector<double> x;
    std::vector<std::pair<double, double>> histogram;

    int count() const { return static_cast<int>(images.size()); }

    // The stack as float pixels, one row of values per image.
    std::vector<DImage> asFloat() const
    {
        std::vector<DImage> out;
        out.reserve(images.size());
        for (const DImage& image : images)
            out.push_back(image.asType<float>());
        return out;
    }
};

DBrennikCalibration::DBrennikCalibration() : _d(std::make_unique<DBrennikCalibrationPrivate>()) {}

DBrennikCalibration::~DBrennikCalibration() = default;

void DBrennikCalibration::setStack(std::vector<DImage> images, std::vector<double> xValues)
{
    if (images.size() > static_cast<std::size_t>(maxImages))
        throw DOutOfRangeException("Calibration stack longer than 1000 images");
    if (xValues.size() != images.size())
        throw DBadParameterException("Calibration x values don't match the images");
    for (const DImage& image : images)
        if (image.width() != images.front().width() || image.height() != images.front().height())
            throw DBadParameterException("Calibration images differ in size");
    _d->images = std::move(images);
    _d->x = std::move(xValues);
}

int DBrennikCalibration::count() const { return _d->count(); }
const DImage& DBrennikCalibration::result() const { return _d->result; }
const std::vector<std::pair<double, double>>& DBrennikCalibration::histogram() const { return _d->histogram; }

void DBrennikCalibration::LinearRegression(int from, int to, const double* x, const double* y, double& intercept,
                                           double& slope)
{
    double sx = 0, sy = 0, sxy = 0, sxx = 0;
    for (int i = from; i < to; ++i) {
        sx += x[i];
        sy += y[i];
        sxy += x[i] * y[i];
        sxx += x[i] * x[i];
    }
    const double n = to - from;
    const double denominator = n * sxx - sx * sx;
    if (std::fabs(denominator) > 1e-10) {
        slope = (n * sxy - sx * sy) / denominator;
        intercept = (sy - slope * sx) / n;
    } else {
        slope = 0.0;
        intercept = 0.0;
    }
}

int DBrennikCalibration::GetIndexOfX(double x, const double* values, int count)
{
    int index = 0;
    double distance = 1e6;
    for (int i = 0; i < count; ++i) {
        if (std::fabs(values[i] - x) < distance) {
            distance = std::fabs(values[i] - x);
            index = i;
        }
    }
    return index;
}

void DBrennikCalibration::XAtY(double level, const DImage& mask)
{
    const int count = _d->count();
    const std::vector<double>& x = _d->x;
    _d->result = count > 0 ? _d->images.front() : DImage();
    _d->histogram.assign(static_cast<std::size_t>(count), {0.0, 0.0});
    if (count == 0)
        return;
    const double step = count > 1 ? (x[count - 1] - x[0]) / (count - 1) : 0.0;
    for (int i = 0; i < count; ++i)
        _d->histogram[i] = {x[0] + i * step, 0.0};

    const std::vector<DImage> stack = _d->asFloat();
    const DImage maskValues = mask.asType<float>();
    const int width = _d->result.width(), height = _d->result.height();
    std::vector<float> value(static_cast<std::size_t>(count));
    for (int px = 0; px < width; ++px) {
        for (int py = 0; py < height; ++py) {
            if (maskValues.pixel<float>(px, py, 0.0f) == 1.0f)
                continue;
            const std::size_t offset = static_cast<std::size_t>(py) * width + px;
            for (int i = 0; i < count; ++i)
                value[i] = reinterpret_cast<const float*>(stack[i].cdata())[offset];
            int k = 0;
            double nearest = 100000.0;
            for (int i = 0; i < count; ++i)
                if (std::fabs(value[i] - level) < nearest) {
                    nearest = std::fabs(value[i] - level);
                    k = i;
                }
            const int m = level > value[k] ? k + 1 : k - 1;
            double r = x[k];
            // A neighbour outside the stack gives the nearest image's x.
            if (m >= 0 && m < count && std::fabs(value[m] - value[k]) > 1e-7)
                r = x[k] + (x[m] - x[k]) * (level - value[k]) / (value[m] - value[k]);
            // Past the last image x[k + 1] stands for x[k]: r keeps to x[k].
            const double next = k + 1 < count ? x[k + 1] : x[k];
            if ((r > x[k] && r > next) || (r < x[k] && r < next))
                r = x[k];
            _d->result.setPixel<double>(px, py, r);
            const double bin = (r - x[0] - 0.5 * step) / step;
            if (bin > -1.0 && bin < count) {
                const int b = static_cast<int>(bin);
                if (b >= 0 && b <= count - 1)
                    _d->histogram[b].second += 1.0;
            }
        }
    }
}

void DBrennikCalibration::InvflectionPoint(double level)
{
    const int count = _d->count();
    _d->result = count > 0 ? _d->images.front() : DImage();
    if (count == 0)
        return;
    const int shrink = (count - 6) / 3;
    const std::vector<DImage> stack = _d->asFloat();
    const int width = _d->result.width(), height = _d->result.height();
    std::vector<double> index(static_cast<std::size_t>(count)), value(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        index[i] = i;
    // Kept from pixel to pixel: a flat window reuses the previous crossing.
    double crossing = 0.0;
    for (int px = 0; px < width; ++px) {
        for (int py = 0; py < height; ++py) {
            const std::size_t offset = static_cast<std::size_t>(py) * width + px;
            for (int i = 0; i < count; ++i)
                value[i] = reinterpret_cast<const float*>(stack[i].cdata())[offset];
            int estimate = count / 2, length = count;
            bool settled = false;
            for (int pass = 0; pass < 4; ++pass) {
                int start = std::max(std::min(estimate - length / 2, count - length), 0);
                // Below six images the windows grow; they are cut to the stack.
                const int end = std::min(start + length, count);
                double intercept, slope;
                LinearRegression(start, end, index.data(), value.data(), intercept, slope);
                if (std::fabs(slope) > 1e-5)
                    crossing = (level - intercept) / slope;
                if (crossing > start && crossing < end - 1)
                    settled = true;
                if (!settled)
                    estimate = crossing < start ? start : end - 1;
                length -= shrink;
            }
            _d->result.setPixel<float>(px, py, static_cast<float>(estimate));
        }
    }
}

} // namespace imglib
} // namespace norvexa
