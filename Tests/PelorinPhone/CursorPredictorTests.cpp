#include "PelorinPhone/CursorPredictor.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

using namespace pelorin;
using namespace std::chrono_literals;
using Place = CursorPredictor::Place;

namespace {

constexpr double width = 390;
constexpr double height = 844;

Place step(Place from, double dx, double dy)
{
    return {std::clamp(from.x + dx, 0.0, width - 1), std::clamp(from.y + dy, 0.0, height - 1)};
}

double distance(Place a, Place b)
{
    return std::hypot(a.x - b.x, a.y - b.y);
}

// A host at the end of a line on which each message takes its own time, in order, and which reports only the
// latest place now and then; moves by the hand, and moves by the desktop itself.
struct World {
    explicit World(unsigned seed) : random(seed) { predictor.displayIs(width, height); }

    struct Move {
        SteadyTime arrives;
        double dx;
        double dy;
    };
    struct Report {
        SteadyTime arrives;
        message::CursorPosition position;
    };

    int roll(int from, int to) { return std::uniform_int_distribution(from, to)(random); }
    SteadyTime arrival(SteadyTime& last)
    {
        last = std::max(last, now + std::chrono::milliseconds(roll(20, 120)));
        return last;
    }
    void hand()
    {
        // Whole points, which a float holds exactly wherever they add up to.
        const double dx = roll(-40, 40);
        const double dy = roll(-40, 40);
        predictor.moved(dx, dy);
        moves.push_back({arrival(lastMoveArrives), dx, dy});
        intended = step(intended, dx, dy);
    }
    void tick()
    {
        now += 1ms;
        while (!moves.empty() && moves.front().arrives <= now) {
            pointer = step(pointer, moves.front().dx, moves.front().dy);
            ++applied;
            moves.pop_front();
        }
        while (!reports.empty() && reports.front().arrives <= now) {
            predictor.reported(reports.front().position, now);
            hasReport = true;
            reports.pop_front();
        }
    }
    void report()
    {
        reports.push_back({arrival(lastReportArrives),
            {static_cast<float>(pointer.x), static_cast<float>(pointer.y), applied}});
    }
    Place drawn() const { return predictor.at(now).value_or(Place{-1, -1}); }

    CursorPredictor predictor;
    std::mt19937 random;
    SteadyTime now{1h};
    SteadyTime lastMoveArrives = now;
    SteadyTime lastReportArrives = now;
    std::deque<Move> moves;
    std::deque<Report> reports;
    Place pointer{195, 422};
    Place intended = pointer; // where the moves sent so far lead
    std::uint32_t applied = 0;
    bool hasReport = false;
};

TEST(CursorPredictor, isWhereTheMovesLeadAtOnceHoweverLateTheHostSpeaks)
{
    for (unsigned seed = 0; seed < 50; ++seed) {
        World world(seed);
        world.report();
        for (int i = 0; i < 3000; ++i) {
            world.tick();
            if (world.roll(0, 9) == 0) world.hand();
            if (world.roll(0, 15) == 0) world.report();
            if (!world.hasReport) continue;
            ASSERT_EQ(world.drawn(), world.intended) << "seed " << seed << " at " << i << " ms";
            ASSERT_FALSE(world.predictor.isGliding(world.now));
        }
    }
}

TEST(CursorPredictor, settlesWithoutAJumpWhereTheDesktopPutsThePointer)
{
    for (unsigned seed = 0; seed < 50; ++seed) {
        World world(seed);
        world.report();
        while (!world.hasReport) world.tick();
        for (int i = 0; i < 3000; ++i) {
            if (world.roll(0, 300) == 0)
                world.pointer = {double(world.roll(0, 389)), double(world.roll(0, 843))};
            if (world.roll(0, 15) == 0) world.report();
            const Place before = world.drawn();
            world.tick();
            // The longest way there is, in a tenth of a second, and a little for one that begins in another.
            ASSERT_LT(distance(before, world.drawn()), 2 * std::hypot(width, height) / 100)
                << "seed " << seed;
            const Place resting = world.drawn();
            world.hand();
            ASSERT_LT(distance(resting, world.drawn()), std::hypot(40, 40) + 0.1) << "as far as the hand";
        }
        world.report();
        for (int i = 0; i < 400; ++i) {
            world.tick();
            if (i == 150) world.report(); // all moves have arrived
        }
        EXPECT_EQ(world.drawn(), world.pointer);
        EXPECT_FALSE(world.predictor.isGliding(world.now));
    }
}

TEST(CursorPredictor, isNowhereBeforeTheFirstReportAndIgnoresWhatNoHostSays)
{
    CursorPredictor predictor;
    const SteadyTime now{1h};
    predictor.moved(5, 5);
    EXPECT_FALSE(predictor.at(now));
    predictor.reported({10, 10, 0}, now);
    EXPECT_EQ(predictor.at(now), (Place{15, 15}));
    predictor.moved(NAN, 1);
    predictor.reported({900, 900, 2}, now); // more than there were
    predictor.reported({NAN, 10, 1}, now);
    predictor.reported({15, 15, 1}, now);
    predictor.reported({10, 10, 0}, now); // older than what is known
    EXPECT_EQ(predictor.at(now), (Place{15, 15}));
}

} // namespace
