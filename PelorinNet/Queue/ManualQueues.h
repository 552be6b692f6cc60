#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// Queues that a test drives by hand, all on one thread and one virtual clock. Nothing runs until advance or
// runReady is called; 300 virtual seconds pass in no time. Steady and wall clock start at fixed values and
// move together, unless jumpWall moves the wall clock alone, as a user setting the clock does. The driving
// thread counts as being on every queue while no task runs, so that a test calls its objects directly; inside
// a task only the task's queue is current. Other threads may post, and nothing else.
class ManualQueues final : public QueueMaker {
public:
    ManualQueues();
    ~ManualQueues() override;

    QueueRef makeQueue(std::string label) override;

    // Everything posted, and what that posts in turn, on all queues in order of posting; what is already due;
    // and watches on descriptors, asked again until none is ready.
    void runReady();
    void advance(Duration duration); // moves the clock, running whatever falls due on the way, in order
    void stall(Duration duration); // moves the clock at once; what fell due runs only then, as after a sleep
    void jumpWall(Duration duration);
    SteadyTime now() const;

    struct Engine;

private:
    std::shared_ptr<Engine> engine;
};

} // namespace pelorin
