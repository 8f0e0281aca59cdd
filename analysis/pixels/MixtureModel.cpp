#include "MixtureModel.h"

#include "LargePages.h"

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <new>
#include <vector>

#include <unistd.h>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#endif

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
struct FrameRates {
    float alpha;
    float keep;
    float prune;
    float pruneBelow;
};

// The same, in every lane.
struct Rates {
    Floats alpha;  // weight given to the new frame
    Floats keep;   // 1 - alpha
    Floats prune;  // negative bias on every weight, so that unsupported modes die out
    Floats pruneBelow;
};

// A mode's fields for one group of kLanes pixels: kFields runs of kLanes floats.
constexpr std::size_t kBlockFloats = kFields * kLanes;

// The model's memory. Every pixel has a first mode from its first frame on, so the first
// modes of all groups lie in one array. Few pixels ever need more (in noisy footage about a
// quarter of the groups need a second), so further modes live in blocks handed out to a group
// as one of its pixels first needs that mode; the pages of blocks never handed out cost
// nothing.
struct ModelMemory {
    std::uint8_t* usedModes;    // modes in use, one byte a pixel
    float* firstModes;          // one block a group
    std::uint32_t* extraModes;  // per group, the block of modes 1, 2, ...; 0 while it has none
    float* blocks;              // blocks for modes past the first; block 0 is never handed out
    std::atomic<std::uint32_t>* blocksUsed;
};

// A group's view of its modes: null where it has no block yet.
struct Group {
    const ModelMemory* memory;
    std::uint32_t* extraModes;
    float* mode[kModes];
};

inline Group groupAt(const ModelMemory& memory, std::size_t at)
{
    const std::size_t index = at / kLanes;
    Group group{&memory, memory.extraModes + index * (kModes - 1), {}};
    group.mode[0] = memory.firstModes + index * kBlockFloats;
    for (int mode = 1; mode < kModes; ++mode) {
        const std::uint32_t block = group.extraModes[mode - 1];
        group.mode[mode] = block ? memory.blocks + block * kBlockFloats : nullptr;
    }
    return group;
}

// One thread's buffers for a row: its pixels split into channels (zero past the width up to
// the stride) and, when asked for, its foreground marks.
struct RowBuffers {
    std::uint8_t* channels[kChannels];
    std::uint8_t* foreground;
};

// The part of a row that one thread learns: model positions [begin, end) of the row starting
// at `rowStart`, all whole groups of eight; those past the width are padding.
struct RowSpan {
    std::size_t rowStart;
    int begin;
    int end;
};

// The update, compiled once for any x86-64 processor and once more for AVX2.
#define TREMORA_KERNEL_TARGET
#define TREMORA_KERNEL_AVX2 0
namespace baseline {
#include "MixtureKernel.inc"
} // namespace baseline
#undef TREMORA_KERNEL_TARGET
#undef TREMORA_KERNEL_AVX2

#if defined(__GNUC__) && defined(__x86_64__)
#define TREMORA_AVX2_DISPATCH 1
#define TREMORA_KERNEL_TARGET __attribute__((target("avx2")))
#define TREMORA_KERNEL_AVX2 1
namespace avx2 {
#include "MixtureKernel.inc"
} // namespace avx2
#undef TREMORA_KERNEL_TARGET
#undef TREMORA_KERNEL_AVX2

const bool hasAvx2 = __builtin_cpu_supports("avx2");
#endif

std::atomic<bool> avx2Allowed{true};

void learnSpan(const ModelMemory& memory, const RowSpan& span, const std::uint8_t* pixels, int width,
               const RowBuffers& buffers, const FrameRates& frameRates)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2 && avx2Allowed.load(std::memory_order_relaxed))
        return avx2::updateSpan(memory, span, pixels, width, buffers, frameRates);
#endif
    baseline::updateSpan(memory, span, pixels, width, buffers, frameRates);
}

FrameRates ratesForFrame(int frame)
{
    // As the library: the rate falls as 1 / (2 n) until the history is full.
    const double rate = 1.0 / std::min(2 * frame, kHistory);
    const float alpha = static_cast<float>(rate);
    const float prune = static_cast<float>(-rate * kComplexityReduction);
    return FrameRates{alpha, 1.0f - alpha, prune, -prune};
}

// Stripes of rows a thread fills when the background image is fetched: a few each, so that a
// thread that gets its core late leaves its share to the others.
constexpr int kBackgroundStripesPerThread = 4;

// Pixels a thread learns in one go: many groups, so that the library's stripes stay large.
constexpr std::size_t kChunkPixels = 1024;

// Learns the pixels of chunks [range.start, range.end) from `count` frames of one size, chunk
// by chunk: a chunk's part of the model stays in the cache from one frame to the next instead
// of passing through memory once a frame. Each group is learnt by one thread, which alone
// gives it blocks.
class ChunksLearner {
public:
    ChunksLearner(const cv::Mat* frames, const FrameRates* rates, int count, cv::Mat* foreground,
                  const ModelMemory& model, int stride)
        : m_frames(frames), m_rates(rates), m_count(count), m_foreground(foreground), m_model(model),
          m_stride(stride)
    {
    }

    void operator()(const cv::Range& range) const
    {
        const std::size_t stride = static_cast<std::size_t>(m_stride);
        std::vector<std::uint8_t> rows(stride * (kChannels + 1), 0);
        const RowBuffers buffers{{rows.data(), rows.data() + stride, rows.data() + 2 * stride},
                                 m_foreground ? rows.data() + 3 * stride : nullptr};
        for (int chunk = range.start; chunk < range.end; ++chunk)
            for (int frame = 0; frame < m_count; ++frame)
                learnChunk(static_cast<std::size_t>(chunk), m_frames[frame], m_rates[frame], buffers);
    }

private:
    void learnChunk(std::size_t chunk, const cv::Mat& frame, const FrameRates& rates, const RowBuffers& buffers) const
    {
        const std::size_t stride = static_cast<std::size_t>(m_stride);
        const std::size_t end = std::min((chunk + 1) * kChunkPixels, stride * static_cast<std::size_t>(frame.rows));
        for (std::size_t at = chunk * kChunkPixels; at < end;) {
            const int y = static_cast<int>(at / stride);
            const RowSpan span{at - at % stride, static_cast<int>(at % stride),
                               static_cast<int>(std::min(stride, at % stride + (end - at)))};
            learnSpan(m_model, span, frame.ptr<std::uint8_t>(y), frame.cols, buffers, rates);
            const int marked = std::min(span.end, frame.cols) - span.begin;
            if (m_foreground && marked > 0)
                std::memcpy(m_foreground->ptr(y) + span.begin, buffers.foreground + span.begin,
                            static_cast<std::size_t>(marked));
            at += static_cast<std::size_t>(span.end - span.begin);
        }
    }

    const cv::Mat* m_frames;
    const FrameRates* m_rates;
    int m_count;
    cv::Mat* m_foreground; // only with one frame
    const ModelMemory& m_model;
    int m_stride;
};

ModelMemory memoryOf(std::uint8_t* memory, std::size_t firstModes, std::size_t extraModes, std::size_t blocks,
                std::atomic<std::uint32_t>& blocksUsed)
{
    return ModelMemory{memory, reinterpret_cast<float*>(memory + firstModes),
                       reinterpret_cast<std::uint32_t*>(memory + extraModes),
                       reinterpret_cast<float*>(memory + blocks), &blocksUsed};
}

std::size_t roundUp(std::size_t value, std::size_t step)
{
    return (value + step - 1) / step * step;
}

} // namespace

void MixtureModel::setAvx2Allowed(bool allowed)
{
    avx2Allowed.store(allowed, std::memory_order_relaxed);
}

MixtureModel::MixtureModel(int threads)
    : m_parallel((threads > 0 ? threads : cv::getNumThreads()) - 1)
{
}

MixtureModel::~MixtureModel()
{
    release();
}

void MixtureModel::release()
{
    LargePages::unmap(m_memory, m_bytes);
    m_memory = nullptr;
    m_bytes = 0;
}

void MixtureModel::start(cv::Size size)
{
    release();
    m_size = size;
    m_stride = static_cast<int>(roundUp(static_cast<std::size_t>(size.width), kLanes));
    const std::size_t pixels = static_cast<std::size_t>(m_stride) * static_cast<std::size_t>(size.height);
    const std::size_t groups = pixels / kLanes;
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    m_firstModesOffset = roundUp(pixels, page);
    m_extraModesOffset = m_firstModesOffset + roundUp(groups * kBlockFloats * sizeof(float), page);
    m_blocksOffset = m_extraModesOffset + roundUp(groups * (kModes - 1) * sizeof(std::uint32_t), page);
    // Room for every group to have all its modes, plus the block never handed out.
    m_bytes = m_blocksOffset + roundUp((groups * (kModes - 1) + 1) * kBlockFloats * sizeof(float), page);
    // Fresh pages cost nothing until written, so blocks never handed out never become
    // resident. Large pages back all of it, blocks included: those are handed out in order,
    // so only the last large page of them holds blocks never used.
    m_memory = static_cast<std::uint8_t*>(LargePages::map(m_bytes));
    if (!m_memory)
        throw std::bad_alloc();
    // The mode counts, the first modes and the block numbers are used by every group from the
    // first frame on. Writing them now spares each of their pages a fault on the first read
    // and a second one, which flushes every core's address cache, on the first write.
    touchPages(m_memory, m_blocksOffset);
    m_blocksUsed.store(1, std::memory_order_relaxed);
    m_frames = 0;
}

void MixtureModel::apply(const cv::Mat& frame, cv::Mat* foreground)
{
    CV_Assert(frame.type() == CV_8UC3 && !frame.empty());
    if (foreground)
        foreground->create(frame.size(), CV_8UC1);
    learn(&frame, 1, foreground);
}

void MixtureModel::applyAll(const std::vector<cv::Mat>& frames)
{
    for (const cv::Mat& frame : frames)
        CV_Assert(frame.type() == CV_8UC3 && !frame.empty());
    std::size_t first = 0;
    while (first < frames.size()) {
        std::size_t end = first + 1;
        while (end < frames.size() && frames[end].size() == frames[first].size())
            ++end;
        learn(frames.data() + first, static_cast<int>(end - first), nullptr);
        first = end;
    }
}

void MixtureModel::learn(const cv::Mat* frames, int count, cv::Mat* foreground)
{
    if (!m_memory || frames[0].size() != m_size)
        start(frames[0].size());
    const ModelMemory model = memoryOf(m_memory, m_firstModesOffset, m_extraModesOffset, m_blocksOffset, m_blocksUsed);
    std::vector<FrameRates> rates;
    for (int i = 0; i < count; ++i)
        rates.push_back(ratesForFrame(++m_frames));
    const std::size_t pixels = static_cast<std::size_t>(m_stride) * static_cast<std::size_t>(m_size.height);
    const int chunks = static_cast<int>(roundUp(pixels, kChunkPixels) / kChunkPixels);
    // Stripes of about 65,536 pixels, as the library's.
    const int stripes = std::clamp(static_cast<int>(frames[0].total() >> 16), 1, chunks);
    const ChunksLearner learner(frames, rates.data(), count, foreground, model, m_stride);
    const auto learnStripe = [&](int stripe) {
        learner(cv::Range(ParallelStripes::firstOf(stripe, stripes, chunks),
                          ParallelStripes::firstOf(stripe + 1, stripes, chunks)));
    };
    // Passed by reference, so that wrapping it allocates nothing a call.
    m_parallel.run(stripes, std::cref(learnStripe));
}

// Writes a zero, which a new mapping holds already, into every small page of the `bytes` at
// `memory`: the system clears each page it maps, so one write a page makes it resident
// without clearing it a second time. Each new page costs the system a fault and a clear,
// which on a virtual machine may wait for the host: the model's threads share them, a large
// page each at a time.
void MixtureModel::touchPages(std::uint8_t* memory, std::size_t bytes)
{
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const int stripes = static_cast<int>(roundUp(bytes, LargePages::kLargePage) / LargePages::kLargePage);
    const auto touchStripe = [&](int stripe) {
        const std::size_t begin = static_cast<std::size_t>(stripe) * LargePages::kLargePage;
        const std::size_t end = std::min(begin + LargePages::kLargePage, bytes);
        for (std::size_t at = begin; at < end; at += page)
            memory[at] = 0;
    };
    m_parallel.run(stripes, std::cref(touchStripe));
}

namespace {

// The background of row `y` (`width` pixels, the row's model positions starting at
// `rowStart`): per pixel, the weighted mean of its heaviest modes up to the background's
// share of the weight, as the library computes it.
template <typename Value>
void fillBackgroundRow(const ModelMemory& model, std::size_t rowStart, int width, Value* out)
{
    for (int groupStart = 0; groupStart < width; groupStart += kLanes) {
        const Group group = groupAt(model, rowStart + static_cast<std::size_t>(groupStart));
        const int lanes = std::min(kLanes, width - groupStart);
        for (int lane = 0; lane < lanes; ++lane) {
            const int x = groupStart + lane;
            float sum[kChannels] = {0.0f, 0.0f, 0.0f};
            float totalWeight = 0.0f;
            for (int mode = 0; mode < model.usedModes[rowStart + static_cast<std::size_t>(x)]; ++mode) {
                const float* fields = group.mode[mode];
                const float weight = fields[kWeight * kLanes + lane];
                for (int channel = 0; channel < kChannels; ++channel)
                    sum[channel] += weight * fields[(kMean + channel) * kLanes + lane];
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

} // namespace

// Rows are filled on the model's threads: the image is fetched while the pass waits for it.
template <typename Value>
void MixtureModel::fillBackground(cv::Mat& background) const
{
    const ModelMemory model = memoryOf(m_memory, m_firstModesOffset, m_extraModesOffset, m_blocksOffset, m_blocksUsed);
    const int rows = m_size.height;
    const int stripes = std::min(rows, kBackgroundStripesPerThread * (m_parallel.helpers() + 1));
    const auto fillStripe = [&](int stripe) {
        const int end = ParallelStripes::firstOf(stripe + 1, stripes, rows);
        for (int y = ParallelStripes::firstOf(stripe, stripes, rows); y < end; ++y)
            fillBackgroundRow(model, static_cast<std::size_t>(y) * static_cast<std::size_t>(m_stride), m_size.width,
                              background.ptr<Value>(y));
    };
    m_parallel.run(stripes, std::cref(fillStripe));
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
