// How the host camera and the host gyroscope pace the items of a stream.
#pragma once

namespace host {

enum class Pacing {
    // Items are due at their timestamps' spacing, measured on CLOCK_MONOTONIC from the first
    // item of the stream (a live device). A consumer that falls behind loses items; the
    // stand-in counts them as dropped.
    RealTime,
    // Each item waits until the consumer has room for it (back-pressure): nothing is dropped
    // and the stream runs as fast as it is consumed. Replay tools use this.
    AsFastAsConsumed,
};

}  // namespace host
