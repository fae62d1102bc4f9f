// Pseudo-random numbers for names that must not collide.
#pragma once

namespace kvt::entropy {

// A number from 0 to 32767. Safe to call from several threads at once: each call takes
// fresh bytes from the system's generator (Windows: rand_s; Linux: getrandom), so there is
// no seed to share; should the generator fail, an atomically advanced state stands in.
int Random15();

}  // namespace kvt::entropy
