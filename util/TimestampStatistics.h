// Records the last N timestamps of a stream (frames or gyro samples, ns) and summarises the
// intervals between them: mean and sample standard deviation after rejecting outliers, and how
// many intervals were rejected. A self-contained diagnostic; not thread-safe.
#pragma once

#include <cstdint>

class TimestampStatistics {
  public:
    // Fixed ring of N values. Index 0..capacity-1 addresses the raw storage, not the age order.
    template <typename T>
    class Stack {
      public:
        // Field order is fixed.
        uint8_t full = 0;      // set once the ring has wrapped at least once
        int32_t capacity = 0;  // N
        int32_t next = 0;      // slot written next
        T* values = nullptr;   // N values, owned

        explicit Stack(int capacityIn);
        ~Stack() { delete[] values; }
        Stack(const Stack&) = delete;
        Stack& operator=(const Stack&) = delete;

        // Raw slot i, 0 <= i < capacity; anything else throws "Out of bounds indexing".
        T& operator[](int i);

        int storedCount() const { return full ? capacity : next; }
        int oldestIndex() const { return full ? next : 0; }
    };

    // Throws std::runtime_error when `capacity` is below 1.
    explicit TimestampStatistics(int capacity);
    ~TimestampStatistics();

    // Stores one timestamp, overwriting the oldest once the ring is full.
    TimestampStatistics& operator<<(unsigned long long timestampNs);

    // With fewer than two stored values returns at once and leaves all outputs untouched.
    // Otherwise, over the intervals between consecutive stored values (oldest first): m0 = their
    // mean; an interval d is kept when |d - m0| truncated to an integer is below m0 / 2; then
    // `meanNs` and `stddevNs` (sample deviation, K - 1 divisor) of the K kept intervals,
    // `rejected` = intervals - K and `kept` = K. All arithmetic in single precision; with K of 0
    // or 1 the results are the float divisions by zero (NaN or infinity). Never changes the ring.
    void calcStatistics(float& meanNs, float& stddevNs, int& rejected, int& kept);

    // Logs "<label> <value>" for every stored value from the oldest to the newest, at warning
    // priority under the engine's tag.
    void printGatheredInformation(const char* label);

    Stack<unsigned long long> stack;
};
