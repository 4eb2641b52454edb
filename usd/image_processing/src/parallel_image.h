#pragma once

// Work over an image's rows on OpenImageIO's threads, shared by the source units of the library
// (not installed).

#include <functional>

#include <OpenImageIO/imagebufalgo_util.h>

namespace vorel::usd::image_processing {

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

/// ImageBufAlgo::parallel_image with nthreads 0. A thread that waits on OpenImageIO's pool runs
/// queued tasks of other callers too, and the pool hands tasks over and back through atomics in
/// uninstrumented code; under ThreadSanitizer the same order is declared here, or reads of the
/// caller's memory by a task would look like races.
inline void parallelImage(const OIIO::ROI& region, const std::function<void(OIIO::ROI)>& task) {
#if defined(__SANITIZE_THREAD__)
    int handOver = 0;
    __tsan_release(&handOver);
    OIIO::ImageBufAlgo::parallel_image(region, OIIO::paropt(/*maxthreads=*/0), [&](OIIO::ROI roi) {
        __tsan_acquire(&handOver);
        task(roi);
        __tsan_release(&handOver);
    });
    __tsan_acquire(&handOver);
#else
    OIIO::ImageBufAlgo::parallel_image(region, OIIO::paropt(/*maxthreads=*/0), task);
#endif
}

}  // namespace vorel::usd::image_processing
