#include "LargePageMats.h"

#include "LargePages.h"

#include <opencv2/core.hpp>

#include <new>

namespace {

// Data from this many bytes on is mapped on its own.
constexpr std::size_t kOwnMappingFrom = LargePages::kLargePage / 2;

// As the library's own allocator, with the data of large matrices mapped in large pages.
class LargePageAllocator : public cv::MatAllocator {
public:
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step, cv::AccessFlag flags,
                           cv::UMatUsageFlags usage) const override
    {
        // Data the caller owns is wrapped as the library wraps it.
        if (data)
            return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
        size_t total = CV_ELEM_SIZE(type);
        for (int i = dims - 1; i >= 0; --i) {
            if (step)
                step[i] = total;
            total *= static_cast<size_t>(sizes[i]);
        }
        void* memory = total >= kOwnMappingFrom ? LargePages::map(total) : cv::fastMalloc(total);
        if (!memory)
            throw std::bad_alloc();
        auto* block = new cv::UMatData(this);
        block->data = block->origdata = static_cast<uchar*>(memory);
        block->size = total;
        return block;
    }

    bool allocate(cv::UMatData* block, cv::AccessFlag, cv::UMatUsageFlags) const override { return block != nullptr; }

    void deallocate(cv::UMatData* block) const override
    {
        if (!block)
            return;
        if (block->size >= kOwnMappingFrom)
            LargePages::unmap(block->origdata, block->size);
        else
            cv::fastFree(block->origdata);
        delete block;
    }
};

LargePageAllocator largePageAllocator;

} // namespace

namespace LargePageMats {

void create(cv::Mat& mat, cv::Size size, int type, const cv::Scalar& value)
{
    mat.release();
    mat.allocator = &largePageAllocator;
    mat.create(size, type);
    mat.setTo(value);
}

} // namespace LargePageMats
