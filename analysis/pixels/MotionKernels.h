#pragma once

#include <cstdint>

// The per-row arithmetic of the motion count, written as plain loops without branches so
// that the compiler vectorises them; run with AVX2 where the processor has it. Each function
// gives the same bytes as the straightforward per-pixel rules. Private to MotionCounter.
namespace MotionKernels {

// Pairs without motion after which a pixel's motion counts as a new event; the quiet-pair
// count saturates here.
constexpr std::uint8_t kQuietForNewEvent = 50;

// sums[x] += row[x] for x in [0, width).
void addRow(std::uint16_t* sums, const std::uint8_t* row, int width);

// sums[x] += entering[x] - leaving[x]: slides a 7-row column sum down by one row.
void slideRows(std::uint16_t* sums, const std::uint8_t* entering, const std::uint8_t* leaving, int width);

// A row of 7 x 7 sums is the sum of 7 neighbouring column sums. `columnSums` holds a row's
// column sums with 3 more on each side (the row's own, reflected around its ends), so the
// sum for pixel x is columnSums[x] + ... + columnSums[x + 6].

// out[x] = the mean of the 49 pixels around x, rounded to nearest.
void meansOf49(const std::uint16_t* columnSums, std::uint8_t* out, int width);

// The counting rule for one row. `current` is the row's new picture; `previous` holds the
// row of the picture before and receives `current`. Where |current - previous| > threshold
// the pixel moved: its count rises by one (wrapping after 255) if `quiet` there has reached
// kQuietForNewEvent, and `quiet` restarts at 0; elsewhere `quiet` rises by one, saturating.
void countRow(const std::uint8_t* current, std::uint8_t* previous, std::uint8_t* quiet, std::uint8_t* count,
              int width, std::uint8_t threshold);

// Takes back the new events countRowApartTallyingLight or countBlurredRowApartTallyingLight
// added to `count` from the same rows.
void uncountRow(const std::uint8_t* current, const std::uint8_t* previous, const std::uint8_t* quiet,
                std::uint8_t* count, int width, std::uint8_t threshold);

// The same as countRow with the row's new picture given as column sums, as meansOf49 turns
// them into pixels.
void countBlurredRow(const std::uint16_t* columnSums, std::uint8_t* previous, std::uint8_t* quiet,
                     std::uint8_t* count, int width, std::uint8_t threshold);

// Adds to `events` the new events the wrapping `counts` has had since `folded` was taken from
// it, and takes `counts` as `folded` again: per pixel (counts - folded) mod 256, exact as long
// as no pixel has had more than 255 new events in between. `events` saturates at 65535.
void foldRow(const std::uint8_t* counts, std::uint8_t* folded, std::uint16_t* events, int width);

// What the counting rule saw in one row of a pair: the pixels that moved (their difference
// above the threshold, outside the mask) and the new events among them.
struct RowTally {
    std::uint32_t moving = 0;
    std::uint32_t newEvents = 0;
};

// The counting rule of countRow with what the map alone does not need: `mask` (0 where the
// pixel is ignored, 255 where it is analysed) hides pixels, which then never move, and every
// new event also raises `events`, which saturates at 65535 instead of wrapping. Returns the
// row's tally. Slower than countRow; passes that want none of this use countRow.
RowTally countRowDetailed(const std::uint8_t* current, std::uint8_t* previous, std::uint8_t* quiet,
                          std::uint8_t* count, std::uint16_t* events, const std::uint8_t* mask, int width,
                          std::uint8_t threshold);

// The same with the row's new picture given as column sums, as countBlurredRow.
RowTally countBlurredRowDetailed(const std::uint16_t* columnSums, std::uint8_t* previous, std::uint8_t* quiet,
                                 std::uint8_t* count, std::uint16_t* events, const std::uint8_t* mask, int width,
                                 std::uint8_t threshold);

// What one row of a pair shows before a change of light is taken out, over its analysed
// pixels (`mask` non-zero; every pixel with a null `mask`): how many got darker (current < previous), how many did not get
// brighter (current <= previous), and how many differ by more than `threshold`. The first two
// tell whether the lower median of the differences is 0; the last is then the row's moving
// pixels.
struct LightTally {
    std::uint32_t darker = 0;
    std::uint32_t notBrighter = 0;
    std::uint32_t beyondThreshold = 0;
};
LightTally tallyLight(const std::uint8_t* current, const std::uint8_t* previous, const std::uint8_t* mask, int width,
                      std::uint8_t threshold);

// countRow that leaves `previous` and `quiet` as they were and writes the new quiet counts to
// `quietAfter`, so that the pair can be taken back with uncountRow, and in the same sweep
// tallies the row's light as tallyLight does over every pixel: the pair is counted as if the
// light had not changed, and the tally tells whether it had. Each row is read once.
LightTally countRowApartTallyingLight(const std::uint8_t* current, const std::uint8_t* previous,
                                      const std::uint8_t* quiet, std::uint8_t* quietAfter, std::uint8_t* count,
                                      int width, std::uint8_t threshold);

// The same with the row's new picture given as column sums, as meansOf49 turns them into
// pixels, which are also written to `current`.
LightTally countBlurredRowApartTallyingLight(const std::uint16_t* columnSums, std::uint8_t* current,
                                             const std::uint8_t* previous, const std::uint8_t* quiet,
                                             std::uint8_t* quietAfter, std::uint8_t* count, int width,
                                             std::uint8_t threshold);

// Bins of a histogram of differences current - previous: bin d + 255 for d in [-255, 255].
constexpr int kDifferenceBins = 511;

// Adds the differences current - previous of the row's analysed pixels to `histogram`.
void addDifferences(const std::uint8_t* current, const std::uint8_t* previous, const std::uint8_t* mask, int width,
                    std::uint32_t* histogram);

// The row's analysed pixels where |current - previous - shift| > threshold.
std::uint32_t movingAfterShift(const std::uint8_t* current, const std::uint8_t* previous, const std::uint8_t* mask,
                               int width, int shift, std::uint8_t threshold);

// countRowDetailed with `shift` taken out of every difference first: a pixel moved where
// |current - previous - shift| > threshold. With shift 0 the same as countRowDetailed.
RowTally countRowShifted(const std::uint8_t* current, std::uint8_t* previous, std::uint8_t* quiet,
                         std::uint8_t* count, std::uint16_t* events, const std::uint8_t* mask, int width,
                         std::uint8_t threshold, int shift);

} // namespace MotionKernels
