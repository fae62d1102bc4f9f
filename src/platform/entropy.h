// Pseudo-random numbers for names that must not collide.
#pragma once
#include <cstddef>

namespace kvt::entropy {

// A number from 0 to 32767. Safe to call from several threads at once: each call takes
// fresh bytes from the system's generator (Windows: rand_s; Linux: getrandom), so there is
// no seed to share; should the generator fail, an atomically advanced state stands in.
int Random15();

// Fills `size` bytes for a secret from the system's generator (Windows: rand_s; Linux:
// getrandom, which waits until the kernel's pool is ready). Never a stand-in: false when
// the system gives no bytes, and the caller must not go on without its secret.
bool Secret(void* out, std::size_t size);

}  // namespace kvt::entropy
