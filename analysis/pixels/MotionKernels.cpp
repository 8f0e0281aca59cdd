#include "MotionKernels.h"

// Built with -O3 (see CMakeLists.txt): the loops below are only fast once vectorised.

namespace MotionKernels {
namespace {

using std::int16_t;
using std::uint16_t;
using std::uint32_t;
using std::uint8_t;

// round(sum / 49) for sum <= 49 * 255 is (sum + 24) / 49, here a multiply by 2^20 / 49,
// rounded up, and a shift; exact over that range (checked exhaustively by the tests).
constexpr uint32_t kReciprocal49 = 21400;

inline uint8_t mean49(uint16_t sum)
{
    const uint16_t biased = static_cast<uint16_t>(sum + 24);
    const uint16_t high = static_cast<uint16_t>((static_cast<uint32_t>(biased) * kReciprocal49) >> 16);
    return static_cast<uint8_t>(high >> 4);
}

inline uint16_t sum7(const uint16_t* columnSums)
{
    return static_cast<uint16_t>(columnSums[0] + columnSums[1] + columnSums[2] + columnSums[3] + columnSums[4]
                                 + columnSums[5] + columnSums[6]);
}

inline void countPixel(uint8_t current, uint8_t& previous, uint8_t& quiet, uint8_t& count, uint8_t threshold)
{
    const uint8_t before = previous;
    const uint8_t high = current > before ? current : before;
    const uint8_t low = current > before ? before : current;
    const uint8_t difference = static_cast<uint8_t>(high - low);
    const bool still = difference <= threshold;
    const uint8_t wasQuiet = quiet;
    const bool newEvent = !still & (wasQuiet == kQuietForNewEvent);
    count = static_cast<uint8_t>(count + static_cast<uint8_t>(newEvent));
    const uint8_t older = static_cast<uint8_t>(wasQuiet < kQuietForNewEvent ? wasQuiet + 1 : kQuietForNewEvent);
    quiet = still ? older : uint8_t{0};
    previous = current;
}

// What the detailed rule does once it knows whether the pixel moved: returns 1 for a new
// event, else 0. A pixel that moved is left with `quiet` at 0, which is how the row's moving
// pixels are counted.
inline uint8_t recordMotion(bool moved, uint8_t current, uint8_t& previous, uint8_t& quiet, uint8_t& count,
                            uint16_t& events)
{
    const uint8_t wasQuiet = quiet;
    const uint8_t newEvent = static_cast<uint8_t>(moved & (wasQuiet == kQuietForNewEvent));
    count = static_cast<uint8_t>(count + newEvent);
    events = static_cast<uint16_t>(events + static_cast<uint16_t>(newEvent & (events != 0xFFFF)));
    const uint8_t older = static_cast<uint8_t>(wasQuiet < kQuietForNewEvent ? wasQuiet + 1 : kQuietForNewEvent);
    quiet = moved ? uint8_t{0} : older;
    previous = current;
    return newEvent;
}

// countPixel with a mask and the exact count.
inline uint8_t countPixelDetailed(uint8_t current, uint8_t& previous, uint8_t& quiet, uint8_t& count,
                                  uint16_t& events, uint8_t mask, uint8_t threshold)
{
    const uint8_t before = previous;
    const uint8_t high = current > before ? current : before;
    const uint8_t low = current > before ? before : current;
    const uint8_t difference = static_cast<uint8_t>(high - low);
    return recordMotion((difference > threshold) & (mask != 0), current, previous, quiet, count, events);
}

// countPixelDetailed on the difference with the change of light `shift` taken out.
inline uint8_t countPixelShifted(uint8_t current, uint8_t& previous, uint8_t& quiet, uint8_t& count,
                                 uint16_t& events, uint8_t mask, uint8_t threshold, int16_t shift)
{
    const int16_t difference = static_cast<int16_t>(current - previous - shift);
    const int16_t magnitude = difference < 0 ? static_cast<int16_t>(-difference) : difference;
    return recordMotion((magnitude > threshold) & (mask != 0), current, previous, quiet, count, events);
}

// The loop bodies, inlined into one copy per instruction set below.
#define TREMORA_KERNEL inline __attribute__((always_inline))

TREMORA_KERNEL void add(uint16_t* __restrict sums, const uint8_t* __restrict row, int width)
{
    for (int x = 0; x < width; ++x)
        sums[x] = static_cast<uint16_t>(sums[x] + row[x]);
}

TREMORA_KERNEL void slide(uint16_t* __restrict sums, const uint8_t* __restrict entering,
                          const uint8_t* __restrict leaving, int width)
{
    for (int x = 0; x < width; ++x)
        sums[x] = static_cast<uint16_t>(sums[x] + entering[x] - leaving[x]);
}

TREMORA_KERNEL void means(const uint16_t* __restrict columnSums, uint8_t* __restrict out, int width)
{
    for (int x = 0; x < width; ++x)
        out[x] = mean49(sum7(columnSums + x));
}

TREMORA_KERNEL void count(const uint8_t* __restrict current, uint8_t* __restrict previous, uint8_t* __restrict quiet,
                          uint8_t* __restrict counts, int width, uint8_t threshold)
{
    for (int x = 0; x < width; ++x)
        countPixel(current[x], previous[x], quiet[x], counts[x], threshold);
}

TREMORA_KERNEL void countBlurred(const uint16_t* __restrict columnSums, uint8_t* __restrict previous,
                                 uint8_t* __restrict quiet, uint8_t* __restrict counts, int width, uint8_t threshold)
{
    for (int x = 0; x < width; ++x)
        countPixel(mean49(sum7(columnSums + x)), previous[x], quiet[x], counts[x], threshold);
}

// Counting and tallying in one loop does not vectorise; so the rows are counted in blocks,
// each block's new events noted in a small buffer, and the block then tallied in loops of
// their own, while it is still in the cache.
constexpr int kTallyBlock = 512;

// The rows a loop reads and writes never overlap, but once the loop is inlined through the
// block lambdas the compiler no longer knows it, and would not vectorise it.
#if defined(__GNUC__) && !defined(__clang__)
#define TREMORA_ROWS_APART _Pragma("GCC ivdep")
#else
#define TREMORA_ROWS_APART
#endif

TREMORA_KERNEL uint32_t zerosIn(const uint8_t* __restrict bytes, int width)
{
    uint32_t zeros = 0;
    for (int x = 0; x < width; ++x)
        zeros += bytes[x] == 0 ? 1u : 0u;
    return zeros;
}

TREMORA_KERNEL uint32_t sumOf(const uint8_t* __restrict bytes, int width)
{
    uint32_t sum = 0;
    for (int x = 0; x < width; ++x)
        sum += bytes[x];
    return sum;
}

TREMORA_KERNEL void countBlock(const uint8_t* __restrict current, uint8_t* __restrict previous,
                               uint8_t* __restrict quiet, uint8_t* __restrict counts, uint16_t* __restrict events,
                               const uint8_t* __restrict mask, uint8_t* __restrict fresh, int width, uint8_t threshold)
{
    TREMORA_ROWS_APART
    for (int x = 0; x < width; ++x)
        fresh[x] = countPixelDetailed(current[x], previous[x], quiet[x], counts[x], events[x], mask[x], threshold);
}

TREMORA_KERNEL void countBlurredBlock(const uint16_t* __restrict columnSums, uint8_t* __restrict previous,
                                      uint8_t* __restrict quiet, uint8_t* __restrict counts,
                                      uint16_t* __restrict events, const uint8_t* __restrict mask,
                                      uint8_t* __restrict fresh, int width, uint8_t threshold)
{
    TREMORA_ROWS_APART
    for (int x = 0; x < width; ++x)
        fresh[x] = countPixelDetailed(mean49(sum7(columnSums + x)), previous[x], quiet[x], counts[x], events[x],
                                      mask[x], threshold);
}

// Runs `countBlock(offset, width, fresh)` over the row block by block and tallies each.
template <typename CountBlock>
TREMORA_KERNEL RowTally tallyBlocks(const uint8_t* quiet, int width, const CountBlock& countBlock)
{
    alignas(32) uint8_t fresh[kTallyBlock];
    RowTally tally;
    for (int offset = 0; offset < width; offset += kTallyBlock) {
        const int block = width - offset < kTallyBlock ? width - offset : kTallyBlock;
        countBlock(offset, block, fresh);
        tally.moving += zerosIn(quiet + offset, block);
        tally.newEvents += sumOf(fresh, block);
    }
    return tally;
}

TREMORA_KERNEL RowTally countDetailed(const uint8_t* current, uint8_t* previous, uint8_t* quiet, uint8_t* counts,
                                      uint16_t* events, const uint8_t* mask, int width, uint8_t threshold)
{
    return tallyBlocks(quiet, width, [&](int offset, int block, uint8_t* fresh) {
        countBlock(current + offset, previous + offset, quiet + offset, counts + offset, events + offset,
                   mask + offset, fresh, block, threshold);
    });
}

TREMORA_KERNEL RowTally countBlurredDetailed(const uint16_t* columnSums, uint8_t* previous, uint8_t* quiet,
                                             uint8_t* counts, uint16_t* events, const uint8_t* mask, int width,
                                             uint8_t threshold)
{
    return tallyBlocks(quiet, width, [&](int offset, int block, uint8_t* fresh) {
        countBlurredBlock(columnSums + offset, previous + offset, quiet + offset, counts + offset, events + offset,
                          mask + offset, fresh, block, threshold);
    });
}

// Counted in bytes over blocks of fewer than 256 pixels, which a byte cannot overflow in, so
// that the loop runs on as many pixels at once as the vectors hold bytes; a whole number of
// vectors, so that only a row's last block has pixels left over for the scalar tail.
constexpr int kByteBlock = 224;

// Adds one pixel's light to a block's tallies, where `analysed` is 1; nothing where it is 0.
TREMORA_KERNEL void addLight(uint8_t current, uint8_t previous, uint8_t analysed, uint8_t threshold,
                             uint8_t& darker, uint8_t& notBrighter, uint8_t& beyond)
{
    const uint8_t high = current > previous ? current : previous;
    const uint8_t low = current > previous ? previous : current;
    darker = static_cast<uint8_t>(darker + (analysed & (current < previous ? 1 : 0)));
    notBrighter = static_cast<uint8_t>(notBrighter + (analysed & (current <= previous ? 1 : 0)));
    beyond = static_cast<uint8_t>(beyond + (analysed & (static_cast<uint8_t>(high - low) > threshold ? 1 : 0)));
}

// Runs `pixel(x, darker, notBrighter, beyond)` for every pixel of a row, the tallies in bytes
// block by block, and returns their sum.
template <typename Pixel>
TREMORA_KERNEL LightTally tallyInByteBlocks(int width, const Pixel& pixel)
{
    LightTally tally;
    for (int offset = 0; offset < width; offset += kByteBlock) {
        const int end = width - offset < kByteBlock ? width : offset + kByteBlock;
        uint8_t darker = 0;
        uint8_t notBrighter = 0;
        uint8_t beyond = 0;
        TREMORA_ROWS_APART
        for (int x = offset; x < end; ++x)
            pixel(x, darker, notBrighter, beyond);
        tally.darker += darker;
        tally.notBrighter += notBrighter;
        tally.beyondThreshold += beyond;
    }
    return tally;
}

// `Analysed(x)` is 1 where pixel x is analysed, else 0.
template <typename Analysed>
TREMORA_KERNEL LightTally light(const uint8_t* __restrict current, const uint8_t* __restrict previous,
                                const Analysed& analysedAt, int width, uint8_t threshold)
{
    return tallyInByteBlocks(width, [&](int x, uint8_t& darker, uint8_t& notBrighter, uint8_t& beyond) {
        addLight(current[x], previous[x], analysedAt(x), threshold, darker, notBrighter, beyond);
    });
}

// Counts the pair as countPixel does, with `previous` and `quiet` left as they are and the
// new quiet counts written to `quietAfter`, while tallying the light (as `light`, every pixel
// analysed). `currentAt(x)` gives pixel x of the new picture.
template <typename Current>
TREMORA_KERNEL LightTally countApartTallying(const Current& currentAt, const uint8_t* __restrict previous,
                                             const uint8_t* __restrict quiet, uint8_t* __restrict quietAfter,
                                             uint8_t* __restrict counts, int width, uint8_t threshold)
{
    return tallyInByteBlocks(width, [&](int x, uint8_t& darker, uint8_t& notBrighter, uint8_t& beyond) {
        const uint8_t current = currentAt(x);
        addLight(current, previous[x], 1, threshold, darker, notBrighter, beyond);
        uint8_t picture = previous[x];
        uint8_t quietNow = quiet[x];
        countPixel(current, picture, quietNow, counts[x], threshold);
        quietAfter[x] = quietNow;
    });
}

TREMORA_KERNEL LightTally countApartWithLight(const uint8_t* __restrict current, const uint8_t* previous,
                                              const uint8_t* quiet, uint8_t* quietAfter, uint8_t* counts, int width,
                                              uint8_t threshold)
{
    return countApartTallying([current](int x) { return current[x]; }, previous, quiet, quietAfter, counts, width,
                              threshold);
}

TREMORA_KERNEL LightTally countBlurredApartWithLight(const uint16_t* __restrict columnSums,
                                                     uint8_t* __restrict current, const uint8_t* previous,
                                                     const uint8_t* quiet, uint8_t* quietAfter, uint8_t* counts,
                                                     int width, uint8_t threshold)
{
    return countApartTallying(
        [columnSums, current](int x) {
            const uint8_t mean = mean49(sum7(columnSums + x));
            current[x] = mean;
            return mean;
        },
        previous, quiet, quietAfter, counts, width, threshold);
}

TREMORA_KERNEL uint32_t movingShifted(const uint8_t* __restrict current, const uint8_t* __restrict previous,
                                      const uint8_t* __restrict mask, int width, int16_t shift, uint8_t threshold)
{
    uint32_t moving = 0;
    for (int x = 0; x < width; ++x) {
        const int16_t difference = static_cast<int16_t>(current[x] - previous[x] - shift);
        const int16_t magnitude = difference < 0 ? static_cast<int16_t>(-difference) : difference;
        moving += static_cast<uint32_t>((mask[x] != 0) & (magnitude > threshold));
    }
    return moving;
}

TREMORA_KERNEL void countShiftedBlock(const uint8_t* __restrict current, uint8_t* __restrict previous,
                                      uint8_t* __restrict quiet, uint8_t* __restrict counts,
                                      uint16_t* __restrict events, const uint8_t* __restrict mask,
                                      uint8_t* __restrict fresh, int width, uint8_t threshold, int16_t shift)
{
    TREMORA_ROWS_APART
    for (int x = 0; x < width; ++x)
        fresh[x] = countPixelShifted(current[x], previous[x], quiet[x], counts[x], events[x], mask[x], threshold,
                                     shift);
}

TREMORA_KERNEL RowTally countShifted(const uint8_t* current, uint8_t* previous, uint8_t* quiet, uint8_t* counts,
                                     uint16_t* events, const uint8_t* mask, int width, uint8_t threshold,
                                     int16_t shift)
{
    return tallyBlocks(quiet, width, [&](int offset, int block, uint8_t* fresh) {
        countShiftedBlock(current + offset, previous + offset, quiet + offset, counts + offset, events + offset,
                          mask + offset, fresh, block, threshold, shift);
    });
}

#undef TREMORA_ROWS_APART
#undef TREMORA_KERNEL

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define TREMORA_AVX2_DISPATCH 1

__attribute__((target("avx2"))) void addAvx2(uint16_t* sums, const uint8_t* row, int width)
{
    add(sums, row, width);
}

__attribute__((target("avx2"))) void slideAvx2(uint16_t* sums, const uint8_t* entering, const uint8_t* leaving,
                                              int width)
{
    slide(sums, entering, leaving, width);
}

__attribute__((target("avx2"))) void meansAvx2(const uint16_t* columnSums, uint8_t* out, int width)
{
    means(columnSums, out, width);
}

__attribute__((target("avx2"))) void countAvx2(const uint8_t* current, uint8_t* previous, uint8_t* quiet,
                                              uint8_t* counts, int width, uint8_t threshold)
{
    count(current, previous, quiet, counts, width, threshold);
}

__attribute__((target("avx2"))) void countBlurredAvx2(const uint16_t* columnSums, uint8_t* previous, uint8_t* quiet,
                                                     uint8_t* counts, int width, uint8_t threshold)
{
    countBlurred(columnSums, previous, quiet, counts, width, threshold);
}

__attribute__((target("avx2"))) RowTally countDetailedAvx2(const uint8_t* current, uint8_t* previous,
                                                          uint8_t* quiet, uint8_t* counts, uint16_t* events,
                                                          const uint8_t* mask, int width, uint8_t threshold)
{
    return countDetailed(current, previous, quiet, counts, events, mask, width, threshold);
}

__attribute__((target("avx2"))) RowTally countBlurredDetailedAvx2(const uint16_t* columnSums, uint8_t* previous,
                                                                 uint8_t* quiet, uint8_t* counts, uint16_t* events,
                                                                 const uint8_t* mask, int width, uint8_t threshold)
{
    return countBlurredDetailed(columnSums, previous, quiet, counts, events, mask, width, threshold);
}

__attribute__((target("avx2"))) LightTally lightAvx2(const uint8_t* current, const uint8_t* previous,
                                                     const uint8_t* mask, int width, uint8_t threshold)
{
    return light(current, previous, [mask](int x) -> uint8_t { return mask[x] != 0 ? 1 : 0; }, width, threshold);
}

__attribute__((target("avx2"))) LightTally lightEverywhereAvx2(const uint8_t* current, const uint8_t* previous,
                                                               int width, uint8_t threshold)
{
    return light(current, previous, [](int) -> uint8_t { return 1; }, width, threshold);
}

__attribute__((target("avx2"))) LightTally countApartWithLightAvx2(const uint8_t* current, const uint8_t* previous,
                                                                   const uint8_t* quiet, uint8_t* quietAfter,
                                                                   uint8_t* counts, int width, uint8_t threshold)
{
    return countApartWithLight(current, previous, quiet, quietAfter, counts, width, threshold);
}

__attribute__((target("avx2"))) LightTally countBlurredApartWithLightAvx2(const uint16_t* columnSums,
                                                                          uint8_t* current, const uint8_t* previous,
                                                                          const uint8_t* quiet, uint8_t* quietAfter,
                                                                          uint8_t* counts, int width,
                                                                          uint8_t threshold)
{
    return countBlurredApartWithLight(columnSums, current, previous, quiet, quietAfter, counts, width, threshold);
}

__attribute__((target("avx2"))) uint32_t movingShiftedAvx2(const uint8_t* current, const uint8_t* previous,
                                                          const uint8_t* mask, int width, int16_t shift,
                                                          uint8_t threshold)
{
    return movingShifted(current, previous, mask, width, shift, threshold);
}

__attribute__((target("avx2"))) RowTally countShiftedAvx2(const uint8_t* current, uint8_t* previous, uint8_t* quiet,
                                                         uint8_t* counts, uint16_t* events, const uint8_t* mask,
                                                         int width, uint8_t threshold, int16_t shift)
{
    return countShifted(current, previous, quiet, counts, events, mask, width, threshold, shift);
}

const bool hasAvx2 = __builtin_cpu_supports("avx2");
#endif

} // namespace

void addRow(uint16_t* sums, const uint8_t* row, int width)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return addAvx2(sums, row, width);
#endif
    add(sums, row, width);
}

void slideRows(uint16_t* sums, const uint8_t* entering, const uint8_t* leaving, int width)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return slideAvx2(sums, entering, leaving, width);
#endif
    slide(sums, entering, leaving, width);
}

void meansOf49(const uint16_t* columnSums, uint8_t* out, int width)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return meansAvx2(columnSums, out, width);
#endif
    means(columnSums, out, width);
}

void countRow(const uint8_t* current, uint8_t* previous, uint8_t* quiet, uint8_t* counts, int width, uint8_t threshold)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countAvx2(current, previous, quiet, counts, width, threshold);
#endif
    count(current, previous, quiet, counts, width, threshold);
}

// Only pairs in which the light or the scene changed come here, so a plain loop does.
void uncountRow(const uint8_t* current, const uint8_t* previous, const uint8_t* quiet, uint8_t* counts, int width,
                uint8_t threshold)
{
    for (int x = 0; x < width; ++x) {
        const uint8_t high = current[x] > previous[x] ? current[x] : previous[x];
        const uint8_t low = current[x] > previous[x] ? previous[x] : current[x];
        const bool newEvent = static_cast<uint8_t>(high - low) > threshold && quiet[x] == kQuietForNewEvent;
        counts[x] = static_cast<uint8_t>(counts[x] - static_cast<uint8_t>(newEvent));
    }
}

void countBlurredRow(const uint16_t* columnSums, uint8_t* previous, uint8_t* quiet, uint8_t* counts, int width,
                     uint8_t threshold)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countBlurredAvx2(columnSums, previous, quiet, counts, width, threshold);
#endif
    countBlurred(columnSums, previous, quiet, counts, width, threshold);
}

void foldRow(const uint8_t* counts, uint8_t* folded, uint16_t* events, int width)
{
    for (int x = 0; x < width; ++x) {
        const uint8_t grown = static_cast<uint8_t>(counts[x] - folded[x]);
        const uint32_t sum = static_cast<uint32_t>(events[x]) + grown;
        events[x] = static_cast<uint16_t>(sum < 65535u ? sum : 65535u);
        folded[x] = counts[x];
    }
}

RowTally countRowDetailed(const uint8_t* current, uint8_t* previous, uint8_t* quiet, uint8_t* counts,
                          uint16_t* events, const uint8_t* mask, int width, uint8_t threshold)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countDetailedAvx2(current, previous, quiet, counts, events, mask, width, threshold);
#endif
    return countDetailed(current, previous, quiet, counts, events, mask, width, threshold);
}

RowTally countBlurredRowDetailed(const uint16_t* columnSums, uint8_t* previous, uint8_t* quiet, uint8_t* counts,
                                 uint16_t* events, const uint8_t* mask, int width, uint8_t threshold)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countBlurredDetailedAvx2(columnSums, previous, quiet, counts, events, mask, width, threshold);
#endif
    return countBlurredDetailed(columnSums, previous, quiet, counts, events, mask, width, threshold);
}

LightTally tallyLight(const uint8_t* current, const uint8_t* previous, const uint8_t* mask, int width,
                      uint8_t threshold)
{
    // Without a mask the loop need not read one.
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2) {
        return mask ? lightAvx2(current, previous, mask, width, threshold)
                    : lightEverywhereAvx2(current, previous, width, threshold);
    }
#endif
    if (mask)
        return light(current, previous, [mask](int x) -> uint8_t { return mask[x] != 0 ? 1 : 0; }, width, threshold);
    return light(current, previous, [](int) -> uint8_t { return 1; }, width, threshold);
}

LightTally countRowApartTallyingLight(const uint8_t* current, const uint8_t* previous, const uint8_t* quiet,
                                      uint8_t* quietAfter, uint8_t* counts, int width, uint8_t threshold)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countApartWithLightAvx2(current, previous, quiet, quietAfter, counts, width, threshold);
#endif
    return countApartWithLight(current, previous, quiet, quietAfter, counts, width, threshold);
}

LightTally countBlurredRowApartTallyingLight(const uint16_t* columnSums, uint8_t* current, const uint8_t* previous,
                                             const uint8_t* quiet, uint8_t* quietAfter, uint8_t* counts, int width,
                                             uint8_t threshold)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countBlurredApartWithLightAvx2(columnSums, current, previous, quiet, quietAfter, counts, width,
                                              threshold);
#endif
    return countBlurredApartWithLight(columnSums, current, previous, quiet, quietAfter, counts, width, threshold);
}

// Only pairs in which the light changed come here, so a plain loop does.
void addDifferences(const uint8_t* current, const uint8_t* previous, const uint8_t* mask, int width,
                    uint32_t* histogram)
{
    for (int x = 0; x < width; ++x) {
        if (mask[x] != 0)
            ++histogram[current[x] - previous[x] + 255];
    }
}

uint32_t movingAfterShift(const uint8_t* current, const uint8_t* previous, const uint8_t* mask, int width, int shift,
                          uint8_t threshold)
{
    const int16_t shift16 = static_cast<int16_t>(shift);
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return movingShiftedAvx2(current, previous, mask, width, shift16, threshold);
#endif
    return movingShifted(current, previous, mask, width, shift16, threshold);
}

RowTally countRowShifted(const uint8_t* current, uint8_t* previous, uint8_t* quiet, uint8_t* counts,
                         uint16_t* events, const uint8_t* mask, int width, uint8_t threshold, int shift)
{
    if (shift == 0)
        return countRowDetailed(current, previous, quiet, counts, events, mask, width, threshold);
    const int16_t shift16 = static_cast<int16_t>(shift);
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return countShiftedAvx2(current, previous, quiet, counts, events, mask, width, threshold, shift16);
#endif
    return countShifted(current, previous, quiet, counts, events, mask, width, threshold, shift16);
}

} // namespace MotionKernels
