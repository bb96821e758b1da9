// Chance that can be had again: every run prints its seed, and KAP_SEED=N gives the run of that seed.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

class Seeded
{
public:
    Seeded() : seed_(getenv("KAP_SEED") != nullptr ? strtoul(getenv("KAP_SEED"), nullptr, 10) : std::random_device{}())
    {
        engine_.seed(seed_);
        printf("KAP_SEED=%lu\n", seed_);
        (void)fflush(stdout);
    }

    int number(int low, int high) { return std::uniform_int_distribution<>(low, high)(engine_); }
    std::chrono::microseconds microseconds(int low, int high) { return std::chrono::microseconds(number(low, high)); }

private:
    unsigned long seed_;
    std::mt19937_64 engine_;
};
