#include "MixtureModel.h"

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

// Built with -ffp-contract=off (see CMakeLists.txt): a fused multiply-add would round
// differently from the library's separate multiply and add.

namespace {

// The library's defaults for the model.
constexpr int kModes = 5;
constexpr int kHistory = 500;
constexpr float kMatchThreshold = 3.0f * 3.0f;      // squared distance, in variances, of a match
constexpr float kBackgroundThreshold = 4.0f * 4.0f; // ... of a pixel that shows the background
constexpr float kBackgroundRatio = 0.9f;            // weight that makes up the background
constexpr float kInitialVariance = 15.0f;
constexpr float kMinVariance = 4.0f;
constexpr float kMaxVariance = 5 * kInitialVariance;
constexpr float kComplexityReduction = 0.05f;

constexpr int kChannels = 3;
// Per mode: weight, variance and one mean a channel.
constexpr int kWeight = 0;
constexpr int kVariance = 1;
constexpr int kMean = 2;
constexpr int kFields = kMean + kChannels;

constexpr int kLanes = 8;

typedef float Floats __attribute__((vector_size(kLanes * sizeof(float))));
typedef std::int32_t Ints __attribute__((vector_size(kLanes * sizeof(std::int32_t))));
typedef std::uint8_t Bytes __attribute__((vector_size(kLanes)));
typedef long long Longs __attribute__((vector_size(kLanes * sizeof(std::int32_t))));

// The model's learning rate for one frame, as the library derives it from the frame count.
struct Rates {
    Floats alpha;  // weight given to the new frame
    Floats keep;   // 1 - alpha
    Floats prune;  // negative bias on every weight, so that unsupported modes die out
    Floats pruneBelow;
};

struct Planes {
    float* field[kModes][kFields];
    std::uint8_t* usedModes;
    // Per page's worth of pixels: how many of their modes' pages have been written.
    std::uint8_t* writtenModes;
    std::size_t pagePixels;
};

// The helpers and the update below are inlined into one copy per instruction set.
#define TREMORA_INLINE inline __attribute__((always_inline))

TREMORA_INLINE Floats splat(float value)
{
    return Floats{value, value, value, value, value, value, value, value};
}

TREMORA_INLINE Ints splat(std::int32_t value)
{
    return Ints{value, value, value, value, value, value, value, value};
}

TREMORA_INLINE Floats load(const float* at)
{
    Floats values;
    std::memcpy(&values, at, sizeof values);
    return values;
}

// Eight 8-bit values as floats, exactly.
TREMORA_INLINE Floats loadBytes(const std::uint8_t* at)
{
    Bytes values;
    std::memcpy(&values, at, sizeof values);
    return __builtin_convertvector(values, Floats);
}

TREMORA_INLINE void store(float* at, Floats values)
{
    std::memcpy(at, &values, sizeof values);
}

TREMORA_INLINE Floats select(Ints where, Floats yes, Floats no)
{
    return reinterpret_cast<Floats>((reinterpret_cast<Ints>(yes) & where) | (reinterpret_cast<Ints>(no) & ~where));
}

TREMORA_INLINE Ints select(Ints where, Ints yes, Ints no)
{
    return (yes & where) | (no & ~where);
}

TREMORA_INLINE bool any(Ints lanes)
{
    const Longs halves = reinterpret_cast<Longs>(lanes);
    return (halves[0] | halves[1] | halves[2] | halves[3]) != 0;
}

TREMORA_INLINE void storeWhere(float* at, Ints where, Floats values)
{
    store(at, select(where, values, load(at)));
}

TREMORA_INLINE Ints loadModeCounts(const std::uint8_t* at)
{
    return Ints{at[0], at[1], at[2], at[3], at[4], at[5], at[6], at[7]};
}

TREMORA_INLINE void storeModeCounts(std::uint8_t* at, Ints counts)
{
    for (int lane = 0; lane < kLanes; ++lane)
        at[lane] = static_cast<std::uint8_t>(counts[lane]);
}

// A page first read is the system's shared zero page, and the write after it costs a second
// fault, which flushes every core's address cache. A new mode's plane is read before it is
// written, so its pages are written (with the zeros they hold) before their first use.
TREMORA_INLINE void writeModeAhead(const Planes& planes, std::size_t at, int mode)
{
    const std::size_t page = at / planes.pagePixels;
    if (mode < planes.writtenModes[page])
        return;
    for (int field = 0; field < kFields; ++field)
        std::memset(planes.field[mode][field] + page * planes.pagePixels, 0, planes.pagePixels * sizeof(float));
    planes.writtenModes[page] = static_cast<std::uint8_t>(mode + 1);
}

// Exchanges modes `upper` and `upper - 1` (all fields) in the lanes of `where`.
TREMORA_INLINE void swapModes(const Planes& planes, std::size_t at, int upper, Ints where)
{
    for (int field = 0; field < kFields; ++field) {
        float* below = planes.field[upper][field] + at;
        float* above = planes.field[upper - 1][field] + at;
        const Floats belowValues = load(below);
        const Floats aboveValues = load(above);
        store(below, select(where, aboveValues, belowValues));
        store(above, select(where, belowValues, aboveValues));
    }
}

// A mode that matches the pixel moves towards it, gains weight and moves up past the modes
// it now outweighs. Returns in each lane how many places the mode moved.
TREMORA_INLINE Ints updateMatchedMode(const Planes& planes, std::size_t at, int mode, Ints matched,
                                      const Floats (&difference)[kChannels], Floats distance2, Floats variance,
                                      Floats& weight, const Rates& rates)
{
    const Floats grown = weight + rates.alpha;
    const Floats step = rates.alpha / grown;
    weight = select(matched, grown, weight);
    for (int channel = 0; channel < kChannels; ++channel) {
        float* mean = planes.field[mode][kMean + channel] + at;
        storeWhere(mean, matched, load(mean) - step * difference[channel]);
    }
    Floats updated = variance + step * (distance2 - variance);
    updated = select(updated < splat(kMinVariance), splat(kMinVariance), updated);
    updated = select(splat(kMaxVariance) < updated, splat(kMaxVariance), updated);
    storeWhere(planes.field[mode][kVariance] + at, matched, updated);

    Ints moves = splat(0);
    Ints moving = matched;
    for (int upper = mode; upper > 0; --upper) {
        moving &= ~(weight < load(planes.field[upper - 1][kWeight] + at));
        if (!any(moving))
            break;
        swapModes(planes, at, upper, moving);
        moves -= moving;
    }
    return moves;
}

// Stores the new weight of `mode`, which in lanes where it matched has moved up `moves`
// places.
TREMORA_INLINE void storeWeight(const Planes& planes, std::size_t at, int mode, Ints active, Ints moves,
                                Floats weight)
{
    storeWhere(planes.field[mode][kWeight] + at, active & (moves == splat(0)), weight);
    const Ints moved = active & ~(moves == splat(0));
    if (!any(moved))
        return;
    for (int place = 0; place < mode; ++place)
        storeWhere(planes.field[place][kWeight] + at, moved & (moves == splat(mode - place)), weight);
}

// Ages every mode, updates the first one that matches the pixel and drops modes whose weight
// falls below zero. Returns the lanes where a mode matched; `background` gets the lanes that
// lie close to a mode among the heaviest that make up the background.
TREMORA_INLINE Ints ageAndMatch(const Planes& planes, std::size_t at, const Floats (&pixel)[kChannels],
                                Ints& usedModes, Floats& totalWeight, Ints& background, const Rates& rates)
{
    Ints matchedAny = splat(0);
    for (int mode = 0; mode < kModes; ++mode) {
        const Ints active = splat(mode) < usedModes;
        if (!any(active))
            break;
        Floats weight = rates.keep * load(planes.field[mode][kWeight] + at) + rates.prune;
        Ints moves = splat(0);
        const Ints unmatched = active & ~matchedAny;
        if (any(unmatched)) {
            const Floats variance = load(planes.field[mode][kVariance] + at);
            Floats difference[kChannels];
            for (int channel = 0; channel < kChannels; ++channel)
                difference[channel] = load(planes.field[mode][kMean + channel] + at) - pixel[channel];
            const Floats distance2 = difference[0] * difference[0] + difference[1] * difference[1]
                                     + difference[2] * difference[2];
            background |= unmatched & (totalWeight < splat(kBackgroundRatio))
                          & (distance2 < splat(kBackgroundThreshold) * variance);
            const Ints matched = unmatched & (distance2 < splat(kMatchThreshold) * variance);
            if (any(matched)) {
                matchedAny |= matched;
                moves = updateMatchedMode(planes, at, mode, matched, difference, distance2, variance, weight, rates);
            }
        }
        const Ints pruned = active & (weight < rates.pruneBelow);
        weight = select(pruned, splat(0.0f), weight);
        usedModes += pruned;
        storeWeight(planes, at, mode, active, moves, weight);
        totalWeight = select(active, totalWeight + weight, totalWeight);
    }
    return matchedAny;
}

TREMORA_INLINE void normaliseWeights(const Planes& planes, std::size_t at, Ints usedModes, Floats totalWeight)
{
    const Ints magnitude = reinterpret_cast<Ints>(totalWeight) & splat(0x7fffffff);
    const Ints significant = splat(FLT_EPSILON) < reinterpret_cast<Floats>(magnitude);
    const Floats scale = select(significant, splat(1.0f) / totalWeight, splat(0.0f));
    for (int mode = 0; mode < kModes; ++mode) {
        const Ints active = splat(mode) < usedModes;
        if (!any(active))
            break;
        float* weight = planes.field[mode][kWeight] + at;
        storeWhere(weight, active, load(weight) * scale);
    }
}

// Where no mode matched, the pixel starts a new mode (replacing the weakest when all are in
// use) with a small weight, which then moves up past weaker modes.
TREMORA_INLINE void addModes(const Planes& planes, std::size_t at, const Floats (&pixel)[kChannels],
                             Ints fresh, Ints& usedModes, const Rates& rates)
{
    const Ints full = usedModes == splat(kModes);
    const Ints slot = select(full, splat(kModes - 1), usedModes);
    usedModes = select(fresh & ~full, usedModes + splat(1), usedModes);
    const Floats newWeight = select(usedModes == splat(1), splat(1.0f), rates.alpha);
    for (int mode = 0; mode < kModes; ++mode) {
        const Ints here = fresh & (slot == splat(mode));
        const Ints others = fresh & (splat(mode) < usedModes - splat(1));
        // Modes no lane uses stay unwritten, so that their pages need not become resident.
        if (!any(here | others))
            continue;
        writeModeAhead(planes, at, mode);
        float* weight = planes.field[mode][kWeight] + at;
        const Floats old = load(weight);
        store(weight, select(here, newWeight, select(others, old * rates.keep, old)));
        if (!any(here))
            continue;
        storeWhere(planes.field[mode][kVariance] + at, here, splat(kInitialVariance));
        for (int channel = 0; channel < kChannels; ++channel)
            storeWhere(planes.field[mode][kMean + channel] + at, here, pixel[channel]);
    }

    Ints stopped = ~fresh;
    for (int upper = kModes - 1; upper > 0; --upper) {
        const Ints considered = ~stopped & (splat(upper) < usedModes);
        if (!any(considered))
            continue;
        const Ints up = considered & ~(rates.alpha < load(planes.field[upper - 1][kWeight] + at));
        stopped |= considered & ~up;
        swapModes(planes, at, upper, up);
    }
}

// Returns the lanes that show the background.
TREMORA_INLINE Ints updateGroup(const Planes& planes, std::size_t at, const std::uint8_t* const (&channels)[kChannels],
                                const Rates& rates)
{
    const Floats pixel[kChannels] = {loadBytes(channels[0]), loadBytes(channels[1]), loadBytes(channels[2])};
    Ints usedModes = loadModeCounts(planes.usedModes + at);
    Floats totalWeight = splat(0.0f);
    Ints background = splat(0);
    const Ints matched = ageAndMatch(planes, at, pixel, usedModes, totalWeight, background, rates);
    normaliseWeights(planes, at, usedModes, totalWeight);
    if (any(~matched))
        addModes(planes, at, pixel, ~matched, usedModes, rates);
    storeModeCounts(planes.usedModes + at, usedModes);
    return background;
}

// One thread's buffers for a row: its pixels split into channels (zero past the width up to
// the stride) and, when asked for, its foreground marks.
struct RowBuffers {
    std::uint8_t* channels[kChannels];
    std::uint8_t* foreground;
};

TREMORA_INLINE void splitRow(const std::uint8_t* __restrict pixels, int width, std::uint8_t* __restrict first,
                             std::uint8_t* __restrict second, std::uint8_t* __restrict third)
{
    for (int x = 0; x < width; ++x) {
        first[x] = pixels[kChannels * x];
        second[x] = pixels[kChannels * x + 1];
        third[x] = pixels[kChannels * x + 2];
    }
}

// The part of a row that one thread learns: plane positions [begin, end) of the row starting
// at `rowStart`, all whole groups of eight; those past the width are padding.
struct RowSpan {
    std::size_t rowStart;
    int begin;
    int end;
};

// Learns one span of a row of `width` R,G,B pixels. With foreground marks asked for, marks
// each pixel of the span 0 for background, 255 otherwise.
TREMORA_INLINE void updateSpan(const Planes& planes, const RowSpan& span, const std::uint8_t* pixels, int width,
                               const RowBuffers& buffers, const Rates& rates)
{
    const int pixelsEnd = std::min(span.end, width);
    if (span.begin < pixelsEnd)
        splitRow(pixels + kChannels * span.begin, pixelsEnd - span.begin, buffers.channels[0] + span.begin,
                 buffers.channels[1] + span.begin, buffers.channels[2] + span.begin);
    for (int x = span.begin; x < span.end; x += kLanes) {
        const std::uint8_t* const group[kChannels] = {buffers.channels[0] + x, buffers.channels[1] + x,
                                                      buffers.channels[2] + x};
        const Ints background = updateGroup(planes, span.rowStart + static_cast<std::size_t>(x), group, rates);
        if (buffers.foreground)
            for (int lane = 0; lane < kLanes; ++lane)
                buffers.foreground[x + lane] = background[lane] ? 0 : 255;
    }
}

#undef TREMORA_INLINE

void updateSpanBaseline(const Planes& planes, const RowSpan& span, const std::uint8_t* pixels, int width,
                        const RowBuffers& buffers, const Rates& rates)
{
    updateSpan(planes, span, pixels, width, buffers, rates);
}

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define TREMORA_AVX2_DISPATCH 1

__attribute__((target("avx2"))) void updateSpanAvx2(const Planes& planes, const RowSpan& span,
                                                   const std::uint8_t* pixels, int width, const RowBuffers& buffers,
                                                   const Rates& rates)
{
    updateSpan(planes, span, pixels, width, buffers, rates);
}

const bool hasAvx2 = __builtin_cpu_supports("avx2");
#endif

void learnSpan(const Planes& planes, const RowSpan& span, const std::uint8_t* pixels, int width,
               const RowBuffers& buffers, const Rates& rates)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2)
        return updateSpanAvx2(planes, span, pixels, width, buffers, rates);
#endif
    updateSpanBaseline(planes, span, pixels, width, buffers, rates);
}

Rates ratesForFrame(int frame)
{
    // As the library: the rate falls as 1 / (2 n) until the history is full.
    const double rate = 1.0 / std::min(2 * frame, kHistory);
    const float alpha = static_cast<float>(rate);
    const float prune = static_cast<float>(-rate * kComplexityReduction);
    return Rates{splat(alpha), splat(1.0f - alpha), splat(prune), splat(-prune)};
}

// Learns the pixels of plane pages [range.start, range.end) of one frame. Each page's pixels
// are learnt by one thread, which thus alone writes its modes' pages ahead.
class PagesLearner : public cv::ParallelLoopBody {
public:
    PagesLearner(const cv::Mat& frame, cv::Mat* foreground, const Planes& planes, int stride, const Rates& rates)
        : m_frame(frame), m_foreground(foreground), m_planes(planes), m_stride(stride), m_rates(rates)
    {
    }

    void operator()(const cv::Range& range) const override
    {
        const std::size_t stride = static_cast<std::size_t>(m_stride);
        const std::size_t pixels = stride * static_cast<std::size_t>(m_frame.rows);
        std::vector<std::uint8_t> memory(stride * (kChannels + 1), 0);
        const RowBuffers buffers{{memory.data(), memory.data() + stride, memory.data() + 2 * stride},
                                 m_foreground ? memory.data() + 3 * stride : nullptr};
        const std::size_t end = std::min(static_cast<std::size_t>(range.end) * m_planes.pagePixels, pixels);
        for (std::size_t at = static_cast<std::size_t>(range.start) * m_planes.pagePixels; at < end;) {
            const int y = static_cast<int>(at / stride);
            const RowSpan span{at - at % stride, static_cast<int>(at % stride),
                               static_cast<int>(std::min(stride, at % stride + (end - at)))};
            learnSpan(m_planes, span, m_frame.ptr<std::uint8_t>(y), m_frame.cols, buffers, m_rates);
            const int marked = std::min(span.end, m_frame.cols) - span.begin;
            if (m_foreground && marked > 0)
                std::memcpy(m_foreground->ptr(y) + span.begin, buffers.foreground + span.begin,
                            static_cast<std::size_t>(marked));
            at += static_cast<std::size_t>(span.end - span.begin);
        }
    }

private:
    const cv::Mat& m_frame;
    cv::Mat* m_foreground;
    const Planes& m_planes;
    int m_stride;
    const Rates& m_rates;
};

} // namespace

MixtureModel::MixtureModel() = default;

MixtureModel::~MixtureModel()
{
    release();
}

void MixtureModel::release()
{
    if (m_memory)
        munmap(m_memory, m_bytes);
    m_memory = nullptr;
    m_bytes = 0;
}

void MixtureModel::start(cv::Size size)
{
    release();
    m_size = size;
    m_stride = (size.width + kLanes - 1) / kLanes * kLanes;
    const std::size_t pixels = static_cast<std::size_t>(m_stride) * static_cast<std::size_t>(size.height);
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    m_pagePixels = page / sizeof(float);
    m_planePixels = (pixels + m_pagePixels - 1) / m_pagePixels * m_pagePixels;
    m_planesOffset = (pixels + page - 1) / page * page;
    m_bytes = m_planesOffset + m_planePixels * kModes * kFields * sizeof(float);
    // Fresh anonymous pages cost nothing until written, so the modes no pixel reaches never
    // become resident.
    void* memory = mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    m_memory = static_cast<std::uint8_t*>(memory);
    // Every pixel uses the mode counts and its first mode from the first frame on. Writing
    // them now, in large pages where the system allows, spares each of their pages a fault on
    // the first read and a second one, which flushes every core's address cache, on the
    // first write.
    const std::size_t firstMode = m_planesOffset + m_planePixels * kFields * sizeof(float);
    madvise(m_memory, firstMode, MADV_HUGEPAGE);
    std::memset(m_memory, 0, firstMode);
    m_writtenModes.assign(m_planePixels / m_pagePixels, 1);
    m_frames = 0;
}

float* MixtureModel::plane(int mode, int field) const
{
    return reinterpret_cast<float*>(m_memory + m_planesOffset)
           + (static_cast<std::size_t>(mode) * kFields + static_cast<std::size_t>(field)) * m_planePixels;
}

std::uint8_t* MixtureModel::usedModes() const
{
    return m_memory;
}

void MixtureModel::apply(const cv::Mat& frame, cv::Mat* foreground)
{
    CV_Assert(frame.type() == CV_8UC3 && !frame.empty());
    if (foreground)
        foreground->create(frame.size(), CV_8UC1);
    if (!m_memory || frame.size() != m_size)
        start(frame.size());
    ++m_frames;
    Planes planes;
    for (int mode = 0; mode < kModes; ++mode)
        for (int field = 0; field < kFields; ++field)
            planes.field[mode][field] = plane(mode, field);
    planes.usedModes = usedModes();
    planes.writtenModes = m_writtenModes.data();
    planes.pagePixels = m_pagePixels;
    const Rates rates = ratesForFrame(m_frames);
    // Stripes of about 65,536 pixels, as the library's.
    cv::parallel_for_(cv::Range(0, static_cast<int>(m_writtenModes.size())),
                      PagesLearner(frame, foreground, planes, m_stride, rates),
                      static_cast<double>(frame.total()) / (1 << 16));
}

template <typename Value>
void MixtureModel::fillBackground(cv::Mat& background) const
{
    const std::uint8_t* used = usedModes();
    for (int y = 0; y < m_size.height; ++y) {
        Value* out = background.ptr<Value>(y);
        for (int x = 0; x < m_size.width; ++x) {
            const std::size_t at = static_cast<std::size_t>(y) * static_cast<std::size_t>(m_stride) + x;
            float sum[kChannels] = {0.0f, 0.0f, 0.0f};
            float totalWeight = 0.0f;
            for (int mode = 0; mode < used[at]; ++mode) {
                const float weight = plane(mode, kWeight)[at];
                for (int channel = 0; channel < kChannels; ++channel)
                    sum[channel] += weight * plane(mode, kMean + channel)[at];
                totalWeight += weight;
                if (totalWeight > kBackgroundRatio)
                    break;
            }
            const float scale = std::abs(totalWeight) > FLT_EPSILON ? 1.0f / totalWeight : 0.0f;
            for (int channel = 0; channel < kChannels; ++channel)
                out[kChannels * x + channel] = cv::saturate_cast<Value>(sum[channel] * scale);
        }
    }
}

void MixtureModel::backgroundImage(cv::Mat& background, int depth) const
{
    CV_Assert(depth == CV_8U || depth == CV_32F);
    if (m_frames == 0) {
        background.release();
        return;
    }
    background.create(m_size, CV_MAKETYPE(depth, kChannels));
    if (depth == CV_8U)
        fillBackground<std::uint8_t>(background);
    else
        fillBackground<float>(background);
}
