#pragma once

#include "MotionKernels.h"
#include "ParallelStripes.h"
#include "ZoneSpans.h"

#include <opencv2/core/mat.hpp>

#include <cstdint>
#include <vector>

// Per-pixel counting of separate motion events over the frames of a video, fed one frame
// at a time. Each frame is smoothed (7 x 7 box mean, reflect-101 borders, as cv::blur),
// compared with the frame before (absolute difference above the threshold, as cv::absdiff
// and cv::threshold) and counted, row by row in one pass, into buffers of its own: the
// frames themselves are only read. Bands of rows (stripes) are counted at once, on the
// calling thread and on helper threads of the counter's own; the result does not depend on
// how many. One object serves one analysis pass; not thread-safe, used by the pass's own
// thread only.
class MotionCounter {
public:
    // Motion at a pixel counts as a new event only if at least this many pairs have passed
    // since the last pair in which that pixel moved; continuous motion counts once.
    static constexpr int kNewEventGap = 51;
    static constexpr int kBlurSize = 7;
    static constexpr double kThresholdBlurred = 20.0;
    static constexpr double kThresholdSharp = 40.0;

    // Pixels a stripe gets at least from stripesFor: below this, handing a stripe to
    // another thread costs more than it saves.
    static constexpr int kMinStripePixels = 1 << 16;

    // The stripes worth counting frames of `size` in on up to `threads` threads: one a
    // thread, as far as the frame has kMinStripePixels pixels for each; at least one.
    static int stripesFor(cv::Size size, int threads);

    // What the counting saw in one pair over the whole frame.
    struct PairActivity {
        std::int64_t movingPixels = 0; // pixels whose difference is above the threshold
        std::int64_t newEvents = 0;    // of those, the ones whose motion is a new event
    };

    // More than the map needs, chosen once for a pass. Without it the counter runs its
    // fastest loop and neither exactCounts() nor lastPair() is kept.
    struct Detail {
        // Per pixel, the exact count, the activity of each pair, and `mask` are wanted.
        bool enabled = false;
        // Without `enabled`: the exact count alone is wanted (exactCounts(); lastPair() stays
        // zero). The map's own loop counts; what its wrapping count grew by is added to the
        // exact count every kFoldPairs pairs, and when exactCounts() is read, so that the
        // exact count costs nothing a pair. The caller then changes the count matrix only
        // through addFrame() between start() and the last read of exactCounts().
        bool exactCounts = false;
        // 8-bit 1-channel of the video's size: 0 where pixels are ignored (they never move),
        // anything else where they are analysed. Empty: every pixel is analysed.
        cv::Mat mask;
        // With `enabled`, and above 0: also note which cells of a grid of this many pixels
        // square saw a new event in each pair (lastPairCells). Costs a copy of each row's
        // quiet counts and a look at the rows with new events.
        int cellSize = 0;
        // A change of light is not motion. In each pair the lower median m of
        // the differences current - previous over the analysed pixels is taken out, so that a
        // pixel moves where |current - previous - m| is above the threshold. A pair in which
        // more than `sceneChangeShare` of the analysed pixels then move is a scene change: it
        // starts no event and, for the quiet pairs a new event needs, is as if it were not
        // there; it only becomes the picture the next frame is compared with.
        bool steadyLight = false;
        double sceneChangeShare = 0.5;
        // With `enabled`: named parts of the picture whose pixels that moved and new events
        // are also told apart in each pair (lastPairZones), in their order. Costs a copy of
        // each row's quiet counts and a look at the zones' pixels in the rows that moved.
        std::vector<ZoneSpans::Polygon> zones;
    };

    // `size` is the video's frame size; all working buffers are allocated here, once.
    // `stripes` bands of rows are counted at once (at most one a row); 0 means
    // stripesFor(size, the library's thread count).
    MotionCounter(cv::Size size, bool blur, int stripes = 0);
    MotionCounter(cv::Size size, bool blur, int stripes, const Detail& detail);

    // Takes the video's first frame (8-bit 1-channel view of the video's size, rows may be
    // padded) as the picture the next frame is compared with. Starts the pair count anew;
    // every pixel counts as still for long enough that its next motion is a new event.
    void start(const cv::Mat& firstFrame);

    // Analyses the pair of the frame given last and `frame` (as for start), adds the pair's
    // new events to `motionCount` (8-bit 1-channel, the video's size; wraps after 255) and
    // keeps `frame` for the next pair. Call start() first.
    void addFrame(const cv::Mat& frame, cv::Mat& motionCount);

    // Pairs after which the exact count takes in what the wrapping count grew by: in fewer, no
    // pixel can have had more than 255 new events, since they lie kNewEventGap pairs apart.
    static constexpr int kFoldPairs = 255 * kNewEventGap;

    // With Detail::enabled or Detail::exactCounts: per pixel, the new events since start()
    // (16-bit 1-channel, saturating at 65535); empty otherwise. Called on the thread that
    // calls addFrame(), between its calls. With Detail::enabled: what
    // the last addFrame() saw; zero otherwise.
    const cv::Mat& exactCounts() const;
    PairActivity lastPair() const { return m_lastPair; }
    // With Detail::steadyLight: whether the last pair was a scene change, and the change of
    // light (the lower median difference) taken out of it.
    bool lastPairWasSceneChange() const { return m_lastSceneChange; }
    int lastLightShift() const { return m_lastShift; }
    // With Detail::cellSize: one byte a cell of the grid (row by row, the last column and row
    // of cells possibly narrower), non-zero where a new event began in the last pair. Only
    // refreshed for pairs with new events: look at it when lastPair().newEvents > 0.
    const std::vector<std::uint8_t>& lastPairCells() const { return m_lastCells; }
    // With Detail::zones: per zone, what the last pair saw there (a scene change: its moving
    // pixels, no new event), and the zones as the counter holds them.
    const std::vector<ZoneSpans::Tally>& lastPairZones() const { return m_lastZones; }
    const ZoneSpans& zones() const { return m_zones; }
    int cellColumns() const { return m_cellColumns; }

    double threshold() const { return m_threshold; }
    // Pairs analysed since start().
    int pairs() const { return m_pairs; }
    // Bands of rows counted at once.
    int stripes() const { return m_stripes; }
    // The picture the next frame is compared with: the last frame, smoothed with blur on.
    const cv::Mat& previous() const { return m_previous; }
    // Per pixel, the pairs since its last motion, not counting that pair, up to
    // kNewEventGap - 1: a motion where this has reached kNewEventGap - 1 is a new event.
    const cv::Mat& quietPairs() const { return m_quiet; }

private:
    // Runs `work(stripe, firstRow, endRow, columnSums)` for every stripe, on the counter's threads;
    // each stripe has a column-sum buffer of its own.
    template <typename Work>
    void forEachStripe(const Work& work);
    // The column sums (7 rows each) of row `row` of `frame` in `sums`, the stripe's rows
    // `firstRow`, `firstRow` + 1 ... in turn, with 3 reflected sums on either side.
    const std::uint16_t* columnSums(const cv::Mat& frame, int row, int firstRow, std::uint16_t* sums) const;
    void startRows(const cv::Mat& firstFrame, int firstRow, int endRow, std::uint16_t* sums);
    void countRows(const cv::Mat& frame, cv::Mat& motionCount, int firstRow, int endRow, std::uint16_t* sums);
    // Adds what the count matrix given last grew by since the last fold to the exact count.
    void foldExactCounts() const;

    // Counts the rows of `stripe` into its tally (and, with cells, its cell flags).
    void countRowsDetailed(const cv::Mat& frame, cv::Mat& motionCount, int stripe, int firstRow, int endRow,
                           std::uint16_t* sums);
    void setUpCells(cv::Size size, int cellSize);
    void setUpSteadyLight(cv::Size size, double sceneChangeShare);
    // Exact counting only: notes the count matrix given for this pair.
    void takeCountsGiven(const cv::Mat& motionCount);
    // Flags, in the stripe's own `hits`, the cells of row `y` where a pixel's quiet count went
    // from kQuietForNewEvent (`quietBefore`) to 0: a new event.
    void markNewEventCells(int y, const std::uint8_t* quietBefore, std::uint8_t* hits) const;
    void mergeCellHits();
    void setUpZones(cv::Size size, const std::vector<ZoneSpans::Polygon>& zones);
    // The stripe's quiet counts before its row is counted, when cells or zones need them.
    std::uint8_t* quietBeforeOf(int stripe);
    ZoneSpans::Tally* zoneTalliesOf(int stripe);
    // A scene change in zones: their moving pixels after the change of light, no new event.
    void tallySceneChangeInZones(const cv::Mat& current);
    // The detailed count's pair activity (and cells) from what each stripe saw.
    void gatherStripeTallies();

    // Steady light: the pair's pictures are compared to find the change of light and to count,
    // so the new picture is smoothed into a buffer of its own first.
    void addFrameInSteadyLight(const cv::Mat& frame, cv::Mat& motionCount);
    // Smooths (with blur) the stripe's rows of `frame` into m_current and tallies them; given
    // `countedAlong`, also counts them into it as if the light had not changed, the new quiet
    // pairs into m_quietAfter.
    void smoothAndTallyRows(const cv::Mat& frame, int stripe, int firstRow, int endRow, std::uint16_t* sums,
                            cv::Mat* countedAlong);
    // Row `y` of the stripe that starts at `firstRow`: smoothed (with blur) into m_current, its
    // light tallied.
    MotionKernels::LightTally smoothAndTallyRow(const cv::Mat& frame, int y, int firstRow, std::uint16_t* sums);
    // The same counting row `y` along, in one sweep that reads each of its rows once.
    MotionKernels::LightTally smoothCountAndTallyRow(const cv::Mat& frame, int y, int firstRow, std::uint16_t* sums,
                                                     cv::Mat& motionCount);
    // Keeps the count smoothAndTallyRows made along where the light did not change and the scene
    // did not either; otherwise takes it back and counts as the pair's light and scene say.
    void settleCountMadeAlong(const cv::Mat& current, cv::Mat& motionCount);
    // m_previous becomes the new picture `current` (m_current, or the frame without blur).
    void takeAsPrevious(const cv::Mat& current);
    // The change of light of the pair whose new picture is `current`: its lower median difference.
    int lightShift(const cv::Mat& current);
    std::int64_t movingAfterShift(const cv::Mat& current, int shift);
    // Compares rows of the new picture with m_previous, as countRowsDetailed does, with the
    // change of light `m_lastShift` taken out.
    void countShiftedRows(const cv::Mat& current, cv::Mat& motionCount, int stripe, int firstRow, int endRow);
    // The same without the detail: the map's count alone.
    void countShiftedRowsPlainly(const cv::Mat& current, cv::Mat& motionCount, int stripe, int firstRow, int endRow);

    bool m_blur;
    bool m_detailed;
    bool m_exact;
    double m_threshold;
    int m_stripes;
    int m_pairs = 0;
    cv::Mat m_previous;
    cv::Mat m_quiet;
    // One helper a stripe besides the first, which the calling thread counts.
    ParallelStripes m_parallel;
    // One buffer a stripe, back to back.
    std::vector<std::uint16_t> m_columnSums;
    // Detailed counting only: 0 ignored, 255 analysed; the exact counts (also kept by exact
    // counting); one tally a stripe.
    cv::Mat m_mask;
    mutable cv::Mat m_events;
    // Exact counting only: the count matrix given last, what it held at the last fold (taken
    // at the first pair after start()), and the pairs since.
    cv::Mat m_countsGiven;
    mutable cv::Mat m_folded;
    mutable int m_pairsUnfolded = 0;
    std::vector<PairActivity> m_stripeTallies;
    PairActivity m_lastPair;
    // Cells only: the cell size, the cells in a row of the grid, one flag buffer and one row of
    // quiet counts a stripe, back to back, and the flags of the whole frame.
    int m_cellSize = 0;
    int m_cellColumns = 0;
    std::vector<std::uint8_t> m_stripeCells;
    std::vector<std::uint8_t> m_quietBefore;
    std::vector<std::uint8_t> m_lastCells;
    // Zones only: their runs of pixels, one tally a zone and stripe, back to back, and the
    // last pair's.
    ZoneSpans m_zones;
    std::vector<ZoneSpans::Tally> m_stripeZones;
    std::vector<ZoneSpans::Tally> m_lastZones;
    // Steady light only: the smoothed new picture, the analysed pixels, one tally and one
    // histogram of differences a stripe, and what the last pair was.
    bool m_steadyLight = false;
    double m_sceneChangeShare = 0.5;
    cv::Mat m_current;
    std::int64_t m_analysedPixels = 0;
    bool m_masked = false; // some pixel is ignored
    struct LightCounts {
        std::int64_t darker = 0;
        std::int64_t notBrighter = 0;
        std::int64_t beyondThreshold = 0;
    };
    std::vector<LightCounts> m_lightTallies;
    std::vector<std::uint32_t> m_histograms;
    std::vector<std::int64_t> m_stripeMoving;
    // Without the detail: the quiet pairs after a pair counted along with the tally, and one row
    // a stripe for the events the shifted loop counts and nobody reads.
    cv::Mat m_quietAfter;
    std::vector<std::uint16_t> m_discardedEvents;
    bool m_lastSceneChange = false;
    int m_lastShift = 0;
};
