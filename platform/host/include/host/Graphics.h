// Host-only view of the graphics platform, for tests, benchmarks and tools.
#pragma once

#include <stdint.h>

namespace host {

// Totals since the process started, and what is alive now.
struct GraphicsCounters {
    uint64_t imagesMade = 0;        // EGL images made from GraphicBuffers
    uint64_t sharedImagesMade = 0;  // of which on shared storage (the buffer's own bytes)
    uint64_t uploads = 0;    // content transfers memory -> images (one per unlock; with shared
                             // storage only NV21 buffers have one: the conversion into the picture)
    uint64_t readBacks = 0;  // content transfers image -> memory
    uint32_t imagesLive = 0;       // images not yet destroyed
    uint32_t privateContexts = 0;  // the platform's own GL contexts alive (one per display in use)
};

GraphicsCounters graphicsCounters();

// Whether EGL images of GraphicBuffers made from now on share the buffers' bytes with the driver
// where it allows (the default) or hold copies of them, uploaded on unlock and read back for the
// CPU. Buffers keep the way chosen for their first image until their last image is destroyed.
// For tests and benchmarks of both ways; any thread.
void setImageMemorySharing(bool enabled);

}  // namespace host
