// Per-frame costs of the support library on the engine's hot paths.
#include <benchmark/benchmark.h>

#include "CircularQueueThreadSafe.h"
#include "cTTiming.h"
#include "shared_ptr.h"

// Normally defined by the engine; the probes only read it.
int32_t eis_debug = 0;

namespace {

struct Frame {
    long payload = 0;
    cTMutex mutex;
};

// One frame through the queue on one thread, uncontended: the producer's pushLock/unlock and the
// consumer's peekLock/pop/unlock. Four queue-lock and four slot-lock operations.
void BM_QueueRoundTrip(benchmark::State& state) {
    CircularQueueThreadSafe<Frame> queue(static_cast<int>(state.range(0)));
    long n = 0;
    for (auto _ : state) {
        Frame* in = nullptr;
        queue.pushLock(in);
        in->payload = ++n;
        queue.unlock(in);
        Frame* out = nullptr;
        queue.peekLock(out);
        benchmark::DoNotOptimize(out->payload);
        queue.pop(out);
        queue.unlock(out);
    }
}
BENCHMARK(BM_QueueRoundTrip)->Arg(2)->Arg(8);

struct Payload {
    int value = 1;
};

// A copy of an engine pointer and its release: two sequentially consistent atomic updates.
void BM_SharedPtrCopyRelease(benchmark::State& state) {
    shared_ptr<Payload> owner;
    owner.acquire(new Payload, nullptr);
    for (auto _ : state) {
        shared_ptr<Payload> copy(owner);
        benchmark::DoNotOptimize(copy.data);
    }
}
BENCHMARK(BM_SharedPtrCopyRelease);

// One probe mark with a label already in the map (the steady state of a per-frame probe):
// two clock reads and one map assignment.
void BM_TimingMark(benchmark::State& state) {
    cTTiming timing("bench");
    timing("Render");
    for (auto _ : state)
        timing("Render");
}
BENCHMARK(BM_TimingMark);

}  // namespace
