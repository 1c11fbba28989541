// Slots of a sequence that one thread takes by the hundred, so that others need not wait for it.
#pragma once

#include "kelpa/foundation/sequence.h"

#include <cstdint>
#include <utility>

namespace Kelpa {

/// Takes a locked sequence's slots in portions and hands them out a few at a time.
///
/// Threads that append one element after the other ask for the sequence's lock all the time, and
/// write to lines of memory that the others hold: with a stock each, they do so once a portion.
/// Where the sequence is read is of no matter, since slots that were not used count as none.
template <class SequenceType> class Stock {
  public:
    using Element = typename SequenceType::Element;

    /// A stock of no sequence.
    Stock() = default;
    /// Hands out slots of `source`, which must outlive this. With a portion of 0 each run is taken
    /// from there as it is asked for.
    explicit Stock(SequenceType& source, std::int32_t elementsAtATime = 0)
        : sequence(&source), portion(elementsAtATime) {}

    /// As the sequence's `newElements`, and thrown by it: `n` slots that lie one behind the other.
    Element* newElements(std::int32_t n) {
        // Of a portion that a run leaves behind, little is lost.
        if (n > portion / 8)
            return sequence->newElements(n);
        if (n > left) {
            giveBack();
            next = sequence->newElements(portion);
            left = portion;
        }
        left -= n;
        return std::exchange(next, next + n);
    }

    /// Counts the slots that were taken and not used out of the sequence. Nobody gets them.
    void giveBack() {
        if (left > 0)
            sequence->uncount(left);
        left = 0;
    }

  private:
    SequenceType* sequence = nullptr;
    std::int32_t portion = 0;
    Element* next = nullptr;
    std::int32_t left = 0;
};

} // namespace Kelpa
