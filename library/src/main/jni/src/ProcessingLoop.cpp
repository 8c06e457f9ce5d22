// The processing thread: the frame queue's only consumer. Each pass asks the stabilization
// library for the head frame's warp grid and, depending on the status, renders the frame with
// that grid, renders it unwarped, or leaves it for a later pass.
#include <unistd.h>

#include <cstring>
#include <exception>

#include "Context.h"
#include "Log.h"
#include "cTTiming.h"

namespace {

// Idle poll interval of the loop, µs: only a 60 fps preview polls faster.
constexpr useconds_t kIdleSleepUs = 10000;
constexpr useconds_t kIdleSleepUs60Fps = 5000;

bool inMask(int status, uint32_t mask) {
    return status >= 0 && status <= 27 && ((mask >> status) & 1u) != 0;
}

}  // namespace

void Context::Run() {
    try {
        int frameRate = android::CameraParameters(mCamera->getParameters()).getPreviewFrameRate();
        useconds_t sleepUs = frameRate == 60 ? kIdleSleepUs60Fps : kIdleSleepUs;
        QLOGI("Context Thread Run, frameRate=%d, sleep_us=%d", frameRate,
              static_cast<int>(sleepUs));
        // Running, unless stop() already asked this thread to end: a stop that comes before the
        // thread gets here must not be overwritten, or the loop would never end and stop()'s
        // join would wait forever. stop() is the only other writer of the state.
        int32_t state = threadState.load(std::memory_order_relaxed);
        if (state != ThreadState::StopRequested)
            threadState.compare_exchange_strong(state, ThreadState::Running,
                                                std::memory_order_relaxed);
        QLOGI("Context Thread");
        while (threadState.load(std::memory_order_relaxed) == ThreadState::Running) {
            cTTiming timing("MainThread()");
            if (eis_debug)
                QLOGW("[MainThread] Entering VStab");
            int rendered = triggerVStab();
            timing("triggerVStab");
            if (eis_debug)
                QLOGW("[MainThread] Sleeping");
            if (rendered == 0)
                usleep(sleepUs);
            timing("sleep");
        }
        QLOGI("Context Thread Exit");
        threadState.store(ThreadState::Exited, std::memory_order_relaxed);
    } catch (const std::exception& e) {
        QLOGW("[Exception] %s", e.what());
        throw;
    }
}

int Context::triggerVStab() {
    cTTiming timing("triggerVStab()");
    if (eis_debug) {
        QLOGW("Frame Queue Length: %d", frameQueue->size());
        QLOGW("[MainThread] peek frame");
    }
    VStabFrame* frame = nullptr;
    if (!frameQueue->peekLock(frame))
        return 0;
    timing("peekFrame");
    if (eis_debug)
        QLOGW("[MainThread] Call VStab");

    vstabMutex.lock();
    int status = vStabWarpGrid(vstabHandle, &frame->info, &vstabOutput);
    vstabMutex.unlock();
    timing("VStab");

    const long long timestamp = frame->info.timestampNs;
    const size_t gridBytes =
        static_cast<size_t>(vstabConfig->gridColumns) * vstabConfig->gridRows * 3 * sizeof(float);
    int result = 0;

    auto renderUnwarpedAndPop = [&]() {
        std::memcpy(vstabOutput.warpVertices, uniform_vrtxArr, gridBytes);
        Render(frame, vstabOutput, timestamp);
        timing("Render");
        VStabFrame* popped = nullptr;
        frameQueue->pop(popped);
        timing("popFrame");
        QLOGW("[MainThread] Pop");
    };

    if (status == VSTAB_STATUS_OK) {
        if (eis_debug) {
            QLOGI("[VStab][Status] Frame Warped (Frame=%d) %lld %lld", outputFrameCount + 1,
                  timestamp, timestamp);
        }
        Render(frame, vstabOutput, timestamp);
        timing("Render");
        if (eis_debug)
            QLOGW("[MainThread] Pop");
        VStabFrame* popped = nullptr;
        frameQueue->pop(popped);
        timing("popFrame");
        result = 1;
    } else if (inMask(status, VSTAB_STATUS_MASK_NO_GYRO_BEFORE)) {
        QLOGI("[VStab][Status] no Gyro Information before Frame %lld (%d)", timestamp, status);
        QLOGI("[VStab][Status] use uniform_vrtxArr to Render");
        renderUnwarpedAndPop();
        result = 1;
    } else if (inMask(status, VSTAB_STATUS_MASK_NEED_MORE_GYRO)) {
        if (eis_debug)
            QLOGI("[VStab][Status] Not Enough Gyro Data (%d)", status);
        int size = frameQueue->size();
        int capacity = frameQueue->getCapacity();
        int force = forceRecordStop.load(std::memory_order_relaxed);
        if (size < capacity - 1 && force == 0) {
            result = 0;
        } else {
            QLOGI("[VStab][Status] forceRecordStop=%d", force);
            QLOGI("[VStab][Status] frameQueue almost full, use uniform_vrtxArr to Render");
            renderUnwarpedAndPop();
            result = 1;
        }
    } else if (status == ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN) {
        QLOGI("[VStab][Status] ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN");
    } else if (status == ZEF_GYRO_V_STAB_INTERP_AFTER_END) {
        QLOGI("[VStab][Status] ZEF_GYRO_V_STAB_INTERP_AFTER_END");
    } else {
        QLOGW("VStab returned error in main loop (%d)", status);
        throw std::runtime_error("VStab returned error in main loop");
    }

    if (eis_debug)
        QLOGW("[MainThread] unlock");
    frameQueue->unlock(frame);
    timing("finish");
    return result;
}
