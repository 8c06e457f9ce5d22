#include "TimestampStatistics.h"

#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "Log.h"

template <typename T>
TimestampStatistics::Stack<T>::Stack(int capacityIn) : capacity(capacityIn) {
    if (capacityIn < 1) {
        throw std::runtime_error("TimestampStatistics needs a capacity of at least 1");
    }
    values = new T[static_cast<size_t>(capacityIn)]();
}

template <typename T>
T& TimestampStatistics::Stack<T>::operator[](int i) {
    if (i < 0 || i >= capacity)
        throw std::runtime_error("Out of bounds indexing");
    return values[i];
}

template class TimestampStatistics::Stack<unsigned long long>;

// The ring's fields in their fixed order: flag, capacity and next index in the first three
// 32-bit words, then the pointer (at byte 12 with 32-bit pointers, 16 with 64-bit ones).
using TimestampStack = TimestampStatistics::Stack<unsigned long long>;
static_assert(offsetof(TimestampStack, capacity) == 4 && offsetof(TimestampStack, next) == 8,
              "TimestampStatistics::Stack field order");
static_assert(offsetof(TimestampStack, values) == (sizeof(void*) == 4 ? 12 : 16),
              "TimestampStatistics::Stack field order");

TimestampStatistics::TimestampStatistics(int capacity) : stack(capacity) {}

TimestampStatistics::~TimestampStatistics() = default;

TimestampStatistics& TimestampStatistics::operator<<(unsigned long long timestampNs) {
    stack[stack.next] = timestampNs;
    ++stack.next;
    if (stack.next == stack.capacity) {
        stack.full = 1;
        stack.next = 0;
    }
    return *this;
}

void TimestampStatistics::calcStatistics(float& meanNs, float& stddevNs, int& rejected, int& kept) {
    const int count = stack.storedCount();
    if (count < 2)
        return;
    const int oldest = stack.oldestIndex();
    const int intervals = count - 1;

    auto interval = [&](int i) -> unsigned long long {
        return stack[(oldest + i + 1) % stack.capacity] - stack[(oldest + i) % stack.capacity];
    };

    float sum = 0.0f;
    for (int i = 0; i < intervals; ++i)
        sum += static_cast<float>(interval(i));
    const float firstMean = sum / static_cast<float>(intervals);
    const float limit = 0.5f * firstMean;

    // The distance is truncated to an integer before the comparison. A distance of 2^63 or more
    // cannot be below half of any mean of 64-bit intervals, so it is rejected without the
    // (out-of-range) conversion.
    auto keep = [&](unsigned long long d) {
        float distance = std::fabs(static_cast<float>(d) - firstMean);
        if (distance >= 9223372036854775808.0f)
            return false;
        return static_cast<float>(static_cast<long long>(distance)) < limit;
    };

    int keptCount = 0;
    float keptSum = 0.0f;
    for (int i = 0; i < intervals; ++i) {
        unsigned long long d = interval(i);
        if (!keep(d))
            continue;
        ++keptCount;
        keptSum += static_cast<float>(d);
    }
    const float mean = keptSum / static_cast<float>(keptCount);
    float squares = 0.0f;
    for (int i = 0; i < intervals; ++i) {
        unsigned long long d = interval(i);
        if (!keep(d))
            continue;
        float diff = static_cast<float>(d) - mean;
        squares += diff * diff;
    }

    meanNs = mean;
    stddevNs = std::sqrt(squares / static_cast<float>(keptCount - 1));
    rejected = intervals - keptCount;
    kept = keptCount;
}

void TimestampStatistics::printGatheredInformation(const char* label) {
    const int count = stack.storedCount();
    const int oldest = stack.oldestIndex();
    for (int i = 0; i < count; ++i) {
        QLOGW("%s %lld", label, static_cast<long long>(stack[(oldest + i) % stack.capacity]));
    }
}
