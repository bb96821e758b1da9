// What starves the machine, each as a process of its own that ends with the one that started it.
#pragma once

#include <string>
#include <vector>

// The part of a process that was started as a load: never returns when `words` (its arguments) name one.
//   load spin          a busy loop at normal priority
//   load spin-rt       a busy loop at real-time priority
//   load memory MIB    takes pages, writes to them and gives them back, that many at the most
//   load requests      a client that asks the daemon as fast as it answers; says how often on standard output
void load_become(const std::vector<std::string> &words);

inline constexpr int LOAD_RT_PRIORITY = 10;

// Puts the calling thread before every load. What it starts from then on is as any other thread or process. False, and
// errno: not allowed here.
bool load_take_precedence();
