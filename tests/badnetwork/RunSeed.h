// The seed that a run on a bad network follows from.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

// From the environment or the system's randomness, printed so that the run can be repeated.
inline uint64_t RunSeed() {
  static const uint64_t seed = [] {
    const char* given = std::getenv("QZ_SEED");
    const uint64_t value = given ? std::strtoull(given, nullptr, 10) : std::random_device()();
    std::cout << "QZ_SEED=" << value << " repeats this run\n";
    return value;
  }();
  return seed;
}
