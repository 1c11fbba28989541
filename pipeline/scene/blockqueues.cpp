// Finds the blocks of many rays on one walk.
#include "pipeline/scene/blockqueues.h"

namespace pipeline {

void BlockQueues::fill(TopTree const& top, LaneRays& rays) {
    // Rays that run apart enter many blocks between them, most of which none will get to.
    constexpr unsigned mostTogether = 64;
    count = rays.count;
    rays.pad();
    for (unsigned k = 0; k < count; ++k)
        queues[k].clear();
    EnterBox const enterBox = enterBoxKernel();
    alignas(64) float enter[LaneRays::most];
    unsigned found = 0;
    top.visitReached(
        [&](Kelpa::Box const& box) { return found <= mostTogether && enterBox(rays, box, enter); },
        [&](std::int32_t block) {
            if (++found > mostTogether)
                return;
            for (unsigned k = 0; k < count; ++k)
                if (enter[k] != none)
                    queues[k].add({enter[k], block});
        });
    for (unsigned k = 0; k < count; ++k) {
        if (found > mostTogether) {
            queues[k].clear();
            queues[k].findLater();
        }
        advance(k, top, rays, rays.end[k]);
    }
}

} // namespace pipeline
