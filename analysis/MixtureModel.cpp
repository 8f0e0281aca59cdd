#include "MixtureModel.h"

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include <sys/mman.h>
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

struct Planes {
    float* field[kModes][kFields];
    std::uint8_t* usedModes;
    // Per page's worth of pixels: how many of their modes' pages have been written.
    std::uint8_t* writtenModes;
    std::size_t pagePixels;
};

// One thread's buffers for a row: its pixels split into channels (zero past the width up to
// the stride) and, when asked for, its foreground marks.
struct RowBuffers {
    std::uint8_t* channels[kChannels];
    std::uint8_t* foreground;
};

// The part of a row that one thread learns: plane positions [begin, end) of the row starting
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

void learnSpan(const Planes& planes, const RowSpan& span, const std::uint8_t* pixels, int width,
               const RowBuffers& buffers, const FrameRates& frameRates)
{
#ifdef TREMORA_AVX2_DISPATCH
    if (hasAvx2 && avx2Allowed.load(std::memory_order_relaxed))
        return avx2::updateSpan(planes, span, pixels, width, buffers, frameRates);
#endif
    baseline::updateSpan(planes, span, pixels, width, buffers, frameRates);
}

FrameRates ratesForFrame(int frame)
{
    // As the library: the rate falls as 1 / (2 n) until the history is full.
    const double rate = 1.0 / std::min(2 * frame, kHistory);
    const float alpha = static_cast<float>(rate);
    const float prune = static_cast<float>(-rate * kComplexityReduction);
    return FrameRates{alpha, 1.0f - alpha, prune, -prune};
}

// Learns the pixels of plane pages [range.start, range.end) of one frame. Each page's pixels
// are learnt by one thread, which thus alone writes its modes' pages ahead.
class PagesLearner : public cv::ParallelLoopBody {
public:
    PagesLearner(const cv::Mat& frame, const FrameRates& rates, cv::Mat* foreground, const Planes& planes,
                 int stride)
        : m_frame(frame), m_rates(rates), m_foreground(foreground), m_planes(planes), m_stride(stride)
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
    const FrameRates& m_rates;
    cv::Mat* m_foreground;
    const Planes& m_planes;
    int m_stride;
};

} // namespace

void MixtureModel::setAvx2Allowed(bool allowed)
{
    avx2Allowed.store(allowed, std::memory_order_relaxed);
}

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
    Planes planes;
    for (int mode = 0; mode < kModes; ++mode)
        for (int field = 0; field < kFields; ++field)
            planes.field[mode][field] = plane(mode, field);
    planes.usedModes = usedModes();
    planes.writtenModes = m_writtenModes.data();
    planes.pagePixels = m_pagePixels;
    const FrameRates rates = ratesForFrame(++m_frames);
    // Stripes of about 65,536 pixels, as the library's.
    cv::parallel_for_(cv::Range(0, static_cast<int>(m_writtenModes.size())),
                      PagesLearner(frame, rates, foreground, planes, m_stride),
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
