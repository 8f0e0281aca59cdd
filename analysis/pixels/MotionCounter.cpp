#include "MotionCounter.h"

#include "LargePageMats.h"
#include "MotionKernels.h"

#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <cstring>
#include <functional>

namespace {

constexpr int kRadius = MotionCounter::kBlurSize / 2;

int reflect101(int p, int n)
{
    if (n == 1)
        return 0;
    while (p < 0 || p >= n)
        p = p < 0 ? -p : 2 * n - 2 - p;
    return p;
}

std::uint8_t thresholdByte(double threshold)
{
    return static_cast<std::uint8_t>(threshold);
}

// The analysed pixels of `mask` as 255, the ignored ones as 0; all 255 without a mask.
cv::Mat analysedPixels(cv::Size size, const cv::Mat& mask)
{
    if (mask.empty())
        return cv::Mat(size, CV_8UC1, cv::Scalar(255));
    return mask != 0;
}

} // namespace

int MotionCounter::stripesFor(cv::Size size, int threads)
{
    const long long pixels = static_cast<long long>(std::max(size.width, 0)) * std::max(size.height, 0);
    const long long fitting = std::min<long long>(threads, pixels / kMinStripePixels);
    return static_cast<int>(std::max(fitting, 1LL));
}

MotionCounter::MotionCounter(cv::Size size, bool blur, int stripes)
    : MotionCounter(size, blur, stripes, Detail())
{
}

MotionCounter::MotionCounter(cv::Size size, bool blur, int stripes, const Detail& detail)
    : m_blur(blur)
    , m_detailed(detail.enabled)
    , m_exact(!detail.enabled && detail.exactCounts)
    , m_threshold(blur ? kThresholdBlurred : kThresholdSharp)
    , m_stripes(std::max(1, std::min(stripes > 0 ? stripes : stripesFor(size, cv::getNumThreads()), size.height)))
    , m_parallel(m_stripes - 1)
    , m_columnSums(blur ? static_cast<size_t>(m_stripes) * (static_cast<size_t>(size.width) + 2 * kRadius) : 0)
{
    // Set up before the first frame, while the pass waits: in large pages, which fault far
    // less often than small ones.
    LargePageMats::create(m_previous, size, CV_8UC1, cv::Scalar(0));
    LargePageMats::create(m_quiet, size, CV_8UC1, cv::Scalar(MotionKernels::kQuietForNewEvent));
    if (m_detailed) {
        m_mask = analysedPixels(size, detail.mask);
        LargePageMats::create(m_events, size, CV_16UC1, cv::Scalar(0));
        m_stripeTallies.resize(static_cast<size_t>(m_stripes));
        if (detail.cellSize > 0)
            setUpCells(size, detail.cellSize);
        if (!detail.zones.empty())
            setUpZones(size, detail.zones);
    }
    if (m_exact)
        m_events = cv::Mat(size, CV_16UC1, cv::Scalar(0));
    if (detail.steadyLight)
        setUpSteadyLight(size, detail.sceneChangeShare);
}

void MotionCounter::setUpSteadyLight(cv::Size size, double sceneChangeShare)
{
    m_steadyLight = true;
    m_sceneChangeShare = sceneChangeShare;
    if (m_blur)
        LargePageMats::create(m_current, size, CV_8UC1, cv::Scalar(0));
    // The light is measured over the pixels the count analyses: without the detail, all.
    if (m_mask.empty())
        m_mask = analysedPixels(size, cv::Mat());
    if (!m_detailed) {
        LargePageMats::create(m_quietAfter, size, CV_8UC1, cv::Scalar(0));
        m_discardedEvents.assign(static_cast<size_t>(m_stripes) * static_cast<size_t>(size.width), 0);
    }
    m_analysedPixels = cv::countNonZero(m_mask);
    m_masked = m_analysedPixels < static_cast<std::int64_t>(m_mask.total());
    m_lightTallies.resize(static_cast<size_t>(m_stripes));
    m_stripeMoving.resize(static_cast<size_t>(m_stripes));
    m_histograms.resize(static_cast<size_t>(m_stripes) * MotionKernels::kDifferenceBins);
}

void MotionCounter::setUpCells(cv::Size size, int cellSize)
{
    m_cellSize = cellSize;
    m_cellColumns = (size.width + cellSize - 1) / cellSize;
    const size_t cells = static_cast<size_t>(m_cellColumns) * static_cast<size_t>((size.height + cellSize - 1) / cellSize);
    m_lastCells.assign(cells, 0);
    m_stripeCells.assign(cells * static_cast<size_t>(m_stripes), 0);
    m_quietBefore.assign(static_cast<size_t>(size.width) * static_cast<size_t>(m_stripes), 0);
}

template <typename Work>
void MotionCounter::forEachStripe(const Work& work)
{
    const int rows = m_previous.rows;
    const size_t sumsPerStripe = static_cast<size_t>(m_previous.cols) + 2 * kRadius;
    const auto stripe = [&](int index) {
        std::uint16_t* sums = m_blur ? m_columnSums.data() + index * sumsPerStripe : nullptr;
        work(index, ParallelStripes::firstOf(index, m_stripes, rows),
             ParallelStripes::firstOf(index + 1, m_stripes, rows), sums);
    };
    // Passed by reference, so that wrapping it allocates nothing a frame.
    m_parallel.run(m_stripes, std::cref(stripe));
}

void MotionCounter::start(const cv::Mat& firstFrame)
{
    m_pairs = 0;
    m_pairsUnfolded = 0;
    m_lastPair = {};
    std::fill(m_lastZones.begin(), m_lastZones.end(), ZoneSpans::Tally{});
    m_lastSceneChange = false;
    m_lastShift = 0;
    if (!m_events.empty())
        m_events.setTo(cv::Scalar(0));
    m_quiet.setTo(cv::Scalar(MotionKernels::kQuietForNewEvent));
    forEachStripe(
        [&](int, int firstRow, int endRow, std::uint16_t* sums) { startRows(firstFrame, firstRow, endRow, sums); });
}

void MotionCounter::addFrame(const cv::Mat& frame, cv::Mat& motionCount)
{
    if (m_steadyLight) {
        if (m_exact)
            takeCountsGiven(motionCount);
        addFrameInSteadyLight(frame, motionCount);
        if (m_exact && ++m_pairsUnfolded == kFoldPairs)
            foldExactCounts();
    } else if (m_detailed) {
        forEachStripe([&](int stripe, int firstRow, int endRow, std::uint16_t* sums) {
            countRowsDetailed(frame, motionCount, stripe, firstRow, endRow, sums);
        });
        gatherStripeTallies();
    } else if (m_exact) {
        takeCountsGiven(motionCount);
        forEachStripe([&](int, int firstRow, int endRow, std::uint16_t* sums) {
            countRows(frame, motionCount, firstRow, endRow, sums);
        });
        if (++m_pairsUnfolded == kFoldPairs)
            foldExactCounts();
    } else {
        forEachStripe([&](int, int firstRow, int endRow, std::uint16_t* sums) {
            countRows(frame, motionCount, firstRow, endRow, sums);
        });
    }
    ++m_pairs;
}

void MotionCounter::takeCountsGiven(const cv::Mat& motionCount)
{
    // The count as it stands before the first pair is where the exact count starts from.
    if (m_pairs == 0)
        motionCount.copyTo(m_folded);
    m_countsGiven = motionCount;
}

void MotionCounter::startRows(const cv::Mat& firstFrame, int firstRow, int endRow, std::uint16_t* sums)
{
    const int width = m_previous.cols;
    for (int y = firstRow; y < endRow; ++y) {
        std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
        if (m_blur)
            MotionKernels::meansOf49(columnSums(firstFrame, y, firstRow, sums), previous, width);
        else
            std::memcpy(previous, firstFrame.ptr<std::uint8_t>(y), static_cast<size_t>(width));
    }
}

void MotionCounter::countRows(const cv::Mat& frame, cv::Mat& motionCount, int firstRow, int endRow,
                              std::uint16_t* sums)
{
    const int width = m_previous.cols;
    const std::uint8_t threshold = thresholdByte(m_threshold);
    for (int y = firstRow; y < endRow; ++y) {
        std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
        std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
        std::uint8_t* counts = motionCount.ptr<std::uint8_t>(y);
        if (m_blur)
            MotionKernels::countBlurredRow(columnSums(frame, y, firstRow, sums), previous, quiet, counts, width,
                                           threshold);
        else
            MotionKernels::countRow(frame.ptr<std::uint8_t>(y), previous, quiet, counts, width, threshold);
    }
}

const cv::Mat& MotionCounter::exactCounts() const
{
    if (m_exact)
        foldExactCounts();
    return m_events;
}

void MotionCounter::foldExactCounts() const
{
    if (m_pairsUnfolded == 0)
        return;
    for (int y = 0; y < m_events.rows; ++y)
        MotionKernels::foldRow(m_countsGiven.ptr<std::uint8_t>(y), m_folded.ptr<std::uint8_t>(y),
                               m_events.ptr<std::uint16_t>(y), m_events.cols);
    m_pairsUnfolded = 0;
}

void MotionCounter::countRowsDetailed(const cv::Mat& frame, cv::Mat& motionCount, int stripe, int firstRow,
                                      int endRow, std::uint16_t* sums)
{
    PairActivity& tally = m_stripeTallies[static_cast<size_t>(stripe)];
    const int width = m_previous.cols;
    const std::uint8_t threshold = thresholdByte(m_threshold);
    tally = {};
    std::uint8_t* quietBefore = quietBeforeOf(stripe);
    ZoneSpans::Tally* zones = zoneTalliesOf(stripe);
    std::uint8_t* hits = m_cellSize > 0 ? m_stripeCells.data() + static_cast<size_t>(stripe) * m_lastCells.size() : nullptr;
    if (hits)
        std::fill(hits, hits + m_lastCells.size(), std::uint8_t{0});
    for (int y = firstRow; y < endRow; ++y) {
        std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
        std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
        std::uint8_t* counts = motionCount.ptr<std::uint8_t>(y);
        std::uint16_t* events = m_events.ptr<std::uint16_t>(y);
        const std::uint8_t* mask = m_mask.ptr<std::uint8_t>(y);
        if (quietBefore)
            std::memcpy(quietBefore, quiet, static_cast<size_t>(width));
        const MotionKernels::RowTally row = m_blur
            ? MotionKernels::countBlurredRowDetailed(columnSums(frame, y, firstRow, sums), previous, quiet, counts,
                                                     events, mask, width, threshold)
            : MotionKernels::countRowDetailed(frame.ptr<std::uint8_t>(y), previous, quiet, counts, events, mask,
                                              width, threshold);
        tally.movingPixels += row.moving;
        tally.newEvents += row.newEvents;
        if (hits && row.newEvents > 0)
            markNewEventCells(y, quietBefore, hits);
        if (zones && row.moving > 0)
            m_zones.tallyRow(y, quietBefore, quiet, MotionKernels::kQuietForNewEvent, zones);
    }
}

void MotionCounter::addFrameInSteadyLight(const cv::Mat& frame, cv::Mat& motionCount)
{
    // Without the detail the pair is counted while the light is tallied, the rows still in the
    // cache, as if the light had not changed, which it has not in most pairs; the count is
    // taken back in the few where it has.
    cv::Mat* countedAlong = m_detailed ? nullptr : &motionCount;
    forEachStripe([&](int stripe, int firstRow, int endRow, std::uint16_t* sums) {
        smoothAndTallyRows(frame, stripe, firstRow, endRow, sums, countedAlong);
    });
    const cv::Mat& current = m_blur ? m_current : frame;
    LightCounts light;
    for (const LightCounts& tally : m_lightTallies) {
        light.darker += tally.darker;
        light.notBrighter += tally.notBrighter;
        light.beyondThreshold += tally.beyondThreshold;
    }
    // The lower median is the difference at index k = floor((n - 1) / 2) in sorted order: it
    // is 0 exactly when at most k differences are below 0 and more than k are at most 0, which
    // is most pairs, where no histogram is needed.
    const std::int64_t k = (m_analysedPixels - 1) / 2;
    const bool lightUnchanged = m_analysedPixels == 0 || (light.darker <= k && light.notBrighter > k);
    m_lastShift = lightUnchanged ? 0 : lightShift(current);
    const std::int64_t moving = m_lastShift == 0 ? light.beyondThreshold : movingAfterShift(current, m_lastShift);
    m_lastSceneChange = static_cast<double>(moving) > m_sceneChangeShare * static_cast<double>(m_analysedPixels);
    if (!m_detailed) {
        settleCountMadeAlong(current, motionCount);
    } else if (m_lastSceneChange) {
        // The counts and quiet pairs stay as they were; only the picture moves on.
        if (!m_zones.empty())
            tallySceneChangeInZones(current);
        takeAsPrevious(current);
        m_lastPair = {moving, 0};
    } else {
        forEachStripe([&](int stripe, int firstRow, int endRow, std::uint16_t*) {
            countShiftedRows(current, motionCount, stripe, firstRow, endRow);
        });
        gatherStripeTallies();
    }
}

void MotionCounter::settleCountMadeAlong(const cv::Mat& current, cv::Mat& motionCount)
{
    if (m_lastShift == 0 && !m_lastSceneChange) {
        cv::swap(m_quiet, m_quietAfter);
        takeAsPrevious(current);
        return;
    }
    const std::uint8_t threshold = thresholdByte(m_threshold);
    forEachStripe([&](int, int firstRow, int endRow, std::uint16_t*) {
        for (int y = firstRow; y < endRow; ++y)
            MotionKernels::uncountRow(current.ptr<std::uint8_t>(y), m_previous.ptr<std::uint8_t>(y),
                                      m_quiet.ptr<std::uint8_t>(y), motionCount.ptr<std::uint8_t>(y), m_previous.cols,
                                      threshold);
    });
    if (m_lastSceneChange) {
        // The counts and quiet pairs stay as they were; only the picture moves on.
        takeAsPrevious(current);
        return;
    }
    forEachStripe([&](int stripe, int firstRow, int endRow, std::uint16_t*) {
        countShiftedRowsPlainly(current, motionCount, stripe, firstRow, endRow);
    });
}

void MotionCounter::takeAsPrevious(const cv::Mat& current)
{
    // The smoothed picture is the counter's own and need not be copied.
    if (&current == &m_current)
        cv::swap(m_previous, m_current);
    else
        current.copyTo(m_previous);
}

void MotionCounter::smoothAndTallyRows(const cv::Mat& frame, int stripe, int firstRow, int endRow,
                                       std::uint16_t* sums, cv::Mat* countedAlong)
{
    LightCounts& tally = m_lightTallies[static_cast<size_t>(stripe)];
    tally = {};
    for (int y = firstRow; y < endRow; ++y) {
        const MotionKernels::LightTally row =
            countedAlong ? smoothCountAndTallyRow(frame, y, firstRow, sums, *countedAlong)
                         : smoothAndTallyRow(frame, y, firstRow, sums);
        tally.darker += row.darker;
        tally.notBrighter += row.notBrighter;
        tally.beyondThreshold += row.beyondThreshold;
    }
}

MotionKernels::LightTally MotionCounter::smoothAndTallyRow(const cv::Mat& frame, int y, int firstRow,
                                                           std::uint16_t* sums)
{
    const int width = m_previous.cols;
    const std::uint8_t* current = frame.ptr<std::uint8_t>(y);
    if (m_blur) {
        std::uint8_t* smoothed = m_current.ptr<std::uint8_t>(y);
        MotionKernels::meansOf49(columnSums(frame, y, firstRow, sums), smoothed, width);
        current = smoothed;
    }
    const std::uint8_t* mask = m_masked ? m_mask.ptr<std::uint8_t>(y) : nullptr;
    return MotionKernels::tallyLight(current, m_previous.ptr<std::uint8_t>(y), mask, width, thresholdByte(m_threshold));
}

MotionKernels::LightTally MotionCounter::smoothCountAndTallyRow(const cv::Mat& frame, int y, int firstRow,
                                                                std::uint16_t* sums, cv::Mat& motionCount)
{
    const int width = m_previous.cols;
    const std::uint8_t threshold = thresholdByte(m_threshold);
    const std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
    const std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
    std::uint8_t* quietAfter = m_quietAfter.ptr<std::uint8_t>(y);
    std::uint8_t* counts = motionCount.ptr<std::uint8_t>(y);
    if (m_blur)
        return MotionKernels::countBlurredRowApartTallyingLight(columnSums(frame, y, firstRow, sums),
                                                                m_current.ptr<std::uint8_t>(y), previous, quiet,
                                                                quietAfter, counts, width, threshold);
    return MotionKernels::countRowApartTallyingLight(frame.ptr<std::uint8_t>(y), previous, quiet, quietAfter, counts,
                                                     width, threshold);
}

int MotionCounter::lightShift(const cv::Mat& current)
{
    constexpr int bins = MotionKernels::kDifferenceBins;
    std::fill(m_histograms.begin(), m_histograms.end(), 0u);
    forEachStripe([&](int stripe, int firstRow, int endRow, std::uint16_t*) {
        std::uint32_t* histogram = m_histograms.data() + static_cast<size_t>(stripe) * bins;
        for (int y = firstRow; y < endRow; ++y)
            MotionKernels::addDifferences(current.ptr<std::uint8_t>(y), m_previous.ptr<std::uint8_t>(y),
                                          m_mask.ptr<std::uint8_t>(y), m_previous.cols, histogram);
    });
    const std::int64_t k = (m_analysedPixels - 1) / 2;
    std::int64_t seen = 0;
    for (int bin = 0; bin < bins; ++bin) {
        for (int stripe = 0; stripe < m_stripes; ++stripe)
            seen += m_histograms[static_cast<size_t>(stripe) * bins + static_cast<size_t>(bin)];
        if (seen > k)
            return bin - 255;
    }
    return 0;
}

std::int64_t MotionCounter::movingAfterShift(const cv::Mat& current, int shift)
{
    forEachStripe([&](int stripe, int firstRow, int endRow, std::uint16_t*) {
        std::int64_t moving = 0;
        for (int y = firstRow; y < endRow; ++y)
            moving += MotionKernels::movingAfterShift(current.ptr<std::uint8_t>(y), m_previous.ptr<std::uint8_t>(y),
                                                      m_mask.ptr<std::uint8_t>(y), m_previous.cols, shift,
                                                      thresholdByte(m_threshold));
        m_stripeMoving[static_cast<size_t>(stripe)] = moving;
    });
    std::int64_t moving = 0;
    for (const std::int64_t stripeMoving : m_stripeMoving)
        moving += stripeMoving;
    return moving;
}

void MotionCounter::countShiftedRows(const cv::Mat& current, cv::Mat& motionCount, int stripe, int firstRow,
                                     int endRow)
{
    PairActivity& tally = m_stripeTallies[static_cast<size_t>(stripe)];
    const int width = m_previous.cols;
    tally = {};
    std::uint8_t* quietBefore = quietBeforeOf(stripe);
    ZoneSpans::Tally* zones = zoneTalliesOf(stripe);
    std::uint8_t* hits = m_cellSize > 0 ? m_stripeCells.data() + static_cast<size_t>(stripe) * m_lastCells.size() : nullptr;
    if (hits)
        std::fill(hits, hits + m_lastCells.size(), std::uint8_t{0});
    for (int y = firstRow; y < endRow; ++y) {
        std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
        if (quietBefore)
            std::memcpy(quietBefore, quiet, static_cast<size_t>(width));
        const MotionKernels::RowTally row = MotionKernels::countRowShifted(
            current.ptr<std::uint8_t>(y), m_previous.ptr<std::uint8_t>(y), quiet, motionCount.ptr<std::uint8_t>(y),
            m_events.ptr<std::uint16_t>(y), m_mask.ptr<std::uint8_t>(y), width, thresholdByte(m_threshold),
            m_lastShift);
        tally.movingPixels += row.moving;
        tally.newEvents += row.newEvents;
        if (hits && row.newEvents > 0)
            markNewEventCells(y, quietBefore, hits);
        if (zones && row.moving > 0)
            m_zones.tallyRow(y, quietBefore, quiet, MotionKernels::kQuietForNewEvent, zones);
    }
}

void MotionCounter::countShiftedRowsPlainly(const cv::Mat& current, cv::Mat& motionCount, int stripe, int firstRow,
                                            int endRow)
{
    const int width = m_previous.cols;
    const std::uint8_t threshold = thresholdByte(m_threshold);
    std::uint16_t* discarded = m_discardedEvents.data() + static_cast<size_t>(stripe) * static_cast<size_t>(width);
    for (int y = firstRow; y < endRow; ++y) {
        std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
        std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
        std::uint8_t* counts = motionCount.ptr<std::uint8_t>(y);
        MotionKernels::countRowShifted(current.ptr<std::uint8_t>(y), previous, quiet, counts, discarded,
                                       m_mask.ptr<std::uint8_t>(y), width, threshold, m_lastShift);
    }
}

void MotionCounter::gatherStripeTallies()
{
    m_lastPair = {};
    for (const PairActivity& tally : m_stripeTallies) {
        m_lastPair.movingPixels += tally.movingPixels;
        m_lastPair.newEvents += tally.newEvents;
    }
    if (m_cellSize > 0 && m_lastPair.newEvents > 0)
        mergeCellHits();
    if (m_zones.empty())
        return;
    std::fill(m_lastZones.begin(), m_lastZones.end(), ZoneSpans::Tally{});
    const size_t zones = m_lastZones.size();
    for (size_t i = 0; i < m_stripeZones.size(); ++i) {
        m_lastZones[i % zones].movingPixels += m_stripeZones[i].movingPixels;
        m_lastZones[i % zones].newEvents += m_stripeZones[i].newEvents;
    }
}

void MotionCounter::setUpZones(cv::Size size, const std::vector<ZoneSpans::Polygon>& zones)
{
    m_zones = ZoneSpans(size, zones, m_mask);
    m_stripeZones.assign(static_cast<size_t>(m_stripes) * zones.size(), {});
    m_lastZones.assign(zones.size(), {});
    m_quietBefore.resize(static_cast<size_t>(m_stripes) * static_cast<size_t>(size.width));
}

std::uint8_t* MotionCounter::quietBeforeOf(int stripe)
{
    if (m_quietBefore.empty())
        return nullptr;
    return m_quietBefore.data() + static_cast<size_t>(stripe) * static_cast<size_t>(m_previous.cols);
}

ZoneSpans::Tally* MotionCounter::zoneTalliesOf(int stripe)
{
    if (m_zones.empty())
        return nullptr;
    const size_t zones = m_lastZones.size();
    ZoneSpans::Tally* tallies = m_stripeZones.data() + static_cast<size_t>(stripe) * zones;
    std::fill(tallies, tallies + zones, ZoneSpans::Tally{});
    return tallies;
}

void MotionCounter::tallySceneChangeInZones(const cv::Mat& current)
{
    std::vector<std::int64_t> moving(m_lastZones.size(), 0);
    const std::uint8_t threshold = thresholdByte(m_threshold);
    for (int y = 0; y < current.rows; ++y) {
        const std::uint8_t* now = current.ptr<std::uint8_t>(y);
        const std::uint8_t* before = m_previous.ptr<std::uint8_t>(y);
        const std::uint8_t* mask = m_mask.ptr<std::uint8_t>(y);
        m_zones.countRow(
            y,
            [&](int begin, int end) {
                return static_cast<std::int64_t>(MotionKernels::movingAfterShift(
                    now + begin, before + begin, mask + begin, end - begin, m_lastShift, threshold));
            },
            moving.data());
    }
    for (size_t zone = 0; zone < moving.size(); ++zone)
        m_lastZones[zone] = {moving[zone], 0};
}

void MotionCounter::markNewEventCells(int y, const std::uint8_t* quietBefore, std::uint8_t* hits) const
{
    const std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
    std::uint8_t* rowHits = hits + static_cast<size_t>(y / m_cellSize) * static_cast<size_t>(m_cellColumns);
    for (int x = 0; x < m_quiet.cols; ++x) {
        if (quiet[x] == 0 && quietBefore[x] == MotionKernels::kQuietForNewEvent)
            rowHits[x / m_cellSize] = 1;
    }
}

void MotionCounter::mergeCellHits()
{
    const size_t cells = m_lastCells.size();
    std::fill(m_lastCells.begin(), m_lastCells.end(), std::uint8_t{0});
    for (int stripe = 0; stripe < m_stripes; ++stripe) {
        const std::uint8_t* hits = m_stripeCells.data() + static_cast<size_t>(stripe) * cells;
        for (size_t cell = 0; cell < cells; ++cell)
            m_lastCells[cell] |= hits[cell];
    }
}

const std::uint16_t* MotionCounter::columnSums(const cv::Mat& frame, int row, int firstRow, std::uint16_t* sums) const
{
    const int width = m_previous.cols;
    const int height = m_previous.rows;
    std::uint16_t* rowSums = sums + kRadius;
    if (row == firstRow) {
        std::fill(sums, sums + width + 2 * kRadius, std::uint16_t{0});
        for (int d = -kRadius; d <= kRadius; ++d)
            MotionKernels::addRow(rowSums, frame.ptr<std::uint8_t>(reflect101(row + d, height)), width);
    } else {
        MotionKernels::slideRows(rowSums, frame.ptr<std::uint8_t>(reflect101(row + kRadius, height)),
                                 frame.ptr<std::uint8_t>(reflect101(row - kRadius - 1, height)), width);
    }
    for (int d = 1; d <= kRadius; ++d) {
        rowSums[-d] = rowSums[reflect101(-d, width)];
        rowSums[width - 1 + d] = rowSums[reflect101(width - 1 + d, width)];
    }
    return sums;
}
