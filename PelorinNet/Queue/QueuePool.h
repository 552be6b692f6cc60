#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// The queues of a running program: strands on a small shared pool of threads, on the machine's own clocks.
class QueuePool final : public QueueMaker {
public:
    explicit QueuePool(int threads);
    // Stops the threads. Tasks not yet begun are destroyed unrun; their thread counts as being on every queue
    // from then on, so what they owned may take itself apart.
    ~QueuePool() override;

    QueueRef makeQueue(std::string label) override;

    // The I/O context that channels and listeners of this module run on.
    struct Engine;
    Engine& engine() { return *shared; }

private:
    std::shared_ptr<Engine> shared;
};

} // namespace pelorin
