// Ring of recent frame-sync timestamps that answers which sync timestamp is closest to a frame
// timestamp, and learns the average error between the two streams.
//
// Samples are stored already shifted by the expected delta (sample - delta); every successful
// findClosest() folds (closest - query) into an exponential average, and getExpectedDelta()
// returns delta + that average: the current best estimate of the delay between the sync signal
// and the frame. All times are nanoseconds. Messages go to the log tag "NAT" at error priority,
// each starting with "[VSTAB][FSync]".
//
// Ring: 128 slots; empty when the read position equals the write position, so at most 127
// samples are held and an add that would fill the last slot drops the oldest sample. Slots keep
// their old values after being read or dropped (the ring starts zero-filled), and two checks
// look at such stale values on purpose:
//   - addSample compares a new sample with the slot it is about to overwrite (not with the last
//     sample written), so on the first lap everything but a zero is accepted;
//   - removeSamples examines the slot at the read position even when the ring is empty.
//
// Not thread-safe: one thread owns an instance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class FSync {
  public:
    static const char* const TAG;      // "VSTAB][FSync", printed inside the leading "[%s]"
    static const float mAverageAlpha;  // 0.05: weight of a new error in the average

    FSync();
    ~FSync();

    void setExpectedDelta(const int& deltaNs);
    // Expected delta + learned average error, ns.
    int getExpectedDelta();

    // Stores timestamp - expected delta. Refused (with a message) when it is below or equal to
    // the value in the slot about to be written while the ring is not empty.
    void addSample(const unsigned long long& timestampNs);
    // Drops samples from the oldest while they are below `timestampNs` (compared as given,
    // without the expected delta).
    void removeSamples(const unsigned long long& timestampNs);
    // The stored sample nearest to `timestampNs` (the first of equally near ones). Learns the
    // error, then drops every sample older than the answer. Empty ring: returns the query
    // itself, touching nothing. Query 0: returns 0 with a message, touching nothing.
    unsigned long long findClosest(const unsigned long long& timestampNs);

  private:
    // Field order is fixed.
    int32_t mExpectedDelta = 0;           // ns, subtracted from every sample as it is added
    int32_t mAverageError = 0;            // ns, average of (closest - query); 0 = nothing learned
    unsigned long long mPrevClosest = 0;  // closest sample of the previous distinct query, ns
    unsigned long long mPrevQuery = 0;    // previous distinct query, ns
    std::vector<unsigned long long> mSamples;
    size_t mReadPos = 0;   // oldest sample
    size_t mWritePos = 0;  // next free slot

    bool empty() const { return mReadPos == mWritePos; }
    void step(size_t& pos) const;  // advance one slot, wrapping to the start
};
