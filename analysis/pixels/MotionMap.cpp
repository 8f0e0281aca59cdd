#include "MotionMap.h"

#include "LargePages.h"
#include "ParallelStripes.h"

#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <functional>

namespace {

// 96 dots per inch in the dots per metre that image files record.
constexpr int kDotsPerMeter96Dpi = 3780;
// Maps from this many pixels on are rendered on several threads, into large pages.
constexpr int kParallelPixels = 1 << 18;

// Pixels of a map mapped by LargePages.
struct LargeBuffer {
    void* memory;
    std::size_t bytes;
};

using ColorTable = std::array<unsigned char, 256>;

// The scale is piecewise linear with slope 4 per step; the odd offsets of the red rise and
// the blue fall are part of it.
constexpr unsigned char red(int i)
{
    if (i < 96)
        return 0;
    if (i < 160)
        return static_cast<unsigned char>(4 * (i - 96) + 1);
    if (i < 224)
        return 255;
    return static_cast<unsigned char>(251 - 4 * (i - 224));
}

constexpr unsigned char green(int i)
{
    if (i < 32)
        return 0;
    if (i < 96)
        return static_cast<unsigned char>(4 * (i - 32));
    if (i < 160)
        return 255;
    if (i < 224)
        return static_cast<unsigned char>(252 - 4 * (i - 160));
    return 0;
}

constexpr unsigned char blue(int i)
{
    if (i < 32)
        return static_cast<unsigned char>(127 + 4 * i);
    if (i < 96)
        return 255;
    if (i < 160)
        return static_cast<unsigned char>(253 - 4 * (i - 96));
    return 0;
}

template <typename Channel>
constexpr ColorTable makeTable(Channel channel)
{
    ColorTable table{};
    for (int i = 0; i < 256; ++i)
        table[static_cast<std::size_t>(i)] = channel(i);
    return table;
}

bool holdsData(const cv::Mat& matrix)
{
    return matrix.data != nullptr && matrix.total() > 0;
}

bool matches(const cv::Mat& motionCount, const cv::Mat& background)
{
    return motionCount.type() == CV_8UC1 && background.type() == CV_8UC3
        && motionCount.size() == background.size();
}

bool matchesExact(const cv::Mat& eventCounts, const cv::Mat& background)
{
    return (eventCounts.type() == CV_16UC1 || eventCounts.type() == CV_32SC1) && background.type() == CV_8UC3
        && eventCounts.size() == background.size();
}

void unmapPixels(void* pixels)
{
    auto* buffer = static_cast<LargeBuffer*>(pixels);
    LargePages::unmap(buffer->memory, buffer->bytes);
    delete buffer;
}

// A large map's pixels lie in large pages: it is written once, from end to end, while its user
// waits, and its small pages would each cost a fault.
QImage mapImage(int width, int height)
{
    const long long rowBytes = (3LL * width + 3) / 4 * 4;
    if (static_cast<long long>(width) * height < kParallelPixels || rowBytes > INT_MAX)
        return QImage(width, height, QImage::Format_RGB888);
    auto* buffer = new LargeBuffer{nullptr, static_cast<std::size_t>(rowBytes) * static_cast<std::size_t>(height)};
    buffer->memory = LargePages::map(buffer->bytes);
    if (!buffer->memory) {
        delete buffer;
        return {};
    }
    return QImage(static_cast<uchar*>(buffer->memory), width, height, static_cast<int>(rowBytes),
                  QImage::Format_RGB888, unmapPixels, buffer);
}

QImage blankMap(const cv::Mat& background)
{
    QImage map = mapImage(background.cols, background.rows);
    if (map.isNull())
        return {};
    // A fixed 96 dpi, not the screen's: the saved file must not depend on where it was made.
    map.setDotsPerMeterX(kDotsPerMeter96Dpi);
    map.setDotsPerMeterY(kDotsPerMeter96Dpi);
    return map;
}

// The colour of every count, channel by channel, with black for no event: adding the grey
// and clamping then gives the grey itself for no event, and the scale over it otherwise.
struct CountColours {
    ColorTable red{}, green{}, blue{};
};

CountColours makeCountColours()
{
    CountColours colours;
    for (int count = 1; count < 256; ++count) {
        const auto i = static_cast<std::size_t>(MotionMap::intensity(count));
        const auto c = static_cast<std::size_t>(count);
        colours.red[c] = ColorMap_R[i];
        colours.green[c] = ColorMap_G[i];
        colours.blue[c] = ColorMap_B[i];
    }
    return colours;
}

unsigned char lift(unsigned char scale, int grey)
{
    return static_cast<unsigned char>(std::min(scale + grey, 255));
}

// Without branches: the counts of a frame with speckled motion would make them unpredictable.
void renderRow(const CountColours& colours, const unsigned char* counts, const unsigned char* background,
               unsigned char* out, int width)
{
    for (int x = 0; x < width; ++x, background += 3, out += 3) {
        const std::size_t count = counts[x];
        const int grey = (background[0] + background[1] + background[2]) / 6;
        out[0] = lift(colours.red[count], grey);
        out[1] = lift(colours.green[count], grey);
        out[2] = lift(colours.blue[count], grey);
    }
}

// A count's colour on a scale of any top; no event stays black, as in CountColours.
template <typename Count>
void renderExactRow(const Count* counts, const unsigned char* background, unsigned char* out, int width,
                    double scale)
{
    for (int x = 0; x < width; ++x, background += 3, out += 3) {
        const int grey = (background[0] + background[1] + background[2]) / 6;
        if (counts[x] <= 0) {
            out[0] = out[1] = out[2] = static_cast<unsigned char>(grey);
            continue;
        }
        const auto i = static_cast<std::size_t>(MotionMap::intensity(static_cast<std::int64_t>(counts[x]), scale));
        out[0] = lift(ColorMap_R[i], grey);
        out[1] = lift(ColorMap_G[i], grey);
        out[2] = lift(ColorMap_B[i], grey);
    }
}

constexpr int kStripesPerThread = 4;

// Calls renderRows(first, end) for stripes of the `rows` rows of a map `columns` wide that
// together cover every row once; on as many threads as the library's for a large map, since
// the map is rendered while its user waits, after everything else has finished.
void renderInStripes(int rows, int columns, const std::function<void(int, int)>& renderRows)
{
    const bool large = static_cast<long long>(rows) * columns >= kParallelPixels;
    const int threads = large ? std::max(cv::getNumThreads(), 1) : 1;
    if (threads == 1) {
        renderRows(0, rows);
        return;
    }
    ParallelStripes parallel(threads - 1);
    const int stripes = std::min(rows, kStripesPerThread * threads);
    const auto renderStripe = [&](int stripe) {
        renderRows(ParallelStripes::firstOf(stripe, stripes, rows), ParallelStripes::firstOf(stripe + 1, stripes, rows));
    };
    parallel.run(stripes, std::cref(renderStripe));
}

} // namespace

const std::array<unsigned char, 256> ColorMap_R = makeTable(red);
const std::array<unsigned char, 256> ColorMap_G = makeTable(green);
const std::array<unsigned char, 256> ColorMap_B = makeTable(blue);

int MotionMap::intensity(int eventCount)
{
    return std::min(eventCount * 30, 255);
}

int MotionMap::intensity(std::int64_t eventCount, double scale)
{
    const double value = static_cast<double>(eventCount) * 255.0 / scale;
    return value >= 255.0 ? 255 : static_cast<int>(value);
}

QImage MotionMap::render(const cv::Mat& eventCounts, const cv::Mat& background, double scale)
{
    if (!holdsData(eventCounts) || !holdsData(background) || !matchesExact(eventCounts, background)
        || !(scale > 0.0))
        return {};
    QImage map = blankMap(background);
    if (map.isNull() || !renderInto(map, eventCounts, background, scale))
        return {};
    return map;
}

bool MotionMap::renderInto(QImage& target, const cv::Mat& eventCounts, const cv::Mat& background, double scale)
{
    if (!holdsData(eventCounts) || !holdsData(background) || !matchesExact(eventCounts, background)
        || !(scale > 0.0) || target.format() != QImage::Format_RGB888 || target.width() < background.cols
        || target.height() < background.rows)
        return false;
    // The rows' addresses are taken here: scanLine() of a writable image is for one thread.
    unsigned char* const bits = target.bits();
    const qsizetype bytesPerLine = target.bytesPerLine();
    renderInStripes(background.rows, background.cols, [&](int first, int end) {
        for (int y = first; y < end; ++y) {
            const unsigned char* backgroundRow = background.ptr<unsigned char>(y);
            unsigned char* out = bits + y * bytesPerLine;
            if (eventCounts.type() == CV_16UC1)
                renderExactRow(eventCounts.ptr<std::uint16_t>(y), backgroundRow, out, background.cols, scale);
            else
                renderExactRow(eventCounts.ptr<std::int32_t>(y), backgroundRow, out, background.cols, scale);
        }
    });
    return true;
}

QImage MotionMap::render(const cv::Mat& motionCount, const cv::Mat& background)
{
    if (!holdsData(motionCount) || !holdsData(background) || !matches(motionCount, background))
        return {};
    QImage map = blankMap(background);
    if (map.isNull())
        return {};
    static const CountColours colours = makeCountColours();
    unsigned char* const bits = map.bits();
    const qsizetype bytesPerLine = map.bytesPerLine();
    renderInStripes(background.rows, background.cols, [&](int first, int end) {
        for (int y = first; y < end; ++y)
            renderRow(colours, motionCount.ptr<unsigned char>(y), background.ptr<unsigned char>(y),
                      bits + y * bytesPerLine, background.cols);
    });
    return map;
}
