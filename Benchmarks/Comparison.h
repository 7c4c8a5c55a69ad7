// Measures several ways of doing the same work so that they can be compared: they take turns, a
// millisecond or so each, so that whatever slows the machine down meanwhile slows all of them down.
// A repetition has one value for each, and values of the same repetition belong together. Used by
// one thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Benchmarks {

struct Contender {
    std::string figure;
    // Does the work so many times; returns the seconds that took, and throws when it went wrong.
    std::function<double(long)> time;
};

// Registers a Google benchmark. It reports the nanoseconds of one piece of work as one counter for
// each contender, by the name of its figure. A turn lasts about so many seconds, and at least one
// piece of work. `repetitions`: as many as the program is told when 0.
void Compare(const std::string& name, std::vector<Contender> contenders,
             double secondsOfATurn = 0.001, int repetitions = 0);

}  // namespace Benchmarks
