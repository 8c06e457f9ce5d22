// Host-only view of the graphics platform, for tests, benchmarks and tools.
#pragma once

#include <stdint.h>

namespace host {

// Totals since the process started, and what is alive now.
struct GraphicsCounters {
    uint64_t imagesMade = 0;       // EGL images made from GraphicBuffers
    uint64_t uploads = 0;          // content transfers memory -> images (one per unlock)
    uint64_t readBacks = 0;        // content transfers image -> memory
    uint32_t imagesLive = 0;       // images not yet destroyed
    uint32_t privateContexts = 0;  // the platform's own GL contexts alive (one per display in use)
};

GraphicsCounters graphicsCounters();

}  // namespace host
